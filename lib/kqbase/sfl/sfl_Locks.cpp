// Byte-range locks over a container's records and item data, and the sync
// policy that decides after each change whether the file is flushed.
//
// Each record is locked by exactly its own bytes; these ranges are the
// protocol between processes. A lock routine returns 1 when it holds the
// lock; its unlock returns the negation of the release's result, so a caller
// keeps one "held" variable and releases only what is still marked held.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "cust.h"
#include "im.h"
#include "os.h"
#include "sfl_int.h"

namespace {

constexpr uint32_t kHeaderLockLen = SFL_FILE_HEADER_SIZE;   // 0..127
constexpr uint32_t kItemHeaderLockLen = SFL_ITEM_HEADER_SIZE;
constexpr uint32_t kIndexLockLen = SFL_INDEX_SIZE;

int lockRange(int fd, int mode, uint64_t offset, uint64_t length) {
  return os_TryLockPart(fd, mode, SEEK_SET, static_cast<uint32_t>(offset),
                        static_cast<uint32_t>(offset >> 32), static_cast<uint32_t>(length),
                        static_cast<uint32_t>(length >> 32));
}

// ---- holds of the record locks ------------------------------------------------
// Record locks belong to the open file description, and such locks do not
// nest: taking a range a second time converts the lock already held (an
// inner shared lock downgrades an outer exclusive one) and one release drops
// it whatever was taken before. The library does take a record's range
// inside an outer holder of the same range (a slot lock around the item
// header lock of the same slot), so this layer keeps, per descriptor and
// range, the modes of every hold in the order they were taken: only the
// first hold and a stronger inner one reach the system, and a release puts
// the range back to what the remaining holds need.
struct RangeHolds {
  int fd;
  uint64_t offset;
  uint64_t length;
  std::vector<int32_t> modes;  // innermost last
};
std::vector<RangeHolds> g_holds;

int32_t strongest(const std::vector<int32_t>& modes) {
  int32_t m = 0;
  for (int32_t x : modes) m = std::max(m, x);
  return m;
}

RangeHolds* findHolds(int fd, uint64_t offset, uint64_t length) {
  for (RangeHolds& h : g_holds)
    if (h.fd == fd && h.offset == offset && h.length == length) return &h;
  return nullptr;
}

int32_t releaseRange(int fd, uint64_t offset, uint64_t length);

int32_t holdRange(int fd, int32_t mode, uint64_t offset, uint64_t length) {
  if (mode == SFL_LOCK_RELEASE) return releaseRange(fd, offset, length);
  RangeHolds* h = findHolds(fd, offset, length);
  const int32_t current = h != nullptr ? strongest(h->modes) : 0;
  if (mode > current && lockRange(fd, mode, offset, length) == 0) return 0;
  if (h == nullptr) {
    g_holds.push_back(RangeHolds{fd, offset, length, {}});
    h = &g_holds.back();
  }
  h->modes.push_back(mode);
  return 1;
}

// Returns 1 when this hold was released (the range itself may stay locked
// for the holds around it).
int32_t releaseRange(int fd, uint64_t offset, uint64_t length) {
  RangeHolds* h = findHolds(fd, offset, length);
  if (h == nullptr) return lockRange(fd, SFL_LOCK_RELEASE, offset, length);
  const int32_t before = strongest(h->modes);
  h->modes.pop_back();
  const int32_t after = strongest(h->modes);
  // The hold is gone from the books before the system is asked: a release
  // that fails leaves nothing here claiming a lock.
  if (h->modes.empty()) g_holds.erase(g_holds.begin() + (h - g_holds.data()));
  if (after == before) return 1;
  const int32_t mode = after == 0 ? SFL_LOCK_RELEASE : after;
  // A release (or downgrade) that fails is tried once more before the
  // failure passes on: a lock left behind shuts other processes out until
  // the descriptor closes.
  return er_Retry(2, [&] { return lockRange(fd, mode, offset, length); });
}

int baseFd(const sfl_ItemRec* item) {
  return item->BaseRecord != nullptr ? item->BaseRecord->FileDes : -1;
}

// Exported range locks try once: a range held elsewhere is reported as
// refused rather than waited for (the caller may hold other locks).
int tryMode(int32_t mode) { return mode == SFL_LOCK_RELEASE ? mode : (mode | OS_LOCK_NOWAIT); }

void countLock(sfl_ItemRec* item, int32_t mode) {
  if (mode != SFL_LOCK_RELEASE) {
    ++item->LockCount;
    item->LockedEver = 1;
  } else if (item->LockCount > 0) {
    --item->LockCount;
  }
}

// ---- sync state -------------------------------------------------------------
uint32_t g_allAsync = 0;
uint32_t g_allSync = 0;
bool g_configRead = false;

void readSyncConfig() {
  if (cust_GetCustomiseInfo("SFL_ALL_ASYNC_IO") != nullptr) g_allAsync = 1;
  if (cust_GetCustomiseInfo("SFL_ALL_SYNC_IO") != nullptr) {
    g_allSync = 1;
    g_allAsync = 0;  // sync wins
  }
  g_configRead = true;
}

enum class Sets { Nothing, Structure, Data };
struct EventRule {
  Sets sets;
  int32_t cls;
};

EventRule ruleFor(int32_t event) {
  switch (event) {
    case 1: case 7: return {Sets::Structure, 400};
    case 2: case 15: return {Sets::Nothing, 800};
    case 3: return {Sets::Nothing, 4000};
    case 4: case 14: case 25: return {Sets::Nothing, 8000};
    case 5: return {Sets::Structure, 600};
    case 24: return {Sets::Nothing, 600};
    case 6: case 10: case 11: case 12: case 19: case 20: case 23: return {Sets::Structure, 6000};
    case 8: case 9: case 17: case 18: case 28: return {Sets::Structure, 4000};
    case 16: case 22: return {Sets::Data, 8000};
    case 26: return {Sets::Nothing, 2000};
    case 27: return {Sets::Nothing, 200};
    default: return {Sets::Nothing, 6000};
  }
}

// The marks are cleared only once the flush has succeeded. A flush that
// fails raises and leaves the file marked unsynced (structure, when nothing
// was marked yet), so that the next chance flushes it again.
//
// A file that nothing has been written to through this record since its
// last successful flush is already as durable as a flush would make it:
// the flush is skipped. Several events often follow one write (a search
// reports every record it passed, a close follows a read), and each of
// them would otherwise cost a disk round trip for nothing. An explicit
// request (`always`) flushes regardless: the caller may have written to the
// file some other way, through a stream for instance.
void flush(sfl_BaseRec* rec, bool always) {
  if (!always && rec->Unflushed == 0) {
    rec->StructUnsynced = 0;
    rec->DataUnsynced = 0;
    return;
  }
  if (os_fdatasync(rec->FileDes) != 0) {
    const int err = errno;
    if (rec->StructUnsynced == 0 && rec->DataUnsynced == 0) rec->StructUnsynced = 1;
    ER_RAISE(ER_GROUP_OS, err);
  }
  rec->StructUnsynced = 0;
  rec->DataUnsynced = 0;
  rec->Unflushed = 0;
  if (rec->EntryUnflushed != 0) {
    sfl_FlushEntryOf(sfl_RefOf(*rec));
    rec->EntryUnflushed = 0;
  }
}

bool itemSwitchesOff(const sfl_ItemRec* item) {
  return item != nullptr && item->ItemUserNoSync == 0 && item->LibItmNoSync == 0;
}

}  // namespace

