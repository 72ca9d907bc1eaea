// Whole-file compaction: the free-map analysis that decides at close whether a
// container has too many holes, and the rebuild that copies its items into a
// fresh file without holes and puts that file in the old one's place.
//
// The rebuild writes "<path>#.new" (a name no reference maps to) with its
// free map kept in memory (MemFreeMap), writes the map once at the end,
// flushes the new file and only then renames it over the old name. A crash therefore leaves either the old
// file whole under its name or the new one, whole and flushed. The old inode
// is marked HAS_BEEN_COMPACTED once the new one holds the name, so processes
// that still hold the old inode never rebuild it again.
//
// Sections:
//   1. settings and the free-map analysis
//   2. copying items from the old file into the new one
//   3. the rebuild and its clean-up frame
//   4. entry points
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <vector>

#include "cust.h"
#include "ext.h"
#include "im.h"
#include "mdc.h"
#include "os.h"
#include "sfl_alone.h"
#include "sfl_coding.h"
#include "sfl_int.h"

// ==== 1. settings and the free-map analysis ================================================

namespace {

constexpr int64_t kDefaultHolesLimit = 32768;  // bytes
constexpr uint32_t kDefaultHolesRatio = 25;    // percent

// Read once per process; later changes of the keys are not seen.
bool g_settingsRead = false;
int64_t g_holesLimit = kDefaultHolesLimit;
uint32_t g_holesRatio = kDefaultHolesRatio;

void ReadSettingsOnce() {
  if (g_settingsRead) return;
  if (const char* v = cust_GetCustomiseInfo("SFL_HOLES_SIZE_LIMIT")) {
    const int kb = std::atoi(v);
    if (kb > 0) g_holesLimit = static_cast<int64_t>(kb) * 1024;
  }
  if (const char* v = cust_GetCustomiseInfo("SFL_HOLES_RATIO")) {
    const int pct = std::atoi(v);
    if (pct >= 1 && pct <= 99) g_holesRatio = static_cast<uint32_t>(pct);
  }
  g_settingsRead = true;
}

uint32_t ZeroBits(uint8_t byte) {
  return 8u - static_cast<uint32_t>(__builtin_popcount(byte));
}

}  // namespace

void sfl_ResetCompactionSettings() {
  g_settingsRead = false;
  g_holesLimit = kDefaultHolesLimit;
  g_holesRatio = kDefaultHolesRatio;
}

