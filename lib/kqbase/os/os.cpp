// os_: thin wrappers over the system calls, with the test switch and counters.
#include "os.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <string>
#include <time.h>
#include <vector>
#include <sys/file.h>
#include <sys/mman.h>
#include <pthread.h>
#include <sys/msg.h>
#include <sched.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include "er.h"
#include "os_powercut.h"

namespace {

struct Fault {
  unsigned countdown = 0;  // 0: no fault pending
  bool fail = false;
  int err = 0;
  size_t maxBytes = 0;
  unsigned times = 1;  // calls in a row that fail, from the nth on
};

std::array<uint64_t, os_OpCount> g_counts{};
std::array<Fault, os_OpCount> g_faults{};

// The fault of the next calls of any kind (os_FailNthCall, os_ShortNthTransfer).
struct AnyFault {
  uint64_t countdown = 0;  // 0: none pending
  bool shortOnly = false;  // counts transfers only, and shortens the one it meets
  int err = 0;
  size_t divisor = 2;      // a short transfer moves len / divisor bytes
  bool met = false;
  os_Op metKind = os_Op::Count_;
};
AnyFault g_any;
uint64_t g_total = 0;
uint64_t g_transfers = 0;

// The hold of the nth call (os_HoldNthCall) and where waits are told.
struct Hold {
  uint64_t countdown = 0;  // 0: none pending
  int tellFd = -1;
  int releaseFd = -1;
  bool met = false;
  os_Op metKind = os_Op::Count_;
};
Hold g_hold;
int g_tellWaits = -1;

// Raw transfers of one byte for the switch: never counted, never faulted,
// and a failure changes nothing the held call will see.
void tellByte(int fd, char c) {
  const int saved = errno;
  while (::write(fd, &c, 1) < 0 && errno == EINTR) {
  }
  errno = saved;
}

void holdHere(os_Op op) {
  g_hold.met = true;
  g_hold.metKind = op;
  const int saved = errno;
  tellByte(g_hold.tellFd, 'H');
  char c;
  while (::read(g_hold.releaseFd, &c, 1) < 0 && errno == EINTR) {
  }
  errno = saved;
}

// The fault of any kind, if this call is the one it waits for.
int enterAny(os_Op op, size_t* maxBytes, size_t len) {
  ++g_total;
  if (os_pcArmed) os_PcBeforeCall();
  if (g_hold.countdown != 0 && --g_hold.countdown == 0) holdHere(op);
  if (maxBytes != nullptr) ++g_transfers;
  if (g_any.countdown == 0) return 0;
  if (g_any.shortOnly && maxBytes == nullptr) return 0;
  if (--g_any.countdown != 0) return 0;
  g_any.met = true;
  g_any.metKind = op;
  if (!g_any.shortOnly) {
    errno = g_any.err;
    return 1;
  }
  *maxBytes = len / g_any.divisor;
  return 2;
}

// Counts the call and reports whether this call is the one to fail or to
// come up short. Returns 0 for a normal call, 1 for a failure (errno set),
// 2 for a short transfer (limit in *maxBytes). `len` is a transfer's length.
int enter(os_Op op, size_t* maxBytes = nullptr, size_t len = 0) {
  int i = static_cast<int>(op);
  ++g_counts[i];
  // A message is sent whole or not at all: only a failure applies to it.
  if (int any = enterAny(op, op == os_Op::Msgsnd ? nullptr : maxBytes, len); any != 0) return any;
  Fault& f = g_faults[i];
  if (f.countdown == 0) return 0;
  if (--f.countdown != 0) return 0;
  if (f.fail) {
    errno = f.err;
    if (--f.times > 0) f.countdown = 1;  // the next call fails too
    return 1;
  }
  if (maxBytes != nullptr) {
    *maxBytes = f.maxBytes;
    return 2;
  }
  return 0;
}

size_t limit(int verdict, size_t maxBytes, size_t len) {
  return verdict == 2 && maxBytes < len ? maxBytes : len;
}

}  // namespace

