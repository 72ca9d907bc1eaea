// Shared pieces of the `sfl` command-line tool: the command table, argument
// parsing, the two kinds of user-facing failure, naming items by reference
// or path, scoped container and item handles, and small output helpers.
// The tool uses the library's public interface only: its C++ form (sfl.hpp)
// for what it opens, reads, writes and closes, and sfl.h and er.h besides.
#ifndef SFL_TOOL_CLI_H
#define SFL_TOOL_CLI_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "er.h"
#include "sfl.h"
#include "sfl.hpp"

namespace cli {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnreadable = 3;  // something of the store could not be read

// The unit in which containers hand out space.
constexpr uint64_t kBlockBytes = 128;

// A bad command line: printed as one line, exit status 2.
struct UsageError {
  std::string message;
};
// A failure that is not a library escape: printed as one line, exit status 1
// unless another is given.
struct Failure {
  std::string message;
  int status = kExitFailure;
};
// A system call on a file failed: its errno, the file and what was being
// done ("reading", "opening"); `inStore` when the file is the store's.
struct SystemFailure {
  int err;
  std::string path;
  std::string doing;
  bool inStore = false;
};

struct OptSpec {
  const char* name;  // long name without dashes, e.g. "json"
  char shortName;    // 0 when there is none
  bool takesValue;
  const char* help;
};

struct Args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;  // long name -> value ("" for flags)

  bool Has(const std::string& name) const { return options.count(name) != 0; }
  std::string Get(const std::string& name, const std::string& fallback = "") const {
    auto it = options.find(name);
    return it == options.end() ? fallback : it->second;
  }
};

struct Command {
  const char* name;      // "put", or "blocks read" for a subcommand
  const char* synopsis;  // arguments after the name
  const char* summary;   // one line for the command list
  const char* details;   // the body of `--help`
  std::vector<OptSpec> options;
  int minArgs;
  int maxArgs;  // -1: no limit
  int (*run)(const Args&);
};

// The command tables of the source files that implement them.
const std::vector<Command>& ItemCommands();
const std::vector<Command>& StreamCommands();
const std::vector<Command>& BlockCommands();
const std::vector<Command>& ServiceCommands();
const std::vector<Command>& CheckCommands();
const std::vector<Command>& CompactCommands();
const std::vector<Command>& DumpCommands();
const std::vector<Command>& StatsCommands();
const std::vector<Command>& BackupCommands();
const std::vector<Command>& ImportCommands();

// Parses the words after the command name. Returns false when `--help` was
// given (the caller prints the help). Throws UsageError.
bool ParseArgs(const Command& cmd, const std::vector<std::string>& words, Args* out);
void PrintCommandHelp(const Command& cmd);

// ---- manual pages (cli_man.cpp) ----------------------------------------------
// A command's examples ("$ ..." lines and their output), or null.
const char* ExamplesOf(const Command& cmd);
// What a command's exit statuses mean, on one line.
std::string ExitStatusOf(const Command& cmd);
// Writes sfl.1 and one sfl-<command>.1 per command into `dir`; `overview`
// is the general description that `sfl --help` shows.
void WriteManPages(const std::string& dir, const std::vector<const Command*>& all,
                   const std::string& overview);

// The operand that the running command works on, shown in error lines.
void SetSubject(const std::string& subject);
const std::string& Subject();
// The reference the running command works on: its text becomes the subject
// and its path, with the store root, goes into error lines.
void SetSubjectRef(const sfl_ItemRef& ref);
void ForgetSubjectRef();

// ---- errors (cli_error.cpp) ---------------------------------------------------
// Runs a command and turns whatever it throws into one line on standard
// error and an exit status; the one place every failure is worded.
int Report(const std::string& command, const std::function<int()>& run);
// "error G/R: <text>: <path> (store root ...); <what to do>" for an escape
// about the current subject.
std::string DescribeEscape(int group, int reason);
std::string DescribeSystem(const SystemFailure& f);
// The system's text for an errno on `path`, then what to do where there is
// something to do.
std::string ErrnoText(int err, const std::string& path, bool inStore);
// The interest service's run directory; why the service cannot be used from
// it; whether it is a directory of this user's that the tool may use; and
// "owner <user>, mode <octal>" of a path.
std::string ServiceRunDir();
std::string ServiceAdvice();
bool RunDirIsOurs();
std::string OwnerAndMode(const std::string& path);

