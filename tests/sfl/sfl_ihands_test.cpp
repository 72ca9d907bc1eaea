// Item handles: the open-items table, opening and closing items, attach and
// detach counting, status, existence, change time, deletion and freezing.
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <optional>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

#include "im.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Escaped = sfltest::Escape;
using sfltest::EscapeOf;
using sfltest::ReasonOf;

using sfltest::Gate;

using Box = sfltest::OpenContainer;
constexpr auto NewBox = sfltest::NewContainer;

// Stores an item of `size` bytes; returns its (open) handle.
int32_t Store(const Box& b, uint32_t size, sfl_ItemRef* ref) {
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, size, ref, 0);
  EXPECT_GE(h, SFL_ITEM_HANDLE_FIRST);
  return h;
}

// Stores an item and closes its handle; returns its reference.
sfl_ItemRef StoreClosed(const Box& b, uint32_t size) {
  sfl_ItemRef ref{};
  sfl_CloseItem(Store(b, size, &ref));
  return ref;
}

constexpr auto Slot = sfltest::SlotOf;
using sfltest::FileHeaderOf;

using sfltest::EditHeader;

using sfltest::OpenRecordOf;

sfl_ItemRef WithItem(sfl_ItemRef ref, uint32_t n) {
  ref.Flags = static_cast<uint16_t>((ref.Flags & ~SFL_ITEM_NUM_MASK) | n);
  return ref;
}

class ItemHandles : public ::testing::Test {
 protected:
  void SetUp() override { log_.emplace(); }
  void TearDown() override { log_.reset(); }
  bool WasLogged(int reason) const { return log_->SawReason(reason); }

  std::optional<sfltest::LogCapture> log_;
};

// ---- the table ---------------------------------------------------------------------

TEST_F(ItemHandles, TableHandsOutHandles8000To11071ThenFailsWith28870) {
  std::vector<sfl_ItemRec*> taken;
  for (int32_t i = 0; i < SFL_MAX_OPEN_ITEMS; ++i) {
    int32_t h = -1;
    taken.push_back(sfl_GetNewItemEntry(&h));
    ASSERT_EQ(h, SFL_ITEM_HANDLE_FIRST + i);
  }
  int32_t h = -1;
  Escaped e = EscapeOf([&] { sfl_GetNewItemEntry(&h); });
  EXPECT_EQ(e.group, ER_GROUP_TABLE);
  EXPECT_EQ(e.reason, SFL_R_ITEMS_FULL);
  EXPECT_EQ(h, -1);
  // A freed record is the next one handed out.
  sfl_DeleteOSerItem(taken[17]);
  EXPECT_EQ(sfl_GetNewItemEntry(&h), taken[17]);
  EXPECT_EQ(h, SFL_ITEM_HANDLE_FIRST + 17);
  for (sfl_ItemRec* r : taken) sfl_DeleteOSerItem(r);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), 0);
}

TEST_F(ItemHandles, BadHandlesFailWith28867InGroup3) {
  Escaped e = EscapeOf([] { sfl_ItemHandle2Record(7999); });
  EXPECT_EQ(e.group, ER_GROUP_TABLE);
  EXPECT_EQ(e.reason, SFL_R_BAD_HANDLE);
  // One past an empty table is let through the range check and reads as a
  // record not in use.
  EXPECT_EQ(ReasonOf([] { sfl_ItemHandle2Record(8000); }), SFL_R_BAD_HANDLE);

  int32_t a = -1, b = -1;
  sfl_GetNewItemEntry(&a);
  sfl_ItemRec* rb = sfl_GetNewItemEntry(&b);
  EXPECT_EQ(sfl_ItemHandle2Record(a)->InUse, 1u);
  EXPECT_EQ(sfl_ItemHandle2Record(b), rb);
  EXPECT_EQ(ReasonOf([] { sfl_ItemHandle2Record(8002); }), SFL_R_BAD_HANDLE);
  EXPECT_EQ(ReasonOf([] { sfl_ItemHandle2Record(11072); }), SFL_R_BAD_HANDLE);

  // A closed record's handle fails, and freeing it again fails.
  sfl_DeleteOSerItem(rb);
  EXPECT_EQ(ReasonOf([&] { sfl_ItemHandle2Record(b); }), SFL_R_BAD_HANDLE);
  e = EscapeOf([&] { sfl_DeleteOSerItem(rb); });
  EXPECT_EQ(e.group, ER_GROUP_TABLE);
  EXPECT_EQ(e.reason, SFL_R_BAD_HANDLE);
  sfl_DeleteOSerItem(nullptr);  // ignored
  EXPECT_EQ(sfl_OpenItems().InUseCount(), 1);
}

