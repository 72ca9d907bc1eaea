// The operating-system layer at its edges: the test switch failing the
// plainer calls, transfers cut short with element sizes of 0, allocations
// of nothing, reads and lock waits interrupted by a signal, and sleeps
// interrupted the same way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "er.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

class OsEdges : public ::testing::Test {
 protected:
  void TearDown() override { os_ClearFaults(); }
};

std::string TempFile(const char* leaf, const std::string& text) {
  const std::string path = sfltest::TestDir() + "/" + leaf;
  FILE* f = std::fopen(path.c_str(), "w");
  std::fputs(text.c_str(), f);
  std::fclose(f);
  return path;
}

TEST_F(OsEdges, TheSwitchFailsThePlainerCalls) {
  const std::string path = TempFile("plain", "line one\nline two\n");
  struct stat st {};
  os_FailNth(os_Op::Stat, 1, EACCES);
  EXPECT_EQ(os_stat(path.c_str(), &st), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(os_stat(path.c_str(), &st), 0);

  FILE* f = os_fopen(path.c_str(), "r");
  ASSERT_NE(f, nullptr);
  char line[64];
  os_FailNth(os_Op::Fgets, 1, EIO);
  EXPECT_EQ(os_fgets(line, sizeof line, f), nullptr);
  ASSERT_NE(os_fgets(line, sizeof line, f), nullptr);
  EXPECT_STREQ(line, "line one\n");
  os_FailNth(os_Op::Fclose, 1, EIO);
  EXPECT_EQ(os_fclose(f), EOF);  // the stream is gone all the same

  void* m = os_mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(m, MAP_FAILED);
  os_FailNth(os_Op::Munmap, 1, EINVAL);
  EXPECT_EQ(os_munmap(m, 4096), -1);
  EXPECT_EQ(os_munmap(m, 4096), 0);

  os_FailNth(os_Op::Unlink, 1, EPERM);
  EXPECT_EQ(os_unlink(path.c_str()), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(os_unlink(path.c_str()), 0);

  const int q = os_msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  ASSERT_GE(q, 0);
  os_FailNth(os_Op::Msgctl, 1, EPERM);
  EXPECT_EQ(os_msgctl(q, IPC_RMID, nullptr), -1);
  EXPECT_EQ(os_msgctl(q, IPC_RMID, nullptr), 0);
}

TEST_F(OsEdges, ShortStreamTransfersWithElementSizeZeroMoveNothing) {
  const std::string path = TempFile("short", "abcdef");
  FILE* f = os_fopen(path.c_str(), "r+");
  ASSERT_NE(f, nullptr);
  char buf[8] = {};
  os_ShortNth(os_Op::Fread, 1, 2);
  EXPECT_EQ(os_fread(buf, 0, 4, f), 0u);
  os_ShortNth(os_Op::Fread, 1, 2);
  EXPECT_EQ(os_fread(buf, 1, 4, f), 2u);
  os_ShortNth(os_Op::Fwrite, 1, 1);
  EXPECT_EQ(os_fwrite("xy", 0, 2, f), 0u);
  os_ShortNth(os_Op::Fwrite, 1, 1);
  EXPECT_EQ(os_fwrite("xy", 1, 2, f), 1u);
  os_fclose(f);
}

TEST_F(OsEdges, AllocationsOfNothingStillGiveABlock) {
  void* a = os_calloc(0, 0);
  ASSERT_NE(a, nullptr);
  void* b = os_realloc(a, 0);
  ASSERT_NE(b, nullptr);
  os_free(b);
  os_FailNth(os_Op::Malloc, 1, ENOMEM);
  EXPECT_EQ(os_calloc(1, 1), nullptr);
  os_FailNth(os_Op::Malloc, 1, ENOMEM);
  EXPECT_EQ(os_realloc(nullptr, 1), nullptr);
}

// A signal handler that does nothing, installed without SA_RESTART so that
// a blocking call returns EINTR.
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
  // SIGALRM after `ms` milliseconds.
  void After(int ms) {
    struct itimerval t {};
    t.it_value.tv_usec = ms * 1000;
    setitimer(ITIMER_REAL, &t, nullptr);
  }
};

// An interrupted read is tried again: the byte written after the signal
// arrives.
TEST_F(OsEdges, AnInterruptedReadIsTriedAgain) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const int pid = sfltest::StartChild([&] {
    usleep(300000);
    return write(fds[1], "z", 1) == 1 ? 0 : 1;
  });
  Interrupter irq;
  irq.After(50);
  char c = 0;
  EXPECT_EQ(os_read(fds[0], &c, 1), 1);
  EXPECT_EQ(c, 'z');
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  close(fds[0]);
  close(fds[1]);
}

// A lock wait interrupted by a signal waits on until the holder lets go.
TEST_F(OsEdges, AnInterruptedLockWaitWaitsOn) {
  const std::string path = TempFile("locked", "0123456789");
  sfltest::Gate held, release;
  const int pid = sfltest::StartChild([&] {
    int fd = ::open(path.c_str(), O_RDWR);
    if (os_TryLockPart(fd, OS_LOCK_EXCL, SEEK_SET, 0, 0, 4, 0) != 1) return 1;
    held.Open();
    release.Wait();
    return 0;
  });
  held.Wait();
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  Interrupter irq;
  irq.After(50);
  const int opener = sfltest::StartChild([&] {
    usleep(300000);
    release.Open();
    return 0;
  });
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_EXCL, SEEK_SET, 0, 0, 4, 0), 1);
  EXPECT_EQ(sfltest::WaitChild(opener), 0);
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  close(fd);
}

TEST_F(OsEdges, AnInterruptedSleepSleepsOn) {
  os_SkipSleeps(false);
  Interrupter irq;
  irq.After(20);
  struct timeval a {}, b {};
  gettimeofday(&a, nullptr);
  EXPECT_EQ(os_usleep(150000), 0);
  gettimeofday(&b, nullptr);
  const long us = (b.tv_sec - a.tv_sec) * 1000000L + (b.tv_usec - a.tv_usec);
  EXPECT_GE(us, 140000);
}

}  // namespace

namespace {

// A short transfer asked of a call that moves no bytes changes nothing.
TEST_F(OsEdges, AShortTransferOfACallWithoutBytesIsIgnored) {
  const std::string path = TempFile("noshort", "x");
  os_ShortNth(os_Op::Open, 1, 0);
  const int fd = os_open(path.c_str(), O_RDONLY);
  EXPECT_GE(fd, 0);
  os_close(fd);
}

}  // namespace
