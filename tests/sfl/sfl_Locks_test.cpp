// Lock ranges as another process sees them (its own descriptor, probing with
// F_OFD_GETLK), the held-variable protocol, caller range locks that report
// refusal instead of waiting, and error frames that release what they hold.
#include <gtest/gtest.h>

#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <string>
#include <utility>
#include <vector>
#include <unistd.h>

#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Raised = sfltest::Escape;
constexpr auto RaisedBy = sfltest::EscapeOfThenClear;

// What another process finds when it asks for an exclusive lock on
// [start, start+len) through a descriptor of its own.
struct Probe {
  int blocked = 0;  // 1 when some lock conflicts
  int type = 0;     // F_RDLCK / F_WRLCK of the conflicting lock
  long long start = 0;
  long long len = 0;
};

Probe ProbeFromOtherProcess(const std::string& path, off_t start, off_t len,
                            short want = F_WRLCK) {
  int fds[2];
  EXPECT_EQ(::pipe(fds), 0);
  int pid = sfltest::StartChild([&]() {
    ::close(fds[0]);
    Probe p;
    int fd = ::open(path.c_str(), O_RDWR);
    if (fd < 0) return 2;
    struct flock fl = {};
    fl.l_type = want;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    if (::fcntl(fd, F_OFD_GETLK, &fl) != 0) return 3;
    p.blocked = fl.l_type != F_UNLCK;
    p.type = fl.l_type;
    p.start = fl.l_start;
    p.len = fl.l_len;
    return ::write(fds[1], &p, sizeof p) == static_cast<ssize_t>(sizeof p) ? 0 : 4;
  });
  ::close(fds[1]);
  Probe p;
  EXPECT_EQ(::read(fds[0], &p, sizeof p), static_cast<ssize_t>(sizeof p));
  ::close(fds[0]);
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  return p;
}

// A child that holds an exclusive lock on a range until told to let go.
class OtherHolder {
 public:
  OtherHolder(const std::string& path, off_t start, off_t len) {
    EXPECT_EQ(::pipe(ready_), 0);
    EXPECT_EQ(::pipe(done_), 0);
    pid_ = sfltest::StartChild([&]() {
      ::close(ready_[0]);
      ::close(done_[1]);
      int fd = ::open(path.c_str(), O_RDWR);
      struct flock fl = {};
      fl.l_type = F_WRLCK;
      fl.l_whence = SEEK_SET;
      fl.l_start = start;
      fl.l_len = len;
      char c = ::fcntl(fd, F_OFD_SETLK, &fl) == 0 ? 'y' : 'n';
      if (::write(ready_[1], &c, 1) != 1) return 2;
      char x;
      (void)::read(done_[0], &x, 1);  // returns when the parent closes its end
      return c == 'y' ? 0 : 1;
    });
    ::close(ready_[1]);
    ::close(done_[0]);
    char c = 0;
    EXPECT_EQ(::read(ready_[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
  }
  ~OtherHolder() {
    ::close(done_[1]);
    ::close(ready_[0]);
    EXPECT_EQ(sfltest::WaitChild(pid_), 0);
  }

 private:
  int ready_[2];
  int done_[2];
  int pid_ = -1;
};

class LocksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    path_ = sfltest::StoreRoot() + "/locks.sfl";
    int fd = os_open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 8192), 0);
    rec_ = sfl_GetNewOFilesEntry(&baseHandle_);
    rec_->FileDes = fd;
    item_ = sfl_GetNewItemEntry(&itemHandle_);
    item_->BaseRecord = rec_;
    item_->BaseHandle = baseHandle_;
    item_->OpenRefs = 1;
    item_->ItemNum = 2;
    item_->HeaderOff = 128 + 2 * 64;
    item_->Offset = 1024;
    item_->Size = 1000;
  }
  void TearDown() override {
    os_ClearFaults();
    os_close(rec_->FileDes);
  }
  std::string path_;
  int32_t baseHandle_ = -1;
  int32_t itemHandle_ = -1;
  sfl_BaseRec* rec_ = nullptr;
  sfl_ItemRec* item_ = nullptr;
};

