// The interest service as processes sharing files rely on it: interests of
// live processes survive a stopped, killed or re-paired service, a record
// refused at the cap never lets another process think it is alone, rebuilds
// leave no entries behind, and a stop is refused while interests are held.
// Everything runs against the real sfl-monitor program and forked clients.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "ml.h"
#include "os.h"
#include "pipe_watch.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::ExitWithin;
using sfltest::Gate;
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

ino_t inodeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// A container holding one small item (an empty one is removed at its
// close), closed again.
sfl_ItemRef newClosedContainer() {
  auto c = sfltest::NewContainer();
  sfl_ItemRef item{};
  const uint8_t data[100] = {1, 2, 3};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, sizeof data, &item, 0);
  sfl_WriteSimpleData(h, 0, sizeof data, data);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
  return c.ref;
}

// Opens a container in this (child) process, telling `opened` in any case
// (a parent waiting on it must not wait forever); the base handle or -1.
int32_t openTelling(const sfl_ItemRef& ref, Gate& opened) {
  int32_t bh = -1;
  try {
    bh = sfl_OpenSfl(&ref, 0);
  } catch (const er_Escape&) {
    er_Clear();
  }
  opened.Open();
  return bh;
}

// Whether another process, asking the service, is told nobody holds `ref`.
bool heldByNobody(const sfl_ItemRef& ref) {
  return RunInChild([&] {
    sfl_BaseRec rec;
    sfl_SetRef(rec, ref);
    sfl_CheckBaseInterest(&rec);
    return rec.ProcAccCount == 0 && rec.OtherInterest == 0 ? 0 : 1;
  }) == 0;
}

enum class End { Stop, Kill };

// Ends the explicit service `pid` (a child of this process) without the
// test support's clean-up, so that what it kept stays for the next one.
void endService(pid_t pid, End how) {
  ASSERT_EQ(0, kill(pid, how == End::Stop ? SIGTERM : SIGKILL));
  const int status = ExitWithin(pid, 10);
  EXPECT_EQ(how == End::Stop ? 0 : 128 + SIGKILL, status);
}

class Sharing : public ::testing::Test {
 protected:
  void SetUp() override { setenv("SFL_MONITOR_AUTOSTART", "0", 1); }
  void TearDown() override { sfltest::StopService(); }
};

// A holder records, the service goes (stopped, killed) and comes back (with
// as many or more pairs): another process is still told the holder is
// there, and the holder's token still withdraws its interest.
TEST_F(Sharing, InterestOfALiveProcessSurvivesTheServiceGoingAndComingBack) {
  struct Case {
    End how;
    const char* pairsBefore;
    const char* pairsAfter;
  };
  for (const Case& c : {Case{End::Stop, "1", "1"}, Case{End::Kill, "1", "1"}, Case{End::Stop, "2", "1"},
                        Case{End::Stop, "1", "3"}, Case{End::Kill, "2", "2"}}) {
    SCOPED_TRACE(std::string(c.how == End::Stop ? "stop" : "kill") + ", pairs " + c.pairsBefore + " then " +
                 c.pairsAfter);
    const pid_t first = StartService({"--pairs", c.pairsBefore});
    ASSERT_GT(first, 0);
    const sfl_ItemRef ref = makeRef(7, 70);
    Gate recorded, restarted;
    const int holder = StartChild([&] {
      sfl_BaseRec rec;
      sfl_SetRef(rec, ref);
      sfl_RecordBaseInterest(&rec);
      recorded.Open();
      restarted.Wait();
      if (rec.InterestToken == 0) return 1;
      sfl_ReleaseBaseInterest(&rec);  // the token handed out before the restart
      return rec.ProcAccCount == 0 && rec.OtherInterest == 0 ? 0 : 2;
    });
    recorded.Wait();
    endService(first, c.how);
    ASSERT_GT(StartService({"--pairs", c.pairsAfter}), 0);
    EXPECT_EQ(0, RunInChild([&] {
      sfl_BaseRec rec;
      sfl_SetRef(rec, ref);
      sfl_CheckBaseInterest(&rec);
      if (rec.ProcAccCount != 1 || rec.OtherInterest == 0) return 1;
      sfl_RecordBaseInterest(&rec);
      if (rec.ProcAccCount != 2 || rec.OtherInterest == 0) return 2;
      sfl_ReleaseBaseInterest(&rec);
      return rec.ProcAccCount == 1 ? 0 : 3;
    }));
    restarted.Open();
    EXPECT_EQ(0, WaitChild(holder));
    EXPECT_TRUE(heldByNobody(ref));
    sfltest::StopService();
  }
}

