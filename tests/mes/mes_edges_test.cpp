// The message and error libraries at their edges: buffers that are missing,
// empty or too small, status pointers that are null, log and error lines
// that cannot be written, and a log file that cannot be opened.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cl.h"
#include "er.h"
#include "mes.h"
#include "os.h"

namespace {

TEST(MessageEdges, MissingOrEmptyBuffersGetNothing) {
  char buf[8] = "xxxxxxx";
  EXPECT_EQ(mes_GetErrMsgPrefix(100, 28874, nullptr, 10), -1);
  EXPECT_EQ(mes_GetErrMsgPrefix(100, 28874, buf, 0), -1);
  EXPECT_EQ(mes_GetAnyErMsg(100, 28874, nullptr, 10), -1);
  EXPECT_EQ(mes_GetAnyErMsg(100, 28874, buf, 0), -1);
  // A message with no text, into no buffer.
  EXPECT_EQ(mes_GetAnyErMsg(7, 1, nullptr, 10), -1);
  EXPECT_EQ(mes_GetAnyErMsg(7, 1, buf, 0), -1);
  EXPECT_STREQ(buf, "xxxxxxx");
}

TEST(MessageEdges, TextsThatDoNotFitAreCutAndSaySo) {
  char buf[8];
  EXPECT_EQ(mes_GetErrMsgPrefix(100, 28874, buf, sizeof buf), -1);
  EXPECT_EQ(std::strlen(buf), sizeof buf - 1);
  EXPECT_EQ(mes_GetAnyErMsg(100, 28874, buf, sizeof buf), -1);
  EXPECT_EQ(std::strlen(buf), sizeof buf - 1);
  EXPECT_EQ(mes_GetAnyErMsg(7, 1, buf, sizeof buf), -1);
  char big[128];
  EXPECT_EQ(mes_GetAnyErMsg(7, 1, big, sizeof big), 1);
  EXPECT_STREQ(big, "no text for message 7/1");
}

TEST(MessageEdges, EveryGroupFindsItsOwnTexts) {
  EXPECT_STREQ(mes_Text(1, 99999), "bad call");
  EXPECT_STREQ(mes_Text(116, 380), "interest service not available");
  EXPECT_EQ(mes_Text(116, 381), nullptr);
  EXPECT_EQ(mes_Text(101, 1), nullptr);
  EXPECT_NE(mes_Text(101, 4401), nullptr);
  EXPECT_EQ(mes_Text(MES_GROUP_MAINT, 1), nullptr);
  // The storage library's reasons are found in any group.
  EXPECT_NE(mes_Text(3, 28867), nullptr);
  EXPECT_STREQ(mes_Text(2, ENOENT), std::strerror(ENOENT));
}

TEST(ErrorEdges, NullStatusPointersAreIgnored) {
  er_Status s{};
  s.group = 5;
  er_RecordStatus(nullptr);
  er_RestoreStatus(nullptr);
  er_GetStatus(nullptr);
  er_GetStatus(&s);
  EXPECT_EQ(s.live, 0);
  int group = -1, reason = -1;
  // A C call that escapes reports into null pointers without harm.
  EXPECT_EQ(er_CallC([](void*) { er_RaiseC(100, 28874, "x.c", 1); }, nullptr, nullptr, nullptr),
            1);
  EXPECT_EQ(er_CallC([](void*) { er_RaiseC(100, 28874, "x.c", 1); }, nullptr, &group, &reason), 1);
  EXPECT_EQ(group, 100);
  EXPECT_EQ(reason, 28874);
  EXPECT_EQ(er_GetLive(), 0);
}

// A log file that cannot be opened leaves logging on standard error; a
// line that cannot be written is dropped without an escape.
TEST(ErrorEdges, LoggingThatCannotBeWrittenIsDropped) {
  const char* was = std::getenv("SFL_LOG_FILE");
  const std::string previous = was != nullptr ? was : "";
  setenv("SFL_LOG_FILE", "/nonexistent-dir/x/log", 1);
  setenv("SFL_LOG_LEVEL", "9", 1);
  er_ResetLogSettings();
  os_FailNth(os_Op::Write, 1, EIO);
  EXPECT_NO_THROW(er_LogMsg(1, "a line that is lost %d", 1));
  os_ClearFaults();
  os_FailNth(os_Op::Write, 1, EIO);
  EXPECT_NO_THROW(cl_DisplayError(100, 28874, "path"));
  os_ClearFaults();
  // An escape absorbed with no file recorded logs "?" for it.
  er_Status s{};
  s.live = 1;
  s.group = 100;
  s.reason = 28874;
  s.file = nullptr;
  er_RestoreStatus(&s);
  EXPECT_NO_THROW(er_Accept(1));
  EXPECT_EQ(er_GetLive(), 0);
  if (was != nullptr) setenv("SFL_LOG_FILE", previous.c_str(), 1);
  else unsetenv("SFL_LOG_FILE");
  unsetenv("SFL_LOG_LEVEL");
  er_ResetLogSettings();
}

TEST(ErrorEdges, AnErrorLineIsOneLineWhateverThePathHolds) {
  const std::string line = cl_ErrorLine(100, 28874, "a\rb\nc");
  EXPECT_EQ(line.find('\n'), std::string::npos);
  EXPECT_EQ(line.find('\r'), std::string::npos);
  EXPECT_NE(line.find("a b c"), std::string::npos);
}

}  // namespace