const char* os_OpName(os_Op op) {
  static const char* const names[] = {
      "open", "close", "read", "write", "pread", "pwrite", "lseek", "fstat", "stat",
      "fdatasync", "fsync", "ftruncate", "lock", "flock", "rename", "unlink", "link", "mkdir",
      "rmdir", "malloc", "fopen", "fclose", "fread", "fwrite", "fseek", "ftell", "fgets",
      "fflush", "msgget", "msgsnd", "msgrcv", "msgctl", "mmap", "munmap", "kill", "fork",
      "chown", "sleep"};
  static_assert(sizeof names / sizeof names[0] == os_OpCount);
  return names[static_cast<int>(op)];
}

void os_FailNth(os_Op op, unsigned nth, int err, unsigned times) {
  g_faults[static_cast<int>(op)] = Fault{nth, true, err, 0, times < 1 ? 1 : times};
}

void os_ShortNth(os_Op op, unsigned nth, size_t maxBytes) {
  g_faults[static_cast<int>(op)] = Fault{nth, false, 0, maxBytes, 1};
}

void os_ClearFaults() {
  g_faults = {};
  g_any = {};
}

void os_FailNthCall(uint64_t nth, int err) {
  g_any = AnyFault{};
  g_any.countdown = nth;
  g_any.err = err;
}

void os_ShortNthTransfer(uint64_t nth, size_t divisor) {
  g_any = AnyFault{};
  g_any.countdown = nth;
  g_any.shortOnly = true;
  g_any.divisor = divisor < 2 ? 2 : divisor;
}

bool os_FaultMet() { return g_any.met; }

void os_HoldNthCall(uint64_t nth, int tellFd, int releaseFd) { g_hold = Hold{nth, tellFd, releaseFd}; }

bool os_HoldMet() { return g_hold.met; }

const char* os_HoldMetKind() { return g_hold.met ? os_OpName(g_hold.metKind) : "none"; }

void os_TellWaits(int tellFd) { g_tellWaits = tellFd; }

const char* os_FaultMetKind() { return g_any.met ? os_OpName(g_any.metKind) : "none"; }

uint64_t os_TotalCalls() { return g_total; }

uint64_t os_TransferCalls() { return g_transfers; }

uint64_t os_CallCount(os_Op op) { return g_counts[static_cast<int>(op)]; }

namespace {
bool g_skipSleeps = false;
uint64_t g_sleepAsked = 0;
}  // namespace

void os_ResetCallCounts() {
  g_counts = {};
  g_sleepAsked = 0;
}

void os_SkipSleeps(bool on) { g_skipSleeps = on; }

uint64_t os_SleepAsked() { return g_sleepAsked; }

// ---- descriptors -------------------------------------------------------

int os_open(const char* path, int flags, mode_t mode) {
  if (enter(os_Op::Open)) return -1;
  if (os_pcArmed) os_PcBeforeCreate(path, flags);
  int fd;
  do fd = ::open(path, flags | O_CLOEXEC, mode);
  while (fd < 0 && errno == EINTR);
  if (os_pcArmed) os_PcAfterCreate(fd >= 0);
  return fd;
}

int os_close(int fd) {
  if (os_pcArmed) os_PcClosed(fd);
  if (enter(os_Op::Close)) {
    // A close that fails still releases the descriptor, as close(2) does.
    const int err = errno;
    ::close(fd);
    errno = err;
    return -1;
  }
  return ::close(fd);
}

ssize_t os_read(int fd, void* buf, size_t len) {
  size_t maxBytes = 0;
  int v = enter(os_Op::Read, &maxBytes, len);
  if (v == 1) return -1;
  ssize_t n;
  do n = ::read(fd, buf, limit(v, maxBytes, len));
  while (n < 0 && errno == EINTR);
  return n;
}

