// Item handles: the per-process open-items table, opening an item by its
// reference (opening its container on the way), closing it, attach and
// detach counting, status, existence, change time, deletion (at once or
// pending) and freezing of the header and index caches.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "im.h"
#include "mdc.h"
#include "os.h"
#include "sfl_alone.h"
#include "sfl_int.h"

sfl_ItemsTable& sfl_OpenItems() {
  static sfl_ItemsTable table;
  return table;
}

namespace {


// Opens an item by reference. keepPosition leaves CurrPos alone on a second
// open (attach, detach, stat and exists open and close around the caller's
// own handle and must not move its serial position).
int32_t OpenItemRef(const sfl_ItemRef* ref, uint32_t allowSecondOpen, uint32_t keepPosition) {
  char name[PATH_MAX];
  int32_t itemNum = im_GetRealFileName(ref, name, sizeof name);
  if (itemNum < 1 || itemNum > 7) SFL_RAISE(SFL_R_NO_ITEM);

  sfl_ItemRef fileRef = *ref;
  fileRef.Flags = static_cast<uint16_t>(fileRef.Flags & ~SFL_ITEM_NUM_MASK);
  sfl_BaseRec* rec = nullptr;
  int32_t baseHandle = -1;
  int32_t revived = 0;
  bool openedHere = false;
  if (sfl_CheckFileAccessed(&fileRef, &rec, &baseHandle, 1, &revived) == 0) {
    baseHandle = sfl_OpenSfl(&fileRef, 1);
    rec = sfl_Handle2Record(baseHandle);
    openedHere = true;
  } else {
    // A file revived from the cold store counts as opened by this open.
    openedHere = revived != 0;
  }
  sfl_ImplicitOpen opened(baseHandle, openedHere);
  if (!openedHere) sfl_EnsureBaseFileOpen(baseHandle);

  sfl_ItemRec* item = nullptr;
  int32_t itemHandle = -1;
  if (sfl_CheckItemAccessed(ref, &item, &itemHandle, baseHandle) != 0) {
    if (allowSecondOpen == 0) SFL_RAISE(SFL_R_ITEM_OPEN);
    sfl_Activate(itemHandle);
    ++item->OpenRefs;
    if (keepPosition == 0) item->CurrPos = 0;
    opened.Commit();
    return itemHandle;
  }
  {
    sfl_Held lock;
    lock.IntHeader(rec, rec->ITableOff + static_cast<uint32_t>(itemNum) * SFL_ITEM_HEADER_SIZE,
                   SFL_LOCK_SHARED);
    itemHandle = sfl_IntOpenItem(rec, baseHandle, static_cast<uint32_t>(itemNum), &item);
  }
  if ((item->Flags & DELETED) != 0 || (item->Offset == 0 && item->Size != 0)) {
    sfl_CloseItem(itemHandle);
    SFL_RAISE(SFL_R_ITEM_DELETED);
  }
  opened.Commit();
  return itemHandle;
}

// An item handle opened for the span of one call.
class CallHandle {
 public:
  explicit CallHandle(const sfl_ItemRef* ref) : handle_(OpenItemRef(ref, 1, 1)) {}
  ~CallHandle() {
    if (handle_ >= 0) sfl_GiveBackQuietly([this] { sfl_CloseItem(handle_); });
  }
  CallHandle(const CallHandle&) = delete;
  CallHandle& operator=(const CallHandle&) = delete;
  int32_t Handle() const { return handle_; }
  // Closes it now; an escape of the close passes on.
  void Close() {
    const int32_t h = handle_;
    handle_ = -1;
    sfl_CloseItem(h);
  }

 private:
  int32_t handle_;
};

// Runs fn on a handle opened for the duration of one call and closes it
// again on every path.
template <class Fn>
auto WithOpenItem(const sfl_ItemRef* ref, Fn fn) {
  CallHandle h(ref);
  auto result = fn(h.Handle());
  h.Close();
  return result;
}

}  // namespace

