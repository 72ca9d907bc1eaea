// Free space in containers: taking and releasing blocks through the on-disk
// map, the partial map write, the map's extension and move, the in-memory
// map, the deletion service, item slots, and allocation by several processes
// at once.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "ext.h"
#include "im.h"
#include "mdc.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

constexpr auto EscapeOf = sfltest::GroupAndReasonOf;

std::pair<int, int> Sfl(int reason) { return {ER_GROUP_SFL, reason}; }

constexpr auto PathOf = sfltest::ItemPathOf;
using sfltest::FileBytes;

// Item 0's header and the map it points to, decoded from a file image.
struct MapOnDisk {
  sfl_ItemHeader header;
  std::vector<uint8_t> map;
};

MapOnDisk ReadMap(const std::string& path) {
  std::vector<uint8_t> b = FileBytes(path);
  MapOnDisk m;
  EXPECT_GE(b.size(), 192u);
  if (b.size() < 192) return m;
  m.header = sfl_DecodeItemHeader(std::span<const uint8_t, 64>(b.data() + 128, 64));
  if (m.header.FileOffset + m.header.FileSize <= b.size())
    m.map.assign(b.begin() + m.header.FileOffset,
                 b.begin() + m.header.FileOffset + m.header.FileSize);
  return m;
}

bool Bit(const std::vector<uint8_t>& map, uint32_t n) {
  return n / 8 < map.size() && ((map[n / 8] >> (n % 8)) & 1) != 0;
}

sfl_FileHeader ReadHeader(const std::string& path) {
  std::vector<uint8_t> b = FileBytes(path);
  EXPECT_GE(b.size(), 128u);
  b.resize(std::max<size_t>(b.size(), 128));
  return sfl_DecodeFileHeader(std::span<const uint8_t, 128>(b.data(), 128));
}

class FreeSpace : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    unsetenv("SFL_SECURE_DELETE");
    handle_ = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    rec_ = sfl_Handle2Record(handle_);
    path_ = PathOf(handle_);
  }
  void TearDown() override {
    os_ClearFaults();
    unsetenv("SFL_SECURE_DELETE");
  }
  uint32_t Take(uint32_t size, uint32_t* count = nullptr) {
    uint32_t c = 0;
    uint32_t off = sfl_GetFreeSpaceNew(rec_, size, &c);
    if (count != nullptr) *count = c;
    return off;
  }
  int32_t handle_ = -1;
  sfl_BaseRec* rec_ = nullptr;
  std::string path_;
};

TEST_F(FreeSpace, ZeroBytesTouchNothing) {
  std::vector<uint8_t> before = FileBytes(path_);
  os_ResetCallCounts();
  uint32_t count = 99;
  EXPECT_EQ(sfl_GetFreeSpaceNew(rec_, 0, &count), 0u);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Lock), 0u);
  EXPECT_EQ(FileBytes(path_), before);
}

TEST_F(FreeSpace, FirstRequestsInAFreshContainer) {
  uint32_t count = 0;
  EXPECT_EQ(Take(128, &count), 896u);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(Take(128, &count), 1024u);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(Take(129, &count), 1152u);
  EXPECT_EQ(count, 2u);
  MapOnDisk m = ReadMap(path_);
  ASSERT_EQ(m.map.size(), 256u);
  EXPECT_EQ(m.map[0], 0xFF);  // blocks 0..7
  EXPECT_EQ(m.map[1], 0x07);  // blocks 8..10
  for (size_t i = 2; i < m.map.size(); ++i) EXPECT_EQ(m.map[i], 0) << i;
}

