// Item compaction: renumbering a blocked item's blocks so that they run from
// 0 without gaps, in their old order, without moving or copying block data.
// Only index entries ({SectionOffSet, SectionSize}) move.
//
// Two forms: the rebuild (sfl_CompactBlockedItem) lays a fresh, dense tree
// down beside the old one in a temporary internal item and switches the
// item header over to it with one write; the in-place slide
// (sfl_CompactRange) moves entries between two leaf cursors over the
// existing leaves, and is what index reordering uses. The leaf cursor that
// both walk with lives here too.
#include <algorithm>
#include <vector>

#include "mdc.h"
#include "sfl_int.h"

namespace {

constexpr uint32_t kFan = SFL_INDEX_ENTRIES;
constexpr uint32_t kIdx = static_cast<uint32_t>(SFL_INDEX_SIZE);
constexpr uint32_t kMaxRootDepth = 6;
// New index records are written in runs of at most this many per transfer.
constexpr size_t kRecordsPerWrite = 64;

bool EntryEmpty(const sfl_IndexEntry& e) { return e.SectionOffSet == 0 && e.SectionSize == 0; }

uint64_t Pow32(uint32_t e) {
  uint64_t v = 1;
  for (uint32_t i = 0; i < e; ++i) v *= kFan;
  return v;
}

void Sync(sfl_ItemRec* item, int32_t event) { sfl_ConsiderSync(item->BaseRecord, item, event); }

// Reads the record the cursor keeps at `level`. Counts from disk are
// distrusted: a Used or EverUsed above 32 would step a slot past the 32
// entries, and a child whose Depth is not one below its parent's would run
// the cursor past its 8 levels. Both are refused as records that fail the
// index check.
void ReadLevel(sfl_ItemRec* item, sfl_LeafCursor* c, int level, uint32_t off) {
  if (level >= sfl_LeafCursor::kLevels) SFL_RAISE(SFL_R_BAD_INDEX);
  sfl_IndexRecord& r = c->Rec[level];
  sfl_ReadAnIndex(item, off, &r);
  if (r.Used > kFan || r.EverUsed > kFan || r.Depth > kMaxRootDepth) SFL_RAISE(SFL_R_BAD_INDEX);
  if (level > 0 && r.Depth + 1 != c->Rec[level - 1].Depth) SFL_RAISE(SFL_R_BAD_INDEX);
  c->Off[level] = off;
}

// From the record at `level` down to a leaf through entry 0 at each lower
// level, giving each new level the slot `slot`.
void DescendThroughFirst(sfl_ItemRec* item, sfl_LeafCursor* c, int level, int32_t slot) {
  while (c->Rec[level].Depth > 0) {
    const sfl_IndexEntry& first = c->Rec[level].Entries[0];
    if (EntryEmpty(first)) SFL_RAISE(SFL_R_EMPTY_FIRST_CHILD);
    ReadLevel(item, c, level + 1, first.SectionOffSet);
    c->Slot[level + 1] = slot;
    ++level;
  }
  c->Leaf = level;
}

// The slots a forward climb may still visit in a branch. A branch's Used
// counts the children made in it, which is below one past its highest
// child when children were made out of order (writes far ahead); EverUsed
// always covers the highest. The larger of the two is taken so that no
// child is passed over.
uint32_t ForwardBound(const sfl_IndexRecord& r) { return std::max(r.Used, r.EverUsed); }

bool StepForward(sfl_ItemRec* item, sfl_LeafCursor* c, const std::function<void()>& beforeLeave) {
  const int leaf = c->Leaf;
  ++c->Slot[leaf];
  if (c->Slot[leaf] < static_cast<int32_t>(c->Rec[leaf].EverUsed)) return true;
  // Climb to the deepest level with a further child, skipping empty ones.
  for (int level = leaf - 1; level >= 0; --level) {
    const sfl_IndexRecord& r = c->Rec[level];
    const int32_t bound = static_cast<int32_t>(ForwardBound(r));
    for (int32_t s = c->Slot[level] + 1; s < bound; ++s) {
      if (EntryEmpty(r.Entries[s])) continue;
      if (beforeLeave) beforeLeave();
      c->Slot[level] = s;
      ReadLevel(item, c, level + 1, r.Entries[s].SectionOffSet);
      c->Slot[level + 1] = 0;
      DescendThroughFirst(item, c, level + 1, 0);
      return true;
    }
  }
  c->Ended = true;
  return false;
}

// The backward step keeps its climbing rule as it stands: from the leaf's
// parent upward it passes every level whose slot is 1 or more and stops at
// the first level whose slot is 0, or at the root; below the new position
// it descends through entry 0 while setting the slot to 31. On a tree of
// depth 1 this is the previous leaf, slot 31; deeper trees are not served
// well by it (see README).
bool StepBackward(sfl_ItemRec* item, sfl_LeafCursor* c, const std::function<void()>& beforeLeave) {
  const int leaf = c->Leaf;
  --c->Slot[leaf];
  if (c->Slot[leaf] >= 0) return true;
  if (leaf == 0) {
    c->Ended = true;
    return false;
  }
  int level = leaf - 1;
  while (level > 0 && c->Slot[level] >= 1) --level;
  if (level == 0 && c->Slot[0] == 0) {
    c->Ended = true;
    return false;
  }
  // The rule can stop at a level below the root whose slot is 0; going one
  // further back there would read entry -1, outside the record.
  if (c->Slot[level] <= 0) SFL_RAISE(SFL_R_BAD_SLOT);
  if (beforeLeave) beforeLeave();
  --c->Slot[level];
  const sfl_IndexEntry& child = c->Rec[level].Entries[c->Slot[level]];
  if (EntryEmpty(child)) SFL_RAISE(SFL_R_EMPTY_FIRST_CHILD);
  ReadLevel(item, c, level + 1, child.SectionOffSet);
  c->Slot[level + 1] = kFan - 1;
  DescendThroughFirst(item, c, level + 1, kFan - 1);
  return true;
}

// Adds the record at `off`, as it is on disk now, to the journal the first
// time the slide is about to overwrite it.
void Remember(sfl_ItemRec* item, uint32_t off, sfl_SlideJournal* journal) {
  if (journal == nullptr) return;
  for (const auto& [at, bytes] : journal->Before)
    if (at == off) return;
  sfl_IndexBytes bytes{};
  const ssize_t n = sfl_PRead(item->BaseRecord, bytes.data(), bytes.size(), off);
  if (n < 0 || static_cast<size_t>(n) != bytes.size()) SFL_RAISE(SFL_R_SHORT_READ);
  journal->Before.emplace_back(off, bytes);
}

}  // namespace

