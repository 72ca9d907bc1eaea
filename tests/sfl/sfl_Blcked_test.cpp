// Blocked items: creating them, placing blocks in append and first-free
// mode, growing the tree by levels and branches, the full marks of
// subtrees, freeing, finding the leaf of a block (with its odd descent),
// reading and writing block contents, frozen handles, readers in other
// processes, and releasing whole trees when items are deleted.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

using sfltest::EscapeCodeOf;

constexpr long Sfl(int reason) { return sfltest::EscapeCode(ER_GROUP_SFL, reason); }

// Distinct contents for each block and version.
Bytes Pattern(uint32_t block, uint32_t version, uint32_t len) {
  Bytes b(len);
  for (uint32_t i = 0; i < len; ++i) b[i] = static_cast<uint8_t>(block * 7 + version * 31 + i * 13 + 1);
  return b;
}

class Blocked : public sfltest::ParentItemTest {
 protected:
  // A new internal blocked item whose header lies at `position` of the
  // parent; its tree starts as one empty leaf.
  int32_t NewItem(uint32_t position = 0) { return sfl_CreateIntBItem(parent_, 0, position, 0); }

  Bytes RawUpTo(uint64_t off, size_t len) { return sfltest::ReadUpTo(fd_, off, len); }
  sfl_IndexRecord Index(uint32_t off) {
    Bytes b = Raw(off, SFL_INDEX_SIZE);
    return sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE>(b.data(), SFL_INDEX_SIZE));
  }
  void PutIndex(uint32_t off, const sfl_IndexRecord& r) {
    sfl_IndexBytes b;
    sfl_EncodeIndex(r, b);
    ASSERT_EQ(::pwrite(fd_, b.data(), b.size(), off), static_cast<ssize_t>(b.size()));
  }
  sfl_ItemHeader HeaderOf(int32_t h) { return Header(Rec(h)->HeaderOff); }
  sfl_IndexRecord RootOf(int32_t h) { return Index(HeaderOf(h).FileOffset); }

  // Places `n` blocks of `len` bytes; returns their numbers.
  std::vector<int32_t> Place(int32_t h, uint32_t n, int mode, uint32_t len = 40) {
    std::vector<int32_t> got;
    for (uint32_t i = 0; i < n; ++i) {
      Bytes d = Pattern(i, 0, len);
      got.push_back(sfl_GetNewBlock(h, static_cast<int32_t>(len), mode, d.data()));
    }
    return got;
  }

  Bytes Read(int32_t h, uint32_t block, uint32_t len) {
    Bytes b(len);
    b.resize(sfl_ReadBlockedData(h, block, len, b.data()));
    return b;
  }
};

// ---- powers ------------------------------------------------------------------------

TEST(BlockedPower, RepeatedMultiplicationInThirtyTwoBits) {
  EXPECT_EQ(sfl_IntPower(7, 0), 1);
  EXPECT_EQ(sfl_IntPower(32, 1), 32);
  EXPECT_EQ(sfl_IntPower(32, 2), 1024);
  EXPECT_EQ(sfl_IntPower(32, 6), 1 << 30);
  EXPECT_EQ(sfl_IntPower(2, 31), INT32_MIN);
  EXPECT_EQ(sfl_IntPower(32, 7), 0);  // no overflow check: 2^35 wraps to 0
}

// ---- creating a blocked item -----------------------------------------------------------

