// sfl_bench: runs each workload on each system side by side, repeats every
// run (alternating the order of the systems), and prints medians with the
// ratio sfl / other; the raw figures go to a JSON file.
//
//   sfl_bench [--out FILE] [--reps N] [--dir DIR] [--scale F] [--sync-scale F]
//             [--sync-block-scale F] [--strace-scale F] [--no-strace]
//             [--workloads limit,W1,W2,W3,W4,W5,W6,C1]
//
// A flush costs milliseconds on an ordinary disk, so the flushing runs
// use fewer messages (--sync-scale, default 0.1) and blocks
// (--sync-block-scale, default 0.04); every figure is per operation.
//
// Every measured run is a child process (this program re-executed with
// --run): the sync keys are read once per process, and the child's peak
// memory comes from wait4. System calls per operation come from the
// library's own os_ counters for sfl, and from `strace -c -f` (a separate,
// untimed pass, corrected by an idle run's start-up calls) for every system.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench.h"
#include "ml.h"

namespace bench {
namespace {

struct Options {
  std::string out = "bench-results.json";
  std::string dir;
  int reps = 5;
  double scale = 1.0;
  double syncScale = 0.1;        // W1 messages when flushing
  double syncBlockScale = 0.04;  // W2 blocks when flushing
  double straceScale = 0.1;
  bool strace = true;
  std::vector<std::string> workloads = {"limit", "W1", "W2", "W3", "W4", "W5", "W6", "C1"};
};

struct Run {
  std::string workload, system, mode;
  int rep = 0;
  bool ok = false;
  long maxrssKb = 0;
  Figures f;
};

struct StraceRun {
  std::string workload, system, mode;
  bool ok = false;
  double calls = 0, idleCalls = 0, ops = 0;
};

std::vector<std::string> SystemsFor(const std::string& w) {
  if (w == "C1") return {"sfl"};
  if (w == "limit") return {"msgq", "msgq-poll", "msgq-qos", "file", "create", "im-new", "im-pool",
                             "lock", "pread", "pwrite", "flush", "w3f-wait", "w3f-poll", "w3f-qos-wait", "w3f-qos-poll"};
  // W3 runs sfl with the default cold store and with a tuned one, and with
  // services of two and four queue pairs (its four readers share one
  // serving process otherwise).
  if (w == "W3") return {"sfl", "sfl-qos", "sfl-cold", "sfl-2pairs", "sfl-4pairs", "files", "sqlite"};
  // W1 and W4 empty and make containers all the time: sfl-pool runs them
  // with the container pool on (4 files per directory).
  // Every sfl run that exchanges with the interest service runs again as
  // sfl-qos, its service holding a CPU latency request.
  if (w == "W1" || w == "W4") return {"sfl", "sfl-qos", "sfl-pool", "files", "sqlite"};
  if (w == "W2") return {"sfl", "sqlite"};
  // W5: the service with one queue pair (sfl), two and four.
  if (w == "W5") return {"sfl", "sfl-2pairs", "sfl-4pairs", "sfl-qos", "files", "sqlite"};
  // W6 makes containers after others emptied: the pool's own case. PostMark
  // runs it on files (its non-flushing run only; see Driver).
  if (w == "W6") return {"sfl", "sfl-qos", "sfl-pool", "files", "sqlite", "postmark"};
  return {"sfl", "sfl-qos", "files", "sqlite"};
}

// Sizes of the timed runs of a workload. W3 only reads, so the flushing
// mode does not shrink its store or its reads.
Sizes SizesFor(const Options& o, const std::string& w, Durability d) {
  Sizes s;
  bool shrink = d == Durability::Sync && w != "W3";
  double k = o.scale * (shrink ? o.syncScale : 1.0);
  double kb = o.scale * (shrink ? o.syncBlockScale : 1.0);
  s.messages = std::max(10, static_cast<int>(std::lround(s.messages * k)));
  s.blocks = std::max(100, static_cast<int>(std::lround(s.blocks * kb)));
  s.readsPerReader = std::max(50, static_cast<int>(std::lround(s.readsPerReader * o.scale)));
  s.w5Rounds = std::max(5, static_cast<int>(std::lround(s.w5Rounds * k)));
  s.w5Shared = std::max(20, static_cast<int>(std::lround(s.w5Shared * o.scale)));
  // W6 flushes at every creation and append: half W1's share again.
  const double k6 = shrink ? k * 0.5 : k;
  s.w6Items = std::max(50, static_cast<int>(std::lround(s.w6Items * k6)));
  s.w6Transactions = std::max(500, static_cast<int>(std::lround(s.w6Transactions * k6)));
  // C1 rebuilds a 40,000-block item; only the rebuild is timed.
  if (w == "C1") s.blocks = std::max(100, static_cast<int>(std::lround(40000 * o.scale)));
  return s;
}

// Sizes of the untimed strace pass: the timed sizes, capped at a fraction
// of the full ones (tracing slows every call down).
Sizes StraceSizes(const Options& o, const Sizes& timed) {
  Sizes full;
  Sizes s = timed;
  auto cap = [&](int v, int f) { return std::min(v, std::max(10, static_cast<int>(std::lround(f * o.scale * o.straceScale)))); };
  s.messages = cap(timed.messages, full.messages);
  s.blocks = cap(timed.blocks, full.blocks);
  s.readsPerReader = cap(timed.readsPerReader, full.readsPerReader);
  s.measureDisk = false;
  return s;
}

std::vector<std::string> RunArgs(const std::string& w, const std::string& sys, Durability d,
                                 const std::string& dir, const Sizes& s) {
  return {"--run", w, sys, DurabilityName(d), "--dir", dir,
          "--messages", std::to_string(s.messages), "--blocks", std::to_string(s.blocks),
          "--reads", std::to_string(s.readsPerReader), "--disk", s.measureDisk ? "1" : "0",
          "--w5-rounds", std::to_string(s.w5Rounds), "--w5-shared", std::to_string(s.w5Shared),
          "--w6-items", std::to_string(s.w6Items), "--w6-transactions", std::to_string(s.w6Transactions)};
}

// Starts argv with stdout to a pipe; returns the child's output, exit status
// and peak memory.
bool Spawn(const std::vector<std::string>& argv, std::string* out, long* maxrssKb) {
  int fds[2];
  if (pipe(fds) != 0) Fail("pipe");
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) Fail("fork");
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) out->append(buf, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  rusage ru{};
  while (wait4(pid, &status, 0, &ru) < 0 && errno == EINTR) {
  }
  if (maxrssKb != nullptr) *maxrssKb = ru.ru_maxrss;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

Figures ParseFigures(const std::string& text) {
  Figures f;
  std::istringstream in(text);
  std::string key;
  double v;
  while (in >> key >> v) f[key] = v;
  return f;
}

std::string Self() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) Fail("cannot find own executable");
  buf[n] = 0;
  return buf;
}

