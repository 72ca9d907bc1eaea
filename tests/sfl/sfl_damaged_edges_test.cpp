// Damaged files at the edges of what the library trusts: item headers whose
// place or size was changed on disk, and what releasing, opening, copying,
// listing and repairing do with them. A damaged field must never lead the
// library to change bytes of another item, of the file's own structure or
// past the end of the file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "ext.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using sfltest::EscapeCode;
using sfltest::EscapeCodeOf;

constexpr long Sfl(int reason) { return EscapeCode(ER_GROUP_SFL, reason); }

uint64_t SizeOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return static_cast<uint64_t>(st.st_size);
}

bool BitSet(const Bytes& map, uint32_t block) {
  return block / 8 < map.size() && (map[block / 8] >> (block % 8) & 1) != 0;
}

// A container with two simple items of 1 KiB side by side, both open and
// filled with distinct bytes, and the deletion service on. The first item's
// attach count is 0 so that deleting it releases its space at once.
class SecureRelease : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SFL_SECURE_DELETE", "1", 1);
    c_ = sfltest::NewContainer();
    path_ = sfltest::ItemPathOf(c_.bh);
    first_ = sfl_StoreBasicItem(c_.bh, nullptr, 1024, &firstRef_, 0);
    second_ = sfl_StoreBasicItem(c_.bh, nullptr, 1024, &secondRef_, 0);
    ASSERT_GE(first_, SFL_ITEM_HANDLE_FIRST);
    ASSERT_GE(second_, SFL_ITEM_HANDLE_FIRST);
    const Bytes a = sfltest::PseudoRandomBytes(1024, 3, 1);
    const Bytes b = sfltest::PseudoRandomBytes(1024, 5, 2);
    ASSERT_EQ(sfl_WriteSimpleData(first_, 0, 1024, a.data()), 1024);
    ASSERT_EQ(sfl_WriteSimpleData(second_, 0, 1024, b.data()), 1024);
    firstOff_ = sfl_ItemHandle2Record(first_)->Offset;
    secondOff_ = sfl_ItemHandle2Record(second_)->Offset;
    ASSERT_EQ(secondOff_, firstOff_ + 1024);
    sfltest::EditHeader(first_, [](sfl_ItemHeader& h) { h.AccCount = 0; });
  }

  void TearDown() override {
    unsetenv("SFL_SECURE_DELETE");
    sfltest::EscapeOfThenClear([&] {
      sfl_CloseItem(second_);
      sfl_CloseItem(first_);
      sfl_CloseFile(c_.bh);
    });
  }

  // Damages the first item's header with `edit`, deletes it, and expects
  // the release to be refused with every byte outside the first item's
  // header and the file header unchanged and the file no longer.
  void ExpectReleaseRefused(const std::function<void(sfl_ItemHeader&)>& edit, const char* what) {
    sfltest::EditHeader(first_, edit);
    const Bytes before = sfltest::FileBytes(path_);
    EXPECT_EQ(EscapeCodeOf([&] { sfl_DeleteItem(first_); }), Sfl(SFL_R_BAD_MAP)) << what;
    const Bytes after = sfltest::FileBytes(path_);
    ASSERT_EQ(after.size(), before.size()) << what;
    // Deleting wipes the item's own header and its slot in the file header
    // before the space is released; nothing else may change.
    for (size_t i = SFL_FILE_HEADER_SIZE; i < before.size(); ++i) {
      if (i >= 128 + 64 && i < 128 + 128) continue;  // slot 1's header
      ASSERT_EQ(after[i], before[i]) << what << ": byte " << i;
    }
  }

  sfltest::OpenContainer c_;
  std::string path_;
  int32_t first_ = -1, second_ = -1;
  sfl_ItemRef firstRef_{}, secondRef_{};
  uint32_t firstOff_ = 0, secondOff_ = 0;
};

