// Per-process test environment: a private directory, configured through the
// environment before any test runs, removed afterwards.
#include "test_env.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "er.h"
#include "ml.h"
#include "os.h"

namespace sfltest {
namespace {

std::string g_dir;

class Env : public ::testing::Environment {
 public:
  void SetUp() override { (void)TestDir(); }
  void TearDown() override {
    if (!g_dir.empty()) StopService();
    if (!g_dir.empty() && std::getenv("SFL_TEST_KEEP") == nullptr) {
      std::error_code ec;
      std::filesystem::remove_all(g_dir, ec);
    }
  }
};

[[maybe_unused]] ::testing::Environment* const g_env =
    ::testing::AddGlobalTestEnvironment(new Env);

}  // namespace

const std::string& TestDir() {
  if (g_dir.empty()) {
    char tmpl[] = "/tmp/sfl-test-XXXXXX";
    const char* made = mkdtemp(tmpl);
    if (made == nullptr) std::abort();
    g_dir = made;
    std::filesystem::create_directories(g_dir + "/store");
    std::filesystem::create_directories(g_dir + "/run");
    // Whatever the umask: a run directory others may write is refused.
    std::filesystem::permissions(g_dir + "/run", std::filesystem::perms::owner_all);
    setenv("SFL_STORE_ROOT", (g_dir + "/store").c_str(), 1);
    setenv("SFL_RUN_DIR", (g_dir + "/run").c_str(), 1);
    setenv("SFL_LOG_FILE", (g_dir + "/sfl.log").c_str(), 1);
    setenv("SFL_MONITOR_PROGRAM", MonitorBinary().c_str(), 1);
  }
  return g_dir;
}

std::string StoreRoot() { return TestDir() + "/store"; }
std::string RunDir() { return TestDir() + "/run"; }

int StartChild(const std::function<int()>& body) {
  (void)TestDir();
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int rc = 99;
    try {
      rc = body();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "child %d: %s\n", static_cast<int>(getpid()), e.what());
      rc = 99;
    }
    std::fflush(nullptr);
    os_ExitNow(rc);
  }
  return static_cast<int>(pid);
}

int WaitChild(int pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int RunInChild(const std::function<int()>& body) { return WaitChild(StartChild(body)); }

std::string MonitorBinary() {
  const char* bin = std::getenv("SFL_TEST_BIN_DIR");
  return std::string(bin != nullptr ? bin : ".") + "/bin/sfl-monitor";
}

std::string RunMonitor(const std::string& args, int* code) {
  const std::string cmd = MonitorBinary() + " " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  std::string out;
  char buf[256];
  while (p != nullptr && fgets(buf, sizeof buf, p) != nullptr) out += buf;
  const int status = p != nullptr ? pclose(p) : -1;
  *code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

int StartService(const std::vector<std::string>& args) {
  const std::string dir = RunDir();
  std::vector<std::string> argv = {MonitorBinary(), "--foreground", "--run-dir", dir};
  argv.insert(argv.end(), args.begin(), args.end());
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    std::vector<char*> cargv;
    for (std::string& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    execv(cargv[0], cargv.data());
    os_ExitNow(127);
  }
  for (int i = 0; i < 1000; ++i) {
    ml_State st;
    if (ml_ReadState(dir, &st) && st.MainPid == pid && ml_ServiceAlive(dir, st)) return pid;
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return -1;  // it gave up
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

void StopService() {
  const std::string dir = RunDir();
  ml_State st;
  if (!ml_ReadState(dir, &st) || st.MainPid <= 0 || st.MainPid == getpid()) return;
  if (!ml_ServiceAlive(dir, st)) return;
  const pid_t pid = st.MainPid;
  kill(pid, SIGTERM);
  for (int i = 0; i < 500; ++i) {
    waitpid(pid, nullptr, WNOHANG);  // reaps an explicit instance; fails harmlessly otherwise
    if (ml_CheckPid(pid) != 1) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, WNOHANG);
}

}  // namespace sfltest
