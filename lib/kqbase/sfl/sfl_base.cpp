// Container files in a process: creating, opening and closing them, and the
// management of their free space (blocks through the free map, item slots
// through the item table). Both concerns live here because the close
// releases space and the create lays down the first map.
//
// Sections:
//   1. the in-memory map globals and small helpers
//   2. free space: taking and releasing blocks, the map's extension, slots
//   3. creating a file
//   4. opening a file
//   5. closing a file
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <sys/stat.h>

#include "ext.h"
#include "im.h"
#include "mdc.h"
#include "os.h"
#include "sfl_alone.h"
#include "sfl_int.h"

// ==== 1. globals and helpers =============================================================

// The in-memory free map used while a whole-file rebuild lays out a new file.
// It is a malloc-family buffer (os_realloc grows it) so that whoever owns the
// rebuild can free it with os_free.
extern "C" {
uint8_t* MemFreeMap = nullptr;
uint32_t MemFreeMapSize = 0;
}

namespace {

constexpr uint32_t kMapGrowth = 256;               // bytes added to an on-disk map at least
constexpr uint32_t kMapBytesPerExtraBlock = 262144;  // one more block per 256 KiB of map
constexpr uint32_t kBitModulo = 1u << 25;            // block numbers of a 32-bit offset
constexpr uint32_t kInitialUsedBlocks = 7;           // header, table and map: 896 bytes
constexpr uint16_t kTempDomain = 4;                  // files never compacted at close
// Opens of a name that moved on to another file before the open could lock
// it: each move is a whole close or rebuild by another process, so a few
// tries are plenty; past them the name is reported as stale.
constexpr int kOpenAttempts = 8;

bool IsSingle(const sfl_BaseRec* rec) { return (rec->FileFlags & SINGLE_FILE) != 0; }

// The free-map item of a container; a container without one cannot hand out
// space (it was never opened through this module).
sfl_ItemRec* MapItem(sfl_BaseRec* rec) {
  if (rec->FreeMapItem == nullptr) SFL_RAISE(SFL_R_BAD_MAP);
  return rec->FreeMapItem;
}

bool MapInMemory(sfl_BaseRec* rec) { return (MapItem(rec)->Flags & MEM_FREEMAP) != 0; }

// The on-disk map is read whole for every allocation and release. One
// buffer kept for the process spares an allocation and a clearing of the
// whole map each time; a use nested inside another (none at present) gets
// a buffer of its own.
std::vector<uint8_t> g_mapBuffer;
bool g_mapBufferTaken = false;

class MapBuffer {
 public:
  MapBuffer() : shared_(!g_mapBufferTaken) {
    if (shared_) g_mapBufferTaken = true;
  }
  ~MapBuffer() {
    if (shared_) g_mapBufferTaken = false;
  }
  MapBuffer(const MapBuffer&) = delete;
  MapBuffer& operator=(const MapBuffer&) = delete;
  std::vector<uint8_t>* get() { return shared_ ? &g_mapBuffer : &own_; }

 private:
  bool shared_;
  std::vector<uint8_t> own_;
};

}  // namespace

// ==== 2. free space =======================================================================

// Grows a free map and returns its new length in bytes. With the free-map
// item marked MEM_FREEMAP the map is MemFreeMap (diskMap is ignored);
// otherwise it is *diskMap, whose item header `header` is rewritten: the
// grown map moves to the first free run large enough for it, and the blocks
// it occupied before become free.
static uint32_t sfl_ExtendFreeMap(sfl_BaseRec* rec, std::vector<uint8_t>* diskMap,
                                  uint32_t length, uint32_t asked, sfl_ItemHeader* header) {
  const bool inMemory = MapInMemory(rec);
  if (!inMemory && header == nullptr) SFL_RAISE(SFL_R_NO_MAP_HEADER);

  uint32_t blocks = 0;
  uint32_t newLength = 0;
  if (asked != 0) {
    blocks = (inMemory ? sfl_CalculateBlocks(length) : sfl_CalculateBlocks(length + kMapGrowth)) +
             sfl_CalculateBlocks(sfl_CalculateBlocks(asked) / 8 + 1) +
             length / kMapBytesPerExtraBlock;
    newLength = blocks * SFL_BLOCK_SIZE;
  } else if (!inMemory) {
    blocks = sfl_CalculateBlocks(length + kMapGrowth);
    newLength = length + kMapGrowth;
  } else {
    return length;  // nothing asked of an in-memory map: nothing to grow
  }

  if (inMemory) {
    void* grown = os_realloc(MemFreeMap, newLength);
    if (grown == nullptr) ER_RAISE(ER_GROUP_OS, ENOMEM);
    MemFreeMap = static_cast<uint8_t*>(grown);
    if (newLength > length) std::memset(MemFreeMap + length, 0, newLength - length);
    MemFreeMapSize = newLength;
    return newLength;
  }

  diskMap->resize(newLength, 0);
  uint8_t* map = diskMap->data();
  const int64_t run = ext_FindBits(map, newLength, blocks, 0);
  // The added bytes are all free, so only a very large map can fail to
  // find room for itself; such a map cannot be moved.
  if (run < 0) SFL_RAISE(SFL_R_SHORT_MAP_WRITE);
  ext_SetBits(map, newLength, static_cast<uint32_t>(run), blocks, 1);
  ext_SetBits(map, newLength, header->FileOffset / SFL_BLOCK_SIZE, header->UsedBlocks, 0);

  const uint32_t newOffset = static_cast<uint32_t>(run) * SFL_BLOCK_SIZE;
  if (sfl_PWrite(rec, map, newLength, newOffset) != static_cast<ssize_t>(newLength))
    SFL_RAISE(SFL_R_SHORT_MAP_WRITE);
  sfl_ConsiderSync(rec, nullptr, SFL_EV_MAP_MOVED);

  header->FileSize = newLength;
  header->FileOffset = newOffset;
  header->ChangeDate = mdc_time();
  header->UsedBlocks = blocks;
  sfl_ItemRec* mapItem = MapItem(rec);
  sfl_WriteItemHeader(mapItem, *header);
  mapItem->Offset = newOffset;
  mapItem->Size = newLength;
  sfl_ConsiderSync(rec, nullptr, SFL_EV_MAP_HEADER);
  return newLength;
}

