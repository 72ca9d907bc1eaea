// The open-files table, counting of open items per file, the cold store
// (size, eviction order, revival, removal by another process), and the
// shutting and reopening of idle descriptors.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "im.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Raised = sfltest::Escape;
constexpr auto RaisedBy = sfltest::EscapeOfThenClear;

using sfltest::DescriptorOpen;
constexpr auto PathOf = sfltest::ItemPath;

class BaseTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    unsetenv("SFL_COLD_STORE_SIZE");
    sfl_ResetColdStoreSize();
  }
  // A record of the table on a file of its own, as create or open leaves it
  // (a single-item file, so no free-map item is involved).
  sfl_BaseRec* NewFile(int32_t* handle, uint32_t fileId) {
    sfl_BaseRec* rec = sfl_GetNewOFilesEntry(handle);
    rec->Domain = 1;
    rec->SubDomain = 2;
    rec->FileId = fileId;
    rec->Name[0] = 'b';
    rec->FileFlags = SINGLE_FILE;
    rec->ExternalOpens = 1;
    // The file lies where its reference leads: a revival holds the name to
    // the file it kept.
    const std::string dir = sfltest::StoreRoot() + "/1";
    ::mkdir(dir.c_str(), 0700);
    ::mkdir((dir + "/2").c_str(), 0700);
    rec->FileDes = os_open(PathOf(RefOf(fileId)).c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_GE(rec->FileDes, 0);
    return rec;
  }
  sfl_ItemRef RefOf(uint32_t fileId) {
    sfl_ItemRef ref{};
    ref.Domain = 1;
    ref.SubDomain = 2;
    ref.FileId = fileId;
    ref.Name[0] = 'b';
    return ref;
  }
};

// ---- the table ------------------------------------------------------------------------

TEST_F(BaseTableTest, TheEntryAfter1024FailsWith28866) {
  std::vector<int32_t> handles;
  for (int i = 0; i < 1024; ++i) {
    int32_t h = -1;
    sfl_BaseRec* rec = sfl_GetNewOFilesEntry(&h);
    ASSERT_EQ(h, 7000 + i);
    EXPECT_EQ(rec->FileDes, -1);
    EXPECT_EQ(rec->InUse, 1u);
  }
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 1024);
  int32_t h = -1;
  Raised r = RaisedBy([&] { sfl_GetNewOFilesEntry(&h); });
  EXPECT_EQ(r.group, ER_GROUP_TABLE);
  EXPECT_EQ(r.reason, SFL_R_FILES_FULL);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 1024);
  // Freeing one makes exactly that entry available again.
  sfl_DeleteOSerFile(sfl_Handle2Record(7500));
  sfl_GetNewOFilesEntry(&h);
  EXPECT_EQ(h, 7500);
}

// A new entry is always the first free one in table order, whichever was
// freed last, and the walk to it goes on past entries still in use.
TEST_F(BaseTableTest, ANewEntryIsTheFirstFreeOneWhicheverWasFreedLast) {
  for (int i = 0; i < 10; ++i) {
    int32_t h = -1;
    sfl_GetNewOFilesEntry(&h);
    ASSERT_EQ(h, 7000 + i);
  }
  sfl_DeleteOSerFile(sfl_Handle2Record(7007));
  sfl_DeleteOSerFile(sfl_Handle2Record(7003));
  int32_t h = -1;
  sfl_GetNewOFilesEntry(&h);
  EXPECT_EQ(h, 7003);
  sfl_DeleteOSerFile(sfl_Handle2Record(7001));
  sfl_GetNewOFilesEntry(&h);
  EXPECT_EQ(h, 7001);
  sfl_GetNewOFilesEntry(&h);
  EXPECT_EQ(h, 7007);
  sfl_GetNewOFilesEntry(&h);
  EXPECT_EQ(h, 7010);
  // A forked child forgets every entry: its first is the table's first.
  sfl_OpenFiles().ForgetAll();
  sfl_GetNewOFilesEntry(&h);
  EXPECT_EQ(h, 7000);
  sfl_GetNewOFilesEntry(&h);
  EXPECT_EQ(h, 7001);
}

