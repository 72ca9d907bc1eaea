// The mixed workloads: W5, eight processes at once storing, reading and
// deleting W1 messages, and W6, a mail server's mix of item creations,
// deletions, whole reads and appends, which PostMark defines; W6 is also
// run by PostMark itself ("postmark") to check the files figures against
// the tool. Every read is verified; a process that fails fails the run.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench.h"

namespace bench {
namespace {

constexpr uint32_t kW6Sub = 6;  // the stamp's second field for W6 items

// Latencies go through files: a pipe could fill before the parent reads.
bool SaveLatencies(const std::string& path, const std::vector<double>& us) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(us.data(), sizeof(double), us.size(), f) == us.size();
  return std::fclose(f) == 0 && ok;
}

// One W5 process: `rounds` times a message of its own stored, one of its
// own and one of the shared ones read, and, past four of its own, its
// oldest deleted; then the rest of its own deleted. Returns its exit code.
int W5Worker(const std::string& system, Durability d, const std::string& dir, const Sizes& s, int w,
             int startFd, int resultFd) {
  auto store = OpenMessageStore(system, dir, d, true);
  std::vector<std::vector<uint8_t>> in(kPartsPerMessage), out(kPartsPerMessage);
  const uint8_t* inPtrs[kPartsPerMessage];
  uint8_t* outPtrs[kPartsPerMessage];
  for (int p = 0; p < kPartsPerMessage; ++p) {
    in[p].resize(kPartSizes[p]);
    out[p].resize(kPartSizes[p]);
    FillPayload(in[p].data(), kPartSizes[p], 0, p);
    inPtrs[p] = in[p].data();
    outPtrs[p] = out[p].data();
  }
  std::vector<double> storeUs, readUs, deleteUs;
  std::vector<int> own;  // live messages of this process, oldest first
  Rng rng(500 + w);
  auto timed = [](std::vector<double>& v, auto fn) {
    const double a = Now();
    fn();
    v.push_back((Now() - a) * 1e6);
  };
  auto readChecked = [&](int m) {
    timed(readUs, [&] { store->Read(m, outPtrs); });
    for (int p = 0; p < kPartsPerMessage; ++p)
      if (!CheckPayload(out[p].data(), kPartSizes[p], m, p)) return false;
    return true;
  };
  char go;
  if (read(startFd, &go, 1) < 0) return 4;
  const int64_t calls0 = store->OwnCallCount();
  for (int i = 0; i < s.w5Rounds; ++i) {
    const int m = s.w5Shared + w * s.w5Rounds + i;
    for (int p = 0; p < kPartsPerMessage; ++p) StampPayload(in[p].data(), kPartSizes[p], m, p);
    timed(storeUs, [&] { store->Store(m, inPtrs); });
    own.push_back(m);
    if (!readChecked(own[rng.Below(static_cast<uint32_t>(own.size()))])) return 3;
    if (!readChecked(static_cast<int>(rng.Below(static_cast<uint32_t>(s.w5Shared))))) return 3;
    if (own.size() > 4) {
      timed(deleteUs, [&] { store->Delete(own.front()); });
      own.erase(own.begin());
    }
  }
  for (int m : own) timed(deleteUs, [&] { store->Delete(m); });
  int64_t calls = calls0 >= 0 ? store->OwnCallCount() - calls0 : -1;
  const std::string base = dir + "/lat-" + std::to_string(w) + "-";
  if (!SaveLatencies(base + "store", storeUs) || !SaveLatencies(base + "read", readUs) ||
      !SaveLatencies(base + "delete", deleteUs))
    return 5;
  if (write(resultFd, &calls, sizeof calls) != sizeof calls) return 4;
  return 0;
}

// W6 as PostMark runs it, on the files of `dir`: its own counts of
// operations over the wall time of its whole run (PostMark's own clock
// counts whole seconds), and its own transaction rate beside.
Figures RunPostmark(const std::string& dir, const Sizes& s) {
  const std::string where = dir + "/pm";
  MakeDirs(where);
  const std::string cfg = dir + "/postmark.cfg";
  FILE* c = std::fopen(cfg.c_str(), "w");
  if (c == nullptr) Fail("cannot write %s", cfg.c_str());
  std::fprintf(c,
               "set location %s\nset number %d\nset size %u %u\nset transactions %d\n"
               "set read 16384\nset write 16384\nset buffering false\nset bias read 5\n"
               "set bias create 5\nset subdirectories 100\nset seed 42\nrun\nquit\n",
               where.c_str(), s.w6Items, kW6MinSize, kW6MaxSize, s.w6Transactions);
  std::fclose(c);
  const std::string cmd = "postmark " + cfg + " 2>&1";
  std::fflush(nullptr);
  const double t0 = Now();
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) Fail("cannot run postmark");
  std::string text;
  char buf[512];
  while (std::fgets(buf, sizeof buf, p) != nullptr) text += buf;
  const int rc = pclose(p);
  const double t1 = Now();
  if (rc != 0) Fail("postmark failed: %s", text.c_str());
  // "<n> created", "<n> read", "<n> appended", "<n> deleted" (the first
  // of each), and "(<r> per second)" after "seconds of transactions".
  auto count = [&](const char* word) {
    const std::string key = std::string(" ") + word + " (";
    const size_t at = text.find(key);
    if (at == std::string::npos) Fail("postmark printed no '%s' count:\n%s", word, text.c_str());
    size_t b = at;
    while (b > 0 && text[b - 1] >= '0' && text[b - 1] <= '9') --b;
    return std::atof(text.substr(b, at - b).c_str());
  };
  Figures f;
  f["ops"] = count("created") + count("read") + count("appended") + count("deleted");
  f["seconds"] = t1 - t0;
  const size_t tx = text.find("seconds of transactions (");
  if (tx != std::string::npos) f["pm_tx_per_s"] = std::atof(text.c_str() + tx + 25);
  return f;
}