// A run must end within 32-bit file offsets: block numbers at or beyond this
// would wrap when turned into an offset.
static void CheckRunFits(int64_t first, uint32_t count) {
  if (first < 0 || static_cast<uint64_t>(first) + count > kBitModulo)
    SFL_RAISE(SFL_R_SHORT_MAP_WRITE);
}

uint32_t sfl_GetFreeSpaceNew(sfl_BaseRec* rec, uint32_t size, uint32_t* blockCount) {
  ER_TRACE_PROC("sfl_GetFreeSpaceNew");
  // The count is reported only once the run is taken: a caller that gives
  // back what it got after an escape must not give back blocks it never had
  // (a count with offset 0 would free the file header, table and map).
  if (blockCount != nullptr) *blockCount = 0;
  const uint32_t count = sfl_CalculateBlocks(size);
  if (count == 0) return 0;
  // More than a file of 32-bit offsets can hold is refused before the map
  // is grown for it.
  if (!IsSingle(rec) && count > kBitModulo - kInitialUsedBlocks) SFL_RAISE(SFL_R_SHORT_MAP_WRITE);
  if (IsSingle(rec)) {
    if (blockCount != nullptr) *blockCount = count;
    return rec->DataOff;
  }

  sfl_Held lock;
  lock.ItemHeader(MapItem(rec), SFL_LOCK_EXCL);

  if (MapInMemory(rec)) {
    if (MemFreeMap == nullptr) SFL_RAISE(SFL_R_NEED_MEM_MAP);
    uint32_t length = MemFreeMapSize;
    int64_t first;
    while ((first = ext_FindBits(MemFreeMap, length, count, 0)) < 0)
      length = sfl_ExtendFreeMap(rec, nullptr, length, size, nullptr);
    CheckRunFits(first, count);
    ext_SetBits(MemFreeMap, length, static_cast<uint32_t>(first), count, 1);
    MemFreeMapSize = length;
    lock.Unlock();
    if (blockCount != nullptr) *blockCount = count;
    return static_cast<uint32_t>(first) * SFL_BLOCK_SIZE;
  }

  sfl_ItemHeader fm;
  sfl_ReadItemHeader(MapItem(rec), &fm);
  MapBuffer buffer;
  std::vector<uint8_t>& map = *buffer.get();
  uint32_t length = sfl_ReadFreeMap(rec, &map, fm);
  int64_t first;
  while ((first = ext_FindBits(map.data(), length, count, 0)) < 0)
    length = sfl_ExtendFreeMap(rec, &map, length, size, &fm);
  CheckRunFits(first, count);
  ext_SetBits(map.data(), length, static_cast<uint32_t>(first), count, 1);
  // Only the bytes that hold the run change; the rest of the map is as read.
  sfl_WritePartialFreeMap(rec, map, first, count, fm);
  lock.Unlock();
  const uint32_t offset = static_cast<uint32_t>(first) * SFL_BLOCK_SIZE;
  sfl_SpaceRun run;  // a flush that fails gives the run back
  run.Adopt(rec, offset, count);
  sfl_ConsiderSync(rec, nullptr, SFL_EV_GET_SPACE);
  run.Commit();
  if (blockCount != nullptr) *blockCount = count;
  return offset;
}

void sfl_GiveBackBlocks(sfl_BaseRec* rec, uint32_t offset, uint32_t blocks) {
  if (blocks == 0 || IsSingle(rec)) return;
  if (MapInMemory(rec)) {
    if (MemFreeMap != nullptr)
      ext_SetBits(MemFreeMap, MemFreeMapSize, offset / SFL_BLOCK_SIZE, blocks, 0);
    return;
  }
  sfl_FreeFreeBlocks(rec, offset, blocks);
}

