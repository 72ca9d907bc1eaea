// Hostile calls through the public interface: handles out of range or
// already closed, positions and lengths whose 32-bit sums wrap, negative
// sizes, unsafe name tags, a reference to an item where a file is expected
// (and the reverse), and null pointers. Every such call must be refused
// with its own reason and leave every file of the store byte for byte as it
// was, and this process's tables and locks as they were.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "im.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using sfltest::EscapeCode;
using sfltest::EscapeCodeOf;

constexpr long Sfl(int reason) { return EscapeCode(ER_GROUP_SFL, reason); }
constexpr long Table(int reason) { return EscapeCode(ER_GROUP_TABLE, reason); }
constexpr long Call(int reason) { return EscapeCode(ER_GROUP_CALL, reason); }
constexpr long Config(int reason) { return EscapeCode(ER_GROUP_CONFIG, reason); }
constexpr long Maint(int reason) { return EscapeCode(ER_GROUP_MAINT, reason); }

constexpr int32_t kBaseFirst = SFL_BASE_HANDLE_FIRST;
constexpr int32_t kItemFirst = SFL_ITEM_HANDLE_FIRST;
constexpr int32_t kStreamFirst = SFL_STREAM_HANDLE_FIRST;
constexpr int32_t kMaxFiles = SFL_MAX_OPEN_FILES;
constexpr int32_t kMaxItems = SFL_MAX_OPEN_ITEMS;
constexpr int32_t kMaxStreams = SFL_MAX_STREAMS;

// Every regular file under the store root, with its content.
std::map<std::string, Bytes> StoreFiles() {
  std::map<std::string, Bytes> files;
  namespace fs = std::filesystem;
  for (const auto& e : fs::recursive_directory_iterator(sfltest::StoreRoot())) {
    if (!e.is_regular_file()) continue;
    std::ifstream in(e.path(), std::ios::binary);
    files[e.path().string()] = Bytes(std::istreambuf_iterator<char>(in), {});
  }
  return files;
}

// What this process holds: open files, open items, streams, record locks.
struct Held {
  int files, items, streams, locks;
  bool operator==(const Held&) const = default;
};

Held HeldNow() {
  return {sfl_OpenFiles().InUseCount(), sfl_OpenItems().InUseCount(), sfl_Streams().InUseCount(),
          sfl_RecordLocksHeld()};
}

std::ostream& operator<<(std::ostream& os, const Held& h) {
  return os << "files " << h.files << ", items " << h.items << ", streams " << h.streams
            << ", locks " << h.locks;
}

// A reference naming the same file as `ref`, with the name tag `name`
// (copied without its terminator when it fills all four bytes).
sfl_ItemRef Named(sfl_ItemRef ref, const char* name) {
  std::memset(ref.Name, 0, sizeof ref.Name);
  std::memcpy(ref.Name, name, std::min(std::strlen(name), sizeof ref.Name));
  return ref;
}

sfl_ItemRef AsItem(sfl_ItemRef ref, uint16_t item) {
  ref.Flags = static_cast<uint16_t>((ref.Flags & ~SFL_ITEM_NUM_MASK) | item);
  return ref;
}

// A container with a simple item of 1 KiB (slot 1), a blocked item with
// blocks 0 to 2 of 100 bytes (slot 2), and a simple parent of 512 bytes
// (slot 3) holding an internal item at position 64; all of them open.
class Hostile : public ::testing::Test {
 protected:
  void SetUp() override {
    c_ = sfltest::NewContainer();
    simple_ = sfl_StoreBasicItem(c_.bh, nullptr, 1024, &simpleRef_, 0);
    ASSERT_GE(simple_, SFL_ITEM_HANDLE_FIRST);
    const Bytes data = sfltest::PseudoRandomBytes(1024, 13, 1);
    ASSERT_EQ(sfl_WriteSimpleData(simple_, 0, 1024, data.data()), 1024);

    blocked_ = sfl_CreateBlockedItem(c_.bh, &blockedRef_);
    ASSERT_GE(blocked_, SFL_ITEM_HANDLE_FIRST);
    sfl_FormatBlockedRoot(blocked_);
    for (uint32_t b = 0; b < 3; ++b) {
      const Bytes block = sfltest::PseudoRandomBytes(100, 17, b);
      ASSERT_EQ(sfl_WriteBlockedData(blocked_, b, 100, block.data()), 100);
    }

    parent_ = sfl_StoreBasicItem(c_.bh, nullptr, 512, &parentRef_, 0);
    ASSERT_GE(parent_, SFL_ITEM_HANDLE_FIRST);
    internal_ = sfl_CreateIntBItem(parent_, 0, 64, 0);
    const Bytes block = sfltest::PseudoRandomBytes(50, 19, 0);
    ASSERT_EQ(sfl_WriteBlockedData(internal_, 0, 50, block.data()), 50);

    devNull_ = std::fopen("/dev/null", "w");
    ASSERT_NE(devNull_, nullptr);
  }

  void TearDown() override {
    if (devNull_ != nullptr) std::fclose(devNull_);
    sfltest::EscapeOfThenClear([&] {
      sfl_CloseIntItem(internal_);
      sfl_CloseItem(parent_);
      sfl_CloseItem(blocked_);
      sfl_CloseItem(simple_);
      sfl_CloseFile(c_.bh);
    });
  }

  // Runs `fn`, which must escape with `want` and leave the store's files
  // and this process's tables and locks as they were.
  void ExpectRefused(long want, const std::function<void()>& fn, const std::string& what) {
    const auto before = StoreFiles();
    const Held held = HeldNow();
    EXPECT_EQ(EscapeCodeOf(fn), want) << what;
    EXPECT_TRUE(StoreFiles() == before) << what << ": the store changed";
    EXPECT_EQ(HeldNow(), held) << what;
  }

