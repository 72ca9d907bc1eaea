// mes_: the message library. Every message the libraries show to an
// operator has a number within an error group and a text kept here: the
// reason texts of escapes, and the numbered findings of whole-file
// maintenance (group 204), whose texts are printf formats filled with the
// finding's arguments by the code that reports it.
//
// The library stands alone: it knows groups and numbers, not the code that
// raises or prints them.
#ifndef KQ_MES_H
#define KQ_MES_H

#include <cstddef>

// The group of whole-file maintenance findings.
constexpr int MES_GROUP_MAINT = 204;

// The text of a message, or null when the library has none for it.
const char* mes_Text(int group, int number);

// Writes the prefix of a message ("SFL-<group>-<number>:") into `out`
// (at most outLen bytes, always terminated). Returns the prefix's length,
// or -1 when it did not fit (out then holds what fitted).
int mes_GetErrMsgPrefix(int group, int number, char* out, size_t outLen);

// Writes the text of a message into `out` (at most outLen bytes, always
// terminated). A message without a text gets "no text for message
// <group>/<number>". Returns 0 when the text is the message's own, 1 when it
// is that stand-in, -1 when it did not fit.
int mes_GetAnyErMsg(int group, int number, char* out, size_t outLen);

#endif  // KQ_MES_H