// The slot's bit and count are cleared only if the bit is set: a take that
// failed before its file header reached the disk counted nothing.
void sfl_GiveBackItemSlot(sfl_BaseRec* rec, int32_t slot) {
  if (slot < 1 || slot > 7) return;
  sfl_Held lock;
  lock.Header(rec, SFL_LOCK_EXCL);
  sfl_FileHeader fh;
  sfl_ReadFileHeader(rec, &fh);
  const uint32_t slotOff = fh.TableOffset + static_cast<uint32_t>(slot) * SFL_ITEM_HEADER_SIZE;
  const sfl_ItemHeaderBytes zeros{};
  if (sfl_PWrite(rec, zeros.data(), zeros.size(), slotOff) != static_cast<ssize_t>(zeros.size()))
    SFL_RAISE(SFL_R_SHORT_WRITE);
  if ((fh.InUseItms & (1u << slot)) != 0) {
    fh.InUseItms = static_cast<uint8_t>(fh.InUseItms & ~(1u << slot));
    if (fh.UsedItems > 0) --fh.UsedItems;
    sfl_WriteFileHeader(rec, fh);
  }
}

// Runs `change` on the on-disk map under the free-map lock and writes the
// whole map back; `fm` is the map's own item header as read under the lock.
static void UpdateDiskMap(
    sfl_BaseRec* rec,
    const std::function<void(uint8_t* map, uint32_t length, const sfl_ItemHeader& fm)>& change) {
  sfl_Held lock;
  lock.ItemHeader(MapItem(rec), SFL_LOCK_EXCL);
  sfl_ItemHeader fm;
  sfl_ReadItemHeader(MapItem(rec), &fm);
  MapBuffer buffer;
  std::vector<uint8_t>& map = *buffer.get();
  const uint32_t length = sfl_ReadFreeMap(rec, &map, fm);
  change(map.data(), length, fm);
  sfl_WriteFreeMap(rec, map, fm);
  lock.Unlock();
}

// Releases blocks in the on-disk map (an in-memory map is never released
// into).
void sfl_UpdateFreeMap(sfl_BaseRec* rec,
                       const std::function<void(uint8_t* map, uint32_t length)>& change) {
  UpdateDiskMap(rec, [&](uint8_t* map, uint32_t length, const sfl_ItemHeader&) { change(map, length); });
}

namespace {

// Whether [a, a + aLen) and [b, b + bLen) share a byte.
bool Overlaps(uint64_t a, uint64_t aLen, uint64_t b, uint64_t bLen) {
  return a < b + bLen && b < a + aLen;
}

// The range to release usually comes from an item header or an index entry
// read from the file, so it is distrusted: with the deletion service on it
// is overwritten with zeros, and a damaged one must not reach the file
// header, the item table, the free map, another item of the table or bytes
// past the file. A range is released only when it starts on a block past
// the item table, lies inside the map, and meets none of the map's blocks
// nor the run of any item still named in the table (the released item's
// own header is wiped before its space is released). Anything else is
// refused (28872) with nothing changed. Blocks of the range already free
// are let through: zeroing them harms nothing, and a release repeated after
// a map write that came up short finds some of its blocks free.
void CheckReleasable(sfl_BaseRec* rec, uint32_t offset, uint32_t blockCount, uint32_t length,
                     const sfl_ItemHeader& fm) {
  const uint64_t bytes = uint64_t{blockCount} * SFL_BLOCK_SIZE;
  if (offset % SFL_BLOCK_SIZE != 0 || offset < rec->DataOff || uint64_t{offset} + bytes > UINT32_MAX)
    SFL_RAISE(SFL_R_BAD_MAP);
  if (uint64_t{offset / SFL_BLOCK_SIZE} + blockCount > uint64_t{length} * 8) SFL_RAISE(SFL_R_BAD_MAP);
  const uint64_t mapBytes =
      std::max<uint64_t>(uint64_t{fm.UsedBlocks} * SFL_BLOCK_SIZE, fm.FileSize);
  if (Overlaps(offset, bytes, fm.FileOffset, mapBytes)) SFL_RAISE(SFL_R_BAD_MAP);

  const uint32_t slots = std::min<uint32_t>(rec->MaxItems, SFL_CONTAINER_MAX_ITEMS);
  std::vector<uint8_t> table(size_t{slots} * SFL_ITEM_HEADER_SIZE);
  if (sfl_PRead(rec, table.data(), table.size(), rec->ITableOff) != static_cast<ssize_t>(table.size()))
    SFL_RAISE(SFL_R_SHORT_READ);
  for (uint32_t slot = 1; slot < slots; ++slot) {
    const sfl_ItemHeader h = sfl_DecodeItemHeader(
        std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(table.data() + size_t{slot} * SFL_ITEM_HEADER_SIZE,
                                                       SFL_ITEM_HEADER_SIZE));
    if (h.Magic != SFL_MAGIC || h.Type != SFL_TYPE_ITEM_HEADER || h.FileOffset == 0) continue;
    if (Overlaps(offset, bytes, h.FileOffset, uint64_t{h.UsedBlocks} * SFL_BLOCK_SIZE))
      SFL_RAISE(SFL_R_BAD_MAP);
  }
}

}  // namespace