// ---- the leaf cursor -------------------------------------------------------------------

void sfl_CursorToFirstLeaf(sfl_ItemRec* item, uint32_t rootOff, sfl_LeafCursor* c) {
  *c = sfl_LeafCursor{};
  ReadLevel(item, c, 0, rootOff);
  c->Slot[0] = 0;
  DescendThroughFirst(item, c, 0, 0);
}

void sfl_CursorToBlock(sfl_ItemRec* item, uint32_t rootOff, uint32_t block, sfl_LeafCursor* c,
                       const sfl_IndexRecord* root) {
  *c = sfl_LeafCursor{};
  if (root != nullptr) {
    if (root->Used > kFan || root->EverUsed > kFan || root->Depth > kMaxRootDepth)
      SFL_RAISE(SFL_R_BAD_INDEX);
    c->Rec[0] = *root;
    c->Off[0] = rootOff;
  } else {
    ReadLevel(item, c, 0, rootOff);
  }
  uint64_t rest = block;
  int level = 0;
  while (c->Rec[level].Depth > 0) {
    const sfl_IndexRecord& r = c->Rec[level];
    const uint64_t span = Pow32(r.Depth);
    const uint64_t slot = rest / span;
    if (slot > kFan - 1 || slot >= r.EverUsed) SFL_RAISE(SFL_R_BAD_SLOT);
    rest %= span;
    c->Slot[level] = static_cast<int32_t>(slot);
    const sfl_IndexEntry& child = r.Entries[slot];
    if (EntryEmpty(child)) SFL_RAISE(SFL_R_EMPTY_FIRST_CHILD);
    ReadLevel(item, c, level + 1, child.SectionOffSet);
    ++level;
  }
  // A leaf holds 32 entries: a remainder beyond them means a block past
  // what the root covers.
  if (rest > kFan - 1) SFL_RAISE(SFL_R_BAD_SLOT);
  c->Slot[level] = static_cast<int32_t>(rest);
  c->Leaf = level;
}