void sfl_CloseImplicitOpen(int32_t baseHandle) {
  // Closing the item on the way may already have given the file back.
  sfl_FilesTable& table = sfl_OpenFiles();
  sfl_BaseRec* rec = table.At(static_cast<size_t>(baseHandle - sfl_FilesTable::kFirst));
  if (rec == nullptr || rec->InUse != 1 || rec->InColdStore != 0 || rec->ExternalOpens < 1) return;
  sfl_CloseFile(baseHandle);
}

sfl_ItemRec* sfl_GetNewItemEntry(int32_t* itemHandle) {
  return sfl_OpenItems().Take(itemHandle, SFL_R_ITEMS_FULL);
}

// A handle whose file has closed under it is refused as a bad handle: its
// record would otherwise still point at an entry of the open-files table
// that another file may have taken since, and its positions would be
// followed in that file.
sfl_ItemRec* sfl_ItemHandle2Record(int32_t itemHandle) {
  sfl_ItemRec* item = sfl_OpenItems().Lookup(itemHandle);
  if (!sfl_ItemFileLive(item)) ER_RAISE(ER_GROUP_TABLE, SFL_REASON_BAD_HANDLE);
  if (item->BaseRecord != nullptr) sfl_PtrEnsureBaseFileOpen(item->BaseRecord);
  return item;
}

// The last close of a file withdraws this process's interest in it: from
// then on another process may release the parent that holds an internal
// item's header, or the item itself, and reuse the space. An internal item
// left open does not keep the file, so its handle stops here. The file's
// own free-map item is closed with the file and is not touched.
void sfl_OrphanIntItems(const sfl_BaseRec* rec) {
  sfl_ItemsTable& table = sfl_OpenItems();
  for (size_t i = 0; i < table.HighWater(); ++i) {
    sfl_ItemRec* r = table.At(i);
    if (r == nullptr || r->InUse != 1 || r->BaseRecord != rec || r == rec->FreeMapItem) continue;
    if ((r->Flags & INT_ITEM) != 0) r->Orphaned = 1;
  }
}

void sfl_DeleteOSerItem(sfl_ItemRec* item) { sfl_OpenItems().Release(item); }

int32_t sfl_CheckItemAccessed(const sfl_ItemRef* ref, sfl_ItemRec** item, int32_t* itemHandle,
                              int32_t baseHandle) {
  sfl_ItemsTable& table = sfl_OpenItems();
  for (size_t i = 0; i < table.HighWater(); ++i) {
    sfl_ItemRec* r = table.At(i);
    if (r == nullptr || r->InUse != 1) continue;
    if (r->ItemNum == sfl_ItemNumOf(*ref) && r->BaseHandle == baseHandle &&
        sfl_SameFile(sfl_RefOf(*r), *ref)) {
      if (item != nullptr) *item = r;
      if (itemHandle != nullptr) *itemHandle = sfl_ItemsTable::kFirst + static_cast<int32_t>(i);
      return 1;
    }
  }
  if (item != nullptr) *item = nullptr;
  if (itemHandle != nullptr) *itemHandle = -1;
  return 0;
}

int32_t sfl_FindFellowActiveItems(int32_t baseHandle) {
  sfl_ItemsTable& table = sfl_OpenItems();
  for (size_t i = 0; i < table.HighWater(); ++i) {
    sfl_ItemRec* r = table.At(i);
    if (r == nullptr || r->InUse != 1) continue;
    if (r->BaseHandle == baseHandle && (r->Flags & INT_ITEM) == 0 && r->ItemNum != 0 &&
        r->Deactivated == 0)
      return 1;
  }
  return 0;
}