TEST_F(ItemHandles, HandleConversionReopensAShutDescriptor) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 100, &ref);
  char c = 'q';
  sfl_WriteSimpleData(h, 3, 1, &c);
  sfl_DeActivate(h);
  ASSERT_EQ(sfl_Handle2Record(b.bh)->FileDes, -1);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_GE(item->BaseRecord->FileDes, 0);
  char got = 0;
  EXPECT_EQ(sfl_ReadSimpleData(h, 3, 1, &got), 1);
  EXPECT_EQ(got, 'q');
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, InternalOpenOfAnUnwrittenSlotGivesItsRecordBack) {
  Box b = NewBox();
  sfl_BaseRec* rec = sfl_Handle2Record(b.bh);
  int items = sfl_OpenItems().InUseCount();
  int32_t open = rec->IntItemsOpen;
  sfl_ItemRec* item = nullptr;
  EXPECT_EQ(ReasonOf([&] { sfl_IntOpenItem(rec, b.bh, 6, &item); }), SFL_R_BAD_ITEM_HEADER);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  EXPECT_EQ(rec->IntItemsOpen, open);
  sfl_ItemRef ref{};
  sfl_CloseItem(Store(b, 10, &ref));
  int32_t h = sfl_IntOpenItem(rec, b.bh, 1, &item);
  EXPECT_EQ(sfl_ItemHandle2Record(h), item);
  EXPECT_EQ(item->RefFlags, static_cast<uint16_t>(b.ref.Flags | 1));
  EXPECT_EQ(item->OpenRefs, 1);
  EXPECT_EQ(rec->IntItemsOpen, open + 1);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, FreedRecordKeepsItsCacheBuffersOnly) {
  int inUse = sfl_OpenItems().InUseCount();
  int32_t h = -1;
  sfl_ItemRec* r = sfl_GetNewItemEntry(&h);
  r->HeaderCache = std::make_unique<sfl_ItemHeaderBytes>();
  r->IndexCache = std::make_unique<sfl_IndexBytes>();
  sfl_ItemHeaderBytes* header = r->HeaderCache.get();
  sfl_IndexBytes* index = r->IndexCache.get();
  r->HeaderCacheValid = 1;
  r->Frozen = 1;
  r->Size = 77;
  r->OpenRefs = 3;
  sfl_DeleteOSerItem(r);
  EXPECT_EQ(r->InUse, 0u);
  EXPECT_EQ(r->Size, 0u);
  EXPECT_EQ(r->OpenRefs, 0);
  EXPECT_EQ(r->Frozen, 0u);
  EXPECT_EQ(r->HeaderCacheValid, 0u);
  EXPECT_EQ(r->HeaderCache.get(), header);
  EXPECT_EQ(r->IndexCache.get(), index);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), inUse);
}

// ---- opening -----------------------------------------------------------------------

