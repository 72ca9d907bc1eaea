// `sfl check`: the integrity check over one container, several, or every
// container under the store root. The library prints each fault as a line
// on standard output; the tool runs each check with standard output (and,
// for --json, standard error) sent to a temporary file, then shows the lines
// under the container's path, or as one JSON object per container.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "cli.h"

namespace cli {
namespace {

// Sends a descriptor to a temporary file until Stop(), which gives back
// what was written.
class Redirect {
 public:
  explicit Redirect(int fd) : fd_(fd) {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/sfl-check-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    tmp_ = mkstemp(name.data());
    if (tmp_ < 0) throw Failure{"cannot make a temporary file in " + pattern.substr(0, pattern.rfind('/'))};
    unlink(name.data());
    std::fflush(fd_ == 1 ? stdout : stderr);
    saved_ = dup(fd_);
    dup2(tmp_, fd_);
  }
  ~Redirect() { Stop(); }
  Redirect(const Redirect&) = delete;
  Redirect& operator=(const Redirect&) = delete;

  std::string Stop() {
    if (saved_ < 0) return text_;
    std::fflush(fd_ == 1 ? stdout : stderr);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
    lseek(tmp_, 0, SEEK_SET);
    text_ = ReadAll(tmp_);
    close(tmp_);
    return text_;
  }

 private:
  int fd_;
  int tmp_ = -1;
  int saved_ = -1;
  std::string text_;
};

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

bool IsFaultLine(const std::string& line) { return line.compare(0, 4, "SFL-") == 0; }

// The check's line for one free-map byte that marks blocks in use that
// nothing uses: "SFL-204-1037: free-map byte B is 0xD but only 0xU is in
// use: ...". Gives the byte and the number of such blocks it marks.
bool UnusedMarks(const std::string& line, unsigned* byte, unsigned* blocks) {
  unsigned disk = 0, used = 0;
  if (std::sscanf(line.c_str(), "SFL-204-1037 free-map byte %u is 0x%x but only 0x%x", byte, &disk,
                  &used) != 3 &&
      std::sscanf(line.c_str(), "SFL-204-1037: free-map byte %u is 0x%x but only 0x%x", byte, &disk,
                  &used) != 3)
    return false;
  *blocks = static_cast<unsigned>(__builtin_popcount(disk & ~used & 0xffu));
  return true;
}

// A truncated container gives one such line per byte of its free map; runs
// of consecutive bytes are shown as one line each.
std::vector<std::string> GroupUnusedMarks(const std::vector<std::string>& lines) {
  std::vector<std::string> out;
  for (size_t i = 0; i < lines.size();) {
    unsigned first = 0, blocks = 0;
    if (!UnusedMarks(lines[i], &first, &blocks)) {
      out.push_back(lines[i++]);
      continue;
    }
    size_t j = i + 1;
    unsigned last = first, b = 0, next = 0;
    while (j < lines.size() && UnusedMarks(lines[j], &next, &b) && next == last + 1) {
      last = next;
      blocks += b;
      ++j;
    }
    if (j == i + 1) {
      out.push_back(lines[i]);
    } else {
      const std::string prefix = lines[i].substr(0, lines[i].find(' '));
      out.push_back(prefix + " free-map bytes " + std::to_string(first) + " to " +
                    std::to_string(last) + " mark " + std::to_string(blocks) +
                    " blocks (128 bytes each, from block " + std::to_string(first * 8u) +
                    ") in use that nothing uses");
    }
    i = j;
  }
  return out;
}

// Why a container file cannot be checked at all, or "" when it can be
// read (a repair of a file that may not be written is the check's to refuse).
std::string Unreadable(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    return ErrnoText(errno, path, true);
  }
  if (S_ISDIR(st.st_mode)) return "a directory, not a container file";
  if (!S_ISREG(st.st_mode)) return "not a regular file, so not a container file";
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return ErrnoText(errno, path, true);
  }
  close(fd);
  return "";
}

struct Outcome {
  std::string path;
  int32_t result = 1;
  std::vector<std::string> faults;  // the check's numbered lines
  std::vector<std::string> errors;  // what the check showed on standard error (--json)
  std::string dump;                 // the dump output (--json --dump)
};

