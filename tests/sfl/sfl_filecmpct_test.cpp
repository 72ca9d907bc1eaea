// Whole-file compaction: the free-map analysis and its settings, the rebuild
// of real containers (every kind of item, slots that are empty or fail, the
// old file marked replaced), the decision at close, other processes that
// hold the file (open, in their cold store, or while the rebuild runs), and
// a failure of every operating-system call of a rebuild in turn.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "ext.h"
#include "ml.h"
#include "ml_keep.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::FileBytes;
using sfltest::ItemPath;
using Bytes = std::vector<uint8_t>;
using Blocks = std::map<uint32_t, Bytes>;  // an empty vector: an empty entry

constexpr uint32_t kMarkerType = 3;

Bytes Data(size_t n, uint32_t salt) { return sfltest::PseudoRandomBytes(n, 7, salt); }

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

ino_t InodeOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return st.st_ino;
}

uint64_t SizeOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

void Patch(const std::string& path, off_t off, const Bytes& bytes) {
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), off), static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}

void PatchU32(const std::string& path, off_t off, uint32_t v) {
  Bytes b(4);
  sfl_PutU32(b.data(), v);
  Patch(path, off, b);
}

uint32_t U32At(const Bytes& b, size_t off) { return sfl_GetU32(b.data() + off); }

sfl_FileHeader HeaderOfPath(const std::string& path) {
  const Bytes b = FileBytes(path);
  EXPECT_GE(b.size(), SFL_FILE_HEADER_SIZE);
  if (b.size() < SFL_FILE_HEADER_SIZE) return {};
  return sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE>(b.data(), SFL_FILE_HEADER_SIZE));
}

sfl_ItemHeader SlotOfPath(const std::string& path, uint32_t n) {
  const Bytes b = FileBytes(path);
  const size_t at = SFL_TABLE_OFFSET + n * SFL_ITEM_HEADER_SIZE;
  return sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(b.data() + at, SFL_ITEM_HEADER_SIZE));
}

sfl_ItemRef ItemRef(const sfl_ItemRef& file, uint32_t n) {
  sfl_ItemRef r = file;
  r.Flags = static_cast<uint16_t>((r.Flags & ~SFL_ITEM_NUM_MASK) | n);
  return r;
}

// ---- building containers ----------------------------------------------------------------

int32_t PutSimple(int32_t bh, const Bytes& data, sfl_ItemRef* ref = nullptr) {
  sfl_ItemRef r{};
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, static_cast<uint32_t>(data.size()), &r, 0);
  if (!data.empty()) sfl_WriteSimpleData(h, 0, static_cast<uint32_t>(data.size()), data.data());
  if (ref != nullptr) *ref = r;
  return h;
}

void WriteBlocks(int32_t h, const Blocks& blocks) {
  for (const auto& [n, bytes] : blocks)
    sfl_WriteBlockedData(h, n, static_cast<uint32_t>(bytes.size()), bytes.data());
}

int32_t PutBlocked(int32_t bh, const Blocks& blocks, sfl_ItemRef* ref = nullptr) {
  sfl_ItemRef r{};
  const int32_t h = sfl_CreateBlockedItem(bh, &r);
  sfl_FormatBlockedRoot(h);
  WriteBlocks(h, blocks);
  if (ref != nullptr) *ref = r;
  return h;
}

// A simple item that is an internal container: the marker, then internal
// blocked items in the header slots at 256 + 64 n.
struct ContainerItem {
  Bytes data;                       // as stored, before the internal items
  std::map<uint32_t, Blocks> kids;  // internal slot -> blocks
};

int32_t PutContainer(int32_t bh, const ContainerItem& c, sfl_ItemRef* ref = nullptr) {
  const int32_t h = PutSimple(bh, c.data, ref);
  for (const auto& [slot, blocks] : c.kids) {
    const int32_t k = sfl_CreateIntBItem(h, 0, 256 + 64 * slot, 0);
    WriteBlocks(k, blocks);
    sfl_CloseIntItem(k);
  }
  return h;
}

Bytes ContainerData(size_t size, uint32_t salt) {
  Bytes d = Data(size, salt);
  sfl_PutU32(d.data(), SFL_MAGIC);
  sfl_PutU32(d.data() + 4, kMarkerType);
  // The internal header slots start as zeros.
  std::fill(d.begin() + 256, d.begin() + 256 + 8 * 64, 0);
  return d;
}

void DeleteItem(int32_t h) {
  sfl_ItemHeader hd;
  sfl_GetExtItemHeader(sfl_ItemHandle2Record(h), &hd);
  if (hd.AccCount > 0) sfl_DetachOpenItem(h);
  sfl_DeleteItem(h);
  sfl_CloseItem(h);
}

// What a container should hold, item by item.
struct Expected {
  std::map<uint32_t, Bytes> simple;
  std::map<uint32_t, Blocks> blocked;
  std::map<uint32_t, ContainerItem> containers;
};

// ---- reading back --------------------------------------------------------------------

std::string CheckBlocks(int32_t h, const Blocks& want, const std::string& what) {
  std::vector<uint8_t> buf(1 << 17);
  for (const auto& [n, bytes] : want) {
    if (bytes.empty()) {
      const int reason = sfltest::ReasonOf([&] { sfl_ReadBlockedData(h, n, 16, buf.data()); });
      if (reason != SFL_R_EMPTY_ENTRY) return what + ": block " + std::to_string(n) + " not empty";
      continue;
    }
    uint32_t got = 0;
    const int reason = sfltest::ReasonOf([&] {
      got = sfl_ReadBlockedData(h, n, static_cast<uint32_t>(buf.size()), buf.data());
    });
    if (reason != 0) return what + ": block " + std::to_string(n) + " escaped " + std::to_string(reason);
    if (got != bytes.size() || !std::equal(bytes.begin(), bytes.end(), buf.begin()))
      return what + ": block " + std::to_string(n) + " differs";
  }
  return "";
}

Bytes ReadSimple(int32_t h) {
  const uint32_t size = sfl_ItemHandle2Record(h)->Size;
  Bytes b(size);
  if (size > 0) sfl_ReadSimpleData(h, 0, size, b.data());
  return b;
}

