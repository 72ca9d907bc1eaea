// Test support: small helpers that many tests share — catching escapes,
// the path of a reference, reading raw file bytes, probing byte-range locks
// from another process, capturing logged messages, and a few record views.
#ifndef SFL_TEST_UTIL_H
#define SFL_TEST_UTIL_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "er.h"
#include "sfl_int.h"

namespace sfltest {

// ---- escapes ----------------------------------------------------------------------

// An escape's group and reason; both 0 when there was none.
struct Escape {
  int group = 0;
  int reason = 0;
};

// Runs `fn`; when it escapes, clears the error status and returns the
// escape's group and reason, otherwise {0, 0}.
Escape EscapeOf(const std::function<void()>& fn);
// As EscapeOf, but leaves the error status cleared whether or not `fn`
// escaped.
Escape EscapeOfThenClear(const std::function<void()>& fn);
// As EscapeOf, as a pair (group, reason).
std::pair<int, int> GroupAndReasonOf(const std::function<void()>& fn);
// As EscapeOf, as the one number group * 100000 + reason (0 when none).
long EscapeCodeOf(const std::function<void()>& fn);
// As EscapeOf, the reason alone (0 when none).
int ReasonOf(const std::function<void()>& fn);

// The number EscapeCodeOf gives for an escape of `group` and `reason`.
constexpr long EscapeCode(int group, int reason) { return static_cast<long>(group) * 100000 + reason; }

// ---- files and descriptors -----------------------------------------------------------

// The path of the file a reference names (im_ItemRef2FName).
std::string ItemPath(const sfl_ItemRef& ref);
// The path of the file open under a base handle.
std::string ItemPathOf(int32_t baseHandle);

// `len` bytes of `fd` at `off`; expects all of them to be there.
std::vector<uint8_t> ReadExactly(int fd, uint64_t off, size_t len);
// Up to `len` bytes of `fd` at `off`: fewer at the end of the file.
std::vector<uint8_t> ReadUpTo(int fd, uint64_t off, size_t len);
// The whole content of the file at `path` (empty when it cannot be read).
std::vector<uint8_t> FileBytes(const std::string& path);

// Writes `text` to a new (or emptied) plain file `leaf` in this test
// process's directory; returns its path.
std::string WritePlainFile(const std::string& leaf, const std::string& text);

// `n` bytes from a linear congruential sequence started by `seed` and
// `salt`: the same arguments give the same bytes.
std::vector<uint8_t> PseudoRandomBytes(size_t n, uint32_t seed, uint32_t salt);

// Whether `fd` is an open descriptor of this process.
bool DescriptorOpen(int fd);

// Closes for good every file this process keeps in the cold store, so that
// their descriptors and interests go (and a child forked next inherits none).
void CloseColdFiles();

// Sends descriptor `fd` (1 or 2) into a file of the test directory while it
// lives; Stop(), or the end of its life, flushes stdio, puts the descriptor
// back and returns what was written to it.
class CapturedOutput {
 public:
  explicit CapturedOutput(int fd);
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  std::string Stop();

 private:
  int fd_;
  int saved_ = -1;
  std::string path_;
  std::string text_;
};

// What `fn` wrote to descriptor `fd` (1 or 2).
std::string WrittenTo(int fd, const std::function<void()>& fn);

// ---- locks seen from another process ---------------------------------------------------

// Asks from a forked child, through a descriptor of its own (F_OFD_GETLK),
// whether a write lock on [start, start + len) of the file at `path` would
// conflict with a lock someone holds: 1 locked, 0 free, 2 when the child
// cannot open the file, 3 when the probe itself fails.
int LockStateElsewhere(const std::string& path, off_t start, off_t len);
// Whether a forked child, through a descriptor of its own, can take an
// exclusive lock on [off, off + len) of the file at `path` at once (so that
// nothing in this process still holds it).
bool LockableElsewhere(const std::string& path, uint32_t off, uint32_t len);

// ---- logged messages --------------------------------------------------------------------

struct LogEntry {
  int level = 0;
  int group = 0;
  int reason = 0;
};

// Records every message passed to the log hook while it exists; puts the
// previous hook back when it goes.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  const std::vector<LogEntry>& Entries() const;
  // Whether a message of `reason` (in any group) was logged.
  bool SawReason(int reason) const;

 private:
  er_LogHook previous_ = nullptr;
};

// ---- records of a file ---------------------------------------------------------------------

// A new container file, open through its base handle, and its reference.
struct OpenContainer {
  int32_t bh = -1;
  sfl_ItemRef ref{};
};
OpenContainer NewContainer();

// This process's record of a file, if the file is open here and not cold.
sfl_BaseRec* OpenRecordOf(const sfl_ItemRef& fileRef);

// Slot `n` of the item table of an open file, as sfl_ListItems reports it.
sfl_ItemInfo SlotOf(int32_t baseHandle, uint32_t n);
// The file header of an open file.
sfl_FileHeader FileHeaderOf(int32_t baseHandle);
// The free map of an open file, as the library reads it.
std::vector<uint8_t> FreeMapOf(int32_t baseHandle);
// Rewrites an open item's header through its record, under the header lock.
void EditHeader(int32_t itemHandle, const std::function<void(sfl_ItemHeader&)>& edit);

// A container holding one simple item of 512 bytes, both open: the item
// serves as the parent of internal items. Raw views read the container's
// bytes through its descriptor.
class ParentItemTest : public ::testing::Test {
 protected:
  void SetUp() override;

  sfl_ItemRec* Rec(int32_t h) { return sfl_ItemHandle2Record(h); }
  std::vector<uint8_t> Raw(uint64_t off, size_t len) { return ReadExactly(fd_, off, len); }
  // The item header stored at `off`.
  sfl_ItemHeader Header(uint32_t off);
  // The on-disk free map.
  std::vector<uint8_t> Map();
  std::string FilePath() { return ItemPath(fileRef_); }
  // Whether another process can take an exclusive lock on the range at once
  // (so that nothing in this process still holds it).
  bool LockableElsewhere(uint32_t off, uint32_t len) { return sfltest::LockableElsewhere(FilePath(), off, len); }

  int32_t base_ = -1, parent_ = -1;
  sfl_BaseRec* rec_ = nullptr;
  int fd_ = -1;
  sfl_ItemRef parentRef_{}, fileRef_{};
};

// ---- processes ----------------------------------------------------------------------------------

// A one-way signal between a parent and a forked child (aborts on failure).
class Gate {
 public:
  Gate();
  ~Gate();
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;
  void Open();
  void Wait();

 private:
  int fds_[2];
};

// Polls `cond` every 10 ms for at most `seconds`; true as soon as it holds.
bool Eventually(const std::function<bool()>& cond, int seconds = 10);
// Exit status of a child of this process (128 + signal when killed),
// waiting at most `seconds`; -1 while it still runs.
int ExitWithin(pid_t pid, int seconds = 10);

// The processes whose parent is `parent`.
std::vector<pid_t> ChildrenOf(pid_t parent);
// A process's state letter ('Z' for one that has ended and waits to be
// reaped, 'T' for a stopped one; 0 when there is no such process).
char ProcessState(pid_t pid);

// ---- message queues ----------------------------------------------------------------------

// Whether the System V message queue `q` exists.
bool QueueExists(int q);
// The number of messages waiting on queue `q` (0 when it does not exist).
size_t QueueDepth(int q);

}  // namespace sfltest

#endif  // SFL_TEST_UTIL_H