int32_t sfl_IntOpenItem(sfl_BaseRec* rec, int32_t baseHandle, uint32_t itemNum,
                        sfl_ItemRec** out) {
  sfl_NewItemRecord item;
  sfl_BindItem(item.get(), baseHandle, rec);
  item->Domain = rec->Domain;
  item->RefFlags = static_cast<uint16_t>((rec->RefFlags & ~SFL_ITEM_NUM_MASK) |
                                         (itemNum & SFL_ITEM_NUM_MASK));
  item->SubDomain = rec->SubDomain;
  item->FileId = rec->FileId;
  std::memcpy(item->Name, rec->Name, sizeof item->Name);
  item->ItemNum = itemNum;
  item->HeaderOff = rec->ITableOff + itemNum * SFL_ITEM_HEADER_SIZE;
  item->OpenRefs = 1;
  sfl_ItemHeader h;
  sfl_ReadItemHeader(item.get(), &h);
  // The item's run comes from the disk: every byte of it must lie within
  // 32-bit offsets, or a transfer inside the item could reach past them.
  if (uint64_t{h.FileOffset} + h.FileSize > UINT32_MAX) SFL_RAISE(SFL_R_BAD_ITEM_HEADER);
  item->Offset = h.FileOffset;
  item->Size = h.FileSize;
  item->Flags = h.Flags;
  item.Count(baseHandle);
  if (out != nullptr) *out = item.get();
  return item.Commit();
}

int32_t sfl_OpenItem(const sfl_ItemRef* ref, uint32_t allowSecondOpen) {
  ER_TRACE_PROC("sfl_OpenItem");
  return OpenItemRef(ref, allowSecondOpen, 0);
}

void sfl_CloseItem(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_CloseItem");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if (item->OpenRefs > 1) {
    --item->OpenRefs;
    return;
  }

  if (item->LockCount > 0) {
    sfl_ItemRef ref = sfl_RefOf(*item);
    char name[PATH_MAX] = "";
    im_ItemRef2FName(&ref, name, sizeof name);
    ER_LOG(5, ER_GROUP_SFL, SFL_R_CLOSED_WITH_LOCKS, "item %s closed holding %d range locks",
           name, item->LockCount);
  }

  sfl_BaseRec* rec = item->BaseRecord;
  const int32_t baseHandle = item->BaseHandle;
  // What can fail comes before the handle changes: a close that escapes
  // here leaves the handle open, to be closed again.
  // An item detached to no owner is on its way out (its header says
  // DELETED): it is not finished.
  if (item->Incomplete != 0 && item->DeleteOnClose == 0) sfl_FinishStore(item);
  sfl_ConsiderSync(rec, item, SFL_EV_CLOSE);
  // Whatever ranges the caller locked on a simple item go in one release.
  if ((item->Flags & BLOCKED_ITEM) == 0 && item->LockedEver != 0) {
    os_TryLockPart(rec->FileDes, OS_LOCK_RELEASE, SEEK_SET, item->Offset, 0, item->Size, 0);
    item->LockedEver = 0;
    item->LockCount = 0;
  }

  if (item->DeleteOnClose == 1) {
    // The close must complete: a failed deletion check is logged and
    // absorbed, and the caller's error status is left as it was.
    sfl_GiveBackQuietly([&] {
      sfl_ItemHeader h;
      {
        sfl_Held lock;
        lock.ItemHeader(item, SFL_LOCK_SHARED);
        sfl_ReadItemHeader(item, &h);
      }
      if (h.AccCount == 0) sfl_DeleteItem(itemHandle);
    });
  }

  item->OpenRefs = 0;
  const int32_t remaining = sfl_DecIntItems(baseHandle);
  sfl_DeleteOSerItem(item);
  // The free-map item is one of the file's open items, so "1 or less" is
  // reached while it is still open. A close of the file that escapes leaves
  // it open (implicitly), to be closed by its next item's close.
  if (remaining <= 1 && rec->OpenMode != 0) sfl_CloseFile(baseHandle);
}