TEST_F(SecureRelease, ASoundItemIsZeroedAndFreedExactly) {
  sfl_DeleteItem(first_);
  const Bytes after = sfltest::FileBytes(path_);
  for (uint32_t i = 0; i < 1024; ++i) ASSERT_EQ(after[firstOff_ + i], 0) << i;
  const Bytes b = sfltest::PseudoRandomBytes(1024, 5, 2);
  EXPECT_TRUE(std::equal(b.begin(), b.end(), after.begin() + secondOff_));
  const Bytes map = sfltest::FreeMapOf(c_.bh);
  EXPECT_FALSE(BitSet(map, firstOff_ / 128));
  EXPECT_FALSE(BitSet(map, firstOff_ / 128 + 7));
  EXPECT_TRUE(BitSet(map, secondOff_ / 128));
}

TEST_F(SecureRelease, AHeaderWhoseSizeReachesIntoAnotherItemIsRefused) {
  ExpectReleaseRefused([](sfl_ItemHeader& h) { h.UsedBlocks = 16; }, "run over the second item");
}

TEST_F(SecureRelease, AHeaderPlacedOverAnotherItemIsRefused) {
  const uint32_t at = secondOff_;
  ExpectReleaseRefused([at](sfl_ItemHeader& h) { h.FileOffset = at; }, "run on the second item");
}

TEST_F(SecureRelease, AHeaderRunningOverAnotherItemPastTheFileIsRefused) {
  ExpectReleaseRefused([](sfl_ItemHeader& h) { h.UsedBlocks = 1000; }, "run over the second item past the file");
}

// The last item of the file, with a run past what the free map covers
// (2,048 blocks), meets no other item and is refused all the same.
TEST_F(SecureRelease, AHeaderReachingPastTheMapIsRefused) {
  sfltest::EditHeader(second_, [](sfl_ItemHeader& h) {
    h.AccCount = 0;
    h.UsedBlocks = 2048;
  });
  const Bytes before = sfltest::FileBytes(path_);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_DeleteItem(second_); }), Sfl(SFL_R_BAD_MAP));
  const Bytes after = sfltest::FileBytes(path_);
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = SFL_FILE_HEADER_SIZE; i < before.size(); ++i) {
    if (i >= 128 + 128 && i < 128 + 192) continue;  // slot 2's header
    ASSERT_EQ(after[i], before[i]) << "byte " << i;
  }
}

TEST_F(SecureRelease, AHeaderOverTheItemTableIsRefused) {
  ExpectReleaseRefused([](sfl_ItemHeader& h) { h.FileOffset = 128; }, "run over the item table");
}

TEST_F(SecureRelease, AHeaderOverTheFileHeaderIsRefused) {
  ExpectReleaseRefused(
      [](sfl_ItemHeader& h) {
        h.FileOffset = 0;
        h.UsedBlocks = 1;
      },
      "run over the file header");
}

TEST_F(SecureRelease, AHeaderOverTheFreeMapIsRefused) {
  ExpectReleaseRefused(
      [](sfl_ItemHeader& h) {
        h.FileOffset = 640;
        h.UsedBlocks = 2;
      },
      "run over the free map");
}

TEST_F(SecureRelease, AHeaderOffTheBlockGridIsRefused) {
  const uint32_t at = firstOff_ + 64;
  ExpectReleaseRefused([at](sfl_ItemHeader& h) { h.FileOffset = at; }, "half a block on");
}

TEST_F(SecureRelease, AHeaderWhoseRunWrapsIsRefused) {
  ExpectReleaseRefused([](sfl_ItemHeader& h) { h.UsedBlocks = 0x02000000; }, "run past 32 bits");
}

