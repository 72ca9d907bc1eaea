// `sfl service status` shows what the running service holds and has
// answered, read from the counts it publishes in its run directory, as a
// client process records, checks and withdraws interests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

using sfltest::Outcome;
using sfltest::Sfl;

std::vector<std::string> Lines(const std::string& s) {
  std::vector<std::string> lines;
  std::stringstream ss(s);
  std::string line;
  while (std::getline(ss, line)) lines.push_back(line);
  return lines;
}

sfl_BaseRec baseFor(uint32_t subDomain) {
  sfl_BaseRec rec{};
  sfl_ItemRef ref{};
  ref.Domain = 2;
  ref.SubDomain = subDomain;
  ref.FileId = 9;
  sfl_SetRef(rec, ref);
  return rec;
}

std::string metricsText() { return sfltest::ReadWholeFile(sfltest::RunDir() + "/sfl-monitor.prom"); }

bool published(const std::string& line) {
  return sfltest::Eventually([&] { return metricsText().find("\n" + line + "\n") != std::string::npos; });
}

TEST(SflServiceCounts, StatusShowsWhatIsHeldAndAnswered) {
  // Passed on to the service the tool starts detached.
  setenv("SFL_MONITOR_METRICS_SECONDS", "1", 1);
  ASSERT_EQ(Sfl({"service", "start", "--pairs", "2"}).status, 0);
  unsetenv("SFL_MONITOR_METRICS_SECONDS");

  sfltest::Gate asked, release;
  const int client = sfltest::StartChild([&] {
    sfl_BaseRec a = baseFor(0), b = baseFor(1);  // one on each pair
    sfl_RecordBaseInterest(&a);
    sfl_RecordBaseInterest(&b);
    for (int i = 0; i < 3; ++i) sfl_CheckBaseInterest(&a);
    asked.Open();
    release.Wait();
    sfl_ReleaseBaseInterest(&a);
    sfl_ReleaseBaseInterest(&b);
    return 0;
  });
  asked.Wait();
  ASSERT_TRUE(published("sfl_monitor_requests_total{type=\"check\"} 3")) << metricsText();
  ASSERT_TRUE(published("sfl_monitor_entries 2")) << metricsText();
  Outcome held = Sfl({"service", "status"});
  EXPECT_EQ(held.status, 0);
  std::vector<std::string> lines = Lines(held.out);
  ASSERT_GE(lines.size(), 3u) << held.out;
  EXPECT_EQ(lines[1], "held           2 interest entries by 1 process");
  EXPECT_EQ(lines[2], "answered       5 requests (record 2, withdraw 0, check 3)");
  Outcome json = Sfl({"service", "status", "--json"});
  EXPECT_NE(json.out.find(", \"entries\": 2, \"processes\": 1, \"requests\": {\"record\": 2, \"withdraw\": 0, "
                          "\"check\": 3}, \"requests_answered\": 5, \"counts_age_seconds\": "),
            std::string::npos)
      << json.out;

  release.Open();
  EXPECT_EQ(sfltest::WaitChild(client), 0);
  ASSERT_TRUE(published("sfl_monitor_requests_total{type=\"withdraw\"} 2")) << metricsText();
  ASSERT_TRUE(published("sfl_monitor_entries 0")) << metricsText();
  lines = Lines(Sfl({"service", "status"}).out);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[1], "held           0 interest entries by 0 processes");
  EXPECT_EQ(lines[2], "answered       7 requests (record 2, withdraw 2, check 3)");

  // A stopped service's counts are not shown (it removes its file).
  ASSERT_EQ(Sfl({"service", "stop"}).status, 0);
  Outcome down = Sfl({"service", "status"});
  EXPECT_EQ(down.status, 1);
  EXPECT_EQ(down.out.find("held"), std::string::npos) << down.out;
  EXPECT_EQ(access((sfltest::RunDir() + "/sfl-monitor.prom").c_str(), F_OK), -1);
  EXPECT_NE(Sfl({"service", "status", "--json"}).out.find("\"entries\": null, \"processes\": null"),
            std::string::npos);
}

TEST(SflServiceCounts, StatusSaysWhenNoCountsArePublished) {
  setenv("SFL_MONITOR_METRICS_SECONDS", "0", 1);
  ASSERT_EQ(Sfl({"service", "start"}).status, 0);
  unsetenv("SFL_MONITOR_METRICS_SECONDS");
  const std::vector<std::string> lines = Lines(Sfl({"service", "status"}).out);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1], "counts         not published (yet): no " + sfltest::RunDir() + "/sfl-monitor.prom");
  ASSERT_EQ(Sfl({"service", "stop"}).status, 0);
}

}  // namespace