TEST_F(FreeSpace, AllocationWritesOnlyTheChangedMapBytes) {
  std::vector<uint8_t> before = FileBytes(path_);
  os_ResetCallCounts();
  // The map write may carry one byte: a whole-map write would come up short
  // and raise.
  os_ShortNth(os_Op::Pwrite, 1, 1);
  EXPECT_EQ(Take(128), 896u);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 1u);
  std::vector<uint8_t> after = FileBytes(path_);
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); ++i) {
    if (i != 640) {
      EXPECT_EQ(after[i], before[i]) << i;
    }
  }
  EXPECT_EQ(after[640], 0xFF);

  // Blocks 8..17 lie in map bytes 1 and 2: two bytes are written, not more.
  os_ResetCallCounts();
  os_ShortNth(os_Op::Pwrite, 1, 2);
  EXPECT_EQ(Take(10 * 128), 8u * 128);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 1u);
  MapOnDisk m = ReadMap(path_);
  EXPECT_EQ(m.map[1], 0xFF);
  EXPECT_EQ(m.map[2], 0x03);
  // Blocks 18..27 lie in bytes 2 and 3: one byte is not enough.
  os_ShortNth(os_Op::Pwrite, 1, 1);
  EXPECT_EQ(EscapeOf([&] { Take(10 * 128); }), Sfl(SFL_R_SHORT_MAP_WRITE));
}

TEST_F(FreeSpace, LargeRequestExtendsAndMovesTheMap) {
  // The first map covers 2,048 blocks, 7 of them used: 2,042 blocks do not
  // fit and the map must grow.
  const uint32_t size = 2042 * 128;
  uint32_t count = 0;
  const uint32_t off = Take(size, &count);
  EXPECT_EQ(count, 2042u);

  MapOnDisk m = ReadMap(path_);
  // 256 + 256 bytes, plus one block for the request: 6 blocks, 768 bytes,
  // placed at the first free run (blocks 7..12).
  EXPECT_EQ(m.header.FileOffset, 896u);
  EXPECT_EQ(m.header.FileSize, 768u);
  EXPECT_EQ(m.header.UsedBlocks, 6u);
  EXPECT_EQ(m.header.Magic, SFL_MAGIC);
  EXPECT_EQ(m.header.Type, SFL_TYPE_ITEM_HEADER);
  ASSERT_EQ(m.map.size(), 768u);
  for (uint32_t b = 0; b < 5; ++b) EXPECT_TRUE(Bit(m.map, b)) << b;
  EXPECT_FALSE(Bit(m.map, 5));  // the old map's blocks are free again
  EXPECT_FALSE(Bit(m.map, 6));
  for (uint32_t b = 7; b < 13; ++b) EXPECT_TRUE(Bit(m.map, b)) << b;
  EXPECT_EQ(off, 13u * 128);
  for (uint32_t b = 13; b < 13 + 2042; ++b) ASSERT_TRUE(Bit(m.map, b)) << b;
  for (uint32_t b = 13 + 2042; b < 768 * 8; ++b) ASSERT_FALSE(Bit(m.map, b)) << b;

  // The record of item 0 follows the move, and the old place is reused.
  EXPECT_EQ(rec_->FreeMapItem->Offset, 896u);
  EXPECT_EQ(rec_->FreeMapItem->Size, 768u);
  EXPECT_EQ(Take(256), 640u);
  m = ReadMap(path_);
  EXPECT_TRUE(Bit(m.map, 5));
  EXPECT_TRUE(Bit(m.map, 6));
}

