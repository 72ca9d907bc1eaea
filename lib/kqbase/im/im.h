// im_: item references to paths and descriptors under the store root.
// The store root is "SFL_STORE_ROOT" (default: ./sfl-store under the current
// directory). An item's name is its container's path, ":" and the item number.
#ifndef KQ_IM_H
#define KQ_IM_H

#include <cstddef>
#include <cstdint>

#include "sfl.h"  // sfl_ItemRef and the exported name conversions

// Creates a new, uniquely named data item (type 2) or temporary item
// (type 4) file with permissions 0660; fills its reference and returns an
// open read-write descriptor. Race-free across processes.
int im_GetNewDataItem(sfl_ItemRef* out);
int im_CrNewTempItem(sfl_ItemRef* out);
// Opens the file a reference names (item-number bits ignored) read-write;
// raises an escape when it cannot.
int im_OpenItem(const sfl_ItemRef* ref);
// Removes the file a reference names; raises an escape on failure.
void im_UnlinkItem(const sfl_ItemRef* ref);
// Writes the container file's path into `out` and returns the reference's
// item number (Flags & 7).
int32_t im_GetRealFileName(const sfl_ItemRef* ref, char* out, size_t outLen);
// Fallbacks used when a container is full: they place the item in a new
// container and return its open item handle.
int32_t im_CopyItem2SflDataItem(sfl_ItemRef* out, uint32_t size, uint32_t noZeroFill,
                                const sfl_ItemRef* source, int32_t passOn);
int32_t im_GetNewSflItem(sfl_ItemRef* out, int32_t passOn1, uint32_t size, int32_t type,
                         int32_t passOn2, uint32_t noZeroFill, const sfl_ItemRef* source);

#endif  // KQ_IM_H
