// os_: the one layer through which every operating-system call passes.
//
// The wrappers return what the system call returns (-1 with errno set on
// failure) unless said otherwise; callers decide which failures become
// escapes. Every descriptor and stream is opened close-on-exec.
//
// Test switch: os_FailNth makes the Nth call of one kind from now fail with a
// chosen errno; os_ShortNth makes it transfer fewer bytes. Counters of calls
// by kind let tests count, for instance, the flushes a sequence performed.
// The hold switch stops a process before its Nth call until a watcher lets
// it go, and tells the watcher when the process is about to wait on a lock,
// so that a test can run another process in between.
#ifndef KQ_OS_H
#define KQ_OS_H

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>

enum class os_Op : int {
  Open, Close, Read, Write, Pread, Pwrite, Lseek, Fstat, Stat, Fdatasync, Fsync, Ftruncate,
  Lock, Flock, Rename, Unlink, Link, Mkdir, Rmdir, Malloc,
  Fopen, Fclose, Fread, Fwrite, Fseek, Ftell, Fgets, Fflush,
  Msgget, Msgsnd, Msgrcv, Msgctl, Mmap, Munmap, Kill, Fork,
  Chown, Sleep,
  Count_
};
constexpr int os_OpCount = static_cast<int>(os_Op::Count_);
const char* os_OpName(os_Op op);

// ---- test switch -------------------------------------------------------
// The nth call (1 = the very next one) of `op` fails with `err`, transferring
// nothing, and so do the `times` - 1 calls of that kind after it. Only one
// pending fault per kind; a new one replaces the old.
void os_FailNth(os_Op op, unsigned nth, int err, unsigned times = 1);
// The nth call of `op` transfers at most `maxBytes` (read, write, pread,
// pwrite, fread, fwrite, msgsnd).
void os_ShortNth(os_Op op, unsigned nth, size_t maxBytes);
// The nth call of any kind from now (1 = the very next one) fails with `err`.
void os_FailNthCall(uint64_t nth, int err);
// The nth transfer from now (read, write, pread, pwrite, fread, fwrite)
// moves only len / divisor bytes.
void os_ShortNthTransfer(uint64_t nth, size_t divisor);
// Whether the fault set by one of the two above has been met.
bool os_FaultMet();
// The kind of call that met it ("none" when not met).
const char* os_FaultMetKind();
// Calls of every kind, and transfers, since the process started.
uint64_t os_TotalCalls();
uint64_t os_TransferCalls();
// Clears every pending fault, of one kind or of any.
void os_ClearFaults();
uint64_t os_CallCount(os_Op op);
void os_ResetCallCounts();
// While on, os_usleep counts its calls and adds up the time asked for but
// returns at once, so retry loops with long pauses can be tested quickly.
void os_SkipSleeps(bool on);
// Microseconds asked of os_usleep since the last os_ResetCallCounts.
uint64_t os_SleepAsked();

// ---- hold switch ---------------------------------------------------------
// The nth call of any kind from now (1 = the very next one, counted as
// os_FailNthCall counts) holds the process before it is made: one byte 'H'
// goes to `tellFd`, then the process waits for one byte from `releaseFd`
// (end of file releases it too) and makes the call. Neither transfer is
// counted or subject to a fault. A new hold replaces a pending one; nth 0
// cancels it.
void os_HoldNthCall(uint64_t nth, int tellFd, int releaseFd);
// Whether the hold has been met, and the kind of call it held ("none").
bool os_HoldMet();
const char* os_HoldMetKind();
// While `tellFd` >= 0, a process about to wait tells it first: a lock call
// that waits (os_TryLockPart in mode 1 or 2, os_flock without LOCK_NB) first
// tries without waiting and, when refused, writes 'W' before it waits;
// os_usleep writes 'S' before it sleeps. -1 turns it off.
void os_TellWaits(int tellFd);