TEST_F(FreeSpace, AnotherProcessSeesTheMovedMap) {
  EXPECT_EQ(Take(2042 * 128), 13u * 128);
  sfl_ItemRef ref;
  sfl_GetSerFileItem(handle_, &ref);
  // A second process allocates after the move: it must read the map at its
  // new place, not at the old one.
  int rc = sfltest::RunInChild([&] {
    int32_t h = sfl_OpenSfl(&ref, 0);
    uint32_t c = 0;
    uint32_t o = sfl_GetFreeSpaceNew(sfl_Handle2Record(h), 128, &c);
    sfl_CloseFile(h);
    return o == 640u ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
  MapOnDisk m = ReadMap(path_);
  EXPECT_TRUE(Bit(m.map, 5));
  EXPECT_FALSE(Bit(m.map, 6));
}

TEST_F(FreeSpace, ReleaseWritesTheWholeMapAndMarksForAnalysis) {
  const uint32_t off = Take(3 * 128);
  EXPECT_EQ(off, 896u);
  EXPECT_EQ(rec_->SpaceAnalysis & 1, 0u);
  // Releasing writes the whole map: a write of fewer bytes comes up short.
  os_ShortNth(os_Op::Pwrite, 1, 255);
  EXPECT_EQ(EscapeOf([&] { sfl_FreeFreeBlocks(rec_, off, 3); }), Sfl(SFL_R_SHORT_MAP_WRITE));
  os_ClearFaults();
  sfl_FreeFreeBlocks(rec_, off, 3);
  EXPECT_EQ(rec_->SpaceAnalysis & 1, 1u);
  MapOnDisk m = ReadMap(path_);
  EXPECT_EQ(m.map[0], 0x7F);
  EXPECT_EQ(m.map[1], 0x00);
  EXPECT_EQ(Take(128), 896u);
}

TEST_F(FreeSpace, ReleaseByItemRoundsUpToBlocks) {
  EXPECT_EQ(Take(5 * 128), 896u);
  sfl_FreeFreeSpace(rec_->FreeMapItem, 896 + 128, 129);  // blocks 8 and 9
  MapOnDisk m = ReadMap(path_);
  EXPECT_TRUE(Bit(m.map, 7));
  EXPECT_FALSE(Bit(m.map, 8));
  EXPECT_FALSE(Bit(m.map, 9));
  EXPECT_TRUE(Bit(m.map, 10));
  EXPECT_TRUE(Bit(m.map, 11));
}

TEST_F(FreeSpace, ReleaseOfNothingTouchesNothing) {
  os_ResetCallCounts();
  sfl_FreeFreeBlocks(rec_, 896, 0);
  EXPECT_EQ(os_CallCount(os_Op::Pread) + os_CallCount(os_Op::Pwrite), 0u);
  EXPECT_EQ(rec_->SpaceAnalysis, 0u);
}

TEST_F(FreeSpace, DeletionServiceZeroesBeforeTheMapFreesTheBlocks) {
  const uint32_t off = Take(2 * 128);
  std::vector<uint8_t> data(256, 0xAB);
  ASSERT_EQ(pwrite(rec_->FileDes, data.data(), data.size(), off), 256);

  setenv("SFL_SECURE_DELETE", "1", 1);
  ASSERT_NE(mdc_DDSGetDelStatus(), 0);
  // When the zeroing write fails, the blocks stay in use.
  os_FailNth(os_Op::Pwrite, 1, EIO);
  EXPECT_NE(EscapeOf([&] { sfl_FreeFreeBlocks(rec_, off, 2); }).second, 0);
  os_ClearFaults();
  MapOnDisk m = ReadMap(path_);
  EXPECT_TRUE(Bit(m.map, 7));
  EXPECT_TRUE(Bit(m.map, 8));

  sfl_FreeFreeBlocks(rec_, off, 2);
  std::vector<uint8_t> b = FileBytes(path_);
  ASSERT_GE(b.size(), off + 256u);
  for (uint32_t i = 0; i < 256; ++i) ASSERT_EQ(b[off + i], 0) << i;
  m = ReadMap(path_);
  EXPECT_FALSE(Bit(m.map, 7));
  EXPECT_FALSE(Bit(m.map, 8));
}

TEST_F(FreeSpace, WithoutDeletionServiceFreedDataStays) {
  const uint32_t off = Take(128);
  std::vector<uint8_t> data(128, 0xAB);
  ASSERT_EQ(pwrite(rec_->FileDes, data.data(), data.size(), off), 128);
  ASSERT_EQ(mdc_DDSGetDelStatus(), 0);
  sfl_FreeFreeBlocks(rec_, off, 1);
  std::vector<uint8_t> b = FileBytes(path_);
  EXPECT_EQ(b[off], 0xAB);
  EXPECT_EQ(b[off + 127], 0xAB);
  EXPECT_FALSE(Bit(ReadMap(path_).map, 7));
}

TEST_F(FreeSpace, InMemoryMapNeedsMemFreeMap) {
  rec_->FreeMapItem->Flags |= MEM_FREEMAP;
  ASSERT_EQ(MemFreeMap, nullptr);
  EXPECT_EQ(EscapeOf([&] { Take(128); }), Sfl(SFL_R_NEED_MEM_MAP));
  EXPECT_EQ(EscapeOf([&] { sfl_MakeSpaceFitMemMap(rec_); }), Sfl(SFL_R_NEED_MEM_MAP));
  rec_->FreeMapItem->Flags &= ~MEM_FREEMAP;
  MemFreeMap = static_cast<uint8_t*>(os_calloc(256, 1));
  MemFreeMapSize = 256;
  // A map in memory without the mark on the free-map item is refused too.
  EXPECT_EQ(EscapeOf([&] { sfl_MakeSpaceFitMemMap(rec_); }), Sfl(SFL_R_NEED_MEM_MAP));
  os_free(MemFreeMap);
  MemFreeMap = nullptr;
  MemFreeMapSize = 0;
}

TEST_F(FreeSpace, InMemoryMapTakesSpaceWithoutTouchingTheFile) {
  rec_->FreeMapItem->Flags |= MEM_FREEMAP;
  MemFreeMap = static_cast<uint8_t*>(os_calloc(256, 1));
  MemFreeMapSize = 256;
  ext_SetBits(MemFreeMap, 256, 0, 5, 1);
  std::vector<uint8_t> before = FileBytes(path_);
  os_ResetCallCounts();
  EXPECT_EQ(Take(128), 640u);
  EXPECT_EQ(Take(256), 768u);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 0u);
  EXPECT_EQ(FileBytes(path_), before);
  EXPECT_EQ(MemFreeMap[0], 0xFF);

  // Blocks 8 to 2,047 remain free; 2,042 blocks grow the map in memory by
  // blocks(256) + blocks(2042 / 8 + 1) = 2 + 2 blocks to 512 bytes, and the
  // run then starts at block 8.
  EXPECT_EQ(Take(2042 * 128), 8u * 128);
  EXPECT_EQ(MemFreeMapSize, 512u);
  EXPECT_TRUE(ext_CheckBits(MemFreeMap, MemFreeMapSize, 8, 2042, 1));
  EXPECT_TRUE(ext_CheckBits(MemFreeMap, MemFreeMapSize, 8 + 2042, 512 * 8 - 8 - 2042, 0));
  EXPECT_EQ(FileBytes(path_), before);

  // A full map is grown until it has a free run as long as itself.
  std::memset(MemFreeMap, 0xFF, MemFreeMapSize);
  sfl_MakeSpaceFitMemMap(rec_);
  EXPECT_GT(MemFreeMapSize, 512u);
  EXPECT_GE(ext_FindBits(MemFreeMap, MemFreeMapSize, sfl_CalculateBlocks(MemFreeMapSize), 0), 0);
  EXPECT_TRUE(ext_CheckBits(MemFreeMap, MemFreeMapSize, 0, 512 * 8, 1));

  // Releasing always goes to the map on disk.
  std::vector<uint8_t> disk = FileBytes(path_);
  disk[640] = 0xFF;  // blocks 0 to 7 in use on disk
  ASSERT_EQ(pwrite(rec_->FileDes, disk.data() + 640, 1, 640), 1);
  sfl_FreeFreeBlocks(rec_, 896, 1);
  EXPECT_EQ(MemFreeMap[0], 0xFF);
  EXPECT_FALSE(Bit(ReadMap(path_).map, 7));
  EXPECT_TRUE(Bit(ReadMap(path_).map, 6));

  os_free(MemFreeMap);
  MemFreeMap = nullptr;
  MemFreeMapSize = 0;
  rec_->FreeMapItem->Flags &= ~MEM_FREEMAP;
}

TEST(FreeMapArea, ClearsTheBlocksARangeCovers) {
  std::vector<uint8_t> map(8, 0xFF);
  sfl_ClearFreeMapArea(map.data(), 8, 256, 300);  // blocks 2, 3, 4
  EXPECT_EQ(map[0], 0xE3);
  EXPECT_EQ(map[1], 0xFF);
  sfl_ClearFreeMapArea(map.data(), 8, 1000, 0);  // nothing
  EXPECT_EQ(map[0], 0xE3);
  sfl_ClearFreeMapArea(map.data(), 8, 63 * 128, 128 * 4);  // beyond the map: ignored
  EXPECT_EQ(map[7], 0x7F);
}

TEST(FreeMapArea, LastBlockOfA32BitOffset) {
  // The highest 32-bit offset lies in block 2^25 - 1, the last bit the
  // modulo keeps.
  std::vector<uint8_t> map((1u << 25) / 8, 0xFF);
  sfl_ClearFreeMapArea(map.data(), static_cast<uint32_t>(map.size()), 0xFFFFFF80u, 1);
  EXPECT_EQ(map.back(), 0x7F);
  EXPECT_EQ(map[map.size() - 2], 0xFF);
}

TEST(SingleItemFile, SpaceIsTheDataOffsetAndReleaseIsANoOp) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  std::vector<uint8_t> before = FileBytes(PathOf(h));
  uint32_t count = 0;
  EXPECT_EQ(sfl_GetFreeSpaceNew(rec, 1000, &count), 256u);
  EXPECT_EQ(count, 8u);
  os_ResetCallCounts();
  sfl_FreeFreeBlocks(rec, 256, 8);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite) + os_CallCount(os_Op::Pread) + os_CallCount(os_Op::Lock),
            0u);
  EXPECT_EQ(rec->SpaceAnalysis, 0u);
  EXPECT_EQ(FileBytes(PathOf(h)), before);
}

