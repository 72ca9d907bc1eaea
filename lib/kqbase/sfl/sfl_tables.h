// The mechanics shared by the per-process handle tables (open files, open
// items, streams): a fixed array of record pointers that grows on demand,
// records allocated zeroed on first use and never freed, a high-water mark,
// and handles equal to a base number plus the index. The table remembers
// where the first free record may be: a process with a large cold store
// holds a thousand records, and taking one must not walk them all.
//
// The handle check accepts one index past the high-water mark on purpose
// (the bound is inclusive); that slot then reads as a record not in use.
#ifndef SFL_TABLES_H
#define SFL_TABLES_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "er.h"

constexpr int SFL_REASON_BAD_HANDLE = 28867;

// Rec must have a 32-bit `InUse` member and a `Reset()` that returns it to
// its free state (whatever it keeps for reuse, such as cache buffers).
template <class Rec, int32_t FirstHandle, size_t Limit>
class sfl_HandleTable {
 public:
  static constexpr int32_t kFirst = FirstHandle;
  static constexpr size_t kLimit = Limit;

  // Takes the first free record, allocating records up to it as needed.
  // Raises `fullReason` in group 3 when all `Limit` entries are in use.
  Rec* Take(int32_t* handle, int fullReason) {
    for (size_t i = firstFree_;; ++i) {
      if (i >= Limit) ER_RAISE(ER_GROUP_TABLE, fullReason);
      if (i >= allocated_) {
        recs_[i] = new Rec{};
        allocated_ = i + 1;
      }
      Rec* r = recs_[i];
      if (r->InUse) continue;
      if (i >= highWater_) highWater_ = i + 1;
      ++inUse_;
      r->InUse = 1;
      firstFree_ = i + 1;
      if (handle != nullptr) *handle = FirstHandle + static_cast<int32_t>(i);
      return r;
    }
  }

  // Checks and converts a handle: FirstHandle to FirstHandle + high-water
  // mark inclusive, and the record must be in use; else 28867 in group 3.
  Rec* Lookup(int32_t handle) const {
    if (handle < FirstHandle || handle > FirstHandle + static_cast<int32_t>(highWater_))
      ER_RAISE(ER_GROUP_TABLE, SFL_REASON_BAD_HANDLE);
    size_t i = static_cast<size_t>(handle - FirstHandle);
    if (i >= allocated_ || recs_[i]->InUse != 1) ER_RAISE(ER_GROUP_TABLE, SFL_REASON_BAD_HANDLE);
    return recs_[i];
  }

  // Frees a record: null is ignored, a free record raises 28867.
  void Release(Rec* r) {
    if (r == nullptr) return;
    if (r->InUse != 1) ER_RAISE(ER_GROUP_TABLE, SFL_REASON_BAD_HANDLE);
    r->Reset();
    r->InUse = 0;
    --inUse_;
    firstFree_ = std::min(firstFree_, static_cast<size_t>(HandleOf(r) - FirstHandle));
  }

  // The handle of a record of this table, or -1.
  int32_t HandleOf(const Rec* r) const {
    for (size_t i = 0; i < allocated_; ++i)
      if (recs_[i] == r) return FirstHandle + static_cast<int32_t>(i);
    return -1;
  }

  // Record at an index below Allocated() (in use or not).
  Rec* At(size_t i) const { return i < allocated_ ? recs_[i] : nullptr; }
  size_t Allocated() const { return allocated_; }
  size_t HighWater() const { return highWater_; }
  int InUseCount() const { return inUse_; }

  // Marks every record free without releasing anything it refers to (a
  // forked child drops what it inherited this way).
  void ForgetAll() {
    for (size_t i = 0; i < allocated_; ++i) {
      recs_[i]->Reset();
      recs_[i]->InUse = 0;
    }
    inUse_ = 0;
    highWater_ = 0;
    firstFree_ = 0;
  }

 private:
  std::array<Rec*, Limit> recs_{};
  size_t allocated_ = 0;
  size_t highWater_ = 0;
  size_t firstFree_ = 0;  // every record below it is in use
  int inUse_ = 0;
};

#endif  // SFL_TABLES_H