TEST_F(BaseTableTest, HandleChecks) {
  Raised r = RaisedBy([] { sfl_Handle2Record(7000); });
  EXPECT_EQ(r.group, ER_GROUP_TABLE);
  EXPECT_EQ(r.reason, SFL_R_BAD_HANDLE);
  int32_t h = -1;
  sfl_BaseRec* rec = sfl_GetNewOFilesEntry(&h);
  ASSERT_EQ(h, 7000);
  EXPECT_EQ(sfl_Handle2Record(7000), rec);
  r = RaisedBy([] { sfl_Handle2Record(6999); });
  EXPECT_EQ(r.group, ER_GROUP_TABLE);
  EXPECT_EQ(r.reason, SFL_R_BAD_HANDLE);
  EXPECT_EQ(RaisedBy([] { sfl_Handle2Record(7001); }).reason, SFL_R_BAD_HANDLE);
  EXPECT_EQ(RaisedBy([] { sfl_Handle2Record(7002); }).reason, SFL_R_BAD_HANDLE);
  EXPECT_EQ(RaisedBy([] { sfl_IncIntItems(6999); }).reason, SFL_R_BAD_HANDLE);
  EXPECT_EQ(RaisedBy([] { sfl_DecIntItems(7001); }).reason, SFL_R_BAD_HANDLE);
  sfl_DeleteOSerFile(rec);
  EXPECT_EQ(RaisedBy([] { sfl_Handle2Record(7000); }).reason, SFL_R_BAD_HANDLE);
}

TEST_F(BaseTableTest, DeletingClearsTheRecordAndTheCount) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 11);
  rec->IntItemsOpen = 3;
  rec->InColdStore = 1;
  const int inUse = sfl_OpenFiles().InUseCount();
  os_close(rec->FileDes);
  sfl_DeleteOSerFile(rec);
  EXPECT_EQ(rec->InUse, 0u);
  EXPECT_EQ(rec->FileDes, -1);
  EXPECT_EQ(rec->FileId, 0u);
  EXPECT_EQ(rec->IntItemsOpen, 0);
  EXPECT_EQ(rec->InColdStore, 0u);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), inUse - 1);
  sfl_DeleteOSerFile(nullptr);  // ignored
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), inUse - 1);
  Raised r = RaisedBy([&] { sfl_DeleteOSerFile(rec); });
  EXPECT_EQ(r.group, ER_GROUP_TABLE);
  EXPECT_EQ(r.reason, SFL_R_BAD_HANDLE);
}

TEST_F(BaseTableTest, SerFileItemCopiesTheReference) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 12);
  rec->RefFlags = 0x40;
  std::memcpy(rec->Name, "xyz", 4);
  sfl_ItemRef out{};
  sfl_GetSerFileItem(h, &out);
  EXPECT_EQ(out.Domain, 1);
  EXPECT_EQ(out.Flags, 0x40);
  EXPECT_EQ(out.SubDomain, 2u);
  EXPECT_EQ(out.FileId, 12u);
  EXPECT_STREQ(out.Name, "xyz");
}

TEST_F(BaseTableTest, OpenItemCountNeverGoesBelowZero) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 13);
  EXPECT_EQ(sfl_IncIntItems(h), 1);
  EXPECT_EQ(sfl_IncIntItems(h), 2);
  EXPECT_EQ(sfl_DecIntItems(h), 1);
  EXPECT_EQ(sfl_DecIntItems(h), 0);
  std::vector<sfltest::LogEntry> logged;
  {
    sfltest::LogCapture capture;
    EXPECT_EQ(sfl_DecIntItems(h), 0);
    logged = capture.Entries();
  }
  std::erase_if(logged, [](const sfltest::LogEntry& e) { return e.group != ER_GROUP_SFL; });
  EXPECT_EQ(rec->IntItemsOpen, 0);
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0].level, 5);
  EXPECT_EQ(logged[0].reason, SFL_R_INT_ITEMS_NEGATIVE);
}