// Reads every expected item by reference; "" when all match.
std::string CheckContent(const sfl_ItemRef& file, const Expected& want) {
  std::string err;
  const int reason = sfltest::ReasonOf([&] {
    for (const auto& [n, bytes] : want.simple) {
      const sfl_ItemRef r = ItemRef(file, n);
      const int32_t h = sfl_OpenItem(&r, 0);
      const Bytes got = ReadSimple(h);
      sfl_CloseItem(h);
      if (got != bytes) err += "item " + std::to_string(n) + " differs; ";
    }
    for (const auto& [n, blocks] : want.blocked) {
      const sfl_ItemRef r = ItemRef(file, n);
      const int32_t h = sfl_OpenItem(&r, 0);
      err += CheckBlocks(h, blocks, "item " + std::to_string(n));
      sfl_CloseItem(h);
    }
    for (const auto& [n, c] : want.containers) {
      const sfl_ItemRef r = ItemRef(file, n);
      const int32_t h = sfl_OpenItem(&r, 0);
      const Bytes got = ReadSimple(h);
      // Everything but the internal header slots is the stored data.
      bool same = got.size() == c.data.size();
      for (size_t i = 0; same && i < got.size(); ++i)
        if ((i < 256 || i >= 256 + 8 * 64) && got[i] != c.data[i]) same = false;
      if (!same) err += "container " + std::to_string(n) + " differs; ";
      for (const auto& [slot, blocks] : c.kids) {
        const int32_t k = sfl_OpenIntItem(h, 0, 256 + 64 * slot);
        err += CheckBlocks(k, blocks, "internal item " + std::to_string(slot));
        sfl_CloseIntItem(k);
      }
      sfl_CloseItem(h);
    }
  });
  if (reason != 0) err += "escape " + std::to_string(reason);
  return err;
}

// Compares the free map of a container with the space its records and items
// use (header and table, the map itself, simple runs, index records and
// blocks of every tree, internal items of internal containers); "" when the
// map covers exactly that space and no two of them overlap.
std::string CheckMap(const sfl_ItemRef& file) {
  std::string err;
  const int reason = sfltest::ReasonOf([&] {
    const int32_t bh = sfl_OpenSfl(&file, 0);
    sfl_BaseRec* rec = sfl_Handle2Record(bh);
    const Bytes map = sfltest::FreeMapOf(bh);
    Bytes want(map.size(), 0);
    auto mark = [&](uint64_t offset, uint64_t blocks) {
      for (uint64_t b = offset / 128; b < offset / 128 + blocks; ++b) {
        if (b / 8 >= want.size()) {
          err += "block " + std::to_string(b) + " beyond the map; ";
          return;
        }
        if (want[b / 8] & (1u << (b % 8))) err += "block " + std::to_string(b) + " used twice; ";
        want[b / 8] = static_cast<uint8_t>(want[b / 8] | (1u << (b % 8)));
      }
    };
    auto markTree = [&](uint32_t root) {
      sfl_WalkIndexTree(rec, root, [&](uint32_t off, const sfl_IndexRecord& r, uint64_t) {
        mark(off, 3);
        if (r.Depth == 0)
          for (const auto& e : r.Entries)
            if (e.SectionOffSet != 0 || e.SectionSize != 0) mark(e.SectionOffSet, (e.SectionSize + 127) / 128);
        return true;
      });
    };
    mark(0, 5);
    sfl_ItemInfo info[8] = {};
    sfl_ListItems(bh, info, 8);
    mark(info[0].FileOffset, info[0].UsedBlocks);
    for (uint32_t i = 1; i < 8; ++i) {
      if (!info[i].InUse || !info[i].Valid) continue;
      if (info[i].Flags & BLOCKED_ITEM) {
        markTree(info[i].FileOffset);
        continue;
      }
      mark(info[i].FileOffset, info[i].UsedBlocks);
      if (info[i].FileSize <= 1023) continue;
      const Bytes head = sfltest::ReadExactly(rec->FileDes, info[i].FileOffset, 256 + 8 * 64);
      if (U32At(head, 0) != SFL_MAGIC || U32At(head, 4) != kMarkerType) continue;
      for (uint32_t n = 0; n < 8; ++n) {
        const size_t at = 256 + 64 * n;
        if (U32At(head, at) == SFL_MAGIC && U32At(head, at + 4) == SFL_TYPE_ITEM_HEADER)
          markTree(U32At(head, at + sfl_ih::FileOffset));
      }
    }
    if (want != map) err += "free map differs from the space in use; ";
    sfl_CloseFile(bh);
  });
  if (reason != 0) err += "escape " + std::to_string(reason);
  return err;
}

// The integrity check's verdict on a container; "" when it finds no fault.
std::string Integrity(const sfl_ItemRef& file) {
  return sfl_CheckSflIntegrity(&file, 0) == 0 ? "" : "the integrity check found faults; ";
}