TEST_F(Blocked, CreatedItemHasZeroRootAndFailsTheIndexCheck) {
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(base_, &ref);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  const uint32_t slot = ref.Flags & SFL_ITEM_NUM_MASK;
  EXPECT_EQ(slot, 2u);  // slot 1 holds the parent item
  EXPECT_EQ(ref.FileId, fileRef_.FileId);
  EXPECT_EQ(ref.Flags & ~SFL_ITEM_NUM_MASK, fileRef_.Flags & ~SFL_ITEM_NUM_MASK);

  sfl_ItemRec* item = Rec(h);
  EXPECT_EQ(item->ItemNum, slot);
  EXPECT_EQ(item->HeaderOff, SFL_TABLE_OFFSET + slot * SFL_ITEM_HEADER_SIZE);
  EXPECT_EQ(item->Size, 32u);
  EXPECT_EQ(item->Flags, static_cast<uint32_t>(BLOCKED_ITEM));
  EXPECT_EQ(item->LastIdxOff, item->Offset);

  const sfl_ItemHeader hd = HeaderOf(h);
  EXPECT_EQ(hd.Magic, SFL_MAGIC);
  EXPECT_EQ(hd.AccCount, 0u);
  EXPECT_EQ(hd.FileSize, 32u);
  EXPECT_EQ(hd.UsedBlocks, 3u);
  EXPECT_EQ(hd.IndexDepth, 0u);
  EXPECT_EQ(hd.Flags, static_cast<uint32_t>(BLOCKED_ITEM));
  EXPECT_EQ(hd.FileOffset, item->Offset);
  EXPECT_EQ(Raw(hd.FileOffset, SFL_INDEX_SIZE), Bytes(SFL_INDEX_SIZE, 0));

  // The root carries no magic or type, so the first index read refuses it.
  uint8_t d[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(EscapeCodeOf([&] { sfl_GetNewBlock(h, 8, 1, d); }), Sfl(SFL_R_BAD_INDEX));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_GetNewBlock(h, 8, 0, d); }), Sfl(SFL_R_BAD_INDEX));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_WriteBlockedData(h, 0, 8, d); }), Sfl(SFL_R_BAD_INDEX));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h, 0, 8, d); }), Sfl(SFL_R_BAD_INDEX));
  EXPECT_TRUE(LockableElsewhere(item->HeaderOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseItem(h);
}

TEST_F(Blocked, FormattingAZeroRootMakesTheItemUsableOnce) {
  const int32_t h = sfl_CreateBlockedItem(base_, nullptr);
  const uint32_t root = Rec(h)->Offset;
  EXPECT_EQ(sfl_FormatBlockedRoot(h), 1);
  const sfl_IndexRecord leaf = Index(root);
  EXPECT_EQ(leaf.Magic, SFL_MAGIC);
  EXPECT_EQ(leaf.Type, SFL_TYPE_INDEX);
  EXPECT_EQ(leaf.Depth, 0u);
  EXPECT_EQ(leaf.Used, 0u);
  EXPECT_EQ(leaf.ParentOff, Rec(h)->HeaderOff);

  uint8_t d[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(sfl_GetNewBlock(h, 8, 1, d), 0);
  // A root that already is an index record is left alone.
  const Bytes after = Raw(root, SFL_INDEX_SIZE);
  EXPECT_EQ(sfl_FormatBlockedRoot(h), 0);
  EXPECT_EQ(Raw(root, SFL_INDEX_SIZE), after);
  uint8_t back[8] = {};
  EXPECT_EQ(sfl_ReadBlockedData(h, 0, 8, back), 8u);
  EXPECT_EQ(std::memcmp(back, d, 8), 0);
  // Simple items have no root to format.
  EXPECT_EQ(EscapeCodeOf([&] { sfl_FormatBlockedRoot(parent_); }), Sfl(SFL_R_NOT_BLOCKED));
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseItem(h);
}

TEST_F(Blocked, NoFreeSlotRaises28850AndTakesNoSpace) {
  for (int i = 0; i < 6; ++i) ASSERT_GE(sfl_CreateBlockedItem(base_, nullptr), SFL_ITEM_HANDLE_FIRST);
  const Bytes before = Map();
  sfl_ItemRef ref{};
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CreateBlockedItem(base_, &ref); }), Sfl(SFL_R_NO_BLOCKED_SLOT));
  EXPECT_EQ(Map(), before);
}

// ---- placing blocks ------------------------------------------------------------------------

TEST_F(Blocked, ThirtyThirdFirstFreeBlockInsertsALevel) {
  const int32_t h = NewItem();
  const uint32_t oldRoot = HeaderOf(h).FileOffset;
  std::vector<int32_t> got = Place(h, 32, 0);
  for (int32_t i = 0; i < 32; ++i) ASSERT_EQ(got[static_cast<size_t>(i)], i);
  EXPECT_EQ(HeaderOf(h).IndexDepth, 0u);

  Bytes d = Pattern(32, 0, 50);
  EXPECT_EQ(sfl_GetNewBlock(h, 50, 0, d.data()), 32);
  const sfl_ItemHeader hd = HeaderOf(h);
  EXPECT_EQ(hd.IndexDepth, 1u);
  EXPECT_NE(hd.FileOffset, oldRoot);
  const sfl_IndexRecord root = Index(hd.FileOffset);
  EXPECT_EQ(root.Depth, 1u);
  EXPECT_EQ(root.FreeMap & 1u, 1u);  // the old root is full
  EXPECT_EQ(root.Used, 2u);
  EXPECT_EQ(root.EverUsed, 2u);
  EXPECT_EQ(root.ParentOff, Rec(h)->HeaderOff);
  EXPECT_EQ(root.Entries[0].SectionOffSet, oldRoot);
  EXPECT_EQ(Index(oldRoot).ParentOff, hd.FileOffset);
  const sfl_IndexRecord leaf = Index(root.Entries[1].SectionOffSet);
  EXPECT_EQ(leaf.Depth, 0u);
  EXPECT_EQ(leaf.BaseBlockNum, 32u);
  EXPECT_EQ(leaf.ParentOff, hd.FileOffset);
  EXPECT_EQ(leaf.Used, 1u);
  EXPECT_EQ(leaf.Entries[0].SectionSize, 50u);
  EXPECT_EQ(Read(h, 32, 50), d);
  EXPECT_EQ(Read(h, 7, 40), Pattern(7, 0, 40));
}

TEST_F(Blocked, AppendNeverReusesFreedEntriesFirstFreeTakesTheLowest) {
  const int32_t h = NewItem();
  Place(h, 5, 1);
  sfl_FreeBlock(h, 1, 0);
  sfl_FreeBlock(h, 3, 0);
  Bytes d = Pattern(9, 9, 20);
  EXPECT_EQ(sfl_GetNewBlock(h, 20, 1, d.data()), 5);
  EXPECT_EQ(sfl_GetNewBlock(h, 20, 0, d.data()), 1);
  EXPECT_EQ(sfl_GetNewBlock(h, 20, 0, d.data()), 3);
  EXPECT_EQ(sfl_GetNewBlock(h, 20, 0, d.data()), 6);

  // A leaf whose last entry was ever used takes no appends, even with a hole.
  Place(h, 25, 1);  // blocks 7..31
  sfl_FreeBlock(h, 10, 0);
  EXPECT_EQ(sfl_GetNewBlock(h, 20, 1, d.data()), 32);
  EXPECT_EQ(sfl_GetNewBlock(h, 20, 0, d.data()), 10);
}