uint32_t sfl_AnalyseFreeMap(sfl_BaseRec* rec) {
  ER_TRACE_PROC("sfl_AnalyseFreeMap");
  struct stat st;
  if (os_fstat(rec->FileDes, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  const int64_t size = st.st_size;
  ReadSettingsOnce();
  // Too small for its holes to pass the limit: the map is not even read.
  if (size * static_cast<int64_t>(g_holesRatio) / 100 < g_holesLimit) return 0;

  if (rec->FreeMapItem == nullptr) SFL_RAISE(SFL_R_BAD_MAP);
  sfl_Held lock;
  lock.ItemHeader(rec->FreeMapItem, SFL_LOCK_EXCL);
  sfl_ItemHeader fm;
  sfl_ReadItemHeader(rec->FreeMapItem, &fm);
  std::vector<uint8_t> map;
  const uint32_t mapLen = sfl_ReadFreeMap(rec, &map, fm);

  const uint32_t blocks = static_cast<uint32_t>((size + 127) / 128);  // N
  const uint32_t mapBytes = (blocks + 7) / 8;                           // B
  uint32_t freeBlocks = 0;                                              // F
  // The file may reach past what its map covers; bytes the map does not
  // have are not read (that would be outside the buffer) and count as in use.
  const uint32_t examined = std::min(mapBytes, mapLen);
  for (uint32_t i = 0; i < examined; ++i)
    if (map[i] != 0xFF) freeBlocks += ZeroBits(map[i]);
  // The spare bits of the last byte come off whether or not they were free;
  // F is unsigned, so a full last byte makes it wrap. Kept as it is.
  freeBlocks += blocks - 8 * mapBytes;
  lock.Unlock();

  const uint32_t ratioOfBlocks = (g_holesRatio * blocks) / 100;
  const uint32_t freeBytes = freeBlocks * 128;
  return (freeBlocks != 0 && ratioOfBlocks < freeBlocks &&
          static_cast<int64_t>(freeBytes) > g_holesLimit)
             ? 1
             : 0;
}

// ==== 2. copying items ====================================================================

namespace {

enum CopyCode : int32_t {
  kCopied = 255,
  kEmptySlot = 9,
  kIncomplete = 8,
  kHeaderShort = 6,
  kIndexShort = 1,
  kIndexMagic = 2,
  kIndexType = 3,
};

constexpr uint32_t kContainerMarkerType = 3;
constexpr uint32_t kIntSlotsStart = 256;
constexpr uint32_t kIntSlots = 8;
// An internal container whose internal items are containers again, and so on:
// the nesting a damaged file could make endless is cut off here.
constexpr int kMaxContainerNesting = 8;

// Whether a run recorded in the old file's records lies within 32-bit file
// offsets, where every run of this format lies. Runs may reach past the end
// of the old file: space reserved but never written reads as zeros.
bool WithinOffsets(uint64_t offset, uint64_t length) { return offset + length <= UINT32_MAX; }

// Reads up to `len` bytes and zeros what lies past the end of the file.
void ReadOldRun(int fd, uint8_t* buf, size_t len, uint64_t offset) {
  const size_t done = sfl_PReadUpTo(fd, buf, len, offset);
  std::fill(buf + done, buf + len, 0);
}

// Reads exactly `len` bytes; returns false when the file ends first. A
// failed read is an error of the system, not a finding about the file, and
// escapes; a transfer that comes up short is continued, so that it is never
// taken for a record cut short (which the rebuild would leave behind).
bool ReadOld(int fd, void* buf, size_t len, uint64_t offset) {
  return sfl_PReadUpTo(fd, buf, len, offset) == len;
}

// Closes a handle of the new file on every path out of a copy step.
class NewHandle {
 public:
  NewHandle(int32_t handle, bool internal) : handle_(handle), internal_(internal) {}
  ~NewHandle() {
    if (handle_ < 0) return;
    er_StatusKeeper keep;
    try {
      CloseNow();
    } catch (const er_Escape&) {
      er_Accept(5);
    }
  }
  NewHandle(const NewHandle&) = delete;
  NewHandle& operator=(const NewHandle&) = delete;
  int32_t get() const { return handle_; }
  void Close() {
    if (handle_ >= 0) CloseNow();
  }

 private:
  void CloseNow() {
    const int32_t h = handle_;
    handle_ = -1;
    if (internal_)
      sfl_CloseIntItem(h);
    else
      sfl_CloseItem(h);
  }
  int32_t handle_;
  bool internal_;
};

// An index record read from the old file, or the code that says why not.
int32_t ReadOldIndex(int fd, uint32_t offset, sfl_IndexRecord* out, bool* allZero) {
  sfl_IndexBytes raw{};
  if (!ReadOld(fd, raw.data(), raw.size(), offset)) return kIndexShort;
  if (allZero != nullptr)
    *allZero = std::all_of(raw.begin(), raw.end(), [](uint8_t b) { return b == 0; });
  *out = sfl_DecodeIndex(raw);
  if (allZero != nullptr && *allZero) return kCopied;
  if (out->Magic != SFL_MAGIC) return kIndexMagic;
  if (out->Type != SFL_TYPE_INDEX) return kIndexType;
  return kCopied;
}

int32_t CopyIndex(int32_t itemHandle, int fd, const sfl_IndexRecord& record);

int32_t CopyIndexChild(int32_t itemHandle, int fd, const sfl_IndexRecord& parent, uint32_t entry,
                       std::vector<uint8_t>* buffer) {
  const sfl_IndexEntry& e = parent.Entries[entry];
  const uint32_t block = parent.BaseBlockNum + entry;
  if (e.SectionOffSet == 0) {
    sfl_WriteBlockedData(itemHandle, block, 0, buffer->data());
    return kCopied;
  }
  if (parent.Depth != 0) {
    sfl_IndexRecord child;
    const int32_t code = ReadOldIndex(fd, e.SectionOffSet, &child, nullptr);
    if (code != kCopied) return code;
    // Each level lies one below its parent: a damaged tree pointing back up
    // would otherwise be walked for ever.
    if (child.Depth >= parent.Depth) return kIndexType;
    return CopyIndex(itemHandle, fd, child);
  }
  // A block recorded beyond 32-bit offsets is not of this format.
  if (!WithinOffsets(e.SectionOffSet, e.SectionSize)) return kIncomplete;
  if (buffer->size() < e.SectionSize) buffer->resize(e.SectionSize);
  ReadOldRun(fd, buffer->data(), e.SectionSize, e.SectionOffSet);
  sfl_WriteBlockedData(itemHandle, block, e.SectionSize, buffer->data());
  return kCopied;
}

// Copies every entry of one record (and, below a branch, its subtree);
// returns the lowest code met, 255 when all went well.
int32_t CopyIndex(int32_t itemHandle, int fd, const sfl_IndexRecord& record) {
  std::vector<uint8_t> buffer(1);  // grows to the largest block of this record
  int32_t result = kCopied;
  // A record has 32 entries whatever its EverUsed says.
  const uint32_t entries = std::min(record.EverUsed, SFL_INDEX_ENTRIES);
  for (uint32_t e = 0; e < entries; ++e)
    result = std::min(result, CopyIndexChild(itemHandle, fd, record, e, &buffer));
  return result;
}

int32_t CopyBlocked(int32_t newBase, uint32_t newHeaderOff, int fd, uint32_t topOff) {
  sfl_BaseRec* newRec = sfl_Handle2Record(newBase);
  sfl_ItemRec stub;  // stands for the parent: the new file and the header's place
  stub.BaseHandle = newBase;
  stub.BaseRecord = newRec;
  stub.HeaderOff = newHeaderOff;
  NewHandle item(sfl_GenCreateIntBItem(&stub, newHeaderOff, 0), true);

  sfl_IndexRecord top;
  bool neverUsed = false;
  const int32_t code = ReadOldIndex(fd, topOff, &top, &neverUsed);
  if (code != kCopied) return code;
  // A root still all zeros (an item whose tree was never used) holds no
  // blocks: the new item keeps its empty root.
  const int32_t result = neverUsed ? kCopied : CopyIndex(item.get(), fd, top);
  item.Close();
  return result;
}

int32_t CopyItem(int32_t newBase, uint32_t newHeaderOff, int fd, uint64_t oldHeaderOff,
                 int nesting);

// Returns 1 when every internal item was copied, 0 otherwise.
int32_t CopyContainer(int32_t newBase, uint32_t newHeaderOff, int fd, uint32_t dataOff,
                      uint32_t size, int nesting) {
  NewHandle copy(sfl_CopySimpleItem(newBase, newHeaderOff, fd, dataOff, size, 0), false);
  const uint32_t newData = sfl_ItemHandle2Record(copy.get())->Offset;
  copy.Close();

  int32_t result = 1;
  for (uint32_t n = 0; n < kIntSlots; ++n) {
    const uint32_t rel = kIntSlotsStart + n * SFL_ITEM_HEADER_SIZE;
    const uint64_t oldAt = uint64_t{dataOff} + rel;
    sfl_ItemHeaderBytes bytes;
    if (!ReadOld(fd, bytes.data(), bytes.size(), oldAt)) continue;
    const sfl_ItemHeader h = sfl_DecodeItemHeader(bytes);
    if (h.Magic != SFL_MAGIC || h.Type != SFL_TYPE_ITEM_HEADER) continue;
    const int32_t code = CopyItem(newBase, newData + rel, fd, oldAt, nesting + 1);
    if (code != kCopied && code != kEmptySlot) result = 0;
  }
  return result;
}

// Gives a copied item's new header what the old one said about the item
// itself: its owners (attach count), change date, flags and size. Only where
// its space lies stays new. A
// rebuilt header would otherwise leave an item with several owners to the
// first detach, and mark a table item internal, so that deleting it would
// never give its slot back.
void KeepItemFields(sfl_BaseRec* newRec, uint32_t headerOff, const sfl_ItemHeader& old) {
  sfl_ItemRec stub;
  stub.BaseRecord = newRec;
  stub.HeaderOff = headerOff;
  sfl_Held lock;
  lock.IntHeader(newRec, headerOff, SFL_LOCK_EXCL);
  sfl_ItemHeader h;
  sfl_ReadInternalItemH(&stub, headerOff, &h);
  h.AccCount = old.AccCount;
  h.ChangeDate = old.ChangeDate;
  h.Flags = old.Flags & ~static_cast<uint32_t>(MEM_FREEMAP);
  h.FileSize = old.FileSize;
  sfl_WriteInternalItemH(&stub, headerOff, h);
}

int32_t CopyItem(int32_t newBase, uint32_t newHeaderOff, int fd, uint64_t oldHeaderOff,
                 int nesting) {
  ER_TRACE_PROC("sfl_CopyOutItem");
  sfl_ItemHeaderBytes bytes;
  // File offsets are 32-bit: a header placed beyond that cannot be read.
  if (oldHeaderOff > UINT32_MAX || !ReadOld(fd, bytes.data(), bytes.size(), oldHeaderOff))
    return kHeaderShort;
  if (std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; })) return kEmptySlot;
  const sfl_ItemHeader h = sfl_DecodeItemHeader(bytes);

  if (h.Flags & BLOCKED_ITEM) {
    const int32_t code = CopyBlocked(newBase, newHeaderOff, fd, h.FileOffset);
    if (code != kCopied) return kIncomplete;
    KeepItemFields(sfl_Handle2Record(newBase), newHeaderOff, h);
    return kCopied;
  }

  // The whole reserved run is copied, so that the item can still be made
  // larger within the space reserved when it was stored (reserved space the
  // old file never wrote comes over as zeros). A header whose size passes
  // its reservation, or whose run passes 32-bit offsets, is not believed:
  // its item cannot be copied.
  const uint64_t reserved = uint64_t{h.UsedBlocks} * SFL_BLOCK_SIZE;
  if (h.FileSize > reserved || !WithinOffsets(h.FileOffset, reserved)) return kHeaderShort;
  const uint32_t run = static_cast<uint32_t>(reserved);
  if (h.FileSize > 1023) {
    uint8_t marker[8];
    if (ReadOld(fd, marker, sizeof marker, h.FileOffset) && sfl_GetU32(marker) == SFL_MAGIC &&
        sfl_GetU32(marker + 4) == kContainerMarkerType) {
      if (nesting >= kMaxContainerNesting) return kIncomplete;
      if (CopyContainer(newBase, newHeaderOff, fd, h.FileOffset, run, nesting) == 0)
        return kIncomplete;
      KeepItemFields(sfl_Handle2Record(newBase), newHeaderOff, h);
      return kCopied;
    }
  }
  NewHandle copy(sfl_CopySimpleItem(newBase, newHeaderOff, fd, h.FileOffset, run, 0), false);
  copy.Close();
  KeepItemFields(sfl_Handle2Record(newBase), newHeaderOff, h);
  return kCopied;
}

}  // namespace