// ---- finding a file ---------------------------------------------------------------------

TEST_F(BaseTableTest, CheckFileAccessedFindsOpenRecords) {
  int32_t h1 = -1, h2 = -1;
  NewFile(&h1, 21);
  sfl_BaseRec* second = NewFile(&h2, 22);
  sfl_ItemRef ref = RefOf(22);
  ref.Flags = 3;  // the item-number bits play no part
  sfl_BaseRec* found = nullptr;
  int32_t handle = 0, revived = 7;
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, &found, &handle, 1, &revived), 1);
  EXPECT_EQ(found, second);
  EXPECT_EQ(handle, h2);
  EXPECT_EQ(revived, 0);

  ref = RefOf(23);
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, &found, &handle, 1, nullptr), 0);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(handle, -1);
}

TEST_F(BaseTableTest, NamesAreComparedAsStrings) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 24);
  std::memcpy(rec->Name, "ab\0x", 4);
  sfl_ItemRef ref = RefOf(24);
  std::memcpy(ref.Name, "ab\0y", 4);
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, nullptr, nullptr, 0, nullptr), 1);
  std::memcpy(ref.Name, "ac\0x", 4);
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, nullptr, nullptr, 0, nullptr), 0);
  ref = RefOf(24);
  std::memcpy(ref.Name, "ab", 3);
  ref.Domain = 9;
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, nullptr, nullptr, 0, nullptr), 0);
}

TEST_F(BaseTableTest, ColdRecordIsClosedForGoodWithoutRevival) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 31);
  const int fd = rec->FileDes;
  sfl_EnterColdStore(rec);
  ASSERT_EQ(FilesInColdStore, 1);
  const int inUse = sfl_OpenFiles().InUseCount();
  sfl_ItemRef ref = RefOf(31);
  sfl_BaseRec* found = nullptr;
  int32_t handle = 0;
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, &found, &handle, 0, nullptr), 0);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(FilesInColdStore, 0);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), inUse - 1);
  EXPECT_FALSE(DescriptorOpen(fd));
}

TEST_F(BaseTableTest, ColdRecordIsRevived) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 32);
  rec->ExternalOpens = 0;
  rec->OpenMode = 0;
  const int fd = rec->FileDes;
  sfl_EnterColdStore(rec);
  sfl_ItemRef ref = RefOf(32);
  sfl_BaseRec* found = nullptr;
  int32_t handle = 0, revived = 0;
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, &found, &handle, 1, &revived), 1);
  EXPECT_EQ(found, rec);
  EXPECT_EQ(handle, h);
  EXPECT_EQ(revived, 1);
  EXPECT_EQ(rec->InColdStore, 0u);
  EXPECT_EQ(FilesInColdStore, 0);
  EXPECT_EQ(rec->ExternalOpens, 1);
  EXPECT_EQ(rec->OpenMode, 1u);
  EXPECT_EQ(rec->FileDes, fd);
  EXPECT_TRUE(DescriptorOpen(fd));
}

TEST_F(BaseTableTest, ColdRecordOfARemovedFileIsNotRevived) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 33);
  const int fd = rec->FileDes;
  sfl_EnterColdStore(rec);
  ASSERT_EQ(sfltest::RunInChild([this] {
              return ::unlink(PathOf(RefOf(33)).c_str()) == 0 ? 0 : 1;
            }),
            0);
  sfl_ItemRef ref = RefOf(33);
  int32_t revived = 5;
  EXPECT_EQ(sfl_CheckFileAccessed(&ref, nullptr, nullptr, 1, &revived), 0);
  EXPECT_EQ(revived, 0);
  EXPECT_EQ(FilesInColdStore, 0);
  EXPECT_EQ(rec->InUse, 0u);
  EXPECT_FALSE(DescriptorOpen(fd));
}

// ---- the cold store ---------------------------------------------------------------------

