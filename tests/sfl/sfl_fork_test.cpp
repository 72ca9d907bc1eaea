// A forked child starts with empty tables and cannot disturb what its parent
// holds: the parent's files, items, streams and locks survive the child.
#include <gtest/gtest.h>

#include <climits>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "im.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::DescriptorOpen;

// Whether a process other than the parent finds [start, start+len) locked.
bool LockedSeenFromAnotherProcess(const std::string& path, off_t start, off_t len) {
  return sfltest::LockStateElsewhere(path, start, len) == 1;
}

class ForkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A container holding one item, with the item open and locked, a
    // second container in the cold store, and a plain stream.
    base_ = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    item_ = sfl_StoreBasicItem(base_, nullptr, 512, &itemRef_, 0);
    ASSERT_GE(item_, SFL_ITEM_HANDLE_FIRST);
    const char text[] = "parent data";
    sfl_WriteSimpleData(item_, 0, sizeof text, text);
    sfl_ItemRef fileRef{};
    sfl_GetSerFileItem(base_, &fileRef);
    path_ = sfltest::ItemPath(fileRef);

    const int32_t other = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_ItemRef otherItem{};
    sfl_CloseItem(sfl_StoreBasicItem(other, nullptr, 64, &otherItem, 0));
    sfl_CloseFile(other);
    ASSERT_EQ(FilesInColdStore, 1);

    stream_ = sfl_fOpen((sfltest::StoreRoot() + "/plain.txt").c_str(), "w");
    ASSERT_GE(stream_, SFL_STREAM_HANDLE_FIRST);

    rec_ = sfl_Handle2Record(base_);
    itemRec_ = sfl_ItemHandle2Record(item_);
  }

  int32_t base_ = -1;
  int32_t item_ = -1;
  int32_t stream_ = -1;
  sfl_ItemRef itemRef_{};
  std::string path_;
  sfl_BaseRec* rec_ = nullptr;
  sfl_ItemRec* itemRec_ = nullptr;
};

TEST_F(ForkTest, ChildStartsWithEmptyTables) {
  ASSERT_EQ(sfl_OpenFiles().InUseCount(), 2);
  ASSERT_GE(sfl_OpenItems().InUseCount(), 3);
  ASSERT_EQ(sfl_Streams().InUseCount(), 1);
  const int parentFd = rec_->FileDes;
  const int32_t base = base_, item = item_;
  int rc = sfltest::RunInChild([&] {
    if (sfl_OpenFiles().InUseCount() != 0 || sfl_OpenFiles().HighWater() != 0) return 1;
    if (sfl_OpenItems().InUseCount() != 0 || sfl_OpenItems().HighWater() != 0) return 2;
    if (sfl_Streams().InUseCount() != 0) return 3;
    if (FilesInColdStore != 0) return 4;
    if (DescriptorOpen(parentFd)) return 5;  // its copy was closed
    try {
      sfl_Handle2Record(base);
      return 6;
    } catch (const er_Escape& e) {
      if (e.reason() != SFL_R_BAD_HANDLE) return 7;
    }
    try {
      sfl_CloseItem(item);
      return 8;
    } catch (const er_Escape& e) {
      if (e.reason() != SFL_R_BAD_HANDLE) return 9;
    }
    er_Clear();
    // The child's own first file takes the first entry.
    const int32_t own = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    if (own != SFL_BASE_HANDLE_FIRST) return 10;
    sfl_ItemRef ref{};
    sfl_CloseItem(sfl_StoreBasicItem(own, nullptr, 32, &ref, 0));
    sfl_CloseFile(own);
    return 0;
  });
  EXPECT_EQ(rc, 0);
  // The parent's tables are as they were.
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 2);
  EXPECT_EQ(sfl_Streams().InUseCount(), 1);
  EXPECT_EQ(FilesInColdStore, 1);
  EXPECT_EQ(rec_->FileDes, parentFd);
  EXPECT_TRUE(DescriptorOpen(parentFd));
}

TEST_F(ForkTest, ParentLocksSurviveTheChild) {
  ASSERT_EQ(sfl_LockHeader(rec_, SFL_LOCK_EXCL), 1);
  ASSERT_NE(sfl_LockSflItem(item_, SFL_LOCK_EXCL, 0, 0, 100), 0);
  ASSERT_TRUE(LockedSeenFromAnotherProcess(path_, 0, 128));
  const uint32_t dataStart = itemRec_->Offset;
  ASSERT_TRUE(LockedSeenFromAnotherProcess(path_, dataStart, 100));

  // A child that uses the library and exits normally.
  int rc = sfltest::RunInChild([&] {
    const int32_t own = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_ItemRef ref{};
    sfl_CloseItem(sfl_StoreBasicItem(own, nullptr, 32, &ref, 0));
    sfl_CloseFile(own);
    return 0;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(LockedSeenFromAnotherProcess(path_, 0, 128));
  EXPECT_TRUE(LockedSeenFromAnotherProcess(path_, dataStart, 100));
  EXPECT_EQ(itemRec_->LockCount, 1);

  // The parent still works through its descriptor and releases normally.
  char back[16] = {};
  EXPECT_EQ(sfl_ReadSimpleData(item_, 0, 11, back), 11);
  EXPECT_STREQ(back, "parent data");
  EXPECT_EQ(sfl_UnlockHeader(rec_), 0);
  EXPECT_NE(sfl_LockSflItem(item_, SFL_LOCK_RELEASE, 0, 0, 100), 0);
  EXPECT_FALSE(LockedSeenFromAnotherProcess(path_, 0, 4096));
}

TEST_F(ForkTest, ChildCannotReleaseParentLocksThroughItsTables) {
  ASSERT_EQ(sfl_LockAnIntHeader(rec_, itemRec_->HeaderOff, SFL_LOCK_EXCL), 1);
  const int32_t item = item_;
  int rc = sfltest::RunInChild([&] {
    // The handle is gone in the child, so nothing can be released with it.
    try {
      sfl_flock(item, SFL_LOCK_RELEASE);
      return 1;
    } catch (const er_Escape&) {
      er_Clear();
    }
    return 0;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(LockedSeenFromAnotherProcess(path_, itemRec_->HeaderOff, 64));
  EXPECT_EQ(sfl_UnLockAnIntHeader(rec_, itemRec_->HeaderOff), 0);
  EXPECT_FALSE(LockedSeenFromAnotherProcess(path_, itemRec_->HeaderOff, 64));
}

}  // namespace