// ---- power-cut switch ------------------------------------------------------
// Armed, os_ keeps a journal of every write and truncation of a regular file
// under `root` since that file's last flush (os_fdatasync, os_fsync), and of
// every entry created, removed or renamed under `root` since its directory's
// last flush (os_FsyncDir, or os_fsync of the directory). At the cut point
// it leaves the files as a power cut could and ends the process with
// OS_POWER_CUT_EXIT: every flushed change kept; each unflushed write kept,
// dropped or torn at 512-byte sectors (a sector not kept past the old end
// reading as zeros, as on file systems that never show a file stale disk
// blocks), each unflushed truncation kept or dropped; then
// unflushed entry changes undone in any combination. `seed` draws the
// combination: 0 drops every unflushed change, 1 keeps them all. A name
// removed is first linked into `stashDir` (same file system, outside
// `root`) so that undoing the removal can bring it back. A forked child
// starts disarmed.
enum { OS_POWER_CUT_EXIT = 86 };
void os_PowerCutArm(const char* root, const char* stashDir, uint64_t seed);
void os_PowerCutDisarm();
// The cut comes at the nth flush of a file or directory under the root from
// now (the flush is not made), or before the nth call of any kind.
void os_PowerCutAtFlush(uint64_t nth);
void os_PowerCutAtCall(uint64_t nth);
// A sector not kept past the old end may hold garbage instead (what a file
// system that shows stale disk blocks leaves).
void os_PowerCutGarbage(bool on);
// The part of a torn write's sector at or past `offset` that the draw does
// not keep may hold garbage instead of its old bytes (a drive that was
// writing it when the power went); 0 turns this off. Before the offset a
// sector not kept keeps its old bytes.
void os_PowerCutGarbageFrom(uint64_t offset);
// The nth flush under the root from now is not made, though it reports
// success: a flush left out, to show what losing it costs.
void os_PowerCutSkipFlush(uint64_t nth);
// Flushes under the root since armed, and unflushed changes now.
uint64_t os_PowerCutFlushes();
size_t os_PowerCutUnflushed();
// Cuts the power here.
[[noreturn]] void os_PowerCutNow();

// ---- descriptors -------------------------------------------------------
int os_open(const char* path, int flags, mode_t mode = 0);
int os_close(int fd);
ssize_t os_read(int fd, void* buf, size_t len);
ssize_t os_write(int fd, const void* buf, size_t len);
ssize_t os_pread(int fd, void* buf, size_t len, off_t off);
ssize_t os_pwrite(int fd, const void* buf, size_t len, off_t off);
off_t os_lseek(int fd, off_t off, int whence);
int os_fstat(int fd, struct stat* st);
int os_stat(const char* path, struct stat* st);
// statfs(2): what file system holds `path`; counted as Stat.
int os_statfs(const char* path, struct statfs* fs);
int os_fdatasync(int fd);
int os_fsync(int fd);
int os_ftruncate(int fd, off_t len);
// Flushes a directory, so that the entries created, removed or renamed in it
// survive a power cut (counted as an open, an fsync and a close).
int os_FsyncDir(const char* dir);
// Sets a file's permission bits exactly (the process umask does not apply).
int os_fchmod(int fd, mode_t mode);
int os_rename(const char* from, const char* to);
// The same, but fails with EEXIST instead of replacing an existing `to`
// (counted and failed as "rename").
int os_RenameNoReplace(const char* from, const char* to);
int os_unlink(const char* path);
int os_link(const char* from, const char* to);
int os_mkdir(const char* path, mode_t mode);
int os_rmdir(const char* path);
int os_chown(const char* path, uid_t uid, gid_t gid);
// The same through a descriptor: the file changed is the one opened, never
// what a name leads to by then (counted and failed as "chown").
int os_fchown(int fd, uid_t uid, gid_t gid);

// ---- accounts ------------------------------------------------------------
// Looks up a user by name. Returns 0 and fills uid and gid, or -1 when the
// user is unknown or the lookup failed.
int os_GetUserIds(const char* user, uid_t* uid, gid_t* gid);

// ---- locks ---------------------------------------------------------------
// Record locks over a byte range. Modes: 1 shared, 2 exclusive, 8 release;
// add OS_LOCK_NOWAIT to a mode of 1 or 2 to try once instead of waiting.
//
// Open-file-description locks (F_OFD_SETLKW / F_OFD_SETLK) are used rather
// than classic POSIX record locks: a classic lock belongs to the process and
// is silently dropped when the process closes *any* descriptor of the same
// file. The library opens a container more than once (a stream over an item,
// a compaction or check descriptor), so closing one of those would release
// every header and item lock held through the main descriptor. An OFD lock
// belongs to the open file description and goes only when that description's
// last descriptor closes — which also means a forked child closing what it
// inherited cannot release its parent's locks.
//
// Returns 1 when the lock is held (or the release succeeded), 0 when it was
// refused because another holder conflicts. Any other failure raises an
// escape in group 2 with the errno as reason. Modes 1 and 2 wait until
// granted (retrying on EINTR).
enum { OS_LOCK_SHARED = 1, OS_LOCK_EXCL = 2, OS_LOCK_RELEASE = 8, OS_LOCK_NOWAIT = 0x100 };
int os_TryLockPart(int fd, int mode, int whence, uint32_t offLow, uint32_t offHigh, uint32_t lenLow,
                   uint32_t lenHigh);