Run MeasureOnce(const std::string& w, const std::string& sys, Durability d, const std::string& dir,
                const Sizes& s, int rep) {
  Run r;
  r.workload = w;
  r.system = sys;
  r.mode = DurabilityName(d);
  r.rep = rep;
  std::vector<std::string> argv = {Self()};
  for (auto& a : RunArgs(w, sys, d, dir, s)) argv.push_back(a);
  std::string out;
  r.ok = Spawn(argv, &out, &r.maxrssKb);
  r.f = ParseFigures(out);
  if (r.ok && r.f.count("ops") == 0) r.ok = false;
  std::fprintf(stderr, "  %-3s %-6s %-5s rep %d: %s", w.c_str(), sys.c_str(), r.mode.c_str(), rep,
               r.ok ? "" : "FAILED\n");
  if (r.ok) {
    std::fprintf(stderr, "%.0f ops/s (%.2f s)\n", r.f["ops"] / r.f["seconds"], r.f["seconds"]);
  }
  return r;
}

// The total of calls in `strace -c` output ("... calls errors syscall"
// columns, last line "total").
double StraceTotal(const std::string& path) {
  std::ifstream in(path);
  std::string line, last;
  while (std::getline(in, line)) {
    if (line.find("total") != std::string::npos) last = line;
  }
  std::istringstream words(last);
  std::vector<std::string> tok;
  std::string t;
  while (words >> t) tok.push_back(t);
  if (tok.size() < 5) return -1;
  return std::atof(tok[3].c_str());
}

double StraceCalls(const std::string& w, const std::string& sys, Durability d,
                   const std::string& dir, const Sizes& s, double* ops) {
  std::string path = dir + ".strace";
  std::vector<std::string> argv = {"strace", "-f", "-c", "-o", path, "--", Self()};
  for (auto& a : RunArgs(w, sys, d, dir, s)) argv.push_back(a);
  std::string out;
  bool ok = Spawn(argv, &out, nullptr);
  double calls = ok ? StraceTotal(path) : -1;
  if (ops != nullptr) *ops = ParseFigures(out)["ops"];
  unlink(path.c_str());
  return calls;
}

bool HavePostmark() {
  std::string out;
  return Spawn({"sh", "-c", "command -v postmark"}, &out, nullptr);
}

bool HaveStrace() {
  std::string out;
  return Spawn({"strace", "-V"}, &out, nullptr);
}

