// Escapes and the error status: fields of a raised escape, the live mark,
// accept/clear/record/restore, the log hook and threshold, tracing, and the
// C trampoline.
#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "er.h"
#include "test_env.h"

namespace {

struct Logged {
  int level, group, reason;
  std::string text;
};
std::vector<Logged> g_logged;
void Hook(int level, int group, int reason, const char* text) {
  g_logged.push_back({level, group, reason, text});
}

std::string LogText() {
  std::ifstream in(sfltest::TestDir() + "/sfl.log");
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

class ErTest : public ::testing::Test {
 protected:
  void SetUp() override {
    er_Clear();
    g_logged.clear();
    old_ = er_SetLogHook(Hook);
  }
  void TearDown() override {
    er_SetLogHook(old_);
    er_Clear();
    er_SubSystemLoggingLevel = 0;
  }
  er_LogHook old_ = nullptr;
};

TEST_F(ErTest, EscapeCarriesGroupReasonFileAndLine) {
  int line = 0;
  try {
    line = __LINE__ + 1;
    ER_RAISE(ER_GROUP_TABLE, 28867);
    FAIL() << "no escape";
  } catch (const er_Escape& e) {
    EXPECT_EQ(e.group(), ER_GROUP_TABLE);
    EXPECT_EQ(e.reason(), 28867);
    EXPECT_STREQ(e.file(), __FILE__);
    EXPECT_EQ(e.line(), line);
    const std::string what = e.what();
    EXPECT_NE(what.find("3/28867"), std::string::npos) << what;
    EXPECT_NE(what.find("bad handle"), std::string::npos) << what;
    EXPECT_NE(what.find("er_test.cpp:" + std::to_string(line)), std::string::npos) << what;
  }
}

TEST_F(ErTest, DetailIsPartOfTheText) {
  try {
    ER_RAISE_MSG(ER_GROUP_SFL, 28857, "item 9 of nothing");
  } catch (const er_Escape& e) {
    EXPECT_NE(std::string(e.what()).find("item 9 of nothing"), std::string::npos);
  }
}

TEST_F(ErTest, RaisingSetsTheLiveStatus) {
  EXPECT_EQ(er_GetLive(), 0);
  int line = 0;
  try {
    line = __LINE__ + 1;
    ER_RAISE(ER_GROUP_SFL, 28871);
  } catch (const er_Escape&) {
  }
  EXPECT_EQ(er_GetLive(), 1);
  er_Status st;
  er_GetStatus(&st);
  EXPECT_EQ(st.live, 1);
  EXPECT_EQ(st.group, ER_GROUP_SFL);
  EXPECT_EQ(st.reason, 28871);
  EXPECT_STREQ(st.file, __FILE__);
  EXPECT_EQ(st.line, line);
}

TEST_F(ErTest, AcceptLogsAndClearsClearOnlyClears) {
  try {
    ER_RAISE(ER_GROUP_SFL, 28880);
  } catch (const er_Escape&) {
  }
  er_Accept(4);
  EXPECT_EQ(er_GetLive(), 0);
  ASSERT_EQ(g_logged.size(), 1u);
  EXPECT_EQ(g_logged[0].level, 4);
  EXPECT_EQ(g_logged[0].group, ER_GROUP_SFL);
  EXPECT_EQ(g_logged[0].reason, 28880);
  // The status keeps the escape's identity; only the live mark went.
  er_Status st;
  er_GetStatus(&st);
  EXPECT_EQ(st.reason, 28880);

  er_Accept(4);  // nothing live: nothing logged
  EXPECT_EQ(g_logged.size(), 1u);

  try {
    ER_RAISE(ER_GROUP_SFL, 28881);
  } catch (const er_Escape&) {
  }
  er_Clear();
  EXPECT_EQ(er_GetLive(), 0);
  EXPECT_EQ(g_logged.size(), 1u);
}

TEST_F(ErTest, RecordAndRestore) {
  try {
    ER_RAISE(ER_GROUP_SFL, 28864);
  } catch (const er_Escape&) {
  }
  er_Status saved;
  er_RecordStatus(&saved);
  {
    er_StatusKeeper keep;
    try {
      ER_RAISE(ER_GROUP_CALL, 22);
    } catch (const er_Escape&) {
    }
    er_Clear();
    EXPECT_EQ(er_GetLive(), 0);
  }
  // The keeper put the first escape back, live.
  er_Status now;
  er_GetStatus(&now);
  EXPECT_EQ(now.live, 1);
  EXPECT_EQ(now.reason, 28864);
  er_Clear();
  er_RestoreStatus(&saved);
  EXPECT_EQ(er_GetLive(), 1);
  er_GetStatus(&now);
  EXPECT_EQ(now.group, ER_GROUP_SFL);
  EXPECT_EQ(now.reason, 28864);
}

TEST_F(ErTest, HookSeesEveryMessageWhateverTheThreshold) {
  ER_LOG(9, ER_GROUP_SFL, 28868, "count %d", 0);
  ER_LOG(1, ER_GROUP_MONIT, 380, "service %s", "gone");
  ASSERT_EQ(g_logged.size(), 2u);
  EXPECT_EQ(g_logged[0].level, 9);
  EXPECT_EQ(g_logged[0].text, "count 0");
  EXPECT_EQ(g_logged[1].group, ER_GROUP_MONIT);
  EXPECT_EQ(g_logged[1].text, "service gone");
  EXPECT_EQ(er_SetLogHook(nullptr), Hook);
  ER_LOG(1, ER_GROUP_SFL, 1, "unhooked");
  EXPECT_EQ(g_logged.size(), 2u);
  er_SetLogHook(Hook);
}

TEST_F(ErTest, ThresholdDecidesWhatIsWritten) {
  setenv("SFL_LOG_LEVEL", "3", 1);
  er_ResetLogSettings();
  ER_LOG(3, ER_GROUP_SFL, 28859, "written-at-three");
  ER_LOG(4, ER_GROUP_SFL, 28859, "dropped-at-four");
  er_LogMsg(2, "plain-at-two");
  er_LogMsg(5, "plain-at-five");
  const std::string log = LogText();
  EXPECT_NE(log.find("written-at-three"), std::string::npos);
  EXPECT_NE(log.find("100/28859"), std::string::npos);
  EXPECT_NE(log.find("plain-at-two"), std::string::npos);
  EXPECT_EQ(log.find("dropped-at-four"), std::string::npos);
  EXPECT_EQ(log.find("plain-at-five"), std::string::npos);
  unsetenv("SFL_LOG_LEVEL");
  er_ResetLogSettings();
  ER_LOG(5, ER_GROUP_SFL, 28859, "default-five");
  EXPECT_NE(LogText().find("default-five"), std::string::npos);
}

void Traced() { ER_TRACE_PROC("sfl_TracedForTest"); }

TEST_F(ErTest, TracingFollowsTheSubsystemLevel) {
  er_SubSystemLoggingLevel = 9;
  Traced();
  EXPECT_EQ(LogText().find("sfl_TracedForTest"), std::string::npos);
  er_SubSystemLoggingLevel = 10;
  Traced();
  const std::string log = LogText();
  const size_t enter = log.find("enter sfl_TracedForTest");
  const size_t exit = log.find("exit  sfl_TracedForTest");
  EXPECT_NE(enter, std::string::npos);
  EXPECT_NE(exit, std::string::npos);
  EXPECT_LT(enter, exit);
}

// The trace level is read from configuration when the library is loaded:
// the test runs itself again with the key set and checks the level there.
TEST(ErStartup, TraceLevelIsReadFromConfigurationAtLoad) {
  if (std::getenv("ER_TEST_STARTUP_CHILD") != nullptr) {
    EXPECT_EQ(er_SubSystemLoggingLevel, 12);
    return;
  }
  EXPECT_EQ(er_SubSystemLoggingLevel, 0);
  int rc = sfltest::RunInChild([] {
    setenv("ER_TEST_STARTUP_CHILD", "1", 1);
    setenv("SFL_TRACE_LEVEL", "12", 1);
    const char* args[] = {"er_test", "--gtest_filter=ErStartup.TraceLevelIsReadFromConfigurationAtLoad",
                          nullptr};
    ::execv("/proc/self/exe", const_cast<char* const*>(args));
    return 98;  // exec failed
  });
  EXPECT_EQ(rc, 0);
}

void RaiseInC(void* ctx) { er_RaiseC(ER_GROUP_SFL, *static_cast<int*>(ctx), "c.c", 7); }
void DoNothing(void* ctx) { *static_cast<int*>(ctx) = 42; }

TEST_F(ErTest, RetryRunsAgainWhileEscapingThenPassesTheLastEscapeOn) {
  int runs = 0;
  // Fails twice, then gives its result on the third run.
  EXPECT_EQ(42, er_Retry(3, [&] {
              if (++runs < 3) ER_RAISE(7, 100 + runs);
              return 42;
            }));
  EXPECT_EQ(runs, 3);
  EXPECT_FALSE(er_GetLive());  // the absorbed escapes were cleared
  // Fails every time: the last escape passes on, still live.
  runs = 0;
  try {
    er_Retry(2, [&] { ER_RAISE(7, 100 + ++runs); });
    ADD_FAILURE() << "no escape";
  } catch (const er_Escape& e) {
    EXPECT_EQ(e.group(), 7);
    EXPECT_EQ(e.reason(), 102);
  }
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(er_GetLive());
  er_Clear();
  // A run that does not escape is the only one.
  runs = 0;
  er_Retry(5, [&] { ++runs; });
  EXPECT_EQ(runs, 1);
}

TEST_F(ErTest, TrampolineReportsEscapesToC) {
  int group = 0, reason = 0, value = 28866;
  EXPECT_EQ(er_CallC(RaiseInC, &value, &group, &reason), 1);
  EXPECT_EQ(group, ER_GROUP_SFL);
  EXPECT_EQ(reason, 28866);
  EXPECT_EQ(er_GetLive(), 0);
  EXPECT_EQ(er_CallC(RaiseInC, &value, nullptr, nullptr), 1);
  value = 0;
  EXPECT_EQ(er_CallC(DoNothing, &value, &group, &reason), 0);
  EXPECT_EQ(value, 42);
}

TEST_F(ErTest, ReasonTexts) {
  EXPECT_STREQ(er_ReasonText(ER_GROUP_CALL, 38), "whence must be 0");
  EXPECT_STREQ(er_ReasonText(ER_GROUP_SFL, 28866), "open-files table full");
  EXPECT_STREQ(er_ReasonText(ER_GROUP_SFL, 28874), "range or position outside the item");
  EXPECT_STREQ(er_ReasonText(ER_GROUP_SFL, 1), "error");
  EXPECT_STRNE(er_ReasonText(ER_GROUP_OS, 2), "");
}

}  // namespace
