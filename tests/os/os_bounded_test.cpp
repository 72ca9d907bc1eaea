// Receives with a time limit, the kernel's random bytes, names relative to
// an open directory, and the group membership test.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include "er.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

TEST(OsBounded, AReceiveWithinALimitGivesTheMessageOrRunsOut) {
  const int q = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  ASSERT_GE(q, 0);
  uint8_t msg[4 + 8] = {};
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, os_msgrcvWithin(q, msg, 8, 7, 150000));
  EXPECT_EQ(EAGAIN, errno);
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_GE(took, 0.14);
  EXPECT_LT(took, 2.0);
  struct {
    long type;
    char text[8];
  } m{7, "abcdefg"};
  ASSERT_EQ(0, msgsnd(q, &m, 8, 0));
  EXPECT_EQ(8, os_msgrcvWithin(q, msg, 8, 7, 1000000));
  EXPECT_EQ(7u, static_cast<uint32_t>(msg[0]));
  EXPECT_EQ(0, std::memcmp(msg + 4, "abcdefg", 8));
  // A queue that goes away raises, as the plain receive does.
  ASSERT_EQ(0, msgctl(q, IPC_RMID, nullptr));
  EXPECT_EQ(sfltest::EscapeCode(ER_GROUP_OS, EINVAL),
            sfltest::EscapeCodeOf([&] { os_msgrcvWithin(q, msg, 8, 7, 1000); }));
  // The fault switch counts it as one receive.
  os_FailNth(os_Op::Msgrcv, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCode(ER_GROUP_OS, EIO),
            sfltest::EscapeCodeOf([&] { os_msgrcvWithin(q, msg, 8, 7, 1000); }));
  os_ClearFaults();
}

TEST(OsBounded, RandomBytesDiffer) {
  std::set<uint64_t> seen;
  for (int i = 0; i < 100; ++i) {
    uint64_t v = 0;
    ASSERT_EQ(0, os_RandomBytes(&v, sizeof v));
    seen.insert(v);
  }
  EXPECT_EQ(100u, seen.size());
}

TEST(OsBounded, NamesRelativeToADirectory) {
  const std::string dir = sfltest::TestDir() + "/at";
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  const int d = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(d, 0);
  const int fd = os_openat(d, "f", O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  struct stat st {};
  EXPECT_EQ(0, os_fstatat(d, "f", &st, AT_SYMLINK_NOFOLLOW));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  ASSERT_EQ(0, symlinkat("f", d, "l"));
  EXPECT_EQ(-1, os_openat(d, "l", O_RDONLY | O_NOFOLLOW));
  EXPECT_EQ(ELOOP, errno);
  os_FailNth(os_Op::Open, 1, EMFILE);
  EXPECT_EQ(-1, os_openat(d, "f", O_RDONLY));
  EXPECT_EQ(EMFILE, errno);
  os_FailNth(os_Op::Stat, 1, EIO);
  EXPECT_EQ(-1, os_fstatat(d, "f", &st, 0));
  EXPECT_EQ(EIO, errno);
  os_ClearFaults();
  close(d);
}

TEST(OsBounded, GroupsOfThisProcess) {
  EXPECT_EQ(geteuid(), os_geteuid());
  EXPECT_TRUE(os_InGroup(getegid()));
  // A group no process of this test is in.
  EXPECT_FALSE(os_InGroup(static_cast<gid_t>(54321)));
}

}  // namespace