ssize_t os_write(int fd, const void* buf, size_t len) {
  size_t maxBytes = 0;
  int v = enter(os_Op::Write, &maxBytes, len);
  if (v == 1) return -1;
  if (os_pcArmed) os_PcBeforeWrite(fd, -1, limit(v, maxBytes, len));
  ssize_t n;
  do n = ::write(fd, buf, limit(v, maxBytes, len));
  while (n < 0 && errno == EINTR);
  if (os_pcArmed) os_PcAfterWrite(n);
  return n;
}

ssize_t os_pread(int fd, void* buf, size_t len, off_t off) {
  size_t maxBytes = 0;
  int v = enter(os_Op::Pread, &maxBytes, len);
  if (v == 1) return -1;
  ssize_t n;
  do n = ::pread(fd, buf, limit(v, maxBytes, len), off);
  while (n < 0 && errno == EINTR);
  return n;
}

ssize_t os_pwrite(int fd, const void* buf, size_t len, off_t off) {
  size_t maxBytes = 0;
  int v = enter(os_Op::Pwrite, &maxBytes, len);
  if (v == 1) return -1;
  if (os_pcArmed) os_PcBeforeWrite(fd, off, limit(v, maxBytes, len));
  ssize_t n;
  do n = ::pwrite(fd, buf, limit(v, maxBytes, len), off);
  while (n < 0 && errno == EINTR);
  if (os_pcArmed) os_PcAfterWrite(n);
  return n;
}

off_t os_lseek(int fd, off_t off, int whence) {
  if (enter(os_Op::Lseek)) return -1;
  return ::lseek(fd, off, whence);
}

int os_fstat(int fd, struct stat* st) {
  if (enter(os_Op::Fstat)) return -1;
  return ::fstat(fd, st);
}

int os_stat(const char* path, struct stat* st) {
  if (enter(os_Op::Stat)) return -1;
  return ::stat(path, st);
}

int os_statfs(const char* path, struct statfs* fs) {
  if (enter(os_Op::Stat)) return -1;
  return ::statfs(path, fs);
}

int os_fdatasync(int fd) {
  if (enter(os_Op::Fdatasync)) return -1;
  if (os_pcArmed && os_PcBeforeFlush(fd)) return 0;
  const int rc = ::fdatasync(fd);
  if (os_pcArmed && rc == 0) os_PcFlushed(fd);
  return rc;
}

int os_fsync(int fd) {
  if (enter(os_Op::Fsync)) return -1;
  if (os_pcArmed && os_PcBeforeFlush(fd)) return 0;
  const int rc = ::fsync(fd);
  if (os_pcArmed && rc == 0) os_PcFlushed(fd);
  return rc;
}

int os_FsyncDir(const char* dir) {
  const int fd = os_open(dir, O_RDONLY | O_DIRECTORY);
  if (fd < 0) return -1;
  const int rc = os_fsync(fd);
  const int err = errno;
  os_close(fd);
  errno = err;
  return rc;
}

int os_ftruncate(int fd, off_t len) {
  if (enter(os_Op::Ftruncate)) return -1;
  if (os_pcArmed) os_PcBeforeTruncate(fd, len);
  return ::ftruncate(fd, len);
}

int os_fchmod(int fd, mode_t mode) { return ::fchmod(fd, mode); }

int os_rename(const char* from, const char* to) {
  if (enter(os_Op::Rename)) return -1;
  if (os_pcArmed) os_PcBeforeRename(from, to);
  const int rc = ::rename(from, to);
  if (os_pcArmed) os_PcAfterRename(rc == 0);
  return rc;
}

int os_RenameNoReplace(const char* from, const char* to) {
  if (enter(os_Op::Rename)) return -1;
  if (os_pcArmed) os_PcBeforeRename(from, to);
  const int rc = ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
  if (os_pcArmed) os_PcAfterRename(rc == 0);
  return rc;
}

int os_unlink(const char* path) {
  if (enter(os_Op::Unlink)) return -1;
  if (os_pcArmed) os_PcBeforeRemove(path, false);
  const int rc = ::unlink(path);
  if (os_pcArmed) os_PcAfterRemove(rc == 0);
  return rc;
}