// ---- item slots ---------------------------------------------------------------

TEST_F(FreeSpace, SlotTakenIsWrittenAsAFreshHeader) {
  const uint32_t before = mdc_time();
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, -1), 1);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 1, -1), 2);
  const uint32_t after = mdc_time();
  sfl_FileHeader h = ReadHeader(path_);
  EXPECT_EQ(h.UsedItems, 2);
  EXPECT_EQ(h.InUseItms, 0x07);
  std::vector<uint8_t> b = FileBytes(path_);
  for (int slot = 1; slot <= 2; ++slot) {
    const uint8_t* p = b.data() + 128 + slot * 64;
    EXPECT_EQ(sfl_GetU32(p + 0), 0u);  // magic comes with the first full write
    EXPECT_EQ(sfl_GetU32(p + 4), 0u);
    EXPECT_EQ(sfl_GetU32(p + 8), 1u);  // AccCount
    EXPECT_GE(sfl_GetU32(p + 20), before);
    EXPECT_LE(sfl_GetU32(p + 20), after);
    EXPECT_EQ(sfl_GetU32(p + 32), slot == 2 ? 1u : 0u);  // BLOCKED_ITEM
    for (int i = 36; i < 64; ++i) EXPECT_EQ(p[i], 0);
  }
}

TEST_F(FreeSpace, WantedSlot) {
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, 5), 5);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, 5), -1);  // taken
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, 0), -1);  // the free map's
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, 8), -1);  // beyond MaxItems
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, -1), 1);
  sfl_FileHeader h = ReadHeader(path_);
  EXPECT_EQ(h.UsedItems, 2);
  EXPECT_EQ(h.InUseItms, 0x23);
}