void sfl_FreeFreeBlocks(sfl_BaseRec* rec, uint32_t offset, uint32_t blockCount) {
  ER_TRACE_PROC("sfl_FreeFreeBlocks");
  if (blockCount == 0 || IsSingle(rec)) return;

  UpdateDiskMap(rec, [&](uint8_t* map, uint32_t length, const sfl_ItemHeader& fm) {
    CheckReleasable(rec, offset, blockCount, length, fm);
    ext_SetBits(map, length, offset / SFL_BLOCK_SIZE, blockCount, 0);
    if (mdc_DDSGetDelStatus() != 0) {
      // Freed data is overwritten before the map is written, so it is gone
      // before the blocks can be reused. Blocks past the end of the file
      // (taken but never written) hold nothing and are not written, which
      // would lengthen the file.
      struct stat st {};
      if (os_fstat(rec->FileDes, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
      const uint64_t end = std::min<uint64_t>(uint64_t{offset} + uint64_t{blockCount} * SFL_BLOCK_SIZE,
                                              static_cast<uint64_t>(st.st_size));
      // The blocks stay marked in use when this fails: better lost space
      // than readable data.
      if (end > offset && mdc_DDSDelFileByDes(rec->FileDes, offset, end - offset) != 0)
        SFL_RAISE(SFL_R_SHORT_WRITE);
    }
  });
  rec->SpaceAnalysis |= 1;
  sfl_ConsiderSync(rec, nullptr, SFL_EV_FREED);
}

void sfl_FreeFreeSpace(sfl_ItemRec* item, uint32_t offset, uint32_t size) {
  sfl_BaseRec* rec = item->BaseRecord != nullptr ? item->BaseRecord
                                                 : sfl_Handle2Record(item->BaseHandle);
  sfl_FreeFreeBlocks(rec, offset, sfl_CalculateBlocks(size));
}

void sfl_ClearFreeMapArea(uint8_t* map, uint32_t mapLength, uint32_t offset, uint32_t size) {
  const uint32_t first = (offset / SFL_BLOCK_SIZE) % kBitModulo;
  ext_SetBits(map, mapLength, first, sfl_CalculateBlocks(size), 0);
}

// Grows MemFreeMap until it holds a free run as long as the map itself, so
// that the map can later be written into free space of the file it describes.
void sfl_MakeSpaceFitMemMap(sfl_BaseRec* rec) {
  ER_TRACE_PROC("sfl_MakeSpaceFitMemMap");
  if (MemFreeMap == nullptr || !MapInMemory(rec)) SFL_RAISE(SFL_R_NEED_MEM_MAP);
  for (;;) {
    const uint32_t blocks = sfl_CalculateBlocks(MemFreeMapSize);
    if (blocks == 0 || ext_FindBits(MemFreeMap, MemFreeMapSize, blocks, 0) >= 0) return;
    sfl_ExtendFreeMap(rec, nullptr, MemFreeMapSize, MemFreeMapSize, nullptr);
  }
}

// Takes an item slot: the first free one (wanted -1) or a given one. Returns
// the slot, 0 when the first free bit of the one-byte map lies at or beyond
// MaxItems, -1 when nothing could be taken.
int32_t sfl_GetFreeItemSlot(sfl_BaseRec* rec, uint32_t blocked, int32_t wanted) {
  ER_TRACE_PROC("sfl_GetFreeItemSlot");
  int32_t result = -1;
  sfl_Held header;
  header.Header(rec, SFL_LOCK_EXCL);
  sfl_FileHeader h;
  sfl_ReadFileHeader(rec, &h);

  if (h.Flags & SINGLE_FILE) {
    if (blocked != 0) SFL_RAISE(SFL_R_SINGLE_FILE);
    if (h.UsedItems == 0 && (wanted == -1 || wanted == 1)) result = 1;
  } else if (wanted == -1) {
    for (int32_t bit = 0; bit < 8; ++bit) {
      if ((h.InUseItms & (1u << bit)) == 0) {
        result = static_cast<uint32_t>(bit) >= h.MaxItems ? 0 : bit;
        break;
      }
    }
  } else if (wanted >= 0 && wanted < 8 && static_cast<uint32_t>(wanted) < h.MaxItems &&
             (h.InUseItms & (1u << wanted)) == 0) {
    result = wanted;
  }

  // Gives the slot back unless it is handed out (declared inside the header
  // lock's scope, so the give-back runs under that lock).
  sfl_SlotClaim claim;
  if (result > 0) {
    claim.Adopt(rec, result);
    h.InUseItms = static_cast<uint8_t>(h.InUseItms | (1u << result));
    // Magic and type stay zero: the item code fills them in with the first
    // full write of the header.
    sfl_ItemHeader ih;
    ih.AccCount = 1;
    ih.ChangeDate = mdc_time();
    if (blocked != 0) ih.Flags = BLOCKED_ITEM;
    sfl_ItemHeaderBytes bytes;
    sfl_EncodeItemHeader(ih, bytes);
    const uint32_t slotOff = h.TableOffset + static_cast<uint32_t>(result) * SFL_ITEM_HEADER_SIZE;
    sfl_Held slot;
    slot.IntHeader(rec, slotOff, SFL_LOCK_EXCL);
    if (sfl_PWrite(rec, bytes.data(), bytes.size(), slotOff) !=
        static_cast<ssize_t>(bytes.size()))
      SFL_RAISE(SFL_R_SHORT_WRITE);
    ++h.UsedItems;
    sfl_WriteFileHeader(rec, h);
    slot.Unlock();
  }
  header.Unlock();
  sfl_ConsiderSync(rec, nullptr, SFL_EV_ITEM_SLOT);
  claim.Commit();
  return result;
}

void sfl_GetExtItemHeader(sfl_ItemRec* item, sfl_ItemHeader* out) {
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_SHARED);
  sfl_ReadItemHeader(item, out);
}

// ==== 3. creating a file =================================================================

namespace {

// A file just created by the item-reference library: nobody else knows its
// name yet, so unless the create completes it goes with its descriptor.
class NewDataFile {
 public:
  NewDataFile(const sfl_ItemRef& ref, int fd) : ref_(ref), fd_(fd) {}
  ~NewDataFile() {
    if (fd_ < 0) return;
    mdc_close(fd_);
    sfl_GiveBackQuietly([this] { im_UnlinkItem(&ref_); });
  }
  NewDataFile(const NewDataFile&) = delete;
  NewDataFile& operator=(const NewDataFile&) = delete;
  void Commit() { fd_ = -1; }

 private:
  sfl_ItemRef ref_;
  int fd_;
};

// A record of the open-files table taken for a file being created or
// opened, with what the open gathers on the way: the descriptor (when this
// module opened it), the free-map item and the interest. All of it is given
// back unless the open commits.
class NewFileRecord {
 public:
  NewFileRecord() { rec_ = sfl_GetNewOFilesEntry(&handle_); }
  ~NewFileRecord() {
    if (rec_ == nullptr) return;
    if (interest_) sfl_GiveBackQuietly([this] { sfl_ReleaseBaseInterest(rec_); });
    if (rec_->FreeMapItem != nullptr) sfl_GiveBackQuietly([this] { sfl_DeleteOSerItem(rec_->FreeMapItem); });
    if (ownsDescriptor_ && rec_->FileDes >= 0) mdc_close(rec_->FileDes);
    rec_->FileDes = -1;
    sfl_GiveBackQuietly([this] { sfl_DeleteOSerFile(rec_); });
  }
  NewFileRecord(const NewFileRecord&) = delete;
  NewFileRecord& operator=(const NewFileRecord&) = delete;

  sfl_BaseRec* operator->() const { return rec_; }
  sfl_BaseRec* get() const { return rec_; }
  int32_t Handle() const { return handle_; }
  // The descriptor in the record is this module's to close on failure.
  void OwnDescriptor() { ownsDescriptor_ = true; }
  // Records this process's interest in the file with the service.
  void RecordInterest() {
    sfl_RecordBaseInterest(rec_);
    interest_ = true;
  }
  int32_t Commit() {
    rec_ = nullptr;
    return handle_;
  }

 private:
  sfl_BaseRec* rec_ = nullptr;
  int32_t handle_ = -1;
  bool ownsDescriptor_ = false;
  bool interest_ = false;
};

}  // namespace

int32_t sfl_CreateSfl(uint32_t reserved, int32_t type, int32_t flags) {
  ER_TRACE_PROC("sfl_CreateSfl");
  sfl_ItemRef ref{};
  int fd = -1;
  if (type == SFL_TYPE_DATA_ITEM)
    fd = im_GetNewDataItem(&ref);
  else if (type == SFL_TYPE_TEMP_ITEM)
    fd = im_CrNewTempItem(&ref);
  else
    ER_RAISE(ER_GROUP_CALL, 22);
  NewDataFile file(ref, fd);
  const int32_t handle = sfl_CreateBaseSfl(&ref, fd, flags);
  file.Commit();
  return handle;
}

void sfl_NewFileImage(uint32_t fileFlags, sfl_FileHeader* h, std::vector<uint8_t>* table,
                      std::vector<uint8_t>* map) {
  const bool single = (fileFlags & SINGLE_FILE) != 0;
  *h = sfl_FileHeader{};
  h->Magic = SFL_MAGIC;
  h->Type = SFL_TYPE_FILE_HEADER;
  h->HeaderSize = SFL_FILE_HEADER_SIZE;
  h->HeaderVersion = SFL_HEADER_VERSION;
  h->UsedItems = 0;
  h->MaxItems = static_cast<uint16_t>(single ? SFL_SINGLE_MAX_ITEMS : SFL_CONTAINER_MAX_ITEMS);
  h->Flags = fileFlags;
  h->TableOffset = SFL_TABLE_OFFSET;
  h->DataOffset = single ? SFL_SINGLE_DATA_OFFSET : SFL_CONTAINER_DATA_OFFSET;
  h->InUseItms = 0x01;

  table->assign(h->MaxItems * SFL_ITEM_HEADER_SIZE, 0);
  map->clear();
  if (single) return;
  sfl_ItemHeader fm = sfl_NewItemHeader();
  fm.AccCount = 1;
  fm.FileSize = SFL_INITIAL_MAP_SIZE;
  fm.UsedBlocks = sfl_CalculateBlocks(SFL_INITIAL_MAP_SIZE);
  fm.ChangeDate = mdc_time();
  fm.FileOffset = SFL_CONTAINER_DATA_OFFSET;
  sfl_EncodeItemHeader(fm, std::span<uint8_t, SFL_ITEM_HEADER_SIZE>(table->data(), SFL_ITEM_HEADER_SIZE));
  // Blocks 0 to 6 (header, table, map) are in use.
  map->assign(SFL_INITIAL_MAP_SIZE, 0);
  ext_SetBits(map->data(), SFL_INITIAL_MAP_SIZE, 0, kInitialUsedBlocks, 1);
}

int32_t sfl_CreateBaseSfl(const sfl_ItemRef* ref, int32_t fd, int32_t flags) {
  ER_TRACE_PROC("sfl_CreateBaseSfl");
  SFL_NEED_ARG(ref);
  // A container laid down under an item's reference could never be reached
  // again by the reference of a file: refused as the open refuses it.
  if (ref->Flags & SFL_ITEM_NUM_MASK) SFL_RAISE(SFL_R_REF_IS_ITEM);
  // The descriptor is the caller's until the create completes.
  NewFileRecord rec;
  const int32_t handle = rec.Handle();
  rec->FileDes = fd;
  sfl_SetRef(*rec.get(), *ref);
  uint32_t fileFlags = static_cast<uint32_t>(flags);
  if (fileFlags & USER_ASYNC) {
    // On creation 0x04 asks for unsynchronised writes in this process only.
    fileFlags &= ~static_cast<uint32_t>(USER_ASYNC);
    rec->UserAsync = 1;
  }
  rec->FileFlags = fileFlags;
  rec->NewlyCreated = 1;
  rec->EntryUnflushed = 1;
  const bool single = (fileFlags & SINGLE_FILE) != 0;

  sfl_Held header;
  header.Header(rec.get(), SFL_LOCK_EXCL);

  sfl_FileHeader h;
  std::vector<uint8_t> table, map;
  sfl_NewFileImage(fileFlags, &h, &table, &map);
  sfl_WriteFileHeader(rec.get(), h);
  if (sfl_PWrite(rec.get(), table.data(), table.size(), SFL_TABLE_OFFSET) !=
      static_cast<ssize_t>(table.size()))
    SFL_RAISE(SFL_R_SHORT_WRITE);

  rec->ITableOff = SFL_TABLE_OFFSET;
  rec->DataOff = h.DataOffset;
  rec->ExternalOpens = 1;
  rec->CreatedHere = 1;
  rec->MaxItems = h.MaxItems;

  if (!single) {
    // A failed map write is not looked at here: the free-map item's first
    // use reads it back.
    (void)sfl_PWrite(rec.get(), map.data(), map.size(), SFL_CONTAINER_DATA_OFFSET);
    rec->FreeMapHandle = sfl_IntOpenItem(rec.get(), handle, 0, &rec->FreeMapItem);
  }
  rec.RecordInterest();
  // No event of the policy's table flushes a file just created; under
  // "SFL_ALL_SYNC_IO" a creation that returned must survive a power cut
  // all the same, with its name: event 0 ("any other") flushes there and
  // nowhere else.
  sfl_ConsiderSync(rec.get(), nullptr, SFL_EV_CREATED);
  header.Unlock();
  return rec.Commit();
}

// ==== 4. opening a file ==================================================================

namespace {

// Reads the file header under the shared header lock held by the caller and
// checks that this is a file of the supported version.
void ReadAndCheckHeader(sfl_BaseRec* rec, sfl_FileHeader* h) {
  sfl_ReadFileHeader(rec, h);
  rec->FileFlags = h->Flags;
  if (h->Magic != SFL_MAGIC || h->Type != SFL_TYPE_FILE_HEADER ||
      h->HeaderVersion != SFL_HEADER_VERSION)
    SFL_RAISE(SFL_R_BAD_FILE);
  // The table's place and size come from the disk and drive slot offsets
  // and one-bit masks of the in-use byte: a header whose table does not lie
  // whole between the file header and the data, or that claims more than
  // eight slots, is not a file of ours.
  if (h->MaxItems < 1 || h->MaxItems > SFL_CONTAINER_MAX_ITEMS ||
      h->TableOffset < SFL_FILE_HEADER_SIZE ||
      uint64_t{h->TableOffset} + uint64_t{h->MaxItems} * SFL_ITEM_HEADER_SIZE > h->DataOffset)
    SFL_RAISE(SFL_R_BAD_FILE);
}

}  // namespace

int32_t sfl_OpenSfl(const sfl_ItemRef* ref, uint32_t implicitOpen) {
  ER_TRACE_PROC("sfl_OpenSfl");
  SFL_NEED_ARG(ref);
  if (ref->Flags & SFL_ITEM_NUM_MASK) SFL_RAISE(SFL_R_REF_IS_ITEM);
  sfl_BaseRec* existing = nullptr;
  int32_t existingHandle = -1;
  // Without revival a cold copy is closed for good here.
  if (sfl_CheckFileAccessed(ref, &existing, &existingHandle, 0, nullptr))
    SFL_RAISE(SFL_R_FILE_OPEN);

  NewFileRecord rec;
  const int32_t handle = rec.Handle();
  sfl_SetRef(*rec.get(), *ref);
  rec.OwnDescriptor();

  // The descriptor is opened by name, and the name may move on before the
  // header lock is ours: a last close may have removed the file meanwhile,
  // or a rebuild renamed a new one over it. Under the lock the name cannot
  // move any more, so the file is used only if the name still leads to it;
  // otherwise the name is opened again. A name that is gone is the ordinary
  // failure of the open. A file marked replaced by a rebuild is opened by
  // name once more in any case.
  sfl_Held header;
  sfl_FileHeader h;
  bool reopenedReplaced = false;
  for (int attempt = 1;; ++attempt) {
    rec->FileDes = im_OpenItem(ref);
    header.Header(rec.get(), SFL_LOCK_SHARED);
    if (sfl_HoldsNamedFile(rec->FileDes, *ref)) {
      ReadAndCheckHeader(rec.get(), &h);
      if (!(h.Flags & HAS_BEEN_COMPACTED) || reopenedReplaced) break;
      reopenedReplaced = true;
    }
    header.Unlock();
    const int stale = rec->FileDes;
    rec->FileDes = -1;
    mdc_close(stale);
    if (attempt == kOpenAttempts) ER_RAISE(ER_GROUP_OS, ESTALE);
  }

  rec->ITableOff = h.TableOffset;
  rec->DataOff = h.DataOffset;
  rec->OpenMode = implicitOpen;
  rec->ExternalOpens = 1;
  rec->MaxItems = h.MaxItems;

  if (!(h.Flags & SINGLE_FILE)) {
    sfl_Held slot;
    slot.IntHeader(rec.get(), h.TableOffset, SFL_LOCK_SHARED);
    rec->FreeMapHandle = sfl_IntOpenItem(rec.get(), handle, 0, &rec->FreeMapItem);
    slot.Unlock();
  }
  rec.RecordInterest();
  header.Unlock();
  return rec.Commit();
}

// ==== 5. closing a file ==================================================================

namespace {

// Releases every item marked DELETED, slot by slot under the slot's own
// lock (the caller holds the exclusive header lock). `h` is the caller's
// copy of the file header; its count and in-use map follow the releases.
// Each release is complete before the next begins, so a close that fails
// half way leaves the remaining ones for the next close to release.
void ReleasePendingDeletions(sfl_BaseRec* rec, int32_t handle, sfl_FileHeader* h) {
  const uint32_t slots = std::min<uint32_t>(h->MaxItems, SFL_CONTAINER_MAX_ITEMS);
  for (uint32_t slotNum = 1; slotNum < slots; ++slotNum) {
    const uint32_t off = h->TableOffset + slotNum * SFL_ITEM_HEADER_SIZE;
    sfl_Held slot;
    slot.IntHeader(rec, off, SFL_LOCK_EXCL);
    sfl_ItemHeaderBytes bytes;
    if (sfl_PRead(rec, bytes.data(), bytes.size(), off) != static_cast<ssize_t>(bytes.size()))
      continue;
    const sfl_ItemHeader ih = sfl_DecodeItemHeader(bytes);
    if (ih.Magic != SFL_MAGIC || ih.Type != SFL_TYPE_ITEM_HEADER || !(ih.Flags & DELETED))
      continue;

    sfl_ItemRec* item = nullptr;
    sfl_IntOpenItem(rec, handle, slotNum, &item);
    sfl_OpenItemRecord opened(handle, item);
    sfl_IntDeleteItem(item);
    if (ih.Flags & BLOCKED_ITEM) {
      sfl_DeleteIndexTree(item, ih);
    } else {
      try {
        sfl_FreeFreeBlocks(rec, ih.FileOffset, ih.UsedBlocks);
      } catch (const er_Escape& e) {
        // A run the release refuses (28872) was named by a damaged header:
        // the slot goes all the same and the run stays marked in use, which
        // loses space but never another item's data. The refusal is logged.
        if (e.group() != ER_GROUP_SFL || e.reason() != SFL_R_BAD_MAP) throw;
        er_Accept(5);
      }
    }
    if (h->UsedItems > 0) --h->UsedItems;
    h->InUseItms = static_cast<uint8_t>(h->InUseItms & ~(1u << slotNum));
    slot.Unlock();
  }
}

}  // namespace

void sfl_CloseFile(int32_t baseHandle) {
  ER_TRACE_PROC("sfl_CloseFile");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_PtrEnsureBaseFileOpen(rec);
  // The record's counts change only once the close can no longer escape half
  // way: a close that escapes leaves the file open as it was (descriptor,
  // records, interest), to be closed again.
  const int32_t opensLeft = rec->ExternalOpens > 0 ? rec->ExternalOpens - 1 : 0;
  if (opensLeft >= 1) {
    sfl_ConsiderSync(rec, nullptr, SFL_EV_CLOSE);
    rec->ExternalOpens = opensLeft;
    return;
  }
  // Item handles still open keep the file; the free-map item of a container
  // is itself one open item, hence the bound of 1 there.
  const bool single = IsSingle(rec);
  if (rec->IntItemsOpen > 1 || (single && rec->IntItemsOpen > 0)) {
    sfl_ConsiderSync(rec, nullptr, SFL_EV_CLOSE);
    rec->ExternalOpens = opensLeft;
    rec->OpenMode = 1;
    return;
  }

  // Releasing pending deletions and removing an emptied file need the file
  // to this process alone, for the whole of the work.
  bool gone = false;  // removed here, or no longer the file its name leads to
  sfl_FileHeader h;
  {
    sfl_HoldAlone use;
    use.Take(rec, sfl_Interest::Held);
    sfl_ReadFileHeader(rec, &h);
    if (use.Alone()) {
      const bool pending = (h.Flags & ITEM_PEND_DEL) != 0;
      if (pending) ReleasePendingDeletions(rec, baseHandle, &h);
      if (h.UsedItems == 0) {
        gone = true;
      } else if (pending) {
        h.Flags &= ~static_cast<uint32_t>(ITEM_PEND_DEL);
        sfl_WriteFileHeader(rec, h);
      }
    }
    // The name is removed only while it leads to the file this process
    // holds: once a rebuild has put a new file there, the name is that
    // file's, with whatever others stored in it since. The file held is then
    // nameless and goes with its descriptor.
    const bool named = gone && use.Named();
    // A flush that fails leaves the file open and its interest recorded.
    if (!gone) sfl_ConsiderSync(rec, nullptr, SFL_EV_COLD);
    sfl_ReleaseBaseInterest(rec);
    if (named) {
      const sfl_ItemRef ref = sfl_RefOf(*rec);
      // A removal lost in a power cut would bring back a container whose
      // items were released here; its directory is flushed as the file
      // would have been. The removal is done either way: a flush that
      // fails is logged and the close completes. The file itself may be
      // kept for reuse by a later creation (im_RetireItem).
      const int flushErr = im_RetireItem(&ref, rec->FileDes, sfl_FlushesFile(rec));
      if (flushErr != 0) sfl_GiveBackQuietly([&] { ER_RAISE(ER_GROUP_OS, flushErr); });
    }
    use.Release();
  }
  // From here on the close completes.
  rec->ExternalOpens = 0;

  if (!gone) {
    bool kept = true;
    const uint32_t noCompaction = ASYNCHRONOUS | SINGLE_FILE | HAS_BEEN_COMPACTED;
    if (rec->Domain != kTempDomain && (h.Flags & noCompaction) == 0 &&
        rec->ProcAccCount == 0) {
      // Compaction rebuilds into a new file and replaces the old one only
      // once the new one is whole: one that fails leaves the file as it was,
      // and the close goes on without it.
      sfl_GiveBackQuietly([&] {
        const bool due =
            (h.Flags & NEED_COMPACTION) || ((rec->SpaceAnalysis & 1) && sfl_AnalyseFreeMap(rec));
        if (due && sfl_CompactSflFile(rec) == 0) kept = false;
      });
    }
    if (kept) {
      sfl_EnterColdStore(rec);
      return;
    }
  }

  // Really close. The file is gone or replaced: a flush of it that fails
  // while its free-map item closes changes nothing worth reporting.
  if (!single && rec->FreeMapItem != nullptr)
    sfl_GiveBackQuietly([rec] { sfl_CloseIntItem(rec->FreeMapHandle); });
  mdc_close(rec->FileDes);
  rec->FileDes = -1;
  sfl_DeleteOSerFile(rec);
}