int os_link(const char* from, const char* to) {
  if (enter(os_Op::Link)) return -1;
  if (os_pcArmed) os_PcBeforeCreate(to, O_CREAT);
  const int rc = ::link(from, to);
  if (os_pcArmed) os_PcAfterCreate(rc == 0);
  return rc;
}

int os_mkdir(const char* path, mode_t mode) {
  if (enter(os_Op::Mkdir)) return -1;
  const int rc = ::mkdir(path, mode);
  if (os_pcArmed) os_PcMadeDir(path, rc == 0);
  return rc;
}

int os_rmdir(const char* path) {
  if (enter(os_Op::Rmdir)) return -1;
  if (os_pcArmed) os_PcBeforeRemove(path, true);
  const int rc = ::rmdir(path);
  if (os_pcArmed) os_PcAfterRemove(rc == 0);
  return rc;
}

int os_chown(const char* path, uid_t uid, gid_t gid) {
  if (enter(os_Op::Chown)) return -1;
  return ::chown(path, uid, gid);
}

int os_fchown(int fd, uid_t uid, gid_t gid) {
  if (enter(os_Op::Chown)) return -1;
  return ::fchown(fd, uid, gid);
}

// ---- accounts ------------------------------------------------------------

int os_GetUserIds(const char* user, uid_t* uid, gid_t* gid) {
  struct passwd pw;
  struct passwd* found = nullptr;
  std::vector<char> buf(16384);
  if (::getpwnam_r(user, &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr) return -1;
  *uid = pw.pw_uid;
  *gid = pw.pw_gid;
  return 0;
}

// ---- locks ---------------------------------------------------------------

namespace {
// A lock call that failed: a conflict met by a call that does not wait is a
// refusal, reported by the result; anything else (including a "conflict"
// from a call that waits, which cannot meet one) is an error, and going on
// as if the range were merely refused would let an update run without its
// lock.
int lockFailed(int err, bool nowait) {
  if (nowait && (err == EAGAIN || err == EACCES)) return 0;
  ER_RAISE(ER_GROUP_OS, err);
}
}  // namespace

int os_TryLockPart(int fd, int mode, int whence, uint32_t offLow, uint32_t offHigh, uint32_t lenLow,
                   uint32_t lenHigh) {
  const bool nowait = (mode & OS_LOCK_NOWAIT) != 0 && (mode & ~OS_LOCK_NOWAIT) != OS_LOCK_RELEASE;
  if (enter(os_Op::Lock)) return lockFailed(errno, nowait);
  struct flock fl;
  std::memset(&fl, 0, sizeof fl);
  switch (mode & ~OS_LOCK_NOWAIT) {
    case OS_LOCK_SHARED: fl.l_type = F_RDLCK; break;
    case OS_LOCK_EXCL: fl.l_type = F_WRLCK; break;
    case OS_LOCK_RELEASE: fl.l_type = F_UNLCK; break;
    default: ER_RAISE(ER_GROUP_CALL, EINVAL);
  }
  fl.l_whence = static_cast<short>(whence);
  fl.l_start = static_cast<off_t>((static_cast<uint64_t>(offHigh) << 32) | offLow);
  fl.l_len = static_cast<off_t>((static_cast<uint64_t>(lenHigh) << 32) | lenLow);
  fl.l_pid = 0;  // required for open-file-description locks
  const int cmd = (fl.l_type == F_UNLCK || nowait) ? F_OFD_SETLK : F_OFD_SETLKW;
  int rc;
  if (cmd == F_OFD_SETLKW && g_tellWaits >= 0) {
    // A watcher wants to know this process is about to wait on a holder.
    struct flock once = fl;
    do rc = ::fcntl(fd, F_OFD_SETLK, &once);
    while (rc < 0 && errno == EINTR);
    if (rc == 0) return 1;
    if (errno != EAGAIN && errno != EACCES) return lockFailed(errno, false);
    tellByte(g_tellWaits, 'W');
  }
  do rc = ::fcntl(fd, cmd, &fl);
  while (rc < 0 && errno == EINTR);
  return rc == 0 ? 1 : lockFailed(errno, nowait);
}

int os_flock(int fd, int op) {
  if (enter(os_Op::Flock)) return -1;
  int rc;
  if ((op & LOCK_NB) == 0 && (op & (LOCK_SH | LOCK_EX)) != 0 && g_tellWaits >= 0) {
    do rc = ::flock(fd, op | LOCK_NB);
    while (rc < 0 && errno == EINTR);
    if (rc == 0 || errno != EWOULDBLOCK) return rc;
    tellByte(g_tellWaits, 'W');
  }
  do rc = ::flock(fd, op);
  while (rc < 0 && errno == EINTR);
  return rc;
}

// ---- memory --------------------------------------------------------------

void* os_malloc(size_t n) {
  if (enter(os_Op::Malloc)) return nullptr;
  return std::malloc(n == 0 ? 1 : n);
}

void* os_calloc(size_t n, size_t size) {
  if (enter(os_Op::Malloc)) return nullptr;
  return std::calloc(n == 0 ? 1 : n, size == 0 ? 1 : size);
}

void* os_realloc(void* p, size_t n) {
  if (enter(os_Op::Malloc)) return nullptr;
  return std::realloc(p, n == 0 ? 1 : n);
}

void os_free(void* p) { std::free(p); }

void* os_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off) {
  if (enter(os_Op::Mmap)) return MAP_FAILED;
  return ::mmap(addr, len, prot, flags, fd, off);
}

