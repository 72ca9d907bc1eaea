// The sync policy: for every event 0..29, with and without an item handle,
// from a clean, a structure-dirty and a data-dirty file, under each switch
// (newly created, USER_ASYNC, item switches, ASYNCHRONOUS, domain 5,
// all-async, all-sync), whether the file was flushed and which unsynced
// flags remain. The expectations are written out by hand per event.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "os.h"
#include "sfl_int.h"
#include "test_env.h"

namespace {

constexpr int kEvents = 30;

// Events that mark the structure or the data unsynced.
const char* const kSetsStructure = "010001111111100001111001000010";
const char* const kSetsData =      "000000000000000010000010000000";

// Flushes of an opened file with no switches set, one character per event
// (0..29). The same sets hold with and without an item handle except for
// event 26 (with an item it is the 2000 rule, without it the 200 rule) and
// event 3 (4000 with an item, 400 without: both need the structure flag).
const char* const kCleanWithItem =       "010000011100000001100000000010";
const char* const kCleanNoItem =         "010000011100000001100000000010";
const char* const kStructDirtyWithItem = "010100011100000001100000001110";
const char* const kStructDirtyNoItem =   "010100011100000001100000001110";
const char* const kDataDirtyWithItem =   "010000011100000001100000001010";
const char* const kDataDirtyNoItem =     "010000011100000001100000000010";
// USER_ASYNC leaves only the 200 rule (event 27; event 26 without an item).
const char* const kUserAsyncStructDirtyWithItem = "000000000000000000000000000100";
const char* const kUserAsyncStructDirtyNoItem =   "000000000000000000000000001100";
// Item switches block the 2000 and 4000 rules of calls with an item.
const char* const kSwitchCleanWithItem =       "010000010000000000000000000000";
const char* const kSwitchStructDirtyWithItem = "010000010000000000000000000100";
const char* const kNever =  "000000000000000000000000000000";
const char* const kAlways = "111111111111111111111111111111";

enum class Start { Clean, StructDirty, DataDirty };

struct Switches {
  uint32_t newlyCreated = 0;
  uint32_t userAsync = 0;
  uint32_t itemUserNoSync = 0;
  uint32_t libItmNoSync = 0;
  uint32_t fileFlags = 0;
  uint16_t domain = 1;
  const char* allAsyncKey = nullptr;
  const char* allSyncKey = nullptr;
};

class SyncTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SFL_ALL_ASYNC_IO");
    unsetenv("SFL_ALL_SYNC_IO");
    sfl_ResetSyncConfig();
    std::string path = sfltest::StoreRoot() + "/sync.sfl";
    fd_ = os_open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd_, 0);
  }
  void TearDown() override {
    os_close(fd_);
    unsetenv("SFL_ALL_ASYNC_IO");
    unsetenv("SFL_ALL_SYNC_IO");
    sfl_ResetSyncConfig();
  }

  // Runs one event against a fresh record and checks the flush and flags.
  void Check(const Switches& s, Start start, bool withItem, int event, char wantFlush,
             bool flagsTouched) {
    sfl_BaseRec rec;
    rec.FileDes = fd_;
    rec.Domain = s.domain;
    rec.FileFlags = s.fileFlags;
    rec.NewlyCreated = s.newlyCreated;
    rec.UserAsync = s.userAsync;
    rec.StructUnsynced = start == Start::StructDirty;
    rec.DataUnsynced = start == Start::DataDirty;
    sfl_ItemRec item;
    item.BaseRecord = &rec;
    item.ItemUserNoSync = s.itemUserNoSync;
    item.LibItmNoSync = s.libItmNoSync;
    const uint32_t s0 = rec.StructUnsynced, d0 = rec.DataUnsynced;

    const uint64_t before = os_CallCount(os_Op::Fdatasync);
    sfl_ConsiderSync(&rec, withItem ? &item : nullptr, event);
    const bool flushed = os_CallCount(os_Op::Fdatasync) != before;

    SCOPED_TRACE("event " + std::to_string(event) + (withItem ? " with item" : " without item"));
    EXPECT_EQ(flushed, wantFlush == '1');
    if (flushed) {
      EXPECT_EQ(rec.StructUnsynced, 0u);
      EXPECT_EQ(rec.DataUnsynced, 0u);
      EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
    } else if (flagsTouched) {
      EXPECT_EQ(rec.StructUnsynced, s0 | (kSetsStructure[event] == '1'));
      EXPECT_EQ(rec.DataUnsynced, d0 | (kSetsData[event] == '1'));
    } else {
      EXPECT_EQ(rec.StructUnsynced, s0);
      EXPECT_EQ(rec.DataUnsynced, d0);
    }
  }

  void RunTable(const Switches& s, Start start, bool withItem, const char* want,
                bool flagsTouched = true) {
    if (s.allAsyncKey) setenv("SFL_ALL_ASYNC_IO", s.allAsyncKey, 1);
    if (s.allSyncKey) setenv("SFL_ALL_SYNC_IO", s.allSyncKey, 1);
    sfl_ResetSyncConfig();
    for (int e = 0; e < kEvents; ++e) Check(s, start, withItem, e, want[e], flagsTouched);
  }

  int fd_ = -1;
};

