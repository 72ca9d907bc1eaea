// The sfl-monitor program: options, publication, clean stop on SIGTERM,
// robustness against malformed floods and clients that never read their
// replies, the entry cap, and the stops of its own (main process killed, run
// directory removed, idle time).
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "er.h"
#include "ml.h"
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
using sfltest::StartService;
using sfltest::WaitChild;

sfl_ItemRef makeRef(uint32_t subDomain, uint32_t fileId) {
  sfl_ItemRef r{};
  r.Domain = 2;
  r.SubDomain = subDomain;
  r.FileId = fileId;
  return r;
}

void fillBase(sfl_BaseRec* rec, const sfl_ItemRef& ref) { sfl_SetRef(*rec, ref); }

void send(int q, int32_t type, const std::vector<uint8_t>& text) {
  std::vector<uint8_t> msg(4 + text.size());
  sfl_PutU32(msg.data(), static_cast<uint32_t>(type));
  std::copy(text.begin(), text.end(), msg.begin() + 4);
  ASSERT_EQ(0, os_msgsnd(q, msg.data(), text.size(), 0));
}

class Monitor : public ::testing::Test {
 protected:
  void SetUp() override { setenv("SFL_MONITOR_AUTOSTART", "0", 1); }
  void TearDown() override { sfltest::StopService(); }
};

TEST_F(Monitor, HelpAndBadOptions) {
  int code = -1;
  std::string out = sfltest::RunMonitor("--help", &code);
  EXPECT_EQ(0, code);
  for (const char* opt : {"--foreground", "--run-dir", "--pairs", "--idle-seconds"})
    EXPECT_NE(std::string::npos, out.find(opt)) << opt;
  sfltest::RunMonitor("--pairs 5", &code);
  EXPECT_EQ(2, code);
  sfltest::RunMonitor("--bogus", &code);
  EXPECT_EQ(2, code);
}

TEST_F(Monitor, PublishesItsPairsAndStopsCleanlyOnSigterm) {
  pid_t pid = StartService({"--pairs", "3"});
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  EXPECT_EQ(ML_STATE_RUNNING, st.State);
  EXPECT_EQ(pid, st.MainPid);
  ASSERT_EQ(2u, st.Additional.size());
  ASSERT_EQ(6u, st.Context.size());
  for (int32_t a : st.Additional) EXPECT_EQ(1, ml_CheckPid(a));
  for (int32_t q : st.Context) EXPECT_TRUE(QueueExists(q));

  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_EQ(0, ExitWithin(pid));
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
  for (int32_t q : st.Context) EXPECT_FALSE(QueueExists(q)) << q;
  for (int32_t a : st.Additional) EXPECT_TRUE(Eventually([&] { return ml_CheckPid(a) == 0; }));
}

TEST_F(Monitor, SigtermToTheWholeGroupIsACleanStop) {
  pid_t pid = StartService({"--pairs", "3"});
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  // As a service manager does: every process of the service at once.
  for (int32_t a : st.Additional) kill(a, SIGTERM);
  kill(pid, SIGTERM);
  EXPECT_EQ(0, ExitWithin(pid));
  for (int32_t q : st.Context) EXPECT_FALSE(QueueExists(q));
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
}

TEST_F(Monitor, SecondInstanceIsRefused) {
  ASSERT_GT(StartService(), 0);
  int code = -1;
  std::string out = sfltest::RunMonitor("--foreground --run-dir " + RunDir(), &code);
  EXPECT_EQ(1, code);
  EXPECT_NE(std::string::npos, out.find("already"));
}