bool sfl_CursorStep(sfl_ItemRec* item, sfl_LeafCursor* c, int32_t direction,
                    const std::function<void()>& beforeLeave) {
  if (c->Ended) return false;
  return direction >= 0 ? StepForward(item, c, beforeLeave) : StepBackward(item, c, beforeLeave);
}

// ---- the in-place slide ----------------------------------------------------------------------

void sfl_SyncUpCompaction(sfl_ItemRec* item, sfl_LeafCursor* source, sfl_LeafCursor* dest,
                          sfl_SlideJournal* journal) {
  ER_TRACE_PROC("sfl_SyncUpCompaction");
  Remember(item, dest->LeafOff(), journal);
  if (source->LeafOff() != dest->LeafOff()) Remember(item, source->LeafOff(), journal);
  sfl_WriteAnIndex(item, dest->LeafOff(), dest->LeafRec());
  if (source->LeafOff() != dest->LeafOff())
    sfl_WriteAnIndex(item, source->LeafOff(), source->LeafRec());
  Sync(item, SFL_EV_INDEX_WRITTEN);
}

void sfl_UndoSlide(sfl_ItemRec* item, const sfl_SlideJournal& journal) {
  er_StatusKeeper keep;
  for (auto it = journal.Before.rbegin(); it != journal.Before.rend(); ++it) {
    try {
      sfl_WriteAnIndex(item, it->first, sfl_DecodeIndex(it->second));
    } catch (const er_Escape&) {
    }
  }
}

namespace {

// After a slide towards block 0 that ran to the end of the tree, every
// record is made to agree with `last`, the last block now in use (none
// when `none`): records past it are emptied of marks, records wholly below
// it are full, the record that holds it counts the children its blocks
// reach. Only records that change are written.
void CorrectWholeTree(sfl_ItemRec* item, uint32_t rootOff, uint64_t last, bool none) {
  sfl_WalkIndexTree(item->BaseRecord, rootOff,
                    [&](uint32_t off, const sfl_IndexRecord& found, uint64_t) {
                      sfl_IndexRecord r = found;
                      const uint64_t base = r.BaseBlockNum;
                      const uint64_t span = Pow32(r.Depth);
                      const uint64_t end = base + span * kFan - 1;  // last block it covers
                      uint32_t ever;
                      uint32_t marks = 0;
                      if (none || base > last) {
                        ever = 0;
                      } else if (end <= last) {
                        ever = kFan;
                        marks = 0xFFFFFFFFu;
                      } else {
                        ever = static_cast<uint32_t>((last - base) / span + 1);
                        for (uint32_t i = 0; i < kFan; ++i)
                          if (base + (i + 1) * span - 1 <= last) marks |= 1u << i;
                      }
                      r.EverUsed = ever;
                      // Full marks are a branch's; a leaf carries none.
                      if (r.Depth > 0) r.FreeMap = marks;
                      if (r.Depth == 0 && r.Used > r.EverUsed) {
                        uint32_t used = 0;
                        for (const auto& e : r.Entries) used += EntryEmpty(e) ? 0 : 1;
                        r.Used = used;
                      }
                      if (r.EverUsed != found.EverUsed || r.FreeMap != found.FreeMap ||
                          r.Used != found.Used)
                        sfl_WriteAnIndex(item, off, r);
                      return true;
                    });
}

}  // namespace