// ---- record locks -------------------------------------------------------------

int32_t sfl_LockHeader(sfl_BaseRec* rec, int32_t mode) {
  return holdRange(rec->FileDes, mode, 0, kHeaderLockLen);
}

int32_t sfl_UnlockHeader(sfl_BaseRec* rec) {
  return !releaseRange(rec->FileDes, 0, kHeaderLockLen);
}

int32_t sfl_LockItemHeader(sfl_ItemRec* item, int32_t mode) {
  if (item->Flags & OTHER_LOCKS) return 0;
  return holdRange(baseFd(item), mode, item->HeaderOff, kItemHeaderLockLen);
}

int32_t sfl_UnLockItemHeader(sfl_ItemRec* item) {
  if (item->Flags & OTHER_LOCKS) return 0;
  return !releaseRange(baseFd(item), item->HeaderOff, kItemHeaderLockLen);
}

int32_t sfl_LockAnIntHeader(sfl_BaseRec* rec, uint32_t offset, int32_t mode) {
  return holdRange(rec->FileDes, mode, offset, kItemHeaderLockLen);
}

int32_t sfl_UnLockAnIntHeader(sfl_BaseRec* rec, uint32_t offset) {
  return !releaseRange(rec->FileDes, offset, kItemHeaderLockLen);
}

