// Shared pieces of the benchmark: workload sizes, the payload pattern, the
// interfaces each storage system implements, and the report a run sends
// back to the driver.
//
// Each measured run is its own process (the driver re-executes itself with
// --run), so the sync keys, which the library reads once per process, take
// effect, and getrusage of the child gives that run's peak memory.
#ifndef SFL_BENCH_H
#define SFL_BENCH_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

enum class Durability { Async, Sync };
const char* DurabilityName(Durability d);

// Sizes of one run. Sync runs use smaller counts (see the driver) because a
// flush costs milliseconds on an ordinary disk; figures are per operation.
struct Sizes {
  int messages = 2000;      // W1 and the W3 store
  int blocks = 50000;       // W2 appends and random reads
  int readers = 4;          // W3 processes
  int readsPerReader = 5000;
  bool measureDisk = true;  // off in traced runs: the walk makes calls of its own
  int w5Rounds = 150;        // W5: rounds per process (a store, two reads, a delete)
  int w5Shared = 200;       // W5: messages every process reads besides its own
  // W6 at a twentieth of PostMark's usual 20,000 items and 200,000
  // transactions (--scale 20 runs those).
  int w6Items = 1000;          // the starting pool (PostMark's "number")
  int w6Transactions = 10000;  // PostMark's "transactions"
};

constexpr int kW5Processes = 8;
// W6 item sizes, PostMark's defaults: 500 bytes to 9.77 KiB.
constexpr uint32_t kW6MinSize = 500;
constexpr uint32_t kW6MaxSize = 10000;

constexpr int kPartsPerMessage = 5;
constexpr uint32_t kPartSizes[kPartsPerMessage] = {300, 1024, 4096, 16384, 65536};
constexpr uint32_t kMinBlock = 64;
constexpr uint32_t kMaxBlock = 2048;

// A run's figures, as "key value" lines from child to driver.
using Figures = std::map<std::string, double>;

// ---- payload ------------------------------------------------------------------
// Every part and block starts with a 16-byte stamp (identity and size) and
// continues with a fixed pseudo-random pattern, so reads can be verified
// cheaply and a misplaced read cannot pass.
const uint8_t* Pattern();  // 64 KiB
void FillPayload(uint8_t* buf, uint32_t size, uint32_t id, uint32_t sub);
// Rewrites only the stamp of a buffer already filled with the pattern.
void StampPayload(uint8_t* buf, uint32_t size, uint32_t id, uint32_t sub);
bool CheckPayload(const uint8_t* buf, uint32_t size, uint32_t id, uint32_t sub);
uint32_t BlockSize(uint32_t i);  // W2 block sizes, 64 B to 2 KiB, deterministic
uint64_t PayloadBytesPerMessage();

// Small deterministic generator (xorshift) for orders and picks.
class Rng {
 public:
  explicit Rng(uint64_t seed) : s_(seed * 0x9E3779B97F4A7C15ull + 1) {}
  uint64_t Next() {
    s_ ^= s_ << 13;
    s_ ^= s_ >> 7;
    s_ ^= s_ << 17;
    return s_;
  }
  uint32_t Below(uint32_t n) { return static_cast<uint32_t>(Next() % n); }

 private:
  uint64_t s_;
};

// ---- helpers -------------------------------------------------------------------
double Now();  // monotonic seconds
// Bytes the files under `dir` occupy on disk (st_blocks * 512).
uint64_t DiskBytes(const std::string& dir);
void MakeDirs(const std::string& dir);
// Adds the 50th, 99th and 99.9th percentiles of `us` (microseconds) as
// "lat_<name>_p50", "lat_<name>_p99" and "lat_<name>_p999".
void AddPercentiles(Figures& f, const std::string& name, std::vector<double> us);
void RemoveTree(const std::string& dir);
// Reads the latencies a process wrote to `path` (raw doubles) onto `out`,
// then removes the file.
void LoadLatencies(const std::string& path, std::vector<double>* out);
// `n` processes started together: process i runs work(i, startFd, resultFd),
// which waits for a byte (end of file) on startFd before its timed part and
// writes its own counted system calls (an int64_t, -1 when unknown) to
// resultFd; its return value is its exit status. The clock runs from the
// start to the last exit. Fails the run, naming `what`, if any process fails.
struct Together {
  double seconds = 0;
  int64_t calls = 0;
  bool callsKnown = true;
};
Together RunTogether(int n, const std::function<int(int i, int startFd, int resultFd)>& work,
                     const char* what);
