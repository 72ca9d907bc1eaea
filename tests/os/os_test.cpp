// The operating-system layer: the fault switch and short transfers, call
// counters, close-on-exec descriptors and streams, record locks, message
// queues in the wire layout, accounts and ownership.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ipc.h>
#include <csignal>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include "er.h"
#include "os.h"
#include "test_env.h"

namespace {

class OsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    path_ = sfltest::StoreRoot() + "/os-file";
  }
  void TearDown() override { os_ClearFaults(); }
  std::string path_;
};

TEST_F(OsTest, FailNthFailsExactlyThatCall) {
  os_FailNth(os_Op::Open, 2, EACCES);
  int a = os_open(path_.c_str(), O_RDWR | O_CREAT, 0600);
  EXPECT_GE(a, 0);
  errno = 0;
  EXPECT_EQ(os_open(path_.c_str(), O_RDWR), -1);
  EXPECT_EQ(errno, EACCES);
  int c = os_open(path_.c_str(), O_RDWR);
  EXPECT_GE(c, 0);
  os_close(a);
  os_close(c);
}

TEST_F(OsTest, FaultsArePerKindAndReplaceable) {
  int fd = os_open(path_.c_str(), O_RDWR | O_CREAT, 0600);
  os_FailNth(os_Op::Pwrite, 1, EIO);
  os_FailNth(os_Op::Pwrite, 2, ENOSPC);  // replaces the first
  EXPECT_EQ(os_write(fd, "x", 1), 1);     // another kind is not affected
  EXPECT_EQ(os_pwrite(fd, "y", 1, 0), 1);
  errno = 0;
  EXPECT_EQ(os_pwrite(fd, "y", 1, 0), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(os_pwrite(fd, "y", 1, 0), 1);
  os_FailNth(os_Op::Fdatasync, 1, EIO);
  os_ClearFaults();
  EXPECT_EQ(os_fdatasync(fd), 0);
  os_close(fd);
}

TEST_F(OsTest, ShortTransfers) {
  int fd = os_open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  const char text[] = "0123456789";
  os_ShortNth(os_Op::Pwrite, 1, 4);
  EXPECT_EQ(os_pwrite(fd, text, 10, 0), 4);
  EXPECT_EQ(os_pwrite(fd, text, 10, 0), 10);
  char buf[16] = {};
  os_ShortNth(os_Op::Pread, 1, 3);
  EXPECT_EQ(os_pread(fd, buf, 10, 0), 3);
  EXPECT_EQ(std::string(buf, 3), "012");
  os_ShortNth(os_Op::Write, 1, 2);
  EXPECT_EQ(os_write(fd, text, 10), 2);
  os_ShortNth(os_Op::Read, 1, 0);
  EXPECT_EQ(os_lseek(fd, 0, SEEK_SET), 0);
  EXPECT_EQ(os_read(fd, buf, 10), 0);
  os_close(fd);

  FILE* f = os_fopen(path_.c_str(), "w");
  ASSERT_NE(f, nullptr);
  os_ShortNth(os_Op::Fwrite, 1, 5);
  EXPECT_EQ(os_fwrite(text, 1, 10, f), 5u);
  os_fclose(f);
}

TEST_F(OsTest, CallsAreCounted) {
  os_ResetCallCounts();
  EXPECT_EQ(os_CallCount(os_Op::Open), 0u);
  int fd = os_open(path_.c_str(), O_RDWR | O_CREAT, 0600);
  os_fdatasync(fd);
  os_fdatasync(fd);
  os_FailNth(os_Op::Fdatasync, 1, EIO);
  os_fdatasync(fd);  // a failed call counts too
  os_close(fd);
  EXPECT_EQ(os_CallCount(os_Op::Open), 1u);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), 3u);
  EXPECT_EQ(os_CallCount(os_Op::Close), 1u);
  os_ResetCallCounts();
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), 0u);
  EXPECT_STREQ(os_OpName(os_Op::Fdatasync), "fdatasync");
  EXPECT_STREQ(os_OpName(os_Op::Chown), "chown");
}