// A stopping service lets a client take the reply it has already sent
// before it removes the queues. Had the reply gone with its queue, the
// client would ask the next service again, which also takes over what the
// old one recorded: the holder would count twice, and its own withdraw
// would leave it "held" by itself until it ends.
TEST_F(Sharing, AStopWaitsForTheReplyItSentSoARecordIsNotAskedTwice) {
  setenv("SFL_MONITOR_AUTOSTART", "1", 1);  // whoever asks next starts the next service
  const pid_t first = StartService();
  ASSERT_GT(first, 0);
  ml_State st;
  ASSERT_TRUE(ml_ReadState(RunDir(), &st));
  const int replyQueue = st.Context.at(1);
  const sfl_ItemRef ref = makeRef(9, 90);
  sfltest::Pipe tell, release;
  const int holder = StartChild([&] {
    // A first record fills the queue table and tells how many calls one
    // makes; the receive of the reply is the last of them. Every check of
    // the service's pid is a full one, so the count holds on a slow machine.
    ml_SetPidCheckWindow(0);
    sfl_BaseRec warm;
    sfl_SetRef(warm, makeRef(9, 91));
    sfl_RecordBaseInterest(&warm);
    sfl_ReleaseBaseInterest(&warm);
    const uint64_t before = os_TotalCalls();
    sfl_RecordBaseInterest(&warm);
    const uint64_t calls = os_TotalCalls() - before;
    sfl_ReleaseBaseInterest(&warm);
    sfl_BaseRec rec;
    sfl_SetRef(rec, ref);
    os_HoldNthCall(calls, tell.WriteEnd(), release.ReadEnd());
    sfl_RecordBaseInterest(&rec);
    if (std::string(os_HoldMetKind()) != "msgrcv") return 1;
    sfl_ReleaseBaseInterest(&rec);
    if (rec.ProcAccCount != 0 || rec.OtherInterest != 0) return 2;
    return 0;
  });
  ASSERT_EQ('H', sfltest::NextByte(tell.ReadEnd()));
  // The service has answered: the reply waits in the queue.
  ASSERT_TRUE(sfltest::Eventually([&] { return sfltest::QueueDepth(replyQueue) > 0; }));
  ASSERT_EQ(0, kill(first, SIGTERM));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ASSERT_EQ(1, write(release.WriteEnd(), "R", 1));
  EXPECT_EQ(0, ExitWithin(first, 10));
  EXPECT_EQ(0, WaitChild(holder));
  EXPECT_TRUE(heldByNobody(ref));
}

// The interests of processes that ended while no service ran are not taken
// over: nothing keeps their files from being released.
TEST_F(Sharing, InterestOfAProcessThatEndedMeanwhileIsNotTakenOver) {
  const pid_t first = StartService();
  ASSERT_GT(first, 0);
  const sfl_ItemRef ref = makeRef(8, 80);
  EXPECT_EQ(0, RunInChild([&] {
    sfl_BaseRec rec;
    sfl_SetRef(rec, ref);
    sfl_RecordBaseInterest(&rec);  // never withdrawn
    return rec.InterestToken != 0 ? 0 : 1;
  }));
  endService(first, End::Kill);
  ASSERT_GT(StartService(), 0);
  EXPECT_EQ(0, RunInChild([&] {
    sfl_BaseRec rec;
    sfl_SetRef(rec, ref);
    sfl_RecordBaseInterest(&rec);
    return rec.ProcAccCount == 1 && rec.OtherInterest == 0 ? 0 : 1;
  }));
}

// The case that lost data: a holder keeps a container open, the service is
// restarted, and another process's rebuild must not replace the file under
// the holder.
TEST_F(Sharing, RebuildAfterARestartLeavesAHeldContainerAlone) {
  for (End how : {End::Stop, End::Kill}) {
    const pid_t first = StartService();
    ASSERT_GT(first, 0);
    const sfl_ItemRef ref = newClosedContainer();
    const std::string path = sfltest::ItemPath(ref);
    const ino_t ino = inodeOf(path);
    Gate opened, done;
    const int holder = StartChild([&] {
      const int32_t bh = openTelling(ref, opened);
      done.Wait();
      if (bh < 0) return 1;
      sfl_CloseFile(bh);
      return 0;
    });
    opened.Wait();
    endService(first, how);
    ASSERT_GT(StartService(), 0);
    EXPECT_EQ(SFL_COMPACT_HELD, RunInChild([&] { return static_cast<int>(sfl_CompactContainer(&ref)); }));
    EXPECT_EQ(ino, inodeOf(path));
    done.Open();
    EXPECT_EQ(0, WaitChild(holder));
    sfltest::StopService();
  }
}

