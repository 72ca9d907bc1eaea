// The interest client: finding the queues, sending with retries, the wire
// format of the six exchanges (against a service played by the test on
// private queues), and the exchanges with the real service across processes.
//
// Client calls run in forked children wherever the queue table matters: the
// table belongs to the process that filled it, so each child starts afresh.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>
#include <vector>

#include "er.h"
#include "ml.h"
#include "os.h"
#include "pipe_watch.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::RunDir;
using sfltest::RunInChild;
using sfltest::StartChild;
using sfltest::WaitChild;

// ---- helpers ------------------------------------------------------------------------------

int newQueue() { return msgget(IPC_PRIVATE, IPC_CREAT | 0600); }

// Plays the service's published side: private queues, a state naming them
// and this process as every serving process, and the service lock.
class FakeService {
 public:
  FakeService(int additional, int queueCount, int32_t pid = getpid()) {
    for (int i = 0; i < queueCount; ++i) queues.push_back(newQueue());
    lockFd = ml_ClaimServiceLock(RunDir());
    ml_State st;
    st.State = ML_STATE_RUNNING;
    st.MainPid = pid;
    st.Additional.assign(static_cast<size_t>(additional), pid);
    st.Context.assign(queues.begin(), queues.end());
    ml_PublishState(RunDir(), st, 0600);
  }
  ~FakeService() {
    for (int q : queues) msgctl(q, IPC_RMID, nullptr);
    unlink(ml_StatePath(RunDir()).c_str());
    if (lockFd >= 0) close(lockFd);
  }
  std::vector<int> queues;
  int lockFd = -1;
};

// Places a message (wire layout) on a queue.
void put(int q, int32_t type, const std::vector<uint32_t>& words) {
  std::vector<uint8_t> msg(4 + 4 * words.size());
  sfl_PutU32(msg.data(), static_cast<uint32_t>(type));
  for (size_t i = 0; i < words.size(); ++i) sfl_PutU32(msg.data() + 4 + 4 * i, words[i]);
  ASSERT_EQ(0, os_msgsnd(q, msg.data(), 4 * words.size(), IPC_NOWAIT));
}

// Takes the oldest message off a queue: its type and text.
bool take(int q, int32_t* type, std::vector<uint8_t>* text) {
  uint8_t buf[4 + 8192];
  ssize_t n = msgrcv(q, buf, 8192, 0, IPC_NOWAIT);
  (void)buf;
  if (n < 0) return false;
  // msgrcv wrote the kernel layout (a native long type); read it as such.
  long t;
  std::memcpy(&t, buf, sizeof t);
  *type = static_cast<int32_t>(t);
  text->assign(buf + sizeof(long), buf + sizeof(long) + n);
  return true;
}

size_t depth(int q) {
  struct msqid_ds ds;
  if (msgctl(q, IPC_STAT, &ds) != 0) return static_cast<size_t>(-1);
  return ds.msg_qnum;
}

sfl_ItemRef makeRef(uint32_t subDomain, uint32_t fileId, uint16_t flags = 0) {
  sfl_ItemRef r{};
  r.Domain = 2;
  r.Flags = flags;
  r.SubDomain = subDomain;
  r.FileId = fileId;
  std::memcpy(r.Name, "ab", 3);
  return r;
}

void fillBase(sfl_BaseRec* rec, const sfl_ItemRef& ref) { sfl_SetRef(*rec, ref); }

void fillItem(sfl_ItemRec* item, const sfl_ItemRef& ref) { sfl_SetRef(*item, ref); }

constexpr auto escapeOf = sfltest::EscapeCodeOf;
constexpr long kNotAvailable = sfltest::EscapeCode(ER_GROUP_MONIT, 380);
constexpr long kNotSent = sfltest::EscapeCode(ER_GROUP_SFL, 3533);

void autostartOff() { setenv("SFL_MONITOR_AUTOSTART", "0", 1); }

// ---- finding the queues --------------------------------------------------------------------

TEST(MonitQueues, FiveOrMoreAdditionalProcessesStillGiveFourPairs) {
  autostartOff();
  for (int additional : {5, 9}) {
    FakeService svc(additional, 2 * (additional + 1));
    EXPECT_EQ(0, RunInChild([&] {
      int32_t pairs = 0, req = -1, rep = -1;
      sfl_GetQueue(nullptr, nullptr, nullptr, &pairs, nullptr);
      if (pairs != 4) return 1;
      // SubDomain 7 is pair 3: context values 6 and 7.
      sfl_ItemRef ref = makeRef(7, 1);
      sfl_GetQueue(&ref, &req, &rep, &pairs, nullptr);
      if (req != svc.queues[6] || rep != svc.queues[7]) return 2;
      return 0;
    }));
  }
}

TEST(MonitQueues, SinglePairTakesEveryReference) {
  autostartOff();
  FakeService svc(0, 2);
  EXPECT_EQ(0, RunInChild([&] {
    for (uint32_t sub : {0u, 1u, 2u, 3u, 4u, 7u, 0xFFFFFFFFu}) {
      int32_t pairs = 0, req = -1, rep = -1, pid = 0;
      sfl_ItemRef ref = makeRef(sub, 9);
      sfl_GetQueue(&ref, &req, &rep, &pairs, &pid);
      if (pairs != 1 || req != svc.queues[0] || rep != svc.queues[1] || pid != getppid()) return 1;
    }
    return 0;
  }));
}

TEST(MonitQueues, PairIsSubDomainModuloPairCount) {
  autostartOff();
  FakeService svc(2, 6);  // three pairs
  EXPECT_EQ(0, RunInChild([&] {
    for (uint32_t sub : {0u, 1u, 2u, 5u, 0xFFFFFFFFu}) {
      int32_t req = -1, rep = -1;
      sfl_ItemRef ref = makeRef(sub, 1);
      sfl_GetQueue(&ref, &req, &rep, nullptr, nullptr);
      size_t pair = sub % 3;
      if (req != svc.queues[2 * pair] || rep != svc.queues[2 * pair + 1]) return 1;
    }
    return 0;
  }));
}