// An item deleted while held waits for the final close; a header damaged
// meanwhile does not stop the close: the slot is released, the damaged run
// stays in use and the other item's data stays as it was.
TEST_F(SecureRelease, APendingDeletionWithADamagedRunReleasesTheSlotOnly) {
  sfltest::EditHeader(first_, [](sfl_ItemHeader& h) { h.AccCount = 1; });
  sfl_DeleteItem(first_);
  ASSERT_NE(sfltest::FileHeaderOf(c_.bh).Flags & ITEM_PEND_DEL, 0u);
  sfltest::EditHeader(first_, [](sfl_ItemHeader& h) { h.UsedBlocks = 16; });
  sfltest::LogCapture log;
  sfl_CloseItem(first_);
  sfl_CloseItem(second_);
  first_ = second_ = -1;
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CloseFile(c_.bh); }), 0);
  sfltest::CloseColdFiles();
  EXPECT_TRUE(log.SawReason(SFL_R_BAD_MAP));
  const Bytes after = sfltest::FileBytes(path_);
  const sfl_FileHeader fh =
      sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE>(after.data(), SFL_FILE_HEADER_SIZE));
  EXPECT_EQ(fh.UsedItems, 1u);
  EXPECT_EQ(fh.InUseItms & (1u << 1), 0u);
  EXPECT_EQ(fh.Flags & ITEM_PEND_DEL, 0u);
  const Bytes a = sfltest::PseudoRandomBytes(1024, 3, 1);
  const Bytes b = sfltest::PseudoRandomBytes(1024, 5, 2);
  EXPECT_TRUE(std::equal(a.begin(), a.end(), after.begin() + firstOff_));
  EXPECT_TRUE(std::equal(b.begin(), b.end(), after.begin() + secondOff_));
  // Both runs are still marked in use.
  const uint32_t mapAt = sfl_GetU32(after.data() + SFL_TABLE_OFFSET + sfl_ih::FileOffset);
  const Bytes map(after.begin() + mapAt, after.begin() + mapAt + 256);
  for (uint32_t blk = firstOff_ / 128; blk < secondOff_ / 128 + 8; ++blk) EXPECT_TRUE(BitSet(map, blk)) << blk;
}

TEST(SecureReleaseEnd, BlocksTakenButNeverWrittenAreNotWrittenPastTheEnd) {
  setenv("SFL_SECURE_DELETE", "1", 1);
  sfltest::OpenContainer c = sfltest::NewContainer();
  const std::string path = sfltest::ItemPathOf(c.bh);
  sfl_ItemRef ref{};
  // No zero fill: the run is taken but the file does not reach its end.
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 10000, &ref, 1);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  const uint32_t off = sfl_ItemHandle2Record(h)->Offset;
  ASSERT_EQ(sfl_WriteSimpleData(h, 0, 3, "abc"), 3);
  const uint64_t size = SizeOf(path);
  ASSERT_LT(size, off + 10000u);
  sfltest::EditHeader(h, [](sfl_ItemHeader& hd) { hd.AccCount = 0; });
  sfl_DeleteItem(h);
  EXPECT_EQ(SizeOf(path), size);
  const Bytes after = sfltest::FileBytes(path);
  for (uint64_t i = off; i < after.size(); ++i) ASSERT_EQ(after[i], 0) << i;
  const Bytes map = sfltest::FreeMapOf(c.bh);
  for (uint32_t b = off / 128; b < off / 128 + sfl_CalculateBlocks(10000); ++b)
    EXPECT_FALSE(BitSet(map, b)) << b;
  unsetenv("SFL_SECURE_DELETE");
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// ---- internal item headers inside their parent ----------------------------------------------

// A simple parent of 512 bytes holding an internal item whose header lies at
// position 64; the internal item is closed. The parent's owner writes its
// data as it likes, so the header read back from there is distrusted.
class DamagedInternal : public sfltest::ParentItemTest {
 protected:
  void SetUp() override {
    ParentItemTest::SetUp();
    const int32_t h = sfl_CreateIntBItem(parent_, 0, 64, 0);
    ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
    at_ = Rec(parent_)->Offset + 64;
    sfl_CloseIntItem(h);
  }
  // Puts `value` into the u32 field at `field` of the internal header.
  void Put(size_t field, uint32_t value) {
    uint8_t b[4];
    sfl_PutU32(b, value);
    ASSERT_EQ(::pwrite(fd_, b, sizeof b, at_ + field), static_cast<ssize_t>(sizeof b));
  }
  // Expects `fn` to be refused as not an internal item header, with no
  // byte of the file changed and no item record left behind.
  void ExpectRefused(const std::function<void()>& fn, const std::string& what) {
    const Bytes before = sfltest::FileBytes(FilePath());
    const int items = sfl_OpenItems().InUseCount();
    EXPECT_EQ(EscapeCodeOf(fn), Sfl(SFL_R_NOT_INT_ITEM)) << what;
    EXPECT_EQ(sfl_OpenItems().InUseCount(), items) << what;
    EXPECT_TRUE(sfltest::FileBytes(FilePath()) == before) << what << ": the file changed";
  }
  uint32_t at_ = 0;
};