// Runs `check` in another process; expects it to return "".
void ExpectElsewhere(const std::function<std::string()>& check) {
  const int rc = sfltest::RunInChild([&] {
    const std::string err = check();
    if (!err.empty()) std::fprintf(stderr, "%s\n", err.c_str());
    return err.empty() ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
}

// Interest holders of a reference as another process sees them: the count
// its own record reports, minus itself.
int OtherHolders(const sfl_ItemRef& ref) {
  return sfltest::RunInChild([&] {
    sfl_BaseRec probe;
    sfl_SetRef(probe, ref);
    sfl_RecordBaseInterest(&probe);
    const int others = static_cast<int>(probe.ProcAccCount) - 1;
    sfl_ReleaseBaseInterest(&probe);
    return others;
  });
}

sfl_ItemRef NewRefOf(const sfl_ItemRef& file) {
  sfl_ItemRef r = file;
  std::memcpy(r.Name, "new", 4);
  return r;
}

}  // namespace

// ==== the round trip ==========================================================================

TEST(FileCompaction, EveryKindOfItemReadsBackAfterTheLastCloseCompacts) {
  // Container A: simple items of every size class, an internal container
  // with internal items, a blocked item with empty entries; 300 KiB deleted.
  auto a = sfltest::NewContainer();
  Expected wantA;
  wantA.simple[1] = {};
  wantA.simple[2] = Data(1, 2);
  wantA.simple[3] = Data(1023, 3);
  wantA.simple[4] = Data(1024, 4);
  ContainerItem box;
  box.data = ContainerData(4096, 6);
  box.kids[0] = {{0, Data(500, 60)}, {1, {}}, {3, Data(129, 61)}};
  box.kids[2] = {{0, Data(70, 62)}, {33, Data(2000, 63)}, {40, {}}, {41, Data(1, 64)}};
  wantA.containers[6] = box;
  wantA.blocked[7] = {{0, Data(100, 70)}, {2, Data(3000, 71)}, {3, {}}, {5, Data(128, 72)}};
  for (uint32_t n = 1; n <= 4; ++n) sfl_CloseItem(PutSimple(a.bh, wantA.simple[n]));
  const int32_t bigA = PutSimple(a.bh, Data(300 * 1024, 5));
  sfl_CloseItem(PutContainer(a.bh, box));
  sfl_CloseItem(PutBlocked(a.bh, wantA.blocked[7]));
  DeleteItem(bigA);

  // Container B: blocked items of depth 1 and 2 with empty entries; a
  // simple item of 300 KiB and a blocked item deleted.
  auto b = sfltest::NewContainer();
  Expected wantB;
  wantB.blocked[1] = {{0, Data(10, 10)}, {1, {}}, {3, Data(700, 11)}, {33, Data(1, 12)}, {40, Data(4000, 13)}};
  wantB.blocked[2] = {{0, Data(64, 20)}, {2, Data(65, 21)}, {1024, Data(1500, 22)}, {1030, {}}, {1500, Data(9000, 23)}};
  wantB.simple[5] = Data(1, 50);
  sfl_CloseItem(PutBlocked(b.bh, wantB.blocked[1]));
  sfl_CloseItem(PutBlocked(b.bh, wantB.blocked[2]));
  const int32_t bigB = PutSimple(b.bh, Data(300 * 1024, 30));
  const int32_t treeB = PutBlocked(b.bh, {{0, Data(5000, 40)}, {40, Data(6000, 41)}});
  sfl_CloseItem(PutSimple(b.bh, wantB.simple[5]));
  DeleteItem(bigB);
  DeleteItem(treeB);

  const uint32_t oldMapA = sfltest::SlotOf(a.bh, 0).UsedBlocks, oldMapB = sfltest::SlotOf(b.bh, 0).UsedBlocks;
  const std::string pathA = ItemPath(a.ref), pathB = ItemPath(b.ref);
  const uint64_t beforeA = SizeOf(pathA), beforeB = SizeOf(pathB);
  const ino_t inoA = InodeOf(pathA), inoB = InodeOf(pathB);
  sfl_CloseFile(a.bh);
  sfl_CloseFile(b.bh);

  EXPECT_NE(InodeOf(pathA), inoA);
  EXPECT_NE(InodeOf(pathB), inoB);
  EXPECT_FALSE(Exists(pathA + "#.new"));
  EXPECT_FALSE(Exists(pathB + "#.new"));
  EXPECT_EQ(MemFreeMap, nullptr);
  EXPECT_EQ(MemFreeMapSize, 0u);

  // Smaller by what was deleted (A: 2,400 blocks; B: 2,400 blocks and a
  // tree of three records and 11,000 bytes in 88 blocks) and by what the
  // map shrank (the old maps grew when the 300 KiB items came), within a
  // block: the file ends where its last write ends.
  const int64_t lostA = static_cast<int64_t>(beforeA) - static_cast<int64_t>(SizeOf(pathA));
  const int64_t lostB = static_cast<int64_t>(beforeB) - static_cast<int64_t>(SizeOf(pathB));
  const int64_t mapA = (static_cast<int64_t>(oldMapA) - SlotOfPath(pathA, 0).UsedBlocks) * 128;
  const int64_t mapB = (static_cast<int64_t>(oldMapB) - SlotOfPath(pathB, 0).UsedBlocks) * 128;
  const int64_t deletedA = 2400 * 128, deletedB = 2400 * 128 + 3 * 384 + 88 * 128;
  EXPECT_LT(std::llabs(lostA - deletedA - mapA), 128) << lostA << " " << mapA;
  EXPECT_LT(std::llabs(lostB - deletedB - mapB), 128) << lostB << " " << mapB;

  ExpectElsewhere([&] { return CheckContent(a.ref, wantA) + CheckMap(a.ref) + Integrity(a.ref); });
  ExpectElsewhere([&] { return CheckContent(b.ref, wantB) + CheckMap(b.ref) + Integrity(b.ref); });
}

// ==== the free-map analysis and its settings ===================================================

namespace {

// A fresh container whose file is made `size` bytes long, with the first
// `mapBytes` bytes of its map as given (the rest of the map zero).
struct Analysed {
  sfltest::OpenContainer c;
  std::string path;
  sfl_BaseRec* rec = nullptr;
};

Analysed ContainerOfSize(off_t size, const Bytes& mapStart) {
  Analysed a;
  a.c = sfltest::NewContainer();
  a.path = ItemPath(a.c.ref);
  a.rec = sfl_Handle2Record(a.c.bh);
  EXPECT_EQ(::truncate(a.path.c_str(), size), 0);
  Bytes map(SFL_INITIAL_MAP_SIZE, 0);
  std::copy(mapStart.begin(), mapStart.end(), map.begin());
  Patch(a.path, SFL_CONTAINER_DATA_OFFSET, map);
  return a;
}

// The map of a fresh container: blocks 0 to 6 in use.
Bytes FreshMap() { return {0x7F}; }

Bytes FullBytes(size_t n, uint8_t last) {
  Bytes b(n, 0xFF);
  b.back() = last;
  return b;
}

void SetKey(const char* key, const char* value) {
  if (value != nullptr)
    setenv(key, value, 1);
  else
    unsetenv(key);
  sfl_ResetCompactionSettings();
}

}  // namespace

TEST(FileCompactionAnalysis, AFileTooSmallForTheLimitIsNeverAnalysed) {
  // 131,071 bytes x 25 / 100 is below 32,768: the map (nearly all free) is
  // not even read.
  Analysed a = ContainerOfSize(131071, FreshMap());
  os_ResetCallCounts();
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Lock), 0u);
  // One byte more and it is analysed: 1,017 of 1,024 blocks free.
  ASSERT_EQ(::truncate(a.path.c_str(), 131072), 0);
  os_ResetCallCounts();
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 1u);
  EXPECT_GT(os_CallCount(os_Op::Pread), 0u);
  EXPECT_TRUE(sfltest::LockableElsewhere(a.path, SFL_TABLE_OFFSET, SFL_ITEM_HEADER_SIZE));
  sfl_CloseFile(a.c.bh);
}

TEST(FileCompactionAnalysis, AllBlocksUsedWithClearSpareBitsGivesZero) {
  // N = 1,027 blocks: bytes 0..127 full, byte 128 holds blocks 1024..1026
  // and five clear spare bits, which the N - 8B term takes off again.
  Analysed a = ContainerOfSize(1027 * 128, FullBytes(129, 0x07));
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 0u);
  sfl_CloseFile(a.c.bh);
}