TEST(MonitQueues, StaleReplyIsDrainedAndNotTakenForTheAnswer) {
  autostartOff();
  FakeService svc(0, 2);
  const int req = svc.queues[0], rep = svc.queues[1];
  // The service's side: answer one record request with token 222.
  int server = StartChild([&] {
    alarm(20);
    int32_t type;
    std::vector<uint8_t> text;
    uint8_t buf[4 + 8192];
    ssize_t n = msgrcv(req, buf, 8192, 0, 0);
    if (n != ML_RECORD_LEN) return 1;
    long t;
    std::memcpy(&t, buf, sizeof t);
    type = static_cast<int32_t>(t);
    if (type != ML_MSG_RECORD) return 2;
    uint32_t pid = sfl_GetU32(buf + sizeof(long) + 16);
    put(rep, static_cast<int32_t>(pid), {222, 0, 1, 0});
    return 0;
  });
  EXPECT_EQ(0, RunInChild([&] {
    // Left over from an earlier process with this id.
    put(rep, getpid(), {111, 1, 7, 0});
    put(rep, getpid(), {112, 1, 8, 0});
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    sfl_RecordBaseInterest(&rec);
    if (rec.InterestToken != 222 || rec.ProcAccCount != 1 || rec.OtherInterest != 0) return 1;
    return depth(rep) == 0 ? 0 : 2;
  }));
  EXPECT_EQ(0, WaitChild(server));
}

TEST(MonitQueues, ServiceDownRaises380BeforeAnythingIsSent) {
  autostartOff();
  EXPECT_EQ(0, RunInChild([] {
    os_ResetCallCounts();
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    sfl_ItemRec item;
    fillItem(&item, makeRef(1, 1, 2));
    if (escapeOf([] { sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr); }) != kNotAvailable) return 1;
    if (escapeOf([&] { sfl_RecordBaseInterest(&rec); }) != kNotAvailable) return 2;
    if (escapeOf([&] { sfl_ReleaseBaseInterest(&rec); }) != kNotAvailable) return 3;
    if (escapeOf([&] { sfl_CheckBaseInterest(&rec); }) != kNotAvailable) return 4;
    if (escapeOf([&] { sfl_RecordItemInterest(&item); }) != kNotAvailable) return 5;
    if (escapeOf([&] { sfl_ReleaseItemInterest(&item); }) != kNotAvailable) return 6;
    if (escapeOf([&] { sfl_CheckItemInterest(&item); }) != kNotAvailable) return 7;
    return os_CallCount(os_Op::Msgsnd) == 0 ? 0 : 8;
  }));
}

TEST(MonitQueues, PublishedServiceThatIsDeadRaises380) {
  autostartOff();
  int dead = StartChild([] { return 0; });
  WaitChild(dead);
  FakeService svc(0, 2, dead);
  EXPECT_EQ(0, RunInChild([] {
    os_ResetCallCounts();
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    if (escapeOf([&] { sfl_RecordBaseInterest(&rec); }) != kNotAvailable) return 1;
    return os_CallCount(os_Op::Msgsnd) == 0 ? 0 : 2;
  }));
}

TEST(MonitQueues, ServiceThatDiesAfterSetupRaises380WhenItsPairIsPicked) {
  autostartOff();
  int fakeMain = StartChild([] {
    pause();
    return 0;
  });
  FakeService svc(0, 2, fakeMain);
  sfltest::Gate filled, gone;
  int client = StartChild([&] {
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);  // fills the table
    filled.Open();
    gone.Wait();
    os_ResetCallCounts();
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    if (escapeOf([&] { sfl_CheckBaseInterest(&rec); }) != kNotAvailable) return 2;
    return os_CallCount(os_Op::Msgsnd) == 0 ? 0 : 3;
  });
  filled.Wait();
  kill(fakeMain, SIGKILL);
  WaitChild(fakeMain);
  gone.Open();
  EXPECT_EQ(0, WaitChild(client));
}

TEST(MonitQueues, FailedSetupIsRetriedByTheNextCall) {
  autostartOff();
  sfltest::Gate failed, published;
  int client = StartChild([&] {
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    if (escapeOf([&] { sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr); }) != kNotAvailable) return 1;
    failed.Open();
    published.Wait();
    int32_t pairs = 0, pid = 0;
    sfl_ItemRef ref = makeRef(1, 1);
    sfl_GetQueue(&ref, nullptr, nullptr, &pairs, &pid);
    return pairs == 3 && pid == getppid() ? 0 : 3;
  });
  failed.Wait();
  FakeService svc(2, 6);
  published.Open();
  EXPECT_EQ(0, WaitChild(client));
}

TEST(MonitQueues, ReplyQueueRemovedWhileWaitingIsAnOsEscape) {
  autostartOff();
  FakeService svc(0, 2);
  const int req = svc.queues[0], rep = svc.queues[1];
  // The service's side takes the request and then removes the reply queue.
  int server = StartChild([&] {
    alarm(20);
    uint8_t buf[4 + 8192];
    if (msgrcv(req, buf, 8192, 0, 0) != ML_CHECK_LEN) return 1;
    return msgctl(rep, IPC_RMID, nullptr) == 0 ? 0 : 2;
  });
  EXPECT_EQ(0, RunInChild([] {
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    int got = escapeOf([&] { sfl_CheckBaseInterest(&rec); });
    return got == ER_GROUP_OS * 100000 + EIDRM || got == ER_GROUP_OS * 100000 + EINVAL ? 0 : 1;
  }));
  EXPECT_EQ(0, WaitChild(server));
}