int32_t sfl_CopyOutItem(int32_t newBase, uint32_t newHeaderOff, int32_t oldFd,
                        uint32_t oldHeaderOff) {
  return CopyItem(newBase, newHeaderOff, oldFd, oldHeaderOff, 0);
}

int32_t sfl_CopyOutInternalContainer(int32_t newBase, uint32_t newHeaderOff, int32_t oldFd,
                                     uint32_t dataOff, uint32_t size) {
  ER_TRACE_PROC("sfl_CopyOutInternalContainer");
  return CopyContainer(newBase, newHeaderOff, oldFd, dataOff, size, 0);
}

int32_t sfl_CopyOutBlockedItem(int32_t newBase, uint32_t newHeaderOff, int32_t oldFd,
                               uint32_t topIndexOff, uint32_t size) {
  ER_TRACE_PROC("sfl_CopyOutBlockedItem");
  (void)size;  // the tree says how much there is
  return CopyBlocked(newBase, newHeaderOff, oldFd, topIndexOff);
}

int32_t sfl_CopyOutIndex(int32_t itemHandle, int32_t oldFd, const sfl_IndexRecord& record) {
  return CopyIndex(itemHandle, oldFd, record);
}

int32_t sfl_CopyOutIndexChild(int32_t itemHandle, int32_t oldFd, const sfl_IndexRecord& parent,
                              uint32_t entry) {
  if (entry >= SFL_INDEX_ENTRIES) return kIndexType;
  std::vector<uint8_t> buffer(1);
  return CopyIndexChild(itemHandle, oldFd, parent, entry, &buffer);
}

