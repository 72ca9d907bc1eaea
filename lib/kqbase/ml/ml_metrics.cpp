// ml_metrics: the service's counters summed over its processes, their text
// form and the file they are published in (ml_metrics.h).
#include "ml_metrics.h"

#include <bit>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>

#include "cust.h"
#include "ml.h"
#include "os.h"

int ml_RequestKindOf(int32_t type) {
  switch (type) {
    case ML_MSG_RECORD: return ML_REQ_RECORD;
    case ML_MSG_WITHDRAW: return ML_REQ_WITHDRAW;
    case ML_MSG_CHECK: return ML_REQ_CHECK;
    default: return -1;
  }
}

ml_MetricsTotals ml_SumMetrics(const ml_ServiceMetrics& m) {
  ml_MetricsTotals t;
  t.Pairs = m.Pairs;
  t.StartSeconds = m.StartSeconds;
  t.TakenOver = m.TakenOver.load();
  int32_t highest = 0;
  for (int i = 0; i < m.Pairs; ++i) {
    const ml_PairMetrics& p = m.Pair[i];
    for (int k = 0; k < ML_REQ_KINDS; ++k) t.Requests[k] += p.Requests[k].load();
    t.Dropped += p.Dropped.load();
    t.Malformed += p.Malformed.load();
    t.Refused += p.Refused.load();
    t.Entries += p.Entries.load();
    t.Marks += p.Marks.load();
    t.References += p.References.load();
    t.Processes += p.PidsBeyond.load();
    if (p.HighestPid.load() > highest) highest = p.HighestPid.load();
    const int32_t cluster = p.Cluster.load();
    if (cluster >= 0 && (t.Cluster < 0 || cluster < t.Cluster)) t.Cluster = cluster;
  }
  // A process holding interests with two pairs is one process.
  const size_t words = static_cast<size_t>(highest) / 64 + 1;
  for (size_t w = 0; w < words && w < ML_METRICS_PID_LIMIT / 64; ++w) {
    uint64_t bits = 0;
    for (int i = 0; i < m.Pairs; ++i) bits |= m.Pair[i].Pids[w].load(std::memory_order_relaxed);
    t.Processes += std::popcount(bits);
  }
  return t;
}

namespace {

void family(std::string* out, const char* name, const char* type, const char* help) {
  *out += "# HELP ";
  *out += name;
  *out += ' ';
  *out += help;
  *out += "\n# TYPE ";
  *out += name;
  *out += ' ';
  *out += type;
  *out += '\n';
}

void sample(std::string* out, const char* name, const char* labels, int64_t value) {
  char line[160];
  std::snprintf(line, sizeof line, "%s%s %" PRId64 "\n", name, labels, value);
  *out += line;
}

void one(std::string* out, const char* name, const char* type, const char* help, int64_t value) {
  family(out, name, type, help);
  sample(out, name, "", value);
}

int64_t asSigned(uint64_t v) { return v > INT64_MAX ? INT64_MAX : static_cast<int64_t>(v); }

}  // namespace

