// ext_: bit sets over byte arrays (bit n is bit n % 8 of byte n / 8, least
// significant bit first). Pure computation on the caller's memory.
#ifndef KQ_EXT_H
#define KQ_EXT_H

#include <cstdint>

// Lowest start of a run of `count` bits all equal to `value` within the
// first `lenBytes` bytes of `map`; -1 when there is none (or count is 0).
int64_t ext_FindBits(const uint8_t* map, uint32_t lenBytes, uint32_t count, int value);
// Sets `count` bits from `first` to `value`; bits beyond the map are ignored.
void ext_SetBits(uint8_t* map, uint32_t lenBytes, uint32_t first, uint32_t count, int value);
// Whether all `count` bits from `first` equal `value` (false if any lies
// beyond the map).
bool ext_CheckBits(const uint8_t* map, uint32_t lenBytes, uint32_t first, uint32_t count, int value);

#endif  // KQ_EXT_H
