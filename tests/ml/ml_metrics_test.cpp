// The interest service's counters: summed over its serving processes
// without losing an increment, holders counted once across pairs, and the
// file it publishes, read back by a strict reader of the metrics text format
// while real client processes make requests.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/msg.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "ml.h"
#include "ml_metrics.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

// ---- a strict reader of the text format --------------------------------------------------

struct Exposition {
  std::map<std::string, std::string> types;           // family -> type
  std::map<std::string, double> series;               // name{sorted labels} -> value
  std::string error;                                  // "" when the text is well-formed
};

bool nameChar(char c, bool first, bool colon) {
  const bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (colon && c == ':');
  return alpha || (!first && c >= '0' && c <= '9');
}

// Reads a metric name (colons allowed) or a label name from `s` at `*at`.
std::string readName(const std::string& s, size_t* at, bool colon) {
  size_t i = *at;
  while (i < s.size() && nameChar(s[i], i == *at, colon)) ++i;
  std::string name = s.substr(*at, i - *at);
  *at = i;
  return name;
}

// Reads `"..."` with only \\, \" and \n escapes.
bool readQuoted(const std::string& s, size_t* at, std::string* out) {
  if (*at >= s.size() || s[*at] != '"') return false;
  for (size_t i = *at + 1; i < s.size(); ++i) {
    if (s[i] == '"') {
      *at = i + 1;
      return true;
    }
    if (s[i] == '\\') {
      if (++i >= s.size() || (s[i] != '\\' && s[i] != '"' && s[i] != 'n')) return false;
      *out += s[i] == 'n' ? '\n' : s[i];
    } else {
      *out += s[i];
    }
  }
  return false;
}

bool readValue(const std::string& text, double* out) {
  if (text == "NaN" || text == "+Inf" || text == "-Inf") {
    *out = text == "NaN" ? NAN : (text[0] == '-' ? -INFINITY : INFINITY);
    return true;
  }
  if (text.empty()) return false;
  char* end = nullptr;
  *out = std::strtod(text.c_str(), &end);
  return *end == '\0';
}