TEST_F(BaseTableTest, ColdStoreSizeFromConfiguration) {
  EXPECT_EQ(sfl_ColdStoreSize(), 5);
  setenv("SFL_COLD_STORE_SIZE", "9", 1);
  EXPECT_EQ(sfl_ColdStoreSize(), 5);  // read once
  const std::pair<const char*, int> cases[] = {
      {"9", 9}, {"2", 2}, {"1", 1}, {"0", 1}, {"-4", 1}, {"12abc", 12}, {"abc", 1}, {"", 1}};
  for (const auto& [text, want] : cases) {
    setenv("SFL_COLD_STORE_SIZE", text, 1);
    sfl_ResetColdStoreSize();
    EXPECT_EQ(sfl_ColdStoreSize(), want) << '"' << text << '"';
  }
}

TEST_F(BaseTableTest, EnteringNumbersTheFilesInOrder) {
  const uint32_t start = FrozenCount;
  int32_t h1 = -1, h2 = -1;
  sfl_BaseRec* a = NewFile(&h1, 41);
  sfl_BaseRec* b = NewFile(&h2, 42);
  sfl_EnterColdStore(a);
  sfl_EnterColdStore(b);
  EXPECT_EQ(a->InColdStore, 1u);
  EXPECT_EQ(a->FreezeSeq, start);
  EXPECT_EQ(b->FreezeSeq, start + 1);
  EXPECT_EQ(FrozenCount, start + 2);
  EXPECT_EQ(FilesInColdStore, 2);
}

// With a size of 2 the store still grows to five: eviction starts only
// above four files. The file frozen with sequence 0 sits first in table
// order and is passed over while later cold records exist.
TEST_F(BaseTableTest, SizeTwoGrowsToFiveThenEvictsTheEarliestNonZeroSequence) {
  setenv("SFL_COLD_STORE_SIZE", "2", 1);
  sfl_ResetColdStoreSize();
  ASSERT_EQ(FrozenCount, 0u);
  std::vector<sfl_BaseRec*> recs;
  std::vector<int> fds;
  for (uint32_t i = 0; i < 7; ++i) {
    int32_t h = -1;
    recs.push_back(NewFile(&h, 50 + i));
    fds.push_back(recs.back()->FileDes);
  }
  for (int i = 0; i < 4; ++i) sfl_EnterColdStore(recs[i]);
  EXPECT_EQ(FilesInColdStore, 4);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(recs[i]->InColdStore, 1u);

  sfl_EnterColdStore(recs[4]);
  EXPECT_EQ(FilesInColdStore, 5);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(DescriptorOpen(fds[i])) << i;

  sfl_EnterColdStore(recs[5]);  // evicts sequence 1, not sequence 0
  EXPECT_EQ(FilesInColdStore, 5);
  EXPECT_EQ(recs[0]->InUse, 1u);
  EXPECT_EQ(recs[0]->FreezeSeq, 0u);
  EXPECT_EQ(recs[1]->InUse, 0u);
  EXPECT_FALSE(DescriptorOpen(fds[1]));
  EXPECT_TRUE(DescriptorOpen(fds[0]));

  sfl_EnterColdStore(recs[6]);  // then sequence 2
  EXPECT_EQ(FilesInColdStore, 5);
  EXPECT_EQ(recs[2]->InUse, 0u);
  EXPECT_FALSE(DescriptorOpen(fds[2]));
  EXPECT_EQ(recs[0]->InUse, 1u);
}

TEST_F(BaseTableTest, SequenceZeroGoesWhenItIsTheLastColdRecord) {
  // Table order: seq 3, seq 1, seq 2, seq 4, seq 0 (last). The candidate
  // rule keeps the smallest non-zero sequence until it reaches the end,
  // where sequence 0 replaces it only if smaller: seq 0 < seq 1.
  std::vector<sfl_BaseRec*> recs;
  const uint32_t seqs[] = {3, 1, 2, 4, 0};
  for (uint32_t i = 0; i < 5; ++i) {
    int32_t h = -1;
    recs.push_back(NewFile(&h, 60 + i));
    recs.back()->InColdStore = 1;
    recs.back()->FreezeSeq = seqs[i];
  }
  FilesInColdStore = 5;
  sfl_MakeRoomInColdStore();
  EXPECT_EQ(recs[4]->InUse, 0u);
  EXPECT_EQ(FilesInColdStore, 4);
}

