// Shutting an idle container's descriptor and reopening it on demand, and
// the activation marks of item handles that decide when a file may be shut.
#include "im.h"
#include "os.h"
#include "sfl_int.h"

void sfl_ShutDownBaseFile(int32_t baseHandle) {
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  if (rec->FileDes >= 0) os_close(rec->FileDes);
  rec->FileDes = -1;
}

void sfl_PtrEnsureBaseFileOpen(sfl_BaseRec* rec) {
  if (rec->FileDes != -1) return;
  sfl_ItemRef ref = sfl_RefOf(*rec);
  rec->FileDes = im_OpenItem(&ref);  // raises when the file cannot be opened
}

void sfl_EnsureBaseFileOpen(int32_t baseHandle) {
  sfl_PtrEnsureBaseFileOpen(sfl_Handle2Record(baseHandle));
}

// The table lookup is used rather than sfl_ItemHandle2Record, which would
// reopen the file on the way.
void sfl_Activate(int32_t itemHandle) {
  sfl_ItemRec* item = sfl_OpenItems().Lookup(itemHandle);
  if (item->Flags & INT_ITEM) SFL_RAISE(SFL_R_ACTIVATE_INT);
  item->Deactivated = 0;
  sfl_PtrEnsureBaseFileOpen(item->BaseRecord);
}

void sfl_DeActivate(int32_t itemHandle) {
  sfl_ItemRec* item = sfl_OpenItems().Lookup(itemHandle);
  if (item->Flags & INT_ITEM) SFL_RAISE(SFL_R_ACTIVATE_INT);
  item->Deactivated = 1;
  if (!sfl_FindFellowActiveItems(item->BaseHandle)) sfl_ShutDownBaseFile(item->BaseHandle);
}