// The family a sample belongs to: its own name for counters and gauges.
Exposition parse(const std::string& text) {
  Exposition e;
  auto fail = [&](size_t line, const std::string& why) {
    if (e.error.empty()) e.error = "line " + std::to_string(line) + ": " + why;
  };
  if (text.empty() || text.back() != '\n') fail(0, "the text does not end with a newline");
  std::set<std::string> helped, closed;
  std::string current;  // the family whose lines are being read
  size_t number = 0;
  size_t start = 0;
  while (start < text.size() && e.error.empty()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    ++number;
    if (line.find('\r') != std::string::npos || line.find('\t') != std::string::npos)
      fail(number, "carriage return or tab");
    if (line.empty()) {
      fail(number, "empty line");
      continue;
    }
    auto enter = [&](const std::string& family) {
      if (family == current) return;
      if (closed.count(family) != 0) fail(number, family + ": its lines are not together");
      if (!current.empty()) closed.insert(current);
      current = family;
    };
    if (line[0] == '#') {
      if (line.rfind("# HELP ", 0) == 0) {
        size_t at = 7;
        const std::string name = readName(line, &at, true);
        if (name.empty() || at >= line.size() || line[at] != ' ') fail(number, "bad HELP");
        if (!helped.insert(name).second) fail(number, name + ": a second HELP");
        for (size_t i = at + 1; i < line.size(); ++i)
          if (line[i] == '\\' && (i + 1 >= line.size() || (line[++i] != '\\' && line[i] != 'n')))
            fail(number, "bad escape in HELP");
        enter(name);
      } else if (line.rfind("# TYPE ", 0) == 0) {
        size_t at = 7;
        const std::string name = readName(line, &at, true);
        const std::string type = at < line.size() && line[at] == ' ' ? line.substr(at + 1) : "";
        static const std::set<std::string> kTypes = {"counter", "gauge", "histogram", "summary", "untyped"};
        if (name.empty() || kTypes.count(type) == 0) fail(number, "bad TYPE");
        if (!e.types.emplace(name, type).second) fail(number, name + ": a second TYPE");
        if (type == "counter" && (name.size() < 6 || name.compare(name.size() - 6, 6, "_total") != 0))
          fail(number, name + ": a counter not named *_total");
        for (const auto& s : e.series)
          if (s.first.compare(0, name.size(), name) == 0 &&
              (s.first.size() == name.size() || s.first[name.size()] == '{'))
            fail(number, name + ": TYPE after its samples");
        enter(name);
      }
      continue;  // any other comment is allowed
    }
    size_t at = 0;
    const std::string name = readName(line, &at, true);
    if (name.empty()) {
      fail(number, "no metric name");
      continue;
    }
    std::map<std::string, std::string> labels;
    if (at < line.size() && line[at] == '{') {
      ++at;
      while (at < line.size() && line[at] != '}') {
        const std::string label = readName(line, &at, false);
        std::string value;
        if (label.empty() || label.rfind("__", 0) == 0 || at >= line.size() || line[at] != '=') {
          fail(number, "bad label name");
          break;
        }
        ++at;
        if (!readQuoted(line, &at, &value)) {
          fail(number, "bad label value");
          break;
        }
        if (!labels.emplace(label, value).second) fail(number, "label " + label + " twice");
        if (at < line.size() && line[at] == ',') ++at;
      }
      if (at >= line.size() || line[at] != '}') fail(number, "labels not closed");
      ++at;
    }
    if (at >= line.size() || line[at] != ' ') {
      fail(number, "no space before the value");
      continue;
    }
    const std::string rest = line.substr(at + 1);
    double value = 0;
    // A timestamp would be a second field: the textfile collectors refuse it.
    if (rest.find(' ') != std::string::npos || !readValue(rest, &value)) fail(number, "bad value");
    auto type = e.types.find(name);
    if (type == e.types.end()) fail(number, name + ": a sample without TYPE");
    else if (type->second == "counter" && !(value >= 0)) fail(number, name + ": a negative counter");
    enter(name);
    std::string key = name;
    if (!labels.empty()) {
      key += '{';
      for (const auto& l : labels) key += l.first + "=\"" + l.second + "\",";
      key.back() = '}';
    }
    if (!e.series.emplace(key, value).second) fail(number, key + ": the same series twice");
  }
  return e;
}

// ---- the reader itself is strict ---------------------------------------------------------

TEST(MetricsFormat, TheReaderRefusesWhatTheFormatForbids) {
  const std::string good = "# HELP a_total A.\n# TYPE a_total counter\na_total{k=\"v\"} 1\n";
  EXPECT_EQ(parse(good).error, "");
  const std::vector<std::string> bad = {
      "# TYPE a_total counter\na_total 1",                       // no final newline
      "a 1\n",                                                     // no TYPE
      "# TYPE a counter\na 1\n",                                   // counter not *_total
      "# TYPE a gauge\na 1\na 2\n",                                // the same series twice
      "# TYPE a gauge\na{k=\"v\",k=\"w\"} 1\n",                    // a label twice
      "# TYPE a gauge\na{1k=\"v\"} 1\n",                           // bad label name
      "# TYPE a gauge\na{__k=\"v\"} 1\n",                          // reserved label name
      "# TYPE a gauge\na{k=\"v\\x\"} 1\n",                         // bad escape
      "# TYPE a gauge\na 1 1700000000\n",                          // timestamp
      "# TYPE a gauge\n# TYPE b gauge\nb 1\na 1\n# TYPE a gauge\n",  // a second TYPE
      "# TYPE a gauge\na 1\n# TYPE b gauge\nb 1\na 2\n",           // a family split
      "# TYPE 9a gauge\n9a 1\n",                                   // bad metric name
      "# TYPE a_total counter\na_total -1\n",                      // negative counter
      "# TYPE a gauge\na x\n",                                     // bad value
      "a 1\n# TYPE a gauge\n",                                     // TYPE after samples
  };
  for (const std::string& t : bad) EXPECT_NE(parse(t).error, "") << t;
}

// ---- sums over the serving processes -----------------------------------------------------

// The shared counters are large (a bit per process id); keep them off the stack.
std::unique_ptr<ml_ServiceMetrics> metrics(int pairs) {
  auto m = std::make_unique<ml_ServiceMetrics>();
  m->Pairs = pairs;
  return m;
}

