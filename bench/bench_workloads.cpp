// The workloads, run in the child process the driver started: W1 (message
// store), W2 (blocked log), W3 (many readers over a W1 store), plus the
// store build W3 reads and an idle run used as the system-call baseline.
// Every read is verified against the payload it should return.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <sys/wait.h>
#include <unistd.h>

#include "bench.h"

namespace bench {
namespace {

std::unique_ptr<MessageStore> OpenStore(const std::string& system, const std::string& dir,
                                        Durability d, bool create) {
  return OpenMessageStore(system, dir, d, create);
}

std::unique_ptr<BlockLog> OpenLog(const std::string& system, const std::string& dir, Durability d) {
  if (system == "sfl") return NewSflLog(dir, d);
  if (system == "sqlite") return NewSqliteLog(dir, d);
  Fail("system %s has no blocked log", system.c_str());
}

// Part buffers holding the pattern; only the stamps change per message.
struct PartBuffers {
  std::vector<std::vector<uint8_t>> data;
  const uint8_t* ptrs[kPartsPerMessage];
  uint8_t* out[kPartsPerMessage];
  PartBuffers() : data(kPartsPerMessage) {
    for (int p = 0; p < kPartsPerMessage; ++p) {
      data[p].resize(kPartSizes[p]);
      FillPayload(data[p].data(), kPartSizes[p], 0, p);
      ptrs[p] = data[p].data();
      out[p] = data[p].data();
    }
  }
  void Stamp(int msg) {
    for (int p = 0; p < kPartsPerMessage; ++p) StampPayload(data[p].data(), kPartSizes[p], msg, p);
  }
};

void StoreAll(MessageStore& store, int messages, PartBuffers& bufs) {
  for (int m = 0; m < messages; ++m) {
    bufs.Stamp(m);
    store.Store(m, bufs.ptrs);
  }
}

Figures RunW1(const std::string& system, Durability d, const std::string& dir, const Sizes& s) {
  auto store = OpenStore(system, dir, d, true);
  PartBuffers in;
  PartBuffers out;
  std::vector<int> order(s.messages);
  std::iota(order.begin(), order.end(), 0);
  Rng rng(7);
  for (int i = s.messages - 1; i > 0; --i) std::swap(order[i], order[rng.Below(i + 1)]);

  Figures f;
  int64_t calls0 = store->OwnCallCount();
  std::vector<uint64_t> kinds0 = SflCallSnapshot();
  std::vector<double> storeUs, readUs, deleteUs;
  double t0 = Now();
  for (int m = 0; m < s.messages; ++m) {
    in.Stamp(m);
    const double a = Now();
    store->Store(m, in.ptrs);
    storeUs.push_back((Now() - a) * 1e6);
  }
  double t1 = Now();
  const int64_t callsStored = store->OwnCallCount();
  if (s.measureDisk) f["disk_after_store"] = static_cast<double>(DiskBytes(dir));
  double t2 = Now();
  const int64_t callsBeforeRead = store->OwnCallCount();
  for (int m : order) {
    const double a = Now();
    store->Read(m, out.out);
    readUs.push_back((Now() - a) * 1e6);
    for (int p = 0; p < kPartsPerMessage; ++p) {
      if (!CheckPayload(out.data[p].data(), kPartSizes[p], m, p)) Fail("message %d part %d differs", m, p);
    }
  }
  double t3 = Now();
  const int64_t callsRead = store->OwnCallCount();
  int deleted = 0;
  for (int m = 0; m < s.messages; m += 2, ++deleted) {
    const double a = Now();
    store->Delete(m);
    deleteUs.push_back((Now() - a) * 1e6);
  }
  double t4 = Now();
  // Per message (five parts each).
  AddPercentiles(f, "store", storeUs);
  AddPercentiles(f, "read", readUs);
  AddPercentiles(f, "delete", deleteUs);
  int64_t calls1 = store->OwnCallCount();
  if (calls0 >= 0 && s.messages > 0 && deleted > 0) {
    // Per message, by phase: where a part's calls come from.
    f["calls_store_msg"] = static_cast<double>(callsStored - calls0) / s.messages;
    f["calls_read_msg"] = static_cast<double>(callsRead - callsBeforeRead) / s.messages;
    f["calls_delete_msg"] = static_cast<double>(calls1 - callsRead) / deleted;
  }
  if (system.rfind("sfl", 0) == 0) AddSflCallFigures(f, kinds0);
  store.reset();
  if (s.measureDisk) f["disk_end"] = static_cast<double>(DiskBytes(dir));
  if (system == "sfl") AddSflReadProbe(f);

  double per = static_cast<double>(PayloadBytesPerMessage());
  f["t_store"] = t1 - t0;
  f["t_read"] = t3 - t2;
  f["t_delete"] = t4 - t3;
  f["seconds"] = (t1 - t0) + (t4 - t2);
  f["ops"] = static_cast<double>(kPartsPerMessage) * (2.0 * s.messages + deleted);
  f["payload_after_store"] = per * s.messages;
  f["payload_end"] = per * (s.messages - deleted);
  if (calls0 >= 0) f["own_calls"] = static_cast<double>(calls1 - calls0);
  return f;
}

// W4, churn: W1's messages stored, then the two largest parts of every
// message deleted (attachments stripped) and the store closed. Figures: the
// deletions' time, compaction and close included, and the disk left per
// byte of payload still live.
Figures RunW4(const std::string& system, Durability d, const std::string& dir, const Sizes& s) {
  // Compaction on for sfl: a message's container is about 90 KiB, which the
  // default 32 KiB limit would never look at; 4 KiB lets stripping its
  // attachments compact it. (This run is a process of its own.)
  if (system.rfind("sfl", 0) == 0 && std::getenv("SFL_HOLES_SIZE_LIMIT") == nullptr)
    setenv("SFL_HOLES_SIZE_LIMIT", "4", 1);
  auto store = OpenStore(system, dir, d, true);
  PartBuffers in;
  StoreAll(*store, s.messages, in);
  Figures f;
  if (s.measureDisk) f["disk_after_store"] = static_cast<double>(DiskBytes(dir));
  const std::vector<int> stripped = {kPartsPerMessage - 2, kPartsPerMessage - 1};
  int64_t calls0 = store->OwnCallCount();
  std::vector<uint64_t> kinds0 = SflCallSnapshot();
  double t0 = Now();
  for (int m = 0; m < s.messages; ++m) store->DeleteParts(m, stripped);
  double t1 = Now();
  int64_t calls1 = store->OwnCallCount();
  if (system.rfind("sfl", 0) == 0) AddSflCallFigures(f, kinds0);
  // What is left must still read back (untimed).
  std::vector<uint8_t> buf(kPartSizes[kPartsPerMessage - 1]);
  for (int m = 0; m < s.messages; ++m) {
    for (int p = 0; p < kPartsPerMessage - 2; ++p) {
      uint32_t n = store->ReadPart(m, p, buf.data());
      if (n != kPartSizes[p] || !CheckPayload(buf.data(), n, m, p)) Fail("message %d part %d differs", m, p);
    }
  }
  double t2 = Now();
  store.reset();
  double t3 = Now();
  if (s.measureDisk) f["disk_end"] = static_cast<double>(DiskBytes(dir));

  uint64_t live = 0;
  for (int p = 0; p < kPartsPerMessage - 2; ++p) live += kPartSizes[p];
  f["t_delete"] = (t1 - t0) + (t3 - t2);
  f["seconds"] = f["t_delete"];
  f["ops"] = static_cast<double>(s.messages) * static_cast<double>(stripped.size());
  f["payload_after_store"] = static_cast<double>(PayloadBytesPerMessage()) * s.messages;
  f["payload_end"] = static_cast<double>(live) * s.messages;
  if (calls0 >= 0) f["own_calls"] = static_cast<double>(calls1 - calls0);
  return f;
}

Figures RunW3Build(const std::string& system, Durability d, const std::string& dir, const Sizes& s) {
  auto store = OpenStore(system, dir, d, true);
  PartBuffers in;
  double t0 = Now();
  StoreAll(*store, s.messages, in);
  store->Finish();
  Figures f;
  f["seconds"] = Now() - t0;
  f["ops"] = static_cast<double>(s.messages) * kPartsPerMessage;
  return f;
}

// Readers start together on a pipe and each reads random parts; each sends
// back its own system-call count.
Figures RunW3(const std::string& system, Durability d, const std::string& dir, const Sizes& s) {
  const Together t = RunTogether(
      s.readers,
      [&](int r, int startFd, int resultFd) {
        int rc = 0;
        int64_t calls = -1;
        {
          auto store = OpenStore(system, dir, d, false);
          std::vector<uint8_t> buf(kPartSizes[kPartsPerMessage - 1]);
          char go;
          if (read(startFd, &go, 1) < 0) return 4;
          int64_t calls0 = store->OwnCallCount();
          Rng rng(100 + r);
          std::vector<double> us;
          us.reserve(static_cast<size_t>(s.readsPerReader));
          for (int k = 0; k < s.readsPerReader; ++k) {
            int m = static_cast<int>(rng.Below(s.messages));
            int p = static_cast<int>(rng.Below(kPartsPerMessage));
            const double a = Now();
            uint32_t n = store->ReadPart(m, p, buf.data());
            us.push_back((Now() - a) * 1e6);
            if (n != kPartSizes[p] || !CheckPayload(buf.data(), n, m, p)) {
              rc = 3;
              break;
            }
          }
          if (calls0 >= 0) calls = store->OwnCallCount() - calls0;
          // Latencies go through a file: a pipe could fill before the
          // driver reads it.
          FILE* lat = std::fopen((dir + "/lat-" + std::to_string(r)).c_str(), "wb");
          if (lat == nullptr || std::fwrite(us.data(), sizeof(double), us.size(), lat) != us.size()) rc = 5;
          if (lat != nullptr) std::fclose(lat);
        }
        if (write(resultFd, &calls, sizeof calls) != sizeof calls) rc = 4;
        return rc;
      },
      "reader(s)");
  Figures f;
  std::vector<double> all;
  for (int r = 0; r < s.readers; ++r) LoadLatencies(dir + "/lat-" + std::to_string(r), &all);
  AddPercentiles(f, "read", all);
  f["seconds"] = t.seconds;
  f["ops"] = static_cast<double>(s.readers) * s.readsPerReader;
  if (t.callsKnown) f["own_calls"] = static_cast<double>(t.calls);
  return f;
}

Figures RunW2(const std::string& system, Durability d, const std::string& dir, const Sizes& s) {
  auto log = OpenLog(system, dir, d);
  std::vector<uint8_t> buf(kMaxBlock);
  std::vector<int64_t> ids(s.blocks);
  Figures f;
  int64_t calls0 = log->OwnCallCount();
  std::vector<uint64_t> kinds0 = SflCallSnapshot();
  double payload = 0;
  double t0 = Now();
  for (int i = 0; i < s.blocks; ++i) {
    uint32_t size = BlockSize(i);
    FillPayload(buf.data(), size, i, 0xB10C);
    ids[i] = log->Append(buf.data(), size);
    payload += size;
  }
  double t1 = Now();
  const int64_t callsAppended = log->OwnCallCount();
  if (s.measureDisk) f["disk_after_store"] = static_cast<double>(DiskBytes(dir));
  double t2 = Now();
  const int64_t callsBeforeRead = log->OwnCallCount();
  Rng rng(11);
  for (int k = 0; k < s.blocks; ++k) {
    uint32_t i = rng.Below(s.blocks);
    uint32_t size = BlockSize(i);
    uint32_t n = log->Read(ids[i], buf.data(), size);
    if (n != size || !CheckPayload(buf.data(), size, i, 0xB10C)) Fail("block %u differs", i);
  }
  double t3 = Now();
  const int64_t callsRead = log->OwnCallCount();
  std::vector<uint32_t> order(s.blocks);
  std::iota(order.begin(), order.end(), 0u);
  int frees = s.blocks / 10;
  double freed = 0;
  for (int k = 0; k < frees; ++k) {
    std::swap(order[k], order[k + rng.Below(s.blocks - k)]);
    log->Free(ids[order[k]]);
    freed += BlockSize(order[k]);
  }
  double t4 = Now();
  int64_t calls1 = log->OwnCallCount();
  if (calls0 >= 0 && s.blocks > 0 && frees > 0) {
    f["calls_append"] = static_cast<double>(callsAppended - calls0) / s.blocks;
    f["calls_read"] = static_cast<double>(callsRead - callsBeforeRead) / s.blocks;
    f["calls_free"] = static_cast<double>(calls1 - callsRead) / frees;
  }
  if (system.rfind("sfl", 0) == 0) AddSflCallFigures(f, kinds0);
  log.reset();
  if (s.measureDisk) f["disk_end"] = static_cast<double>(DiskBytes(dir));
  f["t_store"] = t1 - t0;
  f["t_read"] = t3 - t2;
  f["t_delete"] = t4 - t3;
  f["seconds"] = (t1 - t0) + (t4 - t2);
  f["ops"] = 2.0 * s.blocks + frees;
  f["payload_after_store"] = payload;
  f["payload_end"] = payload - freed;
  if (calls0 >= 0) f["own_calls"] = static_cast<double>(calls1 - calls0);
  return f;
}

// Opens and closes the system without a workload: the start-up cost the
// system-call counts are corrected by.
Figures RunIdle(const std::string& system, Durability d, const std::string& dir, bool create) {
  if (system.rfind("sfl", 0) == 0 && create) {
    PrepareSfl(dir, d);
  } else {
    auto store = OpenStore(system, dir, d, create);
  }
  Figures f;
  f["seconds"] = 0;
  f["ops"] = 0;
  return f;
}

}  // namespace

std::string OwnRunDir(const std::string& dir, const std::string& suffix) {
  const char* run = std::getenv("SFL_RUN_DIR");
  return (run != nullptr ? std::string(run) : dir + "/run") + suffix;
}

void OwnService(const std::string& dir, const std::string& suffix,
                const std::vector<std::pair<std::string, std::string>>& keys) {
  const std::string own = OwnRunDir(dir, suffix);
  MakeDirs(own);
  ::setenv("SFL_RUN_DIR", own.c_str(), 1);
  for (const auto& [k, v] : keys) ::setenv(k.c_str(), v.c_str(), 1);
}

std::unique_ptr<MessageStore> OpenMessageStore(const std::string& system, const std::string& dir,
                                               Durability d, bool create) {
  if (system == "sfl") return NewSflStore(dir, d, create);
  if (system == "sfl-cold") {
    TuneColdStore();
    return NewSflStore(dir, d, create);
  }
  if (system == "sfl-qos") {
    // A service of its own that holds a CPU latency request of 0 while
    // it has clients (the driver's service runs without one).
    OwnService(dir, "-qos", {{"SFL_MONITOR_CPU_LATENCY_US", "0"}});
    return NewSflStore(dir, d, create);
  }
  if (system == "sfl-2pairs" || system == "sfl-4pairs") {
    // A service of its own serving two or four queue pairs.
    const std::string n = system.substr(4, 1);
    OwnService(dir, "-" + n + "pairs", {{"SFL_MONITOR_PAIRS", n}});
    return NewSflStore(dir, d, create);
  }
  if (system == "sfl-pool") {
    // Emptied containers are kept, four per directory, and reused.
    ::setenv("SFL_CONTAINER_POOL", "4", 1);
    return NewSflStore(dir, d, create);
  }
  if (system == "files") return NewFilesStore(dir, d, create);
  if (system == "sqlite") return NewSqliteStore(dir, d, create);
  Fail("unknown system %s", system.c_str());
}

Figures RunWorkload(const std::string& workload, const std::string& system, Durability d,
                    const std::string& dir, const Sizes& sizes) {
  MakeDirs(dir);
  if (workload == "W1") return RunW1(system, d, dir, sizes);
  if (workload == "W2") return RunW2(system, d, dir, sizes);
  if (workload == "W3build") return RunW3Build(system, d, dir, sizes);
  if (workload == "W5build") {
    Sizes shared = sizes;
    shared.messages = sizes.w5Shared;
    return RunW3Build(system, d, dir, shared);
  }
  if (workload == "W5") return RunW5(system, d, dir, sizes);
  if (workload == "W6") return RunW6(system, d, dir, sizes);
  if (workload == "W3") return RunW3(system, d, dir, sizes);
  if (workload == "W4") return RunW4(system, d, dir, sizes);
  if (workload == "C1") {
    if (system != "sfl") Fail("C1 is sfl's alone");
    return RunSflRebuild(d, dir, sizes);
  }
  if (workload == "limit") return RunLimit(system, dir, sizes);
  if (workload == "idle") return RunIdle(system, d, dir, true);
  if (workload == "idleread") return RunIdle(system, d, dir, false);
  Fail("unknown workload %s", workload.c_str());
}

}  // namespace bench