TEST_F(DamagedInternal, ASoundHeaderOpens) {
  const sfl_ItemHeader h = Header(at_);
  const int32_t item = sfl_OpenIntItem(parent_, 0, 64);
  ASSERT_GE(item, SFL_ITEM_HANDLE_FIRST);
  EXPECT_EQ(Rec(item)->Offset, h.FileOffset);
  EXPECT_EQ(Rec(item)->Size, h.FileSize);
  sfl_CloseIntItem(item);
}

TEST_F(DamagedInternal, SpaceOverTheFileHeaderOrItemTableIsRefused) {
  for (uint32_t off : {1u, 64u, 127u, 128u, 128u + 64, 639u}) {
    Put(sfl_ih::FileOffset, off);
    ExpectRefused([&] { sfl_OpenIntItem(parent_, 0, 64); }, "space at " + std::to_string(off));
  }
}

TEST_F(DamagedInternal, SpacePast32BitsIsRefused) {
  Put(sfl_ih::FileOffset, 0xFFFFFF00u);
  Put(sfl_ih::FileSize, 0x200);
  ExpectRefused([&] { sfl_OpenIntItem(parent_, 0, 64); }, "size past 32 bits");
  Put(sfl_ih::FileSize, 0x80);
  Put(sfl_ih::UsedBlocks, 0x10);
  ExpectRefused([&] { sfl_OpenIntItem(parent_, 0, 64); }, "run past 32 bits");
}

// A header damaged while the item is open is checked again before removal
// wipes it and gives its space back.
TEST_F(DamagedInternal, ADamagedHeaderIsNotRemoved) {
  const int32_t item = sfl_OpenIntItem(parent_, 0, 64);
  ASSERT_GE(item, SFL_ITEM_HANDLE_FIRST);
  Put(sfl_ih::FileOffset, 128 + 64);
  ExpectRefused([&] { sfl_RemoveIntItem(item); }, "removal");
  Put(sfl_ih::FileOffset, 0xFFFFFF80u);
  Put(sfl_ih::UsedBlocks, 2);
  ExpectRefused([&] { sfl_RemoveIntItem(item); }, "removal past 32 bits");
  sfl_CloseIntItem(item);
}

// ---- listing a damaged index tree -----------------------------------------------------------

// A blocked item whose tree is rewritten by hand; the listing is read back
// from a temporary file.
class DamagedTree : public ::testing::Test {
 protected:
  void SetUp() override {
    c_ = sfltest::NewContainer();
    h_ = sfl_CreateBlockedItem(c_.bh, &ref_);
    ASSERT_GE(h_, SFL_ITEM_HANDLE_FIRST);
    ASSERT_EQ(sfl_FormatBlockedRoot(h_), 1);
  }
  void TearDown() override {
    sfltest::EscapeOfThenClear([&] {
      sfl_CloseItem(h_);
      sfl_CloseFile(c_.bh);
    });
  }
  uint32_t Root() { return sfltest::SlotOf(c_.bh, sfl_ItemNumOf(ref_)).FileOffset; }
  void Put(uint32_t n, uint32_t len) {
    const Bytes data = sfltest::PseudoRandomBytes(len, n, 1);
    ASSERT_EQ(sfl_WriteBlockedData(h_, n, len, data.data()), static_cast<int32_t>(len));
  }
  std::vector<std::string> ListLines() {
    FILE* f = std::tmpfile();
    EXPECT_NE(f, nullptr);
    sfl_ListIndexTree(f, h_);
    std::rewind(f);
    std::vector<std::string> lines;
    char line[256];
    while (std::fgets(line, sizeof line, f) != nullptr) lines.emplace_back(line);
    std::fclose(f);
    return lines;
  }
  // The most record lines a listing may print for this file.
  uint64_t Limit() {
    return 32 * (sfltest::FileBytes(sfltest::ItemPathOf(c_.bh)).size() / 384 + 1);
  }
  static size_t RecordLines(const std::vector<std::string>& lines) {
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const std::string& l) {
      return l.rfind("Record ", 0) == 0;
    }));
  }

  sfltest::OpenContainer c_;
  sfl_ItemRef ref_{};
  int32_t h_ = -1;
};