int32_t sfl_LockAnIndex(sfl_ItemRec* item, uint32_t offset, int32_t mode) {
  return holdRange(baseFd(item), mode, offset, kIndexLockLen);
}

int32_t sfl_UnLockAnIndex(sfl_ItemRec* item, uint32_t offset) {
  return !releaseRange(baseFd(item), offset, kIndexLockLen);
}

int sfl_RecordLocksHeld() { return static_cast<int>(g_holds.size()); }

void sfl_ForgetRecordLocks() { g_holds.clear(); }

// ---- caller locks on item data ----------------------------------------------------

int32_t sfl_LockSflItem(int32_t itemHandle, int32_t mode, int16_t whence, int64_t offset,
                        int64_t length) {
  ER_TRACE_PROC("sfl_LockSflItem");
  if (whence != 0) ER_RAISE(ER_GROUP_CALL, 38);
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  // The range is held to the item whichever way its length points: a
  // negative length covers the bytes before the offset, and an end below
  // zero would reach back into the file header and item table, which every
  // other process needs to lock. Such a range is refused like one ending
  // past the item.
  const int64_t end = static_cast<int64_t>(static_cast<uint64_t>(offset) + static_cast<uint64_t>(length));
  const int64_t first = std::min(offset, end);
  const int64_t last = std::max(offset, end);
  if (first < 0 || (last >> 32) > 0 || last > static_cast<int64_t>(item->Size))
    SFL_RAISE(SFL_R_RANGE);
  // A length of 0 names no bytes; the system would take it as "to the end
  // of the file". Nothing needs locking, so it is granted as it is.
  if (length == 0) return 1;
  const uint64_t start = static_cast<uint64_t>(item->Offset) + static_cast<uint64_t>(offset);
  int32_t got = lockRange(baseFd(item), tryMode(mode), start, static_cast<uint64_t>(length));
  if (got == 0) return 0;
  countLock(item, mode);
  return got;
}

int32_t sfl_flock(int32_t itemHandle, int32_t mode) {
  ER_TRACE_PROC("sfl_flock");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  // An empty item has no bytes to lock; a length of 0 would be taken by the
  // system as "to the end of the file" (from offset 0 for an item without
  // space: the whole file, its header included).
  if (item->Size == 0) return 0;
  if (lockRange(baseFd(item), tryMode(mode), item->Offset, item->Size) == 0) return 11;
  countLock(item, mode);
  return 0;
}

// ---- sync policy --------------------------------------------------------------------

bool sfl_FlushesFile(sfl_BaseRec* rec) {
  if (g_allAsync == 1 || (rec->FileFlags & ASYNCHRONOUS) != 0) return false;
  if (!g_configRead) readSyncConfig();
  return g_allAsync == 0 && rec->Domain != 5;
}