// ---- naming ---------------------------------------------------------------
// Accepts the text form of a reference or a container path (optionally
// followed by ":<item>"). Throws UsageError when it is neither.
sfl_ItemRef ParseRef(const std::string& text);
sfl_ItemRef ParseItemRef(const std::string& text);       // must name an item
sfl_ItemRef ParseContainerRef(const std::string& text);  // must name a container
// Parses as ParseItemRef, but returns false (instead of throwing) for text
// that names no item, so callers can fall back to plain files.
bool TryParseItemRef(const std::string& text, sfl_ItemRef* out);
std::string RefText(const sfl_ItemRef& ref);
std::string RefPath(const sfl_ItemRef& ref);
// The store root as the library names it (SFL_STORE_ROOT, else ./sfl-store).
std::string StoreRootText();
sfl_ItemRef ContainerOf(const sfl_ItemRef& ref);
// A container file of the store, or a directory under the store root that
// could not be read (`unreadable` says why; its containers are unknown).
struct StoreEntry {
  std::string path;
  sfl_ItemRef ref{};
  std::string unreadable;
};
// Every container file under the store root, in path order, with the
// directories that could not be read. Throws Failure (kExitUnreadable) when
// the store root itself is missing or no directory.
// `leftovers`, when given, receives the scratch files of rebuilds that did
// not finish ("<container path>#.new", plain files) found on the way.
std::vector<StoreEntry> StoreContainers(std::vector<std::string>* leftovers = nullptr);
inline uint32_t ItemNumber(const sfl_ItemRef& ref) { return ref.Flags & SFL_ITEM_NUM_MASK; }

// Bytes of a container file that neither the header, the item table nor any
// item (the free map included) holds: what a compaction would give back.
uint64_t HoleBytes(uint64_t fileSize, const std::vector<sfl_ItemInfo>& slots);

// What waits for an item deleted while another process holds its container.
std::string PendingNote();

// ---- scoped handles --------------------------------------------------------
// Items, blocked items and streams are the library's own owners (sfl.hpp).
// Their destructors run while an earlier error is on its way out; the tool
// has them drop a close that fails there without a word (see
// ForgetFailedClose), so that the one error line is the first error's.
void ForgetFailedClose(const sfl::Escape& failure, const char* what, int32_t handle);

// Closes now. A close that fails is reported (raised) once and the handle
// given up, not tried again: the command ends with that failure.
template <class Owner>
void CloseOnce(Owner& owner) {
  try {
    owner.Close();
  } catch (...) {
    owner.Release();
    throw;
  }
}

// An open container. Close() closes it and reports errors; the destructor
// closes what is still open and swallows errors. The library removes a
// container that holds no item at its last close; a container that held
// none when the tool opened it and holds none still is left unclosed (the
// process ends soon after), so that looking at an empty container never
// removes it.
class Container {
 public:
  explicit Container(const sfl_ItemRef& ref);
  // Takes over a container the library already opened (creation).
  Container(const sfl_ItemRef& ref, sfl::Container adopted)
      : ref_(ContainerOf(ref)), base_(std::move(adopted)) {}
  ~Container();
  Container(const Container&) = delete;
  Container& operator=(const Container&) = delete;