TEST(MonitQueues, ConfigurationOpenedByTheCallerIsLeftOpen) {
  autostartOff();
  FakeService svc(0, 2);
  EXPECT_EQ(0, RunInChild([] {
    if (ml_OpenCfgFile(2) != 0) return 1;
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
    if (ml_OpenCfgFile(2) != 1) return 2;  // still open: it was not ours to close
    ml_CloseCfgFile();
    return 0;
  }));
  EXPECT_EQ(0, RunInChild([] {
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
    if (ml_OpenCfgFile(2) != 0) return 1;  // closed again after the setup
    ml_CloseCfgFile();
    return 0;
  }));
}

TEST(MonitQueues, ForkedChildSetsUpItsOwnTable) {
  autostartOff();
  FakeService svc(0, 2);
  const int rep = svc.queues[1];
  sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
  os_ResetCallCounts();
  sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(0u, os_CallCount(os_Op::Msgctl));  // the table is kept
  EXPECT_EQ(0, RunInChild([&] {
    // A reply left for this child's pid is drained by the child's own setup.
    put(rep, getpid(), {1, 2, 3});
    os_ResetCallCounts();
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
    if (os_CallCount(os_Op::Msgctl) != 1) return 1;
    return depth(rep) == 0 ? 0 : 2;
  }));
}

// ---- sending ---------------------------------------------------------------------------------

TEST(MonitSend, FullQueueIsRetriedForAboutFifteenSecondsThen3533) {
  int q = newQueue();
  ASSERT_GE(q, 0);
  uint8_t msg[4 + 24] = {};
  sfl_PutU32(msg, 10);
  while (os_msgsnd(q, msg, 24, IPC_NOWAIT) == 0) {
  }
  ASSERT_EQ(EAGAIN, errno);
  os_SkipSleeps(true);
  os_ResetCallCounts();
  EXPECT_EQ(kNotSent, escapeOf([&] { sfl_DoSendMsg(q, msg, 24, IPC_NOWAIT); }));
  EXPECT_EQ(30u, os_CallCount(os_Op::Msgsnd));
  EXPECT_EQ(29u, os_CallCount(os_Op::Sleep));
  EXPECT_EQ(29u * 500000u, os_SleepAsked());  // 14.5 s of pauses
  os_SkipSleeps(false);
  msgctl(q, IPC_RMID, nullptr);
}

TEST(MonitSend, OtherErrorsAreRetriedAtOnce) {
  int q = newQueue();
  ASSERT_GE(q, 0);
  ASSERT_EQ(0, msgctl(q, IPC_RMID, nullptr));  // sends now fail with EINVAL
  uint8_t msg[4 + 24] = {};
  sfl_PutU32(msg, 10);
  os_SkipSleeps(true);
  os_ResetCallCounts();
  EXPECT_EQ(kNotSent, escapeOf([&] { sfl_DoSendMsg(q, msg, 24, 0); }));
  EXPECT_EQ(30u, os_CallCount(os_Op::Msgsnd));
  EXPECT_EQ(0u, os_CallCount(os_Op::Sleep));
  os_SkipSleeps(false);
}

TEST(MonitSend, OneFailureThenSuccess) {
  int q = newQueue();
  ASSERT_GE(q, 0);
  uint8_t msg[4 + 24] = {};
  sfl_PutU32(msg, 10);
  os_SkipSleeps(true);
  os_ResetCallCounts();
  os_FailNth(os_Op::Msgsnd, 1, EAGAIN);
  EXPECT_EQ(0, escapeOf([&] { sfl_DoSendMsg(q, msg, 24, 0); }));
  EXPECT_EQ(2u, os_CallCount(os_Op::Msgsnd));
  EXPECT_EQ(1u, os_CallCount(os_Op::Sleep));
  EXPECT_EQ(500000u, os_SleepAsked());
  os_ResetCallCounts();
  os_FailNth(os_Op::Msgsnd, 1, EINTR);
  EXPECT_EQ(0, escapeOf([&] { sfl_DoSendMsg(q, msg, 24, 0); }));
  EXPECT_EQ(2u, os_CallCount(os_Op::Msgsnd));
  EXPECT_EQ(0u, os_CallCount(os_Op::Sleep));
  EXPECT_EQ(2u, depth(q));
  os_SkipSleeps(false);
  msgctl(q, IPC_RMID, nullptr);
}

// ---- wire format -------------------------------------------------------------------------------

// The reference bytes every request starts with, for the reference below
// with wire flags `flags`.
std::vector<uint8_t> refBytes(uint16_t flags) {
  return {0x02, 0x01, static_cast<uint8_t>(flags), static_cast<uint8_t>(flags >> 8),
          0x0D, 0x0C, 0x0B, 0x0A, 0x44, 0x33, 0x22, 0x11, 'x', 'y', 'z', 0};
}
sfl_ItemRef wireRef() {
  sfl_ItemRef r{};
  r.Domain = 0x0102;
  r.Flags = 0x0305;  // item number 5 in the low bits, other bits above
  r.SubDomain = 0x0A0B0C0D;
  r.FileId = 0x11223344;
  std::memcpy(r.Name, "xyz", 4);
  return r;
}

