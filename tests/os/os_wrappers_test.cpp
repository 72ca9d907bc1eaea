// The operating-system layer's plainer wrappers: file size, links and
// directories, memory, sessions and descriptor copies, an oversized message,
// and os_ExitNow (the exit status it gives, with no stream flushed).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

class OsWrappers : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    dir_ = sfltest::StoreRoot() + "/os-wrappers";
  }
  void TearDown() override { os_ClearFaults(); }
  std::string dir_;
};

TEST_F(OsWrappers, TruncateLinkAndDirectories) {
  ASSERT_EQ(0, os_mkdir(dir_.c_str(), 0700));
  const std::string file = dir_ + "/f", other = dir_ + "/g";
  int fd = os_open(file.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, os_ftruncate(fd, 5000));
  struct stat st;
  ASSERT_EQ(0, os_fstat(fd, &st));
  EXPECT_EQ(5000, st.st_size);
  os_FailNth(os_Op::Ftruncate, 1, EFBIG);
  EXPECT_EQ(-1, os_ftruncate(fd, 1));
  EXPECT_EQ(EFBIG, errno);
  EXPECT_EQ(0, os_fstat(fd, &st));
  EXPECT_EQ(5000, st.st_size);  // the failed call changed nothing

  ASSERT_EQ(0, os_link(file.c_str(), other.c_str()));
  ASSERT_EQ(0, os_stat(other.c_str(), &st));
  EXPECT_EQ(2u, st.st_nlink);
  os_FailNth(os_Op::Link, 1, EMLINK);
  EXPECT_EQ(-1, os_link(file.c_str(), (dir_ + "/h").c_str()));
  EXPECT_EQ(EMLINK, errno);
  EXPECT_NE(0, os_stat((dir_ + "/h").c_str(), &st));

  EXPECT_EQ(-1, os_rmdir(dir_.c_str()));  // not empty
  EXPECT_EQ(ENOTEMPTY, errno);
  os_close(fd);
  ASSERT_EQ(0, os_unlink(file.c_str()));
  ASSERT_EQ(0, os_unlink(other.c_str()));
  os_FailNth(os_Op::Rmdir, 1, EBUSY);
  EXPECT_EQ(-1, os_rmdir(dir_.c_str()));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_EQ(0, os_stat(dir_.c_str(), &st));
  EXPECT_EQ(0, os_rmdir(dir_.c_str()));
  EXPECT_NE(0, os_stat(dir_.c_str(), &st));
}

TEST_F(OsWrappers, MemoryAndItsFaults) {
  void* p = os_malloc(0);  // a usable pointer even for nothing
  ASSERT_NE(nullptr, p);
  os_free(p);
  char* q = static_cast<char*>(os_malloc(16));
  ASSERT_NE(nullptr, q);
  std::memcpy(q, "0123456789abcdef", 16);
  os_FailNth(os_Op::Malloc, 1, ENOMEM);
  EXPECT_EQ(nullptr, os_malloc(16));
  EXPECT_EQ(ENOMEM, errno);
  os_FailNth(os_Op::Malloc, 1, ENOMEM);
  EXPECT_EQ(nullptr, os_realloc(q, 64));  // the block stays as it was
  EXPECT_EQ(0, std::memcmp(q, "0123456789abcdef", 16));
  os_free(q);
}

TEST_F(OsWrappers, SessionAndDescriptorCopy) {
  EXPECT_EQ(0, sfltest::RunInChild([] {
    // A process that leads a group cannot start a session; a child can.
    if (os_setsid() != os_getpid()) return 1;
    if (getsid(0) != getpid()) return 2;
    int fds[2];
    if (pipe(fds) != 0) return 3;
    const int to = 40;
    if (os_dup2(fds[1], to) != to) return 4;
    if (write(to, "k", 1) != 1) return 5;
    char c = 0;
    if (read(fds[0], &c, 1) != 1 || c != 'k') return 6;
    return 0;
  }));
}

TEST_F(OsWrappers, MessageLongerThanTheKernelTakesIsRefused) {
  const int q = os_msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  ASSERT_GE(q, 0);
  std::vector<uint8_t> msg(4 + 8193, 0);
  msg[0] = 5;
  EXPECT_EQ(-1, os_msgsnd(q, msg.data(), 8193, IPC_NOWAIT));
  EXPECT_EQ(EINVAL, errno);
  struct msqid_ds ds;
  ASSERT_EQ(0, msgctl(q, IPC_STAT, &ds));
  EXPECT_EQ(0u, ds.msg_qnum);
  EXPECT_EQ(0, os_msgctl(q, IPC_RMID, nullptr));
}

TEST_F(OsWrappers, ExitNowGivesTheStatusAndFlushesNoStream) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  const int pid = sfltest::StartChild([&] {
    close(fds[0]);
    FILE* out = fdopen(fds[1], "w");
    if (out == nullptr) return 1;
    std::fputs("buffered", out);  // never written: _exit semantics
    os_ExitNow(42);
  });
  close(fds[1]);
  EXPECT_EQ(42, sfltest::WaitChild(pid));
  char buf[16];
  EXPECT_EQ(0, read(fds[0], buf, sizeof buf));
  close(fds[0]);
}

}  // namespace