  // Runs `fn`, which must not escape, and checks the same.
  void ExpectHarmless(const std::function<void()>& fn, const std::string& what) {
    ExpectRefused(0, fn, what);
  }

  sfltest::OpenContainer c_;
  int32_t simple_ = -1, blocked_ = -1, parent_ = -1, internal_ = -1;
  sfl_ItemRef simpleRef_{}, blockedRef_{}, parentRef_{};
  FILE* devNull_ = nullptr;
};

#define REFUSED(code, call) ExpectRefused((code), [&] { (void)(call); }, #call)
#define HARMLESS(call) ExpectHarmless([&] { (void)(call); }, #call)

using Op = std::pair<const char*, std::function<void(int32_t)>>;

// ---- handles ----------------------------------------------------------------------

TEST_F(Hostile, ItemHandlesOutOfRangeOrClosedAreRefused) {
  sfl_ItemRef ref{};
  const int32_t closed = sfl_StoreBasicItem(c_.bh, nullptr, 10, &ref, 0);
  sfl_CloseItem(closed);
  const int32_t pastMark =
      SFL_ITEM_HANDLE_FIRST + static_cast<int32_t>(sfl_OpenItems().HighWater()) + 1;
  uint8_t buf[256] = {};
  struct stat st {};
  sfl_SimpleDetails details{};
  sfl_BlockInfo blocks[4];
  const std::vector<Op> ops = {
      {"sfl_CloseItem", [](int32_t h) { sfl_CloseItem(h); }},
      {"sfl_Attach2OpenItem", [](int32_t h) { sfl_Attach2OpenItem(h); }},
      {"sfl_DetachOpenItem", [](int32_t h) { sfl_DetachOpenItem(h); }},
      {"sfl_FStatItem", [&](int32_t h) { sfl_FStatItem(h, &st); }},
      {"sfl_ChangeTime", [](int32_t h) { sfl_ChangeTime(h, 1); }},
      {"sfl_DeleteItem", [](int32_t h) { sfl_DeleteItem(h); }},
      {"sfl_ItemWillNotChange", [](int32_t h) { sfl_ItemWillNotChange(h); }},
      {"sfl_ItemMayChange", [](int32_t h) { sfl_ItemMayChange(h); }},
      {"sfl_ReadSimpleData", [&](int32_t h) { sfl_ReadSimpleData(h, 0, 1, buf); }},
      {"sfl_WriteSimpleData", [&](int32_t h) { sfl_WriteSimpleData(h, 0, 1, buf); }},
      {"sfl_ReadSerialData", [&](int32_t h) { sfl_ReadSerialData(h, buf, 1); }},
      {"sfl_WriteSerialData", [&](int32_t h) { sfl_WriteSerialData(h, buf, 1); }},
      {"sfl_seek", [](int32_t h) { sfl_seek(h, 0, SEEK_SET); }},
      {"sfl_GetSimpleDetails", [&](int32_t h) { sfl_GetSimpleDetails(h, &details); }},
      {"sfl_TruncateSimItem", [](int32_t h) { sfl_TruncateSimItem(h, 0); }},
      {"sfl_StoreItemWithOpenItem",
       [&](int32_t h) { sfl_StoreItemWithOpenItem(h, 10, 0, nullptr, 0, &ref, 0); }},
      {"sfl_AssociateItemWithBase", [](int32_t h) { sfl_AssociateItemWithBase(h); }},
      {"sfl_CreateIntBItem", [](int32_t h) { sfl_CreateIntBItem(h, 0, 0, 0); }},
      {"sfl_OpenIntItem", [](int32_t h) { sfl_OpenIntItem(h, 0, 0); }},
      {"sfl_CloseIntItem", [](int32_t h) { sfl_CloseIntItem(h); }},
      {"sfl_RemoveIntItem", [](int32_t h) { sfl_RemoveIntItem(h); }},
      {"sfl_GetNewBlock", [&](int32_t h) { sfl_GetNewBlock(h, 10, 1, buf); }},
      {"sfl_FreeBlock", [](int32_t h) { sfl_FreeBlock(h, 0, 0); }},
      {"sfl_ReadBlockedData", [&](int32_t h) { sfl_ReadBlockedData(h, 0, 10, buf); }},
      {"sfl_WriteBlockedData", [&](int32_t h) { sfl_WriteBlockedData(h, 0, 10, buf); }},
      {"sfl_FormatBlockedRoot", [](int32_t h) { sfl_FormatBlockedRoot(h); }},
      {"sfl_ListBlocks", [&](int32_t h) { sfl_ListBlocks(h, 0, 10, blocks, 4); }},
      {"sfl_CompactBlockedItem", [](int32_t h) { sfl_CompactBlockedItem(h); }},
      {"sfl_ReorderIndex", [](int32_t h) { sfl_ReorderIndex(h, 0, 1); }},
      {"sfl_ListIndexTree", [&](int32_t h) { sfl_ListIndexTree(devNull_, h); }},
      {"sfl_LockSflItem", [](int32_t h) { sfl_LockSflItem(h, SFL_LOCK_EXCL, 0, 0, 1); }},
      {"sfl_flock", [](int32_t h) { sfl_flock(h, SFL_LOCK_EXCL); }},
      {"sfl_SyncData", [](int32_t h) { sfl_SyncData(h); }},
      {"sfl_SetFileUserNoSync", [](int32_t h) { sfl_SetFileUserNoSync(h, 1); }},
      {"sfl_SetItemUserNoSync", [](int32_t h) { sfl_SetItemUserNoSync(h, 1); }},
      {"sfl_SetlibItmNoSync", [](int32_t h) { sfl_SetlibItmNoSync(h, 1); }},
      {"sfl_Activate", [](int32_t h) { sfl_Activate(h); }},
      {"sfl_DeActivate", [](int32_t h) { sfl_DeActivate(h); }},
  };
  for (int32_t bad : {INT32_MIN, -1, 0, kBaseFirst, kItemFirst - 1, closed, pastMark,
                      kItemFirst + kMaxItems, kStreamFirst, INT32_MAX}) {
    for (const Op& op : ops)
      ExpectRefused(Table(SFL_R_BAD_HANDLE), [&] { op.second(bad); },
                    std::string(op.first) + "(" + std::to_string(bad) + ")");
  }
  // An item handle of a closed record is refused by the map as well; below
  // the item handles the value is a descriptor, and one not open fails.
  sfl_ItemMap map{};
  REFUSED(Table(SFL_R_BAD_HANDLE), sfl_mapItem(closed, &map));
  REFUSED(Table(SFL_R_BAD_HANDLE), sfl_mapItem(INT32_MAX, &map));
  REFUSED(EscapeCode(ER_GROUP_OS, EBADF), sfl_mapItem(-1, &map));
}