// ---- ranges -------------------------------------------------------------------

TEST_F(LocksTest, HeaderLockCoversBytesZeroTo127Exactly) {
  ASSERT_EQ(sfl_LockHeader(rec_, SFL_LOCK_EXCL), 1);
  Probe all = ProbeFromOtherProcess(path_, 0, 4096);
  EXPECT_EQ(all.blocked, 1);
  EXPECT_EQ(all.type, F_WRLCK);
  EXPECT_EQ(all.start, 0);
  EXPECT_EQ(all.len, 128);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 127, 1).blocked, 1);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 128, 4096).blocked, 0);
  EXPECT_EQ(sfl_UnlockHeader(rec_), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 4096).blocked, 0);
}

TEST_F(LocksTest, SharedHeaderLockLetsOtherReadersIn) {
  ASSERT_EQ(sfl_LockHeader(rec_, SFL_LOCK_SHARED), 1);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 128, F_RDLCK).blocked, 0);
  Probe w = ProbeFromOtherProcess(path_, 0, 128, F_WRLCK);
  EXPECT_EQ(w.blocked, 1);
  EXPECT_EQ(w.type, F_RDLCK);
  EXPECT_EQ(sfl_UnlockHeader(rec_), 0);
}

TEST_F(LocksTest, ItemHeaderLockCoversItsSixtyFourBytes) {
  ASSERT_EQ(sfl_LockItemHeader(item_, SFL_LOCK_EXCL), 1);
  Probe p = ProbeFromOtherProcess(path_, 0, 4096);
  EXPECT_EQ(p.blocked, 1);
  EXPECT_EQ(p.start, 256);
  EXPECT_EQ(p.len, 64);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 256).blocked, 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 320, 4096).blocked, 0);
  EXPECT_EQ(sfl_UnLockItemHeader(item_), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 4096).blocked, 0);
}

TEST_F(LocksTest, OtherLocksItemTakesNoHeaderLock) {
  item_->Flags = OTHER_LOCKS;
  EXPECT_EQ(sfl_LockItemHeader(item_, SFL_LOCK_EXCL), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 4096).blocked, 0);
  EXPECT_EQ(sfl_UnLockItemHeader(item_), 0);
  // The header range stays free even if someone else locked it meanwhile.
  ASSERT_EQ(sfl_LockAnIntHeader(rec_, item_->HeaderOff, SFL_LOCK_EXCL), 1);
  EXPECT_EQ(sfl_UnLockItemHeader(item_), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, item_->HeaderOff, 64).blocked, 1);
  EXPECT_EQ(sfl_UnLockAnIntHeader(rec_, item_->HeaderOff), 0);
}

TEST_F(LocksTest, IntHeaderLockIsSixtyFourBytesAtTheOffset) {
  ASSERT_EQ(sfl_LockAnIntHeader(rec_, 3000, SFL_LOCK_SHARED), 1);
  Probe p = ProbeFromOtherProcess(path_, 0, 8192);
  EXPECT_EQ(p.blocked, 1);
  EXPECT_EQ(p.type, F_RDLCK);
  EXPECT_EQ(p.start, 3000);
  EXPECT_EQ(p.len, 64);
  EXPECT_EQ(sfl_UnLockAnIntHeader(rec_, 3000), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 8192).blocked, 0);
}

TEST_F(LocksTest, IndexLockIs384Bytes) {
  ASSERT_EQ(sfl_LockAnIndex(item_, 2048, SFL_LOCK_EXCL), 1);
  Probe p = ProbeFromOtherProcess(path_, 0, 8192);
  EXPECT_EQ(p.blocked, 1);
  EXPECT_EQ(p.start, 2048);
  EXPECT_EQ(p.len, 384);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 2048 + 384, 1).blocked, 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 2047, 1).blocked, 0);
  EXPECT_EQ(sfl_UnLockAnIndex(item_, 2048), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 8192).blocked, 0);
}