std::string ml_FormatMetrics(const ml_MetricsTotals& t) {
  std::string out;
  one(&out, "sfl_monitor_up", "gauge", "1 while the interest service runs and refreshes this file.", 1);
  one(&out, "sfl_monitor_start_time_seconds", "gauge",
      "When the service started, in seconds since the epoch; a change is a restart.", t.StartSeconds);
  one(&out, "sfl_monitor_pairs", "gauge", "Queue pairs, each with its own serving process.", t.Pairs);
  family(&out, "sfl_monitor_requests_total", "counter", "Requests answered, by type.");
  sample(&out, "sfl_monitor_requests_total", "{type=\"record\"}", asSigned(t.Requests[ML_REQ_RECORD]));
  sample(&out, "sfl_monitor_requests_total", "{type=\"withdraw\"}", asSigned(t.Requests[ML_REQ_WITHDRAW]));
  sample(&out, "sfl_monitor_requests_total", "{type=\"check\"}", asSigned(t.Requests[ML_REQ_CHECK]));
  one(&out, "sfl_monitor_replies_dropped_total", "counter",
      "Replies dropped because the reply queue stayed full.", asSigned(t.Dropped));
  one(&out, "sfl_monitor_malformed_messages_total", "counter",
      "Messages dropped because they were no well-formed request.", asSigned(t.Malformed));
  one(&out, "sfl_monitor_records_refused_total", "counter",
      "Records refused at the entry limit (answered as held by another process).", asSigned(t.Refused));
  one(&out, "sfl_monitor_entries", "gauge", "Interest entries held.", t.Entries);
  one(&out, "sfl_monitor_marks", "gauge",
      "Processes marked as holders after a refused record (per reference, or of anything).", t.Marks);
  one(&out, "sfl_monitor_references", "gauge", "Distinct references with an interest held.", t.References);
  one(&out, "sfl_monitor_processes", "gauge", "Processes holding at least one interest or mark.",
      t.Processes);
  one(&out, "sfl_monitor_taken_over", "gauge",
      "Interests of live processes taken over from an earlier service at start.", t.TakenOver);
  if (t.Cluster >= 0)
    one(&out, "sfl_monitor_cluster_reachable", "gauge",
        "1 while the other hosts of the cluster can be asked, 0 while they cannot.", t.Cluster);
  return out;
}

std::string ml_MetricsPath(const std::string& runDir) { return runDir + "/sfl-monitor.prom"; }

int ml_WriteMetrics(const std::string& runDir, const ml_MetricsTotals& t, mode_t mode) {
  const std::string path = ml_MetricsPath(runDir);
  // Not "*.prom": a collector reading the directory must not take it.
  const std::string tmp = runDir + "/.sfl-monitor.prom." + std::to_string(os_getpid()) + ".tmp";
  return ml_ReplaceFile(path, tmp, ml_FormatMetrics(t), mode);
}

int ml_MetricsSeconds() {
  return static_cast<int>(cust_GetBoundedLong("SFL_MONITOR_METRICS_SECONDS", 5, 0, 3600));
}

// ---- processes holding interests ------------------------------------------------------

void ml_HolderCount::Take(uint32_t slot, int32_t pid) {
  Drop(slot);
  if (pid <= 0) return;
  if (slot >= slotPid_.size()) slotPid_.resize(static_cast<size_t>(slot) + 1, 0);
  slotPid_[slot] = pid;
  if (held_[pid]++ == 0) Bit(pid, true);
}

void ml_HolderCount::Drop(uint32_t slot) {
  if (slot >= slotPid_.size() || slotPid_[slot] == 0) return;
  const int32_t pid = slotPid_[slot];
  slotPid_[slot] = 0;
  auto it = held_.find(pid);
  if (it == held_.end()) return;
  if (--it->second == 0) {
    held_.erase(it);
    Bit(pid, false);
  }
}

void ml_HolderCount::Bit(int32_t pid, bool on) {
  if (pid >= ML_METRICS_PID_LIMIT) {
    block_->PidsBeyond.fetch_add(on ? 1 : -1);
    return;
  }
  // Raised before the bit is set, so the summing reader never misses it.
  if (on && pid > block_->HighestPid.load()) block_->HighestPid.store(pid);
  const uint64_t mask = uint64_t{1} << (pid % 64);
  std::atomic<uint64_t>& word = block_->Pids[pid / 64];
  if (on)
    word.fetch_or(mask);
  else
    word.fetch_and(~mask);
}

void ml_HolderCount::Put(uint32_t slot, const ml_Saved& saved) {
  Take(slot, saved.Pid);
  if (next_ != nullptr) next_->Put(slot, saved);
}

void ml_HolderCount::Clear(uint32_t slot) {
  Drop(slot);
  if (next_ != nullptr) next_->Clear(slot);
}

void ml_NoteTable(ml_PairMetrics* block, const ml_InterestTable& table) {
  block->Entries.store(static_cast<int64_t>(table.Entries()));
  block->Marks.store(static_cast<int64_t>(table.Marks()));
  block->References.store(static_cast<int64_t>(table.References()));
  block->Refused.store(table.Refused());
}