ml_Saved held(int32_t pid) {
  ml_Saved s;
  s.Kind = ML_SAVED_ENTRY;
  s.Pid = pid;
  return s;
}

TEST(MetricsSum, EveryPairsCountsAreAdded) {
  auto m = metrics(3);
  for (int i = 0; i < 3; ++i) {
    m->Pair[i].Requests[ML_REQ_RECORD] = 10 * (i + 1);
    m->Pair[i].Requests[ML_REQ_CHECK] = i + 1;
    m->Pair[i].Dropped = 1;
    m->Pair[i].Malformed = 2;
    m->Pair[i].Entries = 5;
  }
  m->Pair[3].Requests[ML_REQ_RECORD] = 1000;  // beyond the pair count: not in use
  const ml_MetricsTotals t = ml_SumMetrics(*m);
  EXPECT_EQ(t.Requests[ML_REQ_RECORD], 60u);
  EXPECT_EQ(t.Requests[ML_REQ_CHECK], 6u);
  EXPECT_EQ(t.Requests[ML_REQ_WITHDRAW], 0u);
  EXPECT_EQ(t.Dropped, 3u);
  EXPECT_EQ(t.Malformed, 6u);
  EXPECT_EQ(t.Entries, 15);
  EXPECT_EQ(t.Pairs, 3);
}

TEST(MetricsSum, TheOtherHostsAreReachableOnlyWhenEveryPairReachesThem) {
  auto m = metrics(2);
  EXPECT_EQ(ml_SumMetrics(*m).Cluster, -1);  // this host alone
  m->Pair[0].Cluster = 1;
  m->Pair[1].Cluster = 1;
  EXPECT_EQ(ml_SumMetrics(*m).Cluster, 1);
  m->Pair[1].Cluster = 0;
  EXPECT_EQ(ml_SumMetrics(*m).Cluster, 0);
  m->Pair[0].Cluster = 0;
  m->Pair[1].Cluster = 1;
  EXPECT_EQ(ml_SumMetrics(*m).Cluster, 0);
}

TEST(MetricsSum, AProcessHoldingWithTwoPairsIsOneProcess) {
  auto m = metrics(2);
  ml_HolderCount a(&m->Pair[0]), b(&m->Pair[1]);
  a.Put(0, held(4242));
  a.Put(1, held(4242));  // two entries, one process
  b.Put(0, held(4242));  // the same process with the other pair
  b.Put(1, held(77));
  b.Put(2, held(ML_METRICS_PID_LIMIT + 5));  // no bit of its own, still counted
  EXPECT_EQ(a.Processes(), 1u);
  EXPECT_EQ(b.Processes(), 3u);
  EXPECT_EQ(ml_SumMetrics(*m).Processes, 3);
  a.Clear(0);
  EXPECT_EQ(ml_SumMetrics(*m).Processes, 3);  // still holds slot 1 of pair 0
  a.Clear(1);
  b.Clear(0);
  EXPECT_EQ(ml_SumMetrics(*m).Processes, 2);
  b.Put(1, held(78));  // a slot taken over by another process
  b.Clear(2);
  EXPECT_EQ(ml_SumMetrics(*m).Processes, 1);
  b.Seed(7, held(99));
  EXPECT_EQ(ml_SumMetrics(*m).Processes, 2);
}

TEST(MetricsSum, TheSlotsGoOnToTheJournalBehind) {
  struct Recorder : ml_Journal {
    std::vector<std::string> seen;
    void Put(uint32_t slot, const ml_Saved& s) override {
      seen.push_back("put " + std::to_string(slot) + " " + std::to_string(s.Pid));
    }
    void Clear(uint32_t slot) override { seen.push_back("clear " + std::to_string(slot)); }
  } next;
  auto m = metrics(1);
  ml_HolderCount count(&m->Pair[0]);
  count.SetNext(&next);
  count.Put(3, held(12));
  count.Clear(3);
  EXPECT_EQ(next.seen, (std::vector<std::string>{"put 3 12", "clear 3"}));
}