TEST_F(Blocked, FirstFreeThroughTheTreeTakesTheLowestFreeEntry) {
  const int32_t h = NewItem();
  Place(h, 40, 0);
  sfl_FreeBlock(h, 35, 0);
  sfl_FreeBlock(h, 3, 0);
  // A fresh handle has no last leaf: the search starts at the root.
  const int32_t h2 = sfl_OpenIntItem(parent_, 0, 0);
  ASSERT_EQ(Rec(h2)->LastIdxOff, 0u);
  Bytes d = Pattern(3, 1, 10);
  EXPECT_EQ(sfl_GetNewBlock(h2, 10, 0, d.data()), 3);
  EXPECT_EQ(Read(h2, 3, 10), d);
  sfl_CloseIntItem(h2);
}

TEST_F(Blocked, FreeingInAFullLeafClearsEveryFullMarkOnItsPath) {
  const int32_t h = NewItem();
  std::vector<int32_t> got = Place(h, 1025, 1, 1);
  ASSERT_EQ(got.back(), 1024);
  sfl_ItemHeader hd = HeaderOf(h);
  ASSERT_EQ(hd.IndexDepth, 2u);
  sfl_IndexRecord root = Index(hd.FileOffset);
  const uint32_t mid = root.Entries[0].SectionOffSet;
  ASSERT_EQ(root.FreeMap & 1u, 1u);
  ASSERT_EQ(Index(mid).FreeMap, 0xFFFFFFFFu);

  sfl_FreeBlock(h, 5, 0);
  EXPECT_EQ(Index(hd.FileOffset).FreeMap & 1u, 0u);
  EXPECT_EQ(Index(mid).FreeMap, 0xFFFFFFFEu);  // only the path to leaf 0
  const sfl_IndexRecord leaf0 = Index(Index(mid).Entries[0].SectionOffSet);
  EXPECT_EQ(leaf0.Used, 31u);
  EXPECT_EQ(leaf0.EverUsed, 32u);

  // Freeing again in the now not-full leaf changes no mark.
  sfl_FreeBlock(h, 6, 0);
  EXPECT_EQ(Index(mid).FreeMap, 0xFFFFFFFEu);
  // The cleared marks steer first-free placement back to the hole.
  Bytes d = Pattern(5, 2, 1);
  EXPECT_EQ(sfl_GetNewBlock(h, 1, 0, d.data()), 5);
}

TEST_F(Blocked, CachedLeafThatClaimsRoomButHasNoneIsCorrectedAndLogged) {
  const int32_t h = NewItem();
  Place(h, 32, 0);
  const uint32_t leafOff = Rec(h)->LastIdxOff;
  ASSERT_EQ(leafOff, HeaderOf(h).FileOffset);
  sfl_IndexRecord leaf = Index(leafOff);
  ASSERT_EQ(leaf.Used, 32u);
  leaf.Used = 30;  // damage: room claimed, none there
  PutIndex(leafOff, leaf);

  std::vector<sfltest::LogEntry> logged;
  Bytes d = Pattern(1, 1, 10);
  int32_t b;
  {
    sfltest::LogCapture capture;
    b = sfl_GetNewBlock(h, 10, 0, d.data());
    logged = capture.Entries();
  }
  EXPECT_EQ(b, 32);
  bool seen = false;
  for (const sfltest::LogEntry& l : logged)
    if (l.reason == SFL_R_CACHED_LEAF_FULL && l.group == ER_GROUP_SFL && l.level == 5) seen = true;
  EXPECT_TRUE(seen);
  EXPECT_EQ(Index(leafOff).Used, 32u);
}