[[noreturn]] void Fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// ---- systems ---------------------------------------------------------------------
// W1 and W3: a store of messages, each of kPartsPerMessage parts.
class MessageStore {
 public:
  virtual ~MessageStore() = default;
  virtual void Store(int msg, const uint8_t* const parts[kPartsPerMessage]) = 0;
  // Reads every part of a message into bufs (each at least its part size).
  virtual void Read(int msg, uint8_t* const bufs[kPartsPerMessage]) = 0;
  virtual void Delete(int msg) = 0;
  // Deletes some parts of a message and keeps the rest (W4 strips the
  // attachments); the parts are given in `parts`.
  virtual void DeleteParts(int msg, const std::vector<int>& parts) = 0;
  // One part, for the many-readers workload; returns the bytes read.
  virtual uint32_t ReadPart(int msg, int part, uint8_t* buf) = 0;
  // Makes what was stored findable by other processes (untimed).
  virtual void Finish() {}
  // System calls made so far as the system counts them itself (-1: unknown).
  virtual int64_t OwnCallCount() { return -1; }
};

// W2: a log of variable-sized blocks addressed by the id Append returns.
class BlockLog {
 public:
  virtual ~BlockLog() = default;
  virtual int64_t Append(const uint8_t* data, uint32_t size) = 0;
  virtual uint32_t Read(int64_t id, uint8_t* buf, uint32_t size) = 0;
  virtual void Free(int64_t id) = 0;
  virtual int64_t OwnCallCount() { return -1; }
};

// W6: a pool of items of 500 B to 9.77 KiB, created, read whole, appended
// to and deleted by a number the workload chose.
class ItemPool {
 public:
  virtual ~ItemPool() = default;
  virtual void Create(uint32_t id, const uint8_t* data, uint32_t size) = 0;
  // Reads the whole item (`size` bytes, its current size) into buf.
  virtual void Read(uint32_t id, uint8_t* buf, uint32_t size) = 0;
  // Appends `n` bytes to an item now `size` bytes long.
  virtual void Append(uint32_t id, uint32_t size, const uint8_t* data, uint32_t n) = 0;
  virtual void Delete(uint32_t id) = 0;
  virtual int64_t OwnCallCount() { return -1; }
};

// Factories. `create` true builds a new store in dir; false opens an
// existing one for reading (W3 readers).
std::unique_ptr<MessageStore> NewFilesStore(const std::string& dir, Durability d, bool create);
std::unique_ptr<MessageStore> NewSqliteStore(const std::string& dir, Durability d, bool create);
std::unique_ptr<MessageStore> NewSflStore(const std::string& dir, Durability d, bool create);
std::unique_ptr<ItemPool> NewFilesPool(const std::string& dir, Durability d);
std::unique_ptr<ItemPool> NewSqlitePool(const std::string& dir, Durability d);
std::unique_ptr<ItemPool> NewSflPool(const std::string& dir, Durability d);
// A store of one of the systems above ("sfl", "sfl-qos", "files", ...), with
// the setup its name asks for.
std::unique_ptr<MessageStore> OpenMessageStore(const std::string& system, const std::string& dir,
                                               Durability d, bool create);
// The run directory of a run's own service: the one in force (or DIR/run)
// with SUFFIX added, as OwnService makes it.
std::string OwnRunDir(const std::string& dir, const std::string& suffix);
// Gives an sfl run a service of its own in SFL_RUN_DIR + suffix, started
// with the given keys when the run first needs it.
void OwnService(const std::string& dir, const std::string& suffix,
                const std::vector<std::pair<std::string, std::string>>& keys);
std::unique_ptr<BlockLog> NewSqliteLog(const std::string& dir, Durability d);
std::unique_ptr<BlockLog> NewSflLog(const std::string& dir, Durability d);

// Per-process setup a system needs before its first call (environment keys).
void PrepareSfl(const std::string& dir, Durability d);
// The cold-store size of the "sfl-cold" runs, and their setup: that size,
// and room for as many descriptors.
constexpr const char* kTunedColdStore = "1000";
void TuneColdStore();
// Adds the system calls of one read in four situations ("probe_read_*").
void AddSflReadProbe(Figures& f);
// The library's os_ counters by kind, and their growth since a snapshot
// added to a run's figures as "os_<kind>".
std::vector<uint64_t> SflCallSnapshot();
void AddSflCallFigures(Figures& f, const std::vector<uint64_t>& before);

// ---- the measured run (child side) -------------------------------------------------
// Runs one workload ("W1", "W2", "W3", "W3build", "W4", or "idle" / "idleread",
// which only open the system for reading or writing) on one system
// in `dir`, and returns its figures.
Figures RunWorkload(const std::string& workload, const std::string& system, Durability d,
                    const std::string& dir, const Sizes& sizes);
// W5 (eight processes at once) and W6 (the mail-server mix), and W6 as
// PostMark runs it ("postmark" system).
Figures RunW5(const std::string& system, Durability d, const std::string& dir, const Sizes& s);
Figures RunW6(const std::string& system, Durability d, const std::string& dir, const Sizes& s);
// C1: the rebuild of one blocked item of `sizes.blocks` blocks (sfl only).
Figures RunSflRebuild(Durability d, const std::string& dir, const Sizes& sizes);
// The `limit` row: the machine's own floor ("msgq", "msgq-poll", "file").
Figures RunLimit(const std::string& system, const std::string& dir, const Sizes& sizes);

}  // namespace bench

#endif  // SFL_BENCH_H