// Whole-file lock (flock(2) semantics: LOCK_SH, LOCK_EX, LOCK_UN, | LOCK_NB).
int os_flock(int fd, int op);

// ---- memory --------------------------------------------------------------
void* os_malloc(size_t n);
void* os_calloc(size_t n, size_t size);
void* os_realloc(void* p, size_t n);
void os_free(void* p);
void* os_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off);
int os_munmap(void* addr, size_t len);

// ---- stdio streams ---------------------------------------------------------
FILE* os_fopen(const char* path, const char* mode);
int os_fclose(FILE* f);
size_t os_fread(void* buf, size_t size, size_t count, FILE* f);
size_t os_fwrite(const void* buf, size_t size, size_t count, FILE* f);
int os_fseek(FILE* f, long off, int whence);
long os_ftell(FILE* f);
char* os_fgets(char* buf, int len, FILE* f);
int os_fflush(FILE* f);
int os_fileno(FILE* f);

// ---- System V message queues ---------------------------------------------
// Messages cross this interface in the wire layout: a 32-bit little-endian
// message type followed by `textLen` bytes of text. The wrappers convert to
// and from the kernel's layout (whose type is a native long).
int os_msgget(key_t key, int flags);
int os_msgsnd(int qid, const void* msg, size_t textLen, int flags);
// Returns the text length received. A failure raises an escape in group 2
// with the errno as reason (ENOMSG for an empty queue with IPC_NOWAIT).
ssize_t os_msgrcv(int qid, void* msg, size_t textLen, long type, int flags);
// The same, except that a signal whose handler has set `*stop` ends the
// wait: -1 with errno EINTR. A serving loop that must act on a stop signal
// at once, and not at whatever next wakes it.
ssize_t os_msgrcvUnless(int qid, void* msg, size_t textLen, long type, int flags,
                        const volatile std::sig_atomic_t* stop);
int os_msgctl(int qid, int cmd, void* buf);

// ---- processes -------------------------------------------------------------
// The calling process's id. Asked of the system once per process: an at-fork
// handler forgets it in a forked child, which then asks again.
pid_t os_getpid();
uid_t os_getuid();
// Sleeps for the given time, resuming after signals. Returns 0.
int os_usleep(uint64_t microseconds);
int os_kill(pid_t pid, int sig);
pid_t os_fork();
// Ends this process at once, as _exit does: no atexit handlers, no stream
// flushes. What a forked child ends with. In a coverage build it first
// writes the process's coverage counts (os_FlushCoverage), which _exit
// would lose.
[[noreturn]] void os_ExitNow(int code);
// In a coverage build, writes the counts gathered so far and starts
// counting afresh (a process about to exec or to _exit loses them
// otherwise); elsewhere nothing.
void os_FlushCoverage();
pid_t os_waitpid(pid_t pid, int* status, int options);
pid_t os_setsid();
// The target descriptor stays open across exec: this is how a starting
// service puts its standard input, output and error in place.
int os_dup2(int from, int to);

// ---- bounded receives, randomness, names relative to a directory ----------
// Receives as os_msgrcv without IPC_NOWAIT, but waits at most `timeoutUs`:
// returns -1 (errno EAGAIN) when no message of the type came in that time.
// One call for the fault switch whatever the number of polls; failures
// other than the time running out raise as os_msgrcv does.
ssize_t os_msgrcvWithin(int qid, void* msg, size_t textLen, long type, uint64_t timeoutUs);
// Fills `buf` with `len` bytes from the kernel's random source. 0 or -1.
int os_RandomBytes(void* buf, size_t len);
// openat(2) and fstatat(2), retried on EINTR; counted as Open and Stat.
int os_openat(int dirFd, const char* name, int flags, mode_t mode = 0);
int os_fstatat(int dirFd, const char* name, struct stat* st, int flags);
// openat2(2) of `path` relative to `dirFd`, refusing (ELOOP) a symbolic
// link in any of its components and any way out of `dirFd` (EXDEV): a walk
// of the whole path in one call. -1 with errno; ENOSYS where the kernel or
// a filter has no openat2. Counted as Open.
int os_openBeneath(int dirFd, const char* path, int flags);
// The effective user id, and whether `gid` is this process's effective
// group or one of its supplementary groups.
uid_t os_geteuid();
bool os_InGroup(gid_t gid);

#endif  // KQ_OS_H
