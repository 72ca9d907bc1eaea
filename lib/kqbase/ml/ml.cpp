// ml_: the run directory, the published state file, the service lock, and
// the subsystem calls the interest client makes (ml_OpenCfgFile and friends).
#include "ml.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cust.h"
#include "os.h"

namespace {

constexpr const char* kStateMagic = "sfl-monitor-state";
constexpr int kStateVersion = 1;
// Starts on demand of one look, each after the service started before was
// found gone again.
constexpr int kStartRounds = 8;

// The configuration as opened by ml_OpenCfgFile: the state read at open.
struct Cfg {
  bool open = false;
  bool loaded = false;
  std::string runDir;
  ml_State state;
};
Cfg g_cfg;

// Far above any state file, /proc entry or group file this reads.
constexpr size_t kMaxRead = 1 << 20;

bool readFile(const std::string& path, std::string* out) {
  int fd = os_open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  const bool ok = ml_ReadBounded(fd, kMaxRead, out);
  os_close(fd);
  return ok;
}

// The state the subsystem calls answer from: the one read at open while the
// configuration is open, else a fresh read.
bool currentState(ml_State* out, std::string* runDir) {
  if (g_cfg.open) {
    *runDir = g_cfg.runDir;
    if (!g_cfg.loaded) return false;
    *out = g_cfg.state;
    return true;
  }
  *runDir = ml_RunDir();
  return ml_ReadState(*runDir, out);
}

void reloadIfOpen() {
  if (!g_cfg.open) return;
  g_cfg.loaded = ml_ReadState(g_cfg.runDir, &g_cfg.state);
}

}  // namespace

bool ml_ReadBounded(int fd, size_t limit, std::string* out, std::string* why) {
  out->clear();
  char buf[16384];
  for (;;) {
    const ssize_t n = os_read(fd, buf, sizeof buf);
    if (n == 0) return true;
    if (n < 0) {
      if (why != nullptr) *why = std::strerror(errno);
      return false;
    }
    if (out->size() + static_cast<size_t>(n) > limit) {
      if (why != nullptr) *why = "longer than " + std::to_string(limit) + " bytes";
      return false;
    }
    out->append(buf, static_cast<size_t>(n));
  }
}

// ---- run directory -----------------------------------------------------------------------

std::string ml_RunDir() {
  if (const char* v = cust_GetCustomiseInfo("SFL_RUN_DIR"); v != nullptr && *v != '\0') return v;
  if (const char* x = std::getenv("XDG_RUNTIME_DIR"); x != nullptr && *x != '\0')
    return std::string(x) + "/sfl";
  return "/tmp/sfl-run-" + std::to_string(static_cast<unsigned>(os_getuid()));
}

std::string ml_StatePath(const std::string& runDir) { return runDir + "/sfl-monitor.state"; }
std::string ml_LockPath(const std::string& runDir) { return runDir + "/sfl-monitor.lock"; }
std::string ml_StartLockPath(const std::string& runDir) { return runDir + "/sfl-monitor.start"; }
std::string ml_LogPath(const std::string& runDir) { return runDir + "/sfl-monitor.log"; }

namespace {

std::string g_trustProblem;

// The account "SFL_SERVICE_USER" names, if any.
bool serviceAccount(uid_t* uid) {
  const char* v = cust_GetCustomiseInfo("SFL_SERVICE_USER");
  if (v == nullptr || *v == '\0') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long n = std::strtoul(v, &end, 10);
  if (*end == '\0') {
    if (errno != 0 || n >= static_cast<unsigned long>(static_cast<uid_t>(-1))) return false;
    *uid = static_cast<uid_t>(n);
    return true;
  }
  gid_t gid;
  return os_GetUserIds(v, uid, &gid) == 0;
}

// Whether `st` (of `path`, a `kind`) may be trusted; records why not.
bool trusted(const struct stat& st, const std::string& path, const char* kind, bool wantDir) {
  const char* wrong = nullptr;
  if (wantDir ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode))
    wrong = wantDir ? "is not a directory" : "is not a regular file";
  else if (!ml_TrustedOwner(st.st_uid))
    wrong = "belongs to another user";
  else if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    wrong = "is writable by its group or by others";
  if (wrong == nullptr) return true;
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
  g_trustProblem = std::string(kind) + " " + path + " " + wrong + " (owner uid " +
                   std::to_string(static_cast<unsigned>(st.st_uid)) + ", mode " + mode +
                   "); this process runs as uid " +
                   std::to_string(static_cast<unsigned>(os_getuid())) + " and will not use it";
  return false;
}