TEST_F(BaseTableTest, SequenceZeroFirstInTableOrderIsReplacedByAnyLater) {
  std::vector<sfl_BaseRec*> recs;
  const uint32_t seqs[] = {0, 7, 5, 9, 6, 8};
  for (uint32_t i = 0; i < 6; ++i) {
    int32_t h = -1;
    recs.push_back(NewFile(&h, 70 + i));
    recs.back()->InColdStore = 1;
    recs.back()->FreezeSeq = seqs[i];
  }
  FilesInColdStore = 6;
  sfl_MakeRoomInColdStore();
  EXPECT_EQ(recs[2]->InUse, 0u);  // sequence 5
  EXPECT_EQ(recs[0]->InUse, 1u);
  EXPECT_EQ(FilesInColdStore, 5);
}

TEST_F(BaseTableTest, EqualSequencesKeepTheEarlierRecord) {
  std::vector<sfl_BaseRec*> recs;
  const uint32_t seqs[] = {4, 2, 3, 2, 5};
  for (uint32_t i = 0; i < 5; ++i) {
    int32_t h = -1;
    recs.push_back(NewFile(&h, 80 + i));
    recs.back()->InColdStore = 1;
    recs.back()->FreezeSeq = seqs[i];
  }
  FilesInColdStore = 5;
  sfl_MakeRoomInColdStore();
  EXPECT_EQ(recs[1]->InUse, 0u);
  EXPECT_EQ(recs[3]->InUse, 1u);
}

TEST_F(BaseTableTest, NothingIsEvictedAtFourOrFewer) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 90);
  rec->InColdStore = 1;
  rec->FreezeSeq = 3;
  FilesInColdStore = 4;
  sfl_MakeRoomInColdStore();
  EXPECT_EQ(rec->InUse, 1u);
  EXPECT_EQ(FilesInColdStore, 4);
}

TEST_F(BaseTableTest, DriftedCountIsReset) {
  int32_t h = -1;
  NewFile(&h, 91);  // open, not cold
  FilesInColdStore = 6;
  sfl_MakeRoomInColdStore();
  EXPECT_EQ(FilesInColdStore, 0);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 1);
}

TEST_F(BaseTableTest, ReturnToColdStore) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 92);
  rec->ExternalOpens = 2;
  sfl_ReturnToColdStore(h);
  EXPECT_EQ(rec->ExternalOpens, 1);
  EXPECT_EQ(rec->InColdStore, 1u);
  EXPECT_EQ(FilesInColdStore, 1);
  rec->InColdStore = 0;
  rec->ExternalOpens = 0;
  sfl_ReturnToColdStore(h);
  EXPECT_EQ(rec->ExternalOpens, 0);
  EXPECT_EQ(FilesInColdStore, 2);
}

TEST_F(BaseTableTest, ShutDownAndReopen) {
  int32_t h = -1;
  sfl_BaseRec* rec = NewFile(&h, 93);
  const int fd = rec->FileDes;
  sfl_ShutDownBaseFile(h);
  EXPECT_EQ(rec->FileDes, -1);
  EXPECT_FALSE(DescriptorOpen(fd));
  sfl_ShutDownBaseFile(h);  // already shut: nothing to do
  EXPECT_EQ(rec->FileDes, -1);
}

// ---- through the library's create, open and close ------------------------------------------

class ColdStoreFilesTest : public BaseTableTest {
 protected:
  // Creates a container holding one item and closes both; returns the
  // item's reference.
  sfl_ItemRef CreateWithItem() {
    const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_ItemRef ref{};
    const int32_t item = sfl_StoreBasicItem(base, nullptr, 64, &ref, 0);
    EXPECT_GE(item, SFL_ITEM_HANDLE_FIRST);
    sfl_CloseItem(item);
    sfl_CloseFile(base);
    return ref;
  }
};