TEST_F(ItemHandles, SecondOpenNeedsPermissionAndSharesTheHandle) {
  Box b = NewBox();
  sfl_ItemRef ref = StoreClosed(b, 100);
  int inUse = sfl_OpenItems().InUseCount();
  int32_t h = sfl_OpenItem(&ref, 0);
  EXPECT_EQ(sfl_seek(h, 40, SEEK_SET), 40);
  EXPECT_EQ(ReasonOf([&] { sfl_OpenItem(&ref, 0); }), SFL_R_ITEM_OPEN);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);

  int32_t again = sfl_OpenItem(&ref, 1);
  EXPECT_EQ(again, h);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(item->OpenRefs, 2);
  EXPECT_EQ(item->CurrPos, 0u);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), inUse + 1);  // one record for both opens

  sfl_CloseItem(h);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  sfl_CloseItem(h);
  EXPECT_EQ(ReasonOf([&] { sfl_CloseItem(h); }), SFL_R_BAD_HANDLE);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, OpenFillsTheRecordFromTheHeader) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t stored = Store(b, 300, &ref);
  uint32_t offset = sfl_ItemHandle2Record(stored)->Offset;
  sfl_CloseItem(stored);
  int32_t before = sfl_Handle2Record(b.bh)->IntItemsOpen;

  int32_t h = sfl_OpenItem(&ref, 0);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(item->BaseHandle, b.bh);
  EXPECT_EQ(item->BaseRecord, sfl_Handle2Record(b.bh));
  EXPECT_EQ(item->ItemNum, sfl_ItemNumOf(ref));
  EXPECT_EQ(item->RefFlags, ref.Flags);
  EXPECT_EQ(item->FileId, ref.FileId);
  EXPECT_EQ(item->HeaderOff, SFL_TABLE_OFFSET + item->ItemNum * SFL_ITEM_HEADER_SIZE);
  EXPECT_EQ(item->Offset, offset);
  EXPECT_EQ(item->Size, 300u);
  EXPECT_EQ(item->Flags, 0u);
  EXPECT_EQ(sfl_Handle2Record(b.bh)->IntItemsOpen, before + 1);
  sfl_CloseItem(h);
  EXPECT_EQ(sfl_Handle2Record(b.bh)->IntItemsOpen, before);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, ReferenceWithoutItemNumberFailsWith28857) {
  Box b = NewBox();
  EXPECT_EQ(ReasonOf([&] { sfl_OpenItem(&b.ref, 0); }), SFL_R_NO_ITEM);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, NeverStoredItemIsRefusedWith28864AndLeavesNothingOpen) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 100, &ref);
  EditHeader(h, [](sfl_ItemHeader& hd) { hd.FileOffset = 0; });  // a size but no data
  sfl_CloseItem(h);
  int items = sfl_OpenItems().InUseCount();
  int32_t open = sfl_Handle2Record(b.bh)->IntItemsOpen;
  EXPECT_EQ(ReasonOf([&] { sfl_OpenItem(&ref, 0); }), SFL_R_ITEM_DELETED);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  EXPECT_EQ(sfl_Handle2Record(b.bh)->IntItemsOpen, open);
  // The file was open before, so it stays open.
  EXPECT_NE(OpenRecordOf(b.ref), nullptr);
  // A size of 0 without data is a valid empty item.
  sfl_ItemRef empty = StoreClosed(b, 0);
  int32_t e = sfl_OpenItem(&empty, 0);
  EXPECT_EQ(sfl_ItemHandle2Record(e)->Size, 0u);
  sfl_CloseItem(e);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, DeletedItemIsRefusedAndTheFileItOpenedIsClosedAgain) {
  Box b = NewBox();
  sfl_ItemRef keep = StoreClosed(b, 10);
  sfl_ItemRef ref{};
  int32_t h = Store(b, 50, &ref);
  EditHeader(h, [](sfl_ItemHeader& hd) { hd.Flags |= DELETED; });
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
  ASSERT_EQ(OpenRecordOf(b.ref), nullptr);

  int32_t files = sfl_OpenFiles().InUseCount() - FilesInColdStore;
  int32_t items = sfl_OpenItems().InUseCount() - FilesInColdStore;  // cold files keep their map item
  EXPECT_EQ(ReasonOf([&] { sfl_OpenItem(&ref, 0); }), SFL_R_ITEM_DELETED);
  // The open opened the file; the refusal gave it back.
  EXPECT_EQ(OpenRecordOf(b.ref), nullptr);
  EXPECT_EQ(sfl_OpenFiles().InUseCount() - FilesInColdStore, files);
  EXPECT_EQ(sfl_OpenItems().InUseCount() - FilesInColdStore, items);

  // The other item opens as before.
  int32_t k = sfl_OpenItem(&keep, 0);
  EXPECT_EQ(sfl_ItemHandle2Record(k)->Size, 10u);
  sfl_CloseItem(k);
}

