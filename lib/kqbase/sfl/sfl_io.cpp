// The record routines: moving file headers, item headers, internal item
// headers, index records and the free map between a container file and
// memory, with the checks each read applies, and the per-handle caches of
// item headers and index records kept while a handle is frozen.
//
// Every transfer is one positioned call (os_pread / os_pwrite) of exactly
// the record's size; records are encoded and decoded field by field.
#include <cerrno>
#include <sys/stat.h>

#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"

namespace {

int fdOf(const sfl_BaseRec* rec) { return rec != nullptr ? rec->FileDes : -1; }
int fdOf(const sfl_ItemRec* item) {
  return item != nullptr && item->BaseRecord != nullptr ? item->BaseRecord->FileDes : -1;
}

// Reads exactly buf.size() bytes at `offset` or raises 28871.
template <size_t N>
void readRecord(int fd, std::array<uint8_t, N>* buf, uint64_t offset) {
  ssize_t n = os_pread(fd, buf->data(), N, static_cast<off_t>(offset));
  if (n != static_cast<ssize_t>(N)) SFL_RAISE(SFL_R_SHORT_READ);
}

// Writes exactly buf.size() bytes at `offset` or raises 28851.
template <size_t N>
void writeRecord(int fd, const std::array<uint8_t, N>& buf, uint64_t offset) {
  ssize_t n = os_pwrite(fd, buf.data(), N, static_cast<off_t>(offset));
  if (n != static_cast<ssize_t>(N)) SFL_RAISE(SFL_R_SHORT_WRITE);
}

// Every write through a record leaves it to be flushed, marked before the
// write is tried: one that fails may still have changed the file.
sfl_BaseRec* written(sfl_BaseRec* rec) {
  if (rec != nullptr) rec->Unflushed = 1;
  return rec;
}
sfl_ItemRec* written(sfl_ItemRec* item) {
  if (item != nullptr) written(item->BaseRecord);
  return item;
}

bool hasMagicAndType(const uint8_t* p, uint32_t type) {
  return sfl_GetU32(p) == SFL_MAGIC && sfl_GetU32(p + 4) == type;
}

void noteCurrentIndex(sfl_ItemRec* item, uint32_t offset, const sfl_IndexRecord& r) {
  item->LastIdxOff = offset;
  item->LastIdxBase = r.BaseBlockNum;
  item->LastIdxDepth = r.Depth;
}

// Keeps a copy of the index record just read or written while the handle is
// frozen. An unfrozen handle does not maintain the cache, so it is marked
// stale: freezing later must not serve a record from an earlier period.
void cacheIndex(sfl_ItemRec* item, const sfl_IndexBytes& bytes) {
  if (!item->Frozen) {
    item->IndexCacheValid = 0;
    return;
  }
  if (!item->IndexCache) item->IndexCache = std::make_unique<sfl_IndexBytes>();
  *item->IndexCache = bytes;
  item->IndexCacheValid = 1;
}

void cacheHeader(sfl_ItemRec* item, const sfl_ItemHeaderBytes& bytes) {
  if (!item->Frozen) {
    item->HeaderCacheValid = 0;
    return;
  }
  if (!item->HeaderCache) item->HeaderCache = std::make_unique<sfl_ItemHeaderBytes>();
  *item->HeaderCache = bytes;
  item->HeaderCacheValid = 1;
}

}  // namespace

// ---- file header ----------------------------------------------------------------

void sfl_ReadFileHeader(sfl_BaseRec* rec, sfl_FileHeader* out) {
  sfl_FileHeaderBytes bytes;
  readRecord(fdOf(rec), &bytes, 0);
  if (!hasMagicAndType(bytes.data(), SFL_TYPE_FILE_HEADER)) SFL_RAISE(SFL_R_BAD_FILE_HEADER);
  *out = sfl_DecodeFileHeader(bytes);
}