TEST_F(ColdStoreFilesTest, ClosingSixFilesWithSizeTwoKeepsFive) {
  setenv("SFL_COLD_STORE_SIZE", "2", 1);
  sfl_ResetColdStoreSize();
  const int items = sfl_OpenItems().InUseCount();
  // (A file without items would be removed at its close, not kept.)
  for (int i = 0; i < 4; ++i) CreateWithItem();
  EXPECT_EQ(FilesInColdStore, 4);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 4);
  for (int i = 0; i < 2; ++i) CreateWithItem();
  EXPECT_EQ(FilesInColdStore, 5);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 5);
  // The evicted file's free-map item went with it.
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items + 5);
}

TEST_F(ColdStoreFilesTest, FrozenFileReplacedByAnotherProcessIsOpenedAnew) {
  const sfl_ItemRef itemRef = CreateWithItem();
  ASSERT_EQ(FilesInColdStore, 1);
  sfl_ItemRef fileRef = itemRef;
  fileRef.Flags = static_cast<uint16_t>(fileRef.Flags & ~SFL_ITEM_NUM_MASK);
  const std::string path = PathOf(fileRef);

  // Another process replaces the file by a copy under the same name.
  ASSERT_EQ(sfltest::RunInChild([&] {
              const std::string tmp = path + ".copy";
              std::filesystem::copy_file(path, tmp);
              return ::rename(tmp.c_str(), path.c_str()) == 0 ? 0 : 1;
            }),
            0);
  struct stat now;
  ASSERT_EQ(::stat(path.c_str(), &now), 0);

  const int32_t item = sfl_OpenItem(&itemRef, 0);
  sfl_ItemRec* rec = sfl_ItemHandle2Record(item);
  struct stat used;
  ASSERT_EQ(::fstat(rec->BaseRecord->FileDes, &used), 0);
  EXPECT_EQ(used.st_ino, now.st_ino);
  EXPECT_EQ(FilesInColdStore, 0);
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 1);
  sfl_CloseItem(item);
}

TEST_F(ColdStoreFilesTest, FrozenFileIsRevivedByTheNextItemOpen) {
  const sfl_ItemRef itemRef = CreateWithItem();
  ASSERT_EQ(FilesInColdStore, 1);
  sfl_ItemRef fileRef = itemRef;
  fileRef.Flags = static_cast<uint16_t>(fileRef.Flags & ~SFL_ITEM_NUM_MASK);
  sfl_BaseRec* before = nullptr;
  // Find the cold record without touching it.
  for (size_t i = 0; i < sfl_OpenFiles().HighWater(); ++i) {
    sfl_BaseRec* r = sfl_OpenFiles().At(i);
    if (r->InUse && r->InColdStore) before = r;
  }
  ASSERT_NE(before, nullptr);
  const int fd = before->FileDes;
  const int32_t item = sfl_OpenItem(&itemRef, 0);
  sfl_ItemRec* rec = sfl_ItemHandle2Record(item);
  EXPECT_EQ(rec->BaseRecord, before);
  EXPECT_EQ(before->FileDes, fd);
  EXPECT_EQ(FilesInColdStore, 0);
  EXPECT_EQ(before->InColdStore, 0u);
  sfl_CloseItem(item);
}

TEST_F(ColdStoreFilesTest, RevivalThatCannotRecordTheInterestLeavesTheFileCold) {
  const sfl_ItemRef itemRef = CreateWithItem();
  sfl_ItemRef fileRef = itemRef;
  fileRef.Flags = static_cast<uint16_t>(fileRef.Flags & ~SFL_ITEM_NUM_MASK);
  ASSERT_EQ(FilesInColdStore, 1);
  os_FailNth(os_Op::Msgrcv, 1, EIO, 3);  // the interest service's answer is lost, every try
  sfl_BaseRec* rec = nullptr;
  Raised r = RaisedBy([&] { sfl_CheckFileAccessed(&fileRef, &rec, nullptr, 1, nullptr); });
  os_ClearFaults();
  EXPECT_NE(r.reason, 0);
  EXPECT_EQ(FilesInColdStore, 1);
  sfl_BaseRec* cold = nullptr;
  for (size_t i = 0; i < sfl_OpenFiles().HighWater(); ++i)
    if (sfl_OpenFiles().At(i)->InUse) cold = sfl_OpenFiles().At(i);
  ASSERT_NE(cold, nullptr);
  EXPECT_EQ(cold->InColdStore, 1u);
  EXPECT_EQ(cold->ExternalOpens, 0);
}