// Runs the check on one container with its output captured.
Outcome CheckOne(const sfl_ItemRef& ref, bool repair, bool json, bool dump) {
  Outcome o;
  o.path = RefPath(ref);
  std::string out, err;
  FILE* dumpStream = nullptr;
  if (dump && json) dumpStream = std::tmpfile();
  {
    Redirect capOut(1);
    std::unique_ptr<Redirect> capErr;
    if (json) capErr = std::make_unique<Redirect>(2);
    // Without --json the dumps go to standard output, in order with the
    // fault lines they belong to.
    if (dump && !json) dumpStream = stdout;
    try {
      o.result = sfl_CheckSflIntegrity2(&ref, repair ? 1 : 0, dumpStream);
    } catch (const er_Escape& e) {
      // Raised before the check's own frame (the reference itself is bad).
      std::fprintf(stderr, "error %d/%d: %s\n", e.group(), e.reason(), er_ReasonText(e.group(), e.reason()));
      er_Clear();
      o.result = 1;
    }
    if (capErr) err = capErr->Stop();
    out = capOut.Stop();
  }
  if (dumpStream != nullptr && dumpStream != stdout) {
    std::fflush(dumpStream);
    std::rewind(dumpStream);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, dumpStream)) > 0) o.dump.append(buf, n);
    std::fclose(dumpStream);
  }
  if (json) {
    for (const std::string& l : SplitLines(out))
      if (IsFaultLine(l)) o.faults.push_back(l);
    o.errors = SplitLines(err);
  } else {
    o.dump = out;  // fault lines and dumps, in order
    for (const std::string& l : SplitLines(out))
      if (IsFaultLine(l)) o.faults.push_back(l);
  }
  return o;
}

bool IsUnusedMarkLine(const std::string& line) { return line.compare(0, 12, "SFL-204-1037") == 0; }

// The fault lines under the container's path (runs of unused-mark lines as
// one), dumps as they are, then the verdict. --quiet leaves out what is not
// a fault: the unused marks and "ok".
void PrintHuman(const Outcome& o, bool quiet) {
  for (const std::string& line : GroupUnusedMarks(SplitLines(o.dump))) {
    if (quiet && (IsUnusedMarkLine(line) || !IsFaultLine(line))) continue;
    if (IsFaultLine(line))
      std::printf("%s: %s\n", o.path.c_str(), line.c_str());
    else
      std::printf("%s\n", line.c_str());
  }
  if (!quiet || o.result != 0)
    std::printf("%s: %s\n", o.path.c_str(), o.result == 0 ? "ok" : "faults found");
}

std::string JsonList(const std::vector<std::string>& items) {
  std::string s = "[";
  for (size_t i = 0; i < items.size(); ++i) s += (i ? ", " : "") + JsonString(items[i]);
  return s + "]";
}

void PrintJson(const Outcome& o, bool dump, bool repair, const std::vector<std::string>& repaired) {
  std::string s = "{\"path\": " + JsonString(o.path) + ", \"result\": " + std::to_string(o.result) +
                  ", \"faults\": " + JsonList(GroupUnusedMarks(o.faults)) +
                  ", \"errors\": " + JsonList(o.errors);
  if (repair) s += ", \"repaired\": " + JsonList(repaired);
  if (dump) s += ", \"dump\": " + JsonString(o.dump);
  s += "}\n";
  std::fputs(s.c_str(), stdout);
}

// The progress line on a terminal: rewritten in place, cleared at the end.
class Progress {
 public:
  Progress(size_t total, bool on) : total_(total), on_(on && isatty(2) == 1) {}
  void Show(size_t done, size_t faulty) {
    if (!on_) return;
    std::fprintf(stderr, "\r\033[Kchecked %zu of %zu containers, %zu with faults", done, total_, faulty);
    std::fflush(stderr);
  }
  void Clear() {
    if (!on_) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
  }

 private:
  size_t total_;
  bool on_;
};

// What a repair changed: the faults the check found before that a second,
// looking-only check no longer finds. A repair refused because another
// process holds the file changed nothing.
std::vector<std::string> Repaired(const StoreEntry& t, const Outcome& before, bool json) {
  std::vector<std::string> fixed;
  for (const std::string& f : before.faults)
    if (f.compare(0, 12, "SFL-204-1029") == 0) return fixed;
  const Outcome after = CheckOne(t.ref, false, json, false);
  for (const std::string& f : before.faults) {
    if (IsUnusedMarkLine(f)) continue;
    if (std::find(after.faults.begin(), after.faults.end(), f) == after.faults.end())
      fixed.push_back(f);
  }
  return fixed;
}

// A rebuild writes its new file under the scratch name and renames it over
// the container; one that did not finish (a crash, a power cut) leaves the
// scratch file, which holds nothing the container needs. It is not checked
// as a container: it is reported with what to do about it.
void ReportLeftover(const std::string& path, bool json) {
  const std::string container = path.substr(0, path.size() - std::string("#.new").size());
  const std::string advice = "`sfl compact` of the container removes it as it rebuilds, or remove it "
                             "yourself once no process has " + container + " open";
  if (json)
    std::printf("{\"path\": %s, \"leftover_of\": %s, \"advice\": %s}\n", JsonString(path).c_str(),
                JsonString(container).c_str(), JsonString(advice).c_str());
  else
    std::printf("%s: leftover of a rebuild of %s that did not finish: %s\n", path.c_str(),
                container.c_str(), advice.c_str());
}