  int32_t handle() const { return base_.Handle(); }
  const sfl_ItemRef& ref() const { return ref_; }
  void Close();
  // Every slot of the item table, slot 0 (the free map) included.
  std::vector<sfl_ItemInfo> Slots() const { return base_.Items(); }
  // One slot; throws Failure when the container has no such slot, it is
  // free (the item was deleted, or never stored) or its item is deleted and
  // waits for the last close of the container.
  sfl_ItemInfo UsedSlot(uint32_t item) const;
  // Whether any of slots 1 to 7 holds an item (a deleted one included).
  bool HoldsItems() const;
  // The container's own flags (its file header's).
  uint32_t Flags() const { return base_.Flags(); }
  // A new simple item of `size` bytes, left for the caller to fill; not
  // open when the container has no free slot.
  sfl::Item NewItem(uint32_t size) { return base_.NewItem(size, /*zeroFill=*/false); }
  // The same in slot `slot`; not open when the slot is taken.
  sfl::Item NewItemAt(uint32_t slot, uint32_t size) {
    return base_.NewItemAt(slot, size, /*zeroFill=*/false);
  }
  sfl::BlockedItem NewBlockedItem() { return base_.NewBlockedItem(); }

 private:
  // Gives the handle up unclosed when the container stays open for being
  // empty; returns whether it did.
  bool KeptOpenForBeingEmpty();

  sfl_ItemRef ref_;
  sfl::Container base_;
  bool emptyAtOpen_ = false;
};

// Opens an item or a blocked item by its reference.
inline sfl::Item OpenItem(const sfl_ItemRef& ref) { return sfl::Item::Open(sfl::Ref(ref)); }
inline sfl::BlockedItem OpenBlockedItem(const sfl_ItemRef& ref) {
  return sfl::BlockedItem::Open(sfl::Ref(ref));
}

// ---- output -----------------------------------------------------------------
std::string FormatTime(uint32_t seconds);  // ISO 8601, UTC
std::vector<std::string> ItemFlagNames(uint32_t flags);
// The names of a container's own flags (its file header's).
std::vector<std::string> FileFlagNames(uint32_t flags);
std::string JoinFlags(uint32_t flags);  // "BLOCKED_ITEM|DELETED", or "-"
std::string JsonString(const std::string& s);
std::string JsonFlags(uint32_t flags);  // ["BLOCKED_ITEM", ...]

// ---- input and output -------------------------------------------------------
void WriteAll(int fd, const void* data, size_t len);
std::string ReadAll(int fd);
// Parses a non-negative decimal number that fits `max`; UsageError otherwise.
uint64_t ParseNumber(const std::string& text, const std::string& what, uint64_t max);

// Where a command's data goes: standard output, or the file of `-o`, which is
// removed again when the command fails before Finish().
class Output {
 public:
  explicit Output(const std::string& path);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(const void* data, size_t len) { WriteAll(fd_, data, len); }
  void Finish();

 private:
  std::string path_;
  int fd_ = 1;
  bool finished_ = false;
};

// A progress line on standard error for a transfer of `total` bytes, when
// standard error is a terminal and the transfer is over a few megabytes:
// "<verb> N of M MiB", rewritten in place and cleared at the end.
class TransferProgress {
 public:
  TransferProgress(const char* verb, uint64_t total);
  ~TransferProgress();
  TransferProgress(const TransferProgress&) = delete;
  TransferProgress& operator=(const TransferProgress&) = delete;
  void Show(uint64_t done);

 private:
  const char* verb_;
  uint64_t total_;
  bool on_;
  uint64_t shownMiB_ = UINT64_MAX;
};

// ---- files and child processes ---------------------------------------------------
// Makes a directory and its parents; SystemFailure when it cannot.
void MakeDirs(const std::string& dir);
// The directory part of a path ("." when there is none).
std::string ParentDir(const std::string& path);
// Runs this program with `args` and the environment changes; what it prints
// (both streams) is given back in `output`. Returns its exit status.
int RunSelf(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
            std::string* output);

// ---- blocked items ------------------------------------------------------------
// Calls `fn` for every block of a blocked item numbered `first` to `last`, in
// order, skipping freed and never-written numbers.
void ForEachBlock(const sfl::BlockedItem& item,
                  const std::function<void(uint32_t, const std::string&)>& fn, uint32_t first = 0,
                  uint32_t last = UINT32_MAX);

}  // namespace cli

#endif  // SFL_TOOL_CLI_H