TEST(FileCompactionAnalysis, AFullLastByteMakesTheFreeCountWrapAndGivesOne) {
  // The same file with the last byte 0xFF: F = 0 - 5 wraps to 2^32 - 5.
  Analysed a = ContainerOfSize(1027 * 128, FullBytes(129, 0xFF));
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 1u);
  sfl_CloseFile(a.c.bh);
}

TEST(FileCompactionAnalysis, FreeSpaceExactlyAtTheLimitGivesZero) {
  // A sparse file of N = 171,798,696 blocks: ratio x N wraps in 32 bits to
  // 104, so the ratio test passes with F = 2 or more and the limit alone
  // decides. Its map (256 bytes) has F clear bits.
  const uint32_t n = 171798696u;
  ASSERT_LT(static_cast<uint32_t>(25u * n) / 100u, 256u);
  Bytes map(SFL_INITIAL_MAP_SIZE, 0xFF);
  for (size_t i = 0; i < 32; ++i) map[100 + i] = 0;  // 256 free blocks
  Analysed a = ContainerOfSize(static_cast<off_t>(n) * 128, map);
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 0u);  // 256 x 128 == 32,768
  map[200] = 0xFE;                           // one free block more
  Patch(a.path, SFL_CONTAINER_DATA_OFFSET, map);
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 1u);
  ASSERT_EQ(::truncate(a.path.c_str(), 4096), 0);
  sfl_CloseFile(a.c.bh);
}

TEST(FileCompactionAnalysis, RatioAndLimitOutOfRangeLeaveTheDefaults) {
  // 131,072 bytes, 512 of 1,024 blocks free: 1 with ratio 25, 0 with 50.
  Analysed a = ContainerOfSize(131072, Bytes(64, 0xFF));
  SetKey("SFL_HOLES_RATIO", "50");
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 0u);
  for (const char* bad : {"0", "100", "-4", "abc"}) {
    SetKey("SFL_HOLES_RATIO", bad);
    EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 1u) << bad;
  }
  SetKey("SFL_HOLES_RATIO", nullptr);
  SetKey("SFL_HOLES_SIZE_LIMIT", "200");  // 204,800 bytes: too small now
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 0u);

  // 4,096 bytes is never analysed with the default limit; with a limit of
  // 1 KiB it is (25 of 32 blocks free).
  ASSERT_EQ(::truncate(a.path.c_str(), 4096), 0);
  Patch(a.path, SFL_CONTAINER_DATA_OFFSET, Bytes(SFL_INITIAL_MAP_SIZE, 0));
  Patch(a.path, SFL_CONTAINER_DATA_OFFSET, FreshMap());
  SetKey("SFL_HOLES_SIZE_LIMIT", "1");
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 1u);
  for (const char* bad : {"0", "-3", "x"}) {
    SetKey("SFL_HOLES_SIZE_LIMIT", bad);
    EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 0u) << bad;
  }
  SetKey("SFL_HOLES_SIZE_LIMIT", nullptr);
  sfl_CloseFile(a.c.bh);
}

TEST(FileCompactionAnalysis, SettingsAreReadOncePerProcess) {
  Analysed a = ContainerOfSize(131072, Bytes(64, 0xFF));
  SetKey("SFL_HOLES_RATIO", nullptr);
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 1u);
  setenv("SFL_HOLES_RATIO", "50", 1);  // not seen: the settings were read
  EXPECT_EQ(sfl_AnalyseFreeMap(a.rec), 1u);
  unsetenv("SFL_HOLES_RATIO");
  sfl_CloseFile(a.c.bh);
}

// ==== the rebuild's edge cases ===================================================================

TEST(FileCompaction, AFileAlreadyReplacedIsLeftAlone) {
  auto c = sfltest::NewContainer();
  sfl_CloseItem(PutSimple(c.bh, Data(3000, 1)));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  PatchU32(path, sfl_fh::Flags, HAS_BEEN_COMPACTED);
  const Bytes before = FileBytes(path);
  os_ResetCallCounts();
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_REPLACED);
  EXPECT_EQ(os_CallCount(os_Op::Flock), 1u);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Msgsnd), 0u);  // no interest recorded
  EXPECT_EQ(FileBytes(path), before);
  EXPECT_FALSE(Exists(path + "#.new"));
  sfl_BaseRec rec;
  sfl_SetRef(rec, c.ref);
  EXPECT_EQ(sfl_CompactSflFile(&rec), 0u);
  EXPECT_EQ(FileBytes(path), before);
}

TEST(FileCompaction, ASecondProcessStopsItAndItsCloseCompactsWithoutAnalysis) {
  auto c = sfltest::NewContainer();
  const Bytes data = Data(2000, 2);
  sfl_CloseItem(PutSimple(c.bh, data));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  const ino_t ino = InodeOf(path);

  sfltest::Gate ready, go;
  const int child = sfltest::StartChild([&] {
    const int32_t bh = sfl_OpenSfl(&c.ref, 0);
    ready.Open();
    go.Wait();
    // This process freed nothing: only the mark can make its close compact.
    if (sfl_Handle2Record(bh)->SpaceAnalysis != 0) return 3;
    sfl_CloseFile(bh);
    return 0;
  });
  ready.Wait();
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_HELD);
  sfl_BaseRec rec;
  sfl_SetRef(rec, c.ref);
  EXPECT_EQ(sfl_CompactSflFile(&rec), 0u);
  EXPECT_TRUE(HeaderOfPath(path).Flags & NEED_COMPACTION);
  EXPECT_FALSE(Exists(path + "#.new"));
  EXPECT_EQ(InodeOf(path), ino);
  EXPECT_EQ(MemFreeMap, nullptr);
  go.Open();
  EXPECT_EQ(sfltest::WaitChild(child), 0);

  // A file of a few kilobytes, far below what the analysis would look at.
  EXPECT_LT(SizeOf(path), 131072u);
  EXPECT_NE(InodeOf(path), ino);
  EXPECT_FALSE(HeaderOfPath(path).Flags & (NEED_COMPACTION | HAS_BEEN_COMPACTED));
  Expected want;
  want.simple[1] = data;
  ExpectElsewhere([&] { return CheckContent(c.ref, want) + CheckMap(c.ref) + Integrity(c.ref); });
}

