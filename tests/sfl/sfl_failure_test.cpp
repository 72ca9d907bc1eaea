// Error paths that once damaged containers or leaked what they held: a
// failed store, a range that wraps, a lock call that fails, nested locks
// over the same bytes, a flush that fails, escapes from close and from the
// creation of blocked and internal items, and how the interest service is
// started on demand.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "ml.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::EscapeOf;
using sfltest::FileHeaderOf;
using sfltest::FreeMapOf;
using sfltest::ReasonOf;

class Failure : public ::testing::Test {
 protected:
  void TearDown() override { os_ClearFaults(); }
};

std::vector<uint8_t> ItemHeaderBytesOf(int32_t bh, uint32_t slot) {
  sfl_BaseRec* rec = sfl_Handle2Record(bh);
  return sfltest::ReadExactly(rec->FileDes, rec->ITableOff + slot * SFL_ITEM_HEADER_SIZE,
                              SFL_ITEM_HEADER_SIZE);
}

// A store whose free-map read fails must not give back blocks it never got:
// the header, the item table and the map stay taken, the slot is free again.
TEST_F(Failure, StoreFailingOnTheMapReadLeavesTheHeaderBlocksTaken) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  const std::vector<uint8_t> mapBefore = FreeMapOf(c.bh);
  const sfl_FileHeader headerBefore = FileHeaderOf(c.bh);
  // Reads of a store: the file header (slot), the map's item header, the map.
  os_FailNth(os_Op::Pread, 3, EIO);
  sfl_ItemRef out{};
  const sfltest::Escape e = EscapeOf([&] { sfl_StoreBasicItem(c.bh, nullptr, 1000, &out, 0); });
  os_ClearFaults();
  EXPECT_NE(e.reason, 0);
  EXPECT_EQ(FreeMapOf(c.bh), mapBefore);
  const sfl_FileHeader after = FileHeaderOf(c.bh);
  EXPECT_EQ(after.InUseItms, headerBefore.InUseItms);
  EXPECT_EQ(after.UsedItems, headerBefore.UsedItems);
  // The container still works: the next store lands in slot 1 at block 7.
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 100, &out, 0);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->Offset, 7u * SFL_BLOCK_SIZE);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// position + length beyond 32 bits must not wrap past the range check.
TEST_F(Failure, SimpleTransfersAtAWrappingPositionAreRefused) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 1024, &ref, 0);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  struct stat before {};
  ASSERT_EQ(fstat(sfl_ItemHandle2Record(h)->BaseRecord->FileDes, &before), 0);
  std::vector<uint8_t> buf(256, 0xAB);
  EXPECT_EQ(ReasonOf([&] { sfl_WriteSimpleData(h, 0xFFFFFF80u, 256, buf.data()); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_ReadSimpleData(h, 0xFFFFFF80u, 256, buf.data()); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_WriteSimpleData(h, 1, 0xFFFFFFFFu, buf.data()); }), SFL_R_RANGE);
  struct stat after {};
  ASSERT_EQ(fstat(sfl_ItemHandle2Record(h)->BaseRecord->FileDes, &after), 0);
  EXPECT_EQ(after.st_size, before.st_size);
  // The last bytes of the item are still reachable.
  EXPECT_EQ(sfl_WriteSimpleData(h, 1024 - 256, 256, buf.data()), 256);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// A lock call that fails for a reason other than a conflict raises, and the
// update it was to guard does not happen.
TEST_F(Failure, ALockThatFailsRaisesInsteadOfReadingAsRefused) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 100, &ref, 0);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  const std::vector<uint8_t> before = ItemHeaderBytesOf(c.bh, 1);
  os_FailNth(os_Op::Lock, 1, EIO);
  const sfltest::Escape e = EscapeOf([&] { sfl_Attach2OpenItem(h); });
  os_ClearFaults();
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, EIO);
  EXPECT_EQ(ItemHeaderBytesOf(c.bh, 1), before);
  // A refusal is still only a result.
  const std::string path = sfltest::ItemPathOf(c.bh);
  const int rc = sfltest::RunInChild([&] {
    int fd = ::open(path.c_str(), O_RDWR);
    return os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 128, 0);
  });
  EXPECT_EQ(rc, 1);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// Locks of one descriptor over the same bytes nest: releasing (or taking