uint32_t sfl_CompactRange(uint32_t limit, int32_t direction, sfl_ItemRec* item,
                          sfl_LeafCursor* source, sfl_LeafCursor* dest, sfl_ItemHeader* header,
                          sfl_SlideJournal* journal) {
  ER_TRACE_PROC("sfl_CompactRange");
  const int32_t dir = direction >= 0 ? 1 : -1;
  bool dirty = false;
  auto syncIfDirty = [&] {
    if (!dirty) return;
    sfl_SyncUpCompaction(item, source, dest, journal);
    dirty = false;
  };
  while (!source->Ended && !dest->Ended) {
    const int64_t block = source->Block();
    if (limit != SFL_NO_LIMIT &&
        (dir == 1 ? block > static_cast<int64_t>(limit) : block < static_cast<int64_t>(limit)))
      break;
    sfl_IndexRecord& sr = source->LeafRec();
    sfl_IndexRecord& dr = dest->LeafRec();
    const int32_t s = source->LeafSlot();
    const int32_t d = dest->LeafSlot();
    const bool same = source->LeafOff() == dest->LeafOff();
    const bool notPast = dir == 1 ? s <= d : s >= d;
    if (EntryEmpty(sr.Entries[s]) || (same && notPast)) {
      sfl_CursorStep(item, source, dir, syncIfDirty);
    } else if (EntryEmpty(dr.Entries[d])) {
      const sfl_IndexEntry moved = sr.Entries[s];
      if (same) {
        // Two copies of one record: both change alike.
        for (sfl_IndexRecord* r : {&sr, &dr}) {
          r->Entries[d] = moved;
          r->Entries[s] = {};
          r->EverUsed = std::max(r->EverUsed, r->Used);
        }
      } else {
        sr.Entries[s] = {};
        if (sr.Used > 0) --sr.Used;
        dr.Entries[d] = moved;
        // Used counts the entries in use, so the receiving leaf gains one;
        // EverUsed must reach past the slot for the block to be readable.
        if (dr.Used < kFan) ++dr.Used;
        dr.EverUsed = std::max({dr.EverUsed, dr.Used, static_cast<uint32_t>(d) + 1});
      }
      dirty = true;
    } else {
      sfl_CursorStep(item, dest, dir, syncIfDirty);
    }
  }
  syncIfDirty();
  const uint32_t result = static_cast<uint32_t>(dest->Block());
  if (dir == 1 && limit == SFL_NO_LIMIT && source->Ended) {
    // Where the destination stopped is taken as the last block; only a
    // one-leaf tree whose entry 0 is empty counts as holding none.
    const bool none = dest->Leaf == 0 && dest->LeafRec().Depth == 0 &&
                      EntryEmpty(dest->LeafRec().Entries[0]);
    CorrectWholeTree(item, header->FileOffset, result, none);
  }
  return result;
}

// ---- the rebuild -------------------------------------------------------------------------------