TEST_F(Blocked, LevelAboveARootOfDepthSixRaises28899) {
  const int32_t h = NewItem();
  const uint32_t far = 1u << 30;  // first block past a depth-5 root
  Bytes d = Pattern(far, 0, 30);
  EXPECT_EQ(sfl_WriteBlockedData(h, far, 30, d.data()), 30);
  sfl_ItemHeader hd = HeaderOf(h);
  ASSERT_EQ(hd.IndexDepth, 6u);
  EXPECT_EQ(Read(h, far, 30), d);
  const int32_t h2 = sfl_OpenIntItem(parent_, 0, 0);
  EXPECT_EQ(Read(h2, far, 30), d);

  // Mark every subtree of the root full: the next first-free placement
  // from the root needs a seventh level.
  sfl_IndexRecord root = Index(hd.FileOffset);
  root.FreeMap = 0xFFFFFFFFu;
  PutIndex(hd.FileOffset, root);
  const int32_t h3 = sfl_OpenIntItem(parent_, 0, 0);  // no last leaf: search from the root
  EXPECT_EQ(EscapeCodeOf([&] { sfl_GetNewBlock(h3, 10, 0, d.data()); }), Sfl(SFL_R_TOO_DEEP));
  EXPECT_EQ(HeaderOf(h).IndexDepth, 6u);
  EXPECT_EQ(HeaderOf(h).FileOffset, hd.FileOffset);
  EXPECT_TRUE(LockableElsewhere(Rec(h3)->HeaderOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseIntItem(h3);
  sfl_CloseIntItem(h2);
}

TEST_F(Blocked, PlacementRefusals) {
  uint8_t d[4] = {0};
  EXPECT_EQ(EscapeCodeOf([&] { sfl_GetNewBlock(parent_, 4, 1, d); }), Sfl(SFL_R_NOT_BLOCKED));
  const int32_t h = NewItem();
  // Block data that cannot be written whole.
  os_ShortNth(os_Op::Pwrite, 2, 3);  // the first write is the map's, the second the data
  EXPECT_EQ(EscapeCodeOf([&] { sfl_GetNewBlock(h, 4, 1, d); }), Sfl(SFL_R_SHORT_WRITE));
  os_ClearFaults();
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
}

TEST_F(Blocked, ABlockOfNoBytesGetsANumberButNoSpace) {
  const int32_t h = NewItem();
  Place(h, 2, 1);
  const Bytes map = Map();
  EXPECT_EQ(sfl_GetNewBlock(h, 0, 1, nullptr), 2);
  EXPECT_EQ(Map(), map);
  const sfl_IndexRecord root = RootOf(h);
  EXPECT_EQ(root.EverUsed, 3u);
  EXPECT_EQ(root.Entries[2].SectionOffSet, 0u);
  EXPECT_EQ(root.Entries[2].SectionSize, 0u);
}

// ---- freeing and finding ---------------------------------------------------------------------

TEST_F(Blocked, FreeRefusals) {
  const int32_t h = NewItem();
  Place(h, 3, 1);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_FreeBlock(h, 40, 0); }), Sfl(SFL_R_LEAF_INDEX));
  Place(h, 40, 1);  // depth 1, two children
  EXPECT_EQ(EscapeCodeOf([&] { sfl_FreeBlock(h, 100, 0); }), Sfl(SFL_R_BAD_SLOT));
  // Freeing an empty entry rewrites it and changes nothing else.
  sfl_FreeBlock(h, 2, 0);
  const Bytes map = Map();
  sfl_FreeBlock(h, 2, 0);
  EXPECT_EQ(Map(), map);
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
}

TEST_F(Blocked, FreeingGivesTheBlockSpaceBack) {
  const int32_t h = NewItem();
  Place(h, 3, 1, 300);
  sfl_IndexRecord root = RootOf(h);
  const uint32_t off = root.Entries[1].SectionOffSet;
  auto marked = [&](uint32_t unit) { Bytes m = Map(); return ((m[unit / 8] >> (unit % 8)) & 1) != 0; };
  for (uint32_t u = off / 128; u < off / 128 + 3; ++u) ASSERT_TRUE(marked(u));
  sfl_FreeBlock(h, 1, 0);
  for (uint32_t u = off / 128; u < off / 128 + 3; ++u) EXPECT_FALSE(marked(u));
  root = RootOf(h);
  EXPECT_EQ(root.Used, 2u);
  EXPECT_EQ(root.EverUsed, 3u);
  EXPECT_EQ(root.Entries[1].SectionOffSet, 0u);
  EXPECT_EQ(root.Entries[1].SectionSize, 0u);
}

TEST_F(Blocked, FindBlockFromTheRootDividesByAWholeRecordsRange) {
  const int32_t h = NewItem();
  Place(h, 40, 0);
  const int32_t h2 = sfl_OpenIntItem(parent_, 0, 0);
  sfl_IndexRecord out;
  // Block 39 lies in the root's entry 1, but the descent divides by 1,024
  // and lands in entry 0's leaf, where 39 is out of range.
  EXPECT_EQ(EscapeCodeOf([&] { sfl_FindBlock(Rec(h2), 39, &out); }), Sfl(SFL_R_LEAF_INDEX));
  // Through the leaf touched last the same block is found.
  ASSERT_EQ(Read(h2, 39, 40), Pattern(39, 0, 40));
  EXPECT_EQ(sfl_FindBlock(Rec(h2), 39, &out), 7u);
  EXPECT_EQ(out.BaseBlockNum, 32u);
  EXPECT_EQ(out.Depth, 0u);
  EXPECT_EQ(out.Entries[7].SectionSize, 40u);
  EXPECT_TRUE(LockableElsewhere(Rec(h2)->HeaderOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseIntItem(h2);
}

TEST_F(Blocked, FindBlockFromTheRootAnswersWithTheBlocksDataOffset) {
  const int32_t h = NewItem();
  // Block 0's data happens to look like an index record.
  sfl_IndexRecord fake = sfl_NewIndexRecord();
  fake.BaseBlockNum = 777;
  sfl_IndexBytes fakeBytes;
  sfl_EncodeIndex(fake, fakeBytes);
  ASSERT_EQ(sfl_GetNewBlock(h, SFL_INDEX_SIZE, 0, fakeBytes.data()), 0);
  Place(h, 32, 0);  // blocks 1..32: the root now has depth 1

  const int32_t h2 = sfl_OpenIntItem(parent_, 0, 0);
  sfl_IndexRecord out;
  EXPECT_EQ(sfl_FindBlock(Rec(h2), 5, &out), 5u);
  EXPECT_EQ(out.BaseBlockNum, 777u);  // block 0's bytes, not the leaf

  // With ordinary data there, the record read is refused.
  Bytes plain(SFL_INDEX_SIZE, 0x5A);
  ASSERT_EQ(sfl_WriteBlockedData(h, 0, SFL_INDEX_SIZE, plain.data()),
            static_cast<int32_t>(SFL_INDEX_SIZE));
  const int32_t h3 = sfl_OpenIntItem(parent_, 0, 0);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_FindBlock(Rec(h3), 5, &out); }), Sfl(SFL_R_BAD_INDEX));
  sfl_CloseIntItem(h3);
  sfl_CloseIntItem(h2);
}

