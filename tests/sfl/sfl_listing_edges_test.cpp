// Listings at their edges: the blocks of an item whose header claims a tree
// deeper than the library builds or deeper than its root, and the table
// dumps after entries were given back (only entries in use are shown).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::ReasonOf;

// The first words of a dump's entry for table entry `number`.
std::string Entry(int32_t number) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "Entry Number: %5d", number);
  return buf;
}

// A blocked item of `blocks` blocks in a new container, open.
struct BlockedItem {
  int32_t base = -1, h = -1;
};
BlockedItem NewBlockedItem(uint32_t blocks) {
  BlockedItem b;
  b.base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{};
  b.h = sfl_CreateBlockedItem(b.base, &ref);
  sfl_FormatBlockedRoot(b.h);
  const std::vector<uint8_t> data = sfltest::PseudoRandomBytes(50, 1, 1);
  for (uint32_t i = 0; i < blocks; ++i) sfl_GetNewBlock(b.h, 50, 0, data.data());
  return b;
}

TEST(ListBlocksEdges, AHeaderClaimingATreeDeeperThanAnyIsRefused) {
  BlockedItem b = NewBlockedItem(5);
  ASSERT_EQ(sfl_ListBlocks(b.h, 0, UINT32_MAX, nullptr, 0), 5u);
  sfltest::EditHeader(b.h, [](sfl_ItemHeader& h) { h.IndexDepth = 7; });
  std::vector<sfl_BlockInfo> out(8);
  EXPECT_EQ(ReasonOf([&] { sfl_ListBlocks(b.h, 0, UINT32_MAX, out.data(), 8); }), SFL_R_TOO_DEEP);
  EXPECT_EQ(out[0].Offset, 0u) << "nothing is listed";
  sfltest::EditHeader(b.h, [](sfl_ItemHeader& h) { h.IndexDepth = 0; });
  EXPECT_EQ(sfl_ListBlocks(b.h, 0, UINT32_MAX, out.data(), 8), 5u);
  sfl_CloseItem(b.h);
  sfl_CloseFile(b.base);
}

TEST(ListBlocksEdges, ARootShallowerThanTheHeaderSaysIsABadIndex) {
  BlockedItem b = NewBlockedItem(5);
  sfltest::EditHeader(b.h, [](sfl_ItemHeader& h) { h.IndexDepth = 1; });
  EXPECT_EQ(ReasonOf([&] { sfl_ListBlocks(b.h, 0, UINT32_MAX, nullptr, 0); }), SFL_R_BAD_INDEX);
  // The shared header lock was given back on the way out: the header can
  // be put right under the exclusive one and the blocks listed again.
  sfltest::EditHeader(b.h, [](sfl_ItemHeader& h) { h.IndexDepth = 0; });
  EXPECT_EQ(sfl_ListBlocks(b.h, 0, UINT32_MAX, nullptr, 0), 5u);
  sfl_CloseItem(b.h);
  sfl_CloseFile(b.base);
}

TEST(ListBlocksEdges, AnEmptyRangeListsNothingWhateverTheTree) {
  BlockedItem b = NewBlockedItem(40);
  EXPECT_EQ(sfl_ListBlocks(b.h, 39, 39, nullptr, 0), 1u);
  EXPECT_EQ(sfl_ListBlocks(b.h, 40, 39, nullptr, 0), 0u);
  EXPECT_EQ(sfl_ListBlocks(b.h, UINT32_MAX, 0, nullptr, 0), 0u);
  EXPECT_EQ(sfl_ListBlocks(b.h, 40, UINT32_MAX, nullptr, 0), 0u);
  sfl_CloseItem(b.h);
  sfl_CloseFile(b.base);
}

TEST(TableDumpEdges, EntriesGivenBackAreNotShown) {
  // Two files; the first closed for good, so its open-files entry is free.
  sfltest::OpenContainer gone = sfltest::NewContainer();
  sfl_ItemRef item{};
  sfl_CloseItem(sfl_StoreBasicItem(gone.bh, nullptr, 10, &item, 0));
  sfltest::OpenContainer kept = sfltest::NewContainer();
  sfl_CloseFile(gone.bh);
  sfltest::CloseColdFiles();
  ASSERT_EQ(sfl_OpenFiles().At(static_cast<size_t>(gone.bh - SFL_BASE_HANDLE_FIRST))->InUse, 0u);
  const std::string files = sfltest::WrittenTo(2, [] { sfl_DumpBaseItems(); });
  EXPECT_NE(files.find(Entry(kept.bh) + " : FileName " + sfltest::ItemPath(kept.ref)), std::string::npos)
      << files;
  EXPECT_EQ(files.find(Entry(gone.bh)), std::string::npos) << files;
  EXPECT_EQ(files.find(sfltest::ItemPath(gone.ref)), std::string::npos) << files;

  // Two items; the first closed, so its open-items entry is free.
  sfl_ItemRef a{}, b{};
  const int32_t ha = sfl_StoreBasicItem(kept.bh, nullptr, 10, &a, 0);
  const int32_t hb = sfl_StoreBasicItem(kept.bh, nullptr, 20, &b, 0);
  sfl_CloseItem(ha);
  const std::string items = sfltest::WrittenTo(2, [] { sfl_DumpOpenItems(); });
  EXPECT_NE(items.find(Entry(hb) + "---"), std::string::npos) << items;
  EXPECT_EQ(items.find(Entry(ha)), std::string::npos) << items;

  // Two streams; the first closed.
  const std::string p1 = sfltest::WritePlainFile("s1", "one");
  const std::string p2 = sfltest::WritePlainFile("s2", "two");
  const int32_t s1 = sfl_fOpen(p1.c_str(), "r");
  const int32_t s2 = sfl_fOpen(p2.c_str(), "r");
  sfl_fClose(s1);
  // Stream entries are numbered from 8000, a thousand below their handles.
  const std::string streams = sfltest::WrittenTo(1, [] { sfl_DumpOpenL3Items(); });
  EXPECT_NE(streams.find(Entry(s2 - 1000) + "---"), std::string::npos) << streams;
  EXPECT_EQ(streams.find(Entry(s1 - 1000)), std::string::npos) << streams;
  sfl_fClose(s2);
  sfl_CloseItem(hb);
  sfl_CloseFile(kept.bh);
}

}  // namespace
