// Coding of the on-disk records: the neutral little-endian helpers (le.h)
// under the names the record code uses. Records are always encoded and
// decoded field by field at their fixed offsets; raw file bytes are never
// reinterpreted as structs.
#ifndef SFL_CODING_H
#define SFL_CODING_H

#include "le.h"

inline constexpr auto& sfl_PutU16 = le_PutU16;
inline constexpr auto& sfl_PutU32 = le_PutU32;
inline constexpr auto& sfl_GetU16 = le_GetU16;
inline constexpr auto& sfl_GetU32 = le_GetU32;

#endif  // SFL_CODING_H