TEST_F(Blocked, FindBlockInASingleLeafTree) {
  const int32_t h = NewItem();
  Place(h, 3, 1);
  const int32_t h2 = sfl_OpenIntItem(parent_, 0, 0);
  sfl_IndexRecord out;
  EXPECT_EQ(sfl_FindBlock(Rec(h2), 2, &out), 2u);
  EXPECT_EQ(out.Used, 3u);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_FindBlock(Rec(h2), 32, &out); }), Sfl(SFL_R_BAD_SLOT));
  // A root with no place at all (seen by a handle that has no last leaf).
  const int32_t h3 = sfl_OpenIntItem(parent_, 0, 0);
  sfl_ItemHeader hd = HeaderOf(h2);
  hd.FileOffset = 0;
  sfl_WriteInternalItemH(Rec(h2), Rec(h2)->HeaderOff, hd);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_FindBlock(Rec(h3), 1, &out); }), Sfl(SFL_R_EMPTY_ENTRY));
  sfl_CloseIntItem(h3);
  sfl_CloseIntItem(h2);
}

// ---- block contents ------------------------------------------------------------------------------

TEST_F(Blocked, WritingBlock40OfAFreshTreeAddsOneLevelAndABlockOfTheWrittenLength) {
  const int32_t h = NewItem();
  const uint32_t oldRoot = HeaderOf(h).FileOffset;
  Bytes d = Pattern(40, 0, 77);
  EXPECT_EQ(sfl_WriteBlockedData(h, 40, 77, d.data()), 77);
  const sfl_ItemHeader hd = HeaderOf(h);
  EXPECT_EQ(hd.IndexDepth, 1u);
  const sfl_IndexRecord root = Index(hd.FileOffset);
  EXPECT_EQ(root.Depth, 1u);
  EXPECT_EQ(root.FreeMap, 0u);  // the old root was empty, not full
  EXPECT_EQ(root.Entries[0].SectionOffSet, oldRoot);
  ASSERT_NE(root.Entries[1].SectionOffSet, 0u);
  const sfl_IndexRecord leaf = Index(root.Entries[1].SectionOffSet);
  EXPECT_EQ(leaf.BaseBlockNum, 32u);
  EXPECT_EQ(leaf.Used, 1u);
  EXPECT_EQ(leaf.EverUsed, 9u);
  EXPECT_EQ(leaf.Entries[8].SectionSize, 77u);
  EXPECT_EQ(Read(h, 40, 200), d);
}

TEST_F(Blocked, WritingFarBlocksCreatesBranchesOnTheWay) {
  const int32_t h = NewItem();
  Bytes d = Pattern(5000, 0, 10);
  EXPECT_EQ(sfl_WriteBlockedData(h, 5000, 10, d.data()), 10);
  sfl_ItemHeader hd = HeaderOf(h);
  EXPECT_EQ(hd.IndexDepth, 2u);  // 5,000 needs a root covering 32,768 blocks
  const sfl_IndexRecord root = Index(hd.FileOffset);
  // 5000 = 4 x 1024 + 28 x 32 + 8: a new branch in the root's entry 4.
  ASSERT_NE(root.Entries[4].SectionOffSet, 0u);
  EXPECT_EQ(root.EverUsed, 5u);
  const sfl_IndexRecord mid = Index(root.Entries[4].SectionOffSet);
  EXPECT_EQ(mid.Depth, 1u);
  EXPECT_EQ(mid.BaseBlockNum, 4096u);
  EXPECT_EQ(mid.ParentOff, hd.FileOffset);
  const sfl_IndexRecord leaf = Index(mid.Entries[28].SectionOffSet);
  EXPECT_EQ(leaf.BaseBlockNum, 4096u + 28 * 32);
  EXPECT_EQ(leaf.Entries[8].SectionSize, 10u);
  const int32_t h2 = sfl_OpenIntItem(parent_, 0, 0);
  EXPECT_EQ(Read(h2, 5000, 10), d);
  uint8_t b[4];
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h2, 5100, 4, b); }), Sfl(SFL_R_EMPTY_ENTRY));
  sfl_CloseIntItem(h2);
}

TEST_F(Blocked, ALongerRewriteWritesOnlyTheRecordedLength) {
  const int32_t h = NewItem();
  Bytes first = Pattern(0, 0, 100);
  ASSERT_EQ(sfl_WriteBlockedData(h, 0, 100, first.data()), 100);
  const uint32_t off = RootOf(h).Entries[0].SectionOffSet;
  const Bytes tail = RawUpTo(off + 100, 28);  // the rest of the block's unit (if in the file)

  Bytes longer = Pattern(0, 1, 300);
  EXPECT_EQ(sfl_WriteBlockedData(h, 0, 300, longer.data()), 100);
  EXPECT_EQ(RootOf(h).Entries[0].SectionSize, 100u);
  EXPECT_EQ(RawUpTo(off + 100, 28), tail);
  EXPECT_EQ(Read(h, 0, 300), Bytes(longer.begin(), longer.begin() + 100));

  // A shorter write changes a prefix only.
  Bytes shorter = Pattern(0, 2, 10);
  EXPECT_EQ(sfl_WriteBlockedData(h, 0, 10, shorter.data()), 10);
  Bytes want(longer.begin(), longer.begin() + 100);
  std::copy(shorter.begin(), shorter.end(), want.begin());
  EXPECT_EQ(Read(h, 0, 100), want);
  // A shorter read gives a prefix.
  EXPECT_EQ(Read(h, 0, 7), Bytes(want.begin(), want.begin() + 7));
}