TEST_F(FreeSpace, NoSlotLeftChangesNothing) {
  for (int i = 1; i <= 7; ++i) ASSERT_EQ(sfl_GetFreeItemSlot(rec_, 0, -1), i);
  std::vector<uint8_t> before = FileBytes(path_);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, -1), -1);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 1, -1), -1);
  EXPECT_EQ(FileBytes(path_), before);
  EXPECT_EQ(ReadHeader(path_).UsedItems, 7);
}

TEST_F(FreeSpace, FirstFreeSlotBeyondMaxItemsGivesZero) {
  // A table of four slots, all in use: the first clear bit (4) lies beyond it.
  std::vector<uint8_t> b = FileBytes(path_);
  sfl_PutU16(b.data() + 18, 4);
  b[32] = 0x0F;
  ASSERT_EQ(pwrite(rec_->FileDes, b.data(), 128, 0), 128);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec_, 0, -1), 0);
  EXPECT_EQ(ReadHeader(path_).InUseItms, 0x0F);
}

TEST(SingleItemFile, OneSlotAndNoBlockedItems) {
  int32_t h = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
  sfl_BaseRec* rec = sfl_Handle2Record(h);
  EXPECT_EQ(EscapeOf([&] { sfl_GetFreeItemSlot(rec, 1, -1); }), Sfl(SFL_R_SINGLE_FILE));
  EXPECT_EQ(sfl_GetFreeItemSlot(rec, 0, 2), -1);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec, 0, -1), 1);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec, 0, -1), -1);
  EXPECT_EQ(sfl_GetFreeItemSlot(rec, 0, 1), -1);
  sfl_FileHeader fh = ReadHeader(PathOf(h));
  EXPECT_EQ(fh.UsedItems, 1);
  EXPECT_EQ(fh.InUseItms, 0x03);
}