TEST_F(Hostile, BaseHandlesOutOfRangeAreRefused) {
  sfl_ItemRef ref{};
  sfl_ItemInfo info[8];
  const int32_t pastMark =
      SFL_BASE_HANDLE_FIRST + static_cast<int32_t>(sfl_OpenFiles().HighWater()) + 1;
  const std::vector<Op> ops = {
      {"sfl_CloseFile", [](int32_t h) { sfl_CloseFile(h); }},
      {"sfl_ListItems", [&](int32_t h) { sfl_ListItems(h, info, 8); }},
      {"sfl_StoreBasicItem", [&](int32_t h) { sfl_StoreBasicItem(h, nullptr, 10, &ref, 0); }},
      {"sfl_StoreItemAtPosition",
       [&](int32_t h) { sfl_StoreItemAtPosition(h, nullptr, 10, &ref, 0, 4); }},
      {"sfl_CopySimpleItem", [](int32_t h) { sfl_CopySimpleItem(h, 128 + 4 * 64, -1, 0, 10, 0); }},
      {"sfl_CreateBlockedItem", [&](int32_t h) { sfl_CreateBlockedItem(h, &ref); }},
      {"sfl_DumpContainer", [&](int32_t h) { sfl_DumpContainer(devNull_, h, -1); }},
      {"sfl_GetFileFlags", [](int32_t h) { sfl_GetFileFlags(h); }},
      {"sfl_SyncBaseFile", [](int32_t h) { sfl_SyncBaseFile(h); }},
      {"sfl_ShutDownBaseFile", [](int32_t h) { sfl_ShutDownBaseFile(h); }},
      {"sfl_EnsureBaseFileOpen", [](int32_t h) { sfl_EnsureBaseFileOpen(h); }},
      {"sfl_GetSerFileItem", [&](int32_t h) { sfl_GetSerFileItem(h, &ref); }},
      {"sfl_CopyOutBlockedItem",
       [](int32_t h) { sfl_CopyOutBlockedItem(h, 128 + 4 * 64, -1, 640, 384); }},
      {"sfl_CopyOutInternalContainer",
       [](int32_t h) { sfl_CopyOutInternalContainer(h, 128 + 4 * 64, -1, 640, 384); }},
  };
  for (int32_t bad : {INT32_MIN, -1, 0, kBaseFirst - 1, pastMark, kBaseFirst + kMaxFiles, simple_,
                      INT32_MAX}) {
    for (const Op& op : ops)
      ExpectRefused(Table(SFL_R_BAD_HANDLE), [&] { op.second(bad); },
                    std::string(op.first) + "(" + std::to_string(bad) + ")");
  }
}

TEST_F(Hostile, StreamHandlesOutOfRangeOrClosedAreRefused) {
  const int32_t closed = sfl_fOpenItem(&simpleRef_, "r");
  sfl_fClose(closed);
  char buf[16];
  const std::vector<Op> ops = {
      {"sfl_fClose", [](int32_t h) { sfl_fClose(h); }},
      {"sfl_fRead", [&](int32_t h) { sfl_fRead(buf, 1, 1, h); }},
      {"sfl_fWrite", [&](int32_t h) { sfl_fWrite(buf, 1, 1, h); }},
      {"sfl_fSeek", [](int32_t h) { sfl_fSeek(h, 0, SEEK_SET); }},
      {"sfl_fTell", [](int32_t h) { sfl_fTell(h); }},
      {"sfl_fgets", [&](int32_t h) { sfl_fgets(buf, sizeof buf, h); }},
      {"sfl_fileno", [](int32_t h) { sfl_fileno(h); }},
  };
  for (int32_t bad : {INT32_MIN, -1, 0, kStreamFirst - 1, closed, kStreamFirst + kMaxStreams,
                      simple_, INT32_MAX}) {
    for (const Op& op : ops)
      ExpectRefused(Table(SFL_R_BAD_HANDLE), [&] { op.second(bad); },
                    std::string(op.first) + "(" + std::to_string(bad) + ")");
  }
}

// ---- simple items ---------------------------------------------------------------------

TEST_F(Hostile, SimpleTransfersThatWouldWrapOrPassTheEndAreRefused) {
  Bytes buf(256, 0xAB);
  const std::vector<std::pair<uint32_t, uint32_t>> ranges = {
      {0xFFFFFF80u, 256}, {1024, 1}, {1, 1024}, {0, 0xFFFFFFFFu}, {0xFFFFFFFFu, 1},
      {0xFFFFFFFFu, 0xFFFFFFFFu}, {0x80000000u, 0x80000000u}};
  for (const auto& [pos, len] : ranges) {
    const std::string at = "(" + std::to_string(pos) + ", " + std::to_string(len) + ")";
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_WriteSimpleData(simple_, pos, len, buf.data()); },
                  "sfl_WriteSimpleData" + at);
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_ReadSimpleData(simple_, pos, len, buf.data()); },
                  "sfl_ReadSimpleData" + at);
    sfl_ItemRec* item = sfl_ItemHandle2Record(simple_);
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_FindOffsetChkSize(item, pos, len); },
                  "sfl_FindOffsetChkSize" + at);
  }
  // The last byte is still within reach.
  EXPECT_EQ(sfl_ReadSimpleData(simple_, 1023, 1, buf.data()), 1);
}