// A root of depth 6 whose entries are all empty, though every one is
// counted as used, covers 2^32 block numbers with nothing behind them.
TEST_F(DamagedTree, ADeepTreeOfEmptyEntriesIsCutAtWhatTheFileCanHold) {
  sfl_IndexRecord r = sfl_NewIndexRecord();
  r.Depth = 6;
  r.EverUsed = 32;
  r.FreeMap = 0;
  sfl_WriteAnIndex(sfl_ItemHandle2Record(h_), Root(), r);
  sfltest::EditHeader(h_, [](sfl_ItemHeader& h) { h.IndexDepth = 6; });
  const uint64_t limit = Limit();
  const std::vector<std::string> lines = ListLines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], "------> BaseBlock=0\n");
  EXPECT_EQ(lines[1], "Record     0 is UNUSED\n");
  EXPECT_EQ(RecordLines(lines), limit);
  EXPECT_EQ(lines.back(), "Listing stopped at record " + std::to_string(limit) +
                              ": the index names more records than the file can hold\n");
}

// Entries that all name the same full leaf make every block number a
// record; the listing stops at what the file can hold all the same.
TEST_F(DamagedTree, EntriesSharingOneLeafAreCutAtWhatTheFileCanHold) {
  for (uint32_t n = 0; n < 33; ++n) Put(n, 64);
  ASSERT_EQ(sfltest::SlotOf(c_.bh, sfl_ItemNumOf(ref_)).IndexDepth, 1u);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h_);
  sfl_IndexRecord root;
  sfl_ReadAnIndex(item, Root(), &root);
  for (auto& e : root.Entries) e = root.Entries[0];
  root.Used = 32;
  root.EverUsed = 32;
  sfl_WriteAnIndex(item, Root(), root);
  const uint64_t limit = Limit();
  ASSERT_LT(limit, 32u * 32u);
  const std::vector<std::string> lines = ListLines();
  EXPECT_EQ(RecordLines(lines), limit);
  EXPECT_EQ(lines[1], "Record     0 is    64 Bytes\n");
  EXPECT_EQ(lines.back(), "Listing stopped at record " + std::to_string(limit) +
                              ": the index names more records than the file can hold\n");
}

// A sound tree is listed whole: its records never pass the bound.
TEST_F(DamagedTree, ASoundTreeIsListedWhole) {
  for (uint32_t n = 0; n < 100; ++n) Put(n, 1);
  const std::vector<std::string> lines = ListLines();
  EXPECT_EQ(RecordLines(lines), 100u);
  EXPECT_EQ(lines.back(), "Record    99 is     1 Bytes\n");
}

// ---- slots of items a repairing check marked deleted ----------------------------------------

// A container holding `n` simple items of 100 bytes, every handle closed
// and the file closed for good, so that a repairing check may run on it.
sfl_ItemRef ClosedContainerWith(int n) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  for (int i = 0; i < n; ++i) {
    sfl_ItemRef ref{};
    const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 100, &ref, 0);
    EXPECT_GE(h, SFL_ITEM_HANDLE_FIRST);
    sfl_CloseItem(h);
  }
  sfl_CloseFile(c.bh);
  sfltest::CloseColdFiles();
  return c.ref;
}

sfl_FileHeader RawFileHeader(const std::string& path) {
  const Bytes b = sfltest::FileBytes(path);
  EXPECT_GE(b.size(), SFL_FILE_HEADER_SIZE);
  return sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE>(b.data(), SFL_FILE_HEADER_SIZE));
}

void PutRaw(const std::string& path, uint64_t off, const Bytes& bytes) {
  FILE* f = std::fopen(path.c_str(), "r+b");
  ASSERT_NE(f, nullptr) << path;
  ASSERT_EQ(std::fseek(f, static_cast<long>(off), SEEK_SET), 0);
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
  std::fclose(f);
}

