// The copy routines of the whole-file rebuild used on their own: a blocked
// item copied out of one container's descriptor into another container, an
// item holding internal items copied with them, and the results for a tree
// whose top record is short, not an index record, or never used.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <vector>

#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int32_t kCopied = 255;
constexpr int32_t kIndexShort = 1;
constexpr int32_t kIndexType = 3;
constexpr uint32_t kIntSlotsStart = 256;  // where an item's internal headers begin

Bytes BlockData(uint32_t b) { return sfltest::PseudoRandomBytes(40 + b * 7, 29, b); }

Bytes ReadBlock(int32_t h, uint32_t b) {
  Bytes out(1024);
  out.resize(sfl_ReadBlockedData(h, b, static_cast<uint32_t>(out.size()), out.data()));
  return out;
}

class CopyOut : public ::testing::Test {
 protected:
  void SetUp() override {
    from_ = sfltest::NewContainer();
    to_ = sfltest::NewContainer();
    // The target holds a simple item whose bytes at 64 receive the copy's
    // header, so the copy can be opened as an internal item of it.
    sfl_ItemRef ref{};
    holder_ = sfl_StoreBasicItem(to_.bh, nullptr, 1024, &ref, 0);
    ASSERT_GE(holder_, SFL_ITEM_HANDLE_FIRST);
  }
  void TearDown() override {
    sfltest::EscapeOfThenClear([&] {
      sfl_CloseItem(holder_);
      sfl_CloseFile(to_.bh);
      sfl_CloseFile(from_.bh);
    });
  }
  uint32_t HolderAt(uint32_t pos) { return sfl_ItemHandle2Record(holder_)->Offset + pos; }
  int OldFd() { return sfl_Handle2Record(from_.bh)->FileDes; }

  sfltest::OpenContainer from_, to_;
  int32_t holder_ = -1;
};

TEST_F(CopyOut, ABlockedItemIsCopiedWithEveryBlock) {
  sfl_ItemRef ref{};
  const int32_t b = sfl_CreateBlockedItem(from_.bh, &ref);
  sfl_FormatBlockedRoot(b);
  // Blocks 0 to 39: a tree of two levels, with block 5 never written.
  for (uint32_t n = 0; n < 40; ++n) {
    if (n == 5) continue;
    const Bytes d = BlockData(n);
    ASSERT_EQ(sfl_WriteBlockedData(b, n, static_cast<uint32_t>(d.size()), d.data()),
              static_cast<int32_t>(d.size()));
  }
  sfl_ItemHeader h{};
  sfl_GetExtItemHeader(sfl_ItemHandle2Record(b), &h);
  ASSERT_EQ(h.IndexDepth, 1u);
  EXPECT_EQ(sfl_CopyOutBlockedItem(to_.bh, HolderAt(64), OldFd(), h.FileOffset, h.FileSize),
            kCopied);
  const int32_t copy = sfl_OpenIntItem(holder_, 0, 64);
  for (uint32_t n = 0; n < 40; ++n) {
    if (n == 5) continue;
    EXPECT_EQ(ReadBlock(copy, n), BlockData(n)) << "block " << n;
  }
  EXPECT_EQ(sfltest::ReasonOf([&] { ReadBlock(copy, 5); }), SFL_R_EMPTY_ENTRY);
  sfl_CloseIntItem(copy);
  sfl_CloseItem(b);
}

TEST_F(CopyOut, ATopRecordThatIsShortOrNotAnIndexIsReported) {
  struct stat st {};
  ASSERT_EQ(fstat(OldFd(), &st), 0);
  // Past the end of the old file.
  EXPECT_EQ(sfl_CopyOutBlockedItem(to_.bh, HolderAt(64), OldFd(),
                                   static_cast<uint32_t>(st.st_size), 384),
            kIndexShort);
  // The file header: the right magic, the wrong type.
  EXPECT_EQ(sfl_CopyOutBlockedItem(to_.bh, HolderAt(128), OldFd(), 0, 384), kIndexType);
  // A root still all zeros: an empty item.
  sfl_ItemRef ref{};
  const int32_t b = sfl_CreateBlockedItem(from_.bh, &ref);
  const uint32_t root = sfl_ItemHandle2Record(b)->Offset;
  EXPECT_EQ(sfl_CopyOutBlockedItem(to_.bh, HolderAt(192), OldFd(), root, 384), kCopied);
  const int32_t copy = sfl_OpenIntItem(holder_, 0, 192);
  EXPECT_EQ(sfl_ListBlocks(copy, 0, 100, nullptr, 0), 0u);
  sfl_CloseIntItem(copy);
  sfl_CloseItem(b);
}