TEST_F(LocksTest, UnlockReturnsTheNegationOfTheRelease) {
  ASSERT_EQ(sfl_LockHeader(rec_, SFL_LOCK_EXCL), 1);
  EXPECT_EQ(sfl_UnlockHeader(rec_), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 128).blocked, 0);
  // A release that fails raises rather than reporting the lock still held.
  // (It is tried twice: both tries fail here.)
  ASSERT_EQ(sfl_LockHeader(rec_, SFL_LOCK_EXCL), 1);
  os_FailNth(os_Op::Lock, 1, EIO);
  os_FailNthCall(2, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_UnlockHeader(rec_); }),
            sfltest::EscapeCode(ER_GROUP_OS, EIO));
  os_ClearFaults();
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 128).blocked, 1);
  EXPECT_EQ(sfl_UnlockHeader(rec_), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 128).blocked, 0);
  // One failed try is made good by the second.
  ASSERT_EQ(sfl_LockHeader(rec_, SFL_LOCK_EXCL), 1);
  os_FailNth(os_Op::Lock, 1, EIO);
  EXPECT_EQ(sfl_UnlockHeader(rec_), 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 128).blocked, 0);
  // A lock that waits cannot be refused: a failure of it raises.
  os_FailNth(os_Op::Lock, 1, EAGAIN);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_LockAnIndex(item_, 1024, SFL_LOCK_EXCL); }),
            sfltest::EscapeCode(ER_GROUP_OS, EAGAIN));
}

TEST_F(LocksTest, EachLockCallIsOneOsCall) {
  os_ResetCallCounts();
  sfl_LockHeader(rec_, SFL_LOCK_EXCL);
  sfl_UnlockHeader(rec_);
  sfl_LockItemHeader(item_, SFL_LOCK_SHARED);
  sfl_UnLockItemHeader(item_);
  EXPECT_EQ(os_CallCount(os_Op::Lock), 4u);
}

// ---- caller range locks ----------------------------------------------------------

TEST_F(LocksTest, RangeLockIsPlacedAtTheItemsDataStart) {
  ASSERT_NE(sfl_LockSflItem(itemHandle_, SFL_LOCK_EXCL, 0, 100, 50), 0);
  Probe p = ProbeFromOtherProcess(path_, 0, 8192);
  EXPECT_EQ(p.blocked, 1);
  EXPECT_EQ(p.start, 1124);
  EXPECT_EQ(p.len, 50);
  EXPECT_EQ(item_->LockCount, 1);
  EXPECT_EQ(item_->LockedEver, 1u);
  EXPECT_NE(sfl_LockSflItem(itemHandle_, SFL_LOCK_RELEASE, 0, 100, 50), 0);
  EXPECT_EQ(item_->LockCount, 0);
  EXPECT_EQ(item_->LockedEver, 1u);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 8192).blocked, 0);
  // Releasing again does not take the count below zero.
  EXPECT_NE(sfl_LockSflItem(itemHandle_, SFL_LOCK_RELEASE, 0, 100, 50), 0);
  EXPECT_EQ(item_->LockCount, 0);
}

TEST_F(LocksTest, RangeEqualToTheItemSizeSucceedsOneMoreByteFails) {
  EXPECT_NE(sfl_LockSflItem(itemHandle_, SFL_LOCK_EXCL, 0, 0, 1000), 0);
  Raised r = RaisedBy([&] { sfl_LockSflItem(itemHandle_, SFL_LOCK_EXCL, 0, 0, 1001); });
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_RANGE);
  EXPECT_EQ(item_->LockCount, 1);
}

TEST_F(LocksTest, RangeBeyondThirtyTwoBitsFails) {
  item_->Size = 0xFFFFFFFFu;
  EXPECT_EQ(RaisedBy([&] { sfl_LockSflItem(itemHandle_, 1, 0, 0x100000000LL, 0); }).reason,
            SFL_R_RANGE);
  EXPECT_EQ(RaisedBy([&] { sfl_LockSflItem(itemHandle_, 1, 0, 0xFFFFFFFFLL, 1); }).reason,
            SFL_R_RANGE);
}