// ---- activation -----------------------------------------------------------------------------

TEST_F(ColdStoreFilesTest, DeactivatingTheLastActiveItemShutsTheFile) {
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef r1{}, r2{};
  const int32_t i1 = sfl_StoreBasicItem(base, nullptr, 64, &r1, 0);
  const int32_t i2 = sfl_StoreBasicItem(base, nullptr, 64, &r2, 0);
  sfl_BaseRec* rec = sfl_Handle2Record(base);
  sfl_DeActivate(i1);
  EXPECT_GE(rec->FileDes, 0);  // i2 is still active
  const int fd = rec->FileDes;
  sfl_DeActivate(i2);
  EXPECT_EQ(rec->FileDes, -1);
  EXPECT_FALSE(DescriptorOpen(fd));
  EXPECT_EQ(sfl_OpenItems().Lookup(i1)->Deactivated, 1u);

  sfl_Activate(i1);
  EXPECT_GE(rec->FileDes, 0);
  EXPECT_EQ(sfl_OpenItems().Lookup(i1)->Deactivated, 0u);
  char buf[8];
  EXPECT_EQ(sfl_ReadSimpleData(i1, 0, sizeof buf, buf), static_cast<int32_t>(sizeof buf));

  // A shut descriptor is reopened on demand by the base routines.
  sfl_DeActivate(i1);
  ASSERT_EQ(rec->FileDes, -1);
  sfl_EnsureBaseFileOpen(base);
  EXPECT_GE(rec->FileDes, 0);
  sfl_ShutDownBaseFile(base);
  rec->StructUnsynced = 1;
  sfl_SyncBaseFile(base);
  EXPECT_GE(rec->FileDes, 0);

  sfl_CloseItem(i1);
  sfl_CloseItem(i2);
  sfl_CloseFile(base);
}

TEST_F(ColdStoreFilesTest, InternalItemsCannotBeActivated) {
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_BaseRec* rec = sfl_Handle2Record(base);
  ASSERT_NE(rec->FreeMapHandle, 0);
  sfl_ItemRec* map = sfl_OpenItems().Lookup(rec->FreeMapHandle);
  const uint32_t flags = map->Flags;
  map->Flags |= INT_ITEM;
  Raised r = RaisedBy([&] { sfl_Activate(rec->FreeMapHandle); });
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_ACTIVATE_INT);
  EXPECT_EQ(RaisedBy([&] { sfl_DeActivate(rec->FreeMapHandle); }).reason, SFL_R_ACTIVATE_INT);
  EXPECT_GE(rec->FileDes, 0);
  map->Flags = flags;
  sfl_CloseFile(base);
}

// ---- error frames of the base operations ----------------------------------------------------

bool HeaderLockedElsewhere(const std::string& path) { return sfltest::LockStateElsewhere(path, 0, 4096) == 1; }

TEST_F(ColdStoreFilesTest, FailedOpenLeavesNoLockAndNoEntry) {
  const sfl_ItemRef itemRef = CreateWithItem();
  sfl_ItemRef fileRef = itemRef;
  fileRef.Flags = static_cast<uint16_t>(fileRef.Flags & ~SFL_ITEM_NUM_MASK);
  const std::string path = PathOf(fileRef);
  // Drop the cold copy so the open starts from nothing.
  sfl_CheckFileAccessed(&fileRef, nullptr, nullptr, 0, nullptr);
  const int files = sfl_OpenFiles().InUseCount();
  const int items = sfl_OpenItems().InUseCount();
  // The open reads the file header and item 0's header, both under the
  // header lock; the third case fails the open of the descriptor itself.
  for (unsigned nth = 1; nth <= 3; ++nth) {
    if (nth < 3) os_FailNth(os_Op::Pread, nth, EIO);
    else os_FailNth(os_Op::Open, 1, EACCES);
    Raised r = RaisedBy([&] { sfl_OpenSfl(&fileRef, 0); });
    os_ClearFaults();
    EXPECT_NE(r.reason, 0) << nth;
    EXPECT_FALSE(HeaderLockedElsewhere(path)) << nth;
    EXPECT_EQ(sfl_OpenFiles().InUseCount(), files) << nth;
    EXPECT_EQ(sfl_OpenItems().InUseCount(), items) << nth;
  }
  const int32_t base = sfl_OpenSfl(&fileRef, 0);
  EXPECT_FALSE(HeaderLockedElsewhere(path));
  sfl_CloseFile(base);
}

