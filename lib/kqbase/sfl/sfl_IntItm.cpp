// Internal items: blocked items whose 64-byte header lies inside the data of
// another item (the parent) rather than in the file's item table. They are
// reached only through the parent's handle and the header's position, have
// no item number or in-use bit of their own, and do not count as open items
// of the file.
#include <cstdint>

#include "mdc.h"
#include "sfl_int.h"

namespace {

// File offset of the 64-byte header at `position` in the parent: within
// the parent's data for a simple parent, within block `block` for a blocked
// one. Both lookups refuse a header that would not fit (28874).
uint32_t LocateHeader(sfl_ItemRec* parent, uint32_t block, uint32_t position) {
  if ((parent->Flags & BLOCKED_ITEM) == 0) {
    if (block != 0) SFL_RAISE(SFL_R_BLOCK_FOR_SIMPLE);
    return sfl_FindOffsetChkSize(parent, position, SFL_ITEM_HEADER_SIZE);
  }
  return sfl_BlckFindOffsetChkSize(parent, block, position, SFL_ITEM_HEADER_SIZE);
}

// An internal header lies in its parent's data, which the parent's owner
// writes as it likes, so what it says is distrusted like any header read
// from the file: the item's space must start in the data area (past the
// file header and item table) and its bytes and its reserved run must end
// within 32-bit offsets, or transfers through the handle, and the release
// of its space at removal, would reach the file's own records or wrap.
void CheckIntHeader(const sfl_BaseRec* rec, const sfl_ItemHeader& h) {
  if (h.FileOffset == 0 || h.FileOffset < rec->DataOff ||
      uint64_t{h.FileOffset} + h.FileSize > UINT32_MAX ||
      uint64_t{h.FileOffset} + uint64_t{h.UsedBlocks} * SFL_BLOCK_SIZE > UINT32_MAX)
    SFL_RAISE(SFL_R_NOT_INT_ITEM);
}

}  // namespace

int32_t sfl_GenCreateIntBItem(sfl_ItemRec* parent, uint32_t headerOffset, uint32_t extraFlags) {
  ER_TRACE_PROC("sfl_GenCreateIntBItem");
  sfl_BaseRec* rec = parent->BaseRecord;
  // Checked before any space is taken: a single-item file has no free map.
  if ((rec->FileFlags & SINGLE_FILE) != 0) SFL_RAISE(SFL_R_SINGLE_FILE);
  // The place is the caller's word, which is checked as far as it can be:
  // never the file header, the free map's slot or across item slots. A
  // place in the data area is trusted to be the caller's own (a parent's
  // data, or space it has just taken).
  sfl_CheckHeaderPlace(rec, headerOffset, false);

  // The run and the record go back unless the item comes into being.
  sfl_SpaceRun run;
  const uint32_t root = run.Take(rec, SFL_INDEX_SIZE);
  const uint32_t units = run.Blocks();
  sfl_IndexBytes empty;
  sfl_EncodeIndex(sfl_NewIndexRecord(), empty);
  ssize_t n = sfl_PWrite(rec, empty.data(), empty.size(), root);
  if (n < 0 || static_cast<size_t>(n) != empty.size()) SFL_RAISE(SFL_R_SHORT_WRITE);
  sfl_ConsiderSync(rec, nullptr, SFL_EV_INDEX_WRITTEN);

  const uint32_t flags = extraFlags | BLOCKED_ITEM | INT_ITEM;
  sfl_NewItemRecord item;
  sfl_BindItem(item.get(), parent->BaseHandle, rec);
  item->ItemNum = parent->ItemNum;
  item->HeaderOff = headerOffset;
  item->OpenRefs = 1;
  item->Offset = root;
  item->Size = SFL_INDEX_SIZE;
  item->Flags = flags;
  item->LastIdxOff = root;
  item->LastIdxBase = 0;
  item->ItemUserNoSync = parent->ItemUserNoSync;
  item->LibItmNoSync = parent->LibItmNoSync;

  sfl_ItemHeader header = sfl_NewItemHeader();
  header.AccCount = 0;
  header.FileSize = SFL_INDEX_SIZE;
  header.UsedBlocks = units;
  header.ChangeDate = mdc_time();
  header.FileOffset = root;
  header.Flags = flags;
  sfl_Held lock;
  lock.ItemHeader(item.get(), SFL_LOCK_EXCL);
  // Once the header is being written it may point at the run, even after a
  // write that fails half way: the run is kept from here on.
  run.Commit();
  sfl_WriteInternalItemH(item.get(), headerOffset, header);
  lock.Unlock();
  sfl_ConsiderSync(rec, item.get(), SFL_EV_NEW_ITEM);
  return item.Commit();
}

