// `sfl check`: the integrity check over one container, several, or every
// container under the store root. The library prints each fault as a line
// on standard output; the tool runs each check with standard output (and,
// for --json, standard error) sent to a temporary file, then shows the lines
// under the container's path, or as one JSON object per container.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
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

void PrintHuman(const Outcome& o) {
  for (const std::string& line : SplitLines(o.dump)) {
    if (IsFaultLine(line))
      std::printf("%s: %s\n", o.path.c_str(), line.c_str());
    else
      std::printf("%s\n", line.c_str());
  }
  std::printf("%s: %s\n", o.path.c_str(), o.result == 0 ? "ok" : "faults found");
}

void PrintJson(const Outcome& o, bool dump) {
  std::string s = "{\"path\": " + JsonString(o.path) + ", \"result\": " + std::to_string(o.result) +
                  ", \"faults\": [";
  for (size_t i = 0; i < o.faults.size(); ++i) s += (i ? ", " : "") + JsonString(o.faults[i]);
  s += "], \"errors\": [";
  for (size_t i = 0; i < o.errors.size(); ++i) s += (i ? ", " : "") + JsonString(o.errors[i]);
  s += "]";
  if (dump) s += ", \"dump\": " + JsonString(o.dump);
  s += "}\n";
  std::fputs(s.c_str(), stdout);
}

// Every container file under the store root, in path order.
std::vector<sfl_ItemRef> AllContainers() {
  namespace fs = std::filesystem;
  const std::string root = StoreRootText();
  std::vector<std::pair<std::string, sfl_ItemRef>> found;
  std::error_code ec;
  if (!fs::is_directory(root, ec)) throw Failure{"no store at " + root};
  for (fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end;
       !ec && it != end; it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    const std::string path = it->path().string();
    sfl_ItemRef ref{};
    // Only names the store itself gives its containers are checked;
    // anything else under the root (a file being rebuilt, say) is not.
    int group = 0;
    struct Ctx {
      const std::string* path;
      sfl_ItemRef* ref;
    } ctx{&path, &ref};
    auto parse = [](void* p) {
      auto* c = static_cast<Ctx*>(p);
      im_FName2ItemRef(c->path->c_str(), c->ref);
    };
    if (er_CallC(parse, &ctx, &group, nullptr) != 0) continue;
    if (ItemNumber(ref) != 0) continue;
    found.emplace_back(path, ref);
  }
  if (ec) throw Failure{"cannot walk the store at " + root + ": " + ec.message()};
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<sfl_ItemRef> refs;
  for (const auto& f : found) refs.push_back(f.second);
  return refs;
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

int RunCheck(const Args& args) {
  const bool all = args.Has("all");
  const bool repair = args.Has("repair");
  const bool json = args.Has("json");
  const bool dump = args.Has("dump");
  if (all && !args.positional.empty()) throw UsageError{"--all checks every container; name none with it"};
  if (!all && args.positional.empty()) throw UsageError{"name a container, or give --all"};

  std::vector<sfl_ItemRef> refs;
  if (all) {
    refs = AllContainers();
  } else {
    for (const std::string& text : args.positional) refs.push_back(ParseContainerRef(text));
    SetSubject("");
  }

  Progress progress(refs.size(), all && !json);
  size_t faulty = 0;
  for (size_t i = 0; i < refs.size(); ++i) {
    progress.Show(i, faulty);
    Outcome o = CheckOne(refs[i], repair, json, dump);
    progress.Clear();
    if (o.result != 0) ++faulty;
    if (json)
      PrintJson(o, dump);
    else
      PrintHuman(o);
    std::fflush(stdout);
  }
  progress.Show(refs.size(), faulty);
  progress.Clear();
  if (!json && (all || refs.size() > 1))
    std::printf("%zu container%s checked, %zu with faults\n", refs.size(), refs.size() == 1 ? "" : "s", faulty);
  return faulty == 0 ? kExitOk : kExitFailure;
}

}  // namespace

const std::vector<Command>& CheckCommands() {
  static const std::vector<Command> kCommands = {
      {"check",
       "[--repair] [--json] [--dump] <container>... | --all",
       "check containers for damage, and repair what can be",
       "Reads each container's header, item headers, internal containers and index\n"
       "trees, works out which 128-byte blocks they occupy and compares that with the\n"
       "container's free map. Each finding is one line, '<path>: SFL-204-<n>: <text>',\n"
       "then '<path>: ok' or '<path>: faults found'. A line about blocks marked in use\n"
       "that nothing uses (SFL-204-1037) is shown but is not a fault.\n"
       "With --repair the check mends what it can (free-map bits, index counts and\n"
       "links, items whose space is lost are marked deleted), but only when no other\n"
       "process has the container open; otherwise it says so and changes nothing.\n"
       "With --all every container under the store root is checked, with a progress\n"
       "line on a terminal and a summary at the end.\n"
       "Exit status: 0 when no container has a fault, 1 when any has or a check\n"
       "failed, 2 for bad usage.\n",
       {{"repair", 0, false, "repair what can be repaired (only when the file is not in use)"},
        {"json", 0, false, "one JSON object per container: path, result, faults, errors"},
        {"dump", 0, false, "also dump the headers and index records read"},
        {"all", 'a', false, "check every container under the store root"}},
       0,
       -1,
       RunCheck},
  };
  return kCommands;
}

}  // namespace cli