TEST_F(SyncTest, OpenedFileWithoutSwitches) {
  Switches s;
  RunTable(s, Start::Clean, true, kCleanWithItem);
  RunTable(s, Start::Clean, false, kCleanNoItem);
  RunTable(s, Start::StructDirty, true, kStructDirtyWithItem);
  RunTable(s, Start::StructDirty, false, kStructDirtyNoItem);
  RunTable(s, Start::DataDirty, true, kDataDirtyWithItem);
  RunTable(s, Start::DataDirty, false, kDataDirtyNoItem);
}

TEST_F(SyncTest, NewlyCreatedFileIsNeverFlushed) {
  Switches s;
  s.newlyCreated = 1;
  for (Start st : {Start::Clean, Start::StructDirty, Start::DataDirty}) {
    RunTable(s, st, true, kNever);
    RunTable(s, st, false, kNever);
  }
}

TEST_F(SyncTest, UserAsyncLeavesOnlyTheClass200Rule) {
  Switches s;
  s.userAsync = 1;
  RunTable(s, Start::Clean, true, kNever);
  RunTable(s, Start::Clean, false, kNever);
  RunTable(s, Start::StructDirty, true, kUserAsyncStructDirtyWithItem);
  RunTable(s, Start::StructDirty, false, kUserAsyncStructDirtyNoItem);
  RunTable(s, Start::DataDirty, true, kNever);
  RunTable(s, Start::DataDirty, false, kNever);
}

TEST_F(SyncTest, ItemSwitchesBlockTheItemRules) {
  for (int which = 0; which < 2; ++which) {
    Switches s;
    (which == 0 ? s.itemUserNoSync : s.libItmNoSync) = 1;
    RunTable(s, Start::Clean, true, kSwitchCleanWithItem);
    RunTable(s, Start::StructDirty, true, kSwitchStructDirtyWithItem);
    RunTable(s, Start::DataDirty, true, kSwitchCleanWithItem);
    // Without an item handle the switches are not consulted.
    RunTable(s, Start::StructDirty, false, kStructDirtyNoItem);
  }
}

TEST_F(SyncTest, AsynchronousFileIsLeftAlone) {
  Switches s;
  s.fileFlags = ASYNCHRONOUS;
  for (Start st : {Start::Clean, Start::StructDirty, Start::DataDirty}) {
    RunTable(s, st, true, kNever, false);
    RunTable(s, st, false, kNever, false);
  }
}

TEST_F(SyncTest, DomainFiveIsNeverFlushed) {
  Switches s;
  s.domain = 5;
  for (Start st : {Start::Clean, Start::StructDirty, Start::DataDirty}) {
    RunTable(s, st, true, kNever, false);
    RunTable(s, st, false, kNever, false);
  }
}

TEST_F(SyncTest, AllAsyncKeyStopsEverything) {
  Switches s;
  s.allAsyncKey = "";  // present; the value is not looked at
  for (Start st : {Start::Clean, Start::StructDirty, Start::DataDirty}) {
    RunTable(s, st, true, kNever, false);
    RunTable(s, st, false, kNever, false);
  }
}

TEST_F(SyncTest, AllSyncKeyFlushesEveryEvent) {
  Switches s;
  s.allSyncKey = "0";  // present; the value is not looked at
  for (Start st : {Start::Clean, Start::StructDirty, Start::DataDirty}) {
    RunTable(s, st, true, kAlways);
    RunTable(s, st, false, kAlways);
  }
  // Whatever the file's own switches.
  s.newlyCreated = 1;
  s.userAsync = 1;
  s.libItmNoSync = 1;
  RunTable(s, Start::Clean, true, kAlways);
}