int RunCheck(const Args& args) {
  const bool all = args.Has("all");
  const bool repair = args.Has("repair");
  const bool json = args.Has("json");
  const bool dump = args.Has("dump");
  const bool quiet = args.Has("quiet");
  if (all && !args.positional.empty()) throw UsageError{"--all checks every container; name none with it"};
  if (!all && args.positional.empty()) throw UsageError{"name a container, or give --all"};

  std::vector<StoreEntry> targets;
  std::vector<std::string> leftovers;
  if (all) {
    targets = StoreContainers(&leftovers);
  } else {
    for (const std::string& text : args.positional) {
      const sfl_ItemRef ref = ParseContainerRef(text);
      targets.push_back(StoreEntry{RefPath(ref), ref, ""});
      // A rebuild's scratch name: the container's path and "#.new".
      const std::string scratch = RefPath(ref) + "#.new";
      struct stat st;
      if (lstat(scratch.c_str(), &st) == 0 && S_ISREG(st.st_mode)) leftovers.push_back(scratch);
    }
    SetSubject("");
    ForgetSubjectRef();
  }

  Progress progress(targets.size(), all && !json);
  size_t faulty = 0;
  size_t unreadable = 0;
  for (size_t i = 0; i < targets.size(); ++i) {
    StoreEntry& t = targets[i];
    progress.Show(i, faulty);
    if (t.unreadable.empty()) t.unreadable = Unreadable(t.path);
    if (!t.unreadable.empty()) {
      progress.Clear();
      ++unreadable;
      if (json)
        std::printf("{\"path\": %s, \"result\": %d, \"unreadable\": %s}\n", JsonString(t.path).c_str(),
                    kExitUnreadable, JsonString(t.unreadable).c_str());
      else
        std::printf("%s: cannot be read: %s\n", t.path.c_str(), t.unreadable.c_str());
      std::fflush(stdout);
      continue;
    }
    Outcome o = CheckOne(t.ref, repair, json, dump);
    std::vector<std::string> repaired;
    if (repair && o.result != 0) repaired = Repaired(t, o, json);
    progress.Clear();
    if (o.result != 0) ++faulty;
    if (json) {
      PrintJson(o, dump, repair, repaired);
    } else {
      PrintHuman(o, quiet);
      for (const std::string& r : repaired) std::printf("%s: repaired: %s\n", o.path.c_str(), r.c_str());
    }
    std::fflush(stdout);
  }
  progress.Show(targets.size(), faulty);
  progress.Clear();
  for (const std::string& l : leftovers) ReportLeftover(l, json);
  if (!json && (all || targets.size() > 1)) {
    std::printf("%zu container%s checked, %zu with faults", targets.size() - unreadable,
                targets.size() - unreadable == 1 ? "" : "s", faulty);
    if (unreadable > 0) std::printf(", %zu could not be read", unreadable);
    std::printf("\n");
  }
  if (unreadable > 0) return kExitUnreadable;
  return faulty == 0 ? kExitOk : kExitFailure;
}

}  // namespace

const std::vector<Command>& CheckCommands() {
  static const std::vector<Command> kCommands = {
      {"check",
       "[--repair] [--json] [--dump] [--quiet] <container>... | --all",
       "check containers for damage, and repair what can be",
       "Reads each container's header, item headers, internal containers and index\n"
       "trees, works out which 128-byte blocks they occupy and compares that with the\n"
       "container's free map. Each finding is one line, '<path>: SFL-204-<n>: <text>',\n"
       "then '<path>: ok' or '<path>: faults found'. Blocks marked in use that nothing\n"
       "uses (SFL-204-1037) are shown, one line per run of free-map bytes, but are not\n"
       "a fault. A file that cannot be read at all (missing, a directory, no\n"
       "permission) gets one line '<path>: cannot be read: <why>' and no check.\n"
       "With --repair the check mends what it can (free-map bits, index counts and\n"
       "links, items whose space is lost are marked deleted), but only when no other\n"
       "process has the container open; otherwise it says so and changes nothing.\n"
       "Each fault mended is listed as '<path>: repaired: <fault>'.\n"
       "With --all every container under the store root is checked, with a progress\n"
       "line on a terminal and a summary at the end; a directory under the root that\n"
       "cannot be read counts as a container that could not be read.\n"
       "A rebuild that did not finish leaves '<container path>#.new' behind: it is\n"
       "not checked but reported, with what to do, on one line of its own.\n"
       "Exit status: 0 when no container has a fault, 1 when any has or a check\n"
       "failed, 3 when any could not be read, 2 for bad usage.\n",
       {{"repair", 0, false, "repair what can be repaired (only when the file is not in use)"},
        {"json", 0, false, "one JSON object per container: path, result, faults, errors"},
        {"dump", 0, false, "also dump the headers and index records read"},
        {"all", 'a', false, "check every container under the store root"},
        {"quiet", 'q', false, "print only faults and the summary"}},
       0,
       -1,
       RunCheck},
  };
  return kCommands;
}

}  // namespace cli