TEST_F(Monitor, SurvivesAFloodOfMalformedMessages) {
  pid_t pid = StartService();
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const int req = st.Context[0];
  const int32_t me = getpid();
  std::vector<uint8_t> good(24, 0);
  sfl_PutU32(good.data() + 16, static_cast<uint32_t>(me));
  for (int round = 0; round < 20; ++round) {
    for (size_t len : {0u, 1u, 16u, 23u, 25u, 27u, 29u, 64u}) {
      send(req, ML_MSG_RECORD, std::vector<uint8_t>(len, 0xEE));
      send(req, ML_MSG_WITHDRAW, std::vector<uint8_t>(len, 0xEE));
      send(req, ML_MSG_CHECK, std::vector<uint8_t>(len == 24 ? 28 : len, 0xEE));
    }
    for (int32_t type : {0x7fffffff, 2, 13, 99, 9}) send(req, type, good);
    std::vector<uint8_t> badPid = good;
    sfl_PutU32(badPid.data() + 16, 0);
    send(req, ML_MSG_RECORD, badPid);
    sfl_PutU32(badPid.data() + 16, 0x80000000u);  // negative
    send(req, ML_MSG_CHECK, badPid);
  }
  send(req, 77, std::vector<uint8_t>(8192, 0xAB));  // the largest message there is
  // A proper client is still served, correctly.
  EXPECT_EQ(0, RunInChild([] {
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    sfl_RecordBaseInterest(&rec);
    if (rec.ProcAccCount != 1 || rec.InterestToken == 0) return 1;
    sfl_ReleaseBaseInterest(&rec);
    return rec.ProcAccCount == 0 ? 0 : 2;
  }));
  EXPECT_EQ(1, ml_CheckPid(pid));
  EXPECT_EQ(0u, QueueDepth(st.Context[1]));  // nothing was answered to the malformed ones
}

TEST_F(Monitor, ClientThatNeverReadsItsRepliesCannotStallTheService) {
  pid_t pid = StartService();
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const int req = st.Context[0], rep = st.Context[1];
  int pipeFd[2];
  ASSERT_EQ(0, pipe(pipeFd));
  // Far more check requests than the reply queue can hold, never read.
  pid_t flooder = StartChild([&] {
    std::vector<uint8_t> msg(4 + 24, 0);
    sfl_PutU32(msg.data(), ML_MSG_CHECK);
    sfl_PutU32(msg.data() + 4 + 16, static_cast<uint32_t>(getpid()));
    for (int i = 0; i < 5000; ++i)
      if (os_msgsnd(req, msg.data(), 24, 0) != 0) return 1;
    if (write(pipeFd[1], "x", 1) != 1) return 2;
    for (;;) pause();
    return 0;
  });
  char c;
  ASSERT_EQ(1, read(pipeFd[0], &c, 1));
  // The service keeps answering others (a stalled one would leave this
  // client waiting until its alarm).
  EXPECT_EQ(0, RunInChild([] {
    alarm(20);
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 2));
    sfl_RecordBaseInterest(&rec);
    return rec.ProcAccCount == 1 ? 0 : 1;
  }));
  EXPECT_EQ(1, ml_CheckPid(pid));
  // The replies nobody reads stay bounded, and go once their reader has.
  struct msqid_ds ds;
  ASSERT_EQ(0, msgctl(rep, IPC_STAT, &ds));
  EXPECT_LE(ds.msg_cbytes, ds.msg_qbytes);
  EXPECT_LT(ds.msg_qnum, 5000u);
  kill(flooder, SIGKILL);
  WaitChild(flooder);
  EXPECT_TRUE(Eventually([&] { return QueueDepth(rep) == 0; }));
  close(pipeFd[0]);
  close(pipeFd[1]);
}

TEST_F(Monitor, ReplyQueueFullOfAnotherLiveClientsRepliesStillTakesAnAnswer) {
  pid_t pid = StartService();
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const int rep = st.Context[1];
  pid_t sleeper = StartChild([] {
    for (;;) pause();
    return 0;
  });
  // Fill the reply queue with answers nobody will read for a live process.
  std::vector<uint8_t> msg(4 + 12, 0);
  sfl_PutU32(msg.data(), static_cast<uint32_t>(sleeper));
  while (os_msgsnd(rep, msg.data(), 12, IPC_NOWAIT) == 0) {
  }
  ASSERT_EQ(EAGAIN, errno);
  const size_t full = QueueDepth(rep);
  EXPECT_EQ(0, RunInChild([] {
    alarm(20);
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 3));
    sfl_RecordBaseInterest(&rec);
    return rec.ProcAccCount == 1 && rec.InterestToken != 0 ? 0 : 1;
  }));
  // Only the newest of the unread ones was kept.
  EXPECT_GT(full, 1u);
  EXPECT_EQ(1u, QueueDepth(rep));
  kill(sleeper, SIGKILL);
  WaitChild(sleeper);
}

