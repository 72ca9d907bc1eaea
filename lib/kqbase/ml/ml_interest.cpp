// ml_InterestTable: counting interests per reference for the service.
#include "ml_interest.h"

#include <algorithm>
#include <cstring>

#include "le.h"
#include "ml.h"
#include "os.h"

namespace {

// The name tag a rebuild gives its new file's reference: "new", zero-ended.
bool rebuildName(const ml_RefKey& ref) {
  return ref[12] == 'n' && ref[13] == 'e' && ref[14] == 'w' && ref[15] == 0;
}

// The same reference but for the name tag (bytes 12 to 15).
bool sameButName(const ml_RefKey& a, const ml_RefKey& b) {
  return std::memcmp(a.data(), b.data(), 12) == 0;
}

}  // namespace

size_t ml_RefKeyHash::operator()(const ml_RefKey& k) const noexcept {
  // FNV-1a over the 16 bytes.
  uint64_t h = 1469598103934665603ull;
  for (uint8_t b : k) {
    h ^= b;
    h *= 1099511628211ull;
  }
  return static_cast<size_t>(h);
}

ml_InterestTable::ml_InterestTable(size_t maxEntries, AliveFn alive, StartFn start)
    : max_(maxEntries), alive_(std::move(alive)), start_(std::move(start)) {}

uint32_t ml_InterestTable::NextToken() {
  // Drawn at random, so that a process that may write the request queue
  // learns nothing of another's token from its own: a withdrawal needs the
  // token and the pid it was recorded for. Should the random source fail,
  // a running count keeps tokens distinct (0 means "no entry").
  uint32_t t = 0;
  while (t == 0) {
    if (os_RandomBytes(&t, sizeof t) != 0) t = next_++;
  }
  return t;
}

uint32_t ml_InterestTable::TakeSlot() {
  if (freeSlots_.empty()) return slots_++;
  uint32_t s = freeSlots_.back();
  freeSlots_.pop_back();
  return s;
}

void ml_InterestTable::Put(uint32_t slot, const ml_Saved& saved) {
  if (journal_ != nullptr) journal_->Put(slot, saved);
}

void ml_InterestTable::Free(uint32_t slot) {
  if (journal_ != nullptr) journal_->Clear(slot);
  freeSlots_.push_back(slot);
}

uint64_t ml_InterestTable::StartOf(int32_t pid) {
  if (!start_) return 0;
  auto known = starts_.find(pid);
  if (known != starts_.end()) return known->second;
  return starts_[pid] = start_(pid);
}

// The requester is asking, so it is alive: no probe for it.
bool ml_InterestTable::Live(int32_t pid, int32_t requester) { return pid == requester || alive_(pid); }

ml_InterestTable::Holder& ml_InterestTable::HolderOf(Holders& holders, int32_t pid, uint64_t start) {
  auto h = std::find_if(holders.begin(), holders.end(), [&](const Holder& x) { return x.pid == pid; });
  if (h != holders.end()) return *h;
  holders.push_back(Holder{pid, start, {}});
  return holders.back();
}

void ml_InterestTable::DropHolder(Holder& h) {
  for (const Entry& e : h.entries) Free(e.slot);
  entries_ -= h.entries.size();
  h.entries.clear();
  if (h.marked) {
    Free(h.markSlot);
    --marks_;
    h.marked = false;
  }
}

void ml_InterestTable::Prune(Holders& holders, int32_t requester) {
  for (auto it = holders.begin(); it != holders.end();) {
    if (Live(it->pid, requester)) {
      ++it;
    } else {
      DropHolder(*it);
      it = holders.erase(it);
    }
  }
}

void ml_InterestTable::PruneAny(int32_t requester) {
  for (auto it = any_.begin(); it != any_.end();) {
    if (Live(it->first, requester)) {
      ++it;
    } else {
      Free(it->second.slot);
      it = any_.erase(it);
    }
  }
}

ml_Answer ml_InterestTable::Answer(const Holders* holders, int32_t pid) const {
  ml_Answer a;
  bool unsure = false;  // another process may hold it without an entry
  if (holders != nullptr) {
    for (const Holder& h : *holders) {
      if (h.entries.empty() && !h.marked) continue;
      ++a.Count;
      if (h.pid == pid) continue;
      a.Other = 1;
      if (h.marked) unsure = true;
    }
  }
  for (const auto& any : any_)
    if (any.first != pid) unsure = true;
  if (unsure) {
    a.Other = 1;
    if (a.Count < 2) a.Count = 2;
  }
  return a;
}

