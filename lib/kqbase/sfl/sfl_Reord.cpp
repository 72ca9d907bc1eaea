// Index reordering: moving one block of a blocked item to another position
// in its block sequence, the blocks in between shifting by one place.
// Only index entries move, never block data. Within one leaf it is a shift
// of entries inside the record; across leaves it is the in-place slide of
// the compaction code between two leaf cursors.
#include <algorithm>

#include "sfl_int.h"

namespace {

constexpr uint32_t kFan = SFL_INDEX_ENTRIES;

bool EntryEmpty(const sfl_IndexEntry& e) { return e.SectionOffSet == 0 && e.SectionSize == 0; }

// Gives a slide's records back their old contents if the move does not
// complete, so that a refused move loses no block.
class SlideUndo {
 public:
  explicit SlideUndo(sfl_ItemRec* item) : item_(item) {}
  ~SlideUndo() {
    if (!done_) sfl_UndoSlide(item_, journal_);
  }
  SlideUndo(const SlideUndo&) = delete;
  SlideUndo& operator=(const SlideUndo&) = delete;
  sfl_SlideJournal* journal() { return &journal_; }
  void Done() { done_ = true; }

 private:
  sfl_ItemRec* item_;
  sfl_SlideJournal journal_;
  bool done_ = false;
};

}  // namespace

void sfl_ReorderSingleIndex(sfl_IndexRecord* r, uint32_t from, uint32_t to) {
  ER_TRACE_PROC("sfl_ReorderSingleIndex");
  // Slots come from the caller's block numbers: past 31 they would address
  // bytes beyond the record's 32 entries.
  if (from > kFan - 1 || to > kFan - 1) SFL_RAISE(SFL_R_BAD_SLOT);
  auto& e = r->Entries;
  const sfl_IndexEntry kept = e[from];
  if (to <= from) {
    for (uint32_t i = from; i > to; --i) e[i] = e[i - 1];
    e[to] = kept;
    return;
  }
  for (uint32_t i = from; i < to; ++i) e[i] = e[i + 1];
  e[to] = kept;
  // Raised to the slot, not one past it: kept as it has always been.
  if (r->Used < to) r->Used = to;
  if (r->EverUsed < r->Used) r->EverUsed = r->Used;
}

void sfl_ComplexReorder(sfl_ItemRec* item, const sfl_IndexRecord& root, uint32_t from, uint32_t to,
                        sfl_ItemHeader* header) {
  ER_TRACE_PROC("sfl_ComplexReorder");
  const int32_t dir = from <= to ? 1 : -1;
  sfl_LeafCursor source;
  sfl_CursorToBlock(item, header->FileOffset, from, &source, &root);
  sfl_LeafCursor dest = source;

  sfl_IndexRecord& leaf = source.LeafRec();
  const uint32_t base = leaf.BaseBlockNum;
  const uint32_t fromSlot = static_cast<uint32_t>(source.LeafSlot());
  if (to >= base && to - base <= kFan - 1) {
    // BaseBlockNum comes from disk: a leaf that disagrees with the path
    // that led to it would give a slot outside its entries.
    if (from < base || from - base > kFan - 1) SFL_RAISE(SFL_R_BAD_SLOT);
    sfl_ReorderSingleIndex(&leaf, from - base, to - base);
    sfl_WriteAnIndex(item, source.LeafOff(), leaf);
    sfl_ConsiderSync(item->BaseRecord, item, SFL_EV_INDEX_WRITTEN);
    return;
  }

  // The target must be a place the tree has, below its leaf's EverUsed: a
  // block put past it could not be read back.
  {
    sfl_LeafCursor target;
    sfl_CursorToBlock(item, header->FileOffset, to, &target, &root);
    if (static_cast<uint32_t>(target.LeafSlot()) >= target.LeafRec().EverUsed)
      SFL_RAISE(SFL_R_BAD_SLOT);
  }

  SlideUndo undo(item);
  // Take the from entry out of both copies of its leaf.
  const sfl_IndexEntry moved = leaf.Entries[fromSlot];
  for (sfl_LeafCursor* c : {&source, &dest}) {
    sfl_IndexRecord& r = c->LeafRec();
    if (!EntryEmpty(r.Entries[fromSlot]) && r.Used > 0) --r.Used;
    r.Entries[fromSlot] = {};
  }
  sfl_SyncUpCompaction(item, &source, &dest, undo.journal());

  // The entries between the two places each move one place into the hole,
  // which ends at the target.
  sfl_CompactRange(to, dir, item, &source, &dest, header, undo.journal());

  // The source cursor stops one place past the target; it must still be on
  // the target's leaf, and the hole must be there.
  sfl_IndexRecord& landing = source.LeafRec();
  const uint32_t lbase = landing.BaseBlockNum;
  if (to < lbase || to - lbase > kFan - 1 || !EntryEmpty(landing.Entries[to - lbase]))
    SFL_RAISE(SFL_R_REORDER_LOST);
  const uint32_t slot = to - lbase;
  const bool shared = source.LeafOff() == dest.LeafOff();
  for (sfl_LeafCursor* c : {&source, &dest}) {
    if (c == &dest && !shared) continue;
    sfl_IndexRecord& r = c->LeafRec();
    r.Entries[slot] = moved;
    if (!EntryEmpty(moved) && r.Used < kFan) ++r.Used;
    r.EverUsed = std::max(r.EverUsed, slot + 1);
  }
  sfl_SyncUpCompaction(item, &source, &dest, undo.journal());
  undo.Done();
}

extern "C" void sfl_ReorderIndex(int32_t itemHandle, uint32_t from, uint32_t to) {
  ER_TRACE_PROC("sfl_ReorderIndex");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if ((item->Flags & BLOCKED_ITEM) == 0) SFL_RAISE(SFL_R_NOT_BLOCKED);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  sfl_ItemHeader header;
  sfl_ReadItemHeader(item, &header);
  sfl_IndexRecord root;
  sfl_ReadAnIndex(item, header.FileOffset, &root);
  if (root.Depth == 0) {
    sfl_ReorderSingleIndex(&root, from, to);
    sfl_WriteAnIndex(item, header.FileOffset, root);
    sfl_ConsiderSync(item->BaseRecord, item, SFL_EV_INDEX_WRITTEN);
  } else {
    sfl_ComplexReorder(item, root, from, to, &header);
  }
  lock.Unlock();
}