namespace {

// The shape of a dense tree of `n` blocks: records per level, leaves first.
std::vector<uint64_t> DenseLevels(uint64_t n) {
  std::vector<uint64_t> levels;
  uint64_t count = std::max<uint64_t>(1, (n + kFan - 1) / kFan);
  levels.push_back(count);
  while (count > 1) {
    count = (count + kFan - 1) / kFan;
    levels.push_back(count);
  }
  // A tree holds at most 7 levels.
  if (levels.size() > kMaxRootDepth + 1) SFL_RAISE(SFL_R_TOO_DEEP);
  return levels;
}

// Writes records[first, first + count) to consecutive places from `at`, in
// transfers of at most kRecordsPerWrite records.
void WriteRecords(sfl_ItemRec* item, uint32_t at, const std::vector<sfl_IndexRecord>& records,
                  size_t first, size_t count) {
  std::vector<uint8_t> buf;
  for (size_t done = 0; done < count;) {
    const size_t now = std::min(kRecordsPerWrite, count - done);
    buf.assign(now * SFL_INDEX_SIZE, 0);
    for (size_t i = 0; i < now; ++i)
      sfl_EncodeIndex(records[first + done + i],
                      std::span<uint8_t, SFL_INDEX_SIZE>(buf.data() + i * SFL_INDEX_SIZE,
                                                         SFL_INDEX_SIZE));
    const uint64_t where = at + static_cast<uint64_t>(done) * kIdx;
    const ssize_t n = sfl_PWrite(item->BaseRecord, buf.data(), buf.size(), where);
    if (n < 0 || static_cast<size_t>(n) != buf.size()) SFL_RAISE(SFL_R_SHORT_WRITE);
    done += now;
  }
}

// Lays the entries down as the dense tree that appending them one by one
// would give: full leaves of 32 in order, branches whose Used and EverUsed
// count their children and whose full marks are set for full children.
// The root goes into the destination's own root record, every other record
// into one new run, and each record is written once. Leaves the
// destination's header describing the new tree (FileOffset, IndexDepth)
// and its handle's last index on the last leaf.
void LayDenseTree(sfl_ItemRec* dest, uint32_t parentOfRoot,
                  const std::vector<sfl_IndexEntry>& entries) {
  const uint64_t n = entries.size();
  const std::vector<uint64_t> levels = DenseLevels(n);
  const uint32_t depth = static_cast<uint32_t>(levels.size() - 1);
  uint64_t total = 0;
  for (uint64_t c : levels) total += c;

  sfl_ItemHeader dh;
  sfl_ReadItemHeader(dest, &dh);
  const uint32_t rootOff = dh.FileOffset;

  // Records in top-down order: the root first, then each level's records
  // left to right. Record k (k >= 1) lies at run + (k - 1) * 384.
  const uint64_t runBytes = (total - 1) * kIdx;
  // Offsets are 32 bits: a run that could not be addressed is refused.
  if (runBytes > 0xFFFFFFFFull) SFL_RAISE(SFL_R_TOO_DEEP);
  // The run goes back unless the root comes to refer to it. A root written
  // half way is the temporary item's alone, which the caller gives back
  // with whatever it reaches.
  sfl_SpaceRun run;
  const uint32_t at =
      runBytes == 0 ? 0 : run.Take(dest->BaseRecord, static_cast<uint32_t>(runBytes));

  std::vector<uint64_t> firstOfLevel(levels.size());  // index of its first record, by depth
  {
    uint64_t k = 0;
    for (size_t d = levels.size(); d-- > 0;) {
      firstOfLevel[d] = k;
      k += levels[d];
    }
  }
  auto offsetOf = [&](uint64_t k) -> uint32_t {
    return k == 0 ? rootOff : static_cast<uint32_t>(at + (k - 1) * kIdx);
  };

  std::vector<sfl_IndexRecord> recs(total, sfl_NewIndexRecord());
  for (uint32_t d = 0; d <= depth; ++d) {
    const uint64_t span = Pow32(d);           // blocks under one entry
    const uint64_t cover = span * kFan;       // blocks under the record
    for (uint64_t j = 0; j < levels[d]; ++j) {
      const uint64_t k = firstOfLevel[d] + j;
      sfl_IndexRecord& r = recs[k];
      r.Depth = d;
      r.BaseBlockNum = static_cast<uint32_t>(j * cover);
      r.ParentOff = d == depth ? parentOfRoot : offsetOf(firstOfLevel[d + 1] + j / kFan);
      uint32_t used = 0;
      for (uint32_t i = 0; i < kFan; ++i) {
        const uint64_t first = j * cover + i * span;  // first block under entry i
        if (first >= n) break;
        if (d == 0) {
          r.Entries[i] = entries[first];
        } else {
          r.Entries[i] = {offsetOf(firstOfLevel[d - 1] + j * kFan + i), kIdx};
          if (first + span <= n) r.FreeMap |= 1u << i;
        }
        ++used;
      }
      r.Used = used;
      r.EverUsed = used;
    }
  }
  if (total > 1) WriteRecords(dest, at, recs, 1, total - 1);
  WriteRecords(dest, rootOff, recs, 0, 1);
  run.Commit();

  const uint64_t lastLeaf = firstOfLevel[0] + levels[0] - 1;
  dest->LastIdxOff = offsetOf(lastLeaf);
  dest->LastIdxBase = recs[lastLeaf].BaseBlockNum;
  dest->LastIdxDepth = 0;
  dh.IndexDepth = depth;
  dh.FileOffset = rootOff;
  sfl_WriteItemHeader(dest, dh);
}

// Drops a handle record taken for the temporary item, on every path.
class TempHandle {
 public:
  explicit TempHandle(int32_t handle) : item_(sfl_ItemHandle2Record(handle)) {}
  ~TempHandle() {
    er_StatusKeeper keep;
    try {
      sfl_DeleteOSerItem(item_);
    } catch (const er_Escape&) {
    }
  }
  TempHandle(const TempHandle&) = delete;
  TempHandle& operator=(const TempHandle&) = delete;
  sfl_ItemRec* get() const { return item_; }