TEST_F(FreeSpace, SlotLocksAreReleasedOnAShortWrite) {
  // The slot header's write is the first positioned write of the call.
  os_ShortNth(os_Op::Pwrite, 1, 10);
  EXPECT_EQ(EscapeOf([&] { sfl_GetFreeItemSlot(rec_, 0, -1); }), Sfl(SFL_R_SHORT_WRITE));
  // Another process can take the header and slot locks at once: nothing was
  // left held.
  sfl_ItemRef ref;
  sfl_GetSerFileItem(handle_, &ref);
  int rc = sfltest::RunInChild([&] {
    int fd = im_OpenItem(&ref);
    int a = os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 128, 0);
    int b = os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 128 + 64, 0, 64, 0);
    return a == 1 && b == 1 ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
}

TEST_F(FreeSpace, GetExtItemHeaderReadsUnderASharedLock) {
  sfl_ItemHeader h;
  sfl_GetExtItemHeader(rec_->FreeMapItem, &h);
  EXPECT_EQ(h.FileOffset, 640u);
  EXPECT_EQ(h.FileSize, 256u);
  // The lock is gone afterwards.
  sfl_ItemRef ref;
  sfl_GetSerFileItem(handle_, &ref);
  int rc = sfltest::RunInChild([&] {
    int fd = im_OpenItem(&ref);
    return os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 128, 0, 64, 0) == 1 ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
}

// ---- several processes --------------------------------------------------------

TEST_F(FreeSpace, ProcessesAllocatingAtOnceNeverShareABlock) {
  constexpr int kChildren = 4;
  constexpr int kEach = 30;
  sfl_ItemRef ref;
  sfl_GetSerFileItem(handle_, &ref);
  std::vector<int> pids;
  for (int c = 0; c < kChildren; ++c) {
    pids.push_back(sfltest::StartChild([c, ref] {
      int32_t h = sfl_OpenSfl(&ref, 0);
      sfl_BaseRec* rec = sfl_Handle2Record(h);
      std::ofstream out(sfltest::TestDir() + "/runs-" + std::to_string(c));
      for (int i = 0; i < kEach; ++i) {
        // Mostly small runs, and now and then one large enough to make the
        // map grow and move while the others allocate.
        uint32_t blocks = 1 + static_cast<uint32_t>((c * 7 + i * 3) % 5);
        if (i % 10 == 9) blocks = 700;
        uint32_t count = 0;
        uint32_t off = sfl_GetFreeSpaceNew(rec, blocks * 128, &count);
        if (count != blocks || off % 128 != 0 || off == 0) return 1;
        out << off / 128 << " " << count << "\n";
      }
      out.close();
      sfl_CloseFile(h);
      return 0;
    }));
  }
  for (int pid : pids) ASSERT_EQ(sfltest::WaitChild(pid), 0);

  std::set<uint32_t> handedOut;
  for (int c = 0; c < kChildren; ++c) {
    std::ifstream in(sfltest::TestDir() + "/runs-" + std::to_string(c));
    uint32_t first, count;
    int runs = 0;
    while (in >> first >> count) {
      ++runs;
      for (uint32_t b = first; b < first + count; ++b)
        ASSERT_TRUE(handedOut.insert(b).second) << "block " << b << " handed out twice";
    }
    EXPECT_EQ(runs, kEach);
  }

  // The map marks exactly the header and table, its own blocks and what
  // was handed out.
  MapOnDisk m = ReadMap(path_);
  ASSERT_FALSE(m.map.empty());
  std::set<uint32_t> expected = handedOut;
  for (uint32_t b = 0; b < 5; ++b) expected.insert(b);
  for (uint32_t b = 0; b < m.header.UsedBlocks; ++b) {
    ASSERT_TRUE(expected.insert(m.header.FileOffset / 128 + b).second)
        << "map block " << b << " also handed out";
  }
  std::set<uint32_t> marked;
  for (uint32_t b = 0; b < m.map.size() * 8; ++b)
    if (Bit(m.map, b)) marked.insert(b);
  EXPECT_EQ(marked, expected);
  EXPECT_EQ(m.header.UsedBlocks, sfl_CalculateBlocks(m.header.FileSize));
}

}  // namespace