TEST(FileCompaction, ASlotInUseWithAZeroHeaderIsCountedButNotWritten) {
  auto c = sfltest::NewContainer();
  const Bytes data = Data(600, 3);
  sfl_CloseItem(PutSimple(c.bh, data));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  sfl_FileHeader h = HeaderOfPath(path);
  Bytes raw(2);
  sfl_PutU16(raw.data(), static_cast<uint16_t>(h.UsedItems + 1));
  Patch(path, sfl_fh::UsedItems, raw);
  Patch(path, sfl_fh::InUseItms, {static_cast<uint8_t>(h.InUseItms | 0x08)});

  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  const sfl_FileHeader after = HeaderOfPath(path);
  EXPECT_EQ(after.UsedItems, 2);
  EXPECT_EQ(after.InUseItms, 0x0B);
  const Bytes bytes = FileBytes(path);
  EXPECT_TRUE(std::all_of(bytes.begin() + SFL_TABLE_OFFSET + 3 * 64,
                          bytes.begin() + SFL_TABLE_OFFSET + 4 * 64, [](uint8_t b) { return b == 0; }));
  Expected want;
  want.simple[1] = data;
  ExpectElsewhere([&] { return CheckContent(c.ref, want); });
}

TEST(FileCompaction, AnItemThatFailsToCopyStopsTheRebuild) {
  auto c = sfltest::NewContainer();
  const Bytes first = Data(700, 4);
  sfl_CloseItem(PutSimple(c.bh, first));
  sfl_ItemRef blockedRef{};
  sfl_CloseItem(PutBlocked(c.bh, {{0, Data(300, 5)}}, &blockedRef));
  const Bytes last = Data(800, 6);
  sfl_ItemRef lastRef{};
  sfl_CloseItem(PutSimple(c.bh, last, &lastRef));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  PatchU32(path, SlotOfPath(path, 2).FileOffset, 0xDEADBEEF);  // the root loses its magic
  const ino_t ino = InodeOf(path);
  const sfl_FileHeader before = HeaderOfPath(path);

  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_FAILED);
  EXPECT_EQ(InodeOf(path), ino);
  EXPECT_FALSE(Exists(path + "#.new"));
  const sfl_FileHeader after = HeaderOfPath(path);
  EXPECT_EQ(after.UsedItems, before.UsedItems);
  EXPECT_EQ(after.InUseItms, 0x0F);
  Expected want;
  want.simple[1] = first;
  want.simple[3] = last;
  ExpectElsewhere([&] { return CheckContent(c.ref, want); });
}

TEST(FileCompaction, ExactlyOneKibibyteWithTheMarkerIsAContainerOneByteLessIsData) {
  auto c = sfltest::NewContainer();
  Expected want;
  ContainerItem box;
  box.data = ContainerData(1024, 7);
  box.kids[0] = {{0, Data(300, 70)}, {2, Data(40, 71)}};
  want.containers[1] = box;
  sfl_CloseItem(PutContainer(c.bh, box));
  ContainerItem plain;
  plain.data = ContainerData(1023, 8);
  plain.kids[0] = {{0, Data(200, 80)}};
  sfl_ItemRef plainRef{};
  sfl_CloseItem(PutContainer(c.bh, plain, &plainRef));
  // As plain data the 1,023 bytes come back exactly as they are, internal
  // header (pointing into the old file) included.
  const int32_t h = sfl_OpenItem(&plainRef, 0);
  want.simple[2] = ReadSimple(h);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);

  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  // The map check counts the 1,024-byte item's internal tree and must not
  // find the 1,023-byte item's.
  ExpectElsewhere([&] { return CheckContent(c.ref, want) + CheckMap(c.ref) + Integrity(c.ref); });
}

namespace {

// Every record of a blocked item's tree: depth, EverUsed and which entries
// are empty, in walk order.
std::vector<std::string> TreeShape(const sfl_ItemRef& item) {
  std::vector<std::string> shape;
  const int32_t h = sfl_OpenItem(&item, 0);
  sfl_ItemRec* rec = sfl_ItemHandle2Record(h);
  sfl_ItemHeader hd;
  sfl_GetExtItemHeader(rec, &hd);
  sfl_WalkIndexTree(rec->BaseRecord, hd.FileOffset, [&](uint32_t, const sfl_IndexRecord& r, uint64_t first) {
    std::string s = std::to_string(first) + "/" + std::to_string(r.Depth) + "/" + std::to_string(r.EverUsed) + ":";
    for (uint32_t e = 0; e < r.EverUsed && e < 32; ++e)
      s += r.Entries[e].SectionOffSet == 0 ? "-" : std::to_string(r.Depth == 0 ? r.Entries[e].SectionSize : 1);
    shape.push_back(s);
    return true;
  });
  sfl_CloseItem(h);
  return shape;
}

}  // namespace

TEST(FileCompaction, EmptyIndexEntriesComeBackAsEmptyBlocksAtTheSameNumbers) {
  auto c = sfltest::NewContainer();
  const Blocks blocks = {{0, Data(90, 1)}, {1, {}}, {3, Data(10, 2)}, {4, {}}, {40, Data(33, 3)}, {45, {}}};
  sfl_ItemRef ref{};
  sfl_CloseItem(PutBlocked(c.bh, blocks, &ref));
  const std::vector<std::string> before = TreeShape(ref);
  sfl_CloseFile(c.bh);

  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  EXPECT_EQ(TreeShape(ref), before);
  Blocks want = blocks;
  want[2] = {};  // never written below EverUsed: empty as well
  Expected e;
  e.blocked[1] = want;
  ExpectElsewhere([&] { return CheckContent(c.ref, e) + CheckMap(c.ref) + Integrity(c.ref); });
  // Past EverUsed of the last leaf reads stay refused as before.
  const int32_t h = sfl_OpenItem(&ref, 0);
  uint8_t buf[16];
  EXPECT_EQ(sfltest::ReasonOf([&] { sfl_ReadBlockedData(h, 46, 16, buf); }), SFL_R_BAD_SLOT);
  sfl_CloseItem(h);
}

TEST(FileCompaction, AfterSuccessTheOldDescriptorSeesBothMarks) {
  auto c = sfltest::NewContainer();
  sfl_CloseItem(PutSimple(c.bh, Data(5000, 9)));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  const int fd = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  const Bytes old = sfltest::ReadExactly(fd, 0, SFL_FILE_HEADER_SIZE);
  EXPECT_EQ(U32At(old, sfl_fh::Flags) & (HAS_BEEN_COMPACTED | NEED_COMPACTION),
            HAS_BEEN_COMPACTED | NEED_COMPACTION);
  struct stat st {};
  ASSERT_EQ(::fstat(fd, &st), 0);
  EXPECT_EQ(st.st_nlink, 0u);
  EXPECT_NE(InodeOf(path), st.st_ino);
  EXPECT_EQ(HeaderOfPath(path).Flags & (HAS_BEEN_COMPACTED | NEED_COMPACTION), 0u);
  ::close(fd);
}