uint32_t sfl_Attach2OpenItem(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_Attach2OpenItem");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  const sfl_ItemHeader h = sfl_UpdateItemHeader(item, [](sfl_ItemHeader& hd) {
    ++hd.AccCount;
    hd.ChangeDate = mdc_time();
  });
  sfl_ConsiderSync(item->BaseRecord, item, SFL_EV_ATTACH);
  return h.AccCount;
}

uint32_t sfl_DetachOpenItem(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_DetachOpenItem");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  const sfl_ItemHeader h = sfl_UpdateItemHeader(item, [item](sfl_ItemHeader& hd) {
    if (hd.AccCount > 0) {
      --hd.AccCount;
      hd.ChangeDate = mdc_time();
    } else {
      ER_LOG(5, ER_GROUP_SFL, SFL_R_DETACH_ZERO, "detach of item %u with attach count 0",
             item->ItemNum);
    }
    if (hd.AccCount == 0) hd.Flags |= DELETED;
  });
  sfl_ConsiderSync(item->BaseRecord, item, SFL_EV_DETACH);
  // The last close deletes the item if no owner is left by then.
  item->DeleteOnClose = 1;
  return h.AccCount;
}

uint32_t sfl_AttachItem(const sfl_ItemRef* ref) {
  return WithOpenItem(ref, [](int32_t h) { return sfl_Attach2OpenItem(h); });
}

uint32_t sfl_DetachItem(const sfl_ItemRef* ref) {
  return WithOpenItem(ref, [](int32_t h) { return sfl_DetachOpenItem(h); });
}

