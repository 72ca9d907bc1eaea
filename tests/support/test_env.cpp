// Per-process test environment: a private directory, configured through the
// environment before any test runs, removed afterwards.
#include "test_env.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "er.h"

namespace sfltest {
namespace {

std::string g_dir;

class Env : public ::testing::Environment {
 public:
  void SetUp() override { (void)TestDir(); }
  void TearDown() override {
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
    setenv("SFL_STORE_ROOT", (g_dir + "/store").c_str(), 1);
    setenv("SFL_RUN_DIR", (g_dir + "/run").c_str(), 1);
    setenv("SFL_LOG_FILE", (g_dir + "/sfl.log").c_str(), 1);
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
    _exit(rc);
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

}  // namespace sfltest