std::vector<uint8_t> le(uint32_t v) {
  return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
          static_cast<uint8_t>(v >> 24)};
}
std::vector<uint8_t> cat(std::vector<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

TEST(MonitWire, FileLevelExchangesByteForByte) {
  autostartOff();
  FakeService svc(0, 2);
  const int req = svc.queues[0], rep = svc.queues[1];
  EXPECT_EQ(0, RunInChild([&] {
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
    const uint32_t pid = static_cast<uint32_t>(getpid());
    sfl_BaseRec rec;
    fillBase(&rec, wireRef());
    int32_t type = 0;
    std::vector<uint8_t> text;

    // record: flags sent with the item bits cleared; answer is token, other, count.
    put(rep, getpid(), {0xCAFE0001, 1, 3, 0xDEAD});
    sfl_RecordBaseInterest(&rec);
    if (!take(req, &type, &text) || type != 10) return 1;
    if (text != cat({refBytes(0x0300), le(pid), le(0)})) return 2;
    if (rec.InterestToken != 0xCAFE0001 || rec.OtherInterest != 1 || rec.ProcAccCount != 3) return 3;

    // check: the reference goes unchanged, then pid, then token; answer count, other.
    put(rep, getpid(), {2, 0, 0xDEAD});
    sfl_CheckBaseInterest(&rec);
    if (!take(req, &type, &text) || type != 12) return 4;
    if (text != cat({refBytes(0x0305), le(pid), le(0xCAFE0001)})) return 5;
    if (rec.ProcAccCount != 2 || rec.OtherInterest != 0 || rec.InterestToken != 0xCAFE0001) return 6;

    // withdraw: cleared flags, token, pid, zero; answer count, other.
    put(rep, getpid(), {0, 1, 0xDEAD});
    sfl_ReleaseBaseInterest(&rec);
    if (!take(req, &type, &text) || type != 11) return 7;
    if (text != cat({refBytes(0x0300), le(0xCAFE0001), le(pid), le(0)})) return 8;
    if (rec.ProcAccCount != 0 || rec.OtherInterest != 1) return 9;
    return depth(req) == 0 && depth(rep) == 0 ? 0 : 10;
  }));
}

TEST(MonitWire, ItemLevelExchangesSendTheReferenceUnchanged) {
  autostartOff();
  FakeService svc(0, 2);
  const int req = svc.queues[0], rep = svc.queues[1];
  EXPECT_EQ(0, RunInChild([&] {
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
    const uint32_t pid = static_cast<uint32_t>(getpid());
    sfl_ItemRec item;
    fillItem(&item, wireRef());
    item.CurrPos = 77;
    int32_t type = 0;
    std::vector<uint8_t> text;

    put(rep, getpid(), {41, 0, 1, 0});
    sfl_RecordItemInterest(&item);
    if (!take(req, &type, &text) || type != 10 || text != cat({refBytes(0x0305), le(pid), le(0)})) return 1;
    if (item.InterestToken != 41 || item.OtherInterest != 0 || item.InterestCount != 1) return 2;

    put(rep, getpid(), {2, 1, 0});
    sfl_CheckItemInterest(&item);
    if (!take(req, &type, &text) || type != 12 || text != cat({refBytes(0x0305), le(pid), le(41)})) return 3;
    if (item.InterestCount != 2 || item.OtherInterest != 1) return 4;

    put(rep, getpid(), {1, 1, 0});
    sfl_ReleaseItemInterest(&item);
    if (!take(req, &type, &text) || type != 11 ||
        text != cat({refBytes(0x0305), le(41), le(pid), le(0)}))
      return 5;
    if (item.InterestCount != 1 || item.OtherInterest != 1) return 6;
    // The answers land only in the three interest words.
    return item.CurrPos == 77 && item.Deactivated == 0 ? 0 : 7;
  }));
}

TEST(MonitWire, ReplyOfAnotherProcessIsLeftAlone) {
  autostartOff();
  FakeService svc(0, 2);
  const int req = svc.queues[0], rep = svc.queues[1];
  EXPECT_EQ(0, RunInChild([&] {
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
    put(rep, getppid(), {9, 9, 9});  // someone else's answer
    put(rep, getpid(), {5, 0, 0});
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    sfl_CheckBaseInterest(&rec);
    int32_t type;
    std::vector<uint8_t> text;
    if (!take(req, &type, &text)) return 1;
    if (rec.ProcAccCount != 5) return 2;
    if (!take(rep, &type, &text) || type != getppid()) return 3;
    return 0;
  }));
}

// A receive that fails leaves the reply in the queue: the exchange tries
// again, up to three receives in all, and takes it.
TEST(MonitWire, FailedReceivesAreTriedAgainUpToThreeTimes) {
  autostartOff();
  FakeService svc(0, 2);
  const int rep = svc.queues[1];
  EXPECT_EQ(0, RunInChild([&] {
    sfl_GetQueue(nullptr, nullptr, nullptr, nullptr, nullptr);
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    put(rep, getpid(), {6, 1, 0});
    os_ResetCallCounts();
    os_FailNth(os_Op::Msgrcv, 1, EIO, 2);
    sfl_CheckBaseInterest(&rec);
    if (rec.ProcAccCount != 6 || rec.OtherInterest != 1) return 1;
    if (os_CallCount(os_Op::Msgrcv) != 3) return 2;
    if (depth(rep) != 0) return 3;
    // A third failure passes on, with the reply still queued.
    put(rep, getpid(), {7, 0, 0});
    os_ResetCallCounts();
    os_FailNth(os_Op::Msgrcv, 1, EIO, 3);
    if (escapeOf([&] { sfl_CheckBaseInterest(&rec); }) != sfltest::EscapeCode(ER_GROUP_OS, EIO)) return 4;
    if (os_CallCount(os_Op::Msgrcv) != 3 || depth(rep) != 1) return 5;
    os_ClearFaults();
    return 0;
  }));
}

// ---- with the real service ---------------------------------------------------------------------

// Each case starts with no service and the default on-demand start.
class MonitService : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("SFL_MONITOR_AUTOSTART");
    unsetenv("SFL_MONITOR_PAIRS");
    sfltest::StopService();
  }
  void TearDown() override { sfltest::StopService(); }
};