void refusedLink(const std::string& path, const char* kind) {
  g_trustProblem = std::string(kind) + " " + path +
                   " is a symbolic link (or not a directory); this process will not follow it";
}

}  // namespace

bool ml_TrustedOwner(uid_t uid) {
  if (uid == os_getuid() || uid == 0) return true;
  uid_t account;
  return serviceAccount(&account) && uid == account;
}

const std::string& ml_TrustProblem() { return g_trustProblem; }

int ml_OpenRunDir(const std::string& runDir, bool create, mode_t mode) {
  if (runDir.empty()) {
    errno = EINVAL;
    return -1;
  }
  if (create && os_mkdir(runDir.c_str(), mode) != 0 && errno != EEXIST) return -1;
  // Opened without following a link, then checked through the descriptor:
  // what is checked is what the caller goes on to use, whatever is renamed
  // meanwhile.
  const int fd = os_open(runDir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (fd < 0) {
    const int err = errno;
    if (err == ELOOP || err == ENOTDIR) refusedLink(runDir, "run directory");
    errno = err;
    return -1;
  }
  struct stat st;
  if (os_fstat(fd, &st) != 0) {
    const int err = errno;
    os_close(fd);
    errno = err;
    return -1;
  }
  // Another user's directory could hold a state file naming queues of their
  // choosing, and a service that answers as it likes (or never).
  if (!trusted(st, runDir, "run directory", true)) {
    os_close(fd);
    errno = EPERM;
    return -1;
  }
  g_trustProblem.clear();
  return fd;
}

int ml_PrepareRunDir(const std::string& runDir, mode_t mode) {
  const int fd = ml_OpenRunDir(runDir, true, mode);
  if (fd < 0) return -1;
  os_close(fd);
  return 0;
}

// ---- the state file ---------------------------------------------------------------------

std::string ml_FormatState(const ml_State& st) {
  std::ostringstream o;
  o << kStateMagic << ' ' << kStateVersion << '\n';
  o << "subsystem " << st.Subsystem << '\n';
  o << "state " << st.State << '\n';
  o << "main " << st.MainPid << '\n';
  o << "additional " << st.Additional.size();
  for (int32_t p : st.Additional) o << ' ' << p;
  o << '\n';
  o << "context " << st.Context.size();
  for (int32_t c : st.Context) o << ' ' << c;
  o << '\n';
  o << "cpu_latency_us " << st.CpuLatencyUs << '\n';
  o << "end\n";
  return o.str();
}

bool ml_ParseState(const std::string& text, ml_State* out) {
  std::istringstream in(text);
  std::string word;
  int version = 0;
  if (!(in >> word >> version) || word != kStateMagic || version != kStateVersion) return false;
  ml_State st;
  bool sawMain = false, sawState = false, sawEnd = false;
  while (in >> word) {
    if (word == "subsystem") {
      if (!(in >> st.Subsystem)) return false;
    } else if (word == "state") {
      if (!(in >> st.State)) return false;
      sawState = true;
    } else if (word == "main") {
      if (!(in >> st.MainPid)) return false;
      sawMain = true;
    } else if (word == "additional" || word == "context") {
      long n = 0;
      if (!(in >> n) || n < 0 || n > 4096) return false;
      std::vector<int32_t>& v = word == "additional" ? st.Additional : st.Context;
      v.resize(static_cast<size_t>(n));
      for (int32_t& x : v)
        if (!(in >> x)) return false;
    } else if (word == "cpu_latency_us") {
      if (!(in >> st.CpuLatencyUs)) return false;
    } else if (word == "end") {
      sawEnd = true;
      break;
    } else {
      return false;
    }
  }
  if (!sawMain || !sawState || !sawEnd) return false;
  *out = std::move(st);
  return true;
}

bool ml_ReadState(const std::string& runDir, ml_State* out) {
  const int dir = ml_OpenRunDir(runDir, false, 0);
  if (dir < 0) return false;
  const std::string path = ml_StatePath(runDir);
  const std::string leaf = path.substr(path.rfind('/') + 1);
  // Not following a link, and not waiting on a FIFO planted there.
  const int fd = os_openat(dir, leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  const int err = errno;
  os_close(dir);
  if (fd < 0) {
    if (err == ELOOP) refusedLink(path, "state file");
    return false;
  }
  struct stat st;
  std::string text;
  const bool ok = os_fstat(fd, &st) == 0 && trusted(st, path, "state file", false) &&
                  ml_ReadBounded(fd, kMaxRead, &text);
  os_close(fd);
  return ok && ml_ParseState(text, out);
}

int ml_ReplaceFile(const std::string& path, const std::string& tmp, const std::string& text,
                   mode_t mode) {
  int fd = os_open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return -1;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = os_write(fd, text.data() + done, text.size() - done);
    if (n <= 0) {
      os_close(fd);
      os_unlink(tmp.c_str());
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  if (os_close(fd) != 0 || os_rename(tmp.c_str(), path.c_str()) != 0) {
    os_unlink(tmp.c_str());
    return -1;
  }
  return 0;
}

int ml_PublishState(const std::string& runDir, const ml_State& st, mode_t mode) {
  const std::string path = ml_StatePath(runDir);
  return ml_ReplaceFile(path, path + "." + std::to_string(os_getpid()) + ".tmp", ml_FormatState(st),
                        mode);
}

// ---- the service lock -------------------------------------------------------------------

int ml_ClaimServiceLock(const std::string& runDir) {
  // Readable by all who can enter the run directory: clients probe it.
  int fd = os_open(ml_LockPath(runDir).c_str(), O_RDWR | O_CREAT, 0644);
  if (fd < 0) return -1;
  if (os_flock(fd, LOCK_EX | LOCK_NB) != 0) {
    os_close(fd);
    return -1;
  }
  return fd;
}

bool ml_ServiceLockHeld(const std::string& runDir) {
  int fd = os_open(ml_LockPath(runDir).c_str(), O_RDONLY);
  // No lock file: no service ever ran here. Unreadable: cannot tell, so
  // leave the decision to the process check.
  if (fd < 0) return errno != ENOENT;
  bool held = false;
  if (os_flock(fd, LOCK_SH | LOCK_NB) == 0) {
    os_flock(fd, LOCK_UN);
  } else {
    held = errno == EWOULDBLOCK;
  }
  os_close(fd);
  return held;
}

bool ml_ServiceAlive(const std::string& runDir, const ml_State& st) {
  if (st.State != ML_STATE_RUNNING && st.State != ML_STATE_STARTING) return false;
  return ml_CheckPid(st.MainPid) == 1 && ml_ServiceLockHeld(runDir);
}

// ---- subsystem calls ---------------------------------------------------------------------

int ml_OpenCfgFile(int mode) {
  (void)mode;  // the state file is only ever read
  if (g_cfg.open) return 1;
  g_cfg.open = true;
  g_cfg.runDir = ml_RunDir();
  g_cfg.loaded = ml_ReadState(g_cfg.runDir, &g_cfg.state);
  return 0;
}

void ml_CloseCfgFile() {
  g_cfg = Cfg{};
}

int ml_GetSSState(int subsystem) {
  ml_State st;
  std::string runDir;
  bool have = currentState(&st, &runDir);
  if (have && st.Subsystem == subsystem && ml_ServiceAlive(runDir, st)) return st.State;
  if (subsystem != ML_SUBSYSTEM_MONITOR || !ml_AutoStartEnabled()) return ML_STATE_DOWN;
  ml_ServiceOptions opts = ml_OnDemandOptions();
  opts.RunDir = runDir;
  // Another process may stop the service between its start and this look
  // (an operator's stop, a restart by a peer): the caller asked for a
  // service, not for that one, so start it again. A start that fails ends
  // the tries at once; only a service that came up and went is tried again.
  for (int round = 0; round < kStartRounds; ++round) {
    if (ml_EnsureService(opts) != 0) return ML_STATE_DOWN;
    reloadIfOpen();
    if (currentState(&st, &runDir) && st.Subsystem == subsystem && ml_ServiceAlive(runDir, st))
      return st.State;
  }
  return ML_STATE_DOWN;
}

void ml_GetSubSystemDetails(int subsystem, ml_SubSystemDetails* out) {
  *out = ml_SubSystemDetails{};
  ml_State st;
  std::string runDir;
  if (!currentState(&st, &runDir) || st.Subsystem != subsystem) return;
  out->MainPid = st.MainPid;
  size_t n = st.Additional.size();
  out->AdditionalCount = static_cast<int16_t>(n > 32767 ? 32767 : n);
  for (size_t i = 0; i < n && i < ML_MAX_ADDITIONAL; ++i) out->AdditionalPids[i] = st.Additional[i];
}

int32_t ml_ReadContext(int subsystem, int16_t index) {
  ml_State st;
  std::string runDir;
  if (!currentState(&st, &runDir) || st.Subsystem != subsystem) return -1;
  if (index < 0 || static_cast<size_t>(index) >= st.Context.size()) return -1;
  return st.Context[static_cast<size_t>(index)];
}

namespace {

// Whether a process that answers the signal probe has in fact ended: its
// state in /proc says it is a zombie (ended, not yet reaped).
bool isZombie(int32_t pid) {
  std::string stat;
  if (!readFile("/proc/" + std::to_string(pid) + "/stat", &stat)) return false;
  size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return false;
  char state = stat[close + 2];
  return state == 'Z' || state == 'X';
}

int64_t nowMicros() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

// Ids found alive by a full check, and when. Within g_fullCheckUs of that,
// the signal probe alone answers: one system call per check rather than
// five, at the price of seeing a process that ended in between as a zombie
// for at most that long (a service that ends also takes its queues down,
// which is what wakes a client waiting on it).
struct Checked {
  int32_t pid = 0;
  int64_t atUs = 0;
};
constexpr size_t kChecked = 32;
int64_t g_fullCheckUs = 100000;
Checked g_checked[kChecked];
size_t g_nextChecked = 0;

}  // namespace

int ml_CheckPid(int32_t pid) {
  if (pid <= 0) return 0;
  Checked* known = nullptr;
  for (Checked& c : g_checked)
    if (c.pid == pid) known = &c;
  if (os_kill(pid, 0) != 0 && errno != EPERM) {  // EPERM: exists, another user's
    if (known != nullptr) *known = Checked{};
    return 0;
  }
  const int64_t now = nowMicros();
  if (known != nullptr && now - known->atUs < g_fullCheckUs) return 1;
  if (isZombie(pid)) {
    if (known != nullptr) *known = Checked{};
    return 0;
  }
  if (known == nullptr) {
    known = &g_checked[g_nextChecked];
    g_nextChecked = (g_nextChecked + 1) % kChecked;
  }
  *known = Checked{pid, now};
  return 1;
}

void ml_SetPidCheckWindow(int64_t micros) { g_fullCheckUs = micros; }

void ml_ForgetPidChecks() {
  for (Checked& c : g_checked) c = Checked{};
  g_nextChecked = 0;
}

// ---- configuration of on-demand starts --------------------------------------------------

bool ml_AutoStartEnabled() {
  const char* v = cust_GetCustomiseInfo("SFL_MONITOR_AUTOSTART");
  return v == nullptr || std::strcmp(v, "0") != 0;
}

namespace {
int keyInt(const char* key, int fallback, int lo, int hi) {
  return static_cast<int>(cust_GetBoundedLong(key, fallback, lo, hi));
}
}  // namespace

ml_ServiceOptions ml_OnDemandOptions() {
  ml_ServiceOptions o;
  o.RunDir = ml_RunDir();
  o.Pairs = keyInt("SFL_MONITOR_PAIRS", 1, 1, ML_MAX_PAIRS);
  o.IdleSeconds = keyInt("SFL_MONITOR_IDLE_SECONDS", 30, 1, 86400 * 365);
  o.MaxEntries = static_cast<size_t>(keyInt("SFL_MONITOR_MAX_ENTRIES", 100000, 1, 100000000));
  if (const char* g = cust_GetCustomiseInfo("SFL_MONITOR_GROUP"); g != nullptr && *g != '\0')
    o.Gid = ml_ResolveGroup(g);
  return o;
}

int ml_ResolveGroup(const char* text) {
  if (text == nullptr || *text == '\0') return -1;
  char* end = nullptr;
  long n = std::strtol(text, &end, 10);
  if (*end == '\0') return n >= 0 && n < 0x7fffffff ? static_cast<int>(n) : -1;
  std::string groups;
  if (!readFile("/etc/group", &groups)) return -1;
  std::istringstream in(groups);
  std::string line;
  while (std::getline(in, line)) {
    // name:password:gid:members
    size_t a = line.find(':');
    if (a == std::string::npos || line.compare(0, a, text) != 0 || a != std::strlen(text)) continue;
    size_t b = line.find(':', a + 1);
    if (b == std::string::npos) return -1;
    return std::atoi(line.c_str() + b + 1);
  }
  return -1;
}