void sfl_WriteFileHeader(sfl_BaseRec* rec, const sfl_FileHeader& h) {
  sfl_FileHeaderBytes bytes;
  sfl_EncodeFileHeader(h, bytes);
  writeRecord(fdOf(written(rec)), bytes, 0);
}

// ---- item headers -----------------------------------------------------------------

void sfl_ReadItemHeader(sfl_ItemRec* item, sfl_ItemHeader* out) {
  if (item->Frozen && item->HeaderCacheValid && item->HeaderCache) {
    *out = sfl_DecodeItemHeader(*item->HeaderCache);
    return;
  }
  sfl_ItemHeaderBytes bytes;
  readRecord(fdOf(item), &bytes, item->HeaderOff);
  if (!hasMagicAndType(bytes.data(), SFL_TYPE_ITEM_HEADER)) SFL_RAISE(SFL_R_BAD_ITEM_HEADER);
  cacheHeader(item, bytes);
  *out = sfl_DecodeItemHeader(bytes);
}

void sfl_WriteItemHeader(sfl_ItemRec* item, const sfl_ItemHeader& h) {
  sfl_ItemHeaderBytes bytes;
  sfl_EncodeItemHeader(h, bytes);
  // What reached the file after a failed write is unknown: drop the copy.
  item->HeaderCacheValid = 0;
  writeRecord(fdOf(written(item)), bytes, item->HeaderOff);
  cacheHeader(item, bytes);
}

// Internal item headers are never cached: they are addressed by offset and
// several of them are reached through one handle.
void sfl_ReadInternalItemH(sfl_ItemRec* item, uint32_t offset, sfl_ItemHeader* out) {
  sfl_ItemHeaderBytes bytes;
  readRecord(fdOf(item), &bytes, offset);
  if (!hasMagicAndType(bytes.data(), SFL_TYPE_ITEM_HEADER)) SFL_RAISE(SFL_R_BAD_ITEM_HEADER);
  *out = sfl_DecodeItemHeader(bytes);
}

void sfl_WriteInternalItemH(sfl_ItemRec* item, uint32_t offset, const sfl_ItemHeader& h) {
  sfl_ItemHeaderBytes bytes;
  sfl_EncodeItemHeader(h, bytes);
  writeRecord(fdOf(written(item)), bytes, offset);
}

// ---- index records ------------------------------------------------------------------

void sfl_ReadAnIndex(sfl_ItemRec* item, uint32_t offset, sfl_IndexRecord* out) {
  if (item->Frozen && item->IndexCacheValid && item->IndexCache && item->LastIdxOff == offset) {
    *out = sfl_DecodeIndex(*item->IndexCache);
    noteCurrentIndex(item, offset, *out);
    return;
  }
  sfl_IndexBytes bytes;
  readRecord(fdOf(item), &bytes, offset);
  if (!hasMagicAndType(bytes.data(), SFL_TYPE_INDEX)) SFL_RAISE(SFL_R_BAD_INDEX);
  sfl_IndexRecord r = sfl_DecodeIndex(bytes);
  noteCurrentIndex(item, offset, r);
  cacheIndex(item, bytes);
  *out = r;
}

void sfl_WriteAnIndex(sfl_ItemRec* item, uint32_t offset, const sfl_IndexRecord& r) {
  sfl_IndexBytes bytes;
  sfl_EncodeIndex(r, bytes);
  item->IndexCacheValid = 0;
  writeRecord(fdOf(written(item)), bytes, offset);
  noteCurrentIndex(item, offset, r);
  cacheIndex(item, bytes);
}

// ---- free map -------------------------------------------------------------------------

// A map describes at most 2^25 blocks (4 MiB of bits, all a file of 32-bit
// offsets holds); its extension adds a little beyond. A size read from the
// disk above this is damage, and must not size an allocation.
constexpr uint32_t kMaxMapBytes = 8u << 20;