TEST_F(Hostile, SerialTransfersAndSeeksStayInsideTheItem) {
  Bytes buf(64, 0xCD);
  ASSERT_EQ(sfl_seek(simple_, 1000, SEEK_SET), 1000);
  REFUSED(Sfl(SFL_R_RANGE), sfl_WriteSerialData(simple_, buf.data(), 25));
  REFUSED(Sfl(SFL_R_RANGE), sfl_WriteSerialData(simple_, buf.data(), 0xFFFFFFFFu));
  REFUSED(Sfl(SFL_R_RANGE), sfl_WriteSerialData(simple_, buf.data(), 0xFFFFFFE8u));
  const std::vector<std::pair<int64_t, int>> seeks = {
      {-1, SEEK_SET},       {1025, SEEK_SET},     {INT64_MAX, SEEK_SET}, {INT64_MIN, SEEK_SET},
      {INT64_MIN, SEEK_CUR}, {INT64_MAX, SEEK_CUR}, {-1000, SEEK_CUR},    {25, SEEK_CUR},
      {1, SEEK_END},         {-1, SEEK_END},        {INT64_MIN, SEEK_END}, {0x100000000LL, SEEK_SET}};
  for (const auto& [offset, whence] : seeks)
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_seek(simple_, offset, whence); },
                  "sfl_seek(" + std::to_string(offset) + ", " + std::to_string(whence) + ")");
  // Any other whence changes nothing.
  for (int whence : {-1, 3, INT32_MAX}) HARMLESS(sfl_seek(simple_, 5, whence));
  EXPECT_EQ(sfl_ItemHandle2Record(simple_)->CurrPos, 1000u);
  // A serial read asking for more than is left gets what is left.
  const Bytes expected = sfltest::PseudoRandomBytes(1024, 13, 1);
  int32_t got = -1;
  HARMLESS(got = sfl_ReadSerialData(simple_, buf.data(), 0xFFFFFFFFu));
  ASSERT_EQ(got, 24);
  EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + 24, expected.begin() + 1000));
  HARMLESS(got = sfl_ReadSerialData(simple_, buf.data(), 0xFFFFFFFFu));
  EXPECT_EQ(got, 0);
}

TEST_F(Hostile, SizeChangesBeyondTheReservedRunAreRefused) {
  for (uint32_t size : {1025u, 0xFFFFFFFFu, 0x80000000u})
    ExpectRefused(Sfl(SFL_R_BEYOND_RESERVED), [&] { sfl_TruncateSimItem(simple_, size); },
                  "sfl_TruncateSimItem(" + std::to_string(size) + ")");
  REFUSED(Sfl(SFL_R_TRUNC_BLOCKED), sfl_TruncateSimItem(blocked_, 0));
  EXPECT_EQ(sfl_ItemHandle2Record(simple_)->Size, 1024u);
}

TEST_F(Hostile, SerialCallsOnABlockedItemAreRefused) {
  uint8_t buf[16] = {};
  sfl_SimpleDetails details{};
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_ReadSerialData(blocked_, buf, 1));
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_WriteSerialData(blocked_, buf, 1));
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_seek(blocked_, 0, SEEK_SET));
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_GetSimpleDetails(blocked_, &details));
}

// A blocked item's Offset and Size are its index root: a simple-data call
// over them would read or overwrite the root, after which every block read
// fails and a block write follows whatever the bytes say.
TEST_F(Hostile, SimpleDataCallsOnABlockedItemAreRefused) {
  const sfl_ItemRec* item = sfl_ItemHandle2Record(blocked_);
  ASSERT_GE(item->Size, 32u);
  uint8_t buf[32];
  std::memset(buf, 0xA5, sizeof buf);
  sfl_ItemMap map{};
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_WriteSimpleData(blocked_, 0, 32, buf));
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_ReadSimpleData(blocked_, 0, 32, buf));
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_WriteSimpleData(internal_, 0, 32, buf));
  REFUSED(Sfl(SFL_R_BLOCKED), sfl_mapItem(blocked_, &map));
  // The tree still leads to every block.
  for (uint32_t b = 0; b < 3; ++b) {
    Bytes got(100);
    ASSERT_EQ(sfl_ReadBlockedData(blocked_, b, 100, got.data()), 100u);
    EXPECT_EQ(got, sfltest::PseudoRandomBytes(100, 17, b)) << "block " << b;
  }
}

TEST_F(Hostile, OversizedAndNegativeSizesAreRefused) {
  sfl_ItemRef ref{};
  uint8_t buf[16] = {};
  // More than 32-bit file offsets can hold is refused before the map grows.
  REFUSED(Sfl(SFL_R_SHORT_MAP_WRITE), sfl_StoreBasicItem(c_.bh, nullptr, 0xFFFFFFFFu, &ref, 0));
  REFUSED(Sfl(SFL_R_SHORT_MAP_WRITE),
          sfl_CopySimpleItem(c_.bh, 128 + 4 * 64, -1, 0, 0xFFFFFFFFu, 0));
  // A negative block size is no size at all: it is refused before any
  // space is taken or any byte of the caller's buffer is read.
  for (int32_t size : {-1, -128, INT32_MIN, INT32_MIN / 2 - 1})
    ExpectRefused(Call(EINVAL), [&] { sfl_GetNewBlock(blocked_, size, 1, buf); },
                  "sfl_GetNewBlock(" + std::to_string(size) + ")");
  // A negative count of listed items lists none.
  sfl_ItemInfo info[2];
  std::memset(info, 0x5A, sizeof info);
  int32_t slots = 0;
  HARMLESS(slots = sfl_ListItems(c_.bh, info, -5));
  EXPECT_EQ(slots, 8);
  HARMLESS(slots = sfl_ListItems(c_.bh, info, INT32_MIN));
  EXPECT_EQ(info[0].ItemNum, 0x5A5A5A5Au);
}