int32_t sfl_CreateIntBItem(int32_t parentHandle, uint32_t block, uint32_t position,
                           uint32_t extraFlags) {
  ER_TRACE_PROC("sfl_CreateIntBItem");
  sfl_ItemRec* parent = sfl_ItemHandle2Record(parentHandle);
  const uint32_t at = LocateHeader(parent, block, position);
  return sfl_GenCreateIntBItem(parent, at, extraFlags);
}

int32_t sfl_OpenIntItem(int32_t parentHandle, uint32_t block, uint32_t position) {
  ER_TRACE_PROC("sfl_OpenIntItem");
  sfl_ItemRec* parent = sfl_ItemHandle2Record(parentHandle);
  sfl_BaseRec* rec = parent->BaseRecord;
  const uint32_t at = LocateHeader(parent, block, position);

  sfl_ItemHeader header;
  {
    sfl_Held lock;
    lock.IntHeader(rec, at, SFL_LOCK_EXCL);
    try {
      sfl_ReadInternalItemH(parent, at, &header);
    } catch (const er_Escape& e) {
      // Bytes that are not an item header at all mean "no internal item
      // here"; a failed read passes on as it is.
      if (e.group() != ER_GROUP_SFL || e.reason() != SFL_R_BAD_ITEM_HEADER) throw;
      er_Clear();
      SFL_RAISE(SFL_R_NOT_INT_ITEM);
    }
  }
  CheckIntHeader(rec, header);

  int32_t handle = -1;
  sfl_ItemRec* item = sfl_GetNewItemEntry(&handle);
  sfl_BindItem(item, parent->BaseHandle, rec);
  item->ItemNum = parent->ItemNum;
  item->HeaderOff = at;
  item->OpenRefs = 1;
  item->Offset = header.FileOffset;
  item->Size = header.FileSize;
  item->Flags = header.Flags;
  // The first index access starts from the root.
  item->LastIdxOff = 0;
  item->LastIdxBase = 0;
  return handle;
}

void sfl_CloseIntItem(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_CloseIntItem");
  // A handle whose file closed under it can only be given back: nothing of
  // the file is its own any more, so nothing is flushed.
  sfl_ItemRec* dead = sfl_OpenItems().Lookup(itemHandle);
  if (!sfl_ItemFileLive(dead)) {
    sfl_DeleteOSerItem(dead);
    return;
  }
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if (item->OpenRefs > 1) {
    --item->OpenRefs;
    return;
  }
  // A flush that fails leaves the handle open, to be closed again.
  sfl_ConsiderSync(item->BaseRecord, item, SFL_EV_CLOSE);
  item->OpenRefs = 0;
  sfl_DeleteOSerItem(item);
}

void sfl_RemoveIntItem(int32_t itemHandle) {
  ER_TRACE_PROC("sfl_RemoveIntItem");
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  if (item->OpenRefs != 1) SFL_RAISE(SFL_R_INT_OPEN_TWICE);
  sfl_BaseRec* rec = item->BaseRecord;

  sfl_ItemHeader header;
  {
    sfl_Held lock;
    lock.ItemHeader(item, SFL_LOCK_EXCL);
    sfl_ReadInternalItemH(item, item->HeaderOff, &header);
    CheckIntHeader(rec, header);  // before anything is wiped or released
    sfl_WriteInternalItemH(item, item->HeaderOff, sfl_ItemHeader{});  // 64 zero bytes
    sfl_ConsiderSync(rec, item, SFL_EV_INT_REMOVED);
  }
  // The parent's owner decides what becomes of the bytes that held the
  // header; only the item's own space is given back here.
  if ((header.Flags & BLOCKED_ITEM) != 0)
    sfl_DeleteIndexTree(item, header);
  else
    sfl_FreeFreeBlocks(rec, header.FileOffset, header.UsedBlocks);
}
