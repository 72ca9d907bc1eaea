// The subsystem library: run directory, state file format and atomic
// publication, the service lock, and the subsystem calls the client makes.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ml.h"
#include "os.h"
#include "test_env.h"

namespace {

using sfltest::RunDir;

ml_State sample() {
  ml_State st;
  st.State = ML_STATE_RUNNING;
  st.MainPid = getpid();
  st.Additional = {getpid(), getpid()};
  st.Context = {10, 11, 12, 13, 14, 15};
  return st;
}

// The tests of this file share their process's run directory when the
// whole program runs at once; one that looks at the whole directory, or at
// the absence of a state, starts from an empty one.
void EmptyRunDir() {
  for (const auto& e : std::filesystem::directory_iterator(RunDir())) std::filesystem::remove_all(e.path());
}

// The one bounded reader: a file of the bound is read whole, one byte more
// is refused, and a failed read says why.
TEST(MlReadBounded, ReadsUpToItsBoundAndSaysWhyItStopped) {
  const std::string path = sfltest::TestDir() + "/bounded";
  {
    std::ofstream out(path, std::ios::binary);
    out << std::string(20000, 'x');  // more than one read's buffer
  }
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  std::string text, why;
  EXPECT_TRUE(ml_ReadBounded(fd, 20000, &text, &why));
  EXPECT_EQ(std::string(20000, 'x'), text);
  ASSERT_EQ(0, lseek(fd, 0, SEEK_SET));
  EXPECT_FALSE(ml_ReadBounded(fd, 19999, &text, &why));
  EXPECT_EQ("longer than 19999 bytes", why);
  ASSERT_EQ(0, lseek(fd, 0, SEEK_SET));
  os_FailNth(os_Op::Read, 2, EIO);
  EXPECT_FALSE(ml_ReadBounded(fd, 20000, &text, &why));
  os_ClearFaults();
  EXPECT_EQ(std::strerror(EIO), why);
  ASSERT_EQ(0, lseek(fd, 0, SEEK_SET));
  EXPECT_FALSE(ml_ReadBounded(fd, 10, &text));  // no reason asked for
  close(fd);
  unlink(path.c_str());
}

TEST(MlRunDir, ConfiguredThenRuntimeDirThenPerUserTmp) {
  setenv("SFL_RUN_DIR", "/some/where", 1);
  EXPECT_EQ("/some/where", ml_RunDir());
  unsetenv("SFL_RUN_DIR");
  setenv("XDG_RUNTIME_DIR", "/run/user/42", 1);
  EXPECT_EQ("/run/user/42/sfl", ml_RunDir());
  unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ("/tmp/sfl-run-" + std::to_string(getuid()), ml_RunDir());
  setenv("SFL_RUN_DIR", RunDir().c_str(), 1);
}

TEST(MlRunDir, PrepareCreatesAndRefusesFiles) {
  std::string dir = RunDir() + "/sub";
  EXPECT_EQ(0, ml_PrepareRunDir(dir, 0700));
  EXPECT_TRUE(std::filesystem::is_directory(dir));
  EXPECT_EQ(0, ml_PrepareRunDir(dir, 0700));  // already there
  std::ofstream(dir + "/file") << "x";
  EXPECT_EQ(-1, ml_PrepareRunDir(dir + "/file", 0700));
  EXPECT_EQ(ENOTDIR, errno);
}

TEST(MlState, FormatAndParseRoundTrip) {
  ml_State in = sample();
  ml_State out;
  ASSERT_TRUE(ml_ParseState(ml_FormatState(in), &out));
  EXPECT_EQ(in.Subsystem, out.Subsystem);
  EXPECT_EQ(in.State, out.State);
  EXPECT_EQ(in.MainPid, out.MainPid);
  EXPECT_EQ(in.Additional, out.Additional);
  EXPECT_EQ(in.Context, out.Context);
}

TEST(MlState, MalformedTextIsRefused) {
  const std::string good = ml_FormatState(sample());
  ml_State out;
  EXPECT_FALSE(ml_ParseState("", &out));
  EXPECT_FALSE(ml_ParseState("garbage\n", &out));
  EXPECT_FALSE(ml_ParseState(good.substr(0, good.size() - 4), &out));  // no end line
  std::string v2 = good;
  v2.replace(v2.find(" 1\n"), 3, " 2\n");
  EXPECT_FALSE(ml_ParseState(v2, &out));  // another format version
  EXPECT_FALSE(ml_ParseState("sfl-monitor-state 1\nstate 6\nmain 1\ncontext 3 1 2\nend\n", &out));
  EXPECT_FALSE(ml_ParseState("sfl-monitor-state 1\nstate 6\nmain 1\nwhat 3\nend\n", &out));
  EXPECT_FALSE(ml_ParseState("sfl-monitor-state 1\nstate 6\nend\n", &out));  // no main
}

TEST(MlState, PublishReplacesAtomicallyAndLeavesNoTemporary) {
  EmptyRunDir();
  ml_State st = sample();
  ASSERT_EQ(0, ml_PublishState(RunDir(), st, 0600));
  st.MainPid = 12345;
  ASSERT_EQ(0, ml_PublishState(RunDir(), st, 0600));
  ml_State back;
  ASSERT_TRUE(ml_ReadState(RunDir(), &back));
  EXPECT_EQ(12345, back.MainPid);
  int files = 0;
  for (const auto& e : std::filesystem::directory_iterator(RunDir())) {
    ++files;
    EXPECT_EQ(std::string::npos, e.path().string().find(".tmp")) << e.path();
  }
  EXPECT_EQ(1, files);
  EXPECT_EQ(0600u, static_cast<unsigned>(std::filesystem::status(ml_StatePath(RunDir())).permissions()));
  // A failed publication leaves the old state in place.
  os_FailNth(os_Op::Rename, 1, EIO);
  st.MainPid = 777;
  EXPECT_EQ(-1, ml_PublishState(RunDir(), st, 0600));
  ASSERT_TRUE(ml_ReadState(RunDir(), &back));
  EXPECT_EQ(12345, back.MainPid);
}

TEST(MlLock, ClaimIsExclusiveAndProbeSeesIt) {
  EXPECT_FALSE(ml_ServiceLockHeld(RunDir()));
  int fd = ml_ClaimServiceLock(RunDir());
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(ml_ServiceLockHeld(RunDir()));
  EXPECT_EQ(-1, ml_ClaimServiceLock(RunDir()));
  // Another process sees it held too.
  EXPECT_EQ(0, sfltest::RunInChild([] { return ml_ServiceLockHeld(RunDir()) ? 0 : 1; }));
  close(fd);
  EXPECT_FALSE(ml_ServiceLockHeld(RunDir()));
}

TEST(MlCheckPid, LiveEndedAndZombie) {
  EXPECT_EQ(1, ml_CheckPid(getpid()));
  EXPECT_EQ(0, ml_CheckPid(0));
  EXPECT_EQ(0, ml_CheckPid(-5));
  pid_t child = fork();
  if (child == 0) _exit(0);
  // Ended but not reaped yet: a zombie is not alive.
  for (int i = 0; i < 1000 && ml_CheckPid(child) == 1; ++i) usleep(1000);
  EXPECT_EQ(0, ml_CheckPid(child));
  EXPECT_EQ(0, kill(child, 0));  // the zombie is still there
  waitpid(child, nullptr, 0);
  EXPECT_EQ(0, ml_CheckPid(child));
}

size_t openDescriptors() {
  size_t n = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd");
       it != std::filesystem::directory_iterator(); ++it)
    ++n;
  return n;
}

