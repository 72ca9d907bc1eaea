// ml_: starting the interest service on demand. The service is its own
// program (sfl-monitor): the starter forks, the child starts a new session
// and forks again so that the service is adopted by init and never becomes
// a zombie of the program that happened to need it, and the grandchild
// executes the program with its standard streams on the run directory's log,
// no other descriptor, default signal handling and a minimal environment.
// Nothing of the starting program (its memory, files, locks, handlers or
// test switches) comes along.
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cust.h"
#include "er.h"
#include "ml.h"
#include "os.h"

#ifndef ML_MONITOR_INSTALLED
#define ML_MONITOR_INSTALLED ""
#endif
#ifndef ML_MONITOR_BUILT
#define ML_MONITOR_BUILT ""
#endif
// The program's place relative to the directory holding the library (for
// an installed tree, the library directory to the program directory).
#ifndef ML_MONITOR_FROM_LIBDIR
#define ML_MONITOR_FROM_LIBDIR ""
#endif

namespace {

// How long a starter waits for the service to publish its state. A service
// waits up to 5 s for the lock of one that is still shutting down.
constexpr auto kPublishWait = std::chrono::seconds(10);
// The descriptor on which a grandchild whose exec failed reports its errno.
constexpr int kReportFd = 3;

mode_t dirMode(const ml_ServiceOptions& o) { return o.Gid >= 0 ? 0750 : 0700; }

bool executable(const std::string& path) { return !path.empty() && ::access(path.c_str(), X_OK) == 0; }

bool waitPublished(const std::string& runDir) {
  auto deadline = std::chrono::steady_clock::now() + kPublishWait;
  auto pause = std::chrono::milliseconds(1);
  while (std::chrono::steady_clock::now() < deadline) {
    ml_State st;
    if (ml_ReadState(runDir, &st) && ml_ServiceAlive(runDir, st)) return true;
    std::this_thread::sleep_for(pause);
    if (pause < std::chrono::milliseconds(20)) pause *= 2;
  }
  return false;
}

// The grandchild, between fork and exec: only async-signal-safe calls, on
// what the starter prepared beforehand.
[[noreturn]] void execService(const char* logPath, int reportFd, char* const* argv,
                              char* const* envp) {
  const int devnull = ::open("/dev/null", O_RDWR);
  int log = ::open(logPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (log < 0) log = devnull;
  ::dup2(devnull, 0);
  ::dup2(log, 1);
  ::dup2(log, 2);
  ::dup2(reportFd, kReportFd);
  ::fcntl(kReportFd, F_SETFD, FD_CLOEXEC);  // closed by a successful exec
  ::syscall(SYS_close_range, kReportFd + 1, ~0U, 0);
  struct sigaction dfl;
  std::memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) ::sigaction(sig, &dfl, nullptr);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  os_FlushCoverage();
  ::execve(argv[0], argv, envp);
  const int err = errno;
  (void)!::write(kReportFd, &err, sizeof err);
  os_ExitNow(127);
}

// The program beside this library: the directory of the object this code
// was loaded from (libsfl.so, or the program a static copy is linked into),
// then the relative step to the program directory. An installed tree moved
// as a whole, or installed under another prefix, still finds its own
// service program.
std::string besideLibrary() {
  const std::string rel = ML_MONITOR_FROM_LIBDIR;
  if (rel.empty()) return {};
  Dl_info info;
  if (::dladdr(reinterpret_cast<void*>(&ml_MonitorProgram), &info) == 0 || info.dli_fname == nullptr)
    return {};
  // Only an absolute name says where the object lies whatever the current
  // directory is now.
  const std::string self = info.dli_fname;
  if (self.empty() || self[0] != '/') return {};
  const std::string::size_type slash = self.rfind('/');
  return self.substr(0, slash + 1) + rel;
}

}  // namespace

std::string ml_MonitorProgram() {
  if (const char* v = cust_GetCustomiseInfo("SFL_MONITOR_PROGRAM"); v != nullptr && *v != '\0')
    return v;
  if (std::string beside = besideLibrary(); executable(beside)) return beside;
  if (executable(ML_MONITOR_INSTALLED)) return ML_MONITOR_INSTALLED;
  return ML_MONITOR_BUILT;
}

