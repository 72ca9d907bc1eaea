// Tests of sfl_ListItems and sfl_ListBlocks. sfl_ListItems: the slots it reports for containers and
// single-item files, its bounds, a slot taken but never written, and that
// it leaves no header lock behind on success or on a short table.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <string>
#include <vector>

#include "er.h"
#include "sfl.h"
#include "test_env.h"
#include "test_util.h"

namespace {

constexpr auto PathOf = sfltest::ItemPath;

// Creates a container holding items of the given sizes, closes it, and
// returns its reference.
sfl_ItemRef MakeContainer(const std::vector<uint32_t>& sizes, int32_t flags = 0) {
  int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, flags);
  sfl_ItemRef ref{};
  sfl_GetSerFileItem(base, &ref);
  for (uint32_t size : sizes) {
    sfl_ItemRef item{};
    int32_t h = sfl_StoreBasicItem(base, nullptr, size, &item, 0);
    EXPECT_GE(h, 0);
    sfl_CloseItem(h);
  }
  sfl_CloseFile(base);
  return ref;
}

// Whether some other open file description holds a lock on the header bytes,
// probed from a child process with its own descriptor.
bool HeaderLockedElsewhere(const std::string& path) {
  int rc = sfltest::LockStateElsewhere(path, 0, 128);
  EXPECT_TRUE(rc == 0 || rc == 1) << rc;
  return rc == 1;
}

using sfltest::ReasonOf;

TEST(SflListItems, ReportsEverySlotOfAContainer) {
  const uint32_t before = static_cast<uint32_t>(time(nullptr));
  sfl_ItemRef ref = MakeContainer({200, 5});
  const uint32_t after = static_cast<uint32_t>(time(nullptr));
  int32_t base = sfl_OpenSfl(&ref, 0);
  sfl_ItemInfo info[8];
  ASSERT_EQ(sfl_ListItems(base, info, 8), 8);

  // Slot 0: the free map as laid down at creation.
  EXPECT_EQ(info[0].ItemNum, 0u);
  EXPECT_EQ(info[0].InUse, 1u);
  EXPECT_EQ(info[0].Valid, 1u);
  EXPECT_EQ(info[0].FileOffset, 640u);
  EXPECT_EQ(info[0].FileSize, 256u);
  EXPECT_EQ(info[0].UsedBlocks, 2u);

  EXPECT_EQ(info[1].ItemNum, 1u);
  EXPECT_EQ(info[1].InUse, 1u);
  EXPECT_EQ(info[1].Valid, 1u);
  EXPECT_EQ(info[1].FileSize, 200u);
  EXPECT_EQ(info[1].UsedBlocks, 2u);
  EXPECT_EQ(info[1].AccCount, 1u);
  EXPECT_EQ(info[1].Flags, 0u);
  EXPECT_EQ(info[1].IndexDepth, 0u);
  EXPECT_GE(info[1].FileOffset, 896u);
  EXPECT_GE(info[1].ChangeDate, before);
  EXPECT_LE(info[1].ChangeDate, after);
  EXPECT_EQ(info[2].FileSize, 5u);
  EXPECT_EQ(info[2].UsedBlocks, 1u);
  EXPECT_NE(info[2].FileOffset, info[1].FileOffset);
  for (uint32_t i = 3; i < 8; ++i) {
    EXPECT_EQ(info[i].ItemNum, i);
    EXPECT_EQ(info[i].InUse, 0u) << i;
    EXPECT_EQ(info[i].Valid, 0u) << i;
  }
  EXPECT_FALSE(HeaderLockedElsewhere(PathOf(ref)));
  // The probe does see a header lock while one is held.
  sfl_BaseRec* rec = sfl_Handle2Record(base);
  ASSERT_NE(sfl_LockHeader(rec, SFL_LOCK_SHARED), 0);
  EXPECT_TRUE(HeaderLockedElsewhere(PathOf(ref)));
  sfl_UnlockHeader(rec);
  sfl_CloseFile(base);
}

TEST(SflListItems, FillsAtMostMaxAndCountsAllSlots) {
  sfl_ItemRef ref = MakeContainer({10});
  int32_t base = sfl_OpenSfl(&ref, 0);
  sfl_ItemInfo info[8];
  for (auto& i : info) i.ItemNum = 99;
  EXPECT_EQ(sfl_ListItems(base, info, 2), 8);
  EXPECT_EQ(info[0].ItemNum, 0u);
  EXPECT_EQ(info[1].ItemNum, 1u);
  EXPECT_EQ(info[2].ItemNum, 99u);  // untouched
  EXPECT_EQ(sfl_ListItems(base, nullptr, 0), 8);
  EXPECT_EQ(sfl_ListItems(base, info, -3), 8);
  EXPECT_EQ(info[0].ItemNum, 0u);
  sfl_CloseFile(base);
}

TEST(SflListItems, SingleItemFileHasTwoSlots) {
  sfl_ItemRef ref = MakeContainer({50}, SINGLE_FILE);
  int32_t base = sfl_OpenSfl(&ref, 0);
  sfl_ItemInfo info[8] = {};
  ASSERT_EQ(sfl_ListItems(base, info, 8), 2);
  EXPECT_EQ(info[1].InUse, 1u);
  EXPECT_EQ(info[1].FileSize, 50u);
  EXPECT_EQ(info[2].ItemNum, 0u);  // nothing written past the table
  sfl_CloseFile(base);
}

