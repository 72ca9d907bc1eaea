// Simple items: storing new contiguous items (optionally filled from a data
// file), positional and serial reads and writes, seeking, size changes
// within the reserved run, appending, copying into a new item for the
// compactor, raw details for callers doing their own I/O, and mapping.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <sys/mman.h>
#include <sys/stat.h>

#include "im.h"
#include "mdc.h"
#include "os.h"
#include "sfl_int.h"

namespace {

// Copies and zero fills move data through one buffer of this size.
constexpr uint32_t kChunk = 8192;
using Chunk = std::array<uint8_t, kChunk>;

// Copies up to `size` bytes read serially from `srcFd`, whose position is
// `from`, to the file at `offset`; stops early at the end of the source.
// Returns the bytes copied.
uint32_t CopyIn(sfl_BaseRec* rec, Chunk& buf, int srcFd, uint64_t from, uint32_t offset,
                uint32_t size) {
  uint32_t done = 0;
  while (done < size) {
    size_t want = std::min<uint32_t>(kChunk, size - done);
    ssize_t got = os_read(srcFd, buf.data(), want);
    // A failed read is not the end of the source, nor is an empty one
    // before it: taking either for the end would store zeros in place of
    // the data.
    if (got < 0) ER_RAISE(ER_GROUP_OS, errno);
    if (got == 0) {
      sfl_CheckEndAt(srcFd, from + done);
      break;
    }
    if (sfl_PWrite(rec, buf.data(), static_cast<size_t>(got), uint64_t{offset} + done) != got)
      SFL_RAISE(SFL_R_SHORT_WRITE);
    done += static_cast<uint32_t>(got);
  }
  return done;
}

// Writes zeros from `from` up to `size` bytes of the run at `offset`.
void ZeroFill(sfl_BaseRec* rec, Chunk& buf, uint32_t offset, uint32_t from, uint32_t size) {
  buf.fill(0);
  for (uint32_t done = from; done < size;) {
    size_t n = std::min<uint32_t>(kChunk, size - done);
    if (sfl_PWrite(rec, buf.data(), n, uint64_t{offset} + done) != static_cast<ssize_t>(n))
      SFL_RAISE(SFL_R_SHORT_WRITE);
    done += static_cast<uint32_t>(n);
  }
}

// Closes a descriptor on every path out of a scope.
class FdGuard {
 public:
  explicit FdGuard(int fd) : fd_(fd) {}
  ~FdGuard() {
    if (fd_ >= 0) os_close(fd_);
  }
  FdGuard(const FdGuard&) = delete;
  FdGuard& operator=(const FdGuard&) = delete;

 private:
  int fd_;
};

// Fills a new item-handle record for a freshly stored item, counts it open
// on the file and writes the item's first full header under its lock.
void OpenNewItem(sfl_NewItemRecord& item, sfl_BaseRec* rec, int32_t baseHandle,
                 const sfl_ItemRef* ref, uint32_t itemNum, uint32_t headerOff, uint32_t offset,
                 uint32_t size, uint32_t blocks, uint32_t headerFlags) {
  sfl_BindItem(item.get(), baseHandle, rec);
  if (ref != nullptr) sfl_SetRef(*item.get(), *ref);
  item->ItemNum = itemNum;
  item->HeaderOff = headerOff;
  item->OpenRefs = 1;
  item->Offset = offset;
  item->Size = size;
  item->Flags = 0;
  item->Incomplete = (headerFlags & INCOMPLETE) != 0 ? 1 : 0;
  item.Count(baseHandle);

  sfl_ItemHeader h = sfl_NewItemHeader();
  h.AccCount = 1;
  h.FileSize = size;
  h.UsedBlocks = blocks;
  h.ChangeDate = mdc_time();
  h.FileOffset = offset;
  h.Flags = headerFlags;
  sfl_Held lock;
  lock.ItemHeader(item.get(), SFL_LOCK_EXCL);
  sfl_WriteItemHeader(item.get(), h);
}

}  // namespace

void sfl_FinishStore(sfl_ItemRec* item) {
  // The data first: the header that says the item is whole must not reach
  // the disk before it.
  sfl_FlushBeforeMark(item->BaseRecord, item);
  sfl_UpdateItemHeader(item, [](sfl_ItemHeader& h) { h.Flags &= ~static_cast<uint32_t>(INCOMPLETE); });
  item->Incomplete = 0;
  // A structural change: the close's own sync event flushes it.
  item->BaseRecord->StructUnsynced = 1;
}