TEST_F(MonitService, TwoProcessesCountTwoAndWithdrawalsLowerIt) {
  const sfl_ItemRef ref = makeRef(3, 100);
  sfl_BaseRec mine;
  fillBase(&mine, ref);
  sfl_RecordBaseInterest(&mine);
  EXPECT_EQ(1u, mine.ProcAccCount);
  EXPECT_EQ(0u, mine.OtherInterest);
  EXPECT_NE(0u, mine.InterestToken);

  sfltest::Gate recorded, go;
  int other = StartChild([&] {
    sfl_BaseRec rec;
    fillBase(&rec, ref);
    sfl_RecordBaseInterest(&rec);
    if (rec.ProcAccCount != 2 || rec.OtherInterest != 1) return 1;
    recorded.Open();
    go.Wait();
    sfl_ReleaseBaseInterest(&rec);
    return rec.ProcAccCount == 1 && rec.OtherInterest == 1 ? 0 : 3;
  });
  recorded.Wait();
  sfl_CheckBaseInterest(&mine);
  EXPECT_EQ(2u, mine.ProcAccCount);
  EXPECT_EQ(1u, mine.OtherInterest);
  go.Open();
  EXPECT_EQ(0, WaitChild(other));
  sfl_CheckBaseInterest(&mine);
  EXPECT_EQ(1u, mine.ProcAccCount);
  EXPECT_EQ(0u, mine.OtherInterest);
  sfl_ReleaseBaseInterest(&mine);
  EXPECT_EQ(0u, mine.ProcAccCount);
  EXPECT_EQ(0u, mine.OtherInterest);
}

TEST_F(MonitService, KilledHolderNoLongerCounts) {
  const sfl_ItemRef ref = makeRef(4, 200);
  sfltest::Gate recorded;
  int holder = StartChild([&] {
    sfl_BaseRec rec;
    fillBase(&rec, ref);
    sfl_RecordBaseInterest(&rec);
    recorded.Open();
    for (;;) pause();
    return 0;
  });
  recorded.Wait();
  sfl_BaseRec probe;
  fillBase(&probe, ref);
  sfl_CheckBaseInterest(&probe);
  EXPECT_EQ(1u, probe.ProcAccCount);
  EXPECT_EQ(1u, probe.OtherInterest);
  kill(holder, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, WaitChild(holder));
  sfl_CheckBaseInterest(&probe);
  EXPECT_EQ(0u, probe.ProcAccCount);
  EXPECT_EQ(0u, probe.OtherInterest);
}

TEST_F(MonitService, ForkedChildCannotWithdrawItsParentsInterest) {
  const sfl_ItemRef ref = makeRef(5, 300);
  sfl_BaseRec rec;
  fillBase(&rec, ref);
  sfl_RecordBaseInterest(&rec);
  ASSERT_EQ(1u, rec.ProcAccCount);
  EXPECT_EQ(0, RunInChild([&] {
    // The inherited record carries the parent's token; the request carries
    // this child's pid.
    sfl_ReleaseBaseInterest(&rec);
    return rec.ProcAccCount == 1 && rec.OtherInterest == 1 ? 0 : 1;
  }));
  sfl_CheckBaseInterest(&rec);
  EXPECT_EQ(1u, rec.ProcAccCount);
  EXPECT_EQ(0u, rec.OtherInterest);
  sfl_ReleaseBaseInterest(&rec);
  EXPECT_EQ(0u, rec.ProcAccCount);
}

TEST_F(MonitService, ItemInterestsAreCountedApartFromTheFile) {
  sfl_ItemRec item;
  fillItem(&item, makeRef(6, 400, 3));
  sfl_BaseRec file;
  fillBase(&file, makeRef(6, 400));
  sfl_RecordBaseInterest(&file);
  sfl_RecordItemInterest(&item);
  EXPECT_EQ(1u, item.InterestCount);
  EXPECT_NE(file.InterestToken, item.InterestToken);
  EXPECT_EQ(0, RunInChild([&] {
    sfl_ItemRec mine;
    fillItem(&mine, makeRef(6, 400, 3));
    sfl_RecordItemInterest(&mine);
    if (mine.InterestCount != 2 || mine.OtherInterest != 1) return 1;
    sfl_ReleaseItemInterest(&mine);
    return mine.InterestCount == 1 ? 0 : 2;
  }));
  sfl_CheckItemInterest(&item);
  EXPECT_EQ(1u, item.InterestCount);
  sfl_ReleaseItemInterest(&item);
  EXPECT_EQ(0u, item.InterestCount);
  sfl_CheckBaseInterest(&file);
  EXPECT_EQ(1u, file.ProcAccCount);
}

TEST_F(MonitService, StartsOnDemand) {
  ml_State st;
  ASSERT_FALSE(ml_ReadState(RunDir(), &st));
  int32_t pid = 0, pairs = 0;
  sfl_ItemRef ref = makeRef(1, 1);
  sfl_GetQueue(&ref, nullptr, nullptr, &pairs, &pid);
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  EXPECT_TRUE(ml_ServiceAlive(RunDir(), st));
  EXPECT_EQ(st.MainPid, pid);
  EXPECT_NE(getpid(), pid);
  EXPECT_EQ(1, pairs);
}

TEST_F(MonitService, FourPairsRouteBySubDomain) {
  setenv("SFL_MONITOR_PAIRS", "4", 1);
  EXPECT_EQ(0, RunInChild([] {
    std::set<int32_t> pids;
    for (uint32_t sub = 0; sub < 8; ++sub) {
      int32_t pairs = 0, pid = 0, req = -1;
      sfl_ItemRef ref = makeRef(sub, 7);
      sfl_GetQueue(&ref, &req, nullptr, &pairs, &pid);
      if (pairs != 4) return 1;
      ml_State st;
      if (!ml_ReadState(RunDir(), &st) || st.Additional.size() != 3) return 2;
      int32_t expect = sub % 4 == 0 ? st.MainPid : st.Additional[sub % 4 - 1];
      if (pid != expect || req != st.Context[2 * (sub % 4)]) return 3;
      pids.insert(pid);
      // And the pair answers.
      sfl_BaseRec rec;
      fillBase(&rec, ref);
      sfl_RecordBaseInterest(&rec);
      if (rec.ProcAccCount != 1) return 4;
    }
    return pids.size() == 4 ? 0 : 5;
  }));
}