 private:
  sfl_ItemRec* item_;
};

// Sets the file's ASYNCHRONOUS bit in this process's record for the span of
// the build, so that its writes are not synced one by one, and puts the
// bit back as it was, on every path.
class AsyncWhileBuilding {
 public:
  explicit AsyncWhileBuilding(sfl_BaseRec* rec) : rec_(rec), was_(rec->FileFlags & ASYNCHRONOUS) {
    rec_->FileFlags |= ASYNCHRONOUS;
  }
  ~AsyncWhileBuilding() { Restore(); }
  AsyncWhileBuilding(const AsyncWhileBuilding&) = delete;
  AsyncWhileBuilding& operator=(const AsyncWhileBuilding&) = delete;
  void Restore() { rec_->FileFlags = (rec_->FileFlags & ~static_cast<uint32_t>(ASYNCHRONOUS)) | was_; }

 private:
  sfl_BaseRec* rec_;
  uint32_t was_;
};

}  // namespace

namespace {

// The records of the old tree that the rebuild's cursor read, and whether
// they are all the records a walk of that tree would reach. They are, unless
// a branch holds a child the cursor does not climb to (one at or past the
// larger of its Used and EverUsed: damage). Handing them to the release
// spares it a second read of every record of the old tree.
struct RecordsRead {
  std::vector<uint32_t> Offs;
  bool All = true;
  // The path noted last, root first.
  uint32_t PathOff[sfl_LeafCursor::kLevels] = {};
  int32_t PathLeaf = -1;
};

// Notes the records of the cursor's path that are new since the path noted
// last (from the first level that changed down to the leaf), and whether
// each new branch keeps all its children within the cursor's reach.
void NotePath(const sfl_LeafCursor& c, RecordsRead* read) {
  int level = 0;
  while (level <= c.Leaf && level <= read->PathLeaf && c.Off[level] == read->PathOff[level])
    ++level;
  for (; level <= c.Leaf; ++level) {
    read->Offs.push_back(c.Off[level]);
    read->PathOff[level] = c.Off[level];
    if (level == c.Leaf) break;
    // The cursor reaches entry 0 on its way down and every non-empty
    // entry below the bound on its climbs.
    const sfl_IndexRecord& r = c.Rec[level];
    for (uint32_t s = std::max<uint32_t>(ForwardBound(r), 1); s < kFan; ++s)
      if (!EntryEmpty(r.Entries[s])) read->All = false;
  }
  read->PathLeaf = c.Leaf;
}

uint32_t CompactAllNoting(sfl_ItemRec* source, sfl_ItemRec* dest, sfl_LeafCursor* cursor,
                          RecordsRead* read) {
  ER_TRACE_PROC("sfl_CompactAll");
  // Leaf by leaf: every non-empty entry, in slot order. Entries at or above
  // a leaf's EverUsed (a reorder to a slot past it leaves one there) are
  // taken too: the old tree is released without its blocks, so an entry
  // left behind would be a block lost.
  std::vector<sfl_IndexEntry> entries;
  do {
    if (read != nullptr) NotePath(*cursor, read);
    for (const sfl_IndexEntry& e : cursor->LeafRec().Entries)
      if (!EntryEmpty(e)) entries.push_back(e);
    // On to the next leaf: the last slot the step counts, then one more.
    cursor->Slot[cursor->Leaf] =
        std::max<int32_t>(static_cast<int32_t>(cursor->LeafRec().EverUsed), 1) - 1;
  } while (sfl_CursorStep(source, cursor, 1));
  LayDenseTree(dest, source->HeaderOff, entries);
  return entries.empty() ? 0 : static_cast<uint32_t>(entries.size() - 1);
}

uint32_t CreateCompactTreeNoting(sfl_ItemRec* source, sfl_ItemRec* dest, RecordsRead* read) {
  ER_TRACE_PROC("sfl_CreateCompactTree");
  sfl_ItemHeader h;
  sfl_ReadItemHeader(source, &h);
  sfl_LeafCursor cursor;
  sfl_CursorToFirstLeaf(source, h.FileOffset, &cursor);
  return CompactAllNoting(source, dest, &cursor, read);
}

}  // namespace