// shared) an inner one leaves the outer holder's lock in place.
TEST_F(Failure, AnInnerLockOnTheSameBytesLeavesTheOuterOneHeld) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 100, &ref, 0);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  sfl_BaseRec* rec = item->BaseRecord;
  const std::string path = sfltest::ItemPathOf(c.bh);
  const uint32_t slotOff = item->HeaderOff;

  ASSERT_EQ(sfl_LockAnIntHeader(rec, slotOff, SFL_LOCK_EXCL), 1);
  ASSERT_EQ(sfl_LockItemHeader(item, SFL_LOCK_EXCL), 1);
  sfl_UnLockItemHeader(item);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, slotOff, SFL_ITEM_HEADER_SIZE), 1);
  // A shared read of the header inside the exclusive slot lock.
  sfl_ItemHeader hd;
  sfl_GetExtItemHeader(item, &hd);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, slotOff, SFL_ITEM_HEADER_SIZE), 1);
  sfl_UnLockAnIntHeader(rec, slotOff);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, slotOff, SFL_ITEM_HEADER_SIZE), 0);

  // Shared outside, exclusive inside: after the inner release the range is
  // shared again (another process may read, not write).
  ASSERT_EQ(sfl_LockAnIntHeader(rec, slotOff, SFL_LOCK_SHARED), 1);
  ASSERT_EQ(sfl_LockItemHeader(item, SFL_LOCK_EXCL), 1);
  sfl_UnLockItemHeader(item);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, slotOff, SFL_ITEM_HEADER_SIZE), 1);
  const int sharedElsewhere = sfltest::RunInChild([&] {
    int fd = ::open(path.c_str(), O_RDWR);
    return os_TryLockPart(fd, OS_LOCK_SHARED | OS_LOCK_NOWAIT, SEEK_SET, slotOff, 0,
                          SFL_ITEM_HEADER_SIZE, 0);
  });
  EXPECT_EQ(sharedElsewhere, 1);
  sfl_UnLockAnIntHeader(rec, slotOff);
  EXPECT_EQ(sfltest::LockStateElsewhere(path, slotOff, SFL_ITEM_HEADER_SIZE), 0);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// A flush that fails raises, and the file stays marked as not synced.
TEST_F(Failure, AFailedFlushRaisesAndTheFileStaysDirty) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 100, &ref, 0);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  uint8_t b[10] = {1, 2, 3};
  ASSERT_EQ(sfl_WriteSimpleData(h, 0, sizeof b, b), 10);
  sfl_BaseRec* rec = sfl_Handle2Record(c.bh);
  ASSERT_EQ(rec->DataUnsynced, 1u);
  os_FailNth(os_Op::Fdatasync, 1, EIO);
  const sfltest::Escape e = EscapeOf([&] { sfl_SyncData(h); });
  os_ClearFaults();
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, EIO);
  EXPECT_EQ(rec->DataUnsynced, 1u);
  // The next flush succeeds and clears the mark.
  const uint64_t flushes = os_CallCount(os_Op::Fdatasync);
  sfl_SyncData(h);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), flushes + 1);
  EXPECT_EQ(rec->DataUnsynced, 0u);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// A close that escapes leaves the file open as it was, and a second close
// then completes.
TEST_F(Failure, AFailedCloseLeavesTheFileOpenAsItWas) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  sfl_CloseItem(sfl_StoreBasicItem(c.bh, nullptr, 100, &ref, 0));  // kept at close: not empty
  sfl_BaseRec* rec = sfl_Handle2Record(c.bh);
  ASSERT_EQ(rec->ExternalOpens, 1);
  // The close reads the file header under the exclusive header lock.
  os_FailNth(os_Op::Pread, 1, EIO);
  EXPECT_NE(EscapeOf([&] { sfl_CloseFile(c.bh); }).reason, 0);
  os_ClearFaults();
  EXPECT_EQ(rec->InUse, 1u);
  EXPECT_EQ(rec->InColdStore, 0u);
  EXPECT_EQ(rec->ExternalOpens, 1);
  EXPECT_TRUE(sfltest::DescriptorOpen(rec->FileDes));
  sfl_CloseFile(c.bh);
  EXPECT_EQ(rec->InColdStore, 1u);
}

// A blocked item whose root cannot be written gives back its slot and run.
TEST_F(Failure, ABlockedItemThatCannotBeCreatedGivesBackItsSlotAndRun) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  const std::vector<uint8_t> mapBefore = FreeMapOf(c.bh);
  const sfl_FileHeader headerBefore = FileHeaderOf(c.bh);
  const int itemsBefore = sfl_OpenItems().InUseCount();
  // Writes: the slot's header, the file header, the map bytes, the root.
  os_FailNth(os_Op::Pwrite, 4, EIO);
  sfl_ItemRef ref{};
  EXPECT_EQ(ReasonOf([&] { sfl_CreateBlockedItem(c.bh, &ref); }), SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(FreeMapOf(c.bh), mapBefore);
  EXPECT_EQ(FileHeaderOf(c.bh).InUseItms, headerBefore.InUseItms);
  EXPECT_EQ(FileHeaderOf(c.bh).UsedItems, headerBefore.UsedItems);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore);
  sfl_CloseFile(c.bh);
}

