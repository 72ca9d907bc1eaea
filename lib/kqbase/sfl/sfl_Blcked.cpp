// Blocked items: the index tree that numbers an item's blocks, placing new
// blocks in it (growing it by levels and branches), freeing single blocks,
// finding the leaf of a block, reading and writing block contents, and
// releasing a whole tree.
//
// Every record has 32 entries; a record of Depth d covers 32^(d+1) blocks
// and each of its entries 32^d. All tree changes happen under the item
// header's exclusive lock; reads take it shared.
#include <algorithm>
#include <vector>

#include "mdc.h"
#include "sfl_int.h"

namespace {

constexpr uint32_t kFan = SFL_INDEX_ENTRIES;
constexpr uint32_t kIdx = static_cast<uint32_t>(SFL_INDEX_SIZE);
constexpr uint32_t kAllFull = 0xFFFFFFFFu;
// A root can be raised to this depth and no further (seven levels in all).
constexpr uint32_t kMaxRootDepth = 6;

// Blocks under one entry of a record of the given depth: 32^depth. Kept in
// 64 bits because the range of a root of the greatest depth (32^7) does not
// fit in 32.
uint64_t EntrySpan(uint32_t depth) {
  uint64_t v = 1;
  for (uint32_t i = 0; i < depth && i <= kMaxRootDepth + 1; ++i) v *= kFan;
  return v;
}

// Blocks covered by a whole record of the given depth: 32^(depth+1).
uint64_t Capacity(uint32_t depth) { return EntrySpan(depth + 1); }

bool EntryEmpty(const sfl_IndexEntry& e) { return e.SectionOffSet == 0 && e.SectionSize == 0; }
bool FullBit(const sfl_IndexRecord& r, uint32_t slot) { return ((r.FreeMap >> slot) & 1u) != 0; }
void SetFullBit(sfl_IndexRecord& r, uint32_t slot) { r.FreeMap |= 1u << slot; }

int LowestEmpty(const sfl_IndexRecord& r, uint32_t from) {
  for (uint32_t i = from; i < kFan; ++i)
    if (EntryEmpty(r.Entries[i])) return static_cast<int>(i);
  return -1;
}

bool LeafHasRoom(const sfl_IndexRecord& r) { return LowestEmpty(r, 0) >= 0; }

void Sync(sfl_ItemRec* item, int32_t event) { sfl_ConsiderSync(item->BaseRecord, item, event); }

// Writes consecutive index records with one transfer (level and branch runs).
void WriteRun(sfl_ItemRec* item, uint32_t at, const std::vector<sfl_IndexRecord>& recs) {
  std::vector<uint8_t> buf(recs.size() * SFL_INDEX_SIZE);
  for (size_t i = 0; i < recs.size(); ++i)
    sfl_EncodeIndex(recs[i], std::span<uint8_t, SFL_INDEX_SIZE>(buf.data() + i * SFL_INDEX_SIZE,
                                                                SFL_INDEX_SIZE));
  ssize_t n = sfl_PWrite(item->BaseRecord, buf.data(), buf.size(), at);
  if (n < 0 || static_cast<size_t>(n) != buf.size()) SFL_RAISE(SFL_R_SHORT_WRITE);
}

// What a search for a free entry carries down the tree.
struct Placement {
  sfl_ItemRec* item = nullptr;
  bool append = false;
  uint32_t blockOff = 0;
  uint32_t blockSize = 0;
  sfl_ItemHeader* header = nullptr;
  bool headerChanged = false;
  bool placed = false;
  uint32_t blockNum = 0;
};

// Search results of one record.
enum SearchResult { kPlaced = 1, kPlacedNowFull = 2, kLeafHadNoRoom = 3, kAlreadyFull = 4 };

// ---- the remembered tree ---------------------------------------------------
//
// Between calls a handle remembers where its item's tree lies: the root
// (Offset) and the record touched last (LastIdxOff, LastIdxBase,
// LastIdxDepth), where the next call may start instead of at the root.
// Another process may rebuild the tree meanwhile (item compaction) and
// release the old records; their space may then hold another item's data,
// and where the old bytes are still there they read as a sound record. So
// each call first reads the item header again under the lock it takes
// anyway (one pread of 64 bytes, which a call starting at the root makes in
// any case): a header that names another root than the one the handle knew
// makes the handle forget its record and take the new root. A later
// rebuild may put the root back where the handle knew it; the rebuild wipes
// the records it releases, so the remembered record must still read as an
// index record with the Depth and BaseBlockNum remembered, or it is
// forgotten as well and the call starts at the root. A frozen handle
// answers the header from its copy: its caller has promised that nobody
// changes the item.

// What the handle remembered of its last record before a call.
struct Remembered {
  uint32_t off = 0;
  uint32_t base = 0;
  uint32_t depth = 0;
  bool Fits(const sfl_IndexRecord& r) const { return r.Depth == depth && r.BaseBlockNum == base; }
};

Remembered RememberedOf(const sfl_ItemRec* item) {
  return {item->LastIdxOff, item->LastIdxBase, item->LastIdxDepth};
}

// Reads the remembered record into *r; false when it is no longer an index
// record (wiped by a rebuild, or its space reused) or not the one
// remembered. A failed read raises as any read does.
bool ReadRemembered(sfl_ItemRec* item, const Remembered& last, sfl_IndexRecord* r) {
  try {
    sfl_ReadAnIndex(item, last.off, r);
  } catch (const er_Escape& e) {
    if (e.group() != ER_GROUP_SFL || e.reason() != SFL_R_BAD_INDEX) throw;
    er_Clear();
    return false;
  }
  return last.Fits(*r);
}

void ForgetTree(sfl_ItemRec* item, uint32_t root) {
  item->LastIdxOff = 0;
  item->LastIdxBase = 0;
  item->LastIdxDepth = 0;
  item->IndexCacheValid = 0;
  item->Offset = root;
}

// Reads the item header under the caller's lock and settles the handle's
// remembered tree against it. A header that is no longer a blocked item's
// (its place reused by another item) is refused: the handle's tree is gone.
sfl_ItemHeader CurrentTree(sfl_ItemRec* item) {
  sfl_ItemHeader h;
  sfl_ReadItemHeader(item, &h);
  if ((h.Flags & BLOCKED_ITEM) == 0) SFL_RAISE(SFL_R_NOT_BLOCKED);
  if (h.FileOffset != item->Offset) ForgetTree(item, h.FileOffset);
  return h;
}

}  // namespace