TEST(MlCheckPid, BetweenFullChecksTheSignalProbeAloneAnswers) {
  int child = sfltest::StartChild([] {
    for (;;) pause();
    return 0;
  });
  ml_ForgetPidChecks();
  const size_t before = openDescriptors();
  os_ResetCallCounts();
  EXPECT_EQ(1, ml_CheckPid(child));  // a full check: probe and /proc
  EXPECT_EQ(1u, os_CallCount(os_Op::Kill));
  EXPECT_EQ(1u, os_CallCount(os_Op::Open));
  os_ResetCallCounts();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(1, ml_CheckPid(child));
  EXPECT_EQ(10u, os_CallCount(os_Op::Kill));
  EXPECT_EQ(0u, os_CallCount(os_Op::Open));
  EXPECT_EQ(before, openDescriptors());  // nothing kept open
  // A process that is gone is seen at once.
  kill(child, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, sfltest::WaitChild(child));
  EXPECT_EQ(0, ml_CheckPid(child));
}

TEST(MlCheckPid, ZombieIsSeenWithinAFullCheckPeriod) {
  int child = sfltest::StartChild([] {
    for (;;) pause();
    return 0;
  });
  ml_ForgetPidChecks();
  ASSERT_EQ(1, ml_CheckPid(child));
  kill(child, SIGKILL);
  siginfo_t info{};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  // Ended, not reaped: the probe still answers, the next full check (at
  // most 100 ms on) does not.
  const auto start = std::chrono::steady_clock::now();
  while (ml_CheckPid(child) == 1 && std::chrono::steady_clock::now() - start < std::chrono::seconds(2))
    usleep(1000);
  EXPECT_EQ(0, ml_CheckPid(child));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
  EXPECT_EQ(0, kill(child, 0));  // still a zombie
  // Forgotten checks make the very next one full.
  ml_ForgetPidChecks();
  EXPECT_EQ(0, ml_CheckPid(child));
  EXPECT_EQ(128 + SIGKILL, sfltest::WaitChild(child));
}

