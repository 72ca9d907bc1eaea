// Internal interface of the library: the per-process records behind the
// handles, the tables that hold them, the record routines, free space, the
// lock guards and the routines the concerns call in one another.
#ifndef SFL_INT_H
#define SFL_INT_H

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "er.h"
#include "sfl.h"
#include "sfl_records.h"
#include "sfl_tables.h"

// ---- reasons ---------------------------------------------------------------
enum sfl_Reason : int {
  SFL_R_NO_BLOCKED_SLOT = 28850,
  SFL_R_SHORT_WRITE = 28851,
  SFL_R_CACHED_LEAF_FULL = 28852,
  SFL_R_NOT_BLOCKED = 28853,
  SFL_R_LEAF_INDEX = 28854,
  SFL_R_SHORT_BLOCK_WRITE = 28856,
  SFL_R_NO_ITEM = 28857,
  SFL_R_ITEM_OPEN = 28858,
  SFL_R_DETACH_ZERO = 28859,
  SFL_R_REF_IS_ITEM = 28860,
  SFL_R_FILE_OPEN = 28861,
  SFL_R_BAD_FILE = 28862,
  SFL_R_ITEM_DELETED = 28864,
  SFL_R_SHORT_MAP_WRITE = 28865,
  SFL_R_FILES_FULL = 28866,
  SFL_R_BAD_HANDLE = 28867,
  SFL_R_INT_ITEMS_NEGATIVE = 28868,
  SFL_R_BLOCKED = 28869,
  SFL_R_ITEMS_FULL = 28870,
  SFL_R_SHORT_READ = 28871,
  SFL_R_BAD_MAP = 28872,
  SFL_R_SHORT_MAP_READ = 28873,
  SFL_R_RANGE = 28874,
  SFL_R_EMPTY_ENTRY = 28875,
  SFL_R_BAD_SLOT = 28876,
  SFL_R_BLOCK_FOR_SIMPLE = 28877,
  SFL_R_INT_OPEN_TWICE = 28878,
  SFL_R_BAD_INDEX = 28879,
  SFL_R_BAD_ITEM_HEADER = 28880,
  SFL_R_BAD_FILE_HEADER = 28881,
  SFL_R_EMPTY_FIRST_CHILD = 28882,
  SFL_R_NOT_INT_ITEM = 28883,
  SFL_R_REORDER_LOST = 28884,
  SFL_R_CLOSED_WITH_LOCKS = 28885,
  SFL_R_STREAM_MODE = 28886,
  SFL_R_STREAM_ELEMENT = 28887,
  SFL_R_STREAMS_FULL = 28888,
  SFL_R_TRUNC_BLOCKED = 28889,
  SFL_R_BEYOND_RESERVED = 28890,
  SFL_R_ACTIVATE_INT = 28891,
  SFL_R_SINGLE_FILE = 28892,
  SFL_R_READ_ONLY = 28893,
  SFL_R_CHOWN = 28895,
  SFL_R_NEED_MEM_MAP = 28896,
  SFL_R_NOT_BUILT = 28897,
  SFL_R_NO_MAP_HEADER = 28898,
  SFL_R_TOO_DEEP = 28899,
  // A request to the interest service could not be sent (its queue stayed
  // full through every retry).
  SFL_R_NOT_SENT = 3533,
};

// Findings of whole-file maintenance (group ER_GROUP_MAINT).
enum sfl_MaintReason : int {
  SFL_R_MAINT_HEADER_SHORT = 1026,  // the file header could not be read in full
  SFL_R_MAINT_REF_IS_ITEM = 1032,   // a whole-file operation given an item's reference
  SFL_R_MAINT_MAP_BLOCKED = 1033,   // the free-map item is a blocked item
  SFL_R_MAINT_HEADER_WRITE = 1042,  // a short write of the repaired file header
};

#define SFL_RAISE(reason) ER_RAISE(ER_GROUP_SFL, (reason))
// A pointer the caller must give: null is a bad call argument (EINVAL).
#define SFL_NEED_ARG(p)                                  \
  do {                                                   \
    if ((p) == nullptr) ER_RAISE(ER_GROUP_CALL, EINVAL); \
  } while (0)

// ---- per-process records -----------------------------------------------------