TEST_F(ItemHandles, FindsOpenItemsAndActiveSiblings) {
  Box b = NewBox();
  sfl_ItemRef r1{}, r2{};
  int32_t h1 = Store(b, 10, &r1);
  int32_t h2 = Store(b, 10, &r2);

  sfl_ItemRec* found = nullptr;
  int32_t fh = 0;
  EXPECT_EQ(sfl_CheckItemAccessed(&r2, &found, &fh, b.bh), 1);
  EXPECT_EQ(fh, h2);
  EXPECT_EQ(found, sfl_ItemHandle2Record(h2));
  EXPECT_EQ(sfl_CheckItemAccessed(&r1, &found, &fh, b.bh + 1), 0);
  EXPECT_EQ(fh, -1);
  EXPECT_EQ(found, nullptr);
  sfl_ItemRef other = r1;
  other.Name[0] = static_cast<char>(other.Name[0] == 'z' ? 'y' : 'z');
  EXPECT_EQ(sfl_CheckItemAccessed(&other, &found, &fh, b.bh), 0);
  sfl_ItemRef fifth = WithItem(r1, 5);
  EXPECT_EQ(sfl_CheckItemAccessed(&fifth, &found, &fh, b.bh), 0);

  EXPECT_EQ(sfl_FindFellowActiveItems(b.bh), 1);
  sfl_ItemHandle2Record(h1)->Deactivated = 1;
  EXPECT_EQ(sfl_FindFellowActiveItems(b.bh), 1);
  sfl_ItemHandle2Record(h2)->Deactivated = 1;
  // Only the free-map item (number 0) is left, which does not count.
  EXPECT_EQ(sfl_FindFellowActiveItems(b.bh), 0);
  sfl_ItemHandle2Record(h2)->Deactivated = 0;
  sfl_ItemHandle2Record(h2)->Flags |= INT_ITEM;
  EXPECT_EQ(sfl_FindFellowActiveItems(b.bh), 0);
  sfl_ItemHandle2Record(h2)->Flags &= ~static_cast<uint32_t>(INT_ITEM);
  sfl_CloseItem(h1);
  sfl_CloseItem(h2);
  sfl_CloseFile(b.bh);
}

// ---- closing -----------------------------------------------------------------------

TEST_F(ItemHandles, ClosingTheLastItemClosesAFileTheOpenOpened) {
  Box b = NewBox();
  sfl_ItemRef r1 = StoreClosed(b, 10);
  sfl_ItemRef r2 = StoreClosed(b, 10);
  sfl_CloseFile(b.bh);
  ASSERT_EQ(OpenRecordOf(b.ref), nullptr);

  int32_t h1 = sfl_OpenItem(&r1, 0);
  sfl_BaseRec* rec = OpenRecordOf(b.ref);
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->OpenMode, 1u);
  int32_t h2 = sfl_OpenItem(&r2, 0);
  sfl_CloseItem(h1);
  EXPECT_NE(OpenRecordOf(b.ref), nullptr);  // another item is still open
  sfl_CloseItem(h2);
  EXPECT_EQ(OpenRecordOf(b.ref), nullptr);
}

TEST_F(ItemHandles, ClosingItemsOfAnExplicitlyOpenedFileKeepsItOpen) {
  Box b = NewBox();
  sfl_ItemRef r1 = StoreClosed(b, 10);
  sfl_CloseFile(b.bh);
  int32_t bh = sfl_OpenSfl(&b.ref, 0);
  int32_t h = sfl_OpenItem(&r1, 0);
  sfl_CloseItem(h);
  EXPECT_NE(OpenRecordOf(b.ref), nullptr);
  // Associating the item with its file makes its last close close the file.
  h = sfl_OpenItem(&r1, 0);
  sfl_AssociateItemWithBase(h);
  EXPECT_EQ(sfl_Handle2Record(bh)->OpenMode, 1u);
  sfl_CloseItem(h);
  EXPECT_EQ(OpenRecordOf(b.ref), nullptr);
}

