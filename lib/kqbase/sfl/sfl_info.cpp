// sfl_ListItems: a read-only view of an open container's item table, for
// tools that list and describe items. It reads the file header and every
// slot's 64-byte header as raw bytes under the shared file-header lock, so a
// slot that was taken but never fully written is reported (as not valid)
// instead of failing the whole listing.
#include <algorithm>

#include "sfl_int.h"

namespace {

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