TEST_F(ColdStoreFilesTest, FailedCreateLeavesNoEntry) {
  const int files = sfl_OpenFiles().InUseCount();
  const int items = sfl_OpenItems().InUseCount();
  for (unsigned nth = 1; nth <= 2; ++nth) {
    os_FailNth(os_Op::Pwrite, nth, EIO);
    Raised r = RaisedBy([&] { sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0); });
    os_ClearFaults();
    EXPECT_EQ(r.reason, SFL_R_SHORT_WRITE) << nth;
    EXPECT_EQ(sfl_OpenFiles().InUseCount(), files) << nth;
    EXPECT_EQ(sfl_OpenItems().InUseCount(), items) << nth;
  }
}

TEST_F(ColdStoreFilesTest, ShortFileAndWrongVersionAreRefusedOnOpen) {
  for (int variant = 0; variant < 2; ++variant) {
    const sfl_ItemRef itemRef = CreateWithItem();
    sfl_ItemRef fileRef = itemRef;
    fileRef.Flags = static_cast<uint16_t>(fileRef.Flags & ~SFL_ITEM_NUM_MASK);
    const std::string path = PathOf(fileRef);
    sfl_CheckFileAccessed(&fileRef, nullptr, nullptr, 0, nullptr);  // drop the cold copy
    if (variant == 0) {
      ASSERT_EQ(::truncate(path.c_str(), 100), 0);
    } else {
      int fd = ::open(path.c_str(), O_RDWR);
      const uint8_t one[4] = {1, 0, 0, 0};
      ASSERT_EQ(::pwrite(fd, one, 4, 12), 4);  // HeaderVersion 1
      ::close(fd);
    }
    const int files = sfl_OpenFiles().InUseCount();
    Raised r = RaisedBy([&] { sfl_OpenSfl(&fileRef, 0); });
    EXPECT_EQ(r.group, ER_GROUP_SFL);
    EXPECT_EQ(r.reason, variant == 0 ? SFL_R_SHORT_READ : SFL_R_BAD_FILE);
    EXPECT_EQ(sfl_OpenFiles().InUseCount(), files);
    EXPECT_FALSE(HeaderLockedElsewhere(path));
  }
}

}  // namespace

namespace {

// One file is named by Domain, SubDomain, FileId and name tag together (the
// item number is not part of it): two references that differ in any one of
// them name different files.
TEST(SameFile, EveryPartOfTheNameCountsAndTheItemNumberDoesNot) {
  sfl_ItemRef a{};
  a.Domain = 2;
  a.SubDomain = 17;
  a.FileId = 4113;
  std::memcpy(a.Name, "abc", 3);
  sfl_ItemRef b = a;
  b.Flags = 5;  // item 5 of the file
  EXPECT_TRUE(sfl_SameFile(a, b));
  for (int part = 0; part < 4; ++part) {
    sfl_ItemRef c = a;
    if (part == 0) c.Domain = 3;
    if (part == 1) c.SubDomain = 18;
    if (part == 2) c.FileId = 4114;
    if (part == 3) c.Name[2] = 'd';
    EXPECT_FALSE(sfl_SameFile(a, c)) << part;
    EXPECT_FALSE(sfl_SameFile(c, a)) << part;
  }
}

}  // namespace