// ---- whose run directory and state file ----------------------------------------------

bool Mentions(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(MlTrust, ALinkInPlaceOfTheRunDirectoryIsRefused) {
  const std::string real = RunDir() + "/real";
  const std::string link = RunDir() + "/link";
  ASSERT_EQ(0, ml_PrepareRunDir(real, 0700));
  ASSERT_EQ(0, symlink(real.c_str(), link.c_str()));
  EXPECT_EQ(-1, ml_OpenRunDir(link, false, 0));
  EXPECT_TRUE(Mentions(ml_TrustProblem(), link)) << ml_TrustProblem();
  EXPECT_TRUE(Mentions(ml_TrustProblem(), "symbolic link")) << ml_TrustProblem();
  // Neither is a service started there, nor a state read from there.
  EXPECT_EQ(-1, ml_PrepareRunDir(link, 0700));
  ASSERT_EQ(0, ml_PublishState(real, sample(), 0600));
  ml_State st;
  EXPECT_TRUE(ml_ReadState(real, &st));
  EXPECT_FALSE(ml_ReadState(link, &st));
  std::filesystem::remove_all(real);
  std::filesystem::remove(link);
}

TEST(MlTrust, ARunDirectoryOthersMayWriteIsRefused) {
  const std::string dir = RunDir() + "/shared";
  ASSERT_EQ(0, ml_PrepareRunDir(dir, 0700));
  for (mode_t mode : {0770, 0707, 0777}) {
    ASSERT_EQ(0, chmod(dir.c_str(), mode));
    EXPECT_EQ(-1, ml_PrepareRunDir(dir, 0700)) << std::oct << mode;
    EXPECT_EQ(EPERM, errno);
    EXPECT_TRUE(Mentions(ml_TrustProblem(), dir + " is writable by its group or by others"))
        << ml_TrustProblem();
  }
  ASSERT_EQ(0, chmod(dir.c_str(), 0750));
  EXPECT_EQ(0, ml_PrepareRunDir(dir, 0700));
  EXPECT_EQ("", ml_TrustProblem());
  std::filesystem::remove_all(dir);
}

TEST(MlTrust, AStateFileThatIsALinkOrOthersMayWriteIsNotRead) {
  const std::string dir = RunDir() + "/state";
  ASSERT_EQ(0, ml_PrepareRunDir(dir, 0700));
  const std::string elsewhere = RunDir() + "/elsewhere";
  ASSERT_EQ(0, ml_PrepareRunDir(elsewhere, 0700));
  ASSERT_EQ(0, ml_PublishState(elsewhere, sample(), 0600));
  ASSERT_EQ(0, symlink(ml_StatePath(elsewhere).c_str(), ml_StatePath(dir).c_str()));
  ml_State st;
  EXPECT_FALSE(ml_ReadState(dir, &st));
  EXPECT_TRUE(Mentions(ml_TrustProblem(), ml_StatePath(dir))) << ml_TrustProblem();
  std::filesystem::remove(ml_StatePath(dir));
  ASSERT_EQ(0, ml_PublishState(dir, sample(), 0600));
  EXPECT_TRUE(ml_ReadState(dir, &st));
  ASSERT_EQ(0, chmod(ml_StatePath(dir).c_str(), 0622));
  EXPECT_FALSE(ml_ReadState(dir, &st));
  EXPECT_TRUE(Mentions(ml_TrustProblem(), "is writable by its group or by others")) << ml_TrustProblem();
  // A FIFO there is neither waited on nor read.
  std::filesystem::remove(ml_StatePath(dir));
  ASSERT_EQ(0, mkfifo(ml_StatePath(dir).c_str(), 0600));
  EXPECT_FALSE(ml_ReadState(dir, &st));
  EXPECT_TRUE(Mentions(ml_TrustProblem(), "is not a regular file")) << ml_TrustProblem();
  std::filesystem::remove_all(dir);
  std::filesystem::remove_all(elsewhere);
}

// Needs another owner: the suite runs as root in CI.
TEST(MlTrust, AnotherUsersRunDirectoryOrStateFileIsRefusedNamingItsOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give a directory to another user";
  const uid_t other = 65534;
  const std::string dir = RunDir() + "/theirs";
  ASSERT_EQ(0, ml_PrepareRunDir(dir, 0700));
  ASSERT_EQ(0, ml_PublishState(dir, sample(), 0600));
  ASSERT_EQ(0, chown(ml_StatePath(dir).c_str(), other, other));
  ml_State st;
  EXPECT_FALSE(ml_ReadState(dir, &st));
  EXPECT_TRUE(Mentions(ml_TrustProblem(), "state file " + ml_StatePath(dir) + " belongs to another user (owner uid 65534"))
      << ml_TrustProblem();
  ASSERT_EQ(0, chown(ml_StatePath(dir).c_str(), 0, 0));
  ASSERT_EQ(0, chown(dir.c_str(), other, other));
  EXPECT_EQ(-1, ml_PrepareRunDir(dir, 0700));
  EXPECT_TRUE(Mentions(ml_TrustProblem(), "run directory " + dir + " belongs to another user (owner uid 65534"))
      << ml_TrustProblem();
  EXPECT_FALSE(ml_ReadState(dir, &st));
  // The configured service account's directory is trusted.
  setenv("SFL_SERVICE_USER", "65534", 1);
  EXPECT_EQ(0, ml_PrepareRunDir(dir, 0700));
  EXPECT_TRUE(ml_ReadState(dir, &st));
  // By name, when the account has that uid; an unknown name trusts nobody.
  uid_t uid = 0;
  gid_t gid = 0;
  if (os_GetUserIds("nobody", &uid, &gid) == 0 && uid == other) {
    setenv("SFL_SERVICE_USER", "nobody", 1);
    EXPECT_EQ(0, ml_PrepareRunDir(dir, 0700));
  }
  setenv("SFL_SERVICE_USER", "no-such-account-here", 1);
  EXPECT_EQ(-1, ml_PrepareRunDir(dir, 0700));
  setenv("SFL_SERVICE_USER", "99999999999999", 1);
  EXPECT_EQ(-1, ml_PrepareRunDir(dir, 0700));
  unsetenv("SFL_SERVICE_USER");
  std::filesystem::remove_all(dir);
}

TEST(MlSubsystem, OpenReturnsZeroOnlyForTheOpeningCall) {
  EXPECT_EQ(0, ml_OpenCfgFile(2));
  EXPECT_EQ(1, ml_OpenCfgFile(2));
  ml_CloseCfgFile();
  EXPECT_EQ(0, ml_OpenCfgFile(2));
  ml_CloseCfgFile();
}

TEST(MlSubsystem, AnswersFromAPublishedLiveService) {
  setenv("SFL_MONITOR_AUTOSTART", "0", 1);
  ASSERT_EQ(0, ml_PublishState(RunDir(), sample(), 0600));
  // Published, but nobody holds the lock: not a live service.
  EXPECT_EQ(ML_STATE_DOWN, ml_GetSSState(ML_SUBSYSTEM_MONITOR));
  int fd = ml_ClaimServiceLock(RunDir());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(ML_STATE_RUNNING, ml_GetSSState(ML_SUBSYSTEM_MONITOR));
  EXPECT_EQ(ML_STATE_DOWN, ml_GetSSState(51));
  ml_SubSystemDetails d;
  ml_GetSubSystemDetails(ML_SUBSYSTEM_MONITOR, &d);
  EXPECT_EQ(getpid(), d.MainPid);
  EXPECT_EQ(2, d.AdditionalCount);
  EXPECT_EQ(getpid(), d.AdditionalPids[1]);
  EXPECT_EQ(10, ml_ReadContext(ML_SUBSYSTEM_MONITOR, 0));
  EXPECT_EQ(15, ml_ReadContext(ML_SUBSYSTEM_MONITOR, 5));
  EXPECT_EQ(-1, ml_ReadContext(ML_SUBSYSTEM_MONITOR, 6));
  EXPECT_EQ(-1, ml_ReadContext(ML_SUBSYSTEM_MONITOR, -1));
  // While open, answers come from what was read at open.
  ASSERT_EQ(0, ml_OpenCfgFile(2));
  ml_State other = sample();
  other.Context = {20, 21};
  ASSERT_EQ(0, ml_PublishState(RunDir(), other, 0600));
  EXPECT_EQ(10, ml_ReadContext(ML_SUBSYSTEM_MONITOR, 0));
  ml_CloseCfgFile();
  EXPECT_EQ(20, ml_ReadContext(ML_SUBSYSTEM_MONITOR, 0));
  close(fd);
}

TEST(MlSubsystem, ManyAdditionalProcessesAreCountedAndTheFirstOnesKept) {
  ml_State st = sample();
  st.Additional.assign(40, 0);
  for (int i = 0; i < 40; ++i) st.Additional[i] = 1000 + i;
  ASSERT_EQ(0, ml_PublishState(RunDir(), st, 0600));
  ml_SubSystemDetails d;
  ml_GetSubSystemDetails(ML_SUBSYSTEM_MONITOR, &d);
  EXPECT_EQ(40, d.AdditionalCount);
  EXPECT_EQ(1000, d.AdditionalPids[0]);
  EXPECT_EQ(1000 + ML_MAX_ADDITIONAL - 1, d.AdditionalPids[ML_MAX_ADDITIONAL - 1]);
}

TEST(MlSubsystem, NoStateIsDownWithAutostartOff) {
  EmptyRunDir();
  setenv("SFL_MONITOR_AUTOSTART", "0", 1);
  EXPECT_EQ(ML_STATE_DOWN, ml_GetSSState(ML_SUBSYSTEM_MONITOR));
  ml_SubSystemDetails d;
  ml_GetSubSystemDetails(ML_SUBSYSTEM_MONITOR, &d);
  EXPECT_EQ(0, d.MainPid);
  EXPECT_EQ(-1, ml_ReadContext(ML_SUBSYSTEM_MONITOR, 0));
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
}

TEST(MlSubsystem, AutostartBringsUpAServiceOnFirstStateQuery) {
  unsetenv("SFL_MONITOR_AUTOSTART");
  EXPECT_EQ(ML_STATE_RUNNING, ml_GetSSState(ML_SUBSYSTEM_MONITOR));
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  EXPECT_TRUE(ml_ServiceAlive(RunDir(), st));
  EXPECT_NE(getpid(), st.MainPid);
  // Its standard streams went to the run directory's log.
  EXPECT_TRUE(std::filesystem::exists(ml_LogPath(RunDir())));
  sfltest::StopService();
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
}

TEST(MlConfig, OnDemandOptionsFromKeys) {
  setenv("SFL_MONITOR_PAIRS", "3", 1);
  setenv("SFL_MONITOR_IDLE_SECONDS", "7", 1);
  ml_ServiceOptions o = ml_OnDemandOptions();
  EXPECT_EQ(3, o.Pairs);
  EXPECT_EQ(7, o.IdleSeconds);
  EXPECT_EQ(RunDir(), o.RunDir);
  setenv("SFL_MONITOR_PAIRS", "9", 1);  // out of range: default
  setenv("SFL_MONITOR_IDLE_SECONDS", "x", 1);
  o = ml_OnDemandOptions();
  EXPECT_EQ(1, o.Pairs);
  EXPECT_EQ(30, o.IdleSeconds);
  unsetenv("SFL_MONITOR_PAIRS");
  unsetenv("SFL_MONITOR_IDLE_SECONDS");
  setenv("SFL_MONITOR_AUTOSTART", "0", 1);
  EXPECT_FALSE(ml_AutoStartEnabled());
  setenv("SFL_MONITOR_AUTOSTART", "1", 1);
  EXPECT_TRUE(ml_AutoStartEnabled());
  unsetenv("SFL_MONITOR_AUTOSTART");
  EXPECT_TRUE(ml_AutoStartEnabled());
}

TEST(MlConfig, GroupsByNumberOrName) {
  EXPECT_EQ(0, ml_ResolveGroup("0"));
  EXPECT_EQ(0, ml_ResolveGroup("root"));
  EXPECT_EQ(-1, ml_ResolveGroup("no-such-group-here"));
  EXPECT_EQ(-1, ml_ResolveGroup(""));
}

TEST(MlRunDir, EmptyNameAndAnotherUsersTmpDirectoryAreRefused) {
  errno = 0;
  EXPECT_EQ(-1, ml_PrepareRunDir("", 0700));
  EXPECT_EQ(EINVAL, errno);
  if (getuid() != 0) GTEST_SKIP() << "needs root to give a directory away";
  char tmpl[] = "/tmp/sfl-run-other-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(tmpl));
  ASSERT_EQ(0, chown(tmpl, 12345, 12345));
  errno = 0;
  EXPECT_EQ(-1, ml_PrepareRunDir(tmpl, 0700));
  EXPECT_EQ(EPERM, errno);
  std::filesystem::remove(tmpl);
}

TEST(MlState, FailedWriteLeavesTheOldStateAndNoTemporary) {
  ASSERT_EQ(0, ml_PublishState(RunDir(), sample(), 0600));
  ml_State other = sample();
  other.MainPid = 1;
  os_FailNth(os_Op::Write, 1, ENOSPC);
  EXPECT_EQ(-1, ml_PublishState(RunDir(), other, 0600));
  os_ClearFaults();
  ml_State back;
  ASSERT_TRUE(ml_ReadState(RunDir(), &back));
  EXPECT_EQ(getpid(), back.MainPid);
  for (const auto& e : std::filesystem::directory_iterator(RunDir()))
    EXPECT_EQ(std::string::npos, e.path().string().find(".tmp")) << e.path();
  std::filesystem::remove(ml_StatePath(RunDir()));
}

TEST(MlConfig, GroupKeyGivesTheOnDemandServiceItsGroup) {
  setenv("SFL_MONITOR_GROUP", "root", 1);
  EXPECT_EQ(0, ml_OnDemandOptions().Gid);
  setenv("SFL_MONITOR_GROUP", "", 1);
  EXPECT_EQ(-1, ml_OnDemandOptions().Gid);
  unsetenv("SFL_MONITOR_GROUP");
  EXPECT_EQ(-1, ml_OnDemandOptions().Gid);
}

}  // namespace