TEST_F(LocksTest, RangeReachingBeforeTheItemIsRefused) {
  // A negative length covering bytes before the item's start (down to a
  // negative end, which reached the file header), or a negative offset, is
  // refused: no lock is placed and nothing is counted.
  const std::vector<std::pair<int64_t, int64_t>> ranges = {
      {10, -20}, {0, -896}, {0, -1}, {-10, 20}, {-1, 1}, {INT64_MIN, 10}};
  for (const auto& [off, len] : ranges) {
    for (int32_t mode : {SFL_LOCK_SHARED, SFL_LOCK_EXCL}) {
      Raised r = RaisedBy([&] { sfl_LockSflItem(itemHandle_, mode, 0, off, len); });
      EXPECT_EQ(r.group, ER_GROUP_SFL) << off << "," << len;
      EXPECT_EQ(r.reason, SFL_R_RANGE) << off << "," << len;
      EXPECT_EQ(item_->LockCount, 0);
      Probe p = ProbeFromOtherProcess(path_, 0, 8192);
      EXPECT_EQ(p.blocked, 0) << off << "," << len << ": a lock was placed";
    }
  }
  // A negative length that stays inside the item covers the bytes before
  // the offset, as a record lock does.
  EXPECT_NE(sfl_LockSflItem(itemHandle_, SFL_LOCK_SHARED, 0, 30, -20), 0);
  Probe p = ProbeFromOtherProcess(path_, 0, 8192);
  EXPECT_EQ(p.blocked, 1);
  EXPECT_EQ(p.start, 1024 + 10);
  EXPECT_EQ(p.len, 20);
  // The same length ending past the item is refused as before.
  EXPECT_EQ(RaisedBy([&] { sfl_LockSflItem(itemHandle_, 1, 0, 2000, -20); }).reason, SFL_R_RANGE);
}

TEST_F(LocksTest, NonZeroWhenceRaises38InGroupOne) {
  Raised r = RaisedBy([&] { sfl_LockSflItem(itemHandle_, SFL_LOCK_EXCL, 1, 0, 10); });
  EXPECT_EQ(r.group, ER_GROUP_CALL);
  EXPECT_EQ(r.reason, 38);
  EXPECT_EQ(item_->LockCount, 0);
  // The whence is looked at before the handle.
  r = RaisedBy([&] { sfl_LockSflItem(7999, SFL_LOCK_EXCL, 2, 0, 10); });
  EXPECT_EQ(r.group, ER_GROUP_CALL);
  EXPECT_EQ(r.reason, 38);
  r = RaisedBy([&] { sfl_LockSflItem(7999, SFL_LOCK_EXCL, 0, 0, 10); });
  EXPECT_EQ(r.group, ER_GROUP_TABLE);
  EXPECT_EQ(r.reason, SFL_R_BAD_HANDLE);
}

TEST_F(LocksTest, RangeHeldElsewhereIsRefusedAtOnce) {
  OtherHolder other(path_, 1024 + 10, 5);
  os_ResetCallCounts();
  EXPECT_EQ(sfl_LockSflItem(itemHandle_, SFL_LOCK_EXCL, 0, 0, 100), 0);
  EXPECT_EQ(sfl_LockSflItem(itemHandle_, SFL_LOCK_SHARED, 0, 12, 1), 0);
  EXPECT_EQ(item_->LockCount, 0);
  EXPECT_EQ(item_->LockedEver, 0u);
  EXPECT_EQ(sfl_flock(itemHandle_, SFL_LOCK_EXCL), 11);
  EXPECT_EQ(item_->LockCount, 0);
  EXPECT_EQ(os_CallCount(os_Op::Lock), 3u);  // one try each, no retry
  // A range next to the other's is granted.
  EXPECT_NE(sfl_LockSflItem(itemHandle_, SFL_LOCK_EXCL, 0, 15, 10), 0);
}