void ml_InterestTable::Mark(const ml_RefKey& ref, int32_t pid) {
  if (any_.count(pid) != 0) return;
  Holders& holders = refs_[ref];
  const uint64_t start = StartOf(pid);
  Holder& h = HolderOf(holders, pid, start);
  if (h.marked) return;
  if (marks_ < max_) {
    h.marked = true;
    h.markSlot = TakeSlot();
    ++marks_;
    Put(h.markSlot, ml_Saved{ML_SAVED_MARK, ref, pid, start, 0, 0});
    return;
  }
  // No room for a mark either: from now on this process may hold anything.
  if (h.entries.empty()) holders.pop_back();  // HolderOf appended it, or it was empty anyway
  if (holders.empty()) refs_.erase(ref);
  const uint32_t slot = TakeSlot();
  any_[pid] = Any{start, slot};
  Put(slot, ml_Saved{ML_SAVED_ANY, ml_RefKey{}, pid, start, 0, 0});
}

uint32_t ml_InterestTable::LinkFor(const ml_RefKey& ref, int32_t pid) const {
  if (!rebuildName(ref)) return 0;
  auto last = last_.find(pid);
  if (last == last_.end() || rebuildName(last->second.ref) || !sameButName(last->second.ref, ref))
    return 0;
  auto found = refs_.find(last->second.ref);
  if (found == refs_.end()) return 0;
  for (const Holder& h : found->second) {
    if (h.pid != pid) continue;
    for (const Entry& e : h.entries)
      if (e.token == last->second.token) return e.token;
  }
  return 0;
}

void ml_InterestTable::DropLinked(const ml_RefKey& ref, uint32_t token, int32_t pid) {
  if (rebuildName(ref)) return;
  ml_RefKey rebuilt = ref;
  std::memcpy(rebuilt.data() + 12, "new", 4);
  auto found = refs_.find(rebuilt);
  if (found == refs_.end()) return;
  Holders& holders = found->second;
  for (auto h = holders.begin(); h != holders.end(); ++h) {
    if (h->pid != pid) continue;
    for (auto e = h->entries.begin(); e != h->entries.end();) {
      if (e->link == token) {
        Free(e->slot);
        --entries_;
        e = h->entries.erase(e);
      } else {
        ++e;
      }
    }
    if (h->entries.empty() && !h->marked) holders.erase(h);
    break;
  }
  if (holders.empty()) refs_.erase(found);
}

ml_Answer ml_InterestTable::Record(const ml_RefKey& ref, int32_t pid) {
  PruneAny(pid);
  auto found = refs_.find(ref);
  if (found != refs_.end()) Prune(found->second, pid);
  if (entries_ >= max_) {
    // Refused, yet the process holds the file: nobody may now be told that
    // they are alone with it, this process included.
    ++refused_;
    Mark(ref, pid);
    found = refs_.find(ref);
    ml_Answer a = Answer(found != refs_.end() ? &found->second : nullptr, pid);
    a.Other = 1;
    if (a.Count < 2) a.Count = 2;
    return a;
  }
  Holders& holders = refs_[ref];
  const uint64_t start = StartOf(pid);
  const uint32_t link = LinkFor(ref, pid);
  Holder& h = HolderOf(holders, pid, start);
  const uint32_t token = NextToken();
  const uint32_t slot = TakeSlot();
  h.entries.push_back(Entry{token, link, slot});
  ++entries_;
  Put(slot, ml_Saved{ML_SAVED_ENTRY, ref, pid, h.start, token, link});
  last_[pid] = Last{ref, token};
  ml_Answer a = Answer(&holders, pid);
  a.Token = token;
  return a;
}