TEST_F(Monitor, EntryCapRefusesFurtherRecordsAndAnswersThemAsNotAlone) {
  ASSERT_GT(StartService({"--max-entries", "2"}), 0);
  EXPECT_EQ(0, RunInChild([] {
    sfl_BaseRec a, b, c, d;
    fillBase(&a, makeRef(1, 1));
    fillBase(&b, makeRef(1, 2));
    fillBase(&c, makeRef(1, 3));
    sfl_RecordBaseInterest(&a);
    sfl_RecordBaseInterest(&b);
    sfl_RecordBaseInterest(&c);  // over the cap: no entry, and never "alone"
    if (a.InterestToken == 0 || b.InterestToken == 0) return 1;
    if (c.InterestToken != 0 || c.ProcAccCount < 2 || c.OtherInterest == 0) return 2;
    sfl_ReleaseBaseInterest(&a);
    fillBase(&d, makeRef(1, 4));
    sfl_RecordBaseInterest(&d);  // room again
    return d.InterestToken != 0 && d.ProcAccCount == 1 ? 0 : 3;
  }));
}

TEST_F(Monitor, KilledMainProcessTakesTheOthersAndTheQueuesDown) {
  for (const char* pairs : {"1", "2"}) {
    pid_t pid = StartService({"--pairs", pairs});
    ASSERT_GT(pid, 0);
    ml_State st;
    ASSERT_TRUE(ml_ReadState(RunDir(), &st));
    // A client waiting for its reply when the main process is killed.
    int waiter = StartChild([&] {
      alarm(20);
      uint8_t buf[4 + 16];
      try {
        os_msgrcv(st.Context[1], buf, 16, getpid(), 0);
      } catch (const er_Escape& e) {
        return e.group() == ER_GROUP_OS ? 0 : 1;
      }
      return 2;
    });
    ASSERT_EQ(0, kill(pid, SIGKILL));
    EXPECT_EQ(128 + SIGKILL, ExitWithin(pid));
    for (int32_t a : st.Additional) EXPECT_TRUE(Eventually([&] { return ml_CheckPid(a) == 0; }));
    for (int32_t q : st.Context) EXPECT_TRUE(Eventually([&] { return !QueueExists(q); })) << q;
    EXPECT_EQ(0, WaitChild(waiter));  // woken by the removal, not left waiting
    EXPECT_FALSE(ml_ServiceAlive(RunDir(), st));
  }
  // A later start cleans up after it and serves.
  unsetenv("SFL_MONITOR_AUTOSTART");
  EXPECT_EQ(0, RunInChild([] {
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    sfl_RecordBaseInterest(&rec);
    return rec.ProcAccCount == 1 ? 0 : 1;
  }));
}

TEST_F(Monitor, StopsWhenItsRunDirectoryGoes) {
  pid_t pid = StartService();
  ASSERT_GT(pid, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  std::filesystem::remove_all(RunDir());
  EXPECT_EQ(1, ExitWithin(pid));
  for (int32_t q : st.Context) EXPECT_FALSE(QueueExists(q));
  std::filesystem::create_directories(RunDir());
}

TEST_F(Monitor, OnDemandServiceStopsWhenIdleWithNoInterestHeld) {
  unsetenv("SFL_MONITOR_AUTOSTART");
  setenv("SFL_MONITOR_IDLE_SECONDS", "1", 1);
  int toChild[2], fromChild[2];
  ASSERT_EQ(0, pipe(toChild));
  ASSERT_EQ(0, pipe(fromChild));
  pid_t holder = StartChild([&] {
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    sfl_RecordBaseInterest(&rec);
    if (write(fromChild[1], "r", 1) != 1) return 1;
    char c;
    if (read(toChild[0], &c, 1) != 1) return 2;
    sfl_ReleaseBaseInterest(&rec);
    return rec.ProcAccCount == 0 ? 0 : 3;
  });
  char c;
  ASSERT_EQ(1, read(fromChild[0], &c, 1));
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  // Well past the idle time, an interest is still held: it keeps serving.
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_TRUE(ml_ServiceAlive(RunDir(), st));
  ASSERT_EQ(1, write(toChild[1], "w", 1));
  EXPECT_EQ(0, WaitChild(holder));
  // Withdrawn: it goes, taking its queues and state with it.
  EXPECT_TRUE(Eventually([&] { return ml_CheckPid(st.MainPid) == 0; }));
  EXPECT_FALSE(std::filesystem::exists(ml_StatePath(RunDir())));
  for (int32_t q : st.Context) EXPECT_FALSE(QueueExists(q));
  for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) close(fd);
}

}  // namespace