// Opens the file and closes it again: its final close in this process.
void OpenAndClose(const sfl_ItemRef& ref) {
  const int32_t bh = sfl_OpenSfl(&ref, 0);
  sfl_CloseFile(bh);
  sfltest::CloseColdFiles();
}

// Stores simple items until the container is full; returns how many fit.
int StoreUntilFull(const sfl_ItemRef& ref) {
  const int32_t bh = sfl_OpenSfl(&ref, 0);
  int stored = 0;
  for (;;) {
    sfl_ItemRef item{};
    const int32_t h = sfl_StoreBasicItem(bh, nullptr, 10, &item, 0);
    if (h < 0) break;
    ++stored;
    sfl_CloseItem(h);
  }
  sfl_CloseFile(bh);
  sfltest::CloseColdFiles();
  return stored;
}

TEST(RepairedSlots, AnItemTheRepairMarksDeletedGivesItsSlotBackAtTheFinalClose) {
  const sfl_ItemRef ref = ClosedContainerWith(2);
  const std::string path = sfltest::ItemPath(ref);
  // Item 1's data now starts past the end of the file.
  Bytes off(4);
  sfl_PutU32(off.data(), static_cast<uint32_t>(sfltest::FileBytes(path).size() + 4096));
  PutRaw(path, 128 + 64 + sfl_ih::FileOffset, off);

  EXPECT_EQ(sfl_CheckSflIntegrity(&ref, 1), 1);
  sfl_FileHeader fh = RawFileHeader(path);
  EXPECT_NE(fh.Flags & ITEM_PEND_DEL, 0u);
  EXPECT_EQ(fh.UsedItems, 2u);
  const Bytes slot = sfltest::FileBytes(path);
  EXPECT_NE(sfl_GetU32(slot.data() + 128 + 64 + sfl_ih::Flags) & DELETED, 0u);

  OpenAndClose(ref);
  fh = RawFileHeader(path);
  EXPECT_EQ(fh.UsedItems, 1u);
  EXPECT_EQ(fh.InUseItms & (1u << 1), 0u);
  EXPECT_EQ(fh.Flags & ITEM_PEND_DEL, 0u);
  const Bytes after = sfltest::FileBytes(path);
  EXPECT_TRUE(std::all_of(after.begin() + 128 + 64, after.begin() + 128 + 128,
                          [](uint8_t b) { return b == 0; }));
  // Slots 1 and 3 to 7 are free again: six more items fit, and the count
  // ends at the seven user slots there are.
  EXPECT_EQ(StoreUntilFull(ref), 6);
  EXPECT_EQ(RawFileHeader(path).UsedItems, 7u);
}

TEST(RepairedSlots, ACheckThatOnlyLooksMarksNothing) {
  const sfl_ItemRef ref = ClosedContainerWith(2);
  const std::string path = sfltest::ItemPath(ref);
  Bytes off(4);
  sfl_PutU32(off.data(), static_cast<uint32_t>(sfltest::FileBytes(path).size() + 4096));
  PutRaw(path, 128 + 64 + sfl_ih::FileOffset, off);
  const Bytes before = sfltest::FileBytes(path);
  EXPECT_EQ(sfl_CheckSflIntegrity(&ref, 0), 1);
  EXPECT_TRUE(sfltest::FileBytes(path) == before);
}

TEST(RepairedSlots, AnAllZeroSlotTheRepairFreesNoLongerCounts) {
  const sfl_ItemRef ref = ClosedContainerWith(2);
  const std::string path = sfltest::ItemPath(ref);
  PutRaw(path, 128 + 64, Bytes(64, 0));
  EXPECT_EQ(sfl_CheckSflIntegrity(&ref, 1), 1);
  const sfl_FileHeader fh = RawFileHeader(path);
  EXPECT_EQ(fh.InUseItms & (1u << 1), 0u);
  EXPECT_EQ(fh.UsedItems, 1u);
  EXPECT_EQ(StoreUntilFull(ref), 6);
  EXPECT_EQ(RawFileHeader(path).UsedItems, 7u);
}

}  // namespace