TEST_F(Blocked, ReadingABlockNeverWritten) {
  const int32_t h = NewItem();
  Bytes d = Pattern(0, 0, 8);
  sfl_WriteBlockedData(h, 0, 8, d.data());
  sfl_WriteBlockedData(h, 5, 8, d.data());
  ASSERT_EQ(RootOf(h).EverUsed, 6u);
  uint8_t b[8];
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h, 3, 8, b); }), Sfl(SFL_R_EMPTY_ENTRY));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h, 6, 8, b); }), Sfl(SFL_R_BAD_SLOT));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h, 31, 8, b); }), Sfl(SFL_R_BAD_SLOT));
  // From the root, beyond the tree's range.
  const int32_t h2 = sfl_OpenIntItem(parent_, 0, 0);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h2, 32, 8, b); }), Sfl(SFL_R_BAD_SLOT));
  EXPECT_TRUE(LockableElsewhere(Rec(h2)->HeaderOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseIntItem(h2);
}

TEST_F(Blocked, AnEmptyWriteTakesNoSpaceAndLeavesTheEntryEmpty) {
  const int32_t h = NewItem();
  const Bytes map = Map();
  EXPECT_EQ(sfl_WriteBlockedData(h, 4, 0, nullptr), 0);
  EXPECT_EQ(Map(), map);
  const sfl_IndexRecord root = RootOf(h);
  EXPECT_EQ(root.Used, 0u);
  EXPECT_EQ(root.EverUsed, 5u);
  uint8_t b[4];
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h, 4, 4, b); }), Sfl(SFL_R_EMPTY_ENTRY));
}

TEST_F(Blocked, ShortBlockTransfersRaiseAndReleaseTheHeaderLock) {
  const int32_t h = NewItem();
  Bytes d = Pattern(0, 0, 64);
  ASSERT_EQ(sfl_WriteBlockedData(h, 0, 64, d.data()), 64);
  // Rewriting an existing block through the cached leaf: the item header
  // and one index read, then the data write.
  os_ShortNth(os_Op::Pwrite, 1, 10);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_WriteBlockedData(h, 0, 64, d.data()); }), Sfl(SFL_R_SHORT_BLOCK_WRITE));
  os_ClearFaults();
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
  // Reading: the item header, the leaf, then the data.
  uint8_t b[64];
  os_ShortNth(os_Op::Pread, 3, 10);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ReadBlockedData(h, 0, 64, b); }), Sfl(SFL_R_SHORT_READ));
  os_ClearFaults();
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
}

TEST_F(Blocked, WritesThroughTheLastLeafStopOneBlockShortOfItsRange) {
  const int32_t h = NewItem();
  Place(h, 64, 0);  // leaves for 0..31 and 32..63 under a depth-1 root
  Bytes d = Pattern(1, 1, 40);
  ASSERT_EQ(sfl_WriteBlockedData(h, 40, 40, d.data()), 40);
  ASSERT_EQ(Rec(h)->LastIdxBase, 32u);
  ASSERT_EQ(Rec(h)->LastIdxDepth, 0u);
  // Block 62: the item header (is the tree still the one the handle knew?)
  // and the leaf alone.
  uint64_t before = os_CallCount(os_Op::Pread);
  ASSERT_EQ(sfl_WriteBlockedData(h, 62, 40, d.data()), 40);
  EXPECT_EQ(os_CallCount(os_Op::Pread) - before, 2u);
  // Block 63, the last of the leaf's range: item header, root, leaf.
  before = os_CallCount(os_Op::Pread);
  ASSERT_EQ(sfl_WriteBlockedData(h, 63, 40, d.data()), 40);
  EXPECT_EQ(os_CallCount(os_Op::Pread) - before, 3u);
  // That write found the leaf full and marked it so in the root. Reading
  // uses the leaf's whole range: once the leaf is the last record touched,
  // block 63 costs the header's read, its index read and its data read.
  ASSERT_EQ(Read(h, 62, 40), d);
  ASSERT_EQ(Rec(h)->LastIdxBase, 32u);
  before = os_CallCount(os_Op::Pread);
  EXPECT_EQ(Read(h, 63, 40), d);
  EXPECT_EQ(os_CallCount(os_Op::Pread) - before, 3u);
}

TEST_F(Blocked, DataWritesMarkDataAndNewBlocksMarkStructureUnsynced) {
  const int32_t h = NewItem();
  Bytes d = Pattern(0, 0, 30);
  ASSERT_EQ(sfl_WriteBlockedData(h, 0, 30, d.data()), 30);
  rec_->StructUnsynced = 0;
  rec_->DataUnsynced = 0;
  sfl_WriteBlockedData(h, 0, 30, d.data());  // existing block
  EXPECT_EQ(rec_->DataUnsynced, 1u);
  EXPECT_EQ(rec_->StructUnsynced, 0u);
  rec_->DataUnsynced = 0;
  Read(h, 0, 30);
  EXPECT_EQ(rec_->DataUnsynced, 0u);
  EXPECT_EQ(rec_->StructUnsynced, 0u);
  sfl_WriteBlockedData(h, 1, 30, d.data());  // new block in the same leaf
  EXPECT_EQ(rec_->StructUnsynced, 1u);
  EXPECT_EQ(rec_->DataUnsynced, 0u);
}