TEST_F(CopyOut, AnItemHoldingInternalItemsIsCopiedWithThem) {
  sfl_ItemRef ref{};
  const int32_t parent = sfl_StoreBasicItem(from_.bh, nullptr, 1024, &ref, 0);
  const Bytes text = sfltest::PseudoRandomBytes(200, 31, 0);
  ASSERT_EQ(sfl_WriteSimpleData(parent, 0, 200, text.data()), 200);
  const int32_t inner = sfl_CreateIntBItem(parent, 0, kIntSlotsStart + 64, 0);
  for (uint32_t n = 0; n < 3; ++n) {
    const Bytes d = BlockData(n);
    sfl_WriteBlockedData(inner, n, static_cast<uint32_t>(d.size()), d.data());
  }
  sfl_CloseIntItem(inner);
  const sfl_ItemRec* p = sfl_ItemHandle2Record(parent);
  EXPECT_EQ(sfl_CopyOutInternalContainer(to_.bh, HolderAt(64), OldFd(), p->Offset, p->Size), 1);

  // The copy: a simple item whose header lies in the holder's bytes, with
  // its own bytes and its internal item copied.
  const int32_t copy = sfl_OpenIntItem(holder_, 0, 64);
  Bytes back(200);
  ASSERT_EQ(sfl_ReadSimpleData(copy, 0, 200, back.data()), 200);
  EXPECT_EQ(back, text);
  const int32_t innerCopy = sfl_OpenIntItem(copy, 0, kIntSlotsStart + 64);
  for (uint32_t n = 0; n < 3; ++n) EXPECT_EQ(ReadBlock(innerCopy, n), BlockData(n));
  sfl_CloseIntItem(innerCopy);
  sfl_CloseIntItem(copy);
  sfl_CloseItem(parent);
}

}  // namespace

namespace {

constexpr int32_t kEmptySlot = 9;
constexpr int32_t kHeaderShort = 6;

// One item by its old header: a simple item, an empty slot, a header past
// the end of the old file, and one whose size passes its reservation.
TEST_F(CopyOut, AnItemIsCopiedByItsOldHeader) {
  sfl_ItemRef ref{};
  const int32_t s = sfl_StoreBasicItem(from_.bh, nullptr, 300, &ref, 0);
  const Bytes text = sfltest::PseudoRandomBytes(300, 37, 0);
  ASSERT_EQ(sfl_WriteSimpleData(s, 0, 300, text.data()), 300);
  const uint32_t oldHeader = sfl_ItemHandle2Record(s)->HeaderOff;
  EXPECT_EQ(sfl_CopyOutItem(to_.bh, HolderAt(64), OldFd(), oldHeader), kCopied);
  const int32_t copy = sfl_OpenIntItem(holder_, 0, 64);
  Bytes back(300);
  ASSERT_EQ(sfl_ReadSimpleData(copy, 0, 300, back.data()), 300);
  EXPECT_EQ(back, text);
  sfl_CloseIntItem(copy);

  const uint32_t emptySlot = oldHeader + 3 * SFL_ITEM_HEADER_SIZE;
  EXPECT_EQ(sfl_CopyOutItem(to_.bh, HolderAt(128), OldFd(), emptySlot), kEmptySlot);
  struct stat st {};
  ASSERT_EQ(fstat(OldFd(), &st), 0);
  EXPECT_EQ(sfl_CopyOutItem(to_.bh, HolderAt(128), OldFd(), static_cast<uint32_t>(st.st_size)),
            kHeaderShort);
  sfltest::EditHeader(s, [](sfl_ItemHeader& h) { h.FileSize = h.UsedBlocks * SFL_BLOCK_SIZE + 1; });
  EXPECT_EQ(sfl_CopyOutItem(to_.bh, HolderAt(128), OldFd(), oldHeader), kHeaderShort);
  sfl_CloseItem(s);
}

// The index routines on their own: a whole record, and one entry of it
// (an entry number past the record's 32 is not an index entry).
TEST_F(CopyOut, IndexRecordsAreCopiedOneAtATime) {
  sfl_ItemRef ref{};
  const int32_t b = sfl_CreateBlockedItem(from_.bh, &ref);
  sfl_FormatBlockedRoot(b);
  for (uint32_t n = 0; n < 3; ++n) {
    const Bytes d = BlockData(n);
    sfl_WriteBlockedData(b, n, static_cast<uint32_t>(d.size()), d.data());
  }
  sfl_ItemHeader h{};
  sfl_GetExtItemHeader(sfl_ItemHandle2Record(b), &h);
  sfl_IndexRecord root;
  sfl_ReadAnIndex(sfl_ItemHandle2Record(b), h.FileOffset, &root);

  const int32_t target = sfl_CreateIntBItem(holder_, 0, 64, 0);
  EXPECT_EQ(sfl_CopyOutIndexChild(target, OldFd(), root, SFL_INDEX_ENTRIES), kIndexType);
  EXPECT_EQ(sfl_CopyOutIndex(target, OldFd(), root), kCopied);
  sfl_CloseIntItem(target);
  // One entry alone: block 1 only.
  const int32_t single = sfl_CreateIntBItem(holder_, 0, 128, 0);
  EXPECT_EQ(sfl_CopyOutIndexChild(single, OldFd(), root, 1), kCopied);
  EXPECT_EQ(ReadBlock(single, 1), BlockData(1));
  EXPECT_EQ(sfltest::ReasonOf([&] { ReadBlock(single, 0); }), SFL_R_EMPTY_ENTRY);
  sfl_CloseIntItem(single);
  // The copied entries point at new copies of the blocks.
  const int32_t copy = sfl_OpenIntItem(holder_, 0, 64);
  for (uint32_t n = 0; n < 3; ++n) EXPECT_EQ(ReadBlock(copy, n), BlockData(n)) << "block " << n;
  sfl_CloseIntItem(copy);
  sfl_CloseItem(b);
}

}  // namespace