// ==== 3. the rebuild =======================================================================

namespace {

constexpr uint32_t kReservedBlocks = 5;  // file header and item table: 640 bytes

// Runs one clean-up step; a second error in it is swallowed and the status
// of the first kept.
template <class Step>
void Quietly(Step step) noexcept {
  er_StatusKeeper keep;
  try {
    step();
  } catch (...) {
  }
}

// What a rebuild holds, given back by its destructor on every path that
// did not give it back itself: the interest, the new file's record, the old
// descriptor (and with it every lock taken through it), MemFreeMap, and the
// new descriptor with the scratch name.
struct Rebuild {
  sfl_BaseRec request;  // the interest exchange: only the file's reference is set
  // Withdrawn on failure even before it was recorded (an unmatched withdraw
  // is ignored by the service).
  bool interestHeld = true;
  int oldFd = -1;
  int newFd = -1;
  std::string newPath;
  bool newNamed = false;  // the scratch name exists and is this rebuild's
  sfl_BaseRec* newRec = nullptr;
  // The interest creating the new file recorded under its temporary
  // reference: withdrawn on failure, left with the service after success as
  // it always has been.
  sfl_BaseRec newInterest;
  bool newInterestHeld = false;

  Rebuild() = default;
  Rebuild(const Rebuild&) = delete;
  Rebuild& operator=(const Rebuild&) = delete;

