// Reordering at its edges: a hole (a freed block) moved across leaves
// carries no count with it, and a leaf whose base block number disagrees
// with the path that led to it is refused before any entry outside its 32
// is touched.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tree_scan.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes BlockOf(uint32_t id) { return sfltest::PseudoRandomBytes(10 + id % 30, id, 77); }

class ReorderEdges : public sfltest::ParentItemTest {
 protected:
  // A blocked item of `n` blocks appended in order, block i holding BlockOf(i).
  int32_t NewItem(uint32_t n) {
    const int32_t h = sfl_CreateBlockedItem(base_, nullptr);
    EXPECT_EQ(sfl_FormatBlockedRoot(h), 1);
    for (uint32_t i = 0; i < n; ++i) {
      const Bytes d = BlockOf(i);
      EXPECT_EQ(sfl_GetNewBlock(h, static_cast<int32_t>(d.size()), 1, d.data()), static_cast<int32_t>(i));
    }
    return h;
  }
  // The id whose bytes block `b` holds; -1 for a hole, -2 for other bytes.
  int64_t IdAt(int32_t h, uint32_t b, uint32_t ids) {
    Bytes buf(64);
    if (sfltest::ReasonOf([&] { buf.resize(sfl_ReadBlockedData(h, b, 64, buf.data())); }) != 0) return -1;
    for (uint32_t id = 0; id < ids; ++id)
      if (buf == BlockOf(id)) return id;
    return -2;
  }
  sfl_IndexRecord Index(uint32_t off) {
    const Bytes b = Raw(off, SFL_INDEX_SIZE);
    return sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE>(b.data(), SFL_INDEX_SIZE));
  }
  void ExpectSound(int32_t h) {
    const sfltest::TreeScan scan = sfltest::WalkTree(fd_, Rec(h)->HeaderOff);
    EXPECT_TRUE(scan.faults.empty()) << sfltest::Join(scan.faults);
    EXPECT_EQ(sfl_CheckSflIntegrity(&fileRef_, 0), 0);
  }
};

TEST_F(ReorderEdges, AHoleMovedAcrossLeavesCarriesNoCount) {
  constexpr uint32_t kBlocks = 40;  // a root over two leaves
  const int32_t h = NewItem(kBlocks);
  sfl_FreeBlock(h, 5, 0);
  const sfl_ItemHeader head = Header(Rec(h)->HeaderOff);
  ASSERT_EQ(head.IndexDepth, 1u);
  const uint32_t leaf0 = Index(head.FileOffset).Entries[0].SectionOffSet;
  const uint32_t leaf1 = Index(head.FileOffset).Entries[1].SectionOffSet;
  ASSERT_EQ(Index(leaf0).Used, 31u);
  ASSERT_EQ(Index(leaf1).Used, 8u);

  // The hole goes to block 38: blocks 6 to 38 each come one place down.
  sfl_ReorderIndex(h, 5, 38);
  for (uint32_t b = 0; b < kBlocks; ++b) {
    const int64_t want = b < 5 ? int64_t{b} : b < 38 ? int64_t{b} + 1 : b == 38 ? -1 : int64_t{b};
    EXPECT_EQ(IdAt(h, b, kBlocks), want) << b;
  }
  // Each leaf still counts the blocks it holds: 32 in the first, the hole
  // (and block 39) in the second.
  EXPECT_EQ(Index(leaf0).Used, 32u);
  EXPECT_EQ(Index(leaf1).Used, 7u);
  ExpectSound(h);

  // And back: the hole returns to block 5.
  sfl_ReorderIndex(h, 38, 5);
  for (uint32_t b = 0; b < kBlocks; ++b) EXPECT_EQ(IdAt(h, b, kBlocks), b == 5 ? -1 : int64_t{b}) << b;
  EXPECT_EQ(Index(leaf0).Used, 31u);
  EXPECT_EQ(Index(leaf1).Used, 8u);
  ExpectSound(h);
  sfl_CloseItem(h);
}

TEST_F(ReorderEdges, ALeafWhoseBaseDisagreesWithItsPathIsRefused) {
  constexpr uint32_t kBlocks = 40;
  const int32_t h = NewItem(kBlocks);
  const sfl_ItemHeader head = Header(Rec(h)->HeaderOff);
  const uint32_t leaf1 = Index(head.FileOffset).Entries[1].SectionOffSet;
  // The second leaf (blocks 32 to 63) says it starts at block 0: a move
  // within it to block 3 would take entry 33 of a record of 32.
  Bytes b(4);
  sfl_PutU32(b.data(), 0);
  ASSERT_EQ(::pwrite(fd_, b.data(), 4, leaf1 + sfl_ix::BaseBlockNum), 4);
  Rec(h)->IndexCacheValid = 0;
  const Bytes before = Raw(0, static_cast<size_t>(::lseek(fd_, 0, SEEK_END)));
  EXPECT_EQ(sfltest::ReasonOf([&] { sfl_ReorderIndex(h, 33, 3); }), SFL_R_BAD_SLOT);
  EXPECT_EQ(Raw(0, before.size()), before);
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseItem(h);
}

}  // namespace