TEST_F(SyncTest, AllSyncStillSparesAsynchronousAndDomainFive) {
  Switches s;
  s.allSyncKey = "1";
  s.fileFlags = ASYNCHRONOUS;
  RunTable(s, Start::StructDirty, true, kNever, false);
  s.fileFlags = 0;
  s.domain = 5;
  RunTable(s, Start::StructDirty, true, kNever, false);
}

TEST_F(SyncTest, SyncKeyWinsOverAsyncKey) {
  Switches s;
  s.allAsyncKey = "1";
  s.allSyncKey = "1";
  RunTable(s, Start::Clean, false, kAlways);
  EXPECT_EQ(sfl_SetAllAsync(0), 0u);  // all-async was reset by the sync key
}

TEST_F(SyncTest, ConfigurationIsReadOnce) {
  Switches s;
  RunTable(s, Start::StructDirty, false, kStructDirtyNoItem);
  setenv("SFL_ALL_SYNC_IO", "1", 1);  // too late: already read
  for (int e = 0; e < kEvents; ++e) Check(s, Start::Clean, false, e, kCleanNoItem[e], true);
}

TEST_F(SyncTest, SetAllAsyncBeforeAnythingKeepsConfigurationUnread) {
  setenv("SFL_ALL_SYNC_IO", "1", 1);
  sfl_ResetSyncConfig();
  EXPECT_EQ(sfl_SetAllAsync(1), 0u);
  Switches s;
  for (int e = 0; e < kEvents; ++e) Check(s, Start::StructDirty, true, e, '0', false);
  // Reading the sync key would have cleared all-async.
  EXPECT_EQ(sfl_SetAllAsync(1), 1u);
  EXPECT_EQ(sfl_SetAllAsync(0), 1u);
  // Now the key is read at the next decision, and wins.
  Check(s, Start::Clean, false, 0, '1', true);
}

TEST_F(SyncTest, RecordIsTakenFromTheItemWhenNotGiven) {
  sfl_BaseRec rec;
  rec.FileDes = fd_;
  rec.StructUnsynced = 1;
  sfl_ItemRec item;
  item.BaseRecord = &rec;
  const uint64_t before = os_CallCount(os_Op::Fdatasync);
  sfl_ConsiderSync(nullptr, &item, SFL_EV_CLOSE);  // 4000 with an item
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
  EXPECT_EQ(rec.StructUnsynced, 0u);
}

// ---- flushes with nothing written ----------------------------------------------------

TEST_F(SyncTest, AllSyncFlushesOnlyWhatWasWrittenSinceTheLastFlush) {
  setenv("SFL_ALL_SYNC_IO", "1", 1);
  sfl_ResetSyncConfig();
  sfl_BaseRec rec;
  rec.FileDes = fd_;
  EXPECT_EQ(rec.Unflushed, 1u);  // a new record may hold earlier writes
  const uint64_t before = os_CallCount(os_Op::Fdatasync);
  sfl_ConsiderSync(&rec, nullptr, SFL_EV_GET_SPACE);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
  EXPECT_EQ(rec.Unflushed, 0u);
  // Nothing written since: the next events leave the file as it is, but
  // still clear the marks they would have cleared.
  rec.StructUnsynced = 1;
  rec.DataUnsynced = 1;
  sfl_ConsiderSync(&rec, nullptr, SFL_EV_SEARCH_UPDATE);
  sfl_ConsiderSync(&rec, nullptr, SFL_EV_CLOSE);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
  EXPECT_EQ(rec.StructUnsynced, 0u);
  EXPECT_EQ(rec.DataUnsynced, 0u);
  // A write through the record makes the next event flush again.
  const char byte = 'x';
  ASSERT_EQ(sfl_PWrite(&rec, &byte, 1, 0), 1);
  EXPECT_EQ(rec.Unflushed, 1u);
  sfl_ConsiderSync(&rec, nullptr, SFL_EV_SEARCH_UPDATE);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 2);
  // An explicit sync flushes even with nothing written through the record.
  sfl_ConsiderSync(&rec, nullptr, SFL_EV_SYNC);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 3);
}

