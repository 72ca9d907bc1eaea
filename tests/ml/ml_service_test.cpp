// The interest service's own failures and stops: an unusable run directory,
// a lock held by another, queues, mapping, forks or the publication that
// fail (each leaving no queue, state or lock behind), a serving process
// that ends or will not stop, clients that die mid-exchange or wait while
// the service is stopped, and a reply that no queue space can take.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/msg.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "er.h"
#include "ml.h"
#include "ml_keep.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::Eventually;
using sfltest::ExitWithin;
using sfltest::QueueDepth;
using sfltest::QueueExists;
using sfltest::RunDir;
using sfltest::RunInChild;
using sfltest::StartChild;
using sfltest::WaitChild;

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string logPath() { return sfltest::TestDir() + "/service.log"; }

// Sends this process's standard error, where the service logs, to logPath().
bool logToServiceLog() {
  int log = open(logPath().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  return log >= 0 && dup2(log, 2) >= 0;
}

ml_ServiceOptions options(int pairs = 1) {
  ml_ServiceOptions o;
  o.RunDir = RunDir();
  o.Pairs = pairs;
  return o;
}

// Runs the service in a forked child of this process, its log on
// logPath(), after `prepare` (which sets faults, say). Returns the exit
// status of the service.
int runService(const ml_ServiceOptions& o, const std::function<void()>& prepare = [] {}) {
  return RunInChild([&] {
    if (!logToServiceLog()) return 90;
    os_ResetCallCounts();
    prepare();
    return ml_RunService(o);
  });
}

// Starts the service in a forked child, its log on logPath(); returns its
// pid once published.
int startService(const ml_ServiceOptions& o) {
  int pid = StartChild([&] {
    if (!logToServiceLog()) return 90;
    return ml_RunService(o);
  });
  ml_State st;
  if (!Eventually([&] { return ml_ReadState(RunDir(), &st) && st.MainPid == pid; })) return -1;
  return pid;
}

// Nothing of a failed start is left: no state, and the lock is free.
void expectNothingLeft() {
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
  int fd = ml_ClaimServiceLock(RunDir());
  EXPECT_GE(fd, 0);
  if (fd >= 0) close(fd);
}

void sendRequest(int q, int32_t type, const uint8_t* text, size_t len) {
  std::vector<uint8_t> msg(4 + len);
  sfl_PutU32(msg.data(), static_cast<uint32_t>(type));
  std::memcpy(msg.data() + 4, text, len);
  ASSERT_EQ(0, os_msgsnd(q, msg.data(), len, 0));
}

// A check request for the reference 16 x `refByte`, answered to `pid`.
void sendCheck(int q, uint8_t refByte, int32_t pid) {
  uint8_t text[ML_CHECK_LEN];
  std::memset(text, refByte, 16);
  sfl_PutU32(text + 16, static_cast<uint32_t>(pid));
  sendRequest(q, ML_MSG_CHECK, text, sizeof text);
}

// The count of a check reply waiting for `pid`; -1 when none comes in 5 s.
int64_t checkReply(int q, int32_t pid) {
  uint8_t buf[4 + 16];
  int64_t count = -1;
  Eventually(
      [&] {
        try {
          os_msgrcv(q, buf, 16, pid, IPC_NOWAIT);
          count = sfl_GetU32(buf + 4);
          return true;
        } catch (const er_Escape&) {
          er_Clear();
          return false;
        }
      },
      5);
  return count;
}

class MlService : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("SFL_MONITOR_AUTOSTART", "0", 1);
    std::filesystem::remove(logPath());
  }
  void TearDown() override { sfltest::StopService(); }
};

TEST_F(MlService, UnusableRunDirectoryIsRefused) {
  ml_ServiceOptions o = options();
  o.RunDir = sfltest::WritePlainFile("not-a-directory", "x");
  EXPECT_EQ(1, runService(o));
  EXPECT_NE(std::string::npos, fileText(logPath()).find("unusable"));
}

