// Benchmark helpers: the payload pattern and its checks, time, disk usage
// and directory handling.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "bench.h"

namespace bench {

const char* DurabilityName(Durability d) { return d == Durability::Async ? "async" : "sync"; }

const uint8_t* Pattern() {
  static std::vector<uint8_t> pattern = [] {
    std::vector<uint8_t> p(65536);
    Rng rng(42);
    for (auto& b : p) b = static_cast<uint8_t>(rng.Next() >> 24);
    return p;
  }();
  return pattern.data();
}

namespace {
constexpr uint32_t kStampMagic = 0x424C4653;  // "SFLB"
constexpr uint32_t kStampSize = 16;

void Put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t Get32(const uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
}  // namespace

void FillPayload(uint8_t* buf, uint32_t size, uint32_t id, uint32_t sub) {
  std::memcpy(buf, Pattern(), size);
  StampPayload(buf, size, id, sub);
}

void StampPayload(uint8_t* buf, uint32_t size, uint32_t id, uint32_t sub) {
  if (size < kStampSize) return;
  Put32(buf, kStampMagic);
  Put32(buf + 4, id);
  Put32(buf + 8, sub);
  Put32(buf + 12, size);
}

bool CheckPayload(const uint8_t* buf, uint32_t size, uint32_t id, uint32_t sub) {
  if (size < kStampSize) return std::memcmp(buf, Pattern(), size) == 0;
  return Get32(buf) == kStampMagic && Get32(buf + 4) == id && Get32(buf + 8) == sub &&
         Get32(buf + 12) == size &&
         std::memcmp(buf + kStampSize, Pattern() + kStampSize, size - kStampSize) == 0;
}

uint32_t BlockSize(uint32_t i) {
  Rng rng(1000003ull + i);
  return kMinBlock + rng.Below(kMaxBlock - kMinBlock + 1);
}

uint64_t PayloadBytesPerMessage() {
  uint64_t n = 0;
  for (uint32_t s : kPartSizes) n += s;
  return n;
}

double Now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

uint64_t DiskBytes(const std::string& dir) {
  uint64_t total = 0;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    struct stat st {};
    if (lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      total += static_cast<uint64_t>(st.st_blocks) * 512;
    }
  }
  return total;
}

void MakeDirs(const std::string& dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) Fail("cannot create %s: %s", dir.c_str(), ec.message().c_str());
}

void RemoveTree(const std::string& dir) {
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
}

void Fail(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::fprintf(stderr, "sfl_bench: ");
  std::vfprintf(stderr, fmt, ap);
  std::fprintf(stderr, "\n");
  va_end(ap);
  std::exit(2);
}

void AddPercentiles(Figures& f, const std::string& name, std::vector<double> us) {
  if (us.empty()) return;
  std::sort(us.begin(), us.end());
  auto at = [&](double q) {
    size_t i = static_cast<size_t>(q * static_cast<double>(us.size()));
    return us[i < us.size() ? i : us.size() - 1];
  };
  f["lat_" + name + "_p50"] = at(0.50);
  f["lat_" + name + "_p99"] = at(0.99);
  f["lat_" + name + "_p999"] = at(0.999);
}


void LoadLatencies(const std::string& path, std::vector<double>* out) {
  FILE* f = std::fopen(path.c_str(), "rb");
  double v;
  while (f != nullptr && std::fread(&v, sizeof v, 1, f) == 1) out->push_back(v);
  if (f != nullptr) std::fclose(f);
  std::remove(path.c_str());
}

Together RunTogether(int n, const std::function<int(int i, int startFd, int resultFd)>& work,
                     const char* what) {
  int start[2];
  int results[2];
  if (pipe(start) != 0 || pipe(results) != 0) Fail("pipe");
  std::fflush(nullptr);
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) {
    pid_t pid = fork();
    if (pid < 0) Fail("fork");
    if (pid == 0) {
      close(start[1]);
      close(results[0]);
      _exit(work(i, start[0], results[1]));
    }
    pids.push_back(pid);
  }
  close(start[0]);
  close(results[1]);
  usleep(200000);  // let every process finish opening before the clock starts
  Together t;
  const double t0 = Now();
  close(start[1]);
  int failed = 0;
  for (pid_t pid : pids) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
  }
  t.seconds = Now() - t0;
  for (int i = 0; i < n; ++i) {
    int64_t c = -1;
    if (read(results[0], &c, sizeof c) != sizeof c || c < 0) t.callsKnown = false;
    t.calls += c;
  }
  close(results[0]);
  if (failed != 0) Fail("%d %s failed or read wrong data", failed, what);
  return t;
}

}  // namespace bench