TEST_F(ItemHandles, LastCloseWithRangeLocksLogs28885AndReleasesTheData) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 256, &ref);
  ASSERT_NE(sfl_LockSflItem(h, SFL_LOCK_EXCL, 0, 0, 256), 0);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  ASSERT_EQ(item->LockCount, 1);
  uint32_t offset = item->Offset;

  // Another process cannot take the range while it is held.
  auto probe = [&] {
    return sfltest::RunInChild([&] {
      int fd = im_OpenItem(&b.ref);
      return os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, offset, 0, 256, 0);
    });
  };
  EXPECT_EQ(probe(), 0);
  sfl_CloseItem(h);
  EXPECT_TRUE(WasLogged(SFL_R_CLOSED_WITH_LOCKS));
  EXPECT_EQ(probe(), 1);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, CloseWithoutLocksLogsNothing) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  sfl_CloseItem(h);
  EXPECT_FALSE(WasLogged(SFL_R_CLOSED_WITH_LOCKS));
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, FailedDeletionCheckAtCloseIsSwallowedAndStatusKept) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  EXPECT_EQ(sfl_DetachOpenItem(h), 0u);
  ASSERT_EQ(sfl_ItemHandle2Record(h)->DeleteOnClose, 1u);
  // An earlier escape that the caller has not cleared.
  try {
    sfl_ItemHandle2Record(7999);
  } catch (const er_Escape&) {
  }
  os_FailNth(os_Op::Pread, 1, EIO);  // the header read of the deletion check
  sfl_CloseItem(h);
  os_ClearFaults();
  er_Status st;
  er_GetStatus(&st);
  EXPECT_EQ(st.live, 1);
  EXPECT_EQ(st.reason, SFL_R_BAD_HANDLE);
  EXPECT_EQ(ReasonOf([&] { sfl_ItemHandle2Record(h); }), SFL_R_BAD_HANDLE);
  // The deletion did not happen: the slot is still taken.
  EXPECT_EQ(Slot(b.bh, sfl_ItemNumOf(ref)).InUse, 1u);
  sfl_CloseFile(b.bh);
}

// ---- attach and detach -------------------------------------------------------------

TEST_F(ItemHandles, AttachAndDetachCountOwners) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  sfl_ChangeTime(h, 1000);
  EXPECT_EQ(sfl_Attach2OpenItem(h), 2u);
  EXPECT_GT(Slot(b.bh, 1).ChangeDate, 1000u);
  EXPECT_EQ(sfl_AttachItem(&ref), 3u);
  EXPECT_EQ(Slot(b.bh, 1).AccCount, 3u);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  sfl_ChangeTime(h, 1000);
  EXPECT_EQ(sfl_DetachItem(&ref), 2u);
  EXPECT_GT(Slot(b.bh, 1).ChangeDate, 1000u);
  EXPECT_EQ(sfl_DetachOpenItem(h), 1u);
  EXPECT_EQ(Slot(b.bh, 1).AccCount, 1u);
  EXPECT_EQ(Slot(b.bh, 1).Flags & DELETED, 0u);
  EXPECT_FALSE(WasLogged(SFL_R_DETACH_ZERO));
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, DetachAtZeroLogs28859KeepsZeroAndMarksDeleted) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  EditHeader(h, [](sfl_ItemHeader& hd) { hd.AccCount = 0; hd.ChangeDate = 1000; });
  ASSERT_EQ(Slot(b.bh, 1).Flags & DELETED, 0u);
  EXPECT_EQ(sfl_DetachOpenItem(h), 0u);
  EXPECT_TRUE(WasLogged(SFL_R_DETACH_ZERO));
  sfl_ItemInfo s = Slot(b.bh, 1);
  EXPECT_EQ(s.AccCount, 0u);
  EXPECT_EQ(s.ChangeDate, 1000u);  // nothing was lowered, so no new time
  EXPECT_NE(s.Flags & DELETED, 0u);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->DeleteOnClose, 1u);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, DetachToZeroDeletesAtTheLastClose) {
  Box b = NewBox();
  sfl_ItemRef keep = StoreClosed(b, 10);
  sfl_ItemRef ref{};
  int32_t h = Store(b, 300, &ref);
  int32_t again = sfl_OpenItem(&ref, 1);
  EXPECT_EQ(sfl_DetachOpenItem(h), 0u);
  sfl_CloseItem(again);  // not the last close
  EXPECT_EQ(Slot(b.bh, sfl_ItemNumOf(ref)).InUse, 1u);
  sfl_CloseItem(h);
  EXPECT_EQ(Slot(b.bh, sfl_ItemNumOf(ref)).InUse, 0u);
  EXPECT_EQ(FileHeaderOf(b.bh).UsedItems, 1u);
  EXPECT_EQ(sfl_ItemExists(&ref), 0);
  EXPECT_EQ(sfl_ItemExists(&keep), 1);
  sfl_CloseFile(b.bh);
}