int os_munmap(void* addr, size_t len) {
  if (enter(os_Op::Munmap)) return -1;
  return ::munmap(addr, len);
}

// ---- stdio streams ---------------------------------------------------------

FILE* os_fopen(const char* path, const char* mode) {
  if (enter(os_Op::Fopen)) return nullptr;
  std::string m(mode);
  m += 'e';  // close-on-exec
  if (os_pcArmed) os_PcBeforeCreate(path, m.find_first_of("wa") != std::string::npos ? O_CREAT : 0);
  FILE* f = std::fopen(path, m.c_str());
  if (os_pcArmed) os_PcAfterCreate(f != nullptr);
  return f;
}

int os_fclose(FILE* f) {
  if (os_pcArmed) os_PcClosed(::fileno(f));
  if (enter(os_Op::Fclose)) {
    std::fclose(f);  // the stream is gone either way; report the failure
    return EOF;
  }
  return std::fclose(f);
}

size_t os_fread(void* buf, size_t size, size_t count, FILE* f) {
  size_t maxBytes = 0;
  int v = enter(os_Op::Fread, &maxBytes, size * count);
  if (v == 1) return 0;
  if (v == 2 && size > 0) count = std::min(count, maxBytes / size);
  return std::fread(buf, size, count, f);
}

size_t os_fwrite(const void* buf, size_t size, size_t count, FILE* f) {
  size_t maxBytes = 0;
  int v = enter(os_Op::Fwrite, &maxBytes, size * count);
  if (v == 1) return 0;
  if (v == 2 && size > 0) count = std::min(count, maxBytes / size);
  if (!os_pcArmed) return std::fwrite(buf, size, count, f);
  // Armed, the bytes go to the kernel at once, so that the journal holds
  // what the file holds when the power goes.
  std::fflush(f);
  os_PcBeforeWrite(::fileno(f), std::ftell(f), size * count);
  const size_t put = std::fwrite(buf, size, count, f);
  std::fflush(f);
  os_PcAfterWrite(static_cast<ssize_t>(put * size));
  return put;
}

int os_fseek(FILE* f, long off, int whence) {
  if (enter(os_Op::Fseek)) return -1;
  return std::fseek(f, off, whence);
}

long os_ftell(FILE* f) {
  if (enter(os_Op::Ftell)) return -1;
  return std::ftell(f);
}

char* os_fgets(char* buf, int len, FILE* f) {
  if (enter(os_Op::Fgets)) return nullptr;
  return std::fgets(buf, len, f);
}