TEST(FileCompaction, AReferenceToAnItemIsRefused) {
  auto c = sfltest::NewContainer();
  sfl_CloseFile(c.bh);
  const sfl_ItemRef item = ItemRef(c.ref, 2);
  const auto e = sfltest::EscapeOf([&] { sfl_CompactContainer(&item); });
  EXPECT_EQ(e.group, ER_GROUP_MAINT);
  EXPECT_EQ(e.reason, 1032);
}

TEST(FileCompaction, AnItemPendingDeletionIsReleasedNotRevived) {
  auto c = sfltest::NewContainer();
  const Bytes keep = Data(400, 1);
  sfl_CloseItem(PutSimple(c.bh, keep));
  sfl_ItemRef goneRef{};
  sfl_CloseItem(PutSimple(c.bh, Data(400, 2), &goneRef));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  // As a deletion left pending by a process that then went away.
  const uint32_t slot2 = SFL_TABLE_OFFSET + 2 * 64;
  PatchU32(path, slot2 + sfl_ih::Flags, DELETED);
  PatchU32(path, sfl_fh::Flags, ITEM_PEND_DEL);

  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  EXPECT_EQ(HeaderOfPath(path).UsedItems, 1);
  EXPECT_EQ(sfl_ItemExists(&goneRef), 0);
  Expected want;
  want.simple[1] = keep;
  ExpectElsewhere([&] { return CheckContent(c.ref, want) + CheckMap(c.ref) + Integrity(c.ref); });
}

TEST(FileCompaction, ABlockedItemOfTheTableStaysATableItem) {
  auto c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  sfl_CloseItem(PutBlocked(c.bh, {{0, Data(100, 1)}}, &ref));
  sfl_CloseItem(PutSimple(c.bh, Data(100, 2)));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  EXPECT_EQ(SlotOfPath(path, 1).Flags & (BLOCKED_ITEM | INT_ITEM), static_cast<uint32_t>(BLOCKED_ITEM));
  // Deleting it gives its slot back.
  const int32_t h = sfl_OpenItem(&ref, 0);
  DeleteItem(h);
  EXPECT_EQ(HeaderOfPath(path).UsedItems, 1);
  EXPECT_EQ(HeaderOfPath(path).InUseItms & 0x02, 0);
}

TEST(FileCompaction, TheNewFileGoesToTheConfiguredServiceAccount) {
  auto c = sfltest::NewContainer();
  sfl_CloseItem(PutSimple(c.bh, Data(100, 1)));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  if (::getuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  setenv("SFL_SERVICE_USER", "4321", 1);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  unsetenv("SFL_SERVICE_USER");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 4321u);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
}

TEST(FileCompaction, ARefusedChangeOfOwnerAbandonsTheRebuild) {
  auto c = sfltest::NewContainer();
  const Bytes data = Data(100, 1);
  sfl_CloseItem(PutSimple(c.bh, data));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  const ino_t ino = InodeOf(path);
  setenv("SFL_SERVICE_USER", "4321", 1);
  sfltest::LogCapture log;
  // As for a process without the privilege to give a file away.
  os_FailNth(os_Op::Chown, 1, EPERM);
  sfl_BaseRec rec;
  sfl_SetRef(rec, c.ref);
  EXPECT_EQ(sfl_CompactSflFile(&rec), 1u);
  os_ClearFaults();
  unsetenv("SFL_SERVICE_USER");
  EXPECT_TRUE(log.SawReason(SFL_R_CHOWN));
  EXPECT_EQ(InodeOf(path), ino);
  EXPECT_FALSE(Exists(path + "#.new"));
  EXPECT_TRUE(HeaderOfPath(path).Flags & NEED_COMPACTION);
  Expected want;
  want.simple[1] = data;
  ExpectElsewhere([&] { return CheckContent(c.ref, want); });
}

// ==== other processes ==========================================================================

namespace {

sfl_BaseRec* ColdRecordOf(const sfl_ItemRef& file) {
  sfl_FilesTable& t = sfl_OpenFiles();
  for (size_t i = 0; i < t.HighWater(); ++i) {
    sfl_BaseRec* r = t.At(i);
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 1 && sfl_SameFile(sfl_RefOf(*r), file)) return r;
  }
  return nullptr;
}

}  // namespace

TEST(FileCompaction, AColdHolderKeepsTheOldFileAndItsNextOpenReachesTheNewOne) {
  auto c = sfltest::NewContainer();
  const Bytes data = Data(3000, 11);
  sfl_ItemRef itemRef{};
  sfl_CloseItem(PutSimple(c.bh, data, &itemRef));
  const uint32_t dataOff = sfltest::SlotOf(c.bh, 1).FileOffset;
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);

  sfltest::Gate ready, go;
  const int child = sfltest::StartChild([&] {
    const int32_t h = sfl_OpenItem(&itemRef, 0);
    if (ReadSimple(h) != data) return 1;
    sfl_CloseItem(h);  // the file goes to this process's cold store
    sfl_BaseRec* cold = ColdRecordOf(c.ref);
    if (cold == nullptr) return 2;
    const int fd = cold->FileDes;
    ready.Open();
    go.Wait();
    // The cold descriptor still reads the file it had, now nameless and marked.
    struct stat st {};
    if (::fstat(fd, &st) != 0 || st.st_nlink != 0) return 3;
    if (sfltest::ReadExactly(fd, dataOff, data.size()) != data) return 4;
    if ((U32At(sfltest::ReadExactly(fd, 0, 128), sfl_fh::Flags) & HAS_BEEN_COMPACTED) == 0) return 5;
    // Opening by reference drops the cold copy and reaches the new file.
    const int32_t again = sfl_OpenItem(&itemRef, 0);
    if (ReadSimple(again) != data) return 6;
    struct stat now {};
    if (::fstat(sfl_ItemHandle2Record(again)->BaseRecord->FileDes, &now) != 0) return 7;
    if (now.st_ino != InodeOf(path) || now.st_ino == st.st_ino) return 8;
    sfl_CloseItem(again);
    return 0;
  });
  ready.Wait();
  const ino_t old = InodeOf(path);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  const ino_t replaced = InodeOf(path);
  EXPECT_NE(replaced, old);
  go.Open();
  EXPECT_EQ(sfltest::WaitChild(child), 0);
  EXPECT_EQ(InodeOf(path), replaced);
  EXPECT_FALSE(Exists(path + "#.new"));
}