TEST_F(MonitService, RacingStartersEndUpWithOneService) {
  constexpr int kRacers = 6;
  // The log is the run directory's, which the earlier tests of this
  // process used too: only what this test adds counts.
  std::streamoff logBefore = 0;
  {
    std::ifstream before(ml_LogPath(RunDir()), std::ios::ate);
    if (before) logBefore = before.tellg();
  }
  sfltest::Gate go;
  std::vector<int> racers;
  for (int i = 0; i < kRacers; ++i) {
    racers.push_back(StartChild([&] {
      go.Wait();
      int32_t pid = 0;
      sfl_ItemRef ref = makeRef(1, 1);
      sfl_GetQueue(&ref, nullptr, nullptr, nullptr, &pid);
      sfl_BaseRec rec;
      fillBase(&rec, ref);
      sfl_RecordBaseInterest(&rec);
      if (rec.InterestToken == 0) return 1;
      // Whoever started it, the service that answered is the published one.
      ml_State st;
      return ml_ReadState(RunDir(), &st) && st.MainPid == pid ? 0 : 2;
    }));
  }
  for (int i = 0; i < kRacers; ++i) go.Open();
  for (int r : racers) EXPECT_EQ(0, WaitChild(r));
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  EXPECT_TRUE(ml_ServiceAlive(RunDir(), st));
  // Exactly one service started here.
  std::ifstream log(ml_LogPath(RunDir()));
  log.seekg(logBefore);
  std::string line;
  int started = 0;
  while (std::getline(log, line)) started += line.find(" serving ") != std::string::npos;
  EXPECT_EQ(1, started);
}

TEST_F(MonitService, ServiceRestartedElsewhereIsFoundAgain) {
  sfl_BaseRec rec;
  fillBase(&rec, makeRef(1, 1));
  sfl_RecordBaseInterest(&rec);
  ml_State first;
  ASSERT_TRUE(ml_ReadState(RunDir(), &first));
  sfltest::StopService();
  // The table names a service that has gone: the next request finds (here:
  // starts) the new one instead of failing, and the new one knows that this
  // process still holds its interest.
  sfl_CheckBaseInterest(&rec);
  EXPECT_EQ(1u, rec.ProcAccCount);
  EXPECT_EQ(0u, rec.OtherInterest);
  sfl_ReleaseBaseInterest(&rec);
  EXPECT_EQ(0u, rec.ProcAccCount);
  ml_State second;
  ASSERT_TRUE(ml_ReadState(RunDir(), &second));
  EXPECT_NE(first.MainPid, second.MainPid);
}

// A service that another process stops between the start made for a call
// and the call's look at it is started again: the caller gets its answer,
// not 380. This process holds the start lock so that the caller's first
// look finds no service; once the caller waits for the lock, this process
// starts a service and lets the caller go; the service is stopped when
// the caller is about to look at it.
TEST_F(MonitService, AServiceStoppedBetweenItsStartAndItsUseIsStartedAgain) {
  ASSERT_EQ(0, ml_PrepareRunDir(RunDir(), 0700));
  const int startLock = open(ml_StartLockPath(RunDir()).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(startLock, 0);
  const sfl_ItemRef ref = makeRef(5, 50);
  // holdAt 0: a dry run that tells (on `counted`) how many calls a look
  // makes up to the look that follows the start. Else the caller is held
  // before call `holdAt` while the service is stopped.
  auto run = [&](uint64_t holdAt, uint64_t* counted) {
    sfltest::Pipe tell, release, result;
    EXPECT_EQ(0, flock(startLock, LOCK_EX));
    const int caller = StartChild([&] {
      ml_SetPidCheckWindow(0);  // every pid check a full one: the count holds on a slow machine
      os_TellWaits(tell.WriteEnd());
      if (holdAt == 0) {
        const uint64_t before = os_TotalCalls();
        ml_OpenCfgFile(2);
        const int state = ml_GetSSState(ML_SUBSYSTEM_MONITOR);
        ml_CloseCfgFile();
        const uint64_t all = os_TotalCalls() - before;
        // The look that follows the start costs what a look at a running
        // service costs.
        const uint64_t mid = os_TotalCalls();
        ml_GetSSState(ML_SUBSYSTEM_MONITOR);
        const uint64_t upTo = all - (os_TotalCalls() - mid);
        if (write(result.WriteEnd(), &upTo, sizeof upTo) != sizeof upTo) return 6;
        return state == ML_STATE_RUNNING ? 0 : 1;
      }
      os_HoldNthCall(holdAt, tell.WriteEnd(), release.ReadEnd());
      try {
        sfl_BaseRec rec;
        fillBase(&rec, ref);
        sfl_RecordBaseInterest(&rec);
        if (std::string(os_HoldMetKind()) != "open") return 2;
        return rec.InterestToken != 0 && rec.ProcAccCount == 1 ? 0 : 3;
      } catch (const er_Escape& e) {
        return e.reason() == ML_R_NOT_AVAILABLE ? 4 : 5;
      }
    });
    EXPECT_EQ('W', sfltest::NextByte(tell.ReadEnd()));  // its first look found none
    const pid_t service = sfltest::StartService();
    EXPECT_GT(service, 0);
    EXPECT_EQ(0, flock(startLock, LOCK_UN));
    if (holdAt != 0) {
      EXPECT_EQ('H', sfltest::NextByte(tell.ReadEnd()));
      EXPECT_EQ(0, kill(service, SIGTERM));
      EXPECT_EQ(0, sfltest::ExitWithin(service, 10));
      const char go = 'g';
      EXPECT_EQ(1, write(release.WriteEnd(), &go, 1));
    }
    const int status = WaitChild(caller);
    if (holdAt == 0) {
      EXPECT_EQ(static_cast<ssize_t>(sizeof *counted), read(result.ReadEnd(), counted, sizeof *counted));
      EXPECT_EQ(0, kill(service, SIGTERM));
      EXPECT_EQ(0, sfltest::ExitWithin(service, 10));
    }
    return status;
  };
  uint64_t upTo = 0;
  ASSERT_EQ(0, run(0, &upTo));
  ASSERT_GT(upTo, 0u);
  EXPECT_EQ(0, run(upTo + 1, nullptr));
  // The caller started the service it used.
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  EXPECT_TRUE(ml_ServiceAlive(RunDir(), st));
  close(startLock);
}

// The same when the service is stopped after the look found it running
// and before its processes are checked.
TEST_F(MonitService, AServiceStoppedAfterTheLookFoundItRunningIsStartedAgain) {
  const pid_t service = sfltest::StartService();
  ASSERT_GT(service, 0);
  sfltest::Pipe tell, release;
  const int caller = StartChild([&] {
    ml_SetPidCheckWindow(0);
    const uint64_t before = os_TotalCalls();
    ml_OpenCfgFile(2);
    const int state = ml_GetSSState(ML_SUBSYSTEM_MONITOR);
    ml_CloseCfgFile();
    if (state != ML_STATE_RUNNING) return 1;
    // Held at the first check of the service's processes.
    os_HoldNthCall(os_TotalCalls() - before + 1, tell.WriteEnd(), release.ReadEnd());
    try {
      sfl_BaseRec rec;
      fillBase(&rec, makeRef(6, 60));
      sfl_RecordBaseInterest(&rec);
      if (std::string(os_HoldMetKind()) != "kill") return 2;
      return rec.InterestToken != 0 && rec.ProcAccCount == 1 ? 0 : 3;
    } catch (const er_Escape& e) {
      return e.reason() == ML_R_NOT_AVAILABLE ? 4 : 5;
    }
  });
  ASSERT_EQ('H', sfltest::NextByte(tell.ReadEnd()));
  EXPECT_EQ(0, kill(service, SIGTERM));
  EXPECT_EQ(0, sfltest::ExitWithin(service, 10));
  const char go = 'g';
  EXPECT_EQ(1, write(release.WriteEnd(), &go, 1));
  EXPECT_EQ(0, WaitChild(caller));
}

TEST_F(MonitService, AutostartOffAndNoServiceRaises380) {
  autostartOff();
  EXPECT_EQ(0, RunInChild([] {
    os_ResetCallCounts();
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 1));
    if (escapeOf([&] { sfl_RecordBaseInterest(&rec); }) != kNotAvailable) return 1;
    ml_State st;
    if (ml_ReadState(RunDir(), &st)) return 2;  // nothing was started
    return os_CallCount(os_Op::Msgsnd) == 0 ? 0 : 3;
  }));
}

