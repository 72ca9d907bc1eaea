// ml_InterestTable: the interest entries one serving process of the interest
// service keeps: per item reference (its 16 wire bytes) the processes that
// hold an interest, each with the tokens of its entries.
//
// Counts are of processes, not entries: a process that records twice is
// counted once. Entries of processes that have died are dropped before an
// answer about their reference and by Sweep. A withdraw removes an entry only
// when both the token and the requester's pid match it, so a forked child
// that inherited its parent's token cannot withdraw the parent's interest.
//
// Memory is bounded: at most `maxEntries` entries. At the cap a record is
// refused: it is answered with token 0 (no entry was made, so the caller's
// interest is invisible to others) and counted in Refused().
#ifndef KQ_ML_INTEREST_H
#define KQ_ML_INTEREST_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

using ml_RefKey = std::array<uint8_t, 16>;

struct ml_RefKeyHash {
  size_t operator()(const ml_RefKey& k) const noexcept;
};

struct ml_Answer {
  uint32_t Token = 0;
  uint32_t Other = 0;  // 1 when another live process holds an interest
  uint32_t Count = 0;  // live processes holding an interest
};

class ml_InterestTable {
 public:
  using AliveFn = std::function<bool(int32_t pid)>;
  ml_InterestTable(size_t maxEntries, AliveFn alive);

  ml_Answer Record(const ml_RefKey& ref, int32_t pid);
  ml_Answer Withdraw(const ml_RefKey& ref, uint32_t token, int32_t pid);
  ml_Answer Check(const ml_RefKey& ref, int32_t pid);
  // Drops the entries of every process that has died; returns how many.
  size_t Sweep();

  size_t Entries() const { return entries_; }
  size_t References() const { return refs_.size(); }
  uint64_t Refused() const { return refused_; }

 private:
  struct Holder {
    int32_t pid;
    std::vector<uint32_t> tokens;
  };
  using Holders = std::vector<Holder>;

  void Prune(Holders& holders, int32_t requester);
  ml_Answer Answer(const Holders& holders, int32_t pid) const;
  uint32_t NextToken();

  size_t max_;
  AliveFn alive_;
  std::unordered_map<ml_RefKey, Holders, ml_RefKeyHash> refs_;
  size_t entries_ = 0;
  uint32_t next_ = 1;
  uint64_t refused_ = 0;
};

// Answers one request of the wire protocol from `table`: `msg` is the
// message type word followed by `len` bytes of text. Fills `reply` (16
// bytes) and the requester's process id and returns the reply's text length,
// or 0 when the message is not a well-formed request (a tick included), which
// then has changed nothing.
size_t ml_AnswerRequest(ml_InterestTable& table, const uint8_t* msg, size_t len, int32_t* pid,
                        uint8_t reply[16]);

#endif  // KQ_ML_INTEREST_H