// ---- frozen handles and other processes --------------------------------------------------------

TEST_F(Blocked, AFrozenHandleReadsNoIndexRecordForBlocksUnderOneLeaf) {
  const int32_t h = NewItem();
  Place(h, 40, 0, 60);
  const int32_t r = sfl_OpenIntItem(parent_, 0, 0);
  sfl_ItemWillNotChange(r);
  ASSERT_EQ(Read(r, 33, 60), Pattern(33, 0, 60));  // brings the leaf into the cache
  uint64_t before = os_CallCount(os_Op::Pread);
  for (uint32_t round = 0; round < 3; ++round)
    for (uint32_t b = 32; b < 40; ++b) ASSERT_EQ(Read(r, b, 60), Pattern(b, 0, 60));
  EXPECT_EQ(os_CallCount(os_Op::Pread) - before, 24u);  // block data only

  sfl_ItemMayChange(r);
  before = os_CallCount(os_Op::Pread);
  for (uint32_t b = 32; b < 40; ++b) ASSERT_EQ(Read(r, b, 60), Pattern(b, 0, 60));
  EXPECT_EQ(os_CallCount(os_Op::Pread) - before, 24u);  // the header and the leaf again each time
  sfl_CloseIntItem(r);
}

// Whether /proc/locks shows a waiting shared request for exactly the range
// [off, off + len) of the file with inode `ino`.
bool SharedWaiterOn(ino_t ino, uint32_t off, uint32_t len) {
  std::ifstream in("/proc/locks");
  std::string line;
  const std::string inoText = ":" + std::to_string(ino) + " ";
  const std::string range = " " + std::to_string(off) + " " + std::to_string(off + len - 1);
  while (std::getline(in, line)) {
    if (line.find("->") == std::string::npos) continue;
    if (line.find(" READ ") == std::string::npos) continue;  // a shared request
    if (line.find(inoText) == std::string::npos) continue;
    if (line.size() >= range.size() && line.compare(line.size() - range.size(), range.size(), range) == 0)
      return true;
  }
  return false;
}