TEST_F(SyncTest, EveryRecordWriterLeavesTheFileToBeFlushed) {
  sfl_BaseRec rec;
  rec.FileDes = fd_;
  sfl_ItemRec item;
  item.BaseRecord = &rec;
  item.HeaderOff = 128;
  sfl_ItemHeader fm = sfl_NewItemHeader();
  fm.FileOffset = 640;
  fm.FileSize = 256;
  const std::vector<uint8_t> map(256, 0);
  const std::vector<std::function<void()>> writers = {
      [&] { sfl_WriteFileHeader(&rec, sfl_FileHeader{}); },
      [&] { sfl_WriteItemHeader(&item, sfl_NewItemHeader()); },
      [&] { sfl_WriteInternalItemH(&item, 192, sfl_NewItemHeader()); },
      [&] { sfl_WriteAnIndex(&item, 1024, sfl_NewIndexRecord()); },
      [&] { sfl_WriteFreeMap(&rec, map, fm); },
      [&] { sfl_WritePartialFreeMap(&rec, map, 8, 3, fm); },
      [&] { (void)sfl_PWrite(&rec, map.data(), 4, 2048); },
  };
  for (size_t i = 0; i < writers.size(); ++i) {
    rec.Unflushed = 0;
    writers[i]();
    EXPECT_EQ(rec.Unflushed, 1u) << "writer " << i;
  }
}

TEST_F(SyncTest, AFailedFlushIsTriedAgainByTheNextEvent) {
  setenv("SFL_ALL_SYNC_IO", "1", 1);
  sfl_ResetSyncConfig();
  sfl_BaseRec rec;
  rec.FileDes = fd_;
  os_FailNth(os_Op::Fdatasync, 1, EIO);
  EXPECT_THROW(sfl_ConsiderSync(&rec, nullptr, SFL_EV_GET_SPACE), er_Escape);
  EXPECT_EQ(rec.Unflushed, 1u);
  const uint64_t before = os_CallCount(os_Op::Fdatasync);
  sfl_ConsiderSync(&rec, nullptr, SFL_EV_SEARCH_UPDATE);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
  EXPECT_EQ(rec.Unflushed, 0u);
}

TEST_F(SyncTest, AllSyncReadingAnItemFlushesNothingAndStoringOncePerWrite) {
  setenv("SFL_ALL_SYNC_IO", "1", 1);
  sfl_ResetSyncConfig();
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{};
  const char data[300] = "stored";
  uint64_t before = os_CallCount(os_Op::Fdatasync);
  const int32_t item = sfl_StoreBasicItem(base, nullptr, sizeof data, &ref, 1);
  ASSERT_GE(item, SFL_ITEM_HANDLE_FIRST);
  // The slot, the map and the item header are each written and flushed;
  // the data event between them (no data to fill in) writes nothing.
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 3);
  before = os_CallCount(os_Op::Fdatasync);
  ASSERT_EQ(sfl_WriteSimpleData(item, 0, sizeof data, data), static_cast<int32_t>(sizeof data));
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
  // Stored without a source: the close clears its INCOMPLETE flag (the
  // data already flushed) and flushes that.
  sfl_CloseItem(item);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 2);
  sfl_CloseFile(base);

  // Open, read and close again: nothing written, nothing flushed.
  before = os_CallCount(os_Op::Fdatasync);
  const int32_t again = sfl_OpenItem(&ref, 0);
  char back[sizeof data] = {};
  ASSERT_EQ(sfl_ReadSimpleData(again, 0, sizeof back, back), static_cast<int32_t>(sizeof back));
  EXPECT_STREQ(back, "stored");
  sfl_CloseItem(again);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before);
}

// ---- the setters, through real item handles ---------------------------------------

class SyncHandlesTest : public SyncTest {
 protected:
  void SetUp() override {
    SyncTest::SetUp();
    rec_ = sfl_GetNewOFilesEntry(&baseHandle_);
    rec_->FileDes = os_open((sfltest::StoreRoot() + "/sync.sfl").c_str(), O_RDWR);
    item_ = sfl_GetNewItemEntry(&itemHandle_);
    item_->BaseRecord = rec_;
    item_->BaseHandle = baseHandle_;
    item_->OpenRefs = 1;
    item_->ItemNum = 1;
  }
  int32_t baseHandle_ = -1, itemHandle_ = -1;
  sfl_BaseRec* rec_ = nullptr;
  sfl_ItemRec* item_ = nullptr;
};

