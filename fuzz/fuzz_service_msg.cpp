// Fuzz target: the interest service's answer to request messages. The input
// is a run of messages, each a length byte (the text length) and then the
// type word and text, answered in turn by one interest table with a small
// cap; process ids are "alive" unless divisible by 7. Every answer must
// have a request's reply length, and the table must stay within its cap and
// agree with its own count after a sweep.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_env.h"
#include "ml.h"
#include "ml_interest.h"
#include "le.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kCap = 32;
  ml_InterestTable table(kCap, [](int32_t pid) { return pid % 7 != 0; });
  size_t at = 0;
  std::vector<uint8_t> msg;
  while (at < size) {
    const size_t len = data[at++];
    msg.assign(4 + len, 0);
    std::memcpy(msg.data(), data + at, std::min(size - at, msg.size()));
    at += std::min(size - at, msg.size());
    uint8_t reply[16];
    int32_t pid = -1;
    const size_t replyLen = ml_AnswerRequest(table, msg.data(), len, &pid, reply);
    const int32_t type = static_cast<int32_t>(le_GetU32(msg.data()));
    switch (replyLen) {
      case 0:
        break;
      case ML_RECORD_REPLY_LEN:
        if (type != ML_MSG_RECORD || pid <= 0) abort();
        // An answered record counts its requester, unless refused at the cap.
        if (le_GetU32(reply) != 0 && le_GetU32(reply + 8) == 0) abort();
        break;
      case ML_WITHDRAW_REPLY_LEN:  // also ML_CHECK_REPLY_LEN
        if ((type != ML_MSG_WITHDRAW && type != ML_MSG_CHECK) || pid <= 0) abort();
        break;
      default:
        abort();
    }
    if (table.Entries() > kCap) abort();
  }
  table.Sweep();
  if (table.Entries() > kCap) abort();
  return 0;
}