  ~Rebuild() {
    if (interestHeld) Quietly([&] { sfl_ReleaseBaseInterest(&request); });
    if (newInterestHeld) Quietly([&] { sfl_ReleaseBaseInterest(&newInterest); });
    DropNewRecord();
    if (oldFd >= 0) Quietly([&] { os_close(oldFd); });
    FreeMemMap();
    if (newFd >= 0) Quietly([&] { os_close(newFd); });
    if (newNamed) Quietly([&] { os_unlink(newPath.c_str()); });
  }

  // Closes the new file's free-map item and drops its record (while its
  // descriptor is still open: a record without one would open its file again).
  void DropNewRecord() noexcept {
    if (newRec == nullptr) return;
    sfl_BaseRec* rec = newRec;
    newRec = nullptr;
    if (rec->FreeMapItem != nullptr) {
      const int32_t mapHandle = rec->FreeMapHandle;
      Quietly([&] { sfl_CloseItem(mapHandle); });
    }
    Quietly([&] {
      rec->FileDes = -1;  // the descriptor is this rebuild's to close
      sfl_DeleteOSerFile(rec);
    });
  }

  static void FreeMemMap() noexcept {
    if (MemFreeMap != nullptr) os_free(MemFreeMap);
    MemFreeMap = nullptr;
    MemFreeMapSize = 0;
  }
};

// The old file's header, raw: changing a flag leaves every other byte as it
// was. A short read is 1026; a file that is not a container is 28862.
sfl_FileHeaderBytes ReadOldHeader(int fd, sfl_FileHeader* decoded) {
  sfl_FileHeaderBytes raw{};
  if (os_pread(fd, raw.data(), raw.size(), 0) != static_cast<ssize_t>(raw.size()))
    ER_RAISE(ER_GROUP_MAINT, SFL_R_MAINT_HEADER_SHORT);
  *decoded = sfl_DecodeFileHeader(raw);
  if (decoded->Magic != SFL_MAGIC || decoded->Type != SFL_TYPE_FILE_HEADER)
    SFL_RAISE(SFL_R_BAD_FILE);
  return raw;
}

void WriteAll(int fd, const void* buf, size_t len, uint64_t offset) {
  if (os_pwrite(fd, buf, len, static_cast<off_t>(offset)) != static_cast<ssize_t>(len))
    SFL_RAISE(SFL_R_SHORT_WRITE);
}

// Sets flag bits in the old file's header (held under its exclusive lock).
void AddOldFlags(int fd, uint32_t bits) {
  sfl_FileHeader h;
  sfl_FileHeaderBytes raw = ReadOldHeader(fd, &h);
  sfl_PutU32(raw.data() + sfl_fh::Flags, h.Flags | bits);
  WriteAll(fd, raw.data(), raw.size(), 0);
}

// Whether this process was told never to flush ("SFL_ALL_ASYNC_IO", or the
// switch set by sfl_SetAllAsync). The new file is flushed even so before it
// replaces the old one: without that a crash could leave the name on a file
// that was never written out, and the old contents would be gone as well.
bool ProcessNeverFlushes() {
  const uint32_t allAsync = sfl_SetAllAsync(0);
  sfl_SetAllAsync(allAsync);
  if (allAsync == 1) return true;
  return cust_GetCustomiseInfo("SFL_ALL_ASYNC_IO") != nullptr &&
         cust_GetCustomiseInfo("SFL_ALL_SYNC_IO") == nullptr;
}

// What is at `path` itself (a link is not followed); false when nothing is.
bool LstatName(const std::string& path, struct stat* st) {
  const int at = os_open(path.c_str(), O_PATH | O_NOFOLLOW);
  if (at < 0) {
    if (errno == ENOENT) return false;
    ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
  }
  const int rc = os_fstat(at, st);
  const int err = errno;
  os_close(at);
  if (rc != 0) ER_RAISE_MSG(ER_GROUP_OS, err, path.c_str());
  return true;
}

// Creates the scratch file under its own name, never following or reusing
// what is there (a link planted there would have the copy written into its
// target). A rebuild that crashed leaves a plain file of the container's
// owner (or of this process's user, before the owner changed) behind: that
// one is removed, and reported. Anything else at the name belongs to
// someone else: it is left alone and the rebuild refused (EEXIST) with the
// old file as it was.
int CreateScratch(const std::string& path, uid_t containerOwner, uint32_t fileId) {
  constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW;
  int fd = os_open(path.c_str(), kFlags, 0660);
  if (fd >= 0) return fd;
  if (errno != EEXIST) ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
  struct stat st;
  if (LstatName(path, &st)) {
    if (!S_ISREG(st.st_mode) || (st.st_uid != containerOwner && st.st_uid != os_getuid())) {
      ER_LOG(3, ER_GROUP_OS, EEXIST,
             "rebuilding file %u: %s is not a leftover of a rebuild; it is left alone and the "
             "file is not rebuilt",
             fileId, path.c_str());
      ER_RAISE_MSG(ER_GROUP_OS, EEXIST, path.c_str());
    }
    ER_LOG(3, ER_GROUP_OS, EEXIST, "rebuilding file %u: removing the leftover %s of a rebuild",
           fileId, path.c_str());
    if (os_unlink(path.c_str()) != 0 && errno != ENOENT)
      ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
  }
  fd = os_open(path.c_str(), kFlags, 0660);
  if (fd < 0) ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
  return fd;
}

// Copies the old file's items into the new one (steps of the copy loop):
// returns the working header with the slots that were copied.
void CopyItems(Rebuild& r, int32_t newBase, const sfl_FileHeader& old, sfl_FileHeader* work) {
  // The in-use map has eight bits, whatever MaxItems says.
  const uint32_t slots = std::min<uint32_t>(old.MaxItems, 8);
  for (uint32_t i = 1; i < slots; ++i) {
    if ((old.InUseItms & (1u << i)) == 0) continue;
    const uint64_t oldAt = uint64_t{old.TableOffset} + uint64_t{i} * SFL_ITEM_HEADER_SIZE;
    // An item waiting for its deletion to be carried out is released here,
    // as the last close would have done: nobody else holds the file. As at
    // the close, only while the file says deletions are pending: DELETED
    // alone is also left on an item whose owners came back after a detach.
    sfl_ItemHeaderBytes peek;
    if ((old.Flags & ITEM_PEND_DEL) && oldAt <= UINT32_MAX &&
        ReadOld(r.oldFd, peek.data(), peek.size(), oldAt)) {
      const sfl_ItemHeader h = sfl_DecodeItemHeader(peek);
      if (h.Magic == SFL_MAGIC && h.Type == SFL_TYPE_ITEM_HEADER && (h.Flags & DELETED)) continue;
    }
    const uint32_t newAt = r.newRec->ITableOff + i * SFL_ITEM_HEADER_SIZE;
    const int32_t code = CopyItem(newBase, newAt, r.oldFd, oldAt, 0);
    // An item that cannot be copied whole stops the rebuild: the new file
    // would lack it and every item after it, and the old file, whose other
    // items are sound, would be gone. The old file stays as it was; the
    // check and its repair deal with the damaged item.
    if (code != kCopied && code != kEmptySlot) {
      ER_LOG(3, ER_GROUP_SFL, SFL_R_BAD_ITEM_HEADER,
             "rebuilding file %u: item %u could not be copied (code %d); the file is left "
             "as it was",
             r.request.FileId, i, code);
      const std::string which = "item " + std::to_string(i) + " cannot be copied";
      ER_RAISE_MSG(ER_GROUP_SFL, SFL_R_BAD_ITEM_HEADER, which.c_str());
    }
    ++work->UsedItems;
    work->InUseItms = static_cast<uint8_t>(work->InUseItms | (1u << i));
  }
}

// Writes the in-memory map into space of the new file and item 0's header.
void WriteNewMap(Rebuild& r) {
  sfl_MakeSpaceFitMemMap(r.newRec);
  uint32_t blocks = 0;
  const uint32_t at = sfl_GetFreeSpaceNew(r.newRec, MemFreeMapSize, &blocks);
  WriteAll(r.newFd, MemFreeMap, MemFreeMapSize, at);
  sfl_ItemHeader fm = sfl_NewItemHeader();
  fm.AccCount = 1;
  fm.FileSize = MemFreeMapSize;
  fm.UsedBlocks = blocks;
  fm.ChangeDate = mdc_time();
  fm.FileOffset = at;
  sfl_ItemHeaderBytes bytes;
  sfl_EncodeItemHeader(fm, bytes);
  WriteAll(r.newFd, bytes.data(), bytes.size(), r.newRec->ITableOff);
}

// Builds the new file, puts it in the old one's place and marks the old one.
// `heldFd`, when not -1, is the descriptor of the file the caller holds.
sfl_CompactOutcome Compact(const sfl_ItemRef& ref, int heldFd) {
  char path[PATH_MAX];
  im_ItemRef2FName(&ref, path, sizeof path);

  Rebuild r;
  sfl_SetRef(r.request, ref);
  r.oldFd = im_OpenContainer(path, O_RDWR);
  if (os_flock(r.oldFd, LOCK_EX) != 0) ER_RAISE(ER_GROUP_OS, errno);
  struct stat st;
  if (os_fstat(r.oldFd, &st) != 0) ER_RAISE(ER_GROUP_OS, errno);
  if (st.st_size <= static_cast<off_t>(SFL_FILE_HEADER_SIZE)) SFL_RAISE(SFL_R_BAD_FILE);

  // The rebuild needs the file to itself from the copy to the mark that it
  // was replaced: the exclusive use is taken through the rebuild's own
  // descriptor and held until then. An open or a revival waits for it and
  // then finds the file replaced, so no process starts to use the old file
  // while it is being copied.
  r.request.FileDes = r.oldFd;
  sfl_HoldAlone use;
  use.Lock(&r.request);
  sfl_FileHeader old;
  ReadOldHeader(r.oldFd, &old);
  // Only the file the name leads to is rebuilt (another rebuild may have
  // replaced it between the open and the lock), and from a close only the
  // file that close holds: a name that moved on to another file is that
  // file's business.
  if ((old.Flags & HAS_BEEN_COMPACTED) || !use.Named() ||
      (heldFd >= 0 && !sfl_SameInode(heldFd, path))) {
    r.interestHeld = false;  // none was recorded
    use.Release();
    return SFL_COMPACT_REPLACED;
  }

  use.Decide(sfl_Interest::Record);
  // The mark goes on first and stays until the file is replaced, so that a
  // later close retries without analysis.
  if ((old.Flags & NEED_COMPACTION) == 0) AddOldFlags(r.oldFd, NEED_COMPACTION);
  if (!use.Alone()) {
    use.Release();
    r.interestHeld = false;
    sfl_ReleaseBaseInterest(&r.request);
    return SFL_COMPACT_HELD;
  }

  char scratch[PATH_MAX];
  im_ScratchFName(&ref, scratch, sizeof scratch);
  r.newPath = scratch;
  r.newFd = CreateScratch(r.newPath, st.st_uid, ref.FileId);
  r.newNamed = true;
  // Mode and owner are set through the descriptor: the name may lead
  // elsewhere by now.
  if (os_fchmod(r.newFd, 0660) != 0) ER_RAISE(ER_GROUP_OS, errno);  // whatever the umask
  if (ext_FChownToVessant(r.newFd) != 0) SFL_RAISE(SFL_R_CHOWN);

  sfl_ItemRef tmp = ref;
  tmp.Flags = static_cast<uint16_t>(tmp.Flags & ~SFL_ITEM_NUM_MASK);
  std::memcpy(tmp.Name, "new", sizeof tmp.Name);
  const int32_t newBase = sfl_CreateBaseSfl(&tmp, r.newFd, 0);
  r.newRec = sfl_Handle2Record(newBase);
  sfl_SetRef(r.newInterest, tmp);
  r.newInterest.InterestToken = r.newRec->InterestToken;
  r.newInterestHeld = true;
  // The new file is flushed once, whole, before the rename; flushes on the
  // way (whatever the sync settings) would only slow the copy down. The mark
  // is this record's only: the new file's header keeps its flags.
  r.newRec->UserAsync = 1;
  r.newRec->FileFlags |= ASYNCHRONOUS;
  sfl_FileHeaderBytes workRaw{};
  if (os_pread(r.newFd, workRaw.data(), workRaw.size(), 0) != static_cast<ssize_t>(workRaw.size()))
    SFL_RAISE(SFL_R_SHORT_READ);
  sfl_FileHeader work = sfl_DecodeFileHeader(workRaw);

  // All space of the new file comes from the map in memory. The 256 bytes
  // creation gave the first map are free there and hold data like any others.
  r.newRec->FreeMapItem->Flags |= MEM_FREEMAP;
  if (MemFreeMap == nullptr) {
    MemFreeMap = static_cast<uint8_t*>(os_calloc(SFL_INITIAL_MAP_SIZE, 1));
    if (MemFreeMap == nullptr) ER_RAISE(ER_GROUP_OS, ENOMEM);
    MemFreeMapSize = SFL_INITIAL_MAP_SIZE;
  }
  ext_SetBits(MemFreeMap, MemFreeMapSize, 0, kReservedBlocks, 1);

  CopyItems(r, newBase, old, &work);

  if (r.newRec->FreeMapItem->Flags & MEM_FREEMAP) WriteNewMap(r);
  Rebuild::FreeMemMap();

  sfl_EncodeFileHeader(work, workRaw);
  WriteAll(r.newFd, workRaw.data(), workRaw.size(), 0);
  // The new file is whole on disk before its name can replace the old one.
  if (os_fsync(r.newFd) != 0) ER_RAISE(ER_GROUP_OS, errno);
  r.DropNewRecord();
  struct stat built;
  if (os_fstat(r.newFd, &built) != 0) ER_RAISE(ER_GROUP_OS, errno);
  const int newFd = r.newFd;
  r.newFd = -1;
  if (os_close(newFd) != 0) ER_RAISE(ER_GROUP_OS, errno);

  // Only the file built here takes the container's name: what someone put
  // at the scratch name meanwhile is left where it is.
  struct stat named;
  if (!LstatName(r.newPath, &named) || named.st_dev != built.st_dev ||
      named.st_ino != built.st_ino) {
    r.newNamed = false;
    ER_RAISE_MSG(ER_GROUP_OS, EEXIST, r.newPath.c_str());
  }
  if (os_rename(r.newPath.c_str(), path) != 0) ER_RAISE(ER_GROUP_OS, errno);
  r.newNamed = false;
  // Before the old file says it was replaced, the replacement's name must
  // hold across a crash.
  if ((old.Flags & ASYNCHRONOUS) == 0 && !ProcessNeverFlushes()) sfl_FlushEntryOf(ref);

  // Lands in the old, now nameless file: processes that still hold it learn
  // from this mark that it has been replaced and never rebuild it again.
  AddOldFlags(r.oldFd, HAS_BEEN_COMPACTED);
  use.Release();
  r.newInterestHeld = false;  // left with the service, see above

  r.interestHeld = false;
  sfl_ReleaseBaseInterest(&r.request);
  return SFL_COMPACT_DONE;
}

}  // namespace