std::unique_ptr<ItemPool> OpenPool(const std::string& system, const std::string& dir, Durability d) {
  if (system == "sfl") return NewSflPool(dir, d);
  if (system == "sfl-qos") {
    OwnService(dir, "-qos", {{"SFL_MONITOR_CPU_LATENCY_US", "0"}});
    return NewSflPool(dir, d);
  }
  if (system == "sfl-pool") {
    ::setenv("SFL_CONTAINER_POOL", "4", 1);
    return NewSflPool(dir, d);
  }
  if (system == "files") return NewFilesPool(dir, d);
  if (system == "sqlite") return NewSqlitePool(dir, d);
  Fail("system %s has no W6", system.c_str());
}

}  // namespace

Figures RunW5(const std::string& system, Durability d, const std::string& dir, const Sizes& s) {
  const Together t = RunTogether(
      kW5Processes,
      [&](int w, int startFd, int resultFd) { return W5Worker(system, d, dir, s, w, startFd, resultFd); },
      "W5 process(es)");
  Figures f;
  size_t messages = 0;
  for (const char* op : {"store", "read", "delete"}) {
    std::vector<double> all;
    for (int w = 0; w < kW5Processes; ++w) LoadLatencies(dir + "/lat-" + std::to_string(w) + "-" + op, &all);
    messages += all.size();
    AddPercentiles(f, op, all);
  }
  // Every process's every message operation, five parts each.
  const size_t expected = static_cast<size_t>(kW5Processes) * s.w5Rounds * 4;
  if (messages != expected) Fail("W5 counted %zu message operations, expected %zu", messages, expected);
  f["seconds"] = t.seconds;
  f["ops"] = static_cast<double>(messages) * kPartsPerMessage;
  if (t.callsKnown) f["own_calls"] = static_cast<double>(t.calls);
  return f;
}

// W6: a pool of items, then transactions, each a creation or a deletion
// (even odds) and a whole read of or an append to a live item (even odds),
// then every item deleted. The choices come from one seed, so every system
// runs the same sequence. Appends keep an item at most kW6MaxSize bytes.
Figures RunW6(const std::string& system, Durability d, const std::string& dir, const Sizes& s) {
  if (system == "postmark") return RunPostmark(dir, s);
  auto pool = OpenPool(system, dir, d);
  std::vector<uint32_t> size, made;  // by id: current size, size when made
  std::vector<uint32_t> live;
  std::vector<uint8_t> data(kW6MaxSize), buf(kW6MaxSize), want(kW6MaxSize);
  Rng rng(42);
  uint32_t next = 0;
  double ops = 0, payload = 0;
  auto create = [&] {
    const uint32_t id = next++;
    const uint32_t n = kW6MinSize + rng.Below(kW6MaxSize - kW6MinSize + 1);
    FillPayload(data.data(), n, id, kW6Sub);
    pool->Create(id, data.data(), n);
    size.push_back(n);
    made.push_back(n);
    live.push_back(id);
    ++ops;
  };
  auto remove = [&](size_t at) {
    const uint32_t id = live[at];
    pool->Delete(id);
    live[at] = live.back();
    live.pop_back();
    ++ops;
  };
  // An item holds its stamp (with the size it was made with) and the
  // pattern after it, appends included.
  auto read = [&](uint32_t id) {
    pool->Read(id, buf.data(), size[id]);
    std::memcpy(want.data(), Pattern(), size[id]);
    StampPayload(want.data(), made[id], id, kW6Sub);
    if (std::memcmp(buf.data(), want.data(), size[id]) != 0) Fail("item %u differs", id);
    ++ops;
  };
  auto append = [&](uint32_t id) {
    const uint32_t room = kW6MaxSize - size[id];
    const uint32_t n = room == 0 ? 0 : 1 + rng.Below(room);
    pool->Append(id, size[id], Pattern() + size[id], n);
    size[id] += n;
    ++ops;
  };

  Figures f;
  int64_t calls0 = pool->OwnCallCount();
  std::vector<uint64_t> kinds0 = SflCallSnapshot();
  const double t0 = Now();
  for (int i = 0; i < s.w6Items; ++i) create();
  const double t1 = Now();
  for (int t = 0; t < s.w6Transactions; ++t) {
    if (live.empty() || rng.Below(2) == 0) create();
    else remove(rng.Below(static_cast<uint32_t>(live.size())));
    if (live.empty()) continue;
    const uint32_t id = live[rng.Below(static_cast<uint32_t>(live.size()))];
    if (rng.Below(2) == 0) read(id);
    else append(id);
  }
  const double t2 = Now();
  for (uint32_t id : live) payload += size[id];
  if (s.measureDisk) f["disk_after_store"] = static_cast<double>(DiskBytes(dir));
  const double t3 = Now();
  while (!live.empty()) remove(live.size() - 1);
  const double t4 = Now();
  int64_t calls1 = pool->OwnCallCount();
  if (system.rfind("sfl", 0) == 0) AddSflCallFigures(f, kinds0);
  pool.reset();
  f["t_store"] = t1 - t0;
  f["t_tx"] = t2 - t1;
  f["t_delete"] = t4 - t3;
  f["tx_per_s"] = s.w6Transactions / (t2 - t1);
  f["seconds"] = (t2 - t0) + (t4 - t3);
  f["ops"] = ops;
  f["payload_after_store"] = payload;
  if (calls0 >= 0) f["own_calls"] = static_cast<double>(calls1 - calls0);
  return f;
}

}  // namespace bench