TEST_F(MlService, LockHeldByAnotherIsWaitedForThenRefused) {
  int held = ml_ClaimServiceLock(RunDir());
  ASSERT_GE(held, 0);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(1, runService(options()));
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1500));
  EXPECT_NE(std::string::npos, fileText(logPath()).find("another service holds"));
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
  close(held);
}

TEST_F(MlService, FailedQueueCreationTakesTheOthersDown) {
  EXPECT_EQ(1, runService(options(2), [] { os_FailNth(os_Op::Msgget, 3, ENOSPC); }));
  EXPECT_NE(std::string::npos, fileText(logPath()).find("cannot create a message queue"));
  expectNothingLeft();
}

TEST_F(MlService, FailedMappingTakesTheQueuesDown) {
  EXPECT_EQ(1, runService(options(2), [] { os_FailNth(os_Op::Mmap, 1, ENOMEM); }));
  EXPECT_NE(std::string::npos, fileText(logPath()).find("cannot map"));
  expectNothingLeft();
}

TEST_F(MlService, FailedForkStopsTheProcessesAlreadyForked) {
  // The first serving process is forked, the second fork fails.
  EXPECT_EQ(1, runService(options(3), [] { os_FailNth(os_Op::Fork, 2, EAGAIN); }));
  const std::string log = fileText(logPath());
  EXPECT_NE(std::string::npos, log.find("cannot fork the serving processes")) << log;
  expectNothingLeft();
  // The serving process that did start was stopped and reaped by the
  // service: nothing of this test's is left to wait for.
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
}

TEST_F(MlService, FailedPublicationStopsTheService) {
  // The first two renames put the two pairs' kept interests in place.
  EXPECT_EQ(1, runService(options(2), [] { os_FailNth(os_Op::Rename, 3, EIO); }));
  EXPECT_NE(std::string::npos, fileText(logPath()).find("cannot publish"));
  expectNothingLeft();
}

TEST_F(MlService, KeptInterestsThatCannotBeWrittenAreLoggedAndServingGoesOn) {
  // The pair's file is a directory: not read, not written, not kept.
  std::filesystem::remove(ml_KeepPath(RunDir(), 0));
  std::filesystem::create_directory(ml_KeepPath(RunDir(), 0));
  const int pid = startService(options());
  ASSERT_GT(pid, 0);
  EXPECT_EQ(0, RunInChild([] {
    sfl_BaseRec rec;
    sfl_ItemRef ref{};
    ref.SubDomain = 4;
    sfl_SetRef(rec, ref);
    sfl_RecordBaseInterest(&rec);
    return rec.InterestToken != 0 ? 0 : 1;
  }));
  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_EQ(0, ExitWithin(pid, 10));
  const std::string log = fileText(logPath());
  EXPECT_NE(std::string::npos, log.find("not used: not a regular file")) << log;
  EXPECT_NE(std::string::npos, log.find("cannot write")) << log;
  EXPECT_NE(std::string::npos, log.find("cannot keep interests")) << log;
  std::filesystem::remove(ml_KeepPath(RunDir(), 0));
}

TEST_F(MlService, AKeptSlotThatCannotBeWrittenIsLoggedAtTheNextSweep) {
  const int pid = StartChild([&] {
    if (!logToServiceLog()) return 90;
    os_FailNth(os_Op::Pwrite, 1, ENOSPC);
    return ml_RunService(options());
  });
  ml_State st;
  ASSERT_TRUE(Eventually([&] { return ml_ReadState(RunDir(), &st) && st.MainPid == pid; }));
  EXPECT_EQ(0, RunInChild([] {
    sfl_BaseRec rec;
    sfl_ItemRef ref{};
    ref.SubDomain = 5;
    sfl_SetRef(rec, ref);
    sfl_RecordBaseInterest(&rec);
    return rec.InterestToken != 0 ? 0 : 1;
  }));
  EXPECT_TRUE(Eventually([&] { return fileText(logPath()).find("write(s) of the kept interests failed") != std::string::npos; }));
  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_EQ(0, ExitWithin(pid, 10));
}

