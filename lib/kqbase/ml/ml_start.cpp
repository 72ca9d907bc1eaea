// ml_: starting the interest service on demand. The starter forks; the
// child forks again and exits, so the service is adopted by init and never
// becomes a zombie of the program that happened to need it; the grandchild
// starts a new session, puts its standard streams on the run directory's
// log and runs the serving code.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "er.h"
#include "ml.h"
#include "os.h"

namespace {

// How long a starter waits for the service to publish its state. A service
// waits up to 2 s for the lock of one that is still shutting down.
constexpr auto kPublishWait = std::chrono::seconds(10);

mode_t dirMode(const ml_ServiceOptions& o) { return o.Gid >= 0 ? 0750 : 0700; }

// Detaches the grandchild from the program it was forked from.
void daemonise(const std::string& runDir) {
  os_setsid();
  int devnull = os_open("/dev/null", O_RDWR);
  int log = os_open(ml_LogPath(runDir).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  // Every other inherited descriptor is pointed at /dev/null rather than
  // closed: the program's code that came along in this copy (its logging,
  // say) may still write to a number it opened, and a later open here must
  // not hand that number to a file of the service. Replacing them also drops
  // the references that would otherwise keep the program's files, and their
  // open-file-description locks, alive in the service.
  std::vector<int> fds;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    int fd = std::atoi(e.path().filename().c_str());
    if (fd > 2 && fd != devnull && fd != log) fds.push_back(fd);
  }
  if (devnull >= 0) {
    for (int fd : fds) os_dup2(devnull, fd);
    os_dup2(devnull, 0);
  }
  if (log >= 0) {
    os_dup2(log, 1);
    os_dup2(log, 2);
  }
  if (devnull > 2) os_close(devnull);
  if (log > 2) os_close(log);
  // Nothing of the starting program's test switches or hooks applies here.
  os_ClearFaults();
  os_SkipSleeps(false);
  er_SetLogHook(nullptr);
  er_Clear();
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
}

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

}  // namespace

int ml_StartDetached(const ml_ServiceOptions& opts) {
  if (ml_PrepareRunDir(opts.RunDir, dirMode(opts)) != 0) return -1;
  std::fflush(nullptr);  // nothing buffered may be written twice
  pid_t child = os_fork();
  if (child < 0) return -1;
  if (child == 0) {
    pid_t grandchild = os_fork();
    if (grandchild != 0) std::_Exit(grandchild < 0 ? 1 : 0);
    daemonise(opts.RunDir);
    int code = 1;
    try {
      code = ml_RunService(opts);
    } catch (...) {
      code = 1;
    }
    std::_Exit(code);
  }
  int status = 0;
  os_waitpid(child, &status, 0);
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
