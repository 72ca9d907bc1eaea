// ext_: bit sets over byte arrays (bit n is bit n % 8 of byte n / 8, least
// significant bit first), and the hand-over of a new file to the service
// account.
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
// Gives the file to the service account "SFL_SERVICE_USER" names: a user
// name (the file also gets that user's group) or a decimal uid (the group is
// left as it is). Does nothing and returns 0 when the key is absent or empty.
// Returns -1 when the account is unknown or the change of owner is refused
// (a process may not give a file to another user without the privilege).
int ext_ChownToVessant(const char* path);

#endif  // KQ_EXT_H
