// date_: formatting of the 32-bit times stored in container headers.
#ifndef KQ_DATE_H
#define KQ_DATE_H

#include <cstddef>
#include <cstdint>

// The longest text date_FormatDateAndTime produces for a separator of
// `separatorLength` characters, without the terminating zero.
constexpr size_t date_TextLength(size_t separatorLength) { return 10 + separatorLength + 8; }

// Writes `seconds` (since 1970-01-01 UTC, the unsigned 32-bit count a header
// holds, so up to 2106) as "YYYY-MM-DD<separator>HH:MM:SS" in UTC into `out`,
// which holds `outLen` bytes; a null separator counts as empty. Like
// snprintf, the text is cut to fit and always zero-terminated when outLen is
// not 0, and the result is the length of the whole text.
size_t date_FormatDateAndTime(uint32_t seconds, const char* separator, char* out, size_t outLen);

#endif  // KQ_DATE_H