extern "C" int32_t sfl_IntPower(uint32_t base, uint32_t exponent) {
  uint32_t v = 1;
  for (uint32_t i = 0; i < exponent; ++i) v *= base;
  return static_cast<int32_t>(v);
}

// ---- level and branch creation ---------------------------------------------

// The root is full: puts a new root above it whose entry 1 starts a chain
// down to a new leaf, which takes the block if one is given (offset 0 =
// none). Updates the header passed in (the caller writes it) and returns the
// number of the leaf's first block.
static uint32_t sfl_InsertNewIndexLevel(sfl_ItemRec* item, uint32_t oldRootOff,
                                        sfl_IndexRecord& oldRoot, sfl_ItemHeader& header,
                                        uint32_t blockOff, uint32_t blockSize, bool oldRootFull) {
  ER_TRACE_PROC("sfl_InsertNewIndexLevel");
  if (oldRoot.Depth > kMaxRootDepth - 1) SFL_RAISE(SFL_R_TOO_DEEP);
  const uint32_t d = oldRoot.Depth;
  uint32_t units = 0;
  const uint32_t run = sfl_GetFreeSpaceNew(item->BaseRecord, (d + 2) * kIdx, &units);
  const uint32_t base = static_cast<uint32_t>(sfl_IntPower(kFan, d + 1)) + oldRoot.BaseBlockNum;

  std::vector<sfl_IndexRecord> recs(d + 2, sfl_NewIndexRecord());
  sfl_IndexRecord& root = recs[0];
  root.Depth = d + 1;
  root.Used = 2;
  root.EverUsed = 2;
  root.BaseBlockNum = 0;
  root.FreeMap = oldRootFull ? 1u : 0u;
  root.ParentOff = item->HeaderOff;
  root.Entries[0] = {oldRootOff, kIdx};
  root.Entries[1] = {run + kIdx, kIdx};
  for (uint32_t i = 1; i <= d; ++i) {
    sfl_IndexRecord& r = recs[i];
    r.Depth = d - i + 1;
    r.Used = 1;
    r.EverUsed = 1;
    r.BaseBlockNum = base;
    r.ParentOff = run + (i - 1) * kIdx;
    r.Entries[0] = {run + (i + 1) * kIdx, kIdx};
  }
  sfl_IndexRecord& leaf = recs[d + 1];
  leaf.Depth = 0;
  leaf.BaseBlockNum = base;
  leaf.ParentOff = run + d * kIdx;
  if (blockOff != 0) {
    leaf.Used = 1;
    leaf.EverUsed = 1;
    leaf.Entries[0] = {blockOff, blockSize};
  }

  header.FileOffset = run;
  header.IndexDepth = d + 1;
  oldRoot.ParentOff = run;
  WriteRun(item, run, recs);
  Sync(item, SFL_EV_INDEX_WRITTEN);
  // The new records are on disk before the header points at them: a power
  // cut keeping the header and not them would lose the whole tree.
  sfl_FlushBeforeMark(item->BaseRecord, item);
  sfl_WriteAnIndex(item, oldRootOff, oldRoot);
  return base;
}

// Fills the empty entry `slot` of a branch: a chain of records down to one
// leaf, which takes the block if one is given. Returns the chain's offset;
// *firstBlock gets the number of the leaf's first block.
static uint32_t sfl_CreateNewIndexBranch(sfl_ItemRec* item, uint32_t branchOff,
                                         const sfl_IndexRecord& branch, uint32_t slot,
                                         uint32_t blockOff, uint32_t blockSize,
                                         uint32_t* firstBlock) {
  ER_TRACE_PROC("sfl_CreateNewIndexBranch");
  const uint32_t D = branch.Depth;
  uint32_t units = 0;
  const uint32_t run = sfl_GetFreeSpaceNew(item->BaseRecord, D * kIdx, &units);
  const uint32_t base = static_cast<uint32_t>(sfl_IntPower(kFan, D)) * slot + branch.BaseBlockNum;

  std::vector<sfl_IndexRecord> recs(D, sfl_NewIndexRecord());
  for (uint32_t i = 0; i < D; ++i) {
    sfl_IndexRecord& r = recs[i];
    r.Depth = D - i - 1;
    r.BaseBlockNum = base;
    r.ParentOff = i == 0 ? branchOff : run + (i - 1) * kIdx;
    if (i + 1 < D) {
      r.Used = 1;
      r.EverUsed = 1;
      r.Entries[0] = {run + (i + 1) * kIdx, kIdx};
    } else if (blockOff != 0) {
      r.Used = 1;
      r.EverUsed = 1;
      r.Entries[0] = {blockOff, blockSize};
    }
  }
  WriteRun(item, run, recs);
  Sync(item, SFL_EV_INDEX_WRITTEN);
  // On disk before the branch's entry points at them.
  sfl_FlushBeforeMark(item->BaseRecord, item);
  *firstBlock = base;
  return run;
}