// ---- status, existence, time ----------------------------------------------------------

TEST_F(ItemHandles, StatReplacesLinkCountSizeAndTime) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 300, &ref);
  sfl_Attach2OpenItem(h);
  sfl_ChangeTime(h, 123456);
  struct stat file;
  ASSERT_EQ(fstat(sfl_Handle2Record(b.bh)->FileDes, &file), 0);
  struct stat st;
  sfl_FStatItem(h, &st);
  EXPECT_EQ(st.st_nlink, 2u);
  EXPECT_EQ(st.st_size, 300);
  EXPECT_EQ(st.st_mtime, 123456);
  EXPECT_EQ(st.st_ino, file.st_ino);
  EXPECT_EQ(st.st_dev, file.st_dev);
  EXPECT_EQ(st.st_mode, file.st_mode);

  struct stat byRef;
  sfl_StatItem(&ref, &byRef);
  EXPECT_EQ(byRef.st_nlink, 2u);
  EXPECT_EQ(byRef.st_size, 300);
  EXPECT_EQ(byRef.st_mtime, 123456);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, InternalOpensKeepTheCallersPosition) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 300, &ref);
  sfl_seek(h, 120, SEEK_SET);
  struct stat st;
  sfl_StatItem(&ref, &st);
  EXPECT_EQ(sfl_ItemExists(&ref), 1);
  sfl_AttachItem(&ref);
  sfl_DetachItem(&ref);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(item->CurrPos, 120u);
  EXPECT_EQ(item->OpenRefs, 1);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, ExistsAnswersWithoutRaising) {
  Box b = NewBox();
  sfl_ItemRef ref = StoreClosed(b, 10);
  int inUse = sfl_OpenItems().InUseCount();
  EXPECT_EQ(sfl_ItemExists(&ref), 1);
  EXPECT_EQ(sfl_ItemExists(&b.ref), 0);              // names the file
  sfl_ItemRef unused = WithItem(ref, 6);
  EXPECT_EQ(sfl_ItemExists(&unused), 0);             // slot never written
  sfl_ItemRef missing = ref;
  missing.FileId += 1000;
  EXPECT_EQ(sfl_ItemExists(&missing), 0);            // no such file
  EXPECT_EQ(er_GetLive(), 0);
  EXPECT_EQ(OpenRecordOf(missing), nullptr);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), inUse);    // nothing left open
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, ChangeTimeWritesTheHeader) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  sfl_ChangeTime(h, 42);
  EXPECT_EQ(Slot(b.bh, 1).ChangeDate, 42u);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

// ---- deletion ------------------------------------------------------------------------

