// The service's answers extended over other hosts: only the first local
// record and the last local holder's end change what the other hosts see;
// every answer adds the hosts that hold the reference; a host that cannot
// ask the others never answers "alone", and a record it cannot make known
// is refused with nothing kept.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "le.h"
#include "ml.h"
#include "ml_cluster.h"
#include "ml_interest.h"

namespace {

// The other hosts as this test sets them: how many hold each reference, and
// whether they can be reached.
struct Hosts : ml_Cluster {
  int others = 0;       // -1: cannot be known
  bool reachable = true;
  int holds = 0, releases = 0, adopts = 0, ticks = 0;
  std::set<ml_RefKey> held;
  void Begin(int) override {}
  bool Hold(const ml_RefKey& ref) override {
    ++holds;
    if (!reachable) return false;
    held.insert(ref);
    return true;
  }
  void Adopt(const ml_RefKey& ref) override {
    ++adopts;
    held.insert(ref);
  }
  void Release(const ml_RefKey& ref) override {
    ++releases;
    held.erase(ref);
  }
  int Others(const ml_RefKey&) override { return others; }
  void Tick() override { ++ticks; }
};

std::vector<uint8_t> message(int32_t type, size_t textLen, uint8_t refByte) {
  std::vector<uint8_t> m(4 + textLen, 0);
  le_PutU32(m.data(), static_cast<uint32_t>(type));
  for (size_t i = 0; i < 16; ++i) m[4 + i] = static_cast<uint8_t>(refByte + i);
  return m;
}
std::vector<uint8_t> record(int32_t pid, uint8_t ref = 0xA0) {
  auto m = message(ML_MSG_RECORD, ML_RECORD_LEN, ref);
  le_PutU32(m.data() + 4 + 16, static_cast<uint32_t>(pid));
  return m;
}
std::vector<uint8_t> withdraw(uint32_t token, int32_t pid, uint8_t ref = 0xA0) {
  auto m = message(ML_MSG_WITHDRAW, ML_WITHDRAW_LEN, ref);
  le_PutU32(m.data() + 4 + 16, token);
  le_PutU32(m.data() + 4 + 20, static_cast<uint32_t>(pid));
  return m;
}
std::vector<uint8_t> check(int32_t pid, uint8_t ref = 0xA0) {
  auto m = message(ML_MSG_CHECK, ML_CHECK_LEN, ref);
  le_PutU32(m.data() + 4 + 16, static_cast<uint32_t>(pid));
  return m;
}

struct Reply {
  size_t len = 0;
  uint8_t b[16] = {};
  uint32_t word(int i) const { return le_GetU32(b + 4 * i); }
};

struct ClusterAnswers : ::testing::Test {
  std::set<int32_t> dead;
  ml_InterestTable table{100, [this](int32_t pid) { return dead.count(pid) == 0; }};
  Hosts hosts;
  ml_ClusterView view{&hosts};
  Reply Ask(const std::vector<uint8_t>& m) {
    Reply r;
    int32_t pid = 0;
    r.len = view.Answer(table, m.data(), m.size() - 4, &pid, r.b);
    view.AfterReply();
    return r;
  }
};

TEST_F(ClusterAnswers, OnlyTheFirstLocalRecordAndTheLastWithdrawReachTheOthers) {
  const Reply a = Ask(record(41));
  ASSERT_EQ(a.len, size_t{ML_RECORD_REPLY_LEN});
  EXPECT_EQ(hosts.holds, 1);
  EXPECT_EQ(a.word(1), 0u);  // nobody anywhere else
  EXPECT_EQ(a.word(2), 1u);
  EXPECT_EQ(a.word(3), 0u);
  const Reply b = Ask(record(42));
  EXPECT_EQ(hosts.holds, 1);  // this host holds it already
  EXPECT_EQ(b.word(2), 2u);
  Ask(withdraw(a.word(0), 41));
  EXPECT_EQ(hosts.releases, 0);  // 42 still holds it here
  const Reply last = Ask(withdraw(b.word(0), 42));
  EXPECT_EQ(last.word(0), 0u);
  EXPECT_EQ(hosts.releases, 1);
  EXPECT_TRUE(hosts.held.empty());
  EXPECT_EQ(view.Held(), 0u);
}

TEST_F(ClusterAnswers, TheReleaseWaitsUntilTheReplyHasGone) {
  const Reply a = Ask(record(41));
  int32_t pid = 0;
  uint8_t reply[16];
  const auto m = withdraw(a.word(0), 41);
  view.Answer(table, m.data(), m.size() - 4, &pid, reply);
  EXPECT_EQ(hosts.releases, 0);
  view.AfterReply();
  EXPECT_EQ(hosts.releases, 1);
}

TEST_F(ClusterAnswers, OtherHostsHoldingItAreCountedAndFlagged) {
  hosts.others = 2;
  const Reply r = Ask(record(41));
  EXPECT_EQ(r.word(1), 1u);
  EXPECT_EQ(r.word(2), 3u);
  const Reply c = Ask(check(41));
  EXPECT_EQ(c.word(0), 3u);
  EXPECT_EQ(c.word(1), 1u);
  const Reply w = Ask(withdraw(r.word(0), 41));
  EXPECT_EQ(w.word(0), 2u);  // this host is done; two others still hold it
  EXPECT_EQ(w.word(1), 1u);
  // A check from a process holding nothing sees the others too.
  const Reply nobodyHere = Ask(check(50, 0x10));
  EXPECT_EQ(nobodyHere.word(0), 2u);
  EXPECT_EQ(nobodyHere.word(1), 1u);
}

TEST_F(ClusterAnswers, UnknownOthersNeverMeanAlone) {
  hosts.others = -1;
  const Reply r = Ask(record(41));
  EXPECT_EQ(r.word(1), 1u);
  EXPECT_EQ(r.word(2), 2u);
  const Reply c = Ask(check(41));
  EXPECT_EQ(c.word(1), 1u);
  EXPECT_EQ(c.word(0), 2u);
  const Reply w = Ask(withdraw(r.word(0), 41));
  EXPECT_EQ(w.word(1), 1u);
  EXPECT_GE(w.word(0), 2u);
}

TEST_F(ClusterAnswers, ARecordThatCannotBeMadeKnownIsRefusedAndNothingKept) {
  hosts.reachable = false;
  const Reply r = Ask(record(41));
  ASSERT_EQ(r.len, size_t{ML_RECORD_REPLY_LEN});
  EXPECT_EQ(r.word(3), uint32_t{ML_R_NOT_AVAILABLE});
  EXPECT_EQ(r.word(0), 0u);
  EXPECT_EQ(r.word(1), 1u);
  EXPECT_EQ(table.Entries(), 0u);
  EXPECT_EQ(view.Held(), 0u);
  // Once the others are back the next record goes through.
  hosts.reachable = true;
  const Reply again = Ask(record(41));
  EXPECT_EQ(again.word(3), 0u);
  EXPECT_NE(again.word(0), 0u);
  EXPECT_EQ(table.Entries(), 1u);
  EXPECT_EQ(hosts.held.size(), 1u);
}

TEST_F(ClusterAnswers, AHolderThatDiedIsReleasedAtTheSweep) {
  Ask(record(41));
  Ask(record(43, 0x30));
  dead.insert(41);
  table.Sweep();
  view.Sweep(table);
  EXPECT_EQ(hosts.releases, 1);
  EXPECT_EQ(hosts.held.size(), 1u);  // 43's reference stays
  EXPECT_EQ(view.Held(), 1u);
  view.Tick();
  EXPECT_EQ(hosts.ticks, 1);
}

TEST_F(ClusterAnswers, TakenOverInterestsAreAdoptedOncePerReference) {
  ml_Saved a;
  a.Kind = ML_SAVED_ENTRY;
  a.Ref.fill(7);
  a.Pid = 41;
  a.Token = 5;
  ml_Saved b = a;
  b.Pid = 42;
  ml_Saved any;
  any.Kind = ML_SAVED_ANY;
  any.Pid = 43;
  view.Adopt({a, b, any});
  EXPECT_EQ(hosts.adopts, 1);
  EXPECT_EQ(view.Held(), 1u);
}

TEST_F(ClusterAnswers, MalformedMessagesChangeNothing) {
  auto m = record(41);
  m.pop_back();
  const Reply r = Ask(m);
  EXPECT_EQ(r.len, 0u);
  EXPECT_EQ(hosts.holds, 0);
}

// Whether the other hosts can be asked is the cluster's own word, cheap to
// ask; one that does not say is always reachable (this host alone).
TEST_F(ClusterAnswers, ReachableIsWhatTheClusterSays) {
  EXPECT_TRUE(view.Reachable());
  struct Cut : Hosts {
    bool Reachable() const override { return false; }
  } cut;
  ml_ClusterView cutView(&cut);
  EXPECT_FALSE(cutView.Reachable());
}

}  // namespace