void sfl_FlushBeforeMark(sfl_BaseRec* rec, sfl_ItemRec* item) {
  if (sfl_FlushesFile(rec) && rec->UserAsync == 0 && (item == nullptr || itemSwitchesOff(item)))
    flush(rec, false);
}

void sfl_FlushEntryOf(const sfl_ItemRef& ref) {
  char path[4096];
  im_GetRealFileName(&ref, path, sizeof path);
  std::string dir(path);
  const size_t slash = dir.find_last_of('/');
  dir = slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
  if (os_FsyncDir(dir.c_str()) != 0) ER_RAISE_MSG(ER_GROUP_OS, errno, dir.c_str());
}

void sfl_ConsiderSync(sfl_BaseRec* rec, sfl_ItemRec* item, int32_t event) {
  if (g_allAsync == 1) return;
  if (rec == nullptr && item != nullptr) rec = item->BaseRecord;
  if (rec == nullptr) return;
  if (rec->FileFlags & ASYNCHRONOUS) return;
  if (!g_configRead) {
    readSyncConfig();
    if (g_allAsync == 1) return;
  }
  if (rec->Domain == 5) return;
  const bool always = event == SFL_EV_SYNC;
  if (g_allSync == 1) {
    flush(rec, always);
    return;
  }
  EventRule rule = ruleFor(event);
  if (rule.sets == Sets::Structure) rec->StructUnsynced = 1;
  if (rule.sets == Sets::Data) rec->DataUnsynced = 1;
  int32_t cls = rule.cls;
  if (item == nullptr && cls > 1000) cls /= 10;

  const bool quiet = rec->NewlyCreated == 0;
  const bool userSync = rec->UserAsync == 0;
  switch (cls) {
    case 200:
      if (quiet && rec->StructUnsynced == 1) flush(rec, always);
      break;
    case 400:
      if (quiet && userSync && rec->StructUnsynced == 1) flush(rec, always);
      break;
    case 2000:
      if (quiet && userSync && itemSwitchesOff(item) &&
          (rec->StructUnsynced == 1 || rec->DataUnsynced == 1))
        flush(rec, always);
      break;
    case 4000:
      if (quiet && userSync && itemSwitchesOff(item) && rec->StructUnsynced == 1)
        flush(rec, always);
      break;
    default:  // 600, 800, 6000, 8000: never at once
      break;
  }
}

uint32_t sfl_SetAllAsync(uint32_t value) {
  uint32_t old = g_allAsync;
  g_allAsync = value;
  return old;
}

void sfl_ResetSyncConfig() {
  g_allAsync = 0;
  g_allSync = 0;
  g_configRead = false;
}

void sfl_SyncData(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_SyncData");
  sfl_ConsiderSync(nullptr, sfl_ItemHandle2Record(itemHandle), SFL_EV_SYNC);
}

void sfl_SyncBaseFile(int32_t baseHandle) {
  ER_TRACE_PROC("sfl_SyncBaseFile");
  sfl_EnsureBaseFileOpen(baseHandle);
  sfl_ConsiderSync(sfl_Handle2Record(baseHandle), nullptr, SFL_EV_SYNC);
}

uint32_t sfl_SetFileUserNoSync(int32_t itemHandle, uint32_t value) {
  sfl_BaseRec* rec = sfl_ItemHandle2Record(itemHandle)->BaseRecord;
  uint32_t old = rec->UserAsync;
  rec->UserAsync = value;
  return old;
}

uint32_t sfl_SetItemUserNoSync(int32_t itemHandle, uint32_t value) {
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  uint32_t old = item->ItemUserNoSync;
  item->ItemUserNoSync = value;
  return old;
}

uint32_t sfl_SetlibItmNoSync(int32_t itemHandle, uint32_t value) {
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  uint32_t old = item->LibItmNoSync;
  item->LibItmNoSync = value;
  return old;
}