// ---- placing a block ---------------------------------------------------------

// Lowest child slot whose subtree is not marked full, or -1.
static int sfl_SelectFirstFreeIndex(const sfl_IndexRecord& r) {
  ER_TRACE_PROC("sfl_SelectFirstFreeIndex");
  for (uint32_t byte = 0; byte < 4; ++byte)
    for (uint32_t bit = 0; bit < 8; ++bit)
      if (!FullBit(r, byte * 8 + bit)) return static_cast<int>(byte * 8 + bit);
  return -1;
}

// The last child slot used while it is not full, else the next one, or -1.
static int sfl_SelectAppendIndex(const sfl_IndexRecord& r) {
  ER_TRACE_PROC("sfl_SelectAppendIndex");
  if (r.EverUsed == 0) return 0;
  if (r.EverUsed <= kFan && !FullBit(r, r.EverUsed - 1)) return static_cast<int>(r.EverUsed - 1);
  if (r.EverUsed < kFan) return static_cast<int>(r.EverUsed);
  return -1;
}

static int sfl_SearchLeafForFreeEntry(Placement& p, uint32_t off, sfl_IndexRecord& r) {
  ER_TRACE_PROC("sfl_SearchLeafForFreeEntry");
  if (r.Used >= kFan) return kAlreadyFull;
  int idx;
  if (p.append) {
    // Entries freed below EverUsed are not reused in append mode.
    if (r.EverUsed >= kFan) return kAlreadyFull;
    idx = LowestEmpty(r, r.EverUsed);
  } else {
    idx = LowestEmpty(r, 0);
  }
  if (idx < 0) {
    r.Used = kFan;
    r.EverUsed = kFan;
    sfl_WriteAnIndex(p.item, off, r);
    return kLeafHadNoRoom;
  }
  const uint32_t i = static_cast<uint32_t>(idx);
  r.Entries[i] = {p.blockOff, p.blockSize};
  if (r.Used < kFan) ++r.Used;
  if (p.append && r.Used > r.EverUsed) {
    uint32_t used = 0;
    for (const auto& e : r.Entries) used += EntryEmpty(e) ? 0 : 1;
    r.Used = used;
  }
  if (r.EverUsed < i + 1) r.EverUsed = i + 1;
  sfl_WriteAnIndex(p.item, off, r);
  p.placed = true;
  p.blockNum = i + r.BaseBlockNum;
  return r.Used >= kFan ? kPlacedNowFull : kPlaced;
}

static bool sfl_TraveseForFreeBlock(Placement& p, uint32_t off, uint32_t level, bool* full);

static int sfl_SearchBranchForFreeEntry(Placement& p, uint32_t off, sfl_IndexRecord& r,
                                        uint32_t level) {
  ER_TRACE_PROC("sfl_SearchBranchForFreeEntry");
  // Each round either places the block or marks one more child full, so
  // 32 rounds are enough; the bound only guards against a damaged record.
  for (uint32_t round = 0; round <= kFan; ++round) {
    const int chosen = p.append ? sfl_SelectAppendIndex(r) : sfl_SelectFirstFreeIndex(r);
    if (chosen < 0) return kAlreadyFull;
    const uint32_t s = static_cast<uint32_t>(chosen);
    if (EntryEmpty(r.Entries[s])) {
      uint32_t first = 0;
      const uint32_t run =
          sfl_CreateNewIndexBranch(p.item, off, r, s, p.blockOff, p.blockSize, &first);
      r.Entries[s] = {run, kIdx};
      if (r.Used < kFan) ++r.Used;
      if (r.EverUsed < s + 1) r.EverUsed = s + 1;
      sfl_WriteAnIndex(p.item, off, r);
      // The new leaf's first number is the result even when there was no
      // block to enter (a request for no bytes has no place).
      p.placed = true;
      p.blockNum = first;
      return kPlaced;
    }
    bool childFull = false;
    const bool placed = sfl_TraveseForFreeBlock(p, r.Entries[s].SectionOffSet, level + 1, &childFull);
    bool changed = false;
    if (childFull && !FullBit(r, s)) {
      SetFullBit(r, s);
      changed = true;
    }
    if (r.Used <= s) {
      r.Used = s + 1;
      changed = true;
    }
    if (r.EverUsed <= s) {
      r.EverUsed = s + 1;
      changed = true;
    }
    if (changed) sfl_WriteAnIndex(p.item, off, r);
    if (placed) return childFull && s == kFan - 1 ? kPlacedNowFull : kPlaced;
    if (!childFull) return kAlreadyFull;  // nothing placed and nothing learnt
  }
  return kAlreadyFull;
}