TEST_F(LocksTest, WholeItemLockCoversOffsetAndSize) {
  EXPECT_EQ(sfl_flock(itemHandle_, SFL_LOCK_SHARED), 0);
  Probe p = ProbeFromOtherProcess(path_, 0, 8192);
  EXPECT_EQ(p.blocked, 1);
  EXPECT_EQ(p.type, F_RDLCK);
  EXPECT_EQ(p.start, 1024);
  EXPECT_EQ(p.len, 1000);
  EXPECT_EQ(item_->LockCount, 1);
  EXPECT_EQ(sfl_flock(itemHandle_, SFL_LOCK_RELEASE), 0);
  EXPECT_EQ(item_->LockCount, 0);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 8192).blocked, 0);
}

// ---- error frames -------------------------------------------------------------------

// A read-modify-write of the file header under its lock, as the library's
// routines do it.
void BumpUsedItems(sfl_BaseRec* rec) {
  sfl_Held held;
  held.Header(rec, SFL_LOCK_EXCL);
  sfl_FileHeader h;
  sfl_ReadFileHeader(rec, &h);
  ++h.UsedItems;
  sfl_WriteFileHeader(rec, h);
}

TEST_F(LocksTest, EscapeInsideALockedUpdateReleasesTheLock) {
  sfl_FileHeader h;
  h.Magic = SFL_MAGIC;
  h.Type = SFL_TYPE_FILE_HEADER;
  h.HeaderVersion = 2;
  sfl_WriteFileHeader(rec_, h);
  const int inUse = sfl_OpenFiles().InUseCount();

  os_FailNth(os_Op::Pwrite, 1, EIO);
  Raised r = RaisedBy([&] { BumpUsedItems(rec_); });
  EXPECT_EQ(r.reason, SFL_R_SHORT_WRITE);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 8192).blocked, 0);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), inUse);

  os_FailNth(os_Op::Pread, 1, EIO);
  EXPECT_EQ(RaisedBy([&] { BumpUsedItems(rec_); }).reason, SFL_R_SHORT_READ);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 8192).blocked, 0);

  BumpUsedItems(rec_);
  sfl_ReadFileHeader(rec_, &h);
  EXPECT_EQ(h.UsedItems, 1);
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 8192).blocked, 0);
}

TEST_F(LocksTest, GuardReleasesOnlyWhatItHolds) {
  // Our lock attempt is refused by the fault switch (a conflict), so the
  // guard must not release anything: the range another holder of this
  // process took stays locked.
  ASSERT_EQ(sfl_LockAnIndex(item_, 2048, SFL_LOCK_EXCL), 1);
  {
    sfl_Held held;
    os_FailNth(os_Op::Lock, 1, EIO);
    EXPECT_EQ(sfltest::EscapeCodeOf([&] { held.Index(item_, 2432, SFL_LOCK_SHARED); }),
              sfltest::EscapeCode(ER_GROUP_OS, EIO));
    EXPECT_FALSE(held.held());
    os_ResetCallCounts();
  }
  EXPECT_EQ(os_CallCount(os_Op::Lock), 0u);  // nothing to release
  EXPECT_EQ(ProbeFromOtherProcess(path_, 2048, 384).blocked, 1);
  {
    sfl_Held held;
    held.IntHeader(rec_, 640, SFL_LOCK_EXCL);
    EXPECT_TRUE(held.held());
    held.Header(rec_, SFL_LOCK_EXCL);  // switching releases the first
    EXPECT_EQ(ProbeFromOtherProcess(path_, 640, 64).blocked, 0);
    EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 128).blocked, 1);
  }
  EXPECT_EQ(ProbeFromOtherProcess(path_, 0, 128).blocked, 0);
  EXPECT_EQ(sfl_UnLockAnIndex(item_, 2048), 0);
}

}  // namespace