double Median(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

std::string Num(double v) {
  if (std::isnan(v) || std::isinf(v)) return "null";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

struct Summary {
  std::string workload, mode, system;
  int runs = 0, failed = 0;
  double opsPerSec = NAN, ownPerOp = NAN, stracePerOp = NAN, diskRatio = NAN, diskRatioEnd = NAN;
  double maxrssMb = NAN, ratio = NAN;
  double indexRecords = NAN, pwrites = NAN;  // C1: the new tree's records, the rebuild's writes
  Sizes sizes;
  std::map<std::string, double> latency;  // "lat_*" figures, median over the runs
  double floorUs = NAN;  // what the run's counted calls must cost, per operation (sfl runs)
  // sfl-qos: runs whose service was seen holding its CPU latency request
  // at the end of the run, of the runs that looked.
  int qosHeld = 0, qosLooked = 0;
};

// The floor of one sfl run, in microseconds per operation: every call the
// library counted, priced at what the `limit` row of the same run measured
// for it. A message exchange costs a round trip (msgq, or msgq-qos for
// sfl-qos); a record lock half a take-and-release; an open an open and
// close of a small file less its read; a rename, unlink or link what
// creating and removing a file costs beyond an open; a write or truncate
// a pwrite; a flush (fdatasync, fsync) what a flush of one rewritten
// record adds to its write; any other call a pread (the cheapest call
// measured).
double FloorUs(const Figures& f, const std::vector<Summary>& summaries, bool qos) {
  std::map<std::string, double> us;
  for (const auto& sm : summaries)
    if (sm.workload == "limit" && sm.opsPerSec > 0) us[sm.system] = 1e6 / sm.opsPerSec;
  for (const char* k : {"msgq", "msgq-qos", "file", "create", "lock", "pread", "pwrite"})
    if (us.count(k) == 0) return NAN;
  if (f.count("ops") == 0 || f.at("ops") <= 0) return NAN;
  const double open = std::max(us["file"] - us["pread"], us["pread"]);
  const double entry = std::max(us["create"] - us["file"], us["pread"]);
  const double flush = us.count("flush") ? std::max(us["flush"] - us["pwrite"], us["pread"]) : NAN;
  double total = 0;
  bool any = false;
  for (const auto& [key, n] : f) {
    if (key.rfind("os_", 0) != 0) continue;
    const std::string kind = key.substr(3);
    any = true;
    if (kind == "malloc" || kind == "msgrcv" || kind == "sleep") continue;
    if (kind == "fdatasync" || kind == "fsync") {
      if (n > 0 && std::isnan(flush)) return NAN;
      if (n > 0) total += n * flush;
      continue;
    }
    double unit = us["pread"];
    if (kind == "msgsnd") unit = qos ? us["msgq-qos"] : us["msgq"];
    else if (kind == "lock") unit = us["lock"] / 2;
    else if (kind == "open") unit = open;
    else if (kind == "rename" || kind == "unlink" || kind == "link") unit = entry;
    else if (kind == "pwrite" || kind == "write" || kind == "ftruncate") unit = us["pwrite"];
    total += n * unit;
  }
  return any ? total / f.at("ops") : NAN;
}

// W3's floor is measured rather than priced: its readers wait on a service
// that serves them all, so their calls do not add up to its time. The
// `limit` row's w3f-* runs have the same readers do only what a read by
// reference must, their replies waited for or polled; the floor is the
// faster of the two (with the CPU latency request held, for sfl-qos).
// Given for the runs with one queue pair and flushing off.
double W3FloorUs(const std::vector<Summary>& summaries, const std::string& system) {
  if (system != "sfl" && system != "sfl-cold" && system != "sfl-qos") return NAN;
  const std::string prefix = system == "sfl-qos" ? "w3f-qos-" : "w3f-";
  double best = 0;
  for (const auto& sm : summaries)
    if (sm.workload == "limit" && (sm.system == prefix + "wait" || sm.system == prefix + "poll"))
      best = std::max(best, sm.opsPerSec);
  return best > 0 ? 1e6 / best : NAN;
}

int Driver(const Options& o) {
  std::string base = o.dir;
  bool ownBase = base.empty();
  if (ownBase) {
    const char* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp != nullptr ? tmp : "/tmp") + "/sfl-bench-XXXXXX";
    std::vector<char> b(tmpl.begin(), tmpl.end());
    b.push_back(0);
    if (mkdtemp(b.data()) == nullptr) Fail("mkdtemp");
    base = b.data();
  }
  MakeDirs(base);
  // One interest service for every sfl run, kept alive between them.
  std::string runDir = base + "/run";
  MakeDirs(runDir);
  setenv("SFL_RUN_DIR", runDir.c_str(), 1);
  if (std::getenv("SFL_MONITOR_IDLE_SECONDS") == nullptr) setenv("SFL_MONITOR_IDLE_SECONDS", "300", 1);
  bool strace = o.strace && HaveStrace();
  const bool havePostmark = HavePostmark();
  std::vector<Run> runs;
  std::vector<StraceRun> straces;
  std::vector<Summary> summaries;
  int counter = 0;
  const Durability modes[] = {Durability::Async, Durability::Sync};

  for (const auto& w : o.workloads) {
    for (Durability d : modes) {
      // The rebuild suspends syncing itself; building its item with every
      // append flushed would only take long.
      if ((w == "C1" || w == "limit") && d == Durability::Sync) continue;
      std::vector<std::string> systems = SystemsFor(w);
      // PostMark never flushes; without it installed its row is left out.
      if (w == "W6" && (d == Durability::Sync || !havePostmark))
        systems.erase(std::remove(systems.begin(), systems.end(), "postmark"), systems.end());
      // W3 and W5 work on a store built once per system and kept between
      // repetitions (W5's processes delete what they add).
      const bool shared = w == "W3" || w == "W5";
      const std::string sharedPrefix = base + (w == "W3" ? "/w3-" : "/w5-");
      Sizes s = SizesFor(o, w, d);
      std::fprintf(stderr, "%s %s: messages %d, blocks %d, reads/reader %d\n", w.c_str(),
                   DurabilityName(d), s.messages, s.blocks, s.readsPerReader);
      // W3 reads a store built once per system (untimed, not flushed).
      // A system whose store cannot be built is still run, and fails.
      if (shared) {
        for (const auto& sys : systems) {
          std::string dir = sharedPrefix + sys + "-" + DurabilityName(d);
          std::vector<std::string> argv = {Self()};
          for (auto& a : RunArgs(w + "build", sys, Durability::Async, dir, s)) argv.push_back(a);
          std::string out;
          if (!Spawn(argv, &out, nullptr)) {
            std::fprintf(stderr, "building the %s store for %s failed\n", w.c_str(), sys.c_str());
          }
        }
      }
      for (int rep = 0; rep < o.reps; ++rep) {
        std::vector<std::string> order = systems;
        if (rep % 2 == 1) std::reverse(order.begin(), order.end());
        for (const auto& sys : order) {
          std::string dir = shared ? sharedPrefix + sys + "-" + DurabilityName(d)
                                   : base + "/run-" + std::to_string(counter++);
          runs.push_back(MeasureOnce(w, sys, d, dir, s, rep));
          if (!shared) RemoveTree(dir);
        }
      }
      // Not traced: C1 and limit, and W5 and W6, whose services of their
      // own (and PostMark) strace -f would wait for.
      if (strace && w != "C1" && w != "limit" && w != "W5" && w != "W6") {
        // A service started under strace -f would be traced (and waited
        // for) too: make sure one is running first.
        if (ml_EnsureService(ml_OnDemandOptions()) != 0) Fail("no interest service");
        Sizes ss = StraceSizes(o, s);
        for (const auto& sys : systems) {
          // These start a service of their own, which strace -f would wait for.
          if (sys == "sfl-qos" || sys == "sfl-2pairs" || sys == "sfl-4pairs") continue;
          StraceRun sr;
          sr.workload = w;
          sr.system = sys;
          sr.mode = DurabilityName(d);
          std::string dir = w == "W3" ? base + "/w3-" + sys + "-" + DurabilityName(d)
                                      : base + "/run-" + std::to_string(counter++);
          if (w == "W3") {
            sr.idleCalls = StraceCalls("idleread", sys, d, dir, ss, nullptr);
          } else {
            std::string idleDir = base + "/idle-" + std::to_string(counter++);
            sr.idleCalls = StraceCalls("idle", sys, d, idleDir, ss, nullptr);
            RemoveTree(idleDir);
          }
          sr.calls = StraceCalls(w, sys, d, dir, ss, &sr.ops);
          if (w != "W3") RemoveTree(dir);
          sr.ok = sr.calls >= 0 && sr.idleCalls >= 0 && sr.ops > 0;
          straces.push_back(sr);
        }
      }
      // Medians.
      double sflOps = NAN;
      for (const auto& sys : systems) {
        Summary sm;
        sm.workload = w;
        sm.mode = DurabilityName(d);
        sm.system = sys;
        sm.sizes = s;
        std::vector<double> ops, own, disk, diskEnd, rss, records, pwrites;
        std::map<std::string, std::vector<double>> lat;
        std::vector<double> floors;
        for (const auto& r : runs) {
          if (r.workload != w || r.system != sys || r.mode != sm.mode) continue;
          ++sm.runs;
          if (!r.ok) {
            ++sm.failed;
            continue;
          }
          Figures f = r.f;
          ops.push_back(f["ops"] / f["seconds"]);
          if (f.count("own_calls")) own.push_back(f["own_calls"] / f["ops"]);
          if (f.count("disk_after_store") && f["payload_after_store"] > 0) {
            disk.push_back(f["disk_after_store"] / f["payload_after_store"]);
          }
          if (f.count("disk_end") && f["payload_end"] > 0) {
            diskEnd.push_back(f["disk_end"] / f["payload_end"]);
          }
          rss.push_back(r.maxrssKb / 1024.0);
          if (f.count("index_records")) records.push_back(f["index_records"]);
          if (f.count("os_pwrite")) pwrites.push_back(f["os_pwrite"]);
          for (const auto& [key, v] : f)
            if (key.rfind("lat_", 0) == 0) lat[key].push_back(v);
          if (f.count("qos_held_us")) {
            ++sm.qosLooked;
            if (f["qos_held_us"] >= 0) ++sm.qosHeld;
          }
          if (sys.rfind("sfl", 0) == 0) {
            const double fl = FloorUs(f, summaries, sys == "sfl-qos");
            if (!std::isnan(fl)) floors.push_back(fl);
          }
        }
        sm.opsPerSec = Median(ops);
        sm.ownPerOp = Median(own);
        sm.diskRatio = Median(disk);
        sm.diskRatioEnd = Median(diskEnd);
        sm.maxrssMb = Median(rss);
        sm.indexRecords = Median(records);
        sm.pwrites = Median(pwrites);
        for (const auto& [key, v] : lat) sm.latency[key] = Median(v);
        sm.floorUs = Median(floors);
        if (w == "W3" && d == Durability::Async) sm.floorUs = W3FloorUs(summaries, sys);
        for (const auto& sr : straces) {
          if (sr.ok && sr.workload == w && sr.system == sys && sr.mode == sm.mode) {
            sm.stracePerOp = (sr.calls - sr.idleCalls) / sr.ops;
          }
        }
        if (sys == "sfl") sflOps = sm.opsPerSec;
        summaries.push_back(sm);
      }
      for (auto& sm : summaries) {
        if (sm.workload == w && sm.mode == DurabilityName(d)) sm.ratio = sflOps / sm.opsPerSec;
      }
    }
  }
  // Stop the service the runs started (it would otherwise wait out its
  // idle time).
  ml_State st;
  if (ml_ReadState(runDir, &st) && st.MainPid > 0) kill(st.MainPid, SIGTERM);
  for (const char* own : {"-qos", "-2pairs", "-4pairs"})
    if (ml_ReadState(runDir + own, &st) && st.MainPid > 0) kill(st.MainPid, SIGTERM);
  if (ownBase) {
    RemoveTree(base);
  } else {
    for (const auto& sm : summaries) {
      RemoveTree(base + "/w3-" + sm.system + "-" + sm.mode);
      RemoveTree(base + "/w5-" + sm.system + "-" + sm.mode);
    }
  }

  // Table.
  std::printf("\n%-3s %-5s %-12s %12s %9s %9s %9s %9s %10s %10s %8s %5s\n", "wl", "mode",
              "system", "ops/s", "sfl/this", "floor/op", "x floor", "calls/op", "disk/data",
              "disk/live", "rss MiB", "runs");
  std::vector<std::string> straceCells;
  for (const auto& sm : summaries) {
    auto cell = [](double v, const char* fmt) {
      static char buf[8][32];
      static int i = 0;
      char* b = buf[i++ % 8];
      if (std::isnan(v)) std::snprintf(b, 32, "-");
      else std::snprintf(b, 32, fmt, v);
      return b;
    };
    const double perOp = sm.opsPerSec > 0 ? 1e6 / sm.opsPerSec : NAN;
    std::printf("%-3s %-5s %-12s %12s %9s %9s %9s %9s %10s %10s %8s %2d/%-2d\n", sm.workload.c_str(),
                sm.mode.c_str(), sm.system.c_str(), cell(sm.opsPerSec, "%.0f"),
                sm.system.rfind("sfl", 0) == 0 ? "" : cell(sm.ratio, "%.2f"),
                cell(sm.floorUs, "%.1f"), cell(perOp / sm.floorUs, "%.2f"), cell(sm.ownPerOp, "%.1f"),
                cell(sm.diskRatio, "%.3f"), cell(sm.diskRatioEnd, "%.3f"), cell(sm.maxrssMb, "%.1f"),
                sm.runs - sm.failed, sm.runs);
    if (!std::isnan(sm.stracePerOp)) straceCells.push_back(sm.workload + " " + sm.mode + " " + sm.system + " " + cell(sm.stracePerOp, "%.1f"));
  }
  if (!straceCells.empty()) {
    std::printf("\nstrace/op (system calls per operation from strace -c -f, untimed pass):");
    for (size_t i = 0; i < straceCells.size(); ++i)
      std::printf("%s%s", i % 4 == 0 ? "\n  " : "; ", straceCells[i].c_str());
    std::printf("\n");
  }
  for (const auto& sm : summaries) {
    if (sm.workload != "C1") continue;
    std::printf("\nC1: rebuild of a %d-block item with a tenth freed: %.0f blocks/s, %.0f index\n"
                "records written in %.0f pwrite calls (median of %d runs)\n",
                sm.sizes.blocks, sm.opsPerSec, sm.indexRecords, sm.pwrites, sm.runs - sm.failed);
  }
  for (const auto& sm : summaries) {
    if (sm.system != "sfl-cold") continue;
    double files = NAN;
    for (const auto& o2 : summaries)
      if (o2.workload == sm.workload && o2.mode == sm.mode && o2.system == "files") files = o2.opsPerSec;
    std::printf("\n%s %s, cold store tuned (sfl-cold: SFL_COLD_STORE_SIZE=%s): %.0f ops/s, %.2f of one\n"
                "file per part (sfl: the default size of 5)\n",
                sm.workload.c_str(), sm.mode.c_str(), kTunedColdStore, sm.opsPerSec, sm.opsPerSec / files);
  }
  {
    bool any = false;
    for (const auto& sm : summaries) {
      if (sm.latency.empty()) continue;
      if (!any) std::printf("\nLatency in microseconds, p50 / p99 / p99.9 (W1 and W5: per message of five\nparts, W5 over all eight processes; W3: per part read by reference; median of\nthe runs):\n");
      any = true;
      std::printf("%-3s %-5s %-10s", sm.workload.c_str(), sm.mode.c_str(), sm.system.c_str());
      for (const char* op : {"store", "read", "delete"}) {
        const std::string k = std::string("lat_") + op + "_p";
        auto it = sm.latency.find(k + "50");
        if (it == sm.latency.end()) continue;
        std::printf("  %s %.0f / %.0f / %.0f", op, it->second, sm.latency.at(k + "99"),
                    sm.latency.at(k + "999"));
      }
      std::printf("\n");
    }
  }
  for (const auto& sm : summaries) {
    if (sm.system != "sfl-qos") continue;
    double plain = NAN, files = NAN, sqlite = NAN;
    for (const auto& o2 : summaries) {
      if (o2.workload != sm.workload || o2.mode != sm.mode) continue;
      if (o2.system == "sfl") plain = o2.opsPerSec;
      if (o2.system == "files") files = o2.opsPerSec;
      if (o2.system == "sqlite") sqlite = o2.opsPerSec;
    }
    std::printf("\n%s %s, the service holding a CPU latency request of 0 (sfl-qos): %.0f ops/s,\n"
                "%.2f of sfl without it, %.2f of one file per part, %.2f of SQLite\n",
                sm.workload.c_str(), sm.mode.c_str(), sm.opsPerSec, sm.opsPerSec / plain,
                sm.opsPerSec / files, sm.opsPerSec / sqlite);
    // A service that holds no request makes this row sfl's again: say so.
    if (sm.qosLooked > 0)
      std::printf("(the service held its request at the end of %d of %d runs)\n", sm.qosHeld,
                  sm.qosLooked);
  }
  for (const auto& sm : summaries) {
    if (sm.system != "sfl-pool") continue;
    double plain = NAN;
    for (const auto& o2 : summaries)
      if (o2.workload == sm.workload && o2.mode == sm.mode && o2.system == "sfl") plain = o2.opsPerSec;
    std::printf("\n%s %s, container pool on (sfl-pool: SFL_CONTAINER_POOL=4): %.0f ops/s; without\n"
                "it (sfl, the default): %.0f ops/s, %.2f times as many\n",
                sm.workload.c_str(), sm.mode.c_str(), sm.opsPerSec, plain, sm.opsPerSec / plain);
  }
  {
    bool any = false;
    for (const auto& sm : summaries) {
      if (sm.workload != "W6") continue;
      if (!any) std::printf("\nW6 transactions per second (the transaction phase alone; postmark: its own\nfigure, whose clock counts whole seconds):\n");
      any = true;
      std::vector<double> tx;
      for (const auto& r : runs)
        if (r.ok && r.workload == "W6" && r.system == sm.system && r.mode == sm.mode)
          tx.push_back(r.f.count("tx_per_s") ? r.f.at("tx_per_s") : r.f.count("pm_tx_per_s") ? r.f.at("pm_tx_per_s") : NAN);
      std::printf("  %-5s %-10s %.0f\n", sm.mode.c_str(), sm.system.c_str(), Median(tx));
    }
  }
  {
    double imNew = NAN, imPool = NAN;
    double rt = NAN, rtPoll = NAN, rtQos = NAN, file = NAN, create = NAN, lock = NAN, rd = NAN, wr = NAN;
    double flushed = NAN;
    std::map<std::string, double> w3f;
    for (const auto& sm : summaries) {
      if (sm.workload != "limit") continue;
      if (sm.system == "msgq") rt = 1e6 / sm.opsPerSec;
      if (sm.system == "msgq-poll") rtPoll = 1e6 / sm.opsPerSec;
      if (sm.system == "msgq-qos") rtQos = 1e6 / sm.opsPerSec;
      if (sm.system == "im-new") imNew = 1e6 / sm.opsPerSec;
      if (sm.system == "im-pool") imPool = 1e6 / sm.opsPerSec;
      if (sm.system == "file") file = 1e6 / sm.opsPerSec;
      if (sm.system == "create") create = 1e6 / sm.opsPerSec;
      if (sm.system == "lock") lock = 1e6 / sm.opsPerSec;
      if (sm.system == "pread") rd = 1e6 / sm.opsPerSec;
      if (sm.system == "pwrite") wr = 1e6 / sm.opsPerSec;
      if (sm.system == "flush") flushed = 1e6 / sm.opsPerSec;
      if (sm.system.rfind("w3f-", 0) == 0) w3f[sm.system] = sm.opsPerSec;
    }
    if (!std::isnan(rt) || !std::isnan(file)) {
      std::printf("\nlimit: a message round trip between two processes %.1f us waiting in msgrcv,\n"
                  "%.1f us polling; open, read and close of a 4 KiB file %.1f us; creating,\n"
                  "writing, closing and unlinking a 4 KiB file %.1f us; a record lock taken and\n"
                  "released %.2f us; a 384-byte pread %.2f us, pwrite %.2f us\n",
                  rt, rtPoll, file, create, lock, rd, wr);
      std::printf("the round trip with a CPU latency request of 0 held: %.1f us\n", rtQos);
      std::printf("a 384-byte record rewritten and flushed (fdatasync): %.0f us\n", flushed);
      std::printf("a new container file, 4 KiB written and given up: %.1f us made anew,\n"
                  "%.1f us taken from the container pool\n", imNew, imPool);
      auto at = [&](const char* k) { return w3f.count(k) != 0 ? w3f[k] : NAN; };
      std::printf("W3's floor, its readers doing only three exchanges with an echo process and\n"
                  "an open, a read and a close of a file per read: %.0f reads/s waiting for the\n"
                  "replies, %.0f polling; with the CPU latency request held %.0f and %.0f\n",
                  at("w3f-wait"), at("w3f-poll"), at("w3f-qos-wait"), at("w3f-qos-poll"));
    }
  }
  // The figures of the first successful sfl run of a workload and mode
  // that carries `key`, or null.
  auto firstSflRun = [&](const char* workload, const char* mode, const char* key) -> const Figures* {
    for (const auto& r : runs)
      if (r.workload == workload && r.system == "sfl" && r.mode == mode && r.ok && r.f.count(key))
        return &r.f;
    return nullptr;
  };
  if (const Figures* p = firstSflRun("W1", "async", "probe_read_handle")) {
    Figures f = *p;
    std::printf("\nsfl system calls per read of a 4 KiB item: %.0f on an open item handle; %.0f to\n"
                "open, read and close an item of an open container; %.0f by reference with the\n"
                "container in the cold store; %.0f by reference with the container closed\n",
                f["probe_read_handle"], f["probe_read_open_container"], f["probe_read_cold"],
                f["probe_read_closed"]);
  }
  // Calls by phase.
  for (const char* mode : {"async", "sync"}) {
    if (const Figures* p = firstSflRun("W1", mode, "calls_store_msg")) {
      Figures f = *p;
      std::printf("\nsfl system calls per W1 message (%s): %.1f to store it (create, five parts,\n"
                  "close), %.1f to read it (open, five parts, close), %.1f to delete it\n",
                  mode, f["calls_store_msg"], f["calls_read_msg"], f["calls_delete_msg"]);
    }
    if (const Figures* p = firstSflRun("W2", mode, "calls_append")) {
      Figures f = *p;
      std::printf("\nsfl system calls per W2 operation (%s): %.1f per append, %.1f per random\n"
                  "read, %.1f per free\n",
                  mode, f["calls_append"], f["calls_read"], f["calls_free"]);
    }
  }
  std::printf(
      "\nops/s: median over runs; sfl/this: sfl's ops/s divided by this system's (above 1: sfl\n"
      "faster); calls/op: the library's own os_ counters (sfl only); strace/op: strace -c -f\n"
      "totals less an idle run's, per operation; disk/data: bytes on disk (st_blocks) per byte\n"
      "of payload after storing; disk/live: the same at the end, per byte still live.\n");

  // JSON.
  FILE* j = std::fopen(o.out.c_str(), "w");
  if (j == nullptr) Fail("cannot write %s", o.out.c_str());
  utsname u{};
  uname(&u);
  std::fprintf(j, "{\n  \"machine\": {\"cpus\": %ld, \"kernel\": \"%s\", \"arch\": \"%s\"},\n",
               sysconf(_SC_NPROCESSORS_ONLN), u.release, u.machine);
  std::fprintf(j,
               "  \"settings\": {\"reps\": %d, \"scale\": %s, \"sync_scale\": %s, "
               "\"sync_block_scale\": %s, \"strace_scale\": %s, \"strace\": %s},\n",
               o.reps, Num(o.scale).c_str(), Num(o.syncScale).c_str(),
               Num(o.syncBlockScale).c_str(), Num(o.straceScale).c_str(),
               strace ? "true" : "false");
  std::fprintf(j, "  \"runs\": [\n");
  for (size_t i = 0; i < runs.size(); ++i) {
    const Run& r = runs[i];
    std::fprintf(j,
                 "    {\"workload\": \"%s\", \"system\": \"%s\", \"mode\": \"%s\", \"rep\": %d, "
                 "\"ok\": %s, \"maxrss_kb\": %ld, \"figures\": {",
                 r.workload.c_str(), r.system.c_str(), r.mode.c_str(), r.rep,
                 r.ok ? "true" : "false", r.maxrssKb);
    bool first = true;
    for (const auto& [k, v] : r.f) {
      std::fprintf(j, "%s\"%s\": %s", first ? "" : ", ", k.c_str(), Num(v).c_str());
      first = false;
    }
    std::fprintf(j, "}}%s\n", i + 1 < runs.size() ? "," : "");
  }
  std::fprintf(j, "  ],\n  \"strace\": [\n");
  for (size_t i = 0; i < straces.size(); ++i) {
    const StraceRun& s = straces[i];
    std::fprintf(j,
                 "    {\"workload\": \"%s\", \"system\": \"%s\", \"mode\": \"%s\", \"ok\": %s, "
                 "\"calls\": %s, \"idle_calls\": %s, \"ops\": %s}%s\n",
                 s.workload.c_str(), s.system.c_str(), s.mode.c_str(), s.ok ? "true" : "false",
                 Num(s.calls).c_str(), Num(s.idleCalls).c_str(), Num(s.ops).c_str(),
                 i + 1 < straces.size() ? "," : "");
  }
  std::fprintf(j, "  ],\n  \"summary\": [\n");
  for (size_t i = 0; i < summaries.size(); ++i) {
    const Summary& s = summaries[i];
    std::fprintf(j,
                 "    {\"workload\": \"%s\", \"mode\": \"%s\", \"system\": \"%s\", \"runs\": %d, "
                 "\"failed\": %d, \"messages\": %d, \"blocks\": %d, \"reads_per_reader\": %d, "
                 "\"median_ops_per_s\": %s, \"sfl_over_this\": %s, \"own_calls_per_op\": %s, "
                 "\"strace_calls_per_op\": %s, \"disk_per_payload\": %s, "
                 "\"disk_per_live_payload_end\": %s, \"median_maxrss_mib\": %s, "
                 "\"index_records\": %s, \"rebuild_pwrites\": %s, \"floor_us_per_op\": %s}%s\n",
                 s.workload.c_str(), s.mode.c_str(), s.system.c_str(), s.runs, s.failed,
                 s.sizes.messages, s.sizes.blocks, s.sizes.readsPerReader,
                 Num(s.opsPerSec).c_str(), Num(s.ratio).c_str(), Num(s.ownPerOp).c_str(),
                 Num(s.stracePerOp).c_str(), Num(s.diskRatio).c_str(),
                 Num(s.diskRatioEnd).c_str(), Num(s.maxrssMb).c_str(),
                 Num(s.indexRecords).c_str(), Num(s.pwrites).c_str(), Num(s.floorUs).c_str(),
                 i + 1 < summaries.size() ? "," : "");
  }
  std::fprintf(j, "  ]\n}\n");
  std::fclose(j);
  std::fprintf(stderr, "raw figures written to %s\n", o.out.c_str());
  for (const auto& s : summaries) {
    if (s.failed != 0) return 1;
  }
  return 0;
}

int Child(int argc, char** argv) {
  // --run W SYSTEM MODE --dir D --messages n --blocks n --reads n
  if (argc < 5) Fail("--run needs workload, system and mode");
  std::string w = argv[2], sys = argv[3], mode = argv[4], dir;
  Sizes s;
  for (int i = 5; i + 1 < argc; i += 2) {
    std::string k = argv[i];
    if (k == "--dir") dir = argv[i + 1];
    else if (k == "--messages") s.messages = std::atoi(argv[i + 1]);
    else if (k == "--blocks") s.blocks = std::atoi(argv[i + 1]);
    else if (k == "--reads") s.readsPerReader = std::atoi(argv[i + 1]);
    else if (k == "--disk") s.measureDisk = std::atoi(argv[i + 1]) != 0;
    else if (k == "--w5-rounds") s.w5Rounds = std::atoi(argv[i + 1]);
    else if (k == "--w5-shared") s.w5Shared = std::atoi(argv[i + 1]);
    else if (k == "--w6-items") s.w6Items = std::atoi(argv[i + 1]);
    else if (k == "--w6-transactions") s.w6Transactions = std::atoi(argv[i + 1]);
  }
  if (dir.empty()) Fail("--run needs --dir");
  Durability d = mode == "sync" ? Durability::Sync : Durability::Async;
  try {
    Figures f = RunWorkload(w, sys, d, dir, s);
    // Whether sfl-qos's own service held its request: it still does for a
    // while after its last client. (W3's and W5's processes started it, and
    // this one did not go through OwnService.)
    if (sys == "sfl-qos") {
      std::string own = OwnRunDir(dir, "");
      if (!own.ends_with("-qos")) own += "-qos";
      ml_State st;
      if (ml_ReadState(own, &st)) f["qos_held_us"] = st.CpuLatencyUs;
      // The request is the whole machine's: the next system's run must not
      // start while it is still held (two seconds past the last client).
      for (int i = 0; i < 100 && ml_ReadState(own, &st) && st.CpuLatencyUs >= 0; ++i)
        ::usleep(100 * 1000);
    }
    for (const auto& [k, v] : f) std::printf("%s %.17g\n", k.c_str(), v);
  } catch (const std::exception& e) {
    Fail("%s %s %s: %s", w.c_str(), sys.c_str(), mode.c_str(), e.what());
  }
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  if (argc > 1 && std::strcmp(argv[1], "--run") == 0) return Child(argc, argv);
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> const char* {
      if (i + 1 >= argc) Fail("%s needs a value", a.c_str());
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      std::printf(
          "usage: sfl_bench [OPTION]...\n"
          "Runs every workload on sfl and the systems beside it, side by side, and prints\n"
          "a table of medians; README's \"Benchmarks\" section says what each row means.\n"
          "\n"
          "  --workloads LIST      comma-separated, of limit, W1 to W6 and C1 (default: all)\n"
          "  --reps N              repetitions of every run (default 5)\n"
          "  --scale F             every size times F (default 1)\n"
          "  --sync-scale F        messages and rounds of the flushing runs (not W3), times F (0.1)\n"
          "  --sync-block-scale F  W2 blocks of the flushing runs, times F (0.04)\n"
          "  --strace-scale F      size of the untimed strace pass, times F (0.1)\n"
          "  --no-strace           no strace pass\n"
          "  --dir DIR             work in DIR (default: a new directory under $TMPDIR)\n"
          "  --out FILE            each run's raw figures as JSON (bench-results.json)\n"
          "  --help                this text\n");
      return 0;
    }
    if (a == "--out") o.out = next();
    else if (a == "--reps") o.reps = std::max(1, std::atoi(next()));
    else if (a == "--dir") o.dir = next();
    else if (a == "--scale") o.scale = std::atof(next());
    else if (a == "--sync-scale") o.syncScale = std::atof(next());
    else if (a == "--sync-block-scale") o.syncBlockScale = std::atof(next());
    else if (a == "--strace-scale") o.straceScale = std::atof(next());
    else if (a == "--no-strace") o.strace = false;
    else if (a == "--workloads") {
      o.workloads.clear();
      std::istringstream in(next());
      std::string w;
      while (std::getline(in, w, ',')) o.workloads.push_back(w);
    } else {
      Fail("unknown option %s (--help lists them)", a.c_str());
    }
  }
  return Driver(o);
}