// An open container file (one per file per process).
struct sfl_BaseRec {
  // The file's item reference: the first four words.
  uint16_t Domain = 0;
  uint16_t RefFlags = 0;
  uint32_t SubDomain = 0;
  uint32_t FileId = 0;
  char Name[4] = {0, 0, 0, 0};
  int32_t FileDes = -1;
  uint32_t FileFlags = 0;       // copy of the header's Flags at create or open
  uint32_t SpaceAnalysis = 0;   // bit 0: space was released; close considers compaction
  uint32_t InUse = 0;
  uint32_t OpenMode = 0;        // implicit-open mark: close with the last item handle
  uint32_t CreatedHere = 0;
  int32_t IntItemsOpen = 0;
  int32_t ExternalOpens = 0;
  uint32_t ITableOff = 0;
  uint32_t DataOff = 0;
  uint32_t ProcAccCount = 0;    // processes with an interest, from the last exchange
  uint32_t OtherInterest = 0;
  uint32_t InterestToken = 0;
  sfl_ItemRec* FreeMapItem = nullptr;
  int32_t FreeMapHandle = 0;
  uint32_t StructUnsynced = 0;
  uint32_t DataUnsynced = 0;
  // Set by every write through this record, cleared by a flush that
  // succeeds; a new record starts set, as the file may hold writes of an
  // earlier one.
  uint32_t Unflushed = 1;
  uint32_t NewlyCreated = 0;
  // The file's name was made by this record's creation and its directory
  // not flushed since: the first flush of the file flushes the directory
  // too, so that what the flush makes durable can be found after a power
  // cut.
  uint32_t EntryUnflushed = 0;
  uint32_t UserAsync = 0;
  uint32_t MaxItems = 0;
  uint32_t InColdStore = 0;
  uint32_t FreezeSeq = 0;
  // Which use of this table entry the record is: raised each time the entry
  // is freed, so that an item handle bound to an earlier file is told apart
  // from one of the file that took the entry since (sfl_ItemHandle2Record).
  uint32_t Generation = 0;

  void Reset() {
    const uint32_t next = Generation + 1;
    *this = sfl_BaseRec{};
    FileDes = -1;
    Generation = next;
  }
};

// An open item (one per item per process; second opens share it).
struct sfl_ItemRec {
  int32_t BaseHandle = 0;
  sfl_BaseRec* BaseRecord = nullptr;
  uint16_t Domain = 0;
  uint16_t RefFlags = 0;  // the reference's Flags, item number in the low 3 bits
  uint32_t SubDomain = 0;
  uint32_t FileId = 0;
  char Name[4] = {0, 0, 0, 0};
  uint32_t ItemNum = 0;
  uint32_t HeaderOff = 0;
  int32_t OpenRefs = 0;
  uint32_t InUse = 0;
  uint32_t TraverseWord = 0;  // scratch word of the index code
  uint32_t DeleteOnClose = 0;
  // Stored here without a source: the header says INCOMPLETE until this
  // handle's last close (sfl_FinishStore).
  uint32_t Incomplete = 0;
  int32_t LockCount = 0;
  uint32_t Offset = 0;
  uint32_t Size = 0;
  uint32_t Flags = 0;  // the item header's flags
  uint32_t LastIdxBlock = 0;
  uint32_t LastIdxOff = 0;
  uint32_t LastIdxBase = 0;
  uint32_t LastIdxDepth = 0;
  uint32_t CurrPos = 0;
  uint32_t InterestCount = 0;
  uint32_t OtherInterest = 0;
  uint32_t InterestToken = 0;
  uint32_t Deactivated = 0;
  uint32_t ItemUserNoSync = 0;
  uint32_t LibItmNoSync = 0;
  uint32_t LockedEver = 0;
  uint32_t Frozen = 0;
  uint32_t IndexCacheValid = 0;
  std::unique_ptr<sfl_IndexBytes> IndexCache;
  uint32_t HeaderCacheValid = 0;
  std::unique_ptr<sfl_ItemHeaderBytes> HeaderCache;
  // The Generation of BaseRecord when the handle was bound to it.
  uint32_t BaseGeneration = 0;
  // 1 once the handle's file has closed under it (an internal item left
  // open past its container's last close): it is refused from then on.
  uint32_t Orphaned = 0;

  // Clears every field but keeps the two cache buffers for the next user.
  void Reset() {
    auto index = std::move(IndexCache);
    auto header = std::move(HeaderCache);
    *this = sfl_ItemRec{};
    IndexCache = std::move(index);
    HeaderCache = std::move(header);
  }
};

// An open stream.
struct sfl_StreamRec {
  uint32_t InUse = 0;
  uint32_t IsItem = 0;
  uint32_t ReadOnly = 0;
  int32_t ItemHandle = 0;
  FILE* Stream = nullptr;
  uint32_t Position = 0;
  // Last transfer on an item stream (0 none or a seek since, 1 read, 2
  // write): stdio needs a flush or a seek between a write and a read.
  uint32_t LastOp = 0;

  void Reset() { *this = sfl_StreamRec{}; }
};