TEST(FileCompaction, AnOpenHolderKeepsReadingTheOldFileAndNeverCompactsIt) {
  auto c = sfltest::NewContainer();
  const Bytes data = Data(5000, 12);
  sfl_ItemRef itemRef{};
  sfl_CloseItem(PutSimple(c.bh, data, &itemRef));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);

  sfltest::Gate ready, go;
  const int child = sfltest::StartChild([&] {
    const int32_t h = sfl_OpenItem(&itemRef, 0);
    if (ReadSimple(h) != data) return 1;
    ready.Open();
    go.Wait();
    struct stat st {};
    if (::fstat(sfl_ItemHandle2Record(h)->BaseRecord->FileDes, &st) != 0 || st.st_nlink != 0) return 2;
    if (ReadSimple(h) != data) return 3;
    // Its last close sees the replaced mark: no rebuild of the old file.
    sfl_CloseItem(h);
    return 0;
  });
  ready.Wait();
  // The holder's interest is lost: the service goes, and with it what it
  // kept in its run directory (as when that is wiped). The rebuild does not
  // see the holder.
  sfltest::StopService();
  for (int i = 0; i < ML_MAX_PAIRS; ++i) std::filesystem::remove(ml_KeepPath(sfltest::RunDir(), i));
  const ino_t old = InodeOf(path);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  const ino_t replaced = InodeOf(path);
  EXPECT_NE(replaced, old);
  go.Open();
  EXPECT_EQ(sfltest::WaitChild(child), 0);
  EXPECT_EQ(InodeOf(path), replaced);
  EXPECT_FALSE(Exists(path + "#.new"));
  Expected want;
  want.simple[1] = data;
  ExpectElsewhere([&] { return CheckContent(c.ref, want); });
}

TEST(FileCompaction, TheTemporaryInterestOfTheNewFileIsNotWithdrawnAndTheServiceDropsIt) {
  auto c = sfltest::NewContainer();
  sfl_CloseItem(PutSimple(c.bh, Data(100, 1)));
  sfl_CloseFile(c.bh);
  const uint64_t sends = os_CallCount(os_Op::Msgsnd);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  // The rebuild's record, the new file's record, the rebuild's withdraw:
  // the library never withdraws the new file's interest.
  EXPECT_EQ(os_CallCount(os_Op::Msgsnd) - sends, 3u);
  EXPECT_EQ(OtherHolders(c.ref), 0);
  // The service dropped it with the rebuild's own interest.
  EXPECT_EQ(OtherHolders(NewRefOf(c.ref)), 0);
}

// ==== every operating-system call failing in turn ===================================================

namespace {

struct Sample {
  sfl_ItemRef ref{};
  std::string path;
  Bytes bytes;  // the file as it was before the rebuild
  Expected want;
};

Sample NewSample() {
  Sample s;
  auto c = sfltest::NewContainer();
  s.ref = c.ref;
  s.want.simple[1] = Data(2000, 1);
  s.want.blocked[2] = {{0, Data(300, 2)}, {1, {}}, {2, Data(50, 3)}};
  ContainerItem box;
  box.data = ContainerData(1100, 4);
  box.kids[1] = {{0, Data(80, 5)}};
  s.want.containers[3] = box;
  sfl_CloseItem(PutSimple(c.bh, s.want.simple[1]));
  sfl_CloseItem(PutBlocked(c.bh, s.want.blocked[2]));
  sfl_CloseItem(PutContainer(c.bh, box));
  sfl_CloseFile(c.bh);
  s.path = ItemPath(s.ref);
  s.bytes = FileBytes(s.path);
  return s;
}

int OpenDescriptors() {
  int n = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd"); it != std::filesystem::directory_iterator(); ++it)
    ++n;
  return n;
}

bool FlockableElsewhere(const std::string& path) {
  return sfltest::RunInChild([&] {
           const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
           if (fd < 0) return 2;
           return ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
         }) == 0;
}

// Runs a rebuild of `s` whose nth call of `op` fails, in a process of its
// own (a lost reply of the interest service must not confuse the replies of
// later runs), and checks what it leaves: 0 when all is as it must be.
int RunFailing(const Sample& s, os_Op op, unsigned nth) {
  return sfltest::RunInChild([&] {
    const ino_t ino = InodeOf(s.path);
    er_LogMsg(1, "rebuild with call %u of %s failing", nth, os_OpName(op));  // opens the log first
    const int fds = OpenDescriptors();
    const int files = sfl_OpenFiles().InUseCount();
    const int items = sfl_OpenItems().InUseCount();
    os_ResetCallCounts();
    os_FailNth(op, nth, EIO);
    int32_t outcome = -1;
    const auto e = sfltest::EscapeOf([&] { outcome = sfl_CompactContainer(&s.ref); });
    os_ClearFaults();
    const bool renamed = os_CallCount(os_Op::Rename) > 0 && InodeOf(s.path) != ino;
    if (e.reason != 0) return 20;
    if (MemFreeMap != nullptr || MemFreeMapSize != 0) return 21;
    if (Exists(s.path + "#.new")) return 22;
    // A close made to fail leaves its descriptor open, which a real close
    // never does; every other call must not leave one behind.
    if (op != os_Op::Close && OpenDescriptors() != fds) return 23;
    if (sfl_OpenFiles().InUseCount() != files || sfl_OpenItems().InUseCount() != items) return 24;
    if (!sfltest::LockableElsewhere(s.path, 0, UINT32_MAX) || !FlockableElsewhere(s.path)) return 25;
    if (!renamed) {
      // The old file under its name, as it was but for the mark.
      Bytes now = FileBytes(s.path);
      Bytes was = s.bytes;
      if (now.size() != was.size()) return 26;
      sfl_PutU32(now.data() + sfl_fh::Flags, U32At(now, sfl_fh::Flags) & ~static_cast<uint32_t>(NEED_COMPACTION));
      if (now != was) return 27;
      if (outcome != SFL_COMPACT_FAILED) return 28;
    }
    // A reply the system lost cannot be matched by a withdrawal: its entry
    // goes only with the process.
    if (op != os_Op::Msgrcv) {
      if (OtherHolders(s.ref) != 0) return 29;
      // The new file's interest: withdrawn on failure by the library, and
      // after success dropped by the service with the rebuild's own.
      if (OtherHolders(NewRefOf(s.ref)) != 0) return 30;
    }
    return 0;
  });
}

}  // namespace

