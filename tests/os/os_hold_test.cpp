// The hold switch: a process held before its Nth call until released, and a
// process that tells its watcher before it waits on a lock or sleeps. Each
// test runs the switched process as a forked child and watches it through
// pipes, as the interleaving loop does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "os.h"
#include "test_env.h"
#include "test_util.h"
#include "pipe_watch.h"

namespace {

using sfltest::NextByte;
using sfltest::Pipe;

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

TEST(OsHold, TheNthCallWaitsUntilReleasedThenRuns) {
  const std::string a = sfltest::WritePlainFile("hold-a", "a");
  const std::string b = sfltest::WritePlainFile("hold-b", "b");
  Pipe tell, release;
  const int pid = sfltest::StartChild([&] {
    tell.CloseRead();
    release.CloseWrite();
    const uint64_t before = os_TotalCalls();
    os_HoldNthCall(2, tell.WriteEnd(), release.ReadEnd());
    os_unlink(a.c_str());  // call 1
    os_unlink(b.c_str());  // call 2: held first
    // The hold's own transfers are not calls.
    if (os_TotalCalls() - before != 2) return 1;
    if (!os_HoldMet() || std::string(os_HoldMetKind()) != "unlink") return 2;
    return 0;
  });
  tell.CloseWrite();
  ASSERT_EQ(NextByte(tell.ReadEnd()), 'H');
  // Held before its second call: the first file has gone, the second not.
  EXPECT_FALSE(Exists(a));
  EXPECT_TRUE(Exists(b));
  EXPECT_EQ(sfltest::ExitWithin(pid, 0), -1);  // still there, waiting
  ASSERT_EQ(::write(release.WriteEnd(), "g", 1), 1);
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  EXPECT_FALSE(Exists(b));
  EXPECT_EQ(NextByte(tell.ReadEnd()), '\0');  // nothing more was told
}

TEST(OsHold, ACallPastTheLastIsNeverHeldAndZeroCancels) {
  const std::string a = sfltest::WritePlainFile("nohold", "a");
  os_HoldNthCall(5, -1, -1);
  EXPECT_EQ(os_unlink(a.c_str()), 0);
  EXPECT_FALSE(os_HoldMet());
  EXPECT_STREQ(os_HoldMetKind(), "none");
  os_HoldNthCall(0, -1, -1);  // cancelled: four more calls hold nothing
  for (int i = 0; i < 6; ++i) os_usleep(0);
  EXPECT_FALSE(os_HoldMet());
}

TEST(OsHold, AForkedChildInheritsNoHoldAndNoWatcher) {
  Pipe tell;
  os_HoldNthCall(3, tell.WriteEnd(), -1);
  os_TellWaits(tell.WriteEnd());
  // The child makes more than three calls and sleeps: neither is told.
  const int pid = sfltest::StartChild([] {
    for (int i = 0; i < 5; ++i) os_usleep(1);
    return os_HoldMet() ? 1 : 0;
  });
  os_HoldNthCall(0, -1, -1);
  os_TellWaits(-1);
  tell.CloseWrite();
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
  EXPECT_EQ(NextByte(tell.ReadEnd(), 0), '\0');
}

TEST(OsHold, EndOfFileReleasesAndErrnoIsKept) {
  const std::string path = sfltest::WritePlainFile("hold-errno", "x");
  Pipe tell, release;
  const int pid = sfltest::StartChild([&] {
    tell.CloseRead();
    release.CloseWrite();
    os_HoldNthCall(1, tell.WriteEnd(), release.ReadEnd());
    errno = 1234;
    const int fd = os_open((path + ".missing").c_str(), O_RDONLY);
    return fd < 0 && errno == ENOENT ? 0 : 1;
  });
  tell.CloseWrite();
  ASSERT_EQ(NextByte(tell.ReadEnd()), 'H');
  release.CloseWrite();
  EXPECT_EQ(sfltest::WaitChild(pid), 0);
}

// A child that takes an exclusive lock on bytes 0-9 of `path`, telling its
// waits on `tellFd`; it exits 0 when it got the lock.
int LockingChild(const std::string& path, int tellFd, bool whole) {
  os_TellWaits(tellFd);
  const int fd = os_open(path.c_str(), O_RDWR);
  if (fd < 0) return 3;
  if (whole) return os_flock(fd, LOCK_EX) == 0 ? 0 : 1;
  return os_TryLockPart(fd, OS_LOCK_EXCL, SEEK_SET, 0, 0, 10, 0) == 1 ? 0 : 1;
}

TEST(OsHold, ALockThatMustWaitIsToldFirst) {
  for (bool whole : {false, true}) {
    SCOPED_TRACE(whole ? "flock" : "record lock");
    const std::string path = sfltest::WritePlainFile("tell-lock", "0123456789");
    const int fd = os_open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    if (whole)
      ASSERT_EQ(os_flock(fd, LOCK_EX), 0);
    else
      ASSERT_EQ(os_TryLockPart(fd, OS_LOCK_EXCL, SEEK_SET, 0, 0, 10, 0), 1);
    Pipe tell;
    const int pid = sfltest::StartChild([&] {
      tell.CloseRead();
      return LockingChild(path, tell.WriteEnd(), whole);
    });
    tell.CloseWrite();
    ASSERT_EQ(NextByte(tell.ReadEnd()), 'W');
    EXPECT_EQ(sfltest::ExitWithin(pid, 0), -1);  // waiting on our lock
    if (whole)
      os_flock(fd, LOCK_UN);
    else
      os_TryLockPart(fd, OS_LOCK_RELEASE, SEEK_SET, 0, 0, 10, 0);
    EXPECT_EQ(sfltest::WaitChild(pid), 0);
    os_close(fd);
  }
}

TEST(OsHold, AFreeLockIsTakenWithoutATale) {
  for (bool whole : {false, true}) {
    const std::string path = sfltest::WritePlainFile("free-lock", "0123456789");
    Pipe tell;
    const int pid = sfltest::StartChild([&] {
      tell.CloseRead();
      return LockingChild(path, tell.WriteEnd(), whole);
    });
    tell.CloseWrite();
    EXPECT_EQ(NextByte(tell.ReadEnd()), '\0');
    EXPECT_EQ(sfltest::WaitChild(pid), 0);
  }
}

TEST(OsHold, ASleepIsToldUnlessSkipped) {
  Pipe tell;
  os_TellWaits(tell.WriteEnd());
  os_usleep(1);
  EXPECT_EQ(NextByte(tell.ReadEnd(), 0), 'S');
  os_SkipSleeps(true);
  os_usleep(1000000);
  os_SkipSleeps(false);
  os_TellWaits(-1);
  os_usleep(1);
  EXPECT_EQ(NextByte(tell.ReadEnd(), 0), '?');  // nothing told by either
}

TEST(OsHold, ALockCallThatFailsOutrightStillRaises) {
  Pipe tell;
  os_TellWaits(tell.WriteEnd());
  const long code = sfltest::EscapeCodeOf([] { os_TryLockPart(-1, OS_LOCK_SHARED, SEEK_SET, 0, 0, 1, 0); });
  errno = 0;
  EXPECT_EQ(os_flock(-1, LOCK_EX), -1);
  EXPECT_EQ(errno, EBADF);
  os_TellWaits(-1);
  EXPECT_EQ(code, sfltest::EscapeCode(ER_GROUP_OS, EBADF));
  EXPECT_EQ(NextByte(tell.ReadEnd(), 0), '?');
}

}  // namespace
