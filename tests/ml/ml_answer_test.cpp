// The service's answer to one wire message: well-formed requests reach the
// interest table and give replies of their fixed lengths; anything else
// (wrong length, unknown type, a tick, a process id of 0 or below) is refused
// and leaves the table as it was.
#include <gtest/gtest.h>

#include <vector>

#include "ml.h"
#include "ml_interest.h"
#include "le.h"

namespace {

std::vector<uint8_t> message(int32_t type, size_t textLen) {
  std::vector<uint8_t> m(4 + textLen, 0);
  le_PutU32(m.data(), static_cast<uint32_t>(type));
  for (size_t i = 0; i < 16 && i < textLen; ++i) m[4 + i] = static_cast<uint8_t>(0xA0 + i);
  return m;
}

std::vector<uint8_t> record(int32_t pid) {
  auto m = message(ML_MSG_RECORD, ML_RECORD_LEN);
  le_PutU32(m.data() + 4 + 16, static_cast<uint32_t>(pid));
  return m;
}

std::vector<uint8_t> withdraw(uint32_t token, int32_t pid) {
  auto m = message(ML_MSG_WITHDRAW, ML_WITHDRAW_LEN);
  le_PutU32(m.data() + 4 + 16, token);
  le_PutU32(m.data() + 4 + 20, static_cast<uint32_t>(pid));
  return m;
}

std::vector<uint8_t> check(int32_t pid) {
  auto m = message(ML_MSG_CHECK, ML_CHECK_LEN);
  le_PutU32(m.data() + 4 + 16, static_cast<uint32_t>(pid));
  return m;
}

size_t answer(ml_InterestTable& t, const std::vector<uint8_t>& m, int32_t* pid, uint8_t* reply) {
  return ml_AnswerRequest(t, m.data(), m.size() - 4, pid, reply);
}

TEST(AnswerRequest, RecordCheckWithdrawRoundTrip) {
  ml_InterestTable t(100, [](int32_t) { return true; });
  uint8_t reply[16];
  int32_t pid = 0;
  ASSERT_EQ(size_t{ML_RECORD_REPLY_LEN}, answer(t, record(41), &pid, reply));
  EXPECT_EQ(41, pid);
  const uint32_t token = le_GetU32(reply);
  EXPECT_NE(0u, token);
  EXPECT_EQ(0u, le_GetU32(reply + 4));  // nobody else
  EXPECT_EQ(1u, le_GetU32(reply + 8));  // one process holds it

  ASSERT_EQ(size_t{ML_RECORD_REPLY_LEN}, answer(t, record(42), &pid, reply));
  ASSERT_EQ(size_t{ML_CHECK_REPLY_LEN}, answer(t, check(41), &pid, reply));
  EXPECT_EQ(2u, le_GetU32(reply));
  EXPECT_EQ(1u, le_GetU32(reply + 4));

  ASSERT_EQ(size_t{ML_WITHDRAW_REPLY_LEN}, answer(t, withdraw(token, 41), &pid, reply));
  EXPECT_EQ(41, pid);
  EXPECT_EQ(1u, le_GetU32(reply));
  EXPECT_EQ(1u, t.Entries());
}

TEST(AnswerRequest, MalformedMessagesAreRefusedAndChangeNothing) {
  ml_InterestTable t(100, [](int32_t) { return true; });
  uint8_t reply[16];
  int32_t pid = 7;
  auto shortRecord = record(41);
  shortRecord.pop_back();
  EXPECT_EQ(0u, answer(t, shortRecord, &pid, reply));
  EXPECT_EQ(0, pid);
  auto longCheck = check(41);
  longCheck.push_back(0);
  EXPECT_EQ(0u, answer(t, longCheck, &pid, reply));
  EXPECT_EQ(0u, answer(t, record(0), &pid, reply));
  EXPECT_EQ(0u, answer(t, record(-5), &pid, reply));
  EXPECT_EQ(0u, answer(t, withdraw(1, -1), &pid, reply));
  EXPECT_EQ(0u, answer(t, message(ML_MSG_TICK, 0), &pid, reply));
  EXPECT_EQ(0u, answer(t, message(99, ML_RECORD_LEN), &pid, reply));
  EXPECT_EQ(0u, t.Entries());
  EXPECT_EQ(0u, t.References());
}

}  // namespace