TEST_F(MlService, ServingProcessThatEndsStopsTheService) {
  const int pid = startService(options(2));
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  ASSERT_EQ(1u, st.Additional.size());
  ASSERT_EQ(0, kill(st.Additional[0], SIGKILL));
  EXPECT_EQ(1, ExitWithin(pid, 10));
  EXPECT_NE(std::string::npos, fileText(logPath()).find("ended; stopping"));
  for (int32_t q : st.Context) EXPECT_FALSE(QueueExists(q)) << q;
  expectNothingLeft();
}

TEST_F(MlService, ServingProcessThatDoesNotStopIsKilled) {
  const int pid = startService(options(2));
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  ASSERT_EQ(1u, st.Additional.size());
  const pid_t stuck = st.Additional[0];
  ASSERT_EQ(0, kill(stuck, SIGSTOP));  // a stopped process cannot act on SIGTERM
  const auto t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_EQ(0, ExitWithin(pid, 15));
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(1900));
  EXPECT_EQ(0, ml_CheckPid(stuck));  // killed and reaped by the service
  for (int32_t q : st.Context) EXPECT_FALSE(QueueExists(q)) << q;
}

// A serving process usually notices a stop at the next tick. With the
// ticker gone (killed by hand, say) no tick comes, and a stop signal must
// still end the wait.
TEST_F(MlService, AStopSignalStopsTheServiceWhoseTickerIsGone) {
  const int pid = startService(options());
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const std::vector<pid_t> children = sfltest::ChildrenOf(pid);
  ASSERT_EQ(1u, children.size());  // one pair: the ticker alone
  ASSERT_EQ(0, kill(children[0], SIGKILL));
  // The ticker has ended, and a tick it sent before is taken.
  EXPECT_TRUE(Eventually([&] { return sfltest::ProcessState(children[0]) == 'Z'; }));
  EXPECT_TRUE(Eventually([&] { return QueueDepth(st.Context[0]) == 0; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ASSERT_EQ(0, kill(pid, SIGTERM));
  const int code = ExitWithin(pid, 5);
  EXPECT_EQ(0, code);
  if (code == -1) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    for (int32_t q : st.Context) msgctl(q, IPC_RMID, nullptr);
  }
  for (int32_t q : st.Context) EXPECT_FALSE(QueueExists(q)) << q;
  EXPECT_EQ(0, sfltest::ProcessState(children[0]));  // reaped by the service
}

TEST_F(MlService, ClientThatDiesMidExchangeLeavesNothingBehind) {
  const int pid = startService(options());
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const int req = st.Context[0], rep = st.Context[1];
  // The client records an interest and ends before reading the reply.
  EXPECT_EQ(0, RunInChild([&] {
    uint8_t text[ML_RECORD_LEN];
    std::memset(text, 0x5A, 16);
    sfl_PutU32(text + 16, static_cast<uint32_t>(getpid()));
    std::vector<uint8_t> msg(4 + sizeof text);
    sfl_PutU32(msg.data(), ML_MSG_RECORD);
    std::memcpy(msg.data() + 4, text, sizeof text);
    return os_msgsnd(req, msg.data(), sizeof text, 0) == 0 ? 0 : 1;
  }));
  // The sweep drops both its unread reply and its interest.
  EXPECT_TRUE(Eventually([&] { return QueueDepth(rep) == 0; }));
  EXPECT_TRUE(Eventually([&] { return fileText(logPath()).find("dropped 1 interests") != std::string::npos; }));
  sendCheck(req, 0x5A, getpid());
  EXPECT_EQ(0, checkReply(rep, getpid()));
  EXPECT_EQ(1, ml_CheckPid(pid));
}

TEST_F(MlService, StopWakesEveryClientWaitingForAReply) {
  const int pid = startService(options(2));
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  sfltest::Gate ready;
  std::vector<int> waiters;
  for (int i = 0; i < 4; ++i) {
    const int rep = st.Context[2 * (i % 2) + 1];
    waiters.push_back(StartChild([&, rep] {
      alarm(20);
      ready.Open();
      uint8_t buf[4 + 16];
      try {
        os_msgrcv(rep, buf, 16, getpid(), 0);
      } catch (const er_Escape& e) {
        return e.reason() == EIDRM ? 0 : 1;
      }
      return 2;
    }));
  }
  for (size_t i = 0; i < waiters.size(); ++i) ready.Wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // all in msgrcv
  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_EQ(0, ExitWithin(pid, 10));
  for (int w : waiters) EXPECT_EQ(0, WaitChild(w));  // woken with EIDRM, not by the alarm
}

// Clients that ask at the same time over two pairs share the reply queues:
// each still gets the answers to its own requests.
TEST_F(MlService, ConcurrentClientsGetTheirOwnAnswers) {
  const int pid = startService(options(2));
  ASSERT_GT(pid, 0);
  std::vector<int> clients;
  for (int c = 0; c < 3; ++c) {
    clients.push_back(StartChild([c] {
      alarm(60);
      sfl_ItemRef own{};
      own.Domain = 2;
      own.SubDomain = static_cast<uint32_t>(c);  // spread over both pairs
      own.FileId = 1000 + static_cast<uint32_t>(c);
      sfl_BaseRec rec;
      sfl_SetRef(rec, own);
      for (int i = 0; i < 200; ++i) {
        sfl_RecordBaseInterest(&rec);
        if (rec.ProcAccCount != 1 || rec.OtherInterest != 0 || rec.InterestToken == 0) return 1;
        sfl_CheckBaseInterest(&rec);
        if (rec.ProcAccCount != 1) return 2;
        sfl_ReleaseBaseInterest(&rec);
        if (rec.ProcAccCount != 0) return 3;
      }
      return 0;
    }));
  }
  for (int c : clients) EXPECT_EQ(0, WaitChild(c));
  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_EQ(0, ExitWithin(pid, 10));
}

// A kill of the service's whole process group while a client waits for its
// reply: the ticker, in a group of its own, takes the queues down, and the
// client gets an escape instead of waiting for ever.
TEST_F(MlService, KillOfTheWholeServiceGroupWakesAWaitingClient) {
  ml_ServiceOptions o = options(2);
  int pid = StartChild([&] {
    setpgid(0, 0);
    if (!logToServiceLog()) return 90;
    return ml_RunService(o);
  });
  ml_State st;
  ASSERT_TRUE(Eventually([&] { return ml_ReadState(RunDir(), &st) && st.MainPid == pid; }));
  // The serving processes stop answering; the client asks and waits.
  ASSERT_EQ(0, kill(-pid, SIGSTOP));
  sfltest::Gate asked;
  int client = StartChild([&] {
    alarm(30);
    sfl_ItemRef ref{};
    ref.Domain = 2;
    ref.FileId = 7;
    sfl_BaseRec rec;
    sfl_SetRef(rec, ref);
    try {
      sfl_GetQueue(&ref, nullptr, nullptr, nullptr, nullptr);
      asked.Open();
      sfl_CheckBaseInterest(&rec);
    } catch (const er_Escape& e) {
      // The removed queue sends the client to look for the service again;
      // none runs any more, and that is what it reports.
      return e.group() == ER_GROUP_MONIT && e.reason() == ML_R_NOT_AVAILABLE ? 0 : 1;
    }
    return 2;
  });
  asked.Wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // in msgrcv by now
  ASSERT_EQ(0, kill(-pid, SIGKILL));
  EXPECT_EQ(0, ExitWithin(client, 20));  // not the alarm's 128 + SIGALRM
  EXPECT_EQ(128 + SIGKILL, ExitWithin(pid, 10));
  EXPECT_TRUE(Eventually([&] { return !QueueExists(st.Context[0]) && !QueueExists(st.Context[1]); }));
}

// A kill of the main process while its stop waits for clients to take
// their last replies (its state already withdrawn) still takes the queues
// down: the ticker, which removes them when the main process vanishes, is
// stopped only after the queues are gone.
TEST_F(MlService, AKillWhileTheStopWaitsForRepliesLeavesNoQueue) {
  const int pid = startService(options());
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  // A live process that never takes its reply keeps the stop waiting.
  const int sleeper = StartChild([] {
    for (;;) pause();
    return 0;
  });
  std::vector<uint8_t> reply(4 + ML_CHECK_REPLY_LEN);
  sfl_PutU32(reply.data(), static_cast<uint32_t>(sleeper));
  ASSERT_EQ(0, os_msgsnd(st.Context[1], reply.data(), ML_CHECK_REPLY_LEN, IPC_NOWAIT));
  ASSERT_EQ(0, kill(pid, SIGTERM));
  ASSERT_TRUE(Eventually([] { return !std::filesystem::exists(ml_StatePath(RunDir())); }));
  // Past the stop of its other processes, well within the 2 s wait.
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  ASSERT_EQ(-1, ExitWithin(pid, 0));
  ASSERT_EQ(1u, QueueDepth(st.Context[1]));
  ASSERT_EQ(0, kill(pid, SIGKILL));
  EXPECT_EQ(128 + SIGKILL, ExitWithin(pid, 10));
  EXPECT_TRUE(Eventually([&] { return !QueueExists(st.Context[0]) && !QueueExists(st.Context[1]); }, 5));
  kill(sleeper, SIGKILL);
  WaitChild(sleeper);
}

TEST_F(MlService, ReplyNoQueueSpaceCanTakeIsDroppedAndServiceGoesOn) {
  const int pid = startService(options());
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const int req = st.Context[0], rep = st.Context[1];
  struct msqid_ds ds;
  ASSERT_EQ(0, msgctl(rep, IPC_STAT, &ds));
  if (ds.msg_qbytes > 2 * 8192) GTEST_SKIP() << "reply queue larger than two messages";
  // Two live processes each have one large unread reply: nothing to purge
  // for the requester, nothing stale to compact away.
  std::vector<int> sleepers;
  for (int i = 0; i < 2; ++i) sleepers.push_back(StartChild([] {
    for (;;) pause();
    return 0;
  }));
  const size_t sizes[2] = {ds.msg_qbytes / 2, ds.msg_qbytes - ds.msg_qbytes / 2};
  for (int i = 0; i < 2; ++i) {
    std::vector<uint8_t> msg(4 + sizes[i], 0xCC);
    sfl_PutU32(msg.data(), static_cast<uint32_t>(sleepers[i]));
    ASSERT_EQ(0, os_msgsnd(rep, msg.data(), sizes[i], IPC_NOWAIT));
  }
  sendCheck(req, 0x11, getpid());
  EXPECT_TRUE(Eventually([&] { return fileText(logPath()).find("reply to pid") != std::string::npos; }));
  EXPECT_EQ(2u, QueueDepth(rep));  // both kept
  uint8_t buf[4 + 16];
  EXPECT_EQ(ENOMSG, sfltest::ReasonOf([&] { os_msgrcv(rep, buf, 16, getpid(), IPC_NOWAIT); }));
  // Once there is room, answers flow again.
  std::vector<uint8_t> big(4 + 8192);
  for (int s : sleepers) os_msgrcv(rep, big.data(), 8192, s, IPC_NOWAIT);
  sendCheck(req, 0x11, getpid());
  EXPECT_EQ(0, checkReply(rep, getpid()));
  for (int s : sleepers) {
    kill(s, SIGKILL);
    WaitChild(s);
  }
  EXPECT_EQ(1, ml_CheckPid(pid));
}

}  // namespace