TEST_F(Blocked, AReaderInAnotherProcessWaitsSharedAndSeesWhatWasWritten) {
  const int32_t h = NewItem(64);
  for (uint32_t b = 0; b < 40; ++b) {
    Bytes d = Pattern(b, 0, 90);
    ASSERT_EQ(sfl_WriteBlockedData(h, b, 90, d.data()), 90);
  }
  const uint32_t headerOff = Rec(h)->HeaderOff;
  struct stat st;
  ASSERT_EQ(::fstat(fd_, &st), 0);

  // The reader opens the item, then waits for the word to read; meanwhile
  // this process holds the item header exclusively.
  int ready[2], go[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(go), 0);
  const sfl_ItemRef pref = parentRef_;
  const int pid = sfltest::StartChild([pref, ready, go] {
    const int32_t p = sfl_OpenItem(&pref, 0);
    const int32_t i = sfl_OpenIntItem(p, 0, 64);
    char c = 'r';
    if (::write(ready[1], &c, 1) != 1 || ::read(go[0], &c, 1) != 1) return 2;
    for (uint32_t b = 0; b < 40; ++b) {
      Bytes got(90);
      if (sfl_ReadBlockedData(i, b, 90, got.data()) != 90) return 3;
      if (got != Pattern(b, b == 7 ? 1 : 0, 90)) return 4;
    }
    sfl_CloseIntItem(i);
    sfl_CloseItem(p);
    return 0;
  });
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ASSERT_EQ(sfl_LockItemHeader(Rec(h), SFL_LOCK_EXCL), 1);
  ASSERT_EQ(::write(go[1], &c, 1), 1);
  bool waiting = false;
  for (int i = 0; i < 20000 && !waiting; ++i) {
    waiting = SharedWaiterOn(st.st_ino, headerOff, SFL_ITEM_HEADER_SIZE);
    if (!waiting) ::usleep(1000);
  }
  EXPECT_TRUE(waiting) << "no shared request on the item header seen";
  // Change block 7 before letting the reader in: it must see the new bytes.
  Bytes d7 = Pattern(7, 1, 90);
  ASSERT_EQ(sfl_WriteBlockedData(h, 7, 90, d7.data()), 90);
  sfl_UnLockItemHeader(Rec(h));
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  for (int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
}

// ---- releasing whole trees ------------------------------------------------------------------------

TEST_F(Blocked, DeletingABlockedItemReleasesItsWholeTree) {
  const Bytes before = Map();
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(base_, &ref);
  ASSERT_EQ(sfl_FormatBlockedRoot(h), 1);
  for (uint32_t b = 0; b < 70; ++b) {
    Bytes d = Pattern(b, 0, 150 + b);
    ASSERT_EQ(sfl_WriteBlockedData(h, b * 3, 150 + b, d.data()), static_cast<int32_t>(150 + b));
  }
  ASSERT_EQ(HeaderOf(h).IndexDepth, 1u);
  ASSERT_NE(Map(), before);
  const uint32_t headerOff = Rec(h)->HeaderOff;
  sfl_DeleteItem(h);
  sfl_CloseItem(h);
  EXPECT_EQ(Map(), before);
  EXPECT_EQ(Raw(headerOff, SFL_ITEM_HEADER_SIZE), Bytes(SFL_ITEM_HEADER_SIZE, 0));
}

TEST_F(Blocked, DeletingANeverUsedBlockedItemReleasesItsRoot) {
  const Bytes before = Map();
  const int32_t h = sfl_CreateBlockedItem(base_, nullptr);
  ASSERT_NE(Map(), before);
  sfl_DeleteItem(h);
  sfl_CloseItem(h);
  EXPECT_EQ(Map(), before);
}

TEST_F(Blocked, APendingDeletionReleasesTheTreeAtTheLastClose) {
  const Bytes before = Map();
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(base_, &ref);
  ASSERT_EQ(sfl_FormatBlockedRoot(h), 1);
  for (uint32_t b = 0; b < 50; ++b) {
    Bytes d = Pattern(b, 0, 200);
    ASSERT_GE(sfl_GetNewBlock(h, 200, 1, d.data()), 0);
  }
  // Open twice: the deletion can only be marked.
  ASSERT_EQ(sfl_OpenItem(&ref, 1), h);
  sfl_DeleteItem(h);
  EXPECT_NE(HeaderOf(h).Flags & DELETED, 0u);
  EXPECT_NE(Map(), before);
  sfl_CloseItem(h);
  sfl_CloseItem(h);
  sfl_CloseItem(parent_);
  sfl_CloseFile(base_);  // the file stays (the parent item is in it)

  const std::string path = FilePath();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const int saved = fd_;
  fd_ = fd;
  EXPECT_EQ(Map(), before);
  const sfl_ItemHeader slot = Header(SFL_TABLE_OFFSET + (ref.Flags & SFL_ITEM_NUM_MASK) * SFL_ITEM_HEADER_SIZE);
  EXPECT_EQ(slot.Magic, 0u);
  fd_ = saved;
  ::close(fd);
}

// ---- the one walk over a whole tree -------------------------------------------------------------

TEST_F(Blocked, TheTreeWalkVisitsParentsFirstInEntryOrderWithPositionalBlockNumbers) {
  const int32_t h = NewItem();
  for (uint32_t b : {0u, 5u, 40u, 1100u}) {
    Bytes d = Pattern(b, 0, 30);
    ASSERT_EQ(sfl_WriteBlockedData(h, b, 30, d.data()), 30);
  }
  ASSERT_EQ(HeaderOf(h).IndexDepth, 2u);
  std::vector<std::pair<uint32_t, uint64_t>> seen;  // (depth, first block)
  std::vector<uint64_t> blocks;
  sfl_WalkIndexTree(rec_, HeaderOf(h).FileOffset,
                    [&](uint32_t, const sfl_IndexRecord& r, uint64_t first) {
                      seen.push_back({r.Depth, first});
                      if (r.Depth == 0)
                        for (uint32_t i = 0; i < 32; ++i)
                          if (r.Entries[i].SectionOffSet != 0) blocks.push_back(first + i);
                      return true;
                    });
  // The level inserted for block 1100 came with a chain down to an empty
  // leaf at 1024; the write then added the leaf at 1088 beside it.
  const std::vector<std::pair<uint32_t, uint64_t>> want = {
      {2, 0}, {1, 0}, {0, 0}, {0, 32}, {1, 1024}, {0, 1024}, {0, 1088}};
  EXPECT_EQ(seen, want);
  EXPECT_EQ(blocks, (std::vector<uint64_t>{0, 5, 40, 1100}));

  // A visitor that declines a record keeps the walk out of its subtree.
  uint32_t visited = 0;
  sfl_WalkIndexTree(rec_, HeaderOf(h).FileOffset,
                    [&](uint32_t, const sfl_IndexRecord& r, uint64_t) {
                      ++visited;
                      return r.Depth == 2;
                    });
  EXPECT_EQ(visited, 3u);
}

TEST_F(Blocked, TheTreeWalkRefusesAChildThatIsNotOneLevelBelowItsParent) {
  const int32_t h = NewItem();
  for (uint32_t b : {0u, 40u}) {
    Bytes d = Pattern(b, 0, 30);
    ASSERT_EQ(sfl_WriteBlockedData(h, b, 30, d.data()), 30);
  }
  const uint32_t rootOff = HeaderOf(h).FileOffset;
  sfl_IndexRecord root = Index(rootOff);
  ASSERT_EQ(root.Depth, 1u);
  // Entry 1 pointing back at the root would make the walk go round for ever.
  root.Entries[1] = {rootOff, static_cast<uint32_t>(SFL_INDEX_SIZE)};
  PutIndex(rootOff, root);
  uint32_t visited = 0;
  EXPECT_EQ(EscapeCodeOf([&] {
              sfl_WalkIndexTree(rec_, rootOff, [&](uint32_t, const sfl_IndexRecord&, uint64_t) {
                ++visited;
                return true;
              });
            }),
            Sfl(SFL_R_BAD_INDEX));
  EXPECT_EQ(visited, 2u);  // the root and its first leaf, then the refusal
  // Deleting the item meets the same refusal instead of looping.
  const sfl_ItemHeader hd = HeaderOf(h);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_DeleteIndexTree(Rec(h), hd); }), Sfl(SFL_R_BAD_INDEX));
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
}

}  // namespace