// Ties an item-handle record to the open file it works through, and to
// this use of that file's record.
inline void sfl_BindItem(sfl_ItemRec* item, int32_t baseHandle, sfl_BaseRec* rec) {
  item->BaseHandle = baseHandle;
  item->BaseRecord = rec;
  item->BaseGeneration = rec != nullptr ? rec->Generation : 0;
}
// Whether the file an item handle was bound to is still open under the
// same record (a handle that fails this is refused with 28867).
inline bool sfl_ItemFileLive(const sfl_ItemRec* item) {
  const sfl_BaseRec* rec = item->BaseRecord;
  return item->Orphaned == 0 &&
         (rec == nullptr || (rec->InUse == 1 && rec->Generation == item->BaseGeneration));
}
// Marks the internal items still open on a file as orphaned: called when
// the file's last close completes (sfl_ihands).
void sfl_OrphanIntItems(const sfl_BaseRec* rec);
// Refuses (28874) a new item header's place that is not a user slot of the
// item table or a place in the data area (off the free map and inside the
// file, when the file is this process's alone) (sfl_Items).
void sfl_CheckHeaderPlace(sfl_BaseRec* rec, uint32_t headerOffset, bool privateFile);

using sfl_FilesTable = sfl_HandleTable<sfl_BaseRec, SFL_BASE_HANDLE_FIRST, SFL_MAX_OPEN_FILES>;
using sfl_ItemsTable = sfl_HandleTable<sfl_ItemRec, SFL_ITEM_HANDLE_FIRST, SFL_MAX_OPEN_ITEMS>;
using sfl_StreamsTable = sfl_HandleTable<sfl_StreamRec, SFL_STREAM_HANDLE_FIRST, SFL_MAX_STREAMS>;

sfl_FilesTable& sfl_OpenFiles();   // sfl_bhands
sfl_ItemsTable& sfl_OpenItems();   // sfl_ihands
sfl_StreamsTable& sfl_Streams();   // sfl_l3hand

// Stream-table records (sfl_l3hand): take a free record (28888 in group 3
// when all 16 are in use), check a handle, free a record (null ignored).
sfl_StreamRec* sfl_GetNewL3Entry(int32_t* streamHandle);
sfl_StreamRec* sfl_L3Handle2Record(int32_t streamHandle);
void sfl_DeleteOL3Item(sfl_StreamRec* rec);

// ---- references ---------------------------------------------------------------
// Base-file and item-handle records both begin with a copy of a reference
// under the same field names.
template <class Rec>
sfl_ItemRef sfl_RefOf(const Rec& rec) {
  sfl_ItemRef ref{};
  ref.Domain = rec.Domain;
  ref.Flags = rec.RefFlags;
  ref.SubDomain = rec.SubDomain;
  ref.FileId = rec.FileId;
  std::memcpy(ref.Name, rec.Name, sizeof ref.Name);
  return ref;
}
template <class Rec>
void sfl_SetRef(Rec& rec, const sfl_ItemRef& ref) {
  rec.Domain = ref.Domain;
  rec.RefFlags = ref.Flags;
  rec.SubDomain = ref.SubDomain;
  rec.FileId = ref.FileId;
  std::memcpy(rec.Name, ref.Name, sizeof rec.Name);
}
// The reference of item `itemNum` of an open container.
inline sfl_ItemRef sfl_ItemRefIn(const sfl_BaseRec& rec, uint32_t itemNum) {
  sfl_ItemRef ref = sfl_RefOf(rec);
  ref.Flags = static_cast<uint16_t>((ref.Flags & ~SFL_ITEM_NUM_MASK) | (itemNum & SFL_ITEM_NUM_MASK));
  return ref;
}
// Same FileId, SubDomain, Domain and name tag (compared as strings).
bool sfl_SameFile(const sfl_ItemRef& a, const sfl_ItemRef& b);
inline uint32_t sfl_ItemNumOf(const sfl_ItemRef& ref) { return ref.Flags & SFL_ITEM_NUM_MASK; }

// ---- record routines (sfl_io) -------------------------------------------------------
void sfl_ReadFileHeader(sfl_BaseRec* rec, sfl_FileHeader* out);
void sfl_WriteFileHeader(sfl_BaseRec* rec, const sfl_FileHeader& h);
void sfl_ReadItemHeader(sfl_ItemRec* item, sfl_ItemHeader* out);
void sfl_WriteItemHeader(sfl_ItemRec* item, const sfl_ItemHeader& h);
void sfl_ReadInternalItemH(sfl_ItemRec* item, uint32_t offset, sfl_ItemHeader* out);
void sfl_WriteInternalItemH(sfl_ItemRec* item, uint32_t offset, const sfl_ItemHeader& h);
void sfl_ReadAnIndex(sfl_ItemRec* item, uint32_t offset, sfl_IndexRecord* out);
void sfl_WriteAnIndex(sfl_ItemRec* item, uint32_t offset, const sfl_IndexRecord& r);
// Reads FileSize bytes at FileOffset into *map (resized); returns FileSize.
uint32_t sfl_ReadFreeMap(sfl_BaseRec* rec, std::vector<uint8_t>* map, const sfl_ItemHeader& fm);
void sfl_WriteFreeMap(sfl_BaseRec* rec, std::span<const uint8_t> map, const sfl_ItemHeader& fm);
void sfl_WritePartialFreeMap(sfl_BaseRec* rec, std::span<const uint8_t> map, int64_t firstBit,
                             uint32_t bitCount, const sfl_ItemHeader& fm);