TEST(MetricsFormat, TheTextIsWellFormedAndCarriesTheTotals) {
  ml_MetricsTotals t;
  t.Requests[ML_REQ_RECORD] = 7;
  t.Requests[ML_REQ_WITHDRAW] = 5;
  t.Requests[ML_REQ_CHECK] = 3;
  t.Dropped = 2;
  t.Malformed = 1;
  t.Entries = 4;
  t.Processes = 2;
  t.Pairs = 4;
  t.StartSeconds = 1700000000;
  Exposition e = parse(ml_FormatMetrics(t));
  ASSERT_EQ(e.error, "");
  EXPECT_EQ(e.series["sfl_monitor_requests_total{type=\"record\"}"], 7);
  EXPECT_EQ(e.series["sfl_monitor_requests_total{type=\"withdraw\"}"], 5);
  EXPECT_EQ(e.series["sfl_monitor_requests_total{type=\"check\"}"], 3);
  EXPECT_EQ(e.series["sfl_monitor_replies_dropped_total"], 2);
  EXPECT_EQ(e.series["sfl_monitor_malformed_messages_total"], 1);
  EXPECT_EQ(e.series["sfl_monitor_entries"], 4);
  EXPECT_EQ(e.series["sfl_monitor_processes"], 2);
  EXPECT_EQ(e.series["sfl_monitor_pairs"], 4);
  EXPECT_EQ(e.series["sfl_monitor_start_time_seconds"], 1700000000);
  EXPECT_EQ(e.types.count("sfl_monitor_cluster_reachable"), 0u);  // this host alone
  t.Cluster = 0;
  e = parse(ml_FormatMetrics(t));
  ASSERT_EQ(e.error, "");
  EXPECT_EQ(e.series["sfl_monitor_cluster_reachable"], 0);
  EXPECT_EQ(e.types["sfl_monitor_cluster_reachable"], "gauge");
}

TEST(MetricsFile, TheRefreshTimeIsASetting) {
  unsetenv("SFL_MONITOR_METRICS_SECONDS");
  EXPECT_EQ(ml_MetricsSeconds(), 5);
  setenv("SFL_MONITOR_METRICS_SECONDS", "0", 1);
  EXPECT_EQ(ml_MetricsSeconds(), 0);
  setenv("SFL_MONITOR_METRICS_SECONDS", "60", 1);
  EXPECT_EQ(ml_MetricsSeconds(), 60);
  for (const char* bad : {"-1", "3601", "5s", ""}) {
    setenv("SFL_MONITOR_METRICS_SECONDS", bad, 1);
    EXPECT_EQ(ml_MetricsSeconds(), 5) << bad;
  }
  unsetenv("SFL_MONITOR_METRICS_SECONDS");
}

TEST(MetricsFile, AWriteThatCannotBeMadeLeavesTheOldFileAndNoTemporary) {
  const std::string dir = sfltest::TestDir();
  ml_MetricsTotals t;
  EXPECT_EQ(ml_WriteMetrics(dir + "/no-such-dir", t, 0600), -1);
  t.Entries = 1;
  ASSERT_EQ(ml_WriteMetrics(dir, t, 0600), 0);
  const std::string before = sfltest::ReadWholeFile(ml_MetricsPath(dir));
  struct stat st {};
  ASSERT_EQ(stat(ml_MetricsPath(dir).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  t.Entries = 2;
  for (os_Op op : {os_Op::Open, os_Op::Write, os_Op::Close, os_Op::Rename}) {
    os_FailNth(op, 1, EIO);
    EXPECT_EQ(ml_WriteMetrics(dir, t, 0600), -1) << os_OpName(op);
    os_ClearFaults();
    EXPECT_EQ(sfltest::ReadWholeFile(ml_MetricsPath(dir)), before) << os_OpName(op);
    size_t temporaries = 0;
    if (DIR* d = opendir(dir.c_str())) {
      while (dirent* e = readdir(d)) temporaries += std::string(e->d_name).find(".tmp") != std::string::npos;
      closedir(d);
    }
    EXPECT_EQ(temporaries, 0u) << os_OpName(op);
  }
}

TEST(MetricsFormat, OnlyRequestsHaveAKind) {
  EXPECT_EQ(ml_RequestKindOf(ML_MSG_RECORD), ML_REQ_RECORD);
  EXPECT_EQ(ml_RequestKindOf(ML_MSG_WITHDRAW), ML_REQ_WITHDRAW);
  EXPECT_EQ(ml_RequestKindOf(ML_MSG_CHECK), ML_REQ_CHECK);
  EXPECT_EQ(ml_RequestKindOf(ML_MSG_TICK), -1);
  EXPECT_EQ(ml_RequestKindOf(13), -1);
}

// ---- the running service, asked by real client processes ---------------------------------

// The file's content, or why it is not well-formed.
Exposition published() {
  const std::string text = sfltest::ReadWholeFile(ml_MetricsPath(sfltest::RunDir()));
  Exposition e = parse(text);
  if (text.empty()) e.error = "no file";
  return e;
}

// Waits until the published file holds `value` for `key`; on failure the
// expectation names what it held.
void expectPublished(const std::string& key, double value) {
  Exposition last;
  const bool seen = sfltest::Eventually([&] {
    last = published();
    auto it = last.series.find(key);
    return last.error.empty() && it != last.series.end() && it->second == value;
  });
  EXPECT_TRUE(seen) << key << " never " << value << "; last: "
                    << (last.series.count(key) != 0 ? std::to_string(last.series[key]) : last.error);
}

sfl_BaseRec baseFor(uint32_t subDomain, uint32_t fileId) {
  sfl_BaseRec rec{};
  sfl_ItemRef ref{};
  ref.Domain = 2;
  ref.SubDomain = subDomain;
  ref.FileId = fileId;
  sfl_SetRef(rec, ref);
  return rec;
}

std::vector<std::string> promFiles(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string n = e->d_name;
      if (n.find(".prom") != std::string::npos) names.push_back(n);
    }
    closedir(d);
  }
  return names;
}