TEST_F(ItemHandles, DeletionAloneIsImmediate) {
  Box b = NewBox();
  sfl_ItemRef keep = StoreClosed(b, 10);
  sfl_ItemRef ref{};
  int32_t h = Store(b, 1000, &ref);
  uint32_t n = sfl_ItemNumOf(ref);
  uint32_t offset = sfl_ItemHandle2Record(h)->Offset;
  sfl_DetachOpenItem(h);
  ASSERT_EQ(FileHeaderOf(b.bh).UsedItems, 2u);
  sfl_DeleteItem(h);
  sfl_ItemInfo s = Slot(b.bh, static_cast<int>(n));
  EXPECT_EQ(s.InUse, 0u);
  EXPECT_EQ(s.Valid, 0u);  // the header is wiped
  sfl_FileHeader fh = FileHeaderOf(b.bh);
  EXPECT_EQ(fh.UsedItems, 1u);
  EXPECT_EQ(fh.Flags & ITEM_PEND_DEL, 0u);
  sfl_CloseItem(h);  // the deletion check at close fails quietly on the wiped header
  // The blocks are free again: the next item of that size takes them.
  sfl_ItemRef again{};
  int32_t h2 = Store(b, 1000, &again);
  EXPECT_EQ(sfl_ItemHandle2Record(h2)->Offset, offset);
  sfl_CloseItem(h2);
  EXPECT_EQ(sfl_ItemExists(&keep), 1);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, DeletingABlockedItemReleasesItsTree) {
  Box b = NewBox();
  sfl_ItemRef keep = StoreClosed(b, 10);
  sfl_ItemRef ref{};
  int32_t h = sfl_CreateBlockedItem(b.bh, &ref);  // attach count 0
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  sfl_BaseRec* rec = item->BaseRecord;
  // A one-leaf tree holding one block, laid down by hand.
  uint32_t units = 0;
  uint32_t block = sfl_GetFreeSpaceNew(rec, 1000, &units);
  sfl_IndexRecord root = sfl_NewIndexRecord();
  root.Used = 1;
  root.EverUsed = 1;
  root.ParentOff = item->HeaderOff;
  root.Entries[0] = {block, 1000};
  sfl_WriteAnIndex(item, item->Offset, root);
  const uint32_t rootOff = item->Offset;
  sfl_DeleteItem(h);
  EXPECT_EQ(Slot(b.bh, static_cast<int>(sfl_ItemNumOf(ref))).InUse, 0u);
  EXPECT_EQ(FileHeaderOf(b.bh).UsedItems, 1u);
  sfl_CloseItem(h);
  // The root's and the block's space are both free again.
  sfl_ItemRef r1{}, r2{};
  int32_t a = Store(b, 384, &r1);
  int32_t c = Store(b, 1000, &r2);
  EXPECT_EQ(sfl_ItemHandle2Record(a)->Offset, rootOff);
  EXPECT_EQ(sfl_ItemHandle2Record(c)->Offset, block);
  sfl_CloseItem(a);
  sfl_CloseItem(c);
  EXPECT_EQ(sfl_ItemExists(&keep), 1);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, DeletionOfAnItemOpenTwiceIsPending) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  sfl_DetachOpenItem(h);
  sfl_OpenItem(&ref, 1);
  ASSERT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 2);
  sfl_DeleteItem(h);
  sfl_ItemInfo s = Slot(b.bh, 1);
  EXPECT_EQ(s.InUse, 1u);
  EXPECT_NE(s.Flags & DELETED, 0u);
  EXPECT_NE(FileHeaderOf(b.bh).Flags & ITEM_PEND_DEL, 0u);
  EXPECT_EQ(FileHeaderOf(b.bh).UsedItems, 1u);
  sfl_CloseItem(h);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, DeletionOfAnAttachedItemIsPending) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);  // attach count 1
  sfl_DeleteItem(h);
  sfl_ItemInfo s = Slot(b.bh, 1);
  EXPECT_EQ(s.InUse, 1u);
  EXPECT_EQ(s.Valid, 1u);
  EXPECT_NE(s.Flags & DELETED, 0u);
  EXPECT_NE(FileHeaderOf(b.bh).Flags & ITEM_PEND_DEL, 0u);
  sfl_CloseItem(h);
  EXPECT_EQ(ReasonOf([&] { sfl_OpenItem(&ref, 0); }), SFL_R_ITEM_DELETED);
  sfl_CloseFile(b.bh);
}

TEST_F(ItemHandles, DeletionWhileAnotherProcessHoldsTheFileIsPending) {
  Box b = NewBox();
  sfl_ItemRef keep = StoreClosed(b, 10);
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  sfl_DetachOpenItem(h);
  Gate opened, done;
  int child = sfltest::StartChild([&] {
    int32_t bh = sfl_OpenSfl(&b.ref, 0);
    opened.Open();
    done.Wait();
    sfl_CloseFile(bh);
    return 0;
  });
  opened.Wait();
  sfl_DeleteItem(h);
  sfl_ItemInfo s = Slot(b.bh, static_cast<int>(sfl_ItemNumOf(ref)));
  EXPECT_EQ(s.InUse, 1u);
  EXPECT_NE(s.Flags & DELETED, 0u);
  EXPECT_NE(FileHeaderOf(b.bh).Flags & ITEM_PEND_DEL, 0u);
  EXPECT_EQ(FileHeaderOf(b.bh).UsedItems, 2u);
  done.Open();
  EXPECT_EQ(sfltest::WaitChild(child), 0);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);  // now the last holder: the item is released

  int32_t bh = sfl_OpenSfl(&b.ref, 0);
  EXPECT_EQ(Slot(bh, static_cast<int>(sfl_ItemNumOf(ref))).InUse, 0u);
  EXPECT_EQ(FileHeaderOf(bh).UsedItems, 1u);
  EXPECT_EQ(FileHeaderOf(bh).Flags & ITEM_PEND_DEL, 0u);
  EXPECT_EQ(sfl_ItemExists(&keep), 1);
  sfl_CloseFile(bh);
}