TEST(MlRunDir, AnEmptySettingCountsAsNoSetting) {
  setenv("SFL_RUN_DIR", "", 1);
  setenv("XDG_RUNTIME_DIR", "/run/user/42", 1);
  EXPECT_EQ("/run/user/42/sfl", ml_RunDir());
  setenv("XDG_RUNTIME_DIR", "", 1);
  EXPECT_EQ("/tmp/sfl-run-" + std::to_string(getuid()), ml_RunDir());
  unsetenv("XDG_RUNTIME_DIR");
  setenv("SFL_RUN_DIR", RunDir().c_str(), 1);
}

TEST(MlTrust, AnEmptyOrImpossibleServiceAccountTrustsNoOtherUser) {
  setenv("SFL_SERVICE_USER", "4242", 1);
  EXPECT_TRUE(ml_TrustedOwner(4242));  // the account itself
  setenv("SFL_SERVICE_USER", "", 1);
  EXPECT_FALSE(ml_TrustedOwner(4242));
  // The highest number is no account's (it stands for "no user" in the
  // system's calls), so a setting of it trusts nobody, that number included.
  setenv("SFL_SERVICE_USER", std::to_string(static_cast<uid_t>(-1)).c_str(), 1);
  EXPECT_FALSE(ml_TrustedOwner(static_cast<uid_t>(-1)));
  unsetenv("SFL_SERVICE_USER");
}

TEST(MlState, AStateFileThatIsADirectoryIsNotReadAndSaysWhy) {
  const std::string dir = RunDir() + "/state-dir";
  ASSERT_EQ(0, ml_PrepareRunDir(dir, 0700));
  std::filesystem::create_directory(ml_StatePath(dir));
  ml_State st;
  EXPECT_FALSE(ml_ReadState(dir, &st));
  EXPECT_TRUE(Mentions(ml_TrustProblem(), ml_StatePath(dir) + " is not a regular file")) << ml_TrustProblem();
  std::filesystem::remove_all(dir);
}