// ---- blocked items ----------------------------------------------------------------------

// The data of a simple item is the caller's: it may hold bytes shaped like
// an index record whose entries point anywhere in the file (here at the
// file header). Blocked calls on a simple item must not follow them.
TEST_F(Hostile, BlockedCallsOnASimpleItemAreRefused) {
  sfl_IndexRecord fake = sfl_NewIndexRecord();
  fake.Used = 1;
  fake.EverUsed = 2;
  fake.Entries[0] = {0, 128};
  fake.Entries[1] = {128, 512};
  sfl_IndexBytes raw{};
  sfl_EncodeIndex(fake, raw);
  ASSERT_EQ(sfl_WriteSimpleData(simple_, 0, SFL_INDEX_SIZE, raw.data()), SFL_INDEX_SIZE);
  Bytes buf(512, 0xEE);
  sfl_BlockInfo blocks[4];
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_WriteBlockedData(simple_, 0, 128, buf.data()));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_WriteBlockedData(simple_, 40, 128, buf.data()));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_ReadBlockedData(simple_, 1, 512, buf.data()));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_FreeBlock(simple_, 1, 0));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_GetNewBlock(simple_, 10, 1, buf.data()));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_ListBlocks(simple_, 0, 10, blocks, 4));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_ReorderIndex(simple_, 0, 1));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_CompactBlockedItem(simple_));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_FormatBlockedRoot(simple_));
  REFUSED(Sfl(SFL_R_NOT_BLOCKED), sfl_ListIndexTree(devNull_, simple_));
}

TEST_F(Hostile, BlockNumbersPastTheTreeAreRefused) {
  Bytes buf(128, 0);
  for (uint32_t block : {3u, 31u, 32u, 0xFFFFFFFFu, 0x80000000u})
    ExpectRefused(Sfl(SFL_R_BAD_SLOT), [&] { sfl_ReadBlockedData(blocked_, block, 100, buf.data()); },
                  "sfl_ReadBlockedData(" + std::to_string(block) + ")");
  for (uint32_t block : {32u, 0xFFFFFFFFu})
    ExpectRefused(Sfl(SFL_R_LEAF_INDEX), [&] { sfl_FreeBlock(blocked_, block, 0); },
                  "sfl_FreeBlock(" + std::to_string(block) + ")");
  for (const auto& [from, to] : std::vector<std::pair<uint32_t, uint32_t>>{
           {0, 32}, {32, 0}, {0xFFFFFFFFu, 0}, {0, 0xFFFFFFFFu}})
    ExpectRefused(Sfl(SFL_R_BAD_SLOT), [&] { sfl_ReorderIndex(blocked_, from, to); },
                  "sfl_ReorderIndex(" + std::to_string(from) + ", " + std::to_string(to) + ")");
  // A range the wrong way round lists nothing.
  uint32_t n = 1;
  HARMLESS(n = sfl_ListBlocks(blocked_, 0xFFFFFFFFu, 0, nullptr, 0));
  EXPECT_EQ(n, 0u);
}

// ---- internal items -----------------------------------------------------------------------

TEST_F(Hostile, InternalItemHeadersOutsideTheirParentAreRefused) {
  // In a simple parent of 512 bytes.
  for (uint32_t pos : {449u, 512u, 0xFFFFFFC0u, 0xFFFFFFFFu, 0x80000000u}) {
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_CreateIntBItem(parent_, 0, pos, 0); },
                  "sfl_CreateIntBItem(parent, 0, " + std::to_string(pos) + ")");
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_OpenIntItem(parent_, 0, pos); },
                  "sfl_OpenIntItem(parent, 0, " + std::to_string(pos) + ")");
  }
  REFUSED(Sfl(SFL_R_BLOCK_FOR_SIMPLE), sfl_CreateIntBItem(parent_, 1, 0, 0));
  REFUSED(Sfl(SFL_R_BLOCK_FOR_SIMPLE), sfl_OpenIntItem(parent_, 0xFFFFFFFFu, 0));
  // Bytes that are not a header.
  REFUSED(Sfl(SFL_R_NOT_INT_ITEM), sfl_OpenIntItem(parent_, 0, 256));
  REFUSED(Sfl(SFL_R_NOT_INT_ITEM), sfl_OpenIntItem(parent_, 0, 65));
  // In block 0 (100 bytes) of a blocked parent.
  for (uint32_t pos : {37u, 100u, 0xFFFFFFC0u, 0xFFFFFFFFu})
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_CreateIntBItem(blocked_, 0, pos, 0); },
                  "sfl_CreateIntBItem(blocked, 0, " + std::to_string(pos) + ")");
  // A block never written has a section of no bytes; one past the tree
  // has no entry at all.
  REFUSED(Sfl(SFL_R_RANGE), sfl_OpenIntItem(blocked_, 3, 0));
  REFUSED(Sfl(SFL_R_BAD_SLOT), sfl_OpenIntItem(blocked_, 0xFFFFFFFFu, 0));
}

