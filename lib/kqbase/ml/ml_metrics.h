// ml_metrics: the interest service's counters, and the file in the run
// directory where the service publishes them for a metrics collector.
//
// The service runs several processes (one per queue pair, plus the ticker)
// that share one anonymous mapping made before the forks. Each serving
// process has a block of its own in it and is the only writer of that
// block, so a plain atomic add never loses an increment and no lock is
// needed; the ticker reads every block and writes the sums. A reader may see
// one block a request newer than another, never a count that goes back.
//
// Processes holding interests are counted once however many pairs they hold
// interests with: each block keeps a bit per process id, and the sum is of
// the union of the blocks' bits.
//
// The file ("sfl-monitor.prom") is in the text format of the usual metrics
// collectors, version 0.0.4: a HELP and a TYPE line before each family,
// counters named *_total, no timestamps. It is written to a temporary name
// that does not end in ".prom" and renamed over the old one, so a collector
// that reads every *.prom file of the directory never sees half of it.
#ifndef KQ_ML_METRICS_H
#define KQ_ML_METRICS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

#include "ml.h"
#include "ml_interest.h"

// Requests counted by type, in this order.
enum ml_RequestKind { ML_REQ_RECORD = 0, ML_REQ_WITHDRAW = 1, ML_REQ_CHECK = 2, ML_REQ_KINDS = 3 };
// The kind of a wire message type; -1 for anything that is not a request.
int ml_RequestKindOf(int32_t type);

// Process ids below this have their own bit (the kernel's own limit on
// 64-bit systems); a holder above it is counted in PidsBeyond.
enum { ML_METRICS_PID_LIMIT = 1 << 22 };

// What one serving process counts. Written by that process only.
struct ml_PairMetrics {
  std::atomic<uint64_t> Requests[ML_REQ_KINDS] = {};
  std::atomic<uint64_t> Dropped{0};    // replies no queue space could take
  std::atomic<uint64_t> Malformed{0};  // messages that were no request
  std::atomic<uint64_t> Refused{0};    // records refused at the entry cap
  std::atomic<int64_t> Entries{0};
  std::atomic<int64_t> Marks{0};
  std::atomic<int64_t> References{0};
  std::atomic<int64_t> PidsBeyond{0};  // holders whose id has no bit
  std::atomic<int32_t> HighestPid{0};  // no bit is set above it
  // The other hosts of a cluster, as this process last found them: -1 this
  // host alone, 0 they cannot be reached, 1 they can.
  std::atomic<int32_t> Cluster{-1};
  std::atomic<uint64_t> Pids[ML_METRICS_PID_LIMIT / 64] = {};
};

// The whole service's counters, in the shared mapping.
struct ml_ServiceMetrics {
  int32_t Pairs = 1;
  int64_t StartSeconds = 0;               // wall clock, seconds since the epoch
  std::atomic<int64_t> TakenOver{0};      // interests of live processes taken over at start
  ml_PairMetrics Pair[ML_MAX_PAIRS];
};

// The sums the file shows.
struct ml_MetricsTotals {
  uint64_t Requests[ML_REQ_KINDS] = {};
  uint64_t Dropped = 0, Malformed = 0, Refused = 0;
  int64_t Entries = 0, Marks = 0, References = 0, Processes = 0, TakenOver = 0;
  int32_t Pairs = 1;
  int32_t Cluster = -1;  // 0 when any serving process cannot reach the other hosts
  int64_t StartSeconds = 0;
};
ml_MetricsTotals ml_SumMetrics(const ml_ServiceMetrics& m);

// The file's text for these totals.
std::string ml_FormatMetrics(const ml_MetricsTotals& t);

std::string ml_MetricsPath(const std::string& runDir);
// Writes the file afresh (temporary file renamed over it) with `mode`. 0 or -1.
int ml_WriteMetrics(const std::string& runDir, const ml_MetricsTotals& t, mode_t mode);

// How often the service rewrites the file: "SFL_MONITOR_METRICS_SECONDS",
// 1 to 3600, default 5; 0 writes no file.
int ml_MetricsSeconds();

// A serving process's counting of the processes that hold interests: it
// stands between the interest table and its journal, so it sees every slot
// the table takes or frees, and keeps the pair's block up to date.
class ml_HolderCount : public ml_Journal {
 public:
  explicit ml_HolderCount(ml_PairMetrics* block) : block_(block) {}
  // Where the slots go on to (the kept file); may be null.
  void SetNext(ml_Journal* next) { next_ = next; }
  // A slot restored into the table without a journal write.
  void Seed(uint32_t slot, const ml_Saved& saved) { Take(slot, saved.Pid); }
  void Put(uint32_t slot, const ml_Saved& saved) override;
  void Clear(uint32_t slot) override;
  size_t Processes() const { return held_.size(); }

 private:
  void Take(uint32_t slot, int32_t pid);
  void Drop(uint32_t slot);
  void Bit(int32_t pid, bool on);

  ml_PairMetrics* block_;
  ml_Journal* next_ = nullptr;
  std::vector<int32_t> slotPid_;              // 0: free
  std::unordered_map<int32_t, uint32_t> held_;  // pid -> slots it holds
};

// Brings a pair's gauges up to date from its table.
void ml_NoteTable(ml_PairMetrics* block, const ml_InterestTable& table);

#endif  // KQ_ML_METRICS_H