// A blocked item whose header cannot be written gives back its item record
// too, and the file's open-item count is as before.
TEST_F(Failure, ABlockedItemWhoseHeaderCannotBeWrittenLeavesNoRecord) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  const std::vector<uint8_t> mapBefore = FreeMapOf(c.bh);
  sfl_BaseRec* rec = sfl_Handle2Record(c.bh);
  const int32_t openBefore = rec->IntItemsOpen;
  const int itemsBefore = sfl_OpenItems().InUseCount();
  os_FailNth(os_Op::Pwrite, 5, EIO);  // the item's full header
  sfl_ItemRef ref{};
  EXPECT_EQ(ReasonOf([&] { sfl_CreateBlockedItem(c.bh, &ref); }), SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(FreeMapOf(c.bh), mapBefore);
  EXPECT_EQ(FileHeaderOf(c.bh).InUseItms, 0x01);
  EXPECT_EQ(rec->IntItemsOpen, openBefore);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore);
  sfl_CloseFile(c.bh);
}

class FailureInParent : public sfltest::ParentItemTest {
 protected:
  void TearDown() override { os_ClearFaults(); }
};

// An internal item whose empty index cannot be written gives back its run.
TEST_F(FailureInParent, AnInternalItemThatCannotBeCreatedGivesBackItsRun) {
  const std::vector<uint8_t> mapBefore = Map();
  const int itemsBefore = sfl_OpenItems().InUseCount();
  os_FailNth(os_Op::Pwrite, 2, EIO);  // the map bytes, then the empty index
  EXPECT_EQ(ReasonOf([&] { sfl_CreateIntBItem(parent_, 0, 0, 0); }), SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(Map(), mapBefore);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore);
}

// A new block whose data cannot be written gives back its run.
TEST_F(Failure, ANewBlockThatCannotBeWrittenGivesBackItsRun) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(c.bh, &ref);
  ASSERT_EQ(sfl_FormatBlockedRoot(h), 1);
  const std::vector<uint8_t> mapBefore = FreeMapOf(c.bh);
  std::vector<uint8_t> data(300, 7);
  os_FailNth(os_Op::Pwrite, 2, EIO);  // the map bytes, then the data
  EXPECT_EQ(ReasonOf([&] { sfl_GetNewBlock(h, 300, 0, data.data()); }), SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(FreeMapOf(c.bh), mapBefore);
  EXPECT_EQ(sfl_GetNewBlock(h, 300, 0, data.data()), 0);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

std::string LinkOf(const std::string& path) {
  char buf[PATH_MAX];
  ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
  if (n < 0) return "";
  buf[n] = '\0';
  return buf;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The service a library call starts is the sfl-monitor program, with none
// of the caller's environment or descriptors.
TEST(ServiceStart, OnDemandStartRunsTheMonitorProgramWithACleanSlate) {
  sfltest::StopService();
  const std::string marker = sfltest::TestDir() + "/marker";
  const int fd = ::open(marker.c_str(), O_RDWR | O_CREAT, 0600);  // inheritable on purpose
  ASSERT_GE(fd, 0);
  setenv("SFL_TEST_CALLER_MARK", "caller", 1);
  sfltest::OpenContainer c = sfltest::NewContainer();  // records an interest: starts the service
  ml_State st;
  ASSERT_TRUE(ml_ReadState(sfltest::RunDir(), &st));
  ASSERT_GT(st.MainPid, 0);
  const std::string proc = "/proc/" + std::to_string(st.MainPid);
  char real[PATH_MAX];
  ASSERT_NE(realpath(sfltest::MonitorBinary().c_str(), real), nullptr);
  EXPECT_EQ(LinkOf(proc + "/exe"), std::string(real));
  EXPECT_EQ(Slurp(proc + "/environ").find("SFL_TEST_CALLER_MARK"), std::string::npos);
  DIR* d = opendir((proc + "/fd").c_str());
  ASSERT_NE(d, nullptr);
  int seen = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    ++seen;
    EXPECT_NE(LinkOf(proc + "/fd/" + e->d_name), marker);
  }
  closedir(d);
  EXPECT_GE(seen, 3);
  sfl_CloseFile(c.bh);
  ::close(fd);
  unsetenv("SFL_TEST_CALLER_MARK");
}

}  // namespace