// ---- a service that does not answer --------------------------------------------------------

// A client waits at most SFL_MONITOR_REPLY_SECONDS for a reply. The wait runs
// in a child that the test ends should it hang.
int BoundedWaitChild(const sfl_ItemRef& ref, long* escape, double* seconds) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const int child = StartChild([&] {
    close(fds[0]);
    setenv("SFL_MONITOR_REPLY_SECONDS", "1", 1);
    sfl_BaseRec rec;
    fillBase(&rec, ref);
    const auto t0 = std::chrono::steady_clock::now();
    const long code = escapeOf([&] { sfl_RecordBaseInterest(&rec); });
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    (void)!write(fds[1], &code, sizeof code);
    (void)!write(fds[1], &took, sizeof took);
    return 0;
  });
  close(fds[1]);
  const int rc = sfltest::ExitWithin(child, 20);
  if (rc == -1) {
    kill(child, SIGKILL);
    WaitChild(child);
  }
  if (read(fds[0], escape, sizeof *escape) != sizeof *escape ||
      read(fds[0], seconds, sizeof *seconds) != sizeof *seconds)
    *escape = -1;
  close(fds[0]);
  return rc;
}

TEST_F(MonitService, AStoppedServiceIsWaitedForAtMostTheReplyLimit) {
  const int service = sfltest::StartService();
  ASSERT_GT(service, 0);
  const sfl_ItemRef ref = makeRef(1, 77);
  // Set up in the parent: the service answers.
  sfl_BaseRec mine;
  fillBase(&mine, ref);
  sfl_RecordBaseInterest(&mine);
  ASSERT_EQ(1u, mine.ProcAccCount);
  ASSERT_EQ(0, kill(service, SIGSTOP));
  long code = 0;
  double took = 0;
  const int rc = BoundedWaitChild(ref, &code, &took);
  kill(service, SIGCONT);
  ASSERT_EQ(0, rc) << "the client hung waiting for a stopped service";
  EXPECT_EQ(kNotAvailable, code);
  EXPECT_GE(took, 0.9);
  EXPECT_LT(took, 5.0);
  // Once it runs again it answers again.
  sfl_CheckBaseInterest(&mine);
  EXPECT_GE(mine.ProcAccCount, 1u);
}