TEST_F(OsTest, DescriptorsAndStreamsAreCloseOnExec) {
  int fd = os_open(path_.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
  os_close(fd);
  FILE* f = os_fopen(path_.c_str(), "r+");
  ASSERT_NE(f, nullptr);
  EXPECT_TRUE(::fcntl(os_fileno(f), F_GETFD) & FD_CLOEXEC);
  os_fclose(f);
}

TEST_F(OsTest, RecordLocks) {
  int fd = os_open(path_.c_str(), O_RDWR | O_CREAT, 0600);
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_EXCL, SEEK_SET, 100, 0, 50, 0), 1);
  // Another process's try is refused at once; its blocking ask is not tried.
  int rc = sfltest::RunInChild([&] {
    int own = os_open(path_.c_str(), O_RDWR);
    if (os_TryLockPart(own, OS_LOCK_SHARED | OS_LOCK_NOWAIT, SEEK_SET, 120, 0, 1, 0) != 0) return 1;
    if (os_TryLockPart(own, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 150, 0, 10, 0) != 1) return 2;
    return 0;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_RELEASE, SEEK_SET, 100, 0, 50, 0), 1);
  rc = sfltest::RunInChild([&] {
    int own = os_open(path_.c_str(), O_RDWR);
    return os_TryLockPart(own, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 120, 0, 1, 0) == 1 ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
  // No such mode: a bad call, not a refusal.
  try {
    os_TryLockPart(fd, 3, SEEK_SET, 0, 0, 1, 0);
    ADD_FAILURE() << "mode 3 accepted";
  } catch (const er_Escape& e) {
    er_Clear();
    EXPECT_EQ(e.group(), ER_GROUP_CALL);
    EXPECT_EQ(e.reason(), EINVAL);
  }
  // A failure other than a conflict raises; an injected conflict is refused.
  os_FailNth(os_Op::Lock, 1, EBADF);
  try {
    os_TryLockPart(fd, OS_LOCK_SHARED, SEEK_SET, 0, 0, 1, 0);
    ADD_FAILURE() << "failed lock call reported as a result";
  } catch (const er_Escape& e) {
    er_Clear();
    EXPECT_EQ(e.group(), ER_GROUP_OS);
    EXPECT_EQ(e.reason(), EBADF);
  }
  os_FailNth(os_Op::Lock, 1, EAGAIN);
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_SHARED | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 1, 0), 0);
  // Offsets above 4 GiB are built from both halves.
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_EXCL, SEEK_SET, 0x10, 1, 8, 0), 1);
  rc = sfltest::RunInChild([&] {
    int own = ::open(path_.c_str(), O_RDWR);
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;  // the whole file
    if (::fcntl(own, F_OFD_GETLK, &fl) != 0) return 2;
    return fl.l_start == 0x100000010LL && fl.l_len == 8 ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
  os_FailNth(os_Op::Lock, 1, EACCES);  // the other errno of a conflict
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 1, 0), 0);
  os_close(fd);
}

TEST_F(OsTest, MessageQueuesUseTheWireLayout) {
  int q = os_msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  ASSERT_GE(q, 0);
  unsigned char msg[4 + 8] = {7, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0};
  ASSERT_EQ(os_msgsnd(q, msg, 8, 0), 0);
  unsigned char in[4 + 64] = {};
  EXPECT_EQ(os_msgrcv(q, in, 64, 7, IPC_NOWAIT), 8);
  EXPECT_EQ(in[0], 7);
  EXPECT_EQ(in[1] | in[2] | in[3], 0);
  EXPECT_STREQ(reinterpret_cast<char*>(in + 4), "hello");
  try {
    os_msgrcv(q, in, 64, 0, IPC_NOWAIT);
    ADD_FAILURE() << "empty queue gave a message";
  } catch (const er_Escape& e) {
    EXPECT_EQ(e.group(), ER_GROUP_OS);
    EXPECT_EQ(e.reason(), ENOMSG);
  }
  er_Clear();
  os_ShortNth(os_Op::Msgsnd, 1, 2);
  ASSERT_EQ(os_msgsnd(q, msg, 8, 0), 0);
  EXPECT_EQ(os_msgrcv(q, in, 64, 0, IPC_NOWAIT), 2);
  EXPECT_EQ(os_msgctl(q, IPC_RMID, nullptr), 0);
}

TEST_F(OsTest, AccountsAndOwnership) {
  uid_t uid = 99;
  gid_t gid = 99;
  EXPECT_EQ(os_GetUserIds("root", &uid, &gid), 0);
  EXPECT_EQ(uid, 0u);
  EXPECT_EQ(os_GetUserIds("no-such-user-here", &uid, &gid), -1);
  int fd = os_open(path_.c_str(), O_RDWR | O_CREAT, 0600);
  os_close(fd);
  os_ResetCallCounts();
  EXPECT_EQ(os_chown(path_.c_str(), ::getuid(), ::getgid()), 0);
  EXPECT_EQ(os_CallCount(os_Op::Chown), 1u);
  os_FailNth(os_Op::Chown, 1, EPERM);
  EXPECT_EQ(os_chown(path_.c_str(), ::getuid(), ::getgid()), -1);
}

TEST_F(OsTest, ProcessIdIsAskedAgainInAForkedChild) {
  const pid_t mine = os_getpid();
  EXPECT_EQ(mine, ::getpid());
  // The child's own id, not the one its parent cached; and again in a
  // grandchild forked from a child that has cached its own.
  EXPECT_EQ(0, sfltest::RunInChild([mine] {
    const pid_t child = os_getpid();
    if (child == mine || child != ::getpid()) return 1;
    int status = 0;
    pid_t g = ::fork();
    if (g == 0) ::_exit(os_getpid() == ::getpid() && os_getpid() != child ? 0 : 1);
    if (g < 0 || ::waitpid(g, &status, 0) != g) return 2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 3;
  }));
  EXPECT_EQ(mine, os_getpid());
}

TEST_F(OsTest, ForkCountsAndFails) {
  os_FailNth(os_Op::Fork, 1, EAGAIN);
  EXPECT_EQ(os_fork(), -1);
  EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
