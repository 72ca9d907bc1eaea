// The operating-system layer when the kernel says no: transfers on a closed
// descriptor, waits for a process that is no child, lock calls that fail for
// a reason other than a conflict (with and without a watcher told of waits),
// and the blocking calls not covered elsewhere — a write into a full pipe, a
// wait for a child and a whole-file lock wait — interrupted by a signal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "er.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

class OsCallErrors : public ::testing::Test {
 protected:
  void TearDown() override {
    os_TellWaits(-1);
    os_ClearFaults();
  }
};

std::string TempFile(const char* leaf) {
  const std::string path = sfltest::TestDir() + "/" + leaf;
  FILE* f = std::fopen(path.c_str(), "w");
  std::fputs("0123456789", f);
  std::fclose(f);
  return path;
}

// A descriptor number that is certainly not open in this process.
int ClosedFd() {
  const int fd = ::open("/dev/null", O_RDONLY);
  ::close(fd);
  return fd;
}

// A handler that does nothing, installed without SA_RESTART so that a
// blocking call returns EINTR when SIGALRM arrives.
void Nothing(int) {}

struct Interrupter {
  struct sigaction old {};
  Interrupter() {
    struct sigaction sa {};
    sa.sa_handler = Nothing;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGALRM, &sa, &old);
  }
  ~Interrupter() {
    struct itimerval off {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
  }
  void After(int ms) {
    struct itimerval t {};
    t.it_value.tv_usec = ms * 1000;
    setitimer(ITIMER_REAL, &t, nullptr);
  }
};