TEST_F(Hostile, RangeLocksEndingPastTheItemAreRefused) {
  // The simple item holds 1,024 bytes. A range whose end (offset + length)
  // is at or above zero must end inside the item and below 32 bits; none of
  // these may place a lock, not even a release; nor may a range reaching
  // before the item's start (a negative end reached the file header).
  const std::string path = sfltest::ItemPath(c_.ref);
  const uint32_t start = sfl_ItemHandle2Record(simple_)->Offset;
  const std::vector<std::pair<int64_t, int64_t>> ranges = {
      {0, 1025},  {1025, 0},        {2000, -500},        {-100, 2000},
      {1, 1024},  {0, 0x100000000}, {0x100000000, 0},    {INT64_MAX, -INT64_MAX + 1025},
      {0, -896},  {1000, -1001},    {-1, 1},             {-100, 50}};
  for (int32_t mode : {SFL_LOCK_SHARED, SFL_LOCK_EXCL, SFL_LOCK_RELEASE}) {
    for (const auto& [off, len] : ranges) {
      const std::string at = "(mode " + std::to_string(mode) + ", " + std::to_string(off) + ", " +
                             std::to_string(len) + ")";
      ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_LockSflItem(simple_, mode, 0, off, len); },
                    "sfl_LockSflItem" + at);
      EXPECT_EQ(sfl_ItemHandle2Record(simple_)->LockCount, 0) << at;
      EXPECT_EQ(sfltest::LockStateElsewhere(path, 0, 0), 0) << at << ": a lock was placed";
    }
  }
  // A length of 0 inside the item names no bytes: granted, with no lock
  // placed and nothing counted.
  for (int64_t off : {0, 512, 1024}) {
    EXPECT_NE(sfl_LockSflItem(simple_, SFL_LOCK_EXCL, 0, off, 0), 0) << off;
    EXPECT_EQ(sfl_ItemHandle2Record(simple_)->LockCount, 0) << off;
    EXPECT_EQ(sfltest::LockStateElsewhere(path, 0, 0), 0) << off << ": a lock was placed";
  }
  // A negative length that stays inside the item covers the bytes before
  // the offset, as a record lock does.
  ASSERT_NE(sfl_LockSflItem(simple_, SFL_LOCK_EXCL, 0, 1024, -24), 0);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, start + 1000, 24), 1);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, start + 1024, 1), 0);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, start + 999, 1), 0);
  EXPECT_NE(sfl_LockSflItem(simple_, SFL_LOCK_RELEASE, 0, 1024, -24), 0);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, 0, 0), 0);
}

TEST_F(Hostile, AWholeItemLockOnAnEmptyItemLocksNothing) {
  // An empty item has no space (offset 0): a lock of its "whole" data must
  // not become a lock of the whole file.
  const std::string path = sfltest::ItemPath(c_.ref);
  sfl_ItemRef ref{};
  const int32_t empty = sfl_StoreBasicItem(c_.bh, nullptr, 0, &ref, 0);
  ASSERT_GE(empty, SFL_ITEM_HANDLE_FIRST);
  for (int32_t mode : {SFL_LOCK_SHARED, SFL_LOCK_EXCL, SFL_LOCK_RELEASE}) {
    EXPECT_EQ(sfl_flock(empty, mode), 0) << mode;
    EXPECT_EQ(sfltest::LockStateElsewhere(path, 0, 0), 0) << mode << ": a lock was placed";
  }
  EXPECT_EQ(sfl_ItemHandle2Record(empty)->LockCount, 0);
  sfl_CloseItem(empty);
}

TEST_F(Hostile, CopiesUnderAHeaderOverTheFilesOwnRecordsAreRefused) {
  // A copy writes its 64-byte header where the caller says: a user slot of
  // the item table, or a place in the data area inside the file (a slot of
  // a container copied before it). Over the file header, the free map's
  // slot, across slots, over the free map, past the file's end or past 32
  // bits it would wreck the file; such a copy is refused before any space
  // is taken.
  const std::string path = sfltest::ItemPath(c_.ref);
  const uint32_t fileSize = static_cast<uint32_t>(sfltest::FileBytes(path).size());
  for (uint32_t at : {0u, 64u, 127u, 128u, 129u, 128u + 4 * 64 + 1, 128u + 8 * 64 - 32, 640u, 700u,
                      895u - 63u, fileSize, fileSize - 63u, 0xFFFFFFC0u, 0xFFFFFFFFu}) {
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_CopySimpleItem(c_.bh, at, -1, 0, 10, 0); },
                  "sfl_CopySimpleItem at " + std::to_string(at));
  }
  // A free slot of the table and a place inside an item's data are taken.
  const uint32_t inData = sfl_ItemHandle2Record(simple_)->Offset + 256;
  for (uint32_t at : {128u + 4 * 64, 128u + 7 * 64, inData, inData + 64}) {
    const int32_t h = sfl_CopySimpleItem(c_.bh, at, -1, 0, 10, 0);
    ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST) << at;
    EXPECT_EQ(sfl_ItemHandle2Record(h)->HeaderOff, at);
    sfl_CloseItem(h);
  }
}

// ---- streams ---------------------------------------------------------------------------------