// Raw transfers used by the item code: exactly one positioned call each.
ssize_t sfl_PRead(sfl_BaseRec* rec, void* buf, size_t len, uint64_t offset);
ssize_t sfl_PWrite(sfl_BaseRec* rec, const void* buf, size_t len, uint64_t offset);
// Reads from a descriptor until `len` bytes or the end of the file,
// continuing transfers that come up short; a failed read raises, and so
// does one that moves nothing before the end of the file. Returns
// the bytes read: fewer than `len` only at the end of the file.
size_t sfl_PReadUpTo(int fd, void* buf, size_t len, uint64_t offset);
// For a read at `offset` that moved nothing: returns when that is the end
// of the file, raises otherwise.
void sfl_CheckEndAt(int fd, uint64_t offset);

// ---- free space (sfl_base) ------------------------------------------------------------
uint32_t sfl_GetFreeSpaceNew(sfl_BaseRec* rec, uint32_t size, uint32_t* blockCount);
void sfl_FreeFreeBlocks(sfl_BaseRec* rec, uint32_t offset, uint32_t blockCount);
// One read-modify-write of the on-disk free map under item 0's header lock:
// `change` edits the map read from disk, which is then written back whole.
void sfl_UpdateFreeMap(sfl_BaseRec* rec, const std::function<void(uint8_t* map, uint32_t length)>& change);
void sfl_FreeFreeSpace(sfl_ItemRec* item, uint32_t offset, uint32_t size);
void sfl_ClearFreeMapArea(uint8_t* map, uint32_t mapLength, uint32_t offset, uint32_t size);
void sfl_MakeSpaceFitMemMap(sfl_BaseRec* rec);
int32_t sfl_GetFreeItemSlot(sfl_BaseRec* rec, uint32_t blocked, int32_t wanted);
void sfl_GetExtItemHeader(sfl_ItemRec* item, sfl_ItemHeader* out);

// ---- creation (sfl_base) ------------------------------------------------------------------
// The structure a new file starts with: its header, its item table (in a
// container, slot 0 describes the free map) and, in a container, the initial
// free map (empty for a single-item file). Creation writes it; the integrity
// check completes a creation cut short with the same bytes.
void sfl_NewFileImage(uint32_t fileFlags, sfl_FileHeader* h, std::vector<uint8_t>* table,
                      std::vector<uint8_t>* map);

// ---- items (sfl_ihands, sfl_Items) ---------------------------------------------------------
// Wipes an item's header (and, for table items, its slot in the file header).
void sfl_IntDeleteItem(sfl_ItemRec* item);

// ---- placement fallbacks (sfl_fallback) -------------------------------------------------
// The item-reference library's fallbacks for a full container: they store
// the item in a new container of its own and return its open item handle.
// They create and fill a container, so they are built with the library.
int32_t im_CopyItem2SflDataItem(sfl_ItemRef* out, uint32_t size, uint32_t noZeroFill,
                                const sfl_ItemRef* source, int32_t passOn);
int32_t im_GetNewSflItem(sfl_ItemRef* out, int32_t passOn1, uint32_t size, int32_t type,
                         int32_t passOn2, uint32_t noZeroFill, const sfl_ItemRef* source);

// ---- blocked items (sfl_Blcked) ------------------------------------------------------------
uint32_t sfl_FindBlock(sfl_ItemRec* item, uint32_t block, sfl_IndexRecord* out);
uint32_t sfl_AppendIndex(sfl_ItemRec* item, uint32_t blockOffset, uint32_t blockSize);
void sfl_DeleteIndexTree(sfl_ItemRec* item, const sfl_ItemHeader& header);
// One walk over a whole index tree, depth first: parents before children,
// children in entry order. Each record is read once straight from the file
// (the handle's index caches are untouched) and must be an index record
// whose Depth is one below its parent's (at most 6 at the root); a root that
// is all zeros counts as an empty leaf. `visit` gets the record's offset,
// the record and the number of the first block it covers (counted from its
// place in the tree, not taken from BaseBlockNum); it returns whether to
// descend into the record's children.
using sfl_IndexVisitor =
    std::function<bool(uint32_t offset, const sfl_IndexRecord& r, uint64_t firstBlock)>;
