// Starting the interest service on demand: programs that cannot be run or
// fail to exec are reported at once, a program that never publishes is
// given up on, failures of fork and of the start lock leave no descriptor
// behind, a group start gives the group access, and racing starters end up
// with one service.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "ml.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::RunDir;
using sfltest::StartChild;
using sfltest::TestDir;
using sfltest::WaitChild;

// The descriptors this process has open.
std::vector<int> openDescriptors() {
  std::vector<int> fds;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
    int fd = std::stoi(e.path().filename().string());
    if (fcntl(fd, F_GETFD) >= 0) fds.push_back(fd);
  }
  std::sort(fds.begin(), fds.end());
  return fds;
}

ml_ServiceOptions options() {
  ml_ServiceOptions o;
  o.RunDir = RunDir();
  return o;
}

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

double secondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

class MlStart : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    os_ResetCallCounts();
  }
  void TearDown() override {
    os_ClearFaults();
    sfltest::StopService();
  }
};

TEST_F(MlStart, ProgramThatCannotBeRunIsRefusedWithoutAFork) {
  EXPECT_EQ(-1, ml_StartDetached(options(), TestDir() + "/no-such-program"));
  const std::string plain = sfltest::WritePlainFile("not-executable", "#!/bin/sh\nexit 0\n");
  EXPECT_EQ(-1, ml_StartDetached(options(), plain));
  EXPECT_EQ(0u, os_CallCount(os_Op::Fork));
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
}

TEST_F(MlStart, ExecFailureIsReportedAtOnceNotAfterTheWait) {
  // Executable by its mode, but no program the kernel can run (ENOEXEC).
  const std::string bogus = sfltest::WritePlainFile("bogus-program", std::string(64, '\x01'));
  ASSERT_EQ(0, chmod(bogus.c_str(), 0755));
  // A first refusal opens the library's log, which stays open.
  EXPECT_EQ(-1, ml_StartDetached(options(), "/no/such/program"));
  const std::vector<int> before = openDescriptors();
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, ml_StartDetached(options(), bogus));
  EXPECT_LT(secondsSince(t0), 5.0);  // the publication wait is 10 s
  EXPECT_EQ(before, openDescriptors());
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
}

TEST_F(MlStart, ProgramThatNeverPublishesIsGivenUp) {
  EXPECT_EQ(-1, ml_StartDetached(options(), "/no/such/program"));  // opens the log
  const std::vector<int> before = openDescriptors();
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, ml_StartDetached(options(), "/bin/true"));
  EXPECT_GE(secondsSince(t0), 9.0);
  EXPECT_EQ(before, openDescriptors());
}

TEST_F(MlStart, FailedForkLeavesNoDescriptor) {
  EXPECT_EQ(-1, ml_StartDetached(options(), "/no/such/program"));  // opens the log
  const std::vector<int> before = openDescriptors();
  os_FailNth(os_Op::Fork, 1, EAGAIN);
  EXPECT_EQ(-1, ml_StartDetached(options()));
  EXPECT_EQ(before, openDescriptors());
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
}

TEST_F(MlStart, UnusableRunDirectoryIsRefused) {
  ml_ServiceOptions o = options();
  o.RunDir = sfltest::WritePlainFile("a-file-not-a-dir", "x");
  EXPECT_EQ(-1, ml_StartDetached(o));
  EXPECT_EQ(-1, ml_EnsureService(o));
  EXPECT_EQ(0u, os_CallCount(os_Op::Fork));
}

TEST_F(MlStart, FailedStartLockLeavesNoDescriptor) {
  EXPECT_EQ(-1, ml_StartDetached(options(), "/no/such/program"));  // opens the log
  os_ResetCallCounts();
  const std::vector<int> before = openDescriptors();
  os_FailNth(os_Op::Flock, 1, ENOLCK);
  EXPECT_EQ(-1, ml_EnsureService(options()));
  EXPECT_EQ(before, openDescriptors());
  EXPECT_EQ(0u, os_CallCount(os_Op::Fork));
  os_FailNth(os_Op::Open, 1, EMFILE);
  EXPECT_EQ(-1, ml_EnsureService(options()));
  EXPECT_EQ(before, openDescriptors());
}

TEST_F(MlStart, GroupStartGivesTheGroupItsQueuesAndState) {
  ml_ServiceOptions o = options();
  o.Gid = static_cast<int>(getgid());
  o.Pairs = 2;
  ASSERT_EQ(0, ml_StartDetached(o));
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  ASSERT_EQ(4u, st.Context.size());
  struct stat sb;
  ASSERT_EQ(0, stat(ml_StatePath(RunDir()).c_str(), &sb));
  EXPECT_EQ(0640u, sb.st_mode & 0777);
  for (int32_t q : st.Context) {
    struct msqid_ds ds;
    ASSERT_EQ(0, msgctl(q, IPC_STAT, &ds)) << q;
    EXPECT_EQ(0660u, ds.msg_perm.mode & 0777) << q;
    EXPECT_EQ(getgid(), ds.msg_perm.gid) << q;
  }
  // The service runs detached, in a session other than ours.
  EXPECT_NE(getsid(0), getsid(st.MainPid));
}

TEST_F(MlStart, EnsureLeavesARunningServiceAlone) {
  ASSERT_EQ(0, ml_EnsureService(options()));
  ml_State first;
  ASSERT_TRUE(ml_ReadState(RunDir(), &first));
  const uint64_t forks = os_CallCount(os_Op::Fork);
  EXPECT_EQ(0, ml_EnsureService(options()));
  EXPECT_EQ(forks, os_CallCount(os_Op::Fork));
  ml_State again;
  ASSERT_TRUE(ml_ReadState(RunDir(), &again));
  EXPECT_EQ(first.MainPid, again.MainPid);
}

TEST_F(MlStart, RacingStartersEndUpWithOneService) {
  std::filesystem::remove(ml_LogPath(RunDir()));  // earlier cases of this program log there too
  int go[2];
  ASSERT_EQ(0, pipe(go));
  std::vector<int> starters;
  for (int i = 0; i < 6; ++i) {
    starters.push_back(StartChild([&] {
      close(go[1]);
      char c;
      if (read(go[0], &c, 1) != 0) return 3;  // released together by the close
      if (ml_EnsureService(options()) != 0) return 1;
      ml_State st;
      if (!ml_ReadState(RunDir(), &st) || !ml_ServiceAlive(RunDir(), st)) return 2;
      return 0;
    }));
  }
  close(go[0]);
  close(go[1]);
  for (int pid : starters) EXPECT_EQ(0, WaitChild(pid));
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  EXPECT_TRUE(ml_ServiceAlive(RunDir(), st));
  // One service started; none came up only to find another holding the lock.
  const std::string log = fileText(ml_LogPath(RunDir()));
  EXPECT_EQ(1u, occurrences(log, "serving ")) << log;
  EXPECT_EQ(0u, occurrences(log, "another service holds")) << log;
}

}  // namespace