int32_t sfl_StoreBasicItem(int32_t baseHandle, const sfl_ItemRef* source, uint32_t size,
                           sfl_ItemRef* out, uint32_t noZeroFill) {
  return sfl_StoreItemAtPosition(baseHandle, source, size, out, noZeroFill, -1);
}

int32_t sfl_StoreItemAtPosition(int32_t baseHandle, const sfl_ItemRef* source, uint32_t size,
                                sfl_ItemRef* out, uint32_t noZeroFill, int32_t wantedItem) {
  ER_TRACE_PROC("sfl_StoreItemAtPosition");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_PtrEnsureBaseFileOpen(rec);

  // What the store takes goes back unless it completes: a failed store
  // leaves the file as it found it.
  sfl_SlotClaim slot;
  if (slot.Take(rec, 0, wantedItem) < 1) return -1;
  const uint32_t slotNum = static_cast<uint32_t>(slot.Slot());

  int srcFd = source != nullptr ? im_OpenItem(source) : -1;
  FdGuard srcGuard(srcFd);
  if (srcFd >= 0 && size == 0) {
    struct stat st;
    if (os_fstat(srcFd, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
    // An item holds at most what 32-bit offsets reach.
    if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) SFL_RAISE(SFL_R_RANGE);
    size = static_cast<uint32_t>(st.st_size);
  }

  const sfl_ItemRef ref = sfl_ItemRefIn(*rec, slotNum);
  if (out != nullptr) *out = ref;

  sfl_SpaceRun run;
  const uint32_t offset = run.Take(rec, size);

  Chunk buf;
  uint32_t done = srcFd >= 0 ? CopyIn(rec, buf, srcFd, 0, offset, size) : 0;
  if (noZeroFill == 0) ZeroFill(rec, buf, offset, done, size);
  sfl_ConsiderSync(rec, nullptr, SFL_EV_STORED);

  // Without a source the item's data is still to come from its storer's
  // writes: until the storing handle's last close flushes them, the header
  // says INCOMPLETE, and a power cut or a crash before then leaves an item
  // the check takes for a store cut short (1050), never one that passes
  // for whole with the zeros (or older bytes) it was stored with.
  sfl_NewItemRecord item;
  OpenNewItem(item, rec, baseHandle, &ref, slotNum,
              rec->ITableOff + slotNum * SFL_ITEM_HEADER_SIZE, offset, size, run.Blocks(),
              srcFd >= 0 ? 0u : static_cast<uint32_t>(INCOMPLETE));
  rec->NewlyCreated = 0;
  sfl_ConsiderSync(rec, item.get(), SFL_EV_NEW_ITEM);
  // The item exists and is open: nothing is given back any more.
  run.Commit();
  slot.Commit();
  return item.Commit();
}

int32_t sfl_AddItemToFile(const sfl_ItemRef* file, uint32_t size, uint32_t noZeroFill,
                          const sfl_ItemRef* source, int32_t passOn, sfl_ItemRef* out) {
  ER_TRACE_PROC("sfl_AddItemToFile");
  SFL_NEED_ARG(file);
  sfl_ItemRef fileRef = *file;
  fileRef.Flags = static_cast<uint16_t>(fileRef.Flags & ~SFL_ITEM_NUM_MASK);
  sfl_BaseRec* rec = nullptr;
  int32_t baseHandle = -1;
  int32_t revived = 0;
  bool openedHere = false;
  if (sfl_CheckFileAccessed(&fileRef, &rec, &baseHandle, 1, &revived) == 0) {
    baseHandle = sfl_OpenSfl(&fileRef, 1);
    openedHere = true;
  } else {
    openedHere = revived != 0;
  }

  sfl_ImplicitOpen opened(baseHandle, openedHere);
  const int32_t handle = sfl_StoreBasicItem(baseHandle, source, size, out, noZeroFill);
  if (handle != -1) {
    opened.Commit();
    return handle;
  }
  opened.Close();
  return im_CopyItem2SflDataItem(out, size, noZeroFill, source, passOn);
}

int32_t sfl_StoreItemWithOpenItem(int32_t itemHandle, uint32_t size, uint32_t noZeroFill,
                                  const sfl_ItemRef* source, int32_t passOn1, sfl_ItemRef* out,
                                  int32_t passOn2) {
  ER_TRACE_PROC("sfl_StoreItemWithOpenItem");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  int32_t handle = sfl_StoreBasicItem(item->BaseHandle, source, size, out, noZeroFill);
  if (handle != -1) return handle;
  return im_GetNewSflItem(out, passOn1, size, SFL_TYPE_DATA_ITEM, passOn2, noZeroFill, source);
}

void sfl_AssociateItemWithBase(int32_t itemHandle) {
  sfl_ItemHandle2Record(itemHandle)->BaseRecord->OpenMode = 1;
}

// A new item's 64-byte header goes where the caller says, so the place is
// checked first (28874, before any space is taken): a user slot of the item
// table (1 and up, on a slot's boundary), or a place in the data area.
// Anywhere else the header would overwrite the file header or the free
// map's slot, or straddle two slots. In a file this process alone knows (a
// rebuild's new file), the map's place and the file's size as this process
// knows them are the file's, so the place must also lie off the map and
// inside the file (a copied item's header: a slot of an internal container
// copied before it), and no header lengthens the file with nothing
// referring to it. In a shared file another process may have moved the map
// since this one looked, so only the fixed places are checked there.
void sfl_CheckHeaderPlace(sfl_BaseRec* rec, uint32_t headerOffset, bool privateFile) {
  const uint64_t at = headerOffset;
  const uint64_t table = rec->ITableOff;
  const uint64_t tableEnd =
      table + uint64_t{std::min<uint32_t>(rec->MaxItems, SFL_CONTAINER_MAX_ITEMS)} * SFL_ITEM_HEADER_SIZE;
  if (at + SFL_ITEM_HEADER_SIZE > table && at < tableEnd) {
    if (at <= table || (at - table) % SFL_ITEM_HEADER_SIZE != 0 || at + SFL_ITEM_HEADER_SIZE > tableEnd)
      SFL_RAISE(SFL_R_RANGE);
    return;
  }
  if (at < rec->DataOff) SFL_RAISE(SFL_R_RANGE);
  if (!privateFile) return;
  const sfl_ItemRec* map = rec->FreeMapItem;
  if (map != nullptr && at < uint64_t{map->Offset} + map->Size && map->Offset < at + SFL_ITEM_HEADER_SIZE)
    SFL_RAISE(SFL_R_RANGE);
  struct stat st {};
  if (os_fstat(rec->FileDes, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  if (at + SFL_ITEM_HEADER_SIZE > static_cast<uint64_t>(st.st_size)) SFL_RAISE(SFL_R_RANGE);
}

int32_t sfl_CopySimpleItem(int32_t baseHandle, uint32_t headerOffset, int32_t sourceFd,
                           uint32_t sourceOffset, uint32_t size, uint32_t noZeroFill) {
  ER_TRACE_PROC("sfl_CopySimpleItem");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_PtrEnsureBaseFileOpen(rec);
  sfl_CheckHeaderPlace(rec, headerOffset, true);
  // The header slot is the caller's; the run is given back on failure.
  sfl_SpaceRun run;
  const uint32_t offset = run.Take(rec, size);

  Chunk buf;
  uint32_t done = 0;
  if (sourceFd != -1) {
    if (os_lseek(sourceFd, static_cast<off_t>(sourceOffset), SEEK_SET) < 0)
      ER_RAISE(ER_GROUP_OS, errno);
    done = CopyIn(rec, buf, sourceFd, sourceOffset, offset, size);
  }
  if (noZeroFill == 0) ZeroFill(rec, buf, offset, done, size);
  // The data is on disk before the header that makes it an item, so that a
  // power cut leaves no item or the whole one. A rebuild's new file is
  // never flushed here (it is flushed whole before it takes the name).
  sfl_FlushBeforeMark(rec, nullptr);

  sfl_NewItemRecord item;
  OpenNewItem(item, rec, baseHandle, nullptr, 0, headerOffset, offset, size, run.Blocks(), 0);
  run.Commit();
  rec->NewlyCreated = 0;
  return item.Commit();
}

namespace {

// A blocked item's Offset and Size are its index root, not its data: a
// simple-data transfer over them would hand out or overwrite the root record
// and leave every later block access following whatever bytes were written.
// Refused as the serial calls refuse it (28869), nothing touched.
void RefuseBlocked(const sfl_ItemRec* item) {
  if ((item->Flags & BLOCKED_ITEM) != 0) SFL_RAISE(SFL_R_BLOCKED);
}

}  // namespace

// Range checks add in 64 bits: a position and length whose 32-bit sum wraps
// would otherwise pass and reach bytes far outside the item (28874).
int32_t sfl_ReadSimpleData(int32_t itemHandle, uint32_t position, uint32_t length, void* buffer) {
  ER_TRACE_PROC("sfl_ReadSimpleData");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RefuseBlocked(item);
  if (uint64_t{position} + length > item->Size) SFL_RAISE(SFL_R_RANGE);
  return static_cast<int32_t>(
      sfl_PRead(item->BaseRecord, buffer, length, uint64_t{item->Offset} + position));
}

int32_t sfl_WriteSimpleData(int32_t itemHandle, uint32_t position, uint32_t length,
                            const void* buffer) {
  ER_TRACE_PROC("sfl_WriteSimpleData");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RefuseBlocked(item);
  if (uint64_t{position} + length > item->Size) SFL_RAISE(SFL_R_RANGE);
  ssize_t n = sfl_PWrite(item->BaseRecord, buffer, length, uint64_t{item->Offset} + position);
  sfl_ConsiderSync(item->BaseRecord, item, SFL_EV_SIMPLE_WRITE);
  return static_cast<int32_t>(n);
}

int32_t sfl_ReadSerialData(int32_t itemHandle, void* buffer, uint32_t length) {
  ER_TRACE_PROC("sfl_ReadSerialData");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RefuseBlocked(item);
  if (uint64_t{item->CurrPos} + length > item->Size) length = item->Size - item->CurrPos;
  ssize_t n = sfl_PRead(item->BaseRecord, buffer, length, uint64_t{item->Offset} + item->CurrPos);
  if (n > 0) item->CurrPos += static_cast<uint32_t>(n);
  return static_cast<int32_t>(n);
}

int32_t sfl_WriteSerialData(int32_t itemHandle, const void* buffer, uint32_t length) {
  ER_TRACE_PROC("sfl_WriteSerialData");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RefuseBlocked(item);
  // A serial write never grows the item.
  if (uint64_t{item->CurrPos} + length > item->Size) SFL_RAISE(SFL_R_RANGE);
  ssize_t n = sfl_PWrite(item->BaseRecord, buffer, length, uint64_t{item->Offset} + item->CurrPos);
  if (n > 0) item->CurrPos += static_cast<uint32_t>(n);
  return static_cast<int32_t>(n);
}

int64_t sfl_seek(int32_t itemHandle, int64_t offset, int32_t whence) {
  ER_TRACE_PROC("sfl_seek");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RefuseBlocked(item);
  const int64_t pos = item->CurrPos;
  const int64_t size = item->Size;
  switch (whence) {
    case SEEK_SET:
      if (offset < 0 || offset > size) SFL_RAISE(SFL_R_RANGE);
      item->CurrPos = static_cast<uint32_t>(offset);
      break;
    case SEEK_CUR:
      // A relative seek back to exactly 0 is refused (whence 0 allows it).
      // Compared without negating or adding: the most negative offset has
      // no negation, and a large one added to the position would overflow.
      if (offset < 0 && offset <= -pos) SFL_RAISE(SFL_R_RANGE);
      if (offset > size - pos) SFL_RAISE(SFL_R_RANGE);
      item->CurrPos = static_cast<uint32_t>(pos + offset);
      break;
    case SEEK_END:
      if (offset != 0) SFL_RAISE(SFL_R_RANGE);
      item->CurrPos = item->Size;
      break;
    default:
      break;
  }
  return static_cast<int64_t>(item->CurrPos);
}

void sfl_GetSimpleDetails(int32_t itemHandle, sfl_SimpleDetails* details) {
  SFL_NEED_ARG(details);
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RefuseBlocked(item);
  details->FileDes = item->BaseRecord->FileDes;
  details->Offset = item->Offset;
  details->Size = item->Size;
  details->CurrPos = item->CurrPos;
}

uint32_t sfl_FindOffsetChkSize(sfl_ItemRec* item, uint32_t position, uint32_t length) {
  if (uint64_t{position} + length > item->Size) SFL_RAISE(SFL_R_RANGE);
  if (uint64_t{item->Offset} + position + length > UINT32_MAX) SFL_RAISE(SFL_R_RANGE);
  return item->Offset + position;
}

uint32_t sfl_BlckFindOffsetChkSize(sfl_ItemRec* item, uint32_t block, uint32_t position,
                                   uint32_t length) {
  sfl_IndexRecord index;
  sfl_FindBlock(item, block, &index);
  const sfl_IndexEntry& entry = index.Entries[block & (SFL_INDEX_ENTRIES - 1)];
  if (uint64_t{position} + length > entry.SectionSize) SFL_RAISE(SFL_R_RANGE);
  // The section comes from the disk: its end must lie within 32-bit offsets.
  if (uint64_t{entry.SectionOffSet} + position + length > UINT32_MAX) SFL_RAISE(SFL_R_RANGE);
  return entry.SectionOffSet + position;
}

void sfl_TruncateSimItem(int32_t itemHandle, uint32_t newSize) {
  // This routine has always traced under the serial reader's name; log
  // readers match on it, so it stays.
  ER_TRACE_PROC("sfl_ReadSerialData");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  sfl_UpdateItemHeader(item, [newSize](sfl_ItemHeader& h) {
    if ((h.Flags & BLOCKED_ITEM) != 0) SFL_RAISE(SFL_R_TRUNC_BLOCKED);
    if (uint64_t{newSize} > uint64_t{h.UsedBlocks} * SFL_BLOCK_SIZE)
      SFL_RAISE(SFL_R_BEYOND_RESERVED);
    h.FileSize = newSize;
  });
  item->Size = newSize;
  if (item->CurrPos > item->Size) item->CurrPos = item->Size;
}

void sfl_AppendToSimpleItem(sfl_ItemRec* item, uint32_t length, const void* buffer) {
  ER_TRACE_PROC("sfl_AppendToSimpleItem");
  sfl_BaseRec* rec = item->BaseRecord;
  sfl_PtrEnsureBaseFileOpen(rec);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  struct stat st;
  if (os_fstat(rec->FileDes, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  sfl_ItemHeader h;
  sfl_ReadItemHeader(item, &h);
  if ((h.Flags & BLOCKED_ITEM) != 0) SFL_RAISE(SFL_R_TRUNC_BLOCKED);
  // The header read under the lock is the current size; another process
  // may have changed it since this handle was opened.
  item->Size = h.FileSize;
  uint64_t newSize = uint64_t{item->Size} + length;
  if (newSize > uint64_t{h.UsedBlocks} * SFL_BLOCK_SIZE) SFL_RAISE(SFL_R_BEYOND_RESERVED);
  // Checked before writing, so a refused append leaves the reserved run's
  // neighbours untouched.
  if (sfl_PWrite(rec, buffer, length, uint64_t{item->Offset} + item->Size) !=
      static_cast<ssize_t>(length))
    SFL_RAISE(SFL_R_SHORT_WRITE);
  h.FileSize = static_cast<uint32_t>(newSize);
  sfl_WriteItemHeader(item, h);
  lock.Unlock();
  item->Size = h.FileSize;
  if (item->CurrPos > item->Size) item->CurrPos = item->Size;
}

sfl_ItemMap* sfl_mapItem(int32_t handleOrFd, sfl_ItemMap* map) {
  ER_TRACE_PROC("sfl_mapItem");
  SFL_NEED_ARG(map);
  int fd = handleOrFd;
  sfl_ItemRec* item = nullptr;
  if (handleOrFd >= SFL_ITEM_HANDLE_FIRST) {
    item = sfl_ItemHandle2Record(handleOrFd);
    RefuseBlocked(item);
    fd = item->BaseRecord->FileDes;
  }
  struct stat st;
  if (os_fstat(fd, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  size_t length = static_cast<size_t>(st.st_size);
  // The mapping's length is reported in 32 bits, and an item's bytes must
  // all lie inside it: a caller reading Data[0..Size) stays in the mapping.
  if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) SFL_RAISE(SFL_R_RANGE);
  if (item != nullptr && uint64_t{item->Offset} + item->Size > length) SFL_RAISE(SFL_R_RANGE);
  void* base = os_mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
  if (base == MAP_FAILED) ER_RAISE(ER_GROUP_OS, errno);
  map->MappedLength = static_cast<uint32_t>(length);
  map->Base = base;
  if (item != nullptr) {
    map->Data = static_cast<uint8_t*>(base) + item->Offset;
    map->Size = item->Size;
  } else {
    map->Data = base;
    map->Size = static_cast<uint32_t>(length);
  }
  return map;
}

int32_t sfl_unMapItem(sfl_ItemMap* map) {
  SFL_NEED_ARG(map);
  return os_munmap(map->Base, map->MappedLength);
}