uint32_t sfl_CompactAll(sfl_ItemRec* source, sfl_ItemRec* dest, sfl_LeafCursor* cursor) {
  return CompactAllNoting(source, dest, cursor, nullptr);
}

uint32_t sfl_CreateCompactTree(sfl_ItemRec* source, sfl_ItemRec* dest) {
  return CreateCompactTreeNoting(source, dest, nullptr);
}

namespace {

// Whether the 384 bytes at `off` are all zeros: a root laid down by item
// creation and never formatted, which holds no blocks.
bool BlankRecord(sfl_BaseRec* rec, uint32_t off) {
  sfl_IndexBytes raw{};
  const ssize_t n = sfl_PRead(rec, raw.data(), raw.size(), off);
  if (n < 0 || static_cast<size_t>(n) != raw.size()) SFL_RAISE(SFL_R_SHORT_READ);
  return std::all_of(raw.begin(), raw.end(), [](uint8_t b) { return b == 0; });
}

// Index records a wipe covers with one write at most (24 KiB of zeros).
constexpr uint32_t kWipeRun = 64;

// Writes zeros over the index records at `offs` (sorted), one write per run
// of adjacent records.
void WipeRecords(sfl_BaseRec* rec, const std::vector<uint32_t>& offs) {
  static const std::vector<uint8_t> zeros(kWipeRun * SFL_INDEX_SIZE, 0);
  for (size_t i = 0; i < offs.size();) {
    size_t n = 1;
    while (i + n < offs.size() && n < kWipeRun &&
           offs[i + n] == offs[i] + n * static_cast<uint32_t>(SFL_INDEX_SIZE))
      ++n;
    const size_t len = n * SFL_INDEX_SIZE;
    const ssize_t put = sfl_PWrite(rec, zeros.data(), len, offs[i]);
    if (put < 0 || static_cast<size_t>(put) != len) SFL_RAISE(SFL_R_SHORT_WRITE);
    i += n;
  }
}

// Gives back, in one read-modify-write of the free map under its lock, the
// index records of the tree at `rootOff` (not its blocks) and the 64 bytes
// of the temporary item's header at `tempHeaderOff`.
//
// The records are wiped (zeros, one pwrite per run of adjacent records)
// before their space is free: a handle in another process may still
// remember one as its last record, and once the root lies again where that
// handle knew it (a later rebuild can put it there), only the record itself
// tells that it is no longer part of the tree. No one can take the space
// meanwhile: the free map is held until it is written.
//
// `read`, when given, lists the tree's records already (see RecordsRead),
// so the tree is not walked again.
void GiveBackRecords(sfl_ItemRec* item, uint32_t rootOff, uint32_t tempHeaderOff,
                     const std::vector<uint32_t>* read = nullptr) {
  sfl_BaseRec* rec = item->BaseRecord;
  if (rec->FreeMapItem == nullptr) return;
  sfl_UpdateFreeMap(rec, [&](uint8_t* map, uint32_t mapLen) {
    std::vector<uint32_t> records;
    if (read != nullptr)
      records = *read;
    else
      sfl_WalkIndexTree(rec, rootOff, [&](uint32_t off, const sfl_IndexRecord&, uint64_t) {
        records.push_back(off);
        return true;
      });
    std::sort(records.begin(), records.end());
    WipeRecords(rec, records);
    for (const uint32_t off : records) sfl_ClearFreeMapArea(map, mapLen, off, SFL_INDEX_SIZE);
    sfl_ClearFreeMapArea(map, mapLen, tempHeaderOff, SFL_ITEM_HEADER_SIZE);
  });
}

// Until the item switches to the new tree, the temporary item's records and
// header space are the rebuild's to give back if it fails; its blocks are
// the old tree's and stay.
class TempTreeBack {
 public:
  TempTreeBack(sfl_ItemRec* item, sfl_ItemRec* temp, uint32_t headerOff)
      : item_(item), temp_(temp), headerOff_(headerOff) {}
  ~TempTreeBack() {
    if (armed_)
      sfl_GiveBackQuietly([this] { GiveBackRecords(item_, temp_->Offset, headerOff_); });
  }
  TempTreeBack(const TempTreeBack&) = delete;
  TempTreeBack& operator=(const TempTreeBack&) = delete;
  void Commit() { armed_ = false; }