// Searches one record (and below) for a free entry. Returns whether the block
// was placed; *full reports this record as full to its parent.
static bool sfl_TraveseForFreeBlock(Placement& p, uint32_t off, uint32_t level, bool* full) {
  ER_TRACE_PROC("sfl_TraveseForFreeBlock");
  if (level > kMaxRootDepth) SFL_RAISE(SFL_R_BAD_INDEX);  // a cycle, not a tree
  sfl_IndexRecord r;
  sfl_ReadAnIndex(p.item, off, &r);
  const int res = r.Depth > 0 ? sfl_SearchBranchForFreeEntry(p, off, r, level)
                              : sfl_SearchLeafForFreeEntry(p, off, r);
  if (res == kPlacedNowFull) *full = true;
  if (res == kLeafHadNoRoom || res == kAlreadyFull) {
    if (level == 0) {
      // A full root gets a new root above it; the new chain takes the block.
      const uint32_t first =
          sfl_InsertNewIndexLevel(p.item, off, r, *p.header, p.blockOff, p.blockSize, true);
      p.headerChanged = true;
      p.placed = true;
      p.blockNum = first;
    } else {
      *full = true;
    }
  }
  if (res >= kPlaced && res <= kLeafHadNoRoom) Sync(p.item, SFL_EV_SEARCH_UPDATE);
  return p.placed;
}

// Searches from the root under the header lock; writes the header when a
// level was inserted. Returns the block number, or -1 if nothing was placed.
static int64_t SearchFromRoot(sfl_ItemRec* item, bool append, uint32_t blockOff,
                              uint32_t blockSize) {
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  sfl_ItemHeader header = CurrentTree(item);
  Placement p;
  p.item = item;
  p.append = append;
  p.blockOff = blockOff;
  p.blockSize = blockSize;
  p.header = &header;
  bool full = false;
  sfl_TraveseForFreeBlock(p, header.FileOffset, 0, &full);
  if (p.headerChanged) {
    sfl_WriteItemHeader(item, header);
    item->Offset = header.FileOffset;
  }
  lock.Unlock();
  if (p.headerChanged) Sync(item, SFL_EV_ITEM_HEADER);
  return p.placed ? static_cast<int64_t>(p.blockNum) : -1;
}

// First-free placement. The leaf touched last is tried first (it is where
// the previous block went); only when it has no room is the tree searched.
static int64_t sfl_FindFreeIndex(sfl_ItemRec* item, uint32_t blockOff, uint32_t blockSize) {
  ER_TRACE_PROC("sfl_FindFreeIndex");
  if (item->LastIdxOff != 0) {
    sfl_Held lock;
    lock.ItemHeader(item, SFL_LOCK_EXCL);
    CurrentTree(item);
    const Remembered last = RememberedOf(item);
    const uint32_t at = last.off;
    sfl_IndexRecord r;
    if (at != 0 && ReadRemembered(item, last, &r) && r.Depth == 0 && r.Used < kFan) {
      int64_t block = -1;
      const int idx = LowestEmpty(r, 0);
      if (idx >= 0) {
        const uint32_t i = static_cast<uint32_t>(idx);
        r.Entries[i] = {blockOff, blockSize};
        ++r.Used;
        if (r.EverUsed < i + 1) r.EverUsed = i + 1;
        block = i + r.BaseBlockNum;
      } else {
        // Used said there was room but every entry is taken: correct it.
        r.Used = kFan;
        ER_LOG(5, ER_GROUP_SFL, SFL_R_CACHED_LEAF_FULL,
               "leaf at %u had Used below 32 but no empty entry", at);
      }
      sfl_WriteAnIndex(item, at, r);
      lock.Unlock();
      Sync(item, SFL_EV_SEARCH_UPDATE);
      if (block >= 0) return block;
    }
  }
  return SearchFromRoot(item, false, blockOff, blockSize);
}

uint32_t sfl_AppendIndex(sfl_ItemRec* item, uint32_t blockOffset, uint32_t blockSize) {
  ER_TRACE_PROC("sfl_AppendIndex");
  return static_cast<uint32_t>(SearchFromRoot(item, true, blockOffset, blockSize));
}

// A simple item's data is its owner's bytes: read as an index record, its
// entries could point anywhere in the file (the file header included).
// Block calls refuse such an item before they read its first record.
static void RequireBlocked(const sfl_ItemRec* item) {
  if ((item->Flags & BLOCKED_ITEM) == 0) SFL_RAISE(SFL_R_NOT_BLOCKED);
}

extern "C" int32_t sfl_GetNewBlock(int32_t itemHandle, int32_t size, int32_t mode,
                                   const void* data) {
  ER_TRACE_PROC("sfl_GetNewBlock");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if ((item->Flags & BLOCKED_ITEM) == 0) SFL_RAISE(SFL_R_NOT_BLOCKED);
  // A negative size is no size: taken as unsigned it would read far past
  // the caller's buffer into the file.
  if (size < 0) ER_RAISE(ER_GROUP_CALL, EINVAL);
  const uint32_t len = static_cast<uint32_t>(size);
  // The run goes back if its data cannot be written; once the placement
  // starts writing index records it may be referred to, and is kept.
  sfl_SpaceRun run;
  const uint32_t off = run.Take(item->BaseRecord, len);
  if (data != nullptr && len > 0) {
    ssize_t n = sfl_PWrite(item->BaseRecord, data, len, off);
    if (n < 0 || static_cast<uint32_t>(n) != len) SFL_RAISE(SFL_R_SHORT_WRITE);
    Sync(item, SFL_EV_BLOCK_DATA);
  }
  run.Commit();
  const int64_t block = mode == 1 ? static_cast<int32_t>(sfl_AppendIndex(item, off, len))
                                  : sfl_FindFreeIndex(item, off, len);
  return block < 0 ? -1 : static_cast<int32_t>(block);
}

// ---- freeing a block -----------------------------------------------------------