void sfl_WalkIndexTree(sfl_BaseRec* rec, uint32_t rootOff, const sfl_IndexVisitor& visit);
// Clears in `map` the space of every index record of the tree at `rootOff`
// and, when freeData is non-zero, of every data block it reaches.
void sfl_FreeIndexTree(sfl_ItemRec* item, uint32_t rootOff, uint8_t* map, uint32_t mapLen,
                       uint32_t freeData);

// ---- item compaction and reordering (sfl_Compct, sfl_Reord) -------------------------------
// A path from the root to one leaf: the record read at each level (0 = the
// root), its file offset and the current slot there. Room for 8 levels; a
// tree has at most 7.
struct sfl_LeafCursor {
  static constexpr int kLevels = 8;
  sfl_IndexRecord Rec[kLevels];
  uint32_t Off[kLevels] = {};
  int32_t Slot[kLevels] = {};
  int32_t Leaf = 0;    // the deepest level in use (the leaf's)
  bool Ended = false;  // a step found nothing further in its direction

  sfl_IndexRecord& LeafRec() { return Rec[Leaf]; }
  uint32_t LeafOff() const { return Off[Leaf]; }
  int32_t LeafSlot() const { return Slot[Leaf]; }
  // The block number under the leaf slot (BaseBlockNum + slot).
  int64_t Block() const { return static_cast<int64_t>(Rec[Leaf].BaseBlockNum) + Slot[Leaf]; }
};

// Puts the cursor on the leftmost leaf under the root at `rootOff`, slot 0
// at every level; 28882 when a branch on the way has an empty entry 0.
void sfl_CursorToFirstLeaf(sfl_ItemRec* item, uint32_t rootOff, sfl_LeafCursor* c);
// Puts the cursor on the leaf that holds `block`, slot by slot from the
// root: 28876 for a slot above 31 or at or above a branch's EverUsed,
// 28882 for an empty child on the way. A root already read may be given.
void sfl_CursorToBlock(sfl_ItemRec* item, uint32_t rootOff, uint32_t block, sfl_LeafCursor* c,
                       const sfl_IndexRecord* root = nullptr);
// One step forward (direction 1) or backward (-1). `beforeLeave`, when
// given, runs before the cursor leaves its leaf for another. Returns false
// (and sets Ended) when the walk ends.
bool sfl_CursorStep(sfl_ItemRec* item, sfl_LeafCursor* c, int32_t direction,
                    const std::function<void()>& beforeLeave = {});

uint32_t sfl_CorrectCompactItem(sfl_ItemRec* item);
uint32_t sfl_CreateCompactTree(sfl_ItemRec* source, sfl_ItemRec* dest);
uint32_t sfl_CompactAll(sfl_ItemRec* source, sfl_ItemRec* dest, sfl_LeafCursor* cursor);
// Leaf records written by a slide, as they were before it, so that a
// refused reorder can put them back.
struct sfl_SlideJournal {
  std::vector<std::pair<uint32_t, sfl_IndexBytes>> Before;
};
constexpr uint32_t SFL_NO_LIMIT = 0xFFFFFFFFu;
uint32_t sfl_CompactRange(uint32_t limit, int32_t direction, sfl_ItemRec* item,
                          sfl_LeafCursor* source, sfl_LeafCursor* dest, sfl_ItemHeader* header,
                          sfl_SlideJournal* journal = nullptr);
void sfl_SyncUpCompaction(sfl_ItemRec* item, sfl_LeafCursor* source, sfl_LeafCursor* dest,
                          sfl_SlideJournal* journal = nullptr);
// Writes the journal's records back, newest first, ignoring failures.
void sfl_UndoSlide(sfl_ItemRec* item, const sfl_SlideJournal& journal);

void sfl_ReorderSingleIndex(sfl_IndexRecord* r, uint32_t from, uint32_t to);
void sfl_ComplexReorder(sfl_ItemRec* item, const sfl_IndexRecord& root, uint32_t from, uint32_t to,
                        sfl_ItemHeader* header);

// ---- whole-file compaction (sfl_filecmpct) ---------------------------------------------------
// sfl_AnalyseFreeMap, sfl_CompactSflFile and the exported copy routines are
// declared in sfl.h. The routines below copy one item or one index record of
// the old file into the new one and return a copy result code (255 copied,
// 9 empty slot, 8 incomplete, 6 header unreadable, 1/2/3 index record short,
// without magic, of the wrong type).
int32_t sfl_CopyOutItem(int32_t newBase, uint32_t newHeaderOff, int32_t oldFd,
                        uint32_t oldHeaderOff);