TEST_F(Hostile, StreamArgumentsOutsideTheItemAreRefused) {
  const int32_t s = sfl_fOpenItem(&simpleRef_, "rw");
  const int32_t r = sfl_fOpenItem(&simpleRef_, "r");
  char buf[64] = {};
  REFUSED(Sfl(SFL_R_STREAM_ELEMENT), sfl_fRead(buf, 2, 1, s));
  REFUSED(Sfl(SFL_R_STREAM_ELEMENT), sfl_fWrite(buf, 0, 1, s));
  REFUSED(Sfl(SFL_R_STREAM_ELEMENT), sfl_fWrite(buf, SIZE_MAX, 2, s));
  REFUSED(Sfl(SFL_R_RANGE), sfl_fWrite(buf, 1, 1025, s));
  REFUSED(Sfl(SFL_R_RANGE), sfl_fWrite(buf, 1, SIZE_MAX, s));
  REFUSED(Sfl(SFL_R_READ_ONLY), sfl_fWrite(buf, 1, 1, r));
  const std::vector<std::pair<int32_t, int>> seeks = {
      {-1, SEEK_SET}, {1025, SEEK_SET}, {INT32_MIN, SEEK_SET}, {INT32_MAX, SEEK_SET},
      {INT32_MIN, SEEK_CUR}, {INT32_MAX, SEEK_CUR}, {1, SEEK_END}, {-1, SEEK_END}};
  for (const auto& [offset, whence] : seeks)
    ExpectRefused(Sfl(SFL_R_RANGE), [&] { sfl_fSeek(s, offset, whence); },
                  "sfl_fSeek(" + std::to_string(offset) + ", " + std::to_string(whence) + ")");
  // Lengths that say nothing fit return nothing.
  char* line = buf;
  for (int32_t len : {0, -1, INT32_MIN}) {
    HARMLESS(line = sfl_fgets(buf, len, s));
    EXPECT_EQ(line, nullptr);
  }
  sfl_fClose(r);
  sfl_fClose(s);
}

// After a relative seek the container stream stands elsewhere than the
// stream's position says (at Offset + Offset + Position); a line read from
// there would return the bytes that follow the item, and is refused.
TEST_F(Hostile, ALineReadWhereTheStreamStandsPastTheItemIsRefused) {
  const int32_t s = sfl_fOpenItem(&simpleRef_, "rw");
  sfl_ItemRec* item = sfl_ItemHandle2Record(sfl_fileno(s));
  ASSERT_EQ(sfl_fSeek(s, 200, SEEK_CUR), 0);
  ASSERT_GT(uint64_t{item->Offset} * 2 + 200, uint64_t{item->Offset} + item->Size);
  char buf[2048];
  REFUSED(Sfl(SFL_R_RANGE), sfl_fgets(buf, sizeof buf, s));
  EXPECT_EQ(sfl_fTell(s), 200);
  // Past the end of the file as well.
  ASSERT_EQ(sfl_fSeek(s, 0, SEEK_END), 0);
  REFUSED(Sfl(SFL_R_RANGE), sfl_fgets(buf, sizeof buf, s));
  sfl_fClose(s);
}

TEST_F(Hostile, StreamModesThatWouldHarmAContainerAreRefused) {
  for (const char* mode : {"rw+", "a", "w+", "", "r+"})
    ExpectRefused(Sfl(SFL_R_STREAM_MODE), [&] { sfl_fOpenItem(&simpleRef_, mode); },
                  std::string("sfl_fOpenItem(item, \"") + mode + "\")");
  // A reference to the container itself opens it as a plain file: a mode
  // that would truncate it (and so destroy every item in it) is refused.
  for (const char* mode : {"w", "w+", "wb"})
    ExpectRefused(Sfl(SFL_R_STREAM_MODE), [&] { sfl_fOpenItem(&c_.ref, mode); },
                  std::string("sfl_fOpenItem(file, \"") + mode + "\")");
  const std::string path = sfltest::ItemPath(c_.ref);
  for (const char* mode : {"w", "w+"})
    ExpectRefused(Sfl(SFL_R_STREAM_MODE), [&] { sfl_fOpen(path.c_str(), mode); },
                  std::string("sfl_fOpen(container, \"") + mode + "\")");
}

// ---- references -------------------------------------------------------------------------------

TEST_F(Hostile, UnsafeNameTagsAreRefusedEverywhere) {
  const char* names[] = {"..", ".", "/", "a/b", "\n", "\x01", "\x7f", "a b", "abcd", "%s", "\xff"};
  for (const char* name : names) {
    const sfl_ItemRef file = Named(c_.ref, name);
    const sfl_ItemRef item = AsItem(file, 1);
    const std::string tag = std::string(" with name tag \"") + name + "\"";
    struct stat st {};
    sfl_ItemRef out{};
    const long unsafe = Config(IM_R_UNSAFE_NAME);
    ExpectRefused(unsafe, [&] { sfl_OpenSfl(&file, 1); }, "sfl_OpenSfl" + tag);
    ExpectRefused(unsafe, [&] { sfl_OpenItem(&item, 0); }, "sfl_OpenItem" + tag);
    ExpectRefused(unsafe, [&] { sfl_AttachItem(&item); }, "sfl_AttachItem" + tag);
    ExpectRefused(unsafe, [&] { sfl_DetachItem(&item); }, "sfl_DetachItem" + tag);
    ExpectRefused(unsafe, [&] { sfl_StatItem(&item, &st); }, "sfl_StatItem" + tag);
    ExpectRefused(unsafe, [&] { sfl_AddItemToFile(&file, 10, 0, nullptr, 0, &out); },
                  "sfl_AddItemToFile" + tag);
    ExpectRefused(unsafe, [&] { sfl_StoreBasicItem(c_.bh, &item, 0, &out, 0); },
                  "sfl_StoreBasicItem from a source" + tag);
    ExpectRefused(unsafe, [&] { sfl_fOpenItem(&item, "r"); }, "sfl_fOpenItem" + tag);
    // Compaction reports its failures by its result.
    int32_t outcome = -1;
    ExpectHarmless([&] { outcome = sfl_CompactContainer(&file); }, "sfl_CompactContainer" + tag);
    EXPECT_EQ(outcome, SFL_COMPACT_FAILED) << tag;
    int32_t exists = -1;
    ExpectHarmless([&] { exists = sfl_ItemExists(&item); }, "sfl_ItemExists" + tag);
    EXPECT_EQ(exists, 0) << tag;
    char text[64];
    ExpectRefused(unsafe, [&] { im_ItemRef2FName(&item, text, sizeof text); },
                  "im_ItemRef2FName" + tag);
  }
  // The text and path forms refuse the same names.
  sfl_ItemRef out{};
  for (const char* text : {"2.17.4113../", "2.17.4113...", "2.17.4113.a/b", "2.17.4113.\n"})
    ExpectRefused(Config(IM_R_UNSAFE_NAME), [&] { im_FormItemRef(text, &out); },
                  std::string("im_FormItemRef(\"") + text + "\")");
  const std::string path = sfltest::ItemPath(c_.ref);
  for (const std::string& name : {path + "/../x:1", path + ":9", path + ":1/..", path + "\n:1"})
    ExpectRefused(Config(IM_R_NOT_IN_STORE), [&] { im_FName2ItemRef(name.c_str(), &out); },
                  "im_FName2ItemRef(\"" + name + "\")");
}

