// Read-only views for tools that list and describe items: sfl_ListItems
// over an open container's item table, sfl_ListBlocks over a blocked item's
// index tree.
//
// sfl_ListItems It reads the file header and every
// slot's 64-byte header as raw bytes under the shared file-header lock, so a
// slot that was taken but never fully written is reported (as not valid)
// instead of failing the whole listing.
#include <algorithm>

#include "sfl_int.h"

namespace {

constexpr uint32_t kMaxTreeDepth = 6;

// Reads one slot's header bytes; a short read means the table is cut off.
sfl_ItemHeader ReadSlot(sfl_BaseRec* rec, uint32_t offset) {
  sfl_ItemHeaderBytes bytes{};
  ssize_t got = sfl_PRead(rec, bytes.data(), bytes.size(), offset);
  if (got != static_cast<ssize_t>(bytes.size())) SFL_RAISE(SFL_R_SHORT_READ);
  return sfl_DecodeItemHeader(bytes);
}

}  // namespace

extern "C" int32_t sfl_ListItems(int32_t baseHandle, sfl_ItemInfo* out, int32_t max) {
  ER_TRACE_PROC("sfl_ListItems");
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_PtrEnsureBaseFileOpen(rec);

  sfl_Held lock;
  lock.Header(rec, SFL_LOCK_SHARED);
  sfl_FileHeader fh;
  sfl_ReadFileHeader(rec, &fh);

  const int32_t slots = fh.MaxItems;
  const int32_t wanted = out == nullptr ? 0 : std::clamp(max, 0, slots);
  for (int32_t i = 0; i < wanted; ++i) {
    const uint32_t at = fh.TableOffset + static_cast<uint32_t>(i) * SFL_ITEM_HEADER_SIZE;
    const sfl_ItemHeader h = ReadSlot(rec, at);
    sfl_ItemInfo& info = out[i];
    info = sfl_ItemInfo{};
    info.ItemNum = static_cast<uint32_t>(i);
    // The in-use map is one byte: slots past the eighth never show as used.
    info.InUse = i < 8 ? (fh.InUseItms >> i) & 1u : 0u;
    info.Valid = h.Magic == SFL_MAGIC && h.Type == SFL_TYPE_ITEM_HEADER ? 1u : 0u;
    info.AccCount = h.AccCount;
    info.FileSize = h.FileSize;
    info.UsedBlocks = h.UsedBlocks;
    info.ChangeDate = h.ChangeDate;
    info.FileOffset = h.FileOffset;
    info.IndexDepth = h.IndexDepth;
    info.Flags = h.Flags;
  }
  lock.Unlock();
  return slots;
}

namespace {

// Gathers the blocks under one index record whose numbers fall in
// [first, last]. `base` is the first block number the record covers.
struct BlockWalk {
  sfl_BaseRec* rec;
  uint64_t first, last;
  sfl_BlockInfo* out;
  uint32_t max;
  uint32_t found = 0;

  void Visit(uint32_t offset, uint32_t depth, uint64_t base) {
    sfl_IndexBytes bytes{};
    if (sfl_PRead(rec, bytes.data(), bytes.size(), offset) != static_cast<ssize_t>(bytes.size()))
      SFL_RAISE(SFL_R_SHORT_READ);
    const sfl_IndexRecord r = sfl_DecodeIndex(bytes);
    if (r.Magic != SFL_MAGIC || r.Type != SFL_TYPE_INDEX || r.Depth != depth)
      SFL_RAISE(SFL_R_BAD_INDEX);
    uint64_t span = 1;  // blocks under one entry of this record
    for (uint32_t i = 0; i < depth; ++i) span *= SFL_INDEX_ENTRIES;
    for (uint32_t e = 0; e < SFL_INDEX_ENTRIES; ++e) {
      const sfl_IndexEntry& entry = r.Entries[e];
      if (entry.SectionOffSet == 0) continue;
      const uint64_t lo = base + e * span;
      if (lo > last || lo + span - 1 < first) continue;
      if (depth > 0) {
        Visit(entry.SectionOffSet, depth - 1, lo);
      } else {
        if (out != nullptr && found < max)
          out[found] = {static_cast<uint32_t>(lo), entry.SectionOffSet, entry.SectionSize};
        ++found;
      }
    }
  }
};

}  // namespace

extern "C" uint32_t sfl_ListBlocks(int32_t itemHandle, uint32_t first, uint32_t last,
                                   sfl_BlockInfo* out, uint32_t max) {
  ER_TRACE_PROC("sfl_ListBlocks");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if ((item->Flags & BLOCKED_ITEM) == 0) SFL_RAISE(SFL_R_NOT_BLOCKED);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_SHARED);
  sfl_ItemHeader h;
  sfl_ReadItemHeader(item, &h);
  if (h.IndexDepth > kMaxTreeDepth) SFL_RAISE(SFL_R_TOO_DEEP);
  if (h.FileOffset == 0 || first > last) return 0;
  if (h.IndexDepth == 0) {
    sfl_IndexBytes root{};
    if (sfl_PRead(item->BaseRecord, root.data(), root.size(), h.FileOffset) !=
        static_cast<ssize_t>(root.size()))
      SFL_RAISE(SFL_R_SHORT_READ);
    if (std::all_of(root.begin(), root.end(), [](uint8_t b) { return b == 0; })) return 0;
  }
  BlockWalk walk{item->BaseRecord, first, last, out, max};
  walk.Visit(h.FileOffset, h.IndexDepth, 0);
  lock.Unlock();
  return walk.found;
}
