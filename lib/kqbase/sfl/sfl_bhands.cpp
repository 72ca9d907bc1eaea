// The open-files table of this process (base handles 7000 upwards), the
// counting of item handles per file, and the cold store that keeps closed
// files' descriptors open for quick reuse.
#include <cstdlib>
#include <cstring>

#include "cust.h"
#include "os.h"
#include "sfl_alone.h"
#include "sfl_int.h"

int32_t FilesInColdStore = 0;
uint32_t FrozenCount = 0;

namespace {

int32_t g_coldStoreSize = -1;  // -1 until read

// Eviction starts only above this many cold files, whatever the configured
// size; a configured size below five thus still lets the store reach five.
constexpr int32_t kEvictAbove = 4;

// Closes a cold file for good: its free-map item, its descriptor, its entry.
void closeForGood(sfl_BaseRec* rec) {
  if (!(rec->FileFlags & SINGLE_FILE) && rec->FreeMapHandle != 0) {
    try {
      sfl_CloseIntItem(rec->FreeMapHandle);
    } catch (const er_Escape&) {
      // The descriptor and the entry must go even so; the failure is logged.
      er_Accept(5);
    }
  }
  if (rec->FileDes >= 0) os_close(rec->FileDes);
  rec->FileDes = -1;
  sfl_DeleteOSerFile(rec);
  --FilesInColdStore;
}

}  // namespace

sfl_FilesTable& sfl_OpenFiles() {
  // Never destroyed: records may be used from handlers running at exit.
  static sfl_FilesTable* table = (sfl_InstallForkHandler(), new sfl_FilesTable);
  return *table;
}

// ---- references -------------------------------------------------------------------

bool sfl_SameFile(const sfl_ItemRef& a, const sfl_ItemRef& b) {
  return a.FileId == b.FileId && a.SubDomain == b.SubDomain && a.Domain == b.Domain &&
         std::strncmp(a.Name, b.Name, sizeof a.Name) == 0;
}

// ---- the table ------------------------------------------------------------------------

sfl_BaseRec* sfl_GetNewOFilesEntry(int32_t* baseHandle) {
  sfl_BaseRec* rec = sfl_OpenFiles().Take(baseHandle, SFL_R_FILES_FULL);
  rec->FileDes = -1;
  return rec;
}

sfl_BaseRec* sfl_Handle2Record(int32_t baseHandle) { return sfl_OpenFiles().Lookup(baseHandle); }

void sfl_DeleteOSerFile(sfl_BaseRec* rec) { sfl_OpenFiles().Release(rec); }

void sfl_GetSerFileItem(int32_t baseHandle, sfl_ItemRef* out) {
  SFL_NEED_ARG(out);
  *out = sfl_RefOf(*sfl_Handle2Record(baseHandle));
}

int32_t sfl_IncIntItems(int32_t baseHandle) {
  return ++sfl_Handle2Record(baseHandle)->IntItemsOpen;
}

int32_t sfl_DecIntItems(int32_t baseHandle) {
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  if (rec->IntItemsOpen > 0) return --rec->IntItemsOpen;
  ER_LOG(5, ER_GROUP_SFL, SFL_R_INT_ITEMS_NEGATIVE, "open-item count of base handle %d is already 0",
         baseHandle);
  return 0;
}

// ---- finding this process's record of a file ------------------------------------------

int32_t sfl_CheckFileAccessed(const sfl_ItemRef* ref, sfl_BaseRec** recOut, int32_t* baseHandle,
                              int32_t revive, int32_t* revived) {
  ER_TRACE_PROC("sfl_CheckFileAccessed");
  if (recOut != nullptr) *recOut = nullptr;
  if (baseHandle != nullptr) *baseHandle = -1;
  if (revived != nullptr) *revived = 0;
  sfl_FilesTable& table = sfl_OpenFiles();
  for (size_t i = 0; i < table.HighWater(); ++i) {
    sfl_BaseRec* rec = table.At(i);
    if (rec == nullptr || rec->InUse != 1 || !sfl_SameFile(sfl_RefOf(*rec), *ref)) continue;
    const int32_t handle = sfl_FilesTable::kFirst + static_cast<int32_t>(i);
    if (rec->InColdStore) {
      if (revive != 1) {
        closeForGood(rec);
        return 0;
      }
      // The revival records the interest under the shared header lock, as an
      // open does: a process deciding under the exclusive lock whether it is
      // the file's only user (to delete an item at once, or to release
      // pending deletions and unlink at its last close) has either finished,
      // or sees this interest.
      sfl_Held header;
      header.Header(rec, SFL_LOCK_SHARED);
      // A frozen file that was removed or replaced since is not revived:
      // its name must still lead to it (checked under the lock, which keeps
      // the name where it is).
      if (!sfl_HoldsNamedFile(rec->FileDes, *ref)) {
        header.Unlock();
        closeForGood(rec);
        return 0;
      }
      // The interest goes first: if it cannot be recorded the record stays
      // cold and counted, as it was.
      sfl_RecordBaseInterest(rec);
      header.Unlock();
      rec->InColdStore = 0;
      --FilesInColdStore;
      ++rec->ExternalOpens;
      rec->OpenMode = 1;
      if (revived != nullptr) *revived = 1;
    }
    if (recOut != nullptr) *recOut = rec;
    if (baseHandle != nullptr) *baseHandle = handle;
    return 1;
  }
  return 0;
}

// ---- the cold store -----------------------------------------------------------------------

int32_t sfl_ColdStoreSize() {
  if (g_coldStoreSize == -1) {
    const char* v = cust_GetCustomiseInfo("SFL_COLD_STORE_SIZE");
    int32_t size = v != nullptr ? std::atoi(v) : 5;
    g_coldStoreSize = size < 1 ? 1 : size;
  }
  return g_coldStoreSize;
}

void sfl_ResetColdStoreSize() { g_coldStoreSize = -1; }

void sfl_ReturnToColdStore(int32_t baseHandle) {
  ER_TRACE_PROC("sfl_ReturnToColdStore");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  if (rec->ExternalOpens > 0) --rec->ExternalOpens;
  rec->InColdStore = 1;
  ++FilesInColdStore;
  sfl_ReleaseBaseInterest(rec);
  sfl_OrphanIntItems(rec);
}

// Evicts the cold file with the smallest freeze sequence. A candidate whose
// sequence is 0 is always replaced by a later cold record, so a file frozen
// with sequence 0 goes only when it is the last cold record in table order.
void sfl_MakeRoomInColdStore(void) {
  ER_TRACE_PROC("sfl_MakeRoomInColdStore");
  if (FilesInColdStore <= kEvictAbove) return;
  sfl_FilesTable& table = sfl_OpenFiles();
  sfl_BaseRec* victim = nullptr;
  for (size_t i = 0; i < table.HighWater(); ++i) {
    sfl_BaseRec* rec = table.At(i);
    if (rec == nullptr || rec->InUse != 1 || !rec->InColdStore) continue;
    if (victim == nullptr || rec->FreezeSeq < victim->FreezeSeq || victim->FreezeSeq == 0)
      victim = rec;
  }
  if (victim == nullptr) {
    FilesInColdStore = 0;  // the count had drifted
    return;
  }
  closeForGood(victim);
}

void sfl_EnterColdStore(sfl_BaseRec* rec) {
  if (FilesInColdStore >= sfl_ColdStoreSize()) sfl_MakeRoomInColdStore();
  rec->InColdStore = 1;
  rec->FreezeSeq = FrozenCount++;
  ++FilesInColdStore;
  sfl_OrphanIntItems(rec);
}