TEST(MetricsService, CountsMoveAsClientsAskAndNoIncrementIsLost) {
  setenv("SFL_MONITOR_METRICS_SECONDS", "1", 1);
  const int service = sfltest::StartService({"--pairs", "4"});
  unsetenv("SFL_MONITOR_METRICS_SECONDS");
  ASSERT_GT(service, 0);
  expectPublished("sfl_monitor_pairs", 4);
  expectPublished("sfl_monitor_processes", 0);

  // Eight processes, each holding two files (one of them shared by all, the
  // other routed to pair i mod 4), and checking many times: the checks of
  // all four serving processes must add up exactly.
  constexpr int kClients = 8, kChecks = 60;
  sfltest::Gate recorded[kClients], release[kClients];
  std::vector<int> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(sfltest::StartChild([&, i] {
      sfl_BaseRec shared = baseFor(0, 1);
      sfl_BaseRec own = baseFor(static_cast<uint32_t>(i), 100 + static_cast<uint32_t>(i));
      sfl_RecordBaseInterest(&shared);
      sfl_RecordBaseInterest(&own);
      for (int k = 0; k < kChecks; ++k) sfl_CheckBaseInterest(k % 2 == 0 ? &shared : &own);
      recorded[i].Open();
      release[i].Wait();
      sfl_ReleaseBaseInterest(&own);
      sfl_ReleaseBaseInterest(&shared);
      return 0;
    }));
  }
  for (auto& g : recorded) g.Wait();
  expectPublished("sfl_monitor_requests_total{type=\"check\"}", kClients * kChecks);
  expectPublished("sfl_monitor_requests_total{type=\"record\"}", 2 * kClients);
  expectPublished("sfl_monitor_entries", 2 * kClients);
  expectPublished("sfl_monitor_references", kClients + 1);  // the shared file and each own one
  // Pair 0 holds every process's shared file and two of them their own too.
  expectPublished("sfl_monitor_processes", kClients);
  expectPublished("sfl_monitor_requests_total{type=\"withdraw\"}", 0);

  // A message that is no request is counted, not answered.
  ml_State st;
  ASSERT_TRUE(ml_ReadState(sfltest::RunDir(), &st));
  struct {
    long mtype;
    uint8_t body[5];
  } junk = {10, {1, 2, 3, 4, 5}};
  ASSERT_EQ(msgsnd(st.Context[2], &junk, sizeof junk.body, 0), 0);
  expectPublished("sfl_monitor_malformed_messages_total", 1);

  for (auto& g : release) g.Open();
  for (int pid : clients) EXPECT_EQ(sfltest::WaitChild(pid), 0);
  expectPublished("sfl_monitor_requests_total{type=\"withdraw\"}", 2 * kClients);
  expectPublished("sfl_monitor_entries", 0);
  expectPublished("sfl_monitor_processes", 0);
  expectPublished("sfl_monitor_replies_dropped_total", 0);

  // Owner only, and nothing else a collector of *.prom files could take.
  struct stat sb {};
  ASSERT_EQ(stat(ml_MetricsPath(sfltest::RunDir()).c_str(), &sb), 0);
  EXPECT_EQ(sb.st_mode & 0777, 0600u);
  EXPECT_EQ(promFiles(sfltest::RunDir()), std::vector<std::string>{"sfl-monitor.prom"});

  // Stopped, the service leaves no counts behind that nobody refreshes.
  sfltest::StopService();
  EXPECT_TRUE(promFiles(sfltest::RunDir()).empty());
}

