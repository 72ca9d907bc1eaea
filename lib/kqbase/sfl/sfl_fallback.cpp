// Placement fallbacks: when a container has no free item slot, the item is
// stored in a container of its own, newly created for it. The caller gets
// the new item open, with its reference filled in; closing that item also
// closes the new container. They keep the item-reference library's names
// its callers know, but they create and fill a container, so they sit here
// with the library rather than beneath it.
#include "sfl_int.h"

namespace {

int32_t StoreInNewContainer(int32_t type, sfl_ItemRef* out, uint32_t size, uint32_t noZeroFill,
                            const sfl_ItemRef* source) {
  int32_t baseHandle = sfl_CreateSfl(0, type, 0);
  int32_t itemHandle = -1;
  try {
    itemHandle = sfl_StoreBasicItem(baseHandle, source, size, out, noZeroFill);
    if (itemHandle == -1) {
      // Not expected in a container nobody else knows of; report "not
      // placed" as a full container would. The empty file goes at close.
      sfl_CloseFile(baseHandle);
      return -1;
    }
    // The container goes with its item: the item's last close closes it.
    sfl_AssociateItemWithBase(itemHandle);
  } catch (const er_Escape&) {
    er_StatusKeeper keep;
    try {
      if (itemHandle != -1) sfl_CloseItem(itemHandle);
    } catch (const er_Escape&) {
      er_Accept(5);
    }
    // A close that escapes leaves the file open, to be closed again; only
    // this call knows the new container, so it tries once more rather than
    // leave its record, descriptor and file behind.
    try {
      er_Retry(2, [&] { sfl_CloseFile(baseHandle); });
    } catch (const er_Escape&) {
      er_Accept(5);
    }
    throw;
  }
  return itemHandle;
}

}  // namespace

// `passOn` is the caller's placement hint; a new container needs none.
int32_t im_CopyItem2SflDataItem(sfl_ItemRef* out, uint32_t size, uint32_t noZeroFill,
                                const sfl_ItemRef* source, int32_t /*passOn*/) {
  return StoreInNewContainer(SFL_TYPE_DATA_ITEM, out, size, noZeroFill, source);
}

// `passOn1` and `passOn2` are the caller's placement hints; `type` is the
// kind of container to create (2 for a data item).
int32_t im_GetNewSflItem(sfl_ItemRef* out, int32_t /*passOn1*/, uint32_t size, int32_t type,
                         int32_t /*passOn2*/, uint32_t noZeroFill, const sfl_ItemRef* source) {
  return StoreInNewContainer(type, out, size, noZeroFill, source);
}