uint32_t sfl_ReadFreeMap(sfl_BaseRec* rec, std::vector<uint8_t>* map, const sfl_ItemHeader& fm) {
  if (fm.FileOffset == 0 || fm.FileSize > kMaxMapBytes ||
      uint64_t{fm.FileOffset} + fm.FileSize > UINT32_MAX)
    SFL_RAISE(SFL_R_BAD_MAP);
  // Every byte kept is overwritten by the read (a short one raises), so a
  // buffer the caller reuses is not cleared first.
  map->resize(fm.FileSize);
  ssize_t n = os_pread(fdOf(rec), map->data(), fm.FileSize, static_cast<off_t>(fm.FileOffset));
  if (n != static_cast<ssize_t>(fm.FileSize)) SFL_RAISE(SFL_R_SHORT_MAP_READ);
  return fm.FileSize;
}

void sfl_WriteFreeMap(sfl_BaseRec* rec, std::span<const uint8_t> map, const sfl_ItemHeader& fm) {
  // A buffer shorter than the map would have to be read past its end.
  if (fm.FileOffset == 0 || map.size() < fm.FileSize) SFL_RAISE(SFL_R_BAD_MAP);
  ssize_t n = os_pwrite(fdOf(written(rec)), map.data(), fm.FileSize, static_cast<off_t>(fm.FileOffset));
  if (n != static_cast<ssize_t>(fm.FileSize)) SFL_RAISE(SFL_R_SHORT_MAP_WRITE);
}

// Writes the bytes holding bits first..first+count-1. The range check lets a
// last byte equal to FileSize through (one past the map); such a byte is
// written only if the caller's buffer actually holds it.
void sfl_WritePartialFreeMap(sfl_BaseRec* rec, std::span<const uint8_t> map, int64_t firstBit,
                             uint32_t bitCount, const sfl_ItemHeader& fm) {
  const int64_t first = firstBit / 8;
  const int64_t last = (firstBit + static_cast<int64_t>(bitCount) - 1) / 8;
  if (fm.FileOffset == 0 || first < 0 || last > static_cast<int64_t>(fm.FileSize))
    SFL_RAISE(SFL_R_BAD_MAP);
  int64_t end = last + 1;  // one past the last byte to write
  if (end > static_cast<int64_t>(map.size())) end = static_cast<int64_t>(map.size());
  if (end <= first) return;
  const size_t len = static_cast<size_t>(end - first);
  ssize_t n = os_pwrite(fdOf(written(rec)), map.data() + first, len,
                        static_cast<off_t>(fm.FileOffset + static_cast<uint64_t>(first)));
  if (n != static_cast<ssize_t>(len)) SFL_RAISE(SFL_R_SHORT_MAP_WRITE);
}

// ---- raw transfers ----------------------------------------------------------------------

ssize_t sfl_PRead(sfl_BaseRec* rec, void* buf, size_t len, uint64_t offset) {
  return os_pread(fdOf(rec), buf, len, static_cast<off_t>(offset));
}

ssize_t sfl_PWrite(sfl_BaseRec* rec, const void* buf, size_t len, uint64_t offset) {
  return os_pwrite(fdOf(written(rec)), buf, len, static_cast<off_t>(offset));
}

// Only the end of the file ends a read early. A transfer that moved nothing
// before it is a failure of the system: taken for the end, it would make a
// sound record look cut short (which a rebuild leaves out and a repair
// deletes) or the rest of a copied item zeros.
void sfl_CheckEndAt(int fd, uint64_t offset) {
  struct stat st;
  if (os_fstat(fd, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  if (offset < static_cast<uint64_t>(st.st_size)) ER_RAISE(ER_GROUP_OS, EIO);
}

size_t sfl_PReadUpTo(int fd, void* buf, size_t len, uint64_t offset) {
  size_t done = 0;
  while (done < len) {
    const ssize_t n =
        os_pread(fd, static_cast<uint8_t*>(buf) + done, len - done, static_cast<off_t>(offset + done));
    if (n < 0) ER_RAISE(ER_GROUP_OS, errno);
    if (n == 0) {
      sfl_CheckEndAt(fd, offset + done);
      break;
    }
    done += static_cast<size_t>(n);
  }
  return done;
}