TEST_F(MonitService, AReplyDroppedForAFullReplyQueueIsWaitedForAtMostTheReplyLimit) {
  const int service = sfltest::StartService();
  ASSERT_GT(service, 0);
  const sfl_ItemRef ref = makeRef(1, 78);
  int32_t replyQueue = 0;
  sfl_GetQueue(&ref, nullptr, &replyQueue, nullptr, nullptr);
  // Fill the reply queue with two messages, each of half its bytes, for two
  // live processes that are not waiting: the service, which keeps the
  // newest reply of each live process, cannot make room, and drops the
  // reply to the client.
  struct msqid_ds ds;
  ASSERT_EQ(0, msgctl(replyQueue, IPC_STAT, &ds));
  const size_t half = std::min<size_t>(ds.msg_qbytes / 2, 8192);
  std::vector<char> junk(sizeof(long) + half);
  for (long type : {1L, static_cast<long>(getpid())}) {
    std::memcpy(junk.data(), &type, sizeof type);
    ASSERT_EQ(0, msgsnd(replyQueue, junk.data(), half, IPC_NOWAIT)) << std::strerror(errno);
  }
  ASSERT_NE(0, msgsnd(replyQueue, junk.data(), 16, IPC_NOWAIT));
  long code = 0;
  double took = 0;
  const int rc = BoundedWaitChild(ref, &code, &took);
  ASSERT_EQ(0, rc) << "the client hung waiting for a dropped reply";
  EXPECT_EQ(kNotAvailable, code);
  EXPECT_LT(took, 5.0);
  while (msgrcv(replyQueue, junk.data(), half, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
  }
}

// ---- whose run directory ---------------------------------------------------------------------

// The text of the escape `fn` raises ("" when none).
std::string EscapeText(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const er_Escape& e) {
    std::string text = e.what();
    er_Clear();
    return text;
  }
  return "";
}

// A live service is published there; only the directory is wrong. The
// client refuses it in a fresh process, naming the directory.
int RefusedNaming(const std::string& part) {
  return RunInChild([&] {
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 91));
    const std::string text = EscapeText([&] { sfl_RecordBaseInterest(&rec); });
    if (text.find("380") == std::string::npos) return 1;
    if (text.find(RunDir()) == std::string::npos) return 2;
    if (text.find(part) == std::string::npos) return 3;
    return 0;
  });
}

TEST_F(MonitService, ARunDirectoryOthersMayWriteIsNotUsed) {
  ASSERT_GT(sfltest::StartService(), 0);
  ASSERT_EQ(0, chmod(RunDir().c_str(), 0770));
  const int rc = RefusedNaming("writable by its group or by others");
  ASSERT_EQ(0, chmod(RunDir().c_str(), 0700));
  EXPECT_EQ(0, rc);
  // Put right, it is used again.
  EXPECT_EQ(0, RunInChild([] {
    sfl_BaseRec rec;
    fillBase(&rec, makeRef(1, 91));
    sfl_RecordBaseInterest(&rec);
    return rec.ProcAccCount == 1 ? 0 : 1;
  }));
}

TEST_F(MonitService, AnotherUsersRunDirectoryIsNotUsed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give the run directory to another user";
  ASSERT_GT(sfltest::StartService(), 0);
  ASSERT_EQ(0, chown(RunDir().c_str(), 65534, 65534));
  const int rc = RefusedNaming("owner uid 65534");
  ASSERT_EQ(0, chown(RunDir().c_str(), 0, 0));
  EXPECT_EQ(0, rc);
}

// ---- requests in another process's name ----------------------------------------------------

// A process of the same user sends, while nothing else is queued, a
// withdraw with the victim's pid and the victim's own token (as if it had
// learnt it), and a check in its name. Neither is counted or answered: the
// victim still holds its interest, and no reply lands among the victim's.
TEST_F(MonitService, RequestsInAnotherProcesssNameAreDropped) {
  ASSERT_GT(sfltest::StartService(), 0);
  const sfl_ItemRef ref = makeRef(1, 93);
  sfl_BaseRec mine;
  fillBase(&mine, ref);
  sfl_RecordBaseInterest(&mine);
  ASSERT_EQ(1u, mine.ProcAccCount);
  int32_t requestQueue = 0, replyQueue = 0;
  sfl_GetQueue(&ref, &requestQueue, &replyQueue, nullptr, nullptr);
  const int32_t victim = getpid();
  const uint32_t token = mine.InterestToken;
  EXPECT_EQ(0, RunInChild([&] {
    uint8_t text[ML_WITHDRAW_LEN] = {};
    sfl_PutU16(text, ref.Domain);
    sfl_PutU16(text + 2, ref.Flags);
    sfl_PutU32(text + 4, ref.SubDomain);
    sfl_PutU32(text + 8, ref.FileId);
    std::memcpy(text + 12, ref.Name, 4);
    struct {
      long type;
      uint8_t text[ML_WITHDRAW_LEN];
    } m{};
    m.type = ML_MSG_WITHDRAW;
    std::memcpy(m.text, text, sizeof text);
    sfl_PutU32(m.text + 16, token);
    sfl_PutU32(m.text + 20, static_cast<uint32_t>(victim));
    if (msgsnd(requestQueue, &m, ML_WITHDRAW_LEN, 0) != 0) return 1;
    // One at a time, the service given time to take each alone (a taker
    // waiting in the kernel takes a message without it being queued, so an
    // empty queue does not say the service has looked at it yet).
    usleep(300000);
    m.type = ML_MSG_CHECK;
    std::memcpy(m.text, text, 16);
    sfl_PutU32(m.text + 16, static_cast<uint32_t>(victim));
    sfl_PutU32(m.text + 20, token);
    std::memset(m.text + 24, 0, 4);
    if (msgsnd(requestQueue, &m, ML_CHECK_LEN, 0) != 0) return 3;
    return 0;
  }));
  // Give the service time to have answered, had it meant to.
  usleep(200000);
  uint8_t buf[64];
  EXPECT_LT(msgrcv(replyQueue, buf, sizeof buf - sizeof(long), victim, IPC_NOWAIT | MSG_NOERROR), 0)
      << "a reply to a forged request reached the victim's replies";
  sfl_CheckBaseInterest(&mine);
  EXPECT_EQ(1u, mine.ProcAccCount) << "a forged withdraw removed the victim's interest";
  sfl_ReleaseBaseInterest(&mine);
  EXPECT_EQ(0u, mine.ProcAccCount);
}

}  // namespace
