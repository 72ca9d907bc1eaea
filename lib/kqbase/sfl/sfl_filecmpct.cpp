// Whole-file compaction: the decision at close and the rebuild.
//
// Whole-file compaction is not built. The analysis never asks for it, and a
// rebuild asked for anyway (a header carrying NEED_COMPACTION) is abandoned
// with a log line: the file is kept as it is and goes on to the cold store.
#include "sfl_int.h"

uint32_t sfl_AnalyseFreeMap(sfl_BaseRec* rec) { return 0; }

uint32_t sfl_CompactSflFile(sfl_BaseRec* rec) {
  ER_LOG(5, ER_GROUP_SFL, SFL_R_NOT_BUILT,
         "whole-file compaction is not built; file %u kept as it is", rec->FileId);
  return 1;
}