int32_t sfl_CopyOutIndex(int32_t itemHandle, int32_t oldFd, const sfl_IndexRecord& record);
int32_t sfl_CopyOutIndexChild(int32_t itemHandle, int32_t oldFd, const sfl_IndexRecord& parent,
                              uint32_t entry);
// Forgets the holes settings read, so the next analysis reads them again (tests).
void sfl_ResetCompactionSettings();

// ---- cold store (sfl_bhands) ------------------------------------------------------------------
// Puts a file whose last user closed it into the cold store (size check,
// eviction, freeze sequence).
void sfl_EnterColdStore(sfl_BaseRec* rec);
// The configured cold-store size ("SFL_COLD_STORE_SIZE", default 5, at least 1).
int32_t sfl_ColdStoreSize();
// Forgets the cold-store size read, so the next use reads the key again (tests).
void sfl_ResetColdStoreSize();

// ---- record-lock holds (sfl_Locks) ---------------------------------------------------------
// Ranges this process holds through the record-lock routines (tests check
// that an operation leaves none behind).
int sfl_RecordLocksHeld();
// Forgets every hold without releasing anything (a forked child).
void sfl_ForgetRecordLocks();

// ---- sync configuration (sfl_Locks) -------------------------------------------------------------
// Returns the sync switches to their initial state and marks the
// configuration unread, so the next sync decision reads it again (tests).
void sfl_ResetSyncConfig();

// ---- fork (sfl_fork) ----------------------------------------------------------------------------
// Makes sure the child-side fork handler is registered (once per process).
void sfl_InstallForkHandler();

// ---- owners of what an operation takes ----------------------------------------------------
// An operation that takes something (a lock, an item slot, a run of blocks,
// a table record, a descriptor, an interest) holds it in an owner object.
// The operation commits the owner once what it took is its result; an owner
// left uncommitted gives back what it holds when it goes out of scope, so an
// escape unwinding through the operation leaves nothing taken. Giving back
// runs while the first escape unwinds: a second failure is logged and
// absorbed there, and the first escape is the one the caller sees.
template <class Fn>
void sfl_GiveBackQuietly(Fn giveBack) noexcept {
  er_StatusKeeper keep;
  try {
    giveBack();
  } catch (const er_Escape&) {
    er_Accept(5);
  } catch (...) {
    er_LogMsg(5, "giving back after a failure failed as well");
  }
}

// Gives back a run of blocks to the map it came from (the on-disk map, or
// MemFreeMap while it is in use).
void sfl_GiveBackBlocks(sfl_BaseRec* rec, uint32_t offset, uint32_t blocks);
// Gives back an item slot taken by sfl_GetFreeItemSlot: wipes its header and
// clears its bit and count in the file header, under the header lock.
void sfl_GiveBackItemSlot(sfl_BaseRec* rec, int32_t slot);

// A run of blocks taken from a file's free map.
class sfl_SpaceRun {
 public:
  sfl_SpaceRun() = default;
  ~sfl_SpaceRun() {
    if (rec_ != nullptr && blocks_ > 0)
      sfl_GiveBackQuietly([this] { sfl_GiveBackBlocks(rec_, offset_, blocks_); });
  }
  sfl_SpaceRun(const sfl_SpaceRun&) = delete;
  sfl_SpaceRun& operator=(const sfl_SpaceRun&) = delete;

  // Takes room for `size` bytes; returns its offset.
  uint32_t Take(sfl_BaseRec* rec, uint32_t size) {
    uint32_t blocks = 0;
    const uint32_t offset = sfl_GetFreeSpaceNew(rec, size, &blocks);
    Adopt(rec, offset, blocks);
    return offset;
  }
  // Takes charge of a run already taken.
  void Adopt(sfl_BaseRec* rec, uint32_t offset, uint32_t blocks) {
    rec_ = rec;
    offset_ = offset;
    blocks_ = blocks;
  }
  // The run now belongs to a record that refers to it (or may, after a
  // write that failed half way): it is no longer given back.
  void Commit() { rec_ = nullptr; }
  uint32_t Offset() const { return offset_; }
  uint32_t Blocks() const { return blocks_; }

 private:
  sfl_BaseRec* rec_ = nullptr;
  uint32_t offset_ = 0;
  uint32_t blocks_ = 0;
};

// An item slot taken in a file's item table.
class sfl_SlotClaim {
 public:
  sfl_SlotClaim() = default;
  ~sfl_SlotClaim() {
    if (rec_ != nullptr && slot_ > 0) sfl_GiveBackQuietly([this] { sfl_GiveBackItemSlot(rec_, slot_); });
  }
  sfl_SlotClaim(const sfl_SlotClaim&) = delete;
  sfl_SlotClaim& operator=(const sfl_SlotClaim&) = delete;