TEST(FileCompaction, EverySystemCallFailingInTurnLeavesAWholeFileAndNothingHeld) {
  // The calls a rebuild of such a container makes, kind by kind.
  std::vector<uint64_t> calls(os_OpCount, 0);
  {
    const Sample s = NewSample();
    os_ResetCallCounts();
    ASSERT_EQ(sfl_CompactContainer(&s.ref), SFL_COMPACT_DONE);
    for (int k = 0; k < os_OpCount; ++k) calls[k] = os_CallCount(static_cast<os_Op>(k));
  }
  int runs = 0;
  for (int k = 0; k < os_OpCount; ++k) {
    for (unsigned n = 1; n <= calls[k]; ++n) {
      const os_Op op = static_cast<os_Op>(k);
      const Sample s = NewSample();
      EXPECT_EQ(RunFailing(s, op, n), 0) << os_OpName(op) << " call " << n;
      ExpectElsewhere([&] { return CheckContent(s.ref, s.want); });
      ++runs;
    }
  }
  std::fprintf(stderr, "%d rebuilds with one failing call each\n", runs);
  EXPECT_GT(runs, 20);
}

TEST(FileCompaction, ItemsKeepTheirOwnersDatesFlagsAndReservedSpace) {
  auto c = sfltest::NewContainer();
  sfl_ItemRef twoOwners{}, shrunk{}, tree{};
  int32_t h = PutSimple(c.bh, Data(500, 1), &twoOwners);
  sfl_Attach2OpenItem(h);
  sfl_ChangeTime(h, 1000000000);
  sfl_CloseItem(h);
  h = PutSimple(c.bh, Data(1000, 2), &shrunk);
  sfl_TruncateSimItem(h, 10);
  sfl_CloseItem(h);
  h = PutBlocked(c.bh, {{0, Data(20, 3)}}, &tree);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  const sfl_ItemHeader before1 = SlotOfPath(path, 1), before2 = SlotOfPath(path, 2),
                       before3 = SlotOfPath(path, 3);

  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  const sfl_ItemHeader after1 = SlotOfPath(path, 1), after2 = SlotOfPath(path, 2),
                       after3 = SlotOfPath(path, 3);
  EXPECT_EQ(after1.AccCount, 2u);
  EXPECT_EQ(after1.ChangeDate, 1000000000u);
  EXPECT_EQ(after2.FileSize, 10u);
  EXPECT_EQ(after2.UsedBlocks, before2.UsedBlocks);
  EXPECT_EQ(after3.AccCount, before3.AccCount);
  EXPECT_EQ(after3.Flags, before3.Flags);
  EXPECT_EQ(after3.FileSize, before3.FileSize);
  EXPECT_EQ(after1.Flags, before1.Flags);

  // One detach leaves the second owner; the shrunk item grows back within
  // its reserved run, to the bytes it held.
  EXPECT_EQ(sfl_DetachItem(&twoOwners), 1u);
  EXPECT_EQ(sfl_ItemExists(&twoOwners), 1);
  const int32_t s = sfl_OpenItem(&shrunk, 0);
  sfl_TruncateSimItem(s, 1000);
  EXPECT_EQ(ReadSimple(s), Data(1000, 2));
  sfl_CloseItem(s);
}

TEST(FileCompaction, TheNewFileIsFlushedBeforeTheRenameAndTheDirectoryAfterIt) {
  auto c = sfltest::NewContainer();
  sfl_CloseItem(PutSimple(c.bh, Data(100, 1)));
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  const ino_t ino = InodeOf(path);
  // A failed flush of the new file stops the rebuild before the rename.
  os_ResetCallCounts();
  os_FailNth(os_Op::Fsync, 1, EIO);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_FAILED);
  os_ClearFaults();
  EXPECT_EQ(os_CallCount(os_Op::Rename), 0u);
  EXPECT_EQ(InodeOf(path), ino);
  // A synchronous file: the new file, then the directory.
  os_ResetCallCounts();
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  EXPECT_EQ(os_CallCount(os_Op::Fsync), 2u);
  // A process that never flushes still flushes the new file, not the directory.
  const uint32_t was = sfl_SetAllAsync(1);
  os_ResetCallCounts();
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_DONE);
  EXPECT_EQ(os_CallCount(os_Op::Fsync), 1u);
  sfl_SetAllAsync(was);
}

TEST(FileCompaction, AnOpenFollowsTheNameThroughTwoRebuilds) {
  // The name moves from A to B to C while an open waits on each file's
  // header lock in turn; B has been replaced too by the time the open reads
  // it, so the open must go on to C.
  auto c = sfltest::NewContainer();
  const Bytes inA = Data(300, 1), inC = Data(300, 2);
  sfl_ItemRef itemRef{};
  sfl_CloseItem(PutSimple(c.bh, inA, &itemRef));
  const uint32_t dataOff = sfltest::SlotOf(c.bh, 1).FileOffset;
  sfl_CloseFile(c.bh);
  const std::string path = ItemPath(c.ref);
  Bytes b = FileBytes(path);
  Bytes cBytes = b;
  std::copy(inC.begin(), inC.end(), cBytes.begin() + dataOff);
  sfl_PutU32(b.data() + sfl_fh::Flags, U32At(b, sfl_fh::Flags) | HAS_BEEN_COMPACTED);
  auto writeFile = [](const std::string& p, const Bytes& bytes) {
    const int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0660);
    EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
  };
  writeFile(path + ".b", b);
  writeFile(path + ".c", cBytes);

  // The child starts first: the locks below must be this process's alone.
  sfltest::Gate locked;
  const int child = sfltest::StartChild([&] {
    locked.Wait();
    const int32_t h = sfl_OpenItem(&itemRef, 0);
    const Bytes got = ReadSimple(h);
    sfl_CloseItem(h);
    return got == inC ? 0 : 1;
  });
  const int fdA = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fdA, 0);
  ASSERT_EQ(os_TryLockPart(fdA, OS_LOCK_EXCL, SEEK_SET, 0, 0, SFL_FILE_HEADER_SIZE, 0), 1);
  locked.Open();
  ::usleep(300 * 1000);  // the child waits on A's header
  PatchU32(path, sfl_fh::Flags, U32At(FileBytes(path), sfl_fh::Flags) | HAS_BEEN_COMPACTED);
  ASSERT_EQ(::rename((path + ".b").c_str(), path.c_str()), 0);
  const int fdB = ::open(path.c_str(), O_RDWR);
  ASSERT_EQ(os_TryLockPart(fdB, OS_LOCK_EXCL, SEEK_SET, 0, 0, SFL_FILE_HEADER_SIZE, 0), 1);
  ::close(fdA);  // A's header free: the child finds A replaced and opens B
  ::usleep(300 * 1000);  // ... and waits on B's header
  ASSERT_EQ(::rename((path + ".c").c_str(), path.c_str()), 0);
  ::close(fdB);
  EXPECT_EQ(sfltest::WaitChild(child), 0);
}