int os_fflush(FILE* f) {
  if (enter(os_Op::Fflush)) return EOF;
  return std::fflush(f);
}

int os_fileno(FILE* f) { return ::fileno(f); }

// ---- System V message queues ---------------------------------------------

namespace {
constexpr size_t kMaxText = 8192;
struct NativeMsg {
  long mtype;
  char mtext[kMaxText];
};
}  // namespace

int os_msgget(key_t key, int flags) {
  if (enter(os_Op::Msgget)) return -1;
  return ::msgget(key, flags);
}

int os_msgsnd(int qid, const void* msg, size_t textLen, int flags) {
  size_t maxBytes = 0;
  int v = enter(os_Op::Msgsnd, &maxBytes, textLen);
  if (v == 1) return -1;
  if (textLen > kMaxText) {
    errno = EINVAL;
    return -1;
  }
  NativeMsg m;
  int32_t type;
  std::memcpy(&type, msg, 4);  // the wire type is i386 little-endian, as is this host
  m.mtype = type;
  std::memcpy(m.mtext, static_cast<const char*>(msg) + 4, textLen);
  return ::msgsnd(qid, &m, limit(v, maxBytes, textLen), flags);
}

ssize_t os_msgrcv(int qid, void* msg, size_t textLen, long type, int flags) {
  return os_msgrcvUnless(qid, msg, textLen, type, flags, nullptr);
}

ssize_t os_msgrcvUnless(int qid, void* msg, size_t textLen, long type, int flags,
                        const volatile std::sig_atomic_t* stop) {
  if (enter(os_Op::Msgrcv)) ER_RAISE(ER_GROUP_OS, errno);
  if (textLen > kMaxText) textLen = kMaxText;
  NativeMsg m;
  ssize_t n;
  do n = ::msgrcv(qid, &m, textLen, type, flags);
  while (n < 0 && errno == EINTR && (stop == nullptr || *stop == 0));
  if (n < 0 && errno == EINTR) return -1;
  if (n < 0) ER_RAISE(ER_GROUP_OS, errno);
  int32_t wireType = static_cast<int32_t>(m.mtype);
  std::memcpy(msg, &wireType, 4);
  std::memcpy(static_cast<char*>(msg) + 4, m.mtext, static_cast<size_t>(n));
  return n;
}

int os_msgctl(int qid, int cmd, void* buf) {
  if (enter(os_Op::Msgctl)) return -1;
  return ::msgctl(qid, cmd, static_cast<struct msqid_ds*>(buf));
}

// ---- processes -------------------------------------------------------------

namespace {
// 0 until asked; a forked child starts over. Registered when the library is
// loaded, before any fork can happen through it. A child (a service being
// started, say) does not inherit a pending hold or a watcher either: it
// would stop or tell as if it were the process under test.
pid_t g_pid = 0;
extern "C" void forgetPidInChild() {
  g_pid = 0;
  g_hold = Hold{};
  g_tellWaits = -1;
  os_PcForget();
}
struct PidCacheRegistrar {
  PidCacheRegistrar() { pthread_atfork(nullptr, nullptr, forgetPidInChild); }
};
const PidCacheRegistrar g_pidCacheRegistrar;
}  // namespace

pid_t os_getpid() {
  if (g_pid == 0) g_pid = ::getpid();
  return g_pid;
}

uid_t os_getuid() { return ::getuid(); }

int os_usleep(uint64_t microseconds) {
  enter(os_Op::Sleep);
  g_sleepAsked += microseconds;
  if (g_skipSleeps) return 0;
  if (g_tellWaits >= 0) tellByte(g_tellWaits, 'S');
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(microseconds / 1000000);
  ts.tv_nsec = static_cast<long>(microseconds % 1000000) * 1000;
  while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
  return 0;
}

int os_kill(pid_t pid, int sig) {
  if (enter(os_Op::Kill)) return -1;
  return ::kill(pid, sig);
}

pid_t os_fork() {
  if (enter(os_Op::Fork)) return -1;
  return ::fork();
}