// Empties the entry of block n (relative to the record at `off`). Returns 1
// when a full leaf has become not full, so that ancestors clear their marks.
static int sfl_FindAndFreeBlock(sfl_ItemRec* item, uint32_t off, uint32_t n, uint32_t level) {
  ER_TRACE_PROC("sfl_FindAndFreeBlock");
  if (level > kMaxRootDepth) SFL_RAISE(SFL_R_BAD_INDEX);
  sfl_IndexRecord r;
  sfl_ReadAnIndex(item, off, &r);
  if (r.Depth > 0) {
    const uint64_t span = EntrySpan(r.Depth);
    const uint64_t slot = n / span;
    if (slot > kFan - 1 || slot >= r.EverUsed) SFL_RAISE(SFL_R_BAD_SLOT);
    const uint32_t s = static_cast<uint32_t>(slot);
    if (EntryEmpty(r.Entries[s])) SFL_RAISE(SFL_R_EMPTY_ENTRY);
    const int res = sfl_FindAndFreeBlock(item, r.Entries[s].SectionOffSet,
                                         static_cast<uint32_t>(n % span), level + 1);
    if (res == 1 && FullBit(r, s)) {
      r.FreeMap &= ~(1u << s);
      sfl_WriteAnIndex(item, off, r);
      Sync(item, SFL_EV_FREEMAP_BIT);
    }
    return res;
  }
  if (n > kFan - 1) SFL_RAISE(SFL_R_LEAF_INDEX);
  const sfl_IndexEntry e = r.Entries[n];
  int res = 0;
  if (!EntryEmpty(e)) {
    if (r.Used == kFan) res = 1;
    if (r.Used > 0) --r.Used;
  }
  r.Entries[n] = {};
  sfl_WriteAnIndex(item, off, r);
  Sync(item, SFL_EV_BLOCK_REMOVED);
  if (e.SectionOffSet != 0) sfl_FreeFreeSpace(item, e.SectionOffSet, e.SectionSize);
  return res;
}

extern "C" void sfl_FreeBlock(int32_t itemHandle, uint32_t block, int32_t unused) {
  ER_TRACE_PROC("sfl_FreeBlock");
  (void)unused;
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RequireBlocked(item);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  const sfl_ItemHeader header = CurrentTree(item);
  sfl_FindAndFreeBlock(item, header.FileOffset, block, 0);
}

// ---- finding the leaf of a block -------------------------------------------------

// Descends dividing by a whole record's range (32^(Depth+1)) rather than one
// entry's, and at a leaf answers with the entry's data offset rather than the
// leaf's own; callers normally come through the cached leaf instead.
// A remembered record to start from is given as `expect`; when the record
// read there is no longer that one, *stale is set and 0 returned.
static uint32_t sfl_TraverseForFind(sfl_ItemRec* item, uint32_t off, uint32_t n, uint32_t level,
                                    const Remembered* expect = nullptr, bool* stale = nullptr) {
  ER_TRACE_PROC("sfl_TraverseForFind");
  if (level > kMaxRootDepth) SFL_RAISE(SFL_R_BAD_INDEX);
  sfl_IndexRecord r;
  if (expect == nullptr) {
    sfl_ReadAnIndex(item, off, &r);
  } else if (!ReadRemembered(item, *expect, &r)) {
    *stale = true;
    return 0;
  }
  const uint64_t range = Capacity(r.Depth);
  const uint64_t slot = n / range;
  if (r.Depth > 0) {
    if (slot > kFan - 1 || slot >= r.EverUsed) SFL_RAISE(SFL_R_BAD_SLOT);
    const sfl_IndexEntry& child = r.Entries[slot];
    if (EntryEmpty(child)) SFL_RAISE(SFL_R_EMPTY_ENTRY);
    return sfl_TraverseForFind(item, child.SectionOffSet, static_cast<uint32_t>(n % range),
                               level + 1);
  }
  if (slot > kFan - 1) SFL_RAISE(SFL_R_BAD_SLOT);
  if (n > kFan - 1) SFL_RAISE(SFL_R_LEAF_INDEX);
  if (n >= r.EverUsed) SFL_RAISE(SFL_R_BAD_SLOT);
  if (EntryEmpty(r.Entries[slot])) SFL_RAISE(SFL_R_EMPTY_ENTRY);
  return r.Entries[slot].SectionOffSet;
}

uint32_t sfl_FindBlock(sfl_ItemRec* item, uint32_t block, sfl_IndexRecord* out) {
  ER_TRACE_PROC("sfl_FindBlock");
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_SHARED);
  const sfl_ItemHeader header = CurrentTree(item);
  const Remembered last = RememberedOf(item);
  uint32_t found = 0;
  bool haveRecord = false;
  bool fromLast = false;
  const uint64_t cachedRange = Capacity(last.depth);
  if (last.off != 0 && block >= last.base && block <= last.base + cachedRange - 1) {
    bool stale = false;
    if (last.depth == 0) {
      stale = !ReadRemembered(item, last, out);
      haveRecord = !stale;
    } else {
      found = sfl_TraverseForFind(item, last.off, static_cast<uint32_t>(block % cachedRange), 0,
                                  &last, &stale);
    }
    fromLast = !stale;
    if (stale) ForgetTree(item, header.FileOffset);
  }
  if (!fromLast) {
    if (header.IndexDepth != 0) {
      found = sfl_TraverseForFind(item, header.FileOffset,
                                  static_cast<uint32_t>(block % Capacity(header.IndexDepth)), 0);
    } else {
      if (block > kFan - 1) SFL_RAISE(SFL_R_BAD_SLOT);
      if (header.FileOffset == 0) SFL_RAISE(SFL_R_EMPTY_ENTRY);
      sfl_ReadAnIndex(item, header.FileOffset, out);
      haveRecord = true;
    }
  }
  if (!haveRecord) sfl_ReadAnIndex(item, found, out);
  lock.Unlock();
  return static_cast<uint32_t>(block % Capacity(out->Depth));
}