TEST(MetricsService, InterestsTakenOverAtStartAreCounted) {
  setenv("SFL_MONITOR_METRICS_SECONDS", "1", 1);
  ASSERT_GT(sfltest::StartService(), 0);
  sfltest::Gate recorded, release;
  const int holder = sfltest::StartChild([&] {
    sfl_BaseRec rec = baseFor(5, 6);
    sfl_RecordBaseInterest(&rec);
    recorded.Open();
    release.Wait();
    return 0;
  });
  recorded.Wait();
  int code = -1;
  sfltest::RunMonitor("--stop --force --run-dir " + sfltest::RunDir(), &code);
  ASSERT_EQ(code, 0);
  ASSERT_GT(sfltest::StartService(), 0);
  unsetenv("SFL_MONITOR_METRICS_SECONDS");
  expectPublished("sfl_monitor_taken_over", 1);
  expectPublished("sfl_monitor_entries", 1);
  expectPublished("sfl_monitor_processes", 1);
  expectPublished("sfl_monitor_requests_total{type=\"record\"}", 0);
  release.Open();
  EXPECT_EQ(sfltest::WaitChild(holder), 0);
  sfltest::StopService();
}

TEST(MetricsService, AFileThatCannotBeWrittenIsLoggedOnce) {
  const std::string run = sfltest::RunDir();
  std::filesystem::create_directories(run + "/sfl-monitor.prom");  // the rename cannot replace it
  chmod(run.c_str(), 0700);
  const std::string log = sfltest::TestDir() + "/service.log";
  setenv("SFL_MONITOR_METRICS_SECONDS", "1", 1);
  const int service = sfltest::StartChild([&] {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd < 0 || dup2(fd, 2) < 0) return 90;
    ml_ServiceOptions o;
    o.RunDir = run;
    return ml_RunService(o);
  });
  unsetenv("SFL_MONITOR_METRICS_SECONDS");
  auto failures = [&] {
    const std::string text = sfltest::ReadWholeFile(log);
    size_t n = 0;
    for (size_t at = text.find("cannot write"); at != std::string::npos; at = text.find("cannot write", at + 1)) ++n;
    return n;
  };
  EXPECT_TRUE(sfltest::Eventually([&] { return failures() >= 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // two more refreshes, both failing
  kill(service, SIGTERM);
  EXPECT_EQ(sfltest::WaitChild(service), 0);
  EXPECT_EQ(failures(), 1u) << sfltest::ReadWholeFile(log);
  EXPECT_NE(sfltest::ReadWholeFile(log).find(run + "/sfl-monitor.prom"), std::string::npos);
}

TEST(MetricsService, NoFileWhenSwitchedOff) {
  setenv("SFL_MONITOR_METRICS_SECONDS", "0", 1);
  ASSERT_GT(sfltest::StartService(), 0);
  unsetenv("SFL_MONITOR_METRICS_SECONDS");
  EXPECT_EQ(0, sfltest::RunInChild([] {
    sfl_BaseRec rec = baseFor(1, 1);
    sfl_RecordBaseInterest(&rec);
    sfl_ReleaseBaseInterest(&rec);
    return 0;
  }));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_TRUE(promFiles(sfltest::RunDir()).empty());
  sfltest::StopService();
}

}  // namespace