#ifdef SFL_COVERAGE_BUILD
extern "C" void __gcov_dump(void);
extern "C" void __gcov_reset(void);
#endif

void os_FlushCoverage() {
#ifdef SFL_COVERAGE_BUILD
  // A dump marks the counts written; the reset zeroes them and lets a
  // later dump (or the one at exit) write what follows.
  __gcov_dump();
  __gcov_reset();
#endif
}

void os_ExitNow(int code) {
  os_FlushCoverage();
  ::_exit(code);
}

pid_t os_waitpid(pid_t pid, int* status, int options) {
  pid_t r;
  do r = ::waitpid(pid, status, options);
  while (r < 0 && errno == EINTR);
  return r;
}

pid_t os_setsid() { return ::setsid(); }

int os_dup2(int from, int to) { return ::dup2(from, to); }

ssize_t os_msgrcvWithin(int qid, void* msg, size_t textLen, long type, uint64_t timeoutUs) {
  if (enter(os_Op::Msgrcv)) ER_RAISE(ER_GROUP_OS, errno);
  if (textLen > kMaxText) textLen = kMaxText;
  struct timespec start;
  ::clock_gettime(CLOCK_MONOTONIC, &start);
  // A reply usually comes within microseconds: a few polls with a yield
  // catch it at once; then pauses growing to a millisecond.
  uint64_t pauseNs = 0;
  for (int polls = 0;; ++polls) {
    NativeMsg m;
    const ssize_t n = ::msgrcv(qid, &m, textLen, type, IPC_NOWAIT);
    if (n >= 0) {
      int32_t wireType = static_cast<int32_t>(m.mtype);
      std::memcpy(msg, &wireType, 4);
      std::memcpy(static_cast<char*>(msg) + 4, m.mtext, static_cast<size_t>(n));
      return n;
    }
    if (errno != ENOMSG && errno != EINTR) ER_RAISE(ER_GROUP_OS, errno);
    struct timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t spentUs = (now.tv_sec - start.tv_sec) * 1000000LL + (now.tv_nsec - start.tv_nsec) / 1000;
    if (spentUs >= static_cast<int64_t>(timeoutUs)) {
      errno = EAGAIN;
      return -1;
    }
    if (polls < 50) {
      ::sched_yield();
      continue;
    }
    pauseNs = pauseNs == 0 ? 20000 : std::min<uint64_t>(pauseNs * 2, 1000000);
    struct timespec pause = {0, static_cast<long>(pauseNs)};
    ::nanosleep(&pause, nullptr);
  }
}

int os_RandomBytes(void* buf, size_t len) {
  auto* p = static_cast<uint8_t*>(buf);
  while (len > 0) {
    const ssize_t n = ::getrandom(p, len, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return 0;
}

int os_openat(int dirFd, const char* name, int flags, mode_t mode) {
  if (enter(os_Op::Open)) return -1;
  int fd;
  do fd = ::openat(dirFd, name, flags | O_CLOEXEC, mode);
  while (fd < 0 && errno == EINTR);
  return fd;
}

int os_openBeneath(int dirFd, const char* path, int flags) {
  if (enter(os_Op::Open)) return -1;
  struct open_how how {};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  long fd;
  do fd = ::syscall(SYS_openat2, dirFd, path, &how, sizeof how);
  while (fd < 0 && errno == EINTR);
  return static_cast<int>(fd);
}

int os_fstatat(int dirFd, const char* name, struct stat* st, int flags) {
  if (enter(os_Op::Stat)) return -1;
  return ::fstatat(dirFd, name, st, flags);
}

uid_t os_geteuid() { return ::geteuid(); }

bool os_InGroup(gid_t gid) {
  if (gid == ::getegid()) return true;
  const int n = ::getgroups(0, nullptr);
  if (n <= 0) return false;
  std::vector<gid_t> groups(static_cast<size_t>(n));
  const int got = ::getgroups(n, groups.data());
  return got > 0 && std::find(groups.begin(), groups.begin() + got, gid) != groups.begin() + got;
}
