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
  uint32_t found = 0;
  bool atRoot = true;
  sfl_WalkIndexTree(item->BaseRecord, h.FileOffset,
                    [&](uint32_t, const sfl_IndexRecord& r, uint64_t base) {
                      // The root must be as deep as the header says (a blank root
                      // reads as an empty leaf, which a depth-0 header allows).
                      if (atRoot && r.Depth != h.IndexDepth) SFL_RAISE(SFL_R_BAD_INDEX);
                      atRoot = false;
                      uint64_t span = 1;  // blocks under one entry of this record
                      for (uint32_t i = 0; i < r.Depth; ++i) span *= SFL_INDEX_ENTRIES;
                      if (base > last || base + span * SFL_INDEX_ENTRIES - 1 < first) return false;
                      if (r.Depth > 0) return true;
                      for (uint32_t e = 0; e < SFL_INDEX_ENTRIES; ++e) {
                        const sfl_IndexEntry& entry = r.Entries[e];
                        const uint64_t n = base + e;
                        if (entry.SectionOffSet == 0 || n < first || n > last) continue;
                        if (out != nullptr && found < max)
                          out[found] = {static_cast<uint32_t>(n), entry.SectionOffSet,
                                        entry.SectionSize};
                        ++found;
                      }
                      return false;
                    });
  lock.Unlock();
  return found;
}