TEST_F(SyncHandlesTest, SettersReturnThePreviousValue) {
  EXPECT_EQ(sfl_SetFileUserNoSync(itemHandle_, 1), 0u);
  EXPECT_EQ(rec_->UserAsync, 1u);
  EXPECT_EQ(sfl_SetFileUserNoSync(itemHandle_, 0), 1u);
  EXPECT_EQ(sfl_SetItemUserNoSync(itemHandle_, 7), 0u);
  EXPECT_EQ(item_->ItemUserNoSync, 7u);
  EXPECT_EQ(sfl_SetItemUserNoSync(itemHandle_, 0), 7u);
  EXPECT_EQ(sfl_SetlibItmNoSync(itemHandle_, 1), 0u);
  EXPECT_EQ(item_->LibItmNoSync, 1u);
  EXPECT_EQ(sfl_SetlibItmNoSync(itemHandle_, 0), 1u);
  EXPECT_EQ(sfl_SetAllAsync(1), 0u);
  EXPECT_EQ(sfl_SetAllAsync(0), 1u);
}

TEST_F(SyncHandlesTest, DataWritesAreFlushedBySyncDataNotBySyncBaseFile) {
  // What a write of item data leaves behind.
  sfl_ConsiderSync(nullptr, item_, SFL_EV_SIMPLE_WRITE);
  sfl_ConsiderSync(nullptr, item_, SFL_EV_SIMPLE_WRITE);
  EXPECT_EQ(rec_->DataUnsynced, 1u);
  const uint64_t before = os_CallCount(os_Op::Fdatasync);
  sfl_SyncBaseFile(baseHandle_);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before);
  EXPECT_EQ(rec_->DataUnsynced, 1u);
  sfl_SyncData(itemHandle_);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
  EXPECT_EQ(rec_->DataUnsynced, 0u);
  // With the structure unsynced, sfl_SyncBaseFile flushes.
  rec_->StructUnsynced = 1;
  sfl_SyncBaseFile(baseHandle_);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 2);
}

// ---- through the library's own operations ---------------------------------------------

TEST_F(SyncTest, CreatedFileIsNotFlushedUntilItsFirstItemIsStored) {
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_BaseRec* rec = sfl_Handle2Record(base);
  EXPECT_EQ(rec->NewlyCreated, 1u);
  const uint64_t before = os_CallCount(os_Op::Fdatasync);
  rec->StructUnsynced = 1;
  sfl_SyncBaseFile(base);                       // 200
  sfl_ConsiderSync(rec, nullptr, SFL_EV_ATTACH);  // 400
  sfl_ConsiderSync(rec, nullptr, SFL_EV_COLD);    // 200
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before);

  sfl_ItemRef ref{};
  const int32_t item = sfl_StoreBasicItem(base, nullptr, 100, &ref, 0);
  ASSERT_GE(item, SFL_ITEM_HANDLE_FIRST);
  EXPECT_EQ(rec->NewlyCreated, 0u);
  const uint64_t stored = os_CallCount(os_Op::Fdatasync);
  rec->StructUnsynced = 1;
  sfl_SyncBaseFile(base);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), stored + 1);
  sfl_CloseItem(item);
  sfl_CloseFile(base);
}

TEST_F(SyncTest, WrittenItemOfAnOpenedFileIsFlushedBySyncDataOnly) {
  // Create and store in one process life, then reopen as an opened file.
  const int32_t created = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef itemRef{};
  const int32_t first = sfl_StoreBasicItem(created, nullptr, 256, &itemRef, 0);
  ASSERT_GE(first, SFL_ITEM_HANDLE_FIRST);
  sfl_CloseItem(first);
  sfl_CloseFile(created);

  const int32_t item = sfl_OpenItem(&itemRef, 0);
  sfl_ItemRec* rec = sfl_ItemHandle2Record(item);
  const int32_t base = rec->BaseHandle;
  EXPECT_EQ(rec->BaseRecord->NewlyCreated, 0u);
  sfl_SyncData(item);  // starts from a flushed file
  const uint64_t before = os_CallCount(os_Op::Fdatasync);
  const char data[16] = "0123456789abcde";
  for (uint32_t pos = 0; pos < 64; pos += 16) sfl_WriteSimpleData(item, pos, sizeof data, data);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before);
  sfl_SyncBaseFile(base);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before);
  EXPECT_EQ(rec->BaseRecord->DataUnsynced, 1u);
  sfl_SyncData(item);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), before + 1);
  EXPECT_EQ(rec->BaseRecord->DataUnsynced, 0u);
  sfl_CloseItem(item);
}

}  // namespace