TEST_F(Hostile, AnItemReferenceWhereAFileIsExpectedIsRefused) {
  REFUSED(Sfl(SFL_R_REF_IS_ITEM), sfl_OpenSfl(&simpleRef_, 1));
  REFUSED(Maint(1032), sfl_CompactContainer(&simpleRef_));
  REFUSED(Maint(1032), sfl_CheckSflIntegrity(&simpleRef_, 1));
  // A new container laid down under an item's reference would be a file
  // that no item reference can reach again.
  sfl_ItemRef fresh{};
  const int fd = im_GetNewDataItem(&fresh);
  ASSERT_GE(fd, 0);
  const sfl_ItemRef freshItem = AsItem(fresh, 2);
  REFUSED(Sfl(SFL_R_REF_IS_ITEM), sfl_CreateBaseSfl(&freshItem, fd, 0));
  close(fd);
}

TEST_F(Hostile, AFileReferenceWhereAnItemIsExpectedIsRefused) {
  struct stat st {};
  REFUSED(Sfl(SFL_R_NO_ITEM), sfl_OpenItem(&c_.ref, 1));
  REFUSED(Sfl(SFL_R_NO_ITEM), sfl_AttachItem(&c_.ref));
  REFUSED(Sfl(SFL_R_NO_ITEM), sfl_DetachItem(&c_.ref));
  REFUSED(Sfl(SFL_R_NO_ITEM), sfl_StatItem(&c_.ref, &st));
  int32_t exists = -1;
  HARMLESS(exists = sfl_ItemExists(&c_.ref));
  EXPECT_EQ(exists, 0);
  // An empty slot holds no item header; a slot the file does not have.
  const sfl_ItemRef empty = AsItem(c_.ref, 6);
  REFUSED(Sfl(SFL_R_BAD_ITEM_HEADER), sfl_OpenItem(&empty, 1));
  REFUSED(Sfl(SFL_R_NO_ITEM), sfl_DumpContainer(devNull_, c_.bh, 8));
  REFUSED(Sfl(SFL_R_NO_ITEM), sfl_DumpContainer(devNull_, c_.bh, -2));
}

// ---- null pointers ------------------------------------------------------------------------------

TEST_F(Hostile, NullPointersAreRefusedWhereTheyCanBeChecked) {
  const long null = Call(EINVAL);
  struct stat st {};
  sfl_ItemRef out{};
  char text[64];
  REFUSED(null, sfl_OpenSfl(nullptr, 1));
  REFUSED(null, sfl_CreateBaseSfl(nullptr, 0, 0));
  REFUSED(null, sfl_OpenItem(nullptr, 1));
  REFUSED(null, sfl_AttachItem(nullptr));
  REFUSED(null, sfl_DetachItem(nullptr));
  REFUSED(null, sfl_StatItem(nullptr, &st));
  REFUSED(null, sfl_StatItem(&simpleRef_, nullptr));
  REFUSED(null, sfl_FStatItem(simple_, nullptr));
  REFUSED(null, sfl_AddItemToFile(nullptr, 10, 0, nullptr, 0, &out));
  REFUSED(null, sfl_GetSimpleDetails(simple_, nullptr));
  REFUSED(null, sfl_mapItem(simple_, nullptr));
  REFUSED(null, sfl_unMapItem(nullptr));
  REFUSED(null, sfl_fOpen(nullptr, "r"));
  REFUSED(null, sfl_fOpen("/dev/null", nullptr));
  REFUSED(null, sfl_fOpenItem(nullptr, "r"));
  REFUSED(null, sfl_fOpenItem(&simpleRef_, nullptr));
  REFUSED(null, sfl_CheckSflIntegrity(nullptr, 0));
  REFUSED(null, sfl_CompactContainer(nullptr));
  REFUSED(null, sfl_GetSerFileItem(c_.bh, nullptr));
  // The text parsers refuse a missing text or result as malformed text.
  REFUSED(Config(IM_R_BAD_TEXT), im_FormItemRef(nullptr, &out));
  REFUSED(Config(IM_R_BAD_TEXT), im_FormItemRef("2.17.4113", nullptr));
  REFUSED(null, im_ItemRef2Text(nullptr, text, sizeof text));
  REFUSED(null, im_ItemRef2FName(nullptr, text, sizeof text));
  REFUSED(Config(IM_R_NOT_IN_STORE), im_FName2ItemRef(nullptr, &out));
  REFUSED(Config(IM_R_NOT_IN_STORE), im_FName2ItemRef("x", nullptr));
  int32_t exists = -1;
  HARMLESS(exists = sfl_ItemExists(nullptr));
  EXPECT_EQ(exists, 0);
  // Where the interface says an out-pointer may be null, null is fine.
  int32_t slots = 0;
  HARMLESS(slots = sfl_ListItems(c_.bh, nullptr, 8));
  EXPECT_EQ(slots, 8);
  uint32_t n = 0;
  HARMLESS(n = sfl_ListBlocks(blocked_, 0, 10, nullptr, 10));
  EXPECT_EQ(n, 3u);
}

}  // namespace