// ---- block contents ----------------------------------------------------------------

namespace {
enum { kRead = 1, kWrite = 2 };
}

// Reads or writes block n (relative to the record at `off`). In write mode
// missing branches and the block itself are created on the way; *full
// reports the record as full to its parent. Returns the bytes transferred.
// A remembered record to start from is given as `expect`; when the record
// read there is no longer that one, nothing is transferred and *stale is
// set.
static uint32_t sfl_Traverse4ReadOrWrite(sfl_ItemRec* item, uint32_t off, uint32_t n,
                                         uint32_t len, uint8_t* buf, int mode, bool* full,
                                         uint32_t level, const Remembered* expect = nullptr,
                                         bool* stale = nullptr) {
  ER_TRACE_PROC("sfl_Traverse4ReadOrWrite");
  if (level > kMaxRootDepth) SFL_RAISE(SFL_R_BAD_INDEX);
  sfl_IndexRecord r;
  if (expect == nullptr) {
    sfl_ReadAnIndex(item, off, &r);
  } else if (!ReadRemembered(item, *expect, &r)) {
    *stale = true;
    return 0;
  }
  if (r.Depth > 0) {
    const uint64_t span = EntrySpan(r.Depth);
    const uint64_t slot64 = n / span;
    if (slot64 > kFan - 1) SFL_RAISE(SFL_R_BAD_SLOT);
    const uint32_t s = static_cast<uint32_t>(slot64);
    if (EntryEmpty(r.Entries[s])) {
      if (mode == kRead) SFL_RAISE(SFL_R_EMPTY_ENTRY);
      uint32_t first = 0;
      const uint32_t run = sfl_CreateNewIndexBranch(item, off, r, s, 0, 0, &first);
      r.Entries[s] = {run, kIdx};
      if (r.Used < kFan) ++r.Used;
      if (r.EverUsed < s + 1) r.EverUsed = s + 1;
      sfl_WriteAnIndex(item, off, r);
      Sync(item, SFL_EV_BRANCH_WRITTEN);
    }
    bool childFull = false;
    const uint32_t count = sfl_Traverse4ReadOrWrite(item, r.Entries[s].SectionOffSet,
                                                    static_cast<uint32_t>(n % span), len, buf,
                                                    mode, &childFull, level + 1);
    if (mode == kWrite && childFull && !FullBit(r, s)) {
      SetFullBit(r, s);
      sfl_WriteAnIndex(item, off, r);
    }
    *full = r.FreeMap == kAllFull;
    return count;
  }

  if (n > kFan - 1) SFL_RAISE(SFL_R_LEAF_INDEX);
  sfl_IndexEntry& e = r.Entries[n];
  bool isNew = false;
  if (mode == kWrite && EntryEmpty(e)) {
    // A new block gets exactly the length of its first write.
    uint32_t units = 0;
    const uint32_t at = sfl_GetFreeSpaceNew(item->BaseRecord, len, &units);
    e = {at, len};
    if (r.Used < kFan && at != 0) ++r.Used;
    if (r.EverUsed < n + 1) r.EverUsed = n + 1;
    isNew = true;
  }
  if (mode == kRead) {
    if (n >= r.EverUsed) SFL_RAISE(SFL_R_BAD_SLOT);
    if (EntryEmpty(e)) SFL_RAISE(SFL_R_EMPTY_ENTRY);
  }
  // A block never grows: a longer request moves only the block's length, a
  // shorter one a prefix.
  const uint32_t count = std::min(e.SectionSize, len);
  if (mode == kRead) {
    ssize_t got = sfl_PRead(item->BaseRecord, buf, count, e.SectionOffSet);
    if (got < 0 || static_cast<uint32_t>(got) != count) SFL_RAISE(SFL_R_SHORT_READ);
  } else if (count > 0) {
    ssize_t put = sfl_PWrite(item->BaseRecord, buf, count, e.SectionOffSet);
    if (put < 0 || static_cast<uint32_t>(put) != count) SFL_RAISE(SFL_R_SHORT_BLOCK_WRITE);
  }
  if (mode == kWrite) {
    if (isNew) {
      Sync(item, SFL_EV_BLOCK_DATA);
      sfl_WriteAnIndex(item, off, r);
      Sync(item, SFL_EV_BRANCH_WRITTEN);
    } else {
      Sync(item, SFL_EV_BLOCK_REWRITE);
    }
  }
  *full = !LeafHasRoom(r);
  return count;
}

extern "C" uint32_t sfl_ReadBlockedData(int32_t itemHandle, uint32_t block, uint32_t length,
                                        void* buffer) {
  ER_TRACE_PROC("sfl_ReadBlockedData");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RequireBlocked(item);
  auto* buf = static_cast<uint8_t*>(buffer);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_SHARED);
  const sfl_ItemHeader header = CurrentTree(item);
  const Remembered last = RememberedOf(item);
  bool full = false;
  bool stale = true;
  uint32_t count = 0;
  const uint64_t cachedRange = Capacity(last.depth);
  if (last.off != 0 && block >= last.base && block <= last.base + cachedRange - 1) {
    stale = false;
    count = sfl_Traverse4ReadOrWrite(item, last.off, static_cast<uint32_t>(block % cachedRange),
                                     length, buf, kRead, &full, 0, &last, &stale);
    if (stale) ForgetTree(item, header.FileOffset);
  }
  if (stale) {
    const uint64_t range = Capacity(header.IndexDepth);
    if (block >= range) SFL_RAISE(SFL_R_BAD_SLOT);
    count = sfl_Traverse4ReadOrWrite(item, header.FileOffset, static_cast<uint32_t>(block % range),
                                     length, buf, kRead, &full, 0);
  }
  lock.Unlock();
  return count;
}

