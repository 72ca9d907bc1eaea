// The power-cut switch's hooks into the wrappers (os.cpp). Private to os_:
// the switch itself is declared in os.h.
#ifndef KQ_OS_POWERCUT_H
#define KQ_OS_POWERCUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>

// Whether the switch is armed: every hook below returns at once otherwise.
extern bool os_pcArmed;

// Before any call: cuts the power when the call-count point is reached.
void os_PcBeforeCall();
// Around a write of `len` bytes at `off` (-1: the descriptor's position):
// Before keeps the bytes the write will cover, After what it wrote.
void os_PcBeforeWrite(int fd, off_t off, size_t len);
void os_PcAfterWrite(ssize_t written);
void os_PcBeforeTruncate(int fd, off_t len);
// A flush about to be made: returns true when it is to be skipped (the
// switch pretends it was made); cuts the power when it is the chosen one.
bool os_PcBeforeFlush(int fd);
// After the real call succeeded.
void os_PcFlushed(int fd);
void os_PcClosed(int fd);
// Directory changes, noted before the call (so that what a name held can
// be kept aside) and confirmed after it.
void os_PcBeforeCreate(const char* path, int flags);
void os_PcAfterCreate(bool made);
void os_PcBeforeRemove(const char* path, bool isDir);
void os_PcAfterRemove(bool done);
void os_PcBeforeRename(const char* from, const char* to);
void os_PcAfterRename(bool done);
void os_PcMadeDir(const char* path, bool made);
// A stream write: the bytes go to the kernel at once while armed, so that
// what the journal holds is what the file holds.
void os_PcStreamWritten(FILE* f, long before, size_t bytes);
// A forked child starts disarmed.
void os_PcForget();

#endif  // KQ_OS_POWERCUT_H