// A failed transfer is not retried as if interrupted: each call reports -1
// with the kernel's errno at once.
TEST_F(OsCallErrors, TransfersOnAClosedDescriptorReportTheError) {
  const int fd = ClosedFd();
  char buf[4] = {'a', 'b', 'c', 'd'};
  errno = 0;
  EXPECT_EQ(os_read(fd, buf, sizeof buf), -1);
  EXPECT_EQ(errno, EBADF);
  errno = 0;
  EXPECT_EQ(os_write(fd, buf, sizeof buf), -1);
  EXPECT_EQ(errno, EBADF);
  errno = 0;
  EXPECT_EQ(os_pread(fd, buf, sizeof buf, 0), -1);
  EXPECT_EQ(errno, EBADF);
  errno = 0;
  EXPECT_EQ(os_pwrite(fd, buf, sizeof buf, 0), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(std::string(buf, 4), "abcd");
}

TEST_F(OsCallErrors, WaitingForAProcessThatIsNoChildFails) {
  int status = 12345;
  errno = 0;
  EXPECT_EQ(os_waitpid(1, &status, 0), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(status, 12345);
}

// A write blocked on a full pipe and interrupted is tried again, and goes
// through once the reader has made room.
TEST_F(OsCallErrors, AnInterruptedWriteIsTriedAgain) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const int flags = fcntl(fds[1], F_GETFL);
  ASSERT_EQ(fcntl(fds[1], F_SETFL, flags | O_NONBLOCK), 0);
  std::vector<char> chunk(4096, 'f');
  size_t filled = 0;
  for (;;) {
    const ssize_t n = ::write(fds[1], chunk.data(), chunk.size());
    if (n < 0) break;
    filled += static_cast<size_t>(n);
  }
  ASSERT_EQ(errno, EAGAIN);
  ASSERT_EQ(fcntl(fds[1], F_SETFL, flags), 0);
  const int pid = sfltest::StartChild([&] {
    usleep(300000);
    std::vector<char> sink(filled + 1);
    size_t got = 0;
    while (got < filled + 1) {
      // The last byte comes only from the retried write: wait for it a
      // while rather than for ever.
      struct pollfd p = {fds[0], POLLIN, 0};
      if (got == filled && poll(&p, 1, 3000) != 1) return 3;
      const ssize_t n = ::read(fds[0], sink.data() + got, sink.size() - got);
      if (n <= 0) return 1;
      got += static_cast<size_t>(n);
    }
    return sink[filled] == 'w' ? 0 : 2;
  });
  Interrupter irq;
  irq.After(50);
  EXPECT_EQ(os_write(fds[1], "w", 1), 1);
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  close(fds[0]);
  close(fds[1]);
}

// A wait for a child interrupted by a signal waits on and gives the child's
// own status.
TEST_F(OsCallErrors, AnInterruptedWaitForAChildWaitsOn) {
  const int pid = sfltest::StartChild([] {
    usleep(300000);
    return 7;
  });
  Interrupter irq;
  irq.After(50);
  int status = 0;
  EXPECT_EQ(os_waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

// A whole-file lock wait interrupted by a signal waits on until the holder
// lets go.
TEST_F(OsCallErrors, AnInterruptedWholeFileLockWaitWaitsOn) {
  const std::string path = TempFile("flocked");
  sfltest::Gate held, release;
  const int holder = sfltest::StartChild([&] {
    const int fd = ::open(path.c_str(), O_RDWR);
    if (fd < 0 || ::flock(fd, LOCK_EX) != 0) return 1;
    held.Open();
    release.Wait();
    return 0;
  });
  held.Wait();
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(os_flock(fd, LOCK_EX | LOCK_NB), -1);  // really held elsewhere
  Interrupter irq;
  irq.After(50);
  const int opener = sfltest::StartChild([&] {
    usleep(300000);
    release.Open();
    return 0;
  });
  EXPECT_EQ(os_flock(fd, LOCK_EX), 0);
  EXPECT_EQ(sfltest::WaitChild(opener), 0);
  EXPECT_EQ(sfltest::WaitChild(holder), 0);
  close(fd);
}

// A lock call that does not wait and fails for a reason other than a
// conflict raises; it is not reported as a refusal.
TEST_F(OsCallErrors, ANoWaitLockOnAClosedDescriptorRaises) {
  const int fd = ClosedFd();
  try {
    os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 1, 0);
    ADD_FAILURE() << "a failed lock call reported as a refusal";
  } catch (const er_Escape& e) {
    er_Clear();
    EXPECT_EQ(e.group(), ER_GROUP_OS);
    EXPECT_EQ(e.reason(), EBADF);
  }
}

// With a watcher told of waits, a lock that fails on its first try for a
// reason other than a conflict raises without telling of a wait; a
// whole-file lock does likewise, reporting -1.
TEST_F(OsCallErrors, AFailedFirstTryIsNoWait) {
  int tell[2];
  ASSERT_EQ(pipe(tell), 0);
  ASSERT_EQ(fcntl(tell[0], F_SETFL, O_NONBLOCK), 0);
  os_TellWaits(tell[1]);
  const int fd = ClosedFd();
  try {
    os_TryLockPart(fd, OS_LOCK_SHARED, SEEK_SET, 0, 0, 1, 0);
    ADD_FAILURE() << "a failed lock call reported as granted or refused";
  } catch (const er_Escape& e) {
    er_Clear();
    EXPECT_EQ(e.group(), ER_GROUP_OS);
    EXPECT_EQ(e.reason(), EBADF);
  }
  errno = 0;
  EXPECT_EQ(os_flock(fd, LOCK_SH), -1);
  EXPECT_EQ(errno, EBADF);
  os_TellWaits(-1);
  char c;
  EXPECT_EQ(::read(tell[0], &c, 1), -1);  // nothing was told
  EXPECT_EQ(errno, EAGAIN);
  close(tell[0]);
  close(tell[1]);
}

TEST_F(OsCallErrors, AnUnknownUserHasNoIds) {
  uid_t uid = 4242;
  gid_t gid = 4343;
  EXPECT_EQ(os_GetUserIds("no-such-user-of-this-system", &uid, &gid), -1);
  EXPECT_EQ(uid, 4242u);
  EXPECT_EQ(gid, 4343u);
  ASSERT_EQ(os_GetUserIds("root", &uid, &gid), 0);
  EXPECT_EQ(uid, 0u);
  EXPECT_EQ(gid, 0u);
}

}  // namespace