 private:
  sfl_ItemRec* item_;
  sfl_ItemRec* temp_;
  uint32_t headerOff_;
  bool armed_ = true;
};

}  // namespace

uint32_t sfl_CorrectCompactItem(sfl_ItemRec* item) {
  ER_TRACE_PROC("sfl_CorrectCompactItem");
  sfl_BaseRec* rec = item->BaseRecord;
  sfl_ItemHeader h;
  sfl_ReadItemHeader(item, &h);
  if (h.FileOffset == 0 || BlankRecord(rec, h.FileOffset)) return 0;

  AsyncWhileBuilding async(rec);
  sfl_SpaceRun headerSpace;
  const uint32_t tempHeaderOff = headerSpace.Take(rec, SFL_ITEM_HEADER_SIZE);
  TempHandle temp(sfl_GenCreateIntBItem(item, tempHeaderOff, 0));
  sfl_ItemRec* t = temp.get();
  TempTreeBack back(item, t, tempHeaderOff);  // covers the header space from here
  headerSpace.Commit();

  RecordsRead oldRecords;
  const uint32_t last = CreateCompactTreeNoting(item, t, &oldRecords);
  async.Restore();
  Sync(item, SFL_EV_SYNC);

  // The switch: one write of the item header moves the item to the new
  // tree. Before it the old tree is in force; after it the new one.
  sfl_ItemHeader th;
  sfl_ReadItemHeader(t, &th);
  sfl_ReadItemHeader(item, &h);
  const uint32_t oldRoot = h.FileOffset;
  const uint32_t oldDepth = h.IndexDepth;
  h.FileOffset = th.FileOffset;
  h.IndexDepth = th.IndexDepth;
  try {
    sfl_WriteItemHeader(item, h);
  } catch (const er_Escape&) {
    // A header written half way may name the new tree: it is kept unless
    // the header still names the old one, in which case it goes back.
    bool old = false;
    sfl_GiveBackQuietly([&] {
      sfl_ItemHeader now;
      sfl_ReadItemHeader(item, &now);
      old = now.FileOffset == oldRoot && now.IndexDepth == oldDepth;
    });
    if (!old) back.Commit();
    throw;
  }
  back.Commit();
  item->LastIdxOff = t->LastIdxOff;
  item->LastIdxBase = t->LastIdxBase;
  item->LastIdxDepth = t->LastIdxDepth;
  item->CurrPos = 0;
  item->IndexCacheValid = 0;
  item->HeaderCacheValid = 0;
  t->IndexCacheValid = 0;
  t->HeaderCacheValid = 0;
  Sync(item, SFL_EV_COMPACTED);
  // The new root was laid down already pointing at this item's header.
  item->Offset = h.FileOffset;

  // Give back the old tree's records (its blocks now belong to the new
  // tree) and the temporary item's header.
  GiveBackRecords(item, oldRoot, tempHeaderOff, oldRecords.All ? &oldRecords.Offs : nullptr);
  return last;
}

extern "C" uint32_t sfl_CompactBlockedItem(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_CompactBlockedItem");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if ((item->Flags & BLOCKED_ITEM) == 0) SFL_RAISE(SFL_R_NOT_BLOCKED);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  const uint32_t last = sfl_CorrectCompactItem(item);
  lock.Unlock();
  return last;
}
