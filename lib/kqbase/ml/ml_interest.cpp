// ml_InterestTable: counting interests per reference for the service.
#include "ml_interest.h"

#include <algorithm>
#include <cstring>

#include "ml.h"
#include "le.h"

size_t ml_RefKeyHash::operator()(const ml_RefKey& k) const noexcept {
  // FNV-1a over the 16 bytes.
  uint64_t h = 1469598103934665603ull;
  for (uint8_t b : k) {
    h ^= b;
    h *= 1099511628211ull;
  }
  return static_cast<size_t>(h);
}

ml_InterestTable::ml_InterestTable(size_t maxEntries, AliveFn alive)
    : max_(maxEntries), alive_(std::move(alive)) {}

uint32_t ml_InterestTable::NextToken() {
  uint32_t t = next_++;
  if (next_ == 0) next_ = 1;  // 0 means "no entry"
  return t;
}

void ml_InterestTable::Prune(Holders& holders, int32_t requester) {
  for (auto it = holders.begin(); it != holders.end();) {
    // The requester is asking, so it is alive: no probe for it.
    if (it->pid == requester || alive_(it->pid)) {
      ++it;
    } else {
      entries_ -= it->tokens.size();
      it = holders.erase(it);
    }
  }
}

ml_Answer ml_InterestTable::Answer(const Holders& holders, int32_t pid) const {
  ml_Answer a;
  for (const Holder& h : holders) {
    if (h.tokens.empty()) continue;
    ++a.Count;
    if (h.pid != pid) a.Other = 1;
  }
  return a;
}

ml_Answer ml_InterestTable::Record(const ml_RefKey& ref, int32_t pid) {
  auto found = refs_.find(ref);
  if (found != refs_.end()) Prune(found->second, pid);
  if (entries_ >= max_) {
    ++refused_;
    ml_Answer a = found != refs_.end() ? Answer(found->second, pid) : ml_Answer{};
    if (found != refs_.end() && found->second.empty()) refs_.erase(found);
    return a;
  }
  Holders& holders = found != refs_.end() ? found->second : refs_[ref];
  auto h = std::find_if(holders.begin(), holders.end(), [&](const Holder& x) { return x.pid == pid; });
  if (h == holders.end()) {
    holders.push_back(Holder{pid, {}});
    h = holders.end() - 1;
  }
  uint32_t token = NextToken();
  h->tokens.push_back(token);
  ++entries_;
  ml_Answer a = Answer(holders, pid);
  a.Token = token;
  return a;
}

ml_Answer ml_InterestTable::Withdraw(const ml_RefKey& ref, uint32_t token, int32_t pid) {
  auto found = refs_.find(ref);
  if (found == refs_.end()) return ml_Answer{};
  Holders& holders = found->second;
  Prune(holders, pid);
  for (auto h = holders.begin(); h != holders.end(); ++h) {
    if (h->pid != pid) continue;
    auto t = std::find(h->tokens.begin(), h->tokens.end(), token);
    if (t != h->tokens.end()) {
      h->tokens.erase(t);
      --entries_;
      if (h->tokens.empty()) holders.erase(h);
    }
    break;
  }
  ml_Answer a = Answer(holders, pid);
  if (holders.empty()) refs_.erase(found);
  return a;
}

ml_Answer ml_InterestTable::Check(const ml_RefKey& ref, int32_t pid) {
  auto found = refs_.find(ref);
  if (found == refs_.end()) return ml_Answer{};
  Prune(found->second, pid);
  ml_Answer a = Answer(found->second, pid);
  if (found->second.empty()) refs_.erase(found);
  return a;
}

size_t ml_InterestTable::Sweep() {
  // One liveness probe per distinct process.
  std::unordered_map<int32_t, bool> alive;
  size_t before = entries_;
  for (auto it = refs_.begin(); it != refs_.end();) {
    Holders& holders = it->second;
    for (auto h = holders.begin(); h != holders.end();) {
      auto known = alive.find(h->pid);
      bool live = known != alive.end() ? known->second : (alive[h->pid] = alive_(h->pid));
      if (live) {
        ++h;
      } else {
        entries_ -= h->tokens.size();
        h = holders.erase(h);
      }
    }
    it = holders.empty() ? refs_.erase(it) : std::next(it);
  }
  return before - entries_;
}

size_t ml_AnswerRequest(ml_InterestTable& table, const uint8_t* msg, size_t len, int32_t* pid,
                        uint8_t reply[16]) {
  const int32_t type = static_cast<int32_t>(le_GetU32(msg));
  const uint8_t* text = msg + 4;
  ml_RefKey ref;
  ml_Answer a;
  std::memset(reply, 0, 16);
  *pid = 0;
  switch (type) {
    case ML_MSG_RECORD:
      if (len != ML_RECORD_LEN) return 0;
      *pid = static_cast<int32_t>(le_GetU32(text + 16));
      if (*pid <= 0) return 0;
      std::memcpy(ref.data(), text, 16);
      a = table.Record(ref, *pid);
      le_PutU32(reply, a.Token);
      le_PutU32(reply + 4, a.Other);
      le_PutU32(reply + 8, a.Count);
      return ML_RECORD_REPLY_LEN;
    case ML_MSG_WITHDRAW:
      if (len != ML_WITHDRAW_LEN) return 0;
      *pid = static_cast<int32_t>(le_GetU32(text + 20));
      if (*pid <= 0) return 0;
      std::memcpy(ref.data(), text, 16);
      a = table.Withdraw(ref, le_GetU32(text + 16), *pid);
      le_PutU32(reply, a.Count);
      le_PutU32(reply + 4, a.Other);
      return ML_WITHDRAW_REPLY_LEN;
    case ML_MSG_CHECK:
      if (len != ML_CHECK_LEN) return 0;
      *pid = static_cast<int32_t>(le_GetU32(text + 16));
      if (*pid <= 0) return 0;
      std::memcpy(ref.data(), text, 16);
      a = table.Check(ref, *pid);
      le_PutU32(reply, a.Count);
      le_PutU32(reply + 4, a.Other);
      return ML_CHECK_REPLY_LEN;
    default:
      return 0;
  }
}