void sfl_FStatItem(int32_t itemHandle, struct stat* st) {
  ER_TRACE_PROC("sfl_FStatItem");
  SFL_NEED_ARG(st);
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if (os_fstat(item->BaseRecord->FileDes, st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  sfl_ItemHeader h;
  {
    sfl_Held lock;
    lock.ItemHeader(item, SFL_LOCK_SHARED);
    sfl_ReadItemHeader(item, &h);
  }
  st->st_nlink = h.AccCount;
  st->st_size = static_cast<off_t>(h.FileSize);
  st->st_mtim.tv_sec = static_cast<time_t>(h.ChangeDate);
  st->st_mtim.tv_nsec = 0;
}

void sfl_StatItem(const sfl_ItemRef* ref, struct stat* st) {
  WithOpenItem(ref, [st](int32_t h) {
    sfl_FStatItem(h, st);
    return 0;
  });
}

int32_t sfl_ItemExists(const sfl_ItemRef* ref) {
  ER_TRACE_PROC("sfl_ItemExists");
  // Every escape means "no such item" here.
  try {
    CallHandle h(ref);
    h.Close();
    return 1;
  } catch (const er_Escape&) {
    er_Clear();
    return 0;
  }
}

void sfl_ChangeTime(int32_t itemHandle, uint32_t when) {
  ER_TRACE_PROC("sfl_ChangeTime");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  sfl_UpdateItemHeader(item, [when](sfl_ItemHeader& h) { h.ChangeDate = when; });
  sfl_ConsiderSync(item->BaseRecord, item, SFL_EV_CHANGE_TIME);
}

void sfl_IntDeleteItem(sfl_ItemRec* item) {
  sfl_BaseRec* rec = item->BaseRecord;
  sfl_WriteItemHeader(item, sfl_ItemHeader{});  // 64 zero bytes
  sfl_ConsiderSync(rec, item, SFL_EV_WIPED);
  if ((item->Flags & INT_ITEM) != 0) return;
  sfl_FileHeader fh;
  sfl_ReadFileHeader(rec, &fh);
  if (fh.UsedItems > 0) --fh.UsedItems;
  fh.InUseItms = static_cast<uint8_t>(fh.InUseItms & ~(1u << (item->ItemNum & 7)));
  sfl_WriteFileHeader(rec, fh);
  sfl_ConsiderSync(rec, item, SFL_EV_SLOT_RELEASED);
}

void sfl_DeleteItem(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_DeleteItem");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  sfl_BaseRec* rec = item->BaseRecord;
  // A deleted item is never finished: its header goes, or says DELETED,
  // which the check never takes for a store cut short.
  item->Incomplete = 0;
  {
    // Immediate only when this process alone holds the file (its own
    // interest counted) and nothing else in it holds the item; the
    // exclusive use lasts until the item is wiped and its space released.
    sfl_HoldAlone use;
    const bool alone = use.Take(rec, sfl_Interest::Held);
    bool immediate = alone && item->OpenRefs < 2 && rec->ProcAccCount == 1;
    if (immediate) {
      sfl_ItemHeader h;
      {
        sfl_Held lock;
        lock.ItemHeader(item, SFL_LOCK_EXCL);
        sfl_ReadItemHeader(item, &h);
        if (h.AccCount > 0)
          immediate = false;
        else
          sfl_IntDeleteItem(item);
      }
      if (immediate) {
        if ((h.Flags & BLOCKED_ITEM) != 0)
          sfl_DeleteIndexTree(item, h);
        else
          sfl_FreeFreeBlocks(rec, h.FileOffset, h.UsedBlocks);
      }
    }
    if (!immediate) {
      // Pending: the final close of the file, once no other process holds
      // it, releases items marked so. The file says a release is pending
      // before the item says it is deleted: stopped between the two, the
      // close finds nothing to release; the other way round the slot would
      // never be released. (A power cut can keep either unflushed write
      // without the other; the check finds a deleted item in a file that
      // does not say so, and the repair marks the file.)
      sfl_FileHeader fh;
      sfl_ReadFileHeader(rec, &fh);
      if ((fh.Flags & ITEM_PEND_DEL) == 0) {
        fh.Flags |= ITEM_PEND_DEL;
        sfl_WriteFileHeader(rec, fh);
      }
      sfl_UpdateItemHeader(item, [](sfl_ItemHeader& h) { h.Flags |= DELETED; });
      item->Flags |= DELETED;
    }
  }
  sfl_ConsiderSync(rec, item, SFL_EV_DELETE);
}

sfl_ItemRec* sfl_ItemWillNotChange(int32_t itemHandle) {
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  item->Frozen = 1;
  return item;
}

sfl_ItemRec* sfl_ItemMayChange(int32_t itemHandle) {
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  item->Frozen = 0;
  item->HeaderCacheValid = 0;
  item->IndexCacheValid = 0;
  return item;
}

// ---- diagnostic dump ---------------------------------------------------------------

// Prints every record of the open-items table in use, up to the high-water
// mark, on standard error; returns the mark.
int32_t sfl_DumpOpenItems(void) {
  const sfl_ItemsTable& table = sfl_OpenItems();
  for (size_t i = 0; i < table.HighWater() && i < table.Allocated(); ++i) {
    const sfl_ItemRec* item = table.At(i);
    if (item->InUse != 1) continue;
    std::fprintf(stderr, "Entry Number: %5d------------------------------\n",
                 SFL_ITEM_HANDLE_FIRST + static_cast<int>(i));
    std::fprintf(stderr,
                 "BaseHandle %12d, ItemNum %13u, HeaderOff %10x\n"
                 "OpenRefs %14u, Offset %14X, Size %15u\n"
                 "LastIdxBlock %10u, LastIdxOff %10X, CurrPos %10X\n"
                 "Domain %16u, SubDomain %11u, Flags %4u, FileId %10u\n"
                 "Flags %8X\n",
                 item->BaseHandle, item->ItemNum, item->HeaderOff,
                 static_cast<unsigned>(item->OpenRefs), item->Offset, item->Size,
                 item->LastIdxBlock, item->LastIdxOff, item->CurrPos, unsigned{item->Domain},
                 item->SubDomain, unsigned{item->RefFlags}, item->FileId, item->Flags);
  }
  return static_cast<int32_t>(table.HighWater());
}
