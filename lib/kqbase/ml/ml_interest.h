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
// refused with token 0, but the refused process is not forgotten: it is
// marked as a holder of that reference (at most `maxEntries` marks; beyond
// them it is marked as a process that may hold anything). A mark lasts as
// long as its process lives, because a withdraw with token 0 cannot say
// which holding it ends (the library also sends one for interests it never
// recorded). While another process's mark stands, every answer about the
// reference says another process holds it, with a count of at least 2;
// refused records are answered so too.
//
// A rebuild records an interest under the file's reference with the name
// tag "new" and never withdraws it. Such an entry is tied to the interest the
// same process recorded just before under the same reference with another
// name tag, and goes when that interest is withdrawn; otherwise every
// rebuild would leave an entry behind for the life of the process.
//
// Every change is reported to an optional journal (slot by slot), which the
// service keeps on disk so that a restarted service knows who still holds
// what; Restore puts such a saved slot back.
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

// What one slot of the journal holds.
enum ml_SavedKind : uint32_t { ML_SAVED_FREE = 0, ML_SAVED_ENTRY = 1, ML_SAVED_MARK = 2, ML_SAVED_ANY = 3 };
struct ml_Saved {
  uint32_t Kind = ML_SAVED_FREE;
  ml_RefKey Ref{};        // zero for ML_SAVED_ANY
  int32_t Pid = 0;
  uint64_t Start = 0;     // the process's start time, which tells a reused pid
  uint32_t Token = 0;     // entries only
  uint32_t Link = 0;      // entries under "new": the token they go with
};

class ml_Journal {
 public:
  virtual ~ml_Journal() = default;
  virtual void Put(uint32_t slot, const ml_Saved& saved) = 0;
  virtual void Clear(uint32_t slot) = 0;
};

class ml_InterestTable {
 public:
  using AliveFn = std::function<bool(int32_t pid)>;
  using StartFn = std::function<uint64_t(int32_t pid)>;
  ml_InterestTable(size_t maxEntries, AliveFn alive, StartFn start = nullptr);

  ml_Answer Record(const ml_RefKey& ref, int32_t pid);
  ml_Answer Withdraw(const ml_RefKey& ref, uint32_t token, int32_t pid);
  ml_Answer Check(const ml_RefKey& ref, int32_t pid);
  // Drops the entries and marks of every process that has died; returns how
  // many entries went.
  size_t Sweep();

  // Puts a saved slot back (no journal write); the caller has checked that
  // its process still lives.
  void Restore(const ml_Saved& saved, uint32_t slot);
  void SetJournal(ml_Journal* journal) { journal_ = journal; }

  size_t Entries() const { return entries_; }
  size_t Marks() const { return marks_ + any_.size(); }
  size_t References() const { return refs_.size(); }
  uint64_t Refused() const { return refused_; }

 private:
  struct Entry {
    uint32_t token;
    uint32_t link;
    uint32_t slot;
  };
  struct Holder {
    int32_t pid;
    uint64_t start;
    std::vector<Entry> entries;
    bool marked = false;
    uint32_t markSlot = 0;
  };
  using Holders = std::vector<Holder>;
  struct Any {
    uint64_t start;
    uint32_t slot;
  };
  struct Last {
    ml_RefKey ref;
    uint32_t token;
  };

  bool Live(int32_t pid, int32_t requester);
  void DropHolder(Holder& h);
  void Prune(Holders& holders, int32_t requester);
  void PruneAny(int32_t requester);
  ml_Answer Answer(const Holders* holders, int32_t pid) const;
  Holder& HolderOf(Holders& holders, int32_t pid, uint64_t start);
  uint64_t StartOf(int32_t pid);
  uint32_t LinkFor(const ml_RefKey& ref, int32_t pid) const;
  void DropLinked(const ml_RefKey& ref, uint32_t token, int32_t pid);
  void Mark(const ml_RefKey& ref, int32_t pid);
  uint32_t NextToken();
  uint32_t TakeSlot();
  void Put(uint32_t slot, const ml_Saved& saved);
  void Free(uint32_t slot);

  size_t max_;
  AliveFn alive_;
  StartFn start_;
  ml_Journal* journal_ = nullptr;
  std::unordered_map<ml_RefKey, Holders, ml_RefKeyHash> refs_;
  std::unordered_map<int32_t, Any> any_;       // processes that may hold anything
  std::unordered_map<int32_t, Last> last_;     // each process's latest record
  std::unordered_map<int32_t, uint64_t> starts_;
  size_t entries_ = 0;
  size_t marks_ = 0;
  uint32_t next_ = 1;
  uint64_t refused_ = 0;
  std::vector<uint32_t> freeSlots_;
  uint32_t slots_ = 0;
};

// Answers one request of the wire protocol from `table`: `msg` is the
// message type word followed by `len` bytes of text. Fills `reply` (16
// bytes) and the requester's process id and returns the reply's text length,
// or 0 when the message is not a well-formed request (a tick included), which
// then has changed nothing.
// The process id a well-formed request names as its sender; 0 for anything
// else (a tick included).
int32_t ml_RequestPid(const uint8_t* msg, size_t len);

size_t ml_AnswerRequest(ml_InterestTable& table, const uint8_t* msg, size_t len, int32_t* pid,
                        uint8_t reply[16]);

#endif  // KQ_ML_INTEREST_H