int ml_StartDetached(const ml_ServiceOptions& opts, const std::string& program) {
  if (ml_PrepareRunDir(opts.RunDir, dirMode(opts)) != 0) return -1;
  const std::string path = program.empty() ? ml_MonitorProgram() : program;
  if (!executable(path)) {
    er_LogMsg(3, "interest service program %s cannot be run", path.empty() ? "(none)" : path.c_str());
    return -1;
  }
  std::vector<std::string> args = {path,
                                   "--foreground",
                                   "--run-dir",
                                   opts.RunDir,
                                   "--pairs",
                                   std::to_string(opts.Pairs),
                                   "--idle-seconds",
                                   std::to_string(opts.IdleSeconds),
                                   "--max-entries",
                                   std::to_string(opts.MaxEntries)};
  if (opts.Gid >= 0) {
    args.push_back("--group");
    args.push_back(std::to_string(opts.Gid));
  }
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  // The service's environment is minimal, but for the keys that make it
  // serve several hosts (and the store root whose file system it checks
  // then), say how often it publishes its counts and what CPU latency it
  // asks for while it has clients (and on which device: the service runs
  // with its starter's rights, so it can write nothing the starter could
  // not): a service started on demand serves as the process that started
  // it was configured to expect.
  std::vector<std::string> vars = {"PATH=/usr/bin:/bin"};
  for (const char* key : {"SFL_CLUSTER_ETCD", "SFL_CLUSTER_NAME", "SFL_CLUSTER_HOST",
                          "SFL_CLUSTER_LEASE_SECONDS", "SFL_CLUSTER_TRUST_FS", "SFL_STORE_ROOT",
                          "SFL_MONITOR_METRICS_SECONDS", "SFL_MONITOR_CPU_LATENCY_US",
                          "SFL_MONITOR_CPU_LATENCY_DEV"})
    if (const char* v = cust_GetCustomiseInfo(key); v != nullptr) vars.push_back(std::string(key) + "=" + v);
  std::vector<char*> envp;
  for (std::string& v : vars) envp.push_back(v.data());
  envp.push_back(nullptr);
  const std::string logPath = ml_LogPath(opts.RunDir);

  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) return -1;
  std::fflush(nullptr);  // nothing buffered may be written twice
  pid_t child = os_fork();
  if (child < 0) {
    ::close(report[0]);
    ::close(report[1]);
    return -1;
  }
  if (child == 0) {
    ::setsid();
    pid_t grandchild = ::fork();
    if (grandchild != 0) os_ExitNow(grandchild < 0 ? 1 : 0);
    execService(logPath.c_str(), report[1], argv.data(), envp.data());
  }
  ::close(report[1]);
  int status = 0;
  os_waitpid(child, &status, 0);
  // End of file once the program runs (or the grandchild never came);
  // an errno when its exec failed.
  int err = 0;
  ssize_t n;
  do n = ::read(report[0], &err, sizeof err);
  while (n < 0 && errno == EINTR);
  ::close(report[0]);
  if (n == static_cast<ssize_t>(sizeof err)) {
    er_LogMsg(3, "interest service program %s could not be started: %s", path.c_str(),
              std::strerror(err));
    return -1;
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return waitPublished(opts.RunDir) ? 0 : -1;
}

int ml_EnsureService(const ml_ServiceOptions& opts) {
  if (ml_PrepareRunDir(opts.RunDir, dirMode(opts)) != 0) return -1;
  int fd = os_open(ml_StartLockPath(opts.RunDir).c_str(), O_RDWR | O_CREAT, 0600);
  if (fd < 0) return -1;
  // One starter at a time; the others wait here and then find it running.
  if (os_flock(fd, LOCK_EX) != 0) {
    os_close(fd);
    return -1;
  }
  int rc = 0;
  ml_State st;
  if (!(ml_ReadState(opts.RunDir, &st) && ml_ServiceAlive(opts.RunDir, st)))
    rc = ml_StartDetached(opts);
  os_flock(fd, LOCK_UN);
  os_close(fd);
  return rc;
}