// ==== 4. entry points ======================================================================

namespace {

// Runs a rebuild under its frame: an escape is absorbed and reported as a
// failure, unless the error library still holds it live after that.
int32_t RunCompaction(const sfl_ItemRef* ref, int heldFd) {
  SFL_NEED_ARG(ref);
  if (ref->Flags & SFL_ITEM_NUM_MASK) ER_RAISE(ER_GROUP_MAINT, SFL_R_MAINT_REF_IS_ITEM);
  try {
    return Compact(*ref, heldFd);
  } catch (const er_Escape&) {
    er_Accept(3);
    if (er_GetLive()) throw;
    return SFL_COMPACT_FAILED;
  }
}

}  // namespace

int32_t sfl_CompactContainer(const sfl_ItemRef* ref) {
  ER_TRACE_PROC("sfl_CompactSflFile");
  return RunCompaction(ref, -1);
}

// From a close: the file rebuilt must be the one the closing process holds.
uint32_t sfl_CompactSflFile(sfl_BaseRec* rec) {
  ER_TRACE_PROC("sfl_CompactSflFile");
  const sfl_ItemRef ref = sfl_RefOf(*rec);
  return RunCompaction(&ref, rec->FileDes) == SFL_COMPACT_FAILED ? 1 : 0;
}

uint32_t sfl_GetFileFlags(int32_t baseHandle) {
  ER_TRACE_PROC("sfl_GetFileFlags");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_PtrEnsureBaseFileOpen(rec);
  sfl_Held header;
  header.Header(rec, SFL_LOCK_SHARED);
  sfl_FileHeader h;
  sfl_ReadFileHeader(rec, &h);
  return h.Flags;
}
