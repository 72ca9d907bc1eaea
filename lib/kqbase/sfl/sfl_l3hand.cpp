// The per-process stream table: records behind stream handles (9000 + index,
// at most 16). The table is the same sfl_HandleTable the open-files and
// open-items tables use; this file only names it and its three routines.
#include "sfl_int.h"

sfl_StreamsTable& sfl_Streams() {
  static sfl_StreamsTable table;
  return table;
}

// First free record from index 0 upward (records allocated zeroed as the
// scan reaches them); a full table raises 28888 in group 3.
sfl_StreamRec* sfl_GetNewL3Entry(int32_t* streamHandle) {
  return sfl_Streams().Take(streamHandle, SFL_R_STREAMS_FULL);
}

// Accepts 9000 up to 9000 + high-water mark inclusive: the slot one past the
// mark passes the range check and is then refused as not in use (28867).
sfl_StreamRec* sfl_L3Handle2Record(int32_t streamHandle) {
  return sfl_Streams().Lookup(streamHandle);
}

// Null is ignored; a free record raises 28867; otherwise the record is
// cleared whole and the in-use count falls.
void sfl_DeleteOL3Item(sfl_StreamRec* rec) { sfl_Streams().Release(rec); }

// Prints the entry number of every stream record in use, up to the
// high-water mark, on standard output; returns the mark. The number printed
// is counted from 8000, so it is 1,000 below the stream's handle: the dump
// has always numbered streams that way and readers of old output rely on it.
int32_t sfl_DumpOpenL3Items(void) {
  const sfl_StreamsTable& table = sfl_Streams();
  for (size_t i = 0; i < table.HighWater() && i < table.Allocated(); ++i) {
    if (table.At(i)->InUse != 1) continue;
    std::fprintf(stdout, "Entry Number: %5d------------------------------\n",
                 SFL_ITEM_HANDLE_FIRST + static_cast<int>(i));
  }
  return static_cast<int32_t>(table.HighWater());
}