extern "C" int32_t sfl_WriteBlockedData(int32_t itemHandle, uint32_t block, uint32_t length,
                                        const void* buffer) {
  ER_TRACE_PROC("sfl_WriteBlockedData");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  RequireBlocked(item);
  // The traversal shares its code with reading, which needs a mutable buffer.
  auto* buf = static_cast<uint8_t*>(const_cast<void*>(buffer));
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  bool full = false;
  uint32_t count = 0;
  sfl_ItemHeader header = CurrentTree(item);
  const Remembered last = RememberedOf(item);
  bool stale = true;
  // The remembered record is used one block short of its range: the last
  // block it covers goes through the root.
  const uint64_t cachedRange = Capacity(last.depth);
  const int64_t lo = static_cast<int32_t>(last.base);
  const int64_t hi = lo + static_cast<int64_t>(cachedRange) - 2;
  const int64_t signedBlock = static_cast<int32_t>(block);
  if (last.off != 0 && signedBlock >= lo && signedBlock <= hi) {
    stale = false;
    count = sfl_Traverse4ReadOrWrite(item, last.off, static_cast<uint32_t>(block % cachedRange),
                                     length, buf, kWrite, &full, 0, &last, &stale);
    if (stale) ForgetTree(item, header.FileOffset);
  }
  if (stale) {
    while (block >= Capacity(header.IndexDepth)) {
      sfl_IndexRecord root;
      sfl_ReadAnIndex(item, header.FileOffset, &root);
      const bool rootFull = root.Depth > 0 ? root.FreeMap == kAllFull : !LeafHasRoom(root);
      sfl_InsertNewIndexLevel(item, header.FileOffset, root, header, 0, 0, rootFull);
      sfl_WriteItemHeader(item, header);
      item->Offset = header.FileOffset;
      Sync(item, SFL_EV_ITEM_HEADER);
      sfl_ReadItemHeader(item, &header);
    }
    count = sfl_Traverse4ReadOrWrite(item, header.FileOffset,
                                     static_cast<uint32_t>(block % Capacity(header.IndexDepth)),
                                     length, buf, kWrite, &full, 0);
  }
  lock.Unlock();
  return static_cast<int32_t>(count);
}

// ---- walking a whole tree -----------------------------------------------------------

// Reads one record for a walk: exactly 384 bytes, decoded, magic and type
// checked. The handle's index caches are left alone: a walk looks at every
// record once and must not make the last of them the handle's current index.
// A root that was never initialised (all zeros: no magic, no type) counts as
// an empty leaf, so an item whose tree was never used can still be walked.
static sfl_IndexRecord ReadForWalk(sfl_BaseRec* rec, uint32_t off, bool isRoot) {
  sfl_IndexBytes raw{};
  const ssize_t n = sfl_PRead(rec, raw.data(), raw.size(), off);
  if (n < 0 || static_cast<size_t>(n) != raw.size()) SFL_RAISE(SFL_R_SHORT_READ);
  sfl_IndexRecord r = sfl_DecodeIndex(raw);
  if (isRoot && std::all_of(raw.begin(), raw.end(), [](uint8_t b) { return b == 0; }))
    return sfl_IndexRecord{};
  if (r.Magic != SFL_MAGIC || r.Type != SFL_TYPE_INDEX) SFL_RAISE(SFL_R_BAD_INDEX);
  return r;
}

// The depth each child must have is one below its parent's, so a damaged
// tree that points back up (a cycle) is refused instead of walked forever.
static void WalkLevel(sfl_BaseRec* rec, uint32_t off, int64_t wantDepth, uint64_t first,
                      const sfl_IndexVisitor& visit) {
  const sfl_IndexRecord r = ReadForWalk(rec, off, wantDepth < 0);
  if (r.Depth > kMaxRootDepth || (wantDepth >= 0 && r.Depth != wantDepth))
    SFL_RAISE(SFL_R_BAD_INDEX);
  if (!visit(off, r, first) || r.Depth == 0) return;
  const uint64_t span = EntrySpan(r.Depth);
  for (uint32_t i = 0; i < kFan; ++i) {
    const sfl_IndexEntry& e = r.Entries[i];
    if (EntryEmpty(e)) continue;
    WalkLevel(rec, e.SectionOffSet, static_cast<int64_t>(r.Depth) - 1, first + i * span, visit);
  }
}

void sfl_WalkIndexTree(sfl_BaseRec* rec, uint32_t rootOff, const sfl_IndexVisitor& visit) {
  WalkLevel(rec, rootOff, -1, 0, visit);
}

// ---- releasing a whole tree ---------------------------------------------------------

void sfl_FreeIndexTree(sfl_ItemRec* item, uint32_t rootOff, uint8_t* map, uint32_t mapLen,
                       uint32_t freeData) {
  ER_TRACE_PROC("sfl_FreeIndexTree");
  sfl_WalkIndexTree(item->BaseRecord, rootOff,
                    [&](uint32_t off, const sfl_IndexRecord& r, uint64_t) {
                      sfl_ClearFreeMapArea(map, mapLen, off, kIdx);
                      if (r.Depth == 0 && freeData != 0)
                        for (const auto& e : r.Entries)
                          if (!EntryEmpty(e))
                            sfl_ClearFreeMapArea(map, mapLen, e.SectionOffSet, e.SectionSize);
                      return true;
                    });
}