  // Takes a slot as sfl_GetFreeItemSlot does; returns its result.
  int32_t Take(sfl_BaseRec* rec, uint32_t blocked, int32_t wanted) {
    Adopt(rec, sfl_GetFreeItemSlot(rec, blocked, wanted));
    return slot_;
  }
  void Adopt(sfl_BaseRec* rec, int32_t slot) {
    rec_ = rec;
    slot_ = slot;
  }
  void Commit() { rec_ = nullptr; }
  int32_t Slot() const { return slot_; }

 private:
  sfl_BaseRec* rec_ = nullptr;
  int32_t slot_ = -1;
};

// A record of the open-items table taken for a new handle, and (once
// counted) its place in the file's count of open items.
class sfl_NewItemRecord {
 public:
  sfl_NewItemRecord() { item_ = sfl_GetNewItemEntry(&handle_); }
  ~sfl_NewItemRecord() {
    if (item_ == nullptr) return;
    sfl_GiveBackQuietly([this] {
      if (countedOn_ >= 0) sfl_DecIntItems(countedOn_);
      sfl_DeleteOSerItem(item_);
    });
  }
  sfl_NewItemRecord(const sfl_NewItemRecord&) = delete;
  sfl_NewItemRecord& operator=(const sfl_NewItemRecord&) = delete;

  // Counts the item open on its file (sfl_IncIntItems).
  void Count(int32_t baseHandle) {
    sfl_IncIntItems(baseHandle);
    countedOn_ = baseHandle;
  }
  // The handle is the caller's now.
  int32_t Commit() {
    item_ = nullptr;
    return handle_;
  }
  sfl_ItemRec* operator->() const { return item_; }
  sfl_ItemRec* get() const { return item_; }
  int32_t Handle() const { return handle_; }

 private:
  sfl_ItemRec* item_ = nullptr;
  int32_t handle_ = -1;
  int32_t countedOn_ = -1;
};

// An item-handle record opened for the span of one step (sfl_IntOpenItem):
// when the step ends, whichever way, the file's count of open items falls
// again and the record is freed.
class sfl_OpenItemRecord {
 public:
  sfl_OpenItemRecord(int32_t baseHandle, sfl_ItemRec* item) : baseHandle_(baseHandle), item_(item) {}
  ~sfl_OpenItemRecord() {
    sfl_GiveBackQuietly([this] {
      sfl_DecIntItems(baseHandle_);
      sfl_DeleteOSerItem(item_);
    });
  }
  sfl_OpenItemRecord(const sfl_OpenItemRecord&) = delete;
  sfl_OpenItemRecord& operator=(const sfl_OpenItemRecord&) = delete;

 private:
  int32_t baseHandle_;
  sfl_ItemRec* item_;
};

// A file that one operation opened (or revived from the cold store) for its
// own use: closed again unless the operation commits.
void sfl_CloseImplicitOpen(int32_t baseHandle);  // sfl_ihands
class sfl_ImplicitOpen {
 public:
  sfl_ImplicitOpen(int32_t baseHandle, bool openedHere) : baseHandle_(baseHandle), armed_(openedHere) {}
  ~sfl_ImplicitOpen() {
    if (armed_) sfl_GiveBackQuietly([this] { sfl_CloseImplicitOpen(baseHandle_); });
  }
  sfl_ImplicitOpen(const sfl_ImplicitOpen&) = delete;
  sfl_ImplicitOpen& operator=(const sfl_ImplicitOpen&) = delete;
  void Commit() { armed_ = false; }
  // Closes it now; an escape of the close passes on.
  void Close() {
    if (!armed_) return;
    armed_ = false;
    sfl_CloseImplicitOpen(baseHandle_);
  }

 private:
  int32_t baseHandle_;
  bool armed_;
};

// ---- lock guards ----------------------------------------------------------------------------
// Holds at most one byte-range lock (the "held variable" of the lock
// protocol) and releases it, if still held, when it goes out of scope: an
// escape unwinding through a frame releases exactly what that frame holds.
//
// A release that fails while an escape unwinds is absorbed (the first
// escape is the one reported); on the ordinary way out it raises, so an
// operation never reports success while a lock of its own is left behind.
class sfl_Held {
 public:
  sfl_Held() : unwinding_(std::uncaught_exceptions()) {}
  ~sfl_Held() noexcept(false) {
    if (!held_) return;
    if (std::uncaught_exceptions() > unwinding_)
      sfl_GiveBackQuietly([this] { Unlock(); });
    else
      Unlock();
  }
  sfl_Held(const sfl_Held&) = delete;
  sfl_Held& operator=(const sfl_Held&) = delete;