// At the cap, a holder whose record was refused still keeps another
// process's rebuild away, after the entry that filled the cap has gone.
TEST_F(Sharing, HolderRefusedAtTheCapKeepsARebuildAway) {
  ASSERT_GT(StartService({"--max-entries", "1"}), 0);
  const sfl_ItemRef ref = newClosedContainer();
  const std::string path = sfltest::ItemPath(ref);
  const ino_t ino = inodeOf(path);
  Gate filled, held, release, done;
  // Fills the one entry, then gives it back once the holder is refused.
  const int filler = StartChild([&] {
    sfl_BaseRec rec;
    sfl_SetRef(rec, makeRef(ref.SubDomain, ref.FileId + 1000));
    sfl_RecordBaseInterest(&rec);
    filled.Open();
    release.Wait();
    sfl_ReleaseBaseInterest(&rec);
    return 0;
  });
  filled.Wait();
  const int holder = StartChild([&] {
    const int32_t bh = openTelling(ref, held);
    if (bh < 0) return 2;
    const sfl_BaseRec* rec = sfl_Handle2Record(bh);
    // Refused, yet never told that nobody else holds the file.
    const bool told = rec->InterestToken == 0 && rec->ProcAccCount >= 2 && rec->OtherInterest != 0;
    done.Wait();
    sfl_CloseFile(bh);
    return told ? 0 : 1;
  });
  held.Wait();
  release.Open();
  EXPECT_EQ(0, WaitChild(filler));
  // Room again, and the compacting process's own record is kept: only the
  // refused holder can stop it.
  EXPECT_EQ(SFL_COMPACT_HELD, RunInChild([&] { return static_cast<int>(sfl_CompactContainer(&ref)); }));
  EXPECT_EQ(ino, inodeOf(path));
  done.Open();
  EXPECT_EQ(0, WaitChild(holder));
  // Once the holder has ended, the file is the compacting process's alone.
  EXPECT_EQ(SFL_COMPACT_DONE, RunInChild([&] { return static_cast<int>(sfl_CompactContainer(&ref)); }));
}

// Every rebuild records an interest under the new file's reference and
// never withdraws it; a process that rebuilds more files than the cap must
// not fill the service with them.
TEST_F(Sharing, RebuildsLeaveNoEntriesBehind) {
  ASSERT_GT(StartService({"--max-entries", "3"}), 0);
  std::vector<sfl_ItemRef> refs;
  for (int i = 0; i < 6; ++i) refs.push_back(newClosedContainer());
  EXPECT_EQ(0, RunInChild([&] {
    for (size_t i = 0; i < refs.size(); ++i)
      if (sfl_CompactContainer(&refs[i]) != SFL_COMPACT_DONE) return 10 + static_cast<int>(i);
    // The whole cap is there for the files this process opens next.
    for (uint32_t f = 1; f <= 3; ++f) {
      sfl_BaseRec rec;
      sfl_SetRef(rec, makeRef(99, f));
      sfl_RecordBaseInterest(&rec);
      if (rec.InterestToken == 0 || rec.ProcAccCount != 1) return static_cast<int>(f);
    }
    return 0;
  }));
}

// A stop is refused while a live process holds an interest, says so, and
// leaves the service serving; --force stops it.
TEST_F(Sharing, StopIsRefusedWhileInterestsAreHeldUnlessForced) {
  const pid_t pid = StartService({"--pairs", "2"});
  ASSERT_GT(pid, 0);
  int code = -1;
  Gate recorded, go;
  const int holder = StartChild([&] {
    sfl_BaseRec rec;
    sfl_SetRef(rec, makeRef(1, 5));  // the second pair
    sfl_RecordBaseInterest(&rec);
    recorded.Open();
    go.Wait();
    return 0;
  });
  recorded.Wait();
  std::string out = sfltest::RunMonitor("--stop", &code);
  EXPECT_EQ(3, code) << out;
  EXPECT_NE(std::string::npos, out.find("not stopped: 1 interest(s) held by 1 live process(es) (pid " +
                                        std::to_string(holder) + ")"))
      << out;
  EXPECT_EQ(1, ml_CheckPid(pid));
  out = sfltest::RunMonitor("--force", &code);
  EXPECT_EQ(2, code) << out;  // --force alone is not a stop
  out = sfltest::RunMonitor("--stop --force", &code);
  EXPECT_EQ(0, code) << out;
  EXPECT_EQ("stopped: pid " + std::to_string(pid) + "\n", out);
  EXPECT_EQ(0, ExitWithin(pid, 10));
  go.Open();
  EXPECT_EQ(0, WaitChild(holder));
  // Nothing held any more: a plain stop goes through; with none running it
  // says so.
  const pid_t again = StartService();
  ASSERT_GT(again, 0);
  out = sfltest::RunMonitor("--stop", &code);
  EXPECT_EQ(0, code) << out;
  EXPECT_EQ("stopped: pid " + std::to_string(again) + "\n", out);
  EXPECT_EQ(0, ExitWithin(again, 10));
  out = sfltest::RunMonitor("--stop", &code);
  EXPECT_EQ(0, code);
  EXPECT_EQ("not running\n", out);
}

}  // namespace