void sfl_DeleteIndexTree(sfl_ItemRec* item, const sfl_ItemHeader& header) {
  ER_TRACE_PROC("sfl_DeleteIndexTree");
  sfl_BaseRec* rec = item->BaseRecord;
  // Without a free map (single-item files) there is nothing to give back.
  if (rec->FreeMapItem == nullptr || header.FileOffset == 0) return;
  sfl_Held own;
  own.ItemHeader(item, SFL_LOCK_EXCL);
  sfl_UpdateFreeMap(rec, [&](uint8_t* map, uint32_t mapLen) {
    sfl_FreeIndexTree(item, header.FileOffset, map, mapLen, 1);
  });
  own.Unlock();
}

// Frees every data block of a tree and leaves the index records in place.
// No operation uses it at present.
[[maybe_unused]] static void sfl_TraveseToFreeAll(sfl_ItemRec* item, uint32_t rootOff) {
  ER_TRACE_PROC("sfl_TraveseToFreeAll");
  std::vector<sfl_IndexEntry> blocks;
  sfl_WalkIndexTree(item->BaseRecord, rootOff,
                    [&](uint32_t, const sfl_IndexRecord& r, uint64_t) {
                      if (r.Depth == 0)
                        for (const auto& e : r.Entries)
                          if (e.SectionOffSet != 0) blocks.push_back(e);
                      return true;
                    });
  for (const auto& e : blocks) sfl_FreeFreeSpace(item, e.SectionOffSet, e.SectionSize);
}

// ---- creating a blocked item -----------------------------------------------------------

extern "C" int32_t sfl_CreateBlockedItem(int32_t baseHandle, sfl_ItemRef* out) {
  ER_TRACE_PROC("sfl_CreateBlockedItem");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_PtrEnsureBaseFileOpen(rec);
  // The slot, the run and the record go back unless the item comes into
  // being.
  sfl_SlotClaim slotClaim;
  const int32_t slot = slotClaim.Take(rec, 1, -1);
  if (slot < 1) SFL_RAISE(SFL_R_NO_BLOCKED_SLOT);

  const sfl_ItemRef ref = sfl_ItemRefIn(*rec, static_cast<uint32_t>(slot));
  if (out != nullptr) *out = ref;

  // The root is laid down as zeros, without magic or type: the item starts
  // with no index record at all.
  sfl_SpaceRun run;
  const uint32_t root = run.Take(rec, kIdx);
  const sfl_IndexBytes zeros{};
  ssize_t n = sfl_PWrite(rec, zeros.data(), zeros.size(), root);
  if (n < 0 || static_cast<size_t>(n) != zeros.size()) SFL_RAISE(SFL_R_SHORT_WRITE);
  sfl_ConsiderSync(rec, nullptr, SFL_EV_INDEX_WRITTEN);

  sfl_NewItemRecord item;
  sfl_BindItem(item.get(), baseHandle, rec);
  sfl_SetRef(*item.get(), ref);
  item->ItemNum = static_cast<uint32_t>(slot);
  item->HeaderOff = rec->ITableOff + static_cast<uint32_t>(slot) * SFL_ITEM_HEADER_SIZE;
  item->OpenRefs = 1;
  item->Offset = root;
  item->Size = 32;
  item->Flags = BLOCKED_ITEM;
  item->LastIdxBase = 0;
  item->LastIdxOff = root;

  sfl_ItemHeader header = sfl_NewItemHeader();
  header.AccCount = 0;
  header.FileSize = 32;
  header.UsedBlocks = run.Blocks();
  header.ChangeDate = mdc_time();
  header.FileOffset = root;
  header.IndexDepth = 0;
  header.Flags = BLOCKED_ITEM;
  sfl_Held lock;
  lock.ItemHeader(item.get(), SFL_LOCK_EXCL);
  sfl_WriteItemHeader(item.get(), header);
  lock.Unlock();
  // Counted like any other open item, so that the file stays open under it
  // and the last close of the handle balances the count.
  item.Count(baseHandle);
  rec->NewlyCreated = 0;
  sfl_ConsiderSync(rec, item.get(), SFL_EV_NEW_ITEM);
  run.Commit();
  slotClaim.Commit();
  return item.Commit();
}

// A root still as sfl_CreateBlockedItem laid it down (all zeros) becomes an
// empty leaf whose parent is the item's header. Done under the item header's
// exclusive lock, like every other change of the tree.
extern "C" int32_t sfl_FormatBlockedRoot(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_FormatBlockedRoot");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if ((item->Flags & BLOCKED_ITEM) == 0) SFL_RAISE(SFL_R_NOT_BLOCKED);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  sfl_ItemHeader header;
  sfl_ReadItemHeader(item, &header);
  if (header.IndexDepth != 0 || header.FileOffset == 0) return 0;
  sfl_IndexBytes raw{};
  const ssize_t n = sfl_PRead(item->BaseRecord, raw.data(), raw.size(), header.FileOffset);
  if (n < 0 || static_cast<size_t>(n) != raw.size()) SFL_RAISE(SFL_R_SHORT_READ);
  for (uint8_t b : raw)
    if (b != 0) return 0;
  sfl_IndexRecord root = sfl_NewIndexRecord();
  root.ParentOff = item->HeaderOff;
  sfl_WriteAnIndex(item, header.FileOffset, root);
  lock.Unlock();
  sfl_ConsiderSync(nullptr, item, SFL_EV_INDEX_WRITTEN);
  return 1;
}