  void Header(sfl_BaseRec* rec, int32_t mode) {
    Unlock();
    kind_ = Kind::Header;
    base_ = rec;
    held_ = sfl_LockHeader(rec, mode);
  }
  void ItemHeader(sfl_ItemRec* item, int32_t mode) {
    Unlock();
    kind_ = Kind::ItemHeader;
    item_ = item;
    held_ = sfl_LockItemHeader(item, mode);
  }
  void IntHeader(sfl_BaseRec* rec, uint32_t offset, int32_t mode) {
    Unlock();
    kind_ = Kind::IntHeader;
    base_ = rec;
    offset_ = offset;
    held_ = sfl_LockAnIntHeader(rec, offset, mode);
  }
  void Index(sfl_ItemRec* item, uint32_t offset, int32_t mode) {
    Unlock();
    kind_ = Kind::Index;
    item_ = item;
    offset_ = offset;
    held_ = sfl_LockAnIndex(item, offset, mode);
  }
  // Releases now if held; the held mark becomes the unlock's result.
  void Unlock() {
    if (!held_) return;
    held_ = 0;  // a release that raises is not tried a second time
    switch (kind_) {
      case Kind::Header: held_ = sfl_UnlockHeader(base_); break;
      case Kind::ItemHeader: held_ = sfl_UnLockItemHeader(item_); break;
      case Kind::IntHeader: held_ = sfl_UnLockAnIntHeader(base_, offset_); break;
      case Kind::Index: held_ = sfl_UnLockAnIndex(item_, offset_); break;
      case Kind::None: held_ = 0; break;
    }
  }
  bool held() const { return held_ != 0; }

 private:
  enum class Kind { None, Header, ItemHeader, IntHeader, Index };
  Kind kind_ = Kind::None;
  sfl_BaseRec* base_ = nullptr;
  sfl_ItemRec* item_ = nullptr;
  uint32_t offset_ = 0;
  int32_t held_ = 0;
  int unwinding_;
};

// One read-modify-write of an item's header under its exclusive header lock:
// reads it, lets `change` modify it, writes it back and returns it as
// written. An escape from `change` leaves the header as it was.
template <class Change>
sfl_ItemHeader sfl_UpdateItemHeader(sfl_ItemRec* item, Change change) {
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  sfl_ItemHeader h;
  sfl_ReadItemHeader(item, &h);
  change(h);
  sfl_WriteItemHeader(item, h);
  return h;
}

// The last close of an item this process stored without a source: its data
// is flushed, then its header loses INCOMPLETE.
void sfl_FinishStore(sfl_ItemRec* item);

// Sync events raised by the library's routines.
enum sfl_SyncEvent : int32_t {
  SFL_EV_CREATED = 0, SFL_EV_ATTACH = 1, SFL_EV_DETACH = 2, SFL_EV_CLOSE = 3, SFL_EV_CHANGE_TIME = 4,
  SFL_EV_ITEM_SLOT = 5, SFL_EV_GET_SPACE = 6, SFL_EV_MAP_MOVED = 7, SFL_EV_MAP_HEADER = 8,
  SFL_EV_STORED = 9, SFL_EV_NEW_ITEM = 10, SFL_EV_INDEX_WRITTEN = 11, SFL_EV_BLOCK_DATA = 12,
  SFL_EV_BLOCK_REMOVED = 13, SFL_EV_FREEMAP_BIT = 14, SFL_EV_FREED = 15,
  SFL_EV_BLOCK_REWRITE = 16, SFL_EV_ITEM_HEADER = 18, SFL_EV_SEARCH_UPDATE = 19,
  SFL_EV_WIPED = 20, SFL_EV_INT_REMOVED = 21, SFL_EV_SIMPLE_WRITE = 22,
  SFL_EV_BRANCH_WRITTEN = 23, SFL_EV_SLOT_RELEASED = 24, SFL_EV_DELETE = 25, SFL_EV_SYNC = 26,
  SFL_EV_COLD = 27, SFL_EV_COMPACTED = 28
};
// Whether this process flushes `rec`'s file at all under the sync policy
// ("SFL_ALL_ASYNC_IO", the all-async switch, an ASYNCHRONOUS file or one of
// Domain 5 never are).
bool sfl_FlushesFile(sfl_BaseRec* rec);
// Flushes what was written to `rec`'s file before a mark that vouches for
// it is written, whenever the policy flushes this file and item at all.
void sfl_FlushBeforeMark(sfl_BaseRec* rec, sfl_ItemRec* item);
// Flushes the directory that holds the file `ref` names, so that its entry
// (made, removed or replaced) holds across a power cut.
void sfl_FlushEntryOf(const sfl_ItemRef& ref);


#endif  // SFL_INT_H
