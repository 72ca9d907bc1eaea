// The system layer at its edges: a fault asked for zero times still fails
// one call, a conflict reported to a lock call that waits or releases is an
// error rather than a refusal, a receive buffer larger than any message, and
// the C trampoline, which absorbs escapes but lets other exceptions through.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "er.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::EscapeCode;
using sfltest::EscapeCodeOf;

TEST(OsSwitchEdges, AFaultAskedForZeroTimesFailsOneCall) {
  const std::string path = sfltest::WritePlainFile("zero-times", "abc");
  os_FailNth(os_Op::Open, 1, EIO, 0);
  errno = 0;
  EXPECT_EQ(os_open(path.c_str(), O_RDONLY), -1);
  EXPECT_EQ(errno, EIO);
  const int fd = os_open(path.c_str(), O_RDONLY);
  EXPECT_GE(fd, 0);
  os_close(fd);
}

TEST(OsSwitchEdges, AConflictIsARefusalOnlyForACallThatDoesNotWait) {
  const std::string path = sfltest::WritePlainFile("lock-modes", "0123456789");
  const int fd = os_open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  for (int err : {EAGAIN, EACCES}) {
    SCOPED_TRACE(err);
    // Trying once: the conflict is the answer.
    os_FailNth(os_Op::Lock, 1, err);
    EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_SHARED | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 4, 0), 0);
    // Waiting, a call cannot meet a conflict: it is an error.
    os_FailNth(os_Op::Lock, 1, err);
    EXPECT_EQ(EscapeCodeOf([&] { os_TryLockPart(fd, OS_LOCK_EXCL, SEEK_SET, 0, 0, 4, 0); }),
              EscapeCode(ER_GROUP_OS, err));
    // A release never waits, with the flag or without: a failed one is an
    // error, so a caller never goes on believing a lock has gone.
    os_FailNth(os_Op::Lock, 1, err);
    EXPECT_EQ(EscapeCodeOf([&] {
                os_TryLockPart(fd, OS_LOCK_RELEASE | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 4, 0);
              }),
              EscapeCode(ER_GROUP_OS, err));
  }
  os_ClearFaults();
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 4, 0), 1);
  EXPECT_EQ(os_TryLockPart(fd, OS_LOCK_RELEASE | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, 4, 0), 1);
  EXPECT_TRUE(sfltest::LockableElsewhere(path, 0, 4));
  os_close(fd);
}

TEST(OsSwitchEdges, AReceiveBufferLargerThanAnyMessageTakesTheMessageWhole) {
  const int q = os_msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  ASSERT_GE(q, 0);
  std::vector<uint8_t> msg(4 + 100);
  msg[0] = 5;
  for (size_t i = 4; i < msg.size(); ++i) msg[i] = static_cast<uint8_t>(i);
  ASSERT_EQ(os_msgsnd(q, msg.data(), 100, 0), 0);
  // A message text can never pass the largest one sent; a caller may still
  // offer more room than that.
  std::vector<uint8_t> in(4 + 20000, 0xEE);
  EXPECT_EQ(os_msgrcv(q, in.data(), 20000, 0, IPC_NOWAIT), 100);
  EXPECT_EQ(in[0], 5);
  EXPECT_TRUE(std::equal(msg.begin() + 4, msg.end(), in.begin() + 4));
  EXPECT_EQ(in[4 + 100], 0xEE) << "nothing is written past the message";
  // Nor is more than the largest text ever sent.
  std::vector<uint8_t> big(4 + 9000, 1);
  errno = 0;
  EXPECT_EQ(os_msgsnd(q, big.data(), 9000, IPC_NOWAIT), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(sfltest::QueueDepth(q), 0u);
  ::msgctl(q, IPC_RMID, nullptr);
}

void RaiseEscape(void*) { ER_RAISE(ER_GROUP_OS, EPERM); }
void ThrowOther(void*) { throw std::runtime_error("not an escape"); }

TEST(ErrorTrampolineEdges, EscapesAreAbsorbedButOtherExceptionsPassThrough) {
  int group = 0, reason = 0;
  EXPECT_EQ(er_CallC(RaiseEscape, nullptr, &group, &reason), 1);
  EXPECT_EQ(group, ER_GROUP_OS);
  EXPECT_EQ(reason, EPERM);
  EXPECT_EQ(er_GetLive(), 0);
  group = reason = 0;
  EXPECT_THROW(er_CallC(ThrowOther, nullptr, &group, &reason), std::runtime_error);
  EXPECT_EQ(group, 0);
  EXPECT_EQ(reason, 0);
}

}  // namespace
