// The service's interest table: counts per reference, tokens, the other-
// interest flag, ended processes, withdraws by the wrong process, the cap.
#include <gtest/gtest.h>
#include <set>

#include "ml_interest.h"

namespace {

ml_RefKey key(uint8_t b) {
  ml_RefKey k{};
  k[0] = b;
  return k;
}

struct Fixture {
  std::set<int32_t> dead;
  int probes = 0;
  ml_InterestTable table;
  explicit Fixture(size_t cap = 1000)
      : table(cap, [this](int32_t pid) {
          ++probes;
          return dead.count(pid) == 0;
        }) {}
};

TEST(InterestTable, CountsProcessesAndSetsOtherFlag) {
  Fixture f;
  ml_Answer a = f.table.Record(key(1), 100);
  EXPECT_EQ(1u, a.Count);
  EXPECT_EQ(0u, a.Other);
  EXPECT_NE(0u, a.Token);
  ml_Answer b = f.table.Record(key(1), 200);
  EXPECT_EQ(2u, b.Count);
  EXPECT_EQ(1u, b.Other);
  EXPECT_NE(a.Token, b.Token);
  // Another reference is counted apart.
  EXPECT_EQ(1u, f.table.Record(key(2), 200).Count);
  ml_Answer c = f.table.Check(key(1), 100);
  EXPECT_EQ(2u, c.Count);
  EXPECT_EQ(1u, c.Other);
  // A process outside asks: both count, both are others.
  ml_Answer d = f.table.Check(key(1), 300);
  EXPECT_EQ(2u, d.Count);
  EXPECT_EQ(1u, d.Other);
  EXPECT_EQ(0u, f.table.Check(key(9), 300).Count);
}

// A process knows its own token; the next one handed out must tell it
// nothing of another's, or it could withdraw their interest in their name.
TEST(InterestTable, ATokenTellsNothingOfTheTokensAround) {
  Fixture f;
  const ml_Answer a = f.table.Record(key(1), 100);
  const ml_Answer b = f.table.Record(key(1), 200);
  ASSERT_NE(0u, a.Token);
  ASSERT_NE(0u, b.Token);
  for (uint32_t d = 1; d <= 5000; ++d) {
    f.table.Withdraw(key(1), a.Token + d, 200);
    f.table.Withdraw(key(1), a.Token - d, 200);
  }
  EXPECT_EQ(2u, f.table.Check(key(1), 300).Count);
  // Its own token withdraws it.
  EXPECT_EQ(1u, f.table.Withdraw(key(1), b.Token, 200).Count);
}

TEST(InterestTable, SameProcessTwiceCountsOnce) {
  Fixture f;
  ml_Answer a = f.table.Record(key(1), 100);
  ml_Answer b = f.table.Record(key(1), 100);
  EXPECT_EQ(1u, b.Count);
  EXPECT_EQ(0u, b.Other);
  EXPECT_EQ(2u, f.table.Entries());
  EXPECT_EQ(1u, f.table.Withdraw(key(1), a.Token, 100).Count);  // still holds b
  EXPECT_EQ(0u, f.table.Withdraw(key(1), b.Token, 100).Count);
  EXPECT_EQ(0u, f.table.Entries());
  EXPECT_EQ(0u, f.table.References());
}

TEST(InterestTable, WithdrawLowersTheCount) {
  Fixture f;
  ml_Answer a = f.table.Record(key(1), 100);
  ml_Answer b = f.table.Record(key(1), 200);
  ml_Answer w = f.table.Withdraw(key(1), b.Token, 200);
  EXPECT_EQ(1u, w.Count);
  EXPECT_EQ(1u, w.Other);
  w = f.table.Withdraw(key(1), a.Token, 100);
  EXPECT_EQ(0u, w.Count);
  EXPECT_EQ(0u, w.Other);
}

TEST(InterestTable, WithdrawNeedsTheOwnersPid) {
  Fixture f;
  ml_Answer a = f.table.Record(key(1), 100);
  // A forked child sends its parent's token with its own pid.
  ml_Answer w = f.table.Withdraw(key(1), a.Token, 101);
  EXPECT_EQ(1u, w.Count);
  EXPECT_EQ(1u, w.Other);
  EXPECT_EQ(1u, f.table.Entries());
  // A wrong token of the right process removes nothing either.
  EXPECT_EQ(1u, f.table.Withdraw(key(1), a.Token + 1, 100).Count);
  EXPECT_EQ(1u, f.table.Withdraw(key(2), a.Token, 100).Count + 1);  // other reference: nothing there
  EXPECT_EQ(1u, f.table.Entries());
}

TEST(InterestTable, EndedProcessesAreDroppedBeforeAnswering) {
  Fixture f;
  f.table.Record(key(1), 100);
  f.table.Record(key(1), 200);
  f.dead.insert(200);
  ml_Answer c = f.table.Check(key(1), 100);
  EXPECT_EQ(1u, c.Count);
  EXPECT_EQ(0u, c.Other);
  EXPECT_EQ(1u, f.table.Entries());
}

TEST(InterestTable, SweepDropsEveryEntryOfEndedProcessesProbingEachOnce) {
  Fixture f;
  for (uint8_t r = 0; r < 10; ++r) {
    f.table.Record(key(r), 100);
    f.table.Record(key(r), 200);
  }
  f.dead.insert(200);
  f.probes = 0;
  EXPECT_EQ(10u, f.table.Sweep());
  EXPECT_EQ(2, f.probes);
  EXPECT_EQ(10u, f.table.Entries());
  f.dead.insert(100);
  EXPECT_EQ(10u, f.table.Sweep());
  EXPECT_EQ(0u, f.table.References());
}

TEST(InterestTable, CapRefusesRecordsWithTokenZeroButAnswersThemAsHeldByAnother) {
  Fixture f(3);
  ml_Answer a = f.table.Record(key(1), 100);
  f.table.Record(key(2), 100);
  f.table.Record(key(3), 100);
  ml_Answer refused = f.table.Record(key(1), 200);
  EXPECT_EQ(0u, refused.Token);
  EXPECT_EQ(2u, refused.Count);  // 100 and the refused 200
  EXPECT_EQ(1u, refused.Other);
  // Alone with key 4 as far as entries go, yet never told so.
  ml_Answer alone = f.table.Record(key(4), 200);
  EXPECT_EQ(0u, alone.Token);
  EXPECT_EQ(2u, alone.Count);
  EXPECT_EQ(1u, alone.Other);
  EXPECT_EQ(2u, f.table.Refused());
  EXPECT_EQ(3u, f.table.Entries());
  EXPECT_EQ(2u, f.table.Marks());
  // Another process asking about key 4 learns that someone holds it.
  ml_Answer seen = f.table.Check(key(4), 300);
  EXPECT_EQ(1u, seen.Other);
  EXPECT_EQ(2u, seen.Count);
  // A withdraw with token 0 cannot say which holding it ends: the mark stays.
  ml_Answer w = f.table.Withdraw(key(4), 0, 200);
  EXPECT_EQ(1u, w.Count);
  EXPECT_EQ(1u, f.table.Check(key(4), 300).Other);
  // Room again after a withdraw, and after ended processes are swept; the
  // marks go with their process.
  f.table.Withdraw(key(1), a.Token, 100);
  EXPECT_NE(0u, f.table.Record(key(5), 200).Token);
  f.dead.insert(100);
  f.table.Sweep();
  EXPECT_NE(0u, f.table.Record(key(6), 300).Token);
  f.dead.insert(200);
  f.table.Sweep();
  EXPECT_EQ(0u, f.table.Marks());
  ml_Answer gone = f.table.Check(key(4), 300);
  EXPECT_EQ(0u, gone.Other);
  EXPECT_EQ(0u, gone.Count);
}

TEST(InterestTable, ProcessBeyondTheMarksMayHoldAnythingWhileItLives) {
  Fixture f(1);
  f.table.Record(key(1), 100);                  // the one entry
  EXPECT_EQ(0u, f.table.Record(key(2), 200).Token);  // the one mark
  EXPECT_EQ(0u, f.table.Record(key(3), 200).Token);  // no room to say which: anything
  EXPECT_EQ(2u, f.table.Marks());
  for (uint8_t r : {3, 9}) {
    ml_Answer a = f.table.Check(key(r), 300);
    EXPECT_EQ(1u, a.Other) << int(r);
    EXPECT_EQ(2u, a.Count) << int(r);
  }
  // The process itself is not told that another holds what it alone holds.
  EXPECT_EQ(0u, f.table.Check(key(9), 200).Other);
  f.dead.insert(200);
  EXPECT_EQ(0u, f.table.Check(key(9), 300).Other);
  EXPECT_EQ(0u, f.table.Check(key(9), 300).Count);
  EXPECT_EQ(1u, f.table.Marks());  // the mark on key 2 goes at the next sweep
  f.table.Sweep();
  EXPECT_EQ(0u, f.table.Marks());
}

TEST(InterestTable, TokensAreDistinctAndNeverZero) {
  Fixture f;
  std::set<uint32_t> tokens;
  for (int i = 0; i < 100; ++i) tokens.insert(f.table.Record(key(1), 100 + i).Token);
  EXPECT_EQ(100u, tokens.size());
  EXPECT_EQ(0u, tokens.count(0));
}

}  // namespace
