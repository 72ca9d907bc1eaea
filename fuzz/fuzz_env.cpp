// Fuzz support: the private directory, the sink stream, fresh references.
#include "fuzz_env.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "ml.h"

#ifndef SFL_FUZZ_MONITOR
#error "SFL_FUZZ_MONITOR must name the built sfl-monitor program"
#endif

namespace sflfuzz {
namespace {

std::string g_dir;
FILE* g_sink = nullptr;
uint32_t g_next = 1;

// Stops the service this process started in its run directory, then
// removes the directory.
void Cleanup() {
  ml_State st;
  const std::string run = g_dir + "/run";
  if (ml_ReadState(run, &st) && st.MainPid > 0 && st.MainPid != getpid()) {
    kill(st.MainPid, SIGTERM);
    for (int i = 0; i < 300 && ml_CheckPid(st.MainPid) == 1; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::error_code ec;
  std::filesystem::remove_all(g_dir, ec);
}

}  // namespace

void Init() {
  if (!g_dir.empty()) return;
  char tmpl[] = "/tmp/sfl-fuzz-XXXXXX";
  const char* made = mkdtemp(tmpl);
  if (made == nullptr) abort();
  g_dir = made;
  std::filesystem::create_directories(g_dir + "/store");
  std::filesystem::create_directories(g_dir + "/run");
  setenv("SFL_STORE_ROOT", (g_dir + "/store").c_str(), 1);
  setenv("SFL_RUN_DIR", (g_dir + "/run").c_str(), 1);
  setenv("SFL_LOG_FILE", "/dev/null", 1);
  setenv("SFL_MONITOR_PROGRAM", SFL_FUZZ_MONITOR, 1);
  setenv("SFL_MONITOR_IDLE_SECONDS", "5", 1);
  // Nothing here needs to reach the disk: no flushes.
  setenv("SFL_ALL_ASYNC_IO", "1", 1);
  g_sink = fopen("/dev/null", "w");
  if (g_sink == nullptr) abort();
  // The integrity check prints its findings on standard output.
  int null = open("/dev/null", O_WRONLY);
  if (null < 0 || dup2(null, 1) < 0) abort();
  close(null);
  atexit(Cleanup);
}

FILE* Sink() { return g_sink; }

sfl_ItemRef FreshRef(bool temporary) {
  sfl_ItemRef ref{};
  ref.Domain = temporary ? 4 : 2;
  ref.SubDomain = 7;
  ref.FileId = g_next++;
  return ref;
}

void WriteFile(const sfl_ItemRef& ref, const uint8_t* data, size_t size) {
  char path[4096];
  im_ItemRef2FName(&ref, path, sizeof path);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) abort();
  size_t done = 0;
  while (done < size) {
    ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) abort();
    done += static_cast<size_t>(n);
  }
  close(fd);
}

void RemoveFile(const sfl_ItemRef& ref) {
  char path[4096];
  im_ItemRef2FName(&ref, path, sizeof path);
  unlink(path);
  unlink((std::string(path) + "#.new").c_str());  // a rebuild's leftover
}

}  // namespace sflfuzz