ml_Answer ml_InterestTable::Withdraw(const ml_RefKey& ref, uint32_t token, int32_t pid) {
  PruneAny(pid);
  auto found = refs_.find(ref);
  if (found == refs_.end()) return Answer(nullptr, pid);
  Holders& holders = found->second;
  Prune(holders, pid);
  bool removed = false;
  for (auto h = holders.begin(); h != holders.end(); ++h) {
    if (h->pid != pid) continue;
    auto e = std::find_if(h->entries.begin(), h->entries.end(),
                          [&](const Entry& x) { return x.token == token; });
    if (token != 0 && e != h->entries.end()) {
      Free(e->slot);
      h->entries.erase(e);
      --entries_;
      removed = true;
      if (h->entries.empty() && !h->marked) holders.erase(h);
    }
    break;
  }
  if (removed) {
    auto last = last_.find(pid);
    if (last != last_.end() && last->second.token == token) last_.erase(last);
    DropLinked(ref, token, pid);  // another reference: `found` stays valid
  }
  ml_Answer a = Answer(&holders, pid);
  if (holders.empty()) refs_.erase(found);
  return a;
}

ml_Answer ml_InterestTable::Check(const ml_RefKey& ref, int32_t pid) {
  PruneAny(pid);
  auto found = refs_.find(ref);
  if (found == refs_.end()) return Answer(nullptr, pid);
  Prune(found->second, pid);
  ml_Answer a = Answer(&found->second, pid);
  if (found->second.empty()) refs_.erase(found);
  return a;
}

size_t ml_InterestTable::Sweep() {
  // One liveness probe per distinct process.
  std::unordered_map<int32_t, bool> alive;
  auto live = [&](int32_t pid) {
    auto known = alive.find(pid);
    return known != alive.end() ? known->second : (alive[pid] = alive_(pid));
  };
  size_t before = entries_;
  for (auto it = refs_.begin(); it != refs_.end();) {
    Holders& holders = it->second;
    for (auto h = holders.begin(); h != holders.end();) {
      if (live(h->pid)) {
        ++h;
      } else {
        DropHolder(*h);
        h = holders.erase(h);
      }
    }
    it = holders.empty() ? refs_.erase(it) : std::next(it);
  }
  for (auto it = any_.begin(); it != any_.end();) {
    if (live(it->first)) {
      ++it;
    } else {
      Free(it->second.slot);
      it = any_.erase(it);
    }
  }
  for (auto it = last_.begin(); it != last_.end();) it = live(it->first) ? std::next(it) : last_.erase(it);
  for (auto it = starts_.begin(); it != starts_.end();) it = live(it->first) ? std::next(it) : starts_.erase(it);
  return before - entries_;
}

void ml_InterestTable::Restore(const ml_Saved& saved, uint32_t slot) {
  if (slot >= slots_) {
    for (uint32_t s = slots_; s < slot; ++s) freeSlots_.push_back(s);
    slots_ = slot + 1;
  }
  starts_[saved.Pid] = saved.Start;
  switch (saved.Kind) {
    case ML_SAVED_ENTRY: {
      Holder& h = HolderOf(refs_[saved.Ref], saved.Pid, saved.Start);
      h.entries.push_back(Entry{saved.Token, saved.Link, slot});
      ++entries_;
      // Tokens handed out from here on differ from every restored one.
      if (saved.Token >= next_) next_ = saved.Token + 1 == 0 ? 1 : saved.Token + 1;
      return;
    }
    case ML_SAVED_MARK: {
      Holder& h = HolderOf(refs_[saved.Ref], saved.Pid, saved.Start);
      if (h.marked) break;
      h.marked = true;
      h.markSlot = slot;
      ++marks_;
      return;
    }
    case ML_SAVED_ANY:
      if (any_.count(saved.Pid) != 0) break;
      any_[saved.Pid] = Any{saved.Start, slot};
      return;
    default:
      break;
  }
  freeSlots_.push_back(slot);  // nothing new in it
}

int32_t ml_RequestPid(const uint8_t* msg, size_t len) {
  const uint8_t* text = msg + 4;
  switch (static_cast<int32_t>(le_GetU32(msg))) {
    case ML_MSG_RECORD:
      return len == ML_RECORD_LEN ? static_cast<int32_t>(le_GetU32(text + 16)) : 0;
    case ML_MSG_WITHDRAW:
      return len == ML_WITHDRAW_LEN ? static_cast<int32_t>(le_GetU32(text + 20)) : 0;
    case ML_MSG_CHECK:
      return len == ML_CHECK_LEN ? static_cast<int32_t>(le_GetU32(text + 16)) : 0;
    default:
      return 0;
  }
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