TEST(SflListItems, BlockedItemShowsItsFlag) {
  int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef item{};
  int32_t h = sfl_CreateBlockedItem(base, &item);
  sfl_ItemInfo info[8];
  ASSERT_EQ(sfl_ListItems(base, info, 8), 8);
  EXPECT_EQ(info[1].InUse, 1u);
  EXPECT_EQ(info[1].Valid, 1u);
  EXPECT_EQ(info[1].Flags, static_cast<uint32_t>(BLOCKED_ITEM));
  EXPECT_EQ(info[1].IndexDepth, 0u);
  EXPECT_NE(info[1].FileOffset, 0u);
  sfl_CloseItem(h);
  sfl_CloseFile(base);
}

TEST(SflListItems, ASlotTakenButNeverWrittenIsNotValid) {
  sfl_ItemRef ref = MakeContainer({10});
  const std::string path = PathOf(ref);
  // Mark slot 3 in use in the header's one-byte map, leaving its header zero.
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  uint8_t map = 0;
  ASSERT_EQ(pread(fd, &map, 1, 32), 1);
  map |= 1u << 3;
  ASSERT_EQ(pwrite(fd, &map, 1, 32), 1);
  close(fd);

  int32_t base = sfl_OpenSfl(&ref, 0);
  sfl_ItemInfo info[8];
  ASSERT_EQ(sfl_ListItems(base, info, 8), 8);
  EXPECT_EQ(info[3].InUse, 1u);
  EXPECT_EQ(info[3].Valid, 0u);
  EXPECT_EQ(info[1].Valid, 1u);
  sfl_CloseFile(base);
}

TEST(SflListItems, BadHandleAndShortTable) {
  EXPECT_EQ(ReasonOf([] {
              sfl_ItemInfo info[8];
              sfl_ListItems(6999, info, 8);
            }),
            28867);

  sfl_ItemRef ref = MakeContainer({10});
  int32_t base = sfl_OpenSfl(&ref, 0);
  // Cut the file inside the item table: the listing fails with a short
  // read and still releases the header lock it took.
  const std::string path = PathOf(ref);
  ASSERT_EQ(truncate(path.c_str(), 128 + 3 * 64 + 10), 0);
  sfl_ItemInfo info[8];
  EXPECT_EQ(ReasonOf([&] { sfl_ListItems(base, info, 8); }), 28871);
  EXPECT_FALSE(HeaderLockedElsewhere(path));
  EXPECT_EQ(sfl_ListItems(base, info, 3), 8);  // the slots that are still there
}

}  // namespace

namespace {

// ---- sfl_ListBlocks -------------------------------------------------------------------------

TEST(SflListBlocks, ReportsTheBlocksOfARangeInOrderAcrossLevels) {
  int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{};
  int32_t h = sfl_CreateBlockedItem(base, &ref);
  // A root still all zeros holds nothing.
  EXPECT_EQ(sfl_ListBlocks(h, 0, UINT32_MAX, nullptr, 0), 0u);
  ASSERT_EQ(sfl_FormatBlockedRoot(h), 1);
  EXPECT_EQ(sfl_ListBlocks(h, 0, UINT32_MAX, nullptr, 0), 0u);

  std::vector<char> data(100, 'x');
  // 40 appended blocks grow the tree to a second level; free two of them.
  for (uint32_t i = 0; i < 40; ++i)
    ASSERT_EQ(sfl_GetNewBlock(h, static_cast<int32_t>(10 + i), 1, data.data()),
              static_cast<int32_t>(i));
  sfl_FreeBlock(h, 3, 0);
  sfl_FreeBlock(h, 35, 0);

  std::vector<sfl_BlockInfo> all(64);
  ASSERT_EQ(sfl_ListBlocks(h, 0, UINT32_MAX, all.data(), 64), 38u);
  uint32_t expected = 0;
  for (uint32_t i = 0; i < 38; ++i, ++expected) {
    if (expected == 3 || expected == 35) ++expected;
    EXPECT_EQ(all[i].Block, expected);
    EXPECT_EQ(all[i].Size, 10 + expected);
    EXPECT_NE(all[i].Offset, 0u);
  }
  // A range, and an array shorter than the count.
  sfl_BlockInfo some[2];
  EXPECT_EQ(sfl_ListBlocks(h, 30, 36, some, 2), 6u);
  EXPECT_EQ(some[0].Block, 30u);
  EXPECT_EQ(some[1].Block, 31u);
  EXPECT_EQ(sfl_ListBlocks(h, 36, 30, some, 2), 0u);

  // Simple items have no blocks to list.
  sfl_ItemRef simple{};
  int32_t s = sfl_StoreBasicItem(base, nullptr, 10, &simple, 0);
  EXPECT_EQ(ReasonOf([&] { sfl_ListBlocks(s, 0, 10, nullptr, 0); }), 28853);
  sfl_CloseItem(s);
  sfl_CloseItem(h);
  sfl_CloseFile(base);
}

}  // namespace