// ---- sync events --------------------------------------------------------------------------

// With every change flushed, the flushes count the sync events raised.
TEST_F(ItemHandles, EachChangeReportsItsSyncEvent) {
  setenv("SFL_ALL_SYNC_IO", "1", 1);
  sfl_ResetSyncConfig();  // read the switches afresh
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  sfl_OpenItem(&ref, 1);
  auto flushes = [](const std::function<void()>& fn) {
    uint64_t before = os_CallCount(os_Op::Fdatasync);
    fn();
    return os_CallCount(os_Op::Fdatasync) - before;
  };
  EXPECT_EQ(flushes([&] { sfl_Attach2OpenItem(h); }), 1u);
  EXPECT_EQ(flushes([&] { sfl_DetachOpenItem(h); }), 1u);
  EXPECT_EQ(flushes([&] { sfl_ChangeTime(h, 7); }), 1u);
  EXPECT_EQ(flushes([&] { struct stat st; sfl_FStatItem(h, &st); }), 0u);
  EXPECT_EQ(flushes([&] { sfl_ItemWillNotChange(h); sfl_ItemMayChange(h); }), 0u);
  EXPECT_EQ(flushes([&] { sfl_DeleteItem(h); }), 1u);  // pending: open twice
  EXPECT_EQ(flushes([&] { sfl_CloseItem(h); }), 0u);   // not the last close
  // The last close writes nothing (the deletion stays pending): its event
  // finds nothing to flush unless something was written before it.
  sfl_BaseRec* rec = sfl_ItemHandle2Record(h)->BaseRecord;
  EXPECT_EQ(rec->Unflushed, 0u);
  rec->Unflushed = 1;
  EXPECT_EQ(flushes([&] { sfl_CloseItem(h); }), 1u);   // the last close
  sfl_CloseFile(b.bh);
  unsetenv("SFL_ALL_SYNC_IO");
  sfl_ResetSyncConfig();
}

// ---- freezing ---------------------------------------------------------------------------

TEST_F(ItemHandles, FrozenHandleAnswersFromItsCachedHeader) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = Store(b, 10, &ref);
  sfl_ChangeTime(h, 5000);
  EXPECT_EQ(sfl_ItemWillNotChange(h), sfl_ItemHandle2Record(h));
  struct stat st;
  sfl_FStatItem(h, &st);  // fills the cache
  EXPECT_EQ(st.st_mtime, 5000);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->HeaderCacheValid, 1u);

  // Another process changes the header on disk.
  EXPECT_EQ(sfltest::RunInChild([&] {
              int32_t c = sfl_OpenItem(&ref, 0);
              sfl_ChangeTime(c, 6000);
              sfl_CloseItem(c);
              return 0;
            }),
            0);
  uint64_t reads = os_CallCount(os_Op::Pread);
  sfl_FStatItem(h, &st);
  EXPECT_EQ(st.st_mtime, 5000);
  EXPECT_EQ(os_CallCount(os_Op::Pread), reads);

  sfl_ItemRec* item = sfl_ItemMayChange(h);
  EXPECT_EQ(item->Frozen, 0u);
  EXPECT_EQ(item->HeaderCacheValid, 0u);
  EXPECT_EQ(item->IndexCacheValid, 0u);
  sfl_FStatItem(h, &st);
  EXPECT_EQ(st.st_mtime, 6000);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

}  // namespace
