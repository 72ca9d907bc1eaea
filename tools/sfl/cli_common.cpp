// The tool's shared helpers: argument parsing, naming items by reference or
// path, scoped container and item handles, and output formatting.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli.h"

namespace cli {
namespace {

std::string g_subject;

std::string Dashed(const OptSpec& o) {
  std::string s = "--" + std::string(o.name);
  if (o.shortName != 0) s = std::string("-") + o.shortName + ", " + s;
  if (o.takesValue) s += " <value>";
  return s;
}

const OptSpec* FindLong(const Command& cmd, const std::string& name) {
  for (const OptSpec& o : cmd.options)
    if (name == o.name) return &o;
  return nullptr;
}

const OptSpec* FindShort(const Command& cmd, char c) {
  for (const OptSpec& o : cmd.options)
    if (o.shortName == c) return &o;
  return nullptr;
}

[[noreturn]] void Usage(const Command& cmd, const std::string& what) {
  throw UsageError{what + " (see 'sfl " + cmd.name + " --help')"};
}

// Runs a name conversion of the library and reports whether it accepted
// the text; the escape it raises for bad text is not an error here.
bool Accepts(const std::function<void()>& fn) {
  try {
    fn();
    return true;
  } catch (const er_Escape&) {
    er_Clear();
    return false;
  }
}

// The store root as the library spells it, taken from the path of a
// reference with all-zero numbers ("<root>/0/0/0").
std::string Canonical(const std::string& path) {
  char buf[PATH_MAX];
  if (realpath(path.c_str(), buf) == nullptr) return std::string();
  return buf;
}

// A path written another way than the library writes it (absolute,
// "./x/../y", a symbolic link) is rewritten relative to the store root as the
// library spells it.
bool PathToRef(const std::string& text, sfl_ItemRef* out) {
  if (Accepts([&] { im_FName2ItemRef(text.c_str(), out); })) return true;
  std::string file = text;
  std::string suffix;
  size_t colon = text.rfind(':');
  if (colon != std::string::npos && colon + 1 < text.size() &&
      text.find_first_not_of("0123456789", colon + 1) == std::string::npos) {
    file = text.substr(0, colon);
    suffix = text.substr(colon);
  }
  const std::string rootText = StoreRootText();
  const std::string root = Canonical(rootText);
  const std::string real = Canonical(file);
  if (root.empty() || real.empty() || real.compare(0, root.size() + 1, root + "/") != 0)
    return false;
  const std::string rebuilt = rootText + real.substr(root.size()) + suffix;
  return Accepts([&] { im_FName2ItemRef(rebuilt.c_str(), out); });
}

}  // namespace

// ---- arguments ------------------------------------------------------------------

bool ParseArgs(const Command& cmd, const std::vector<std::string>& words, Args* out) {
  bool optionsEnd = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (optionsEnd || w == "-" || w.size() < 2 || w[0] != '-') {
      out->positional.push_back(w);
      continue;
    }
    if (w == "--") {
      optionsEnd = true;
      continue;
    }
    if (w == "--help" || w == "-h") return false;
    const OptSpec* o = nullptr;
    std::string value;
    bool hasInline = false;
    if (w.compare(0, 2, "--") == 0) {
      std::string name = w.substr(2);
      size_t eq = name.find('=');
      if (eq != std::string::npos) {
        value = name.substr(eq + 1);
        name.resize(eq);
        hasInline = true;
      }
      o = FindLong(cmd, name);
    } else if (w.size() == 2) {
      o = FindShort(cmd, w[1]);
    }
    if (o == nullptr) {
      // A negative number is an operand, not an option.
      if (w.find_first_not_of("-0123456789") == std::string::npos && w.size() > 1) {
        out->positional.push_back(w);
        continue;
      }
      Usage(cmd, "unknown option '" + w + "'");
    }
    if (o->takesValue && !hasInline) {
      if (i + 1 >= words.size()) Usage(cmd, "option '" + w + "' needs a value");
      value = words[++i];
    } else if (!o->takesValue && hasInline) {
      Usage(cmd, "option '--" + std::string(o->name) + "' takes no value");
    }
    out->options[o->name] = value;
  }
  const int n = static_cast<int>(out->positional.size());
  if (n < cmd.minArgs) Usage(cmd, "missing operand");
  if (cmd.maxArgs >= 0 && n > cmd.maxArgs)
    Usage(cmd, "unexpected operand '" + out->positional[static_cast<size_t>(cmd.maxArgs)] + "'");
  return true;
}

void PrintCommandHelp(const Command& cmd) {
  std::printf("usage: sfl %s %s\n\n%s\n", cmd.name, cmd.synopsis, cmd.summary);
  if (cmd.details != nullptr && *cmd.details != '\0') std::printf("\n%s", cmd.details);
  std::printf("\noptions:\n");
  for (const OptSpec& o : cmd.options) std::printf("  %-22s %s\n", Dashed(o).c_str(), o.help);
  std::printf("  %-22s %s\n", "-h, --help", "show this help");
  std::printf("\nexit status: %s\n", ExitStatusOf(cmd).c_str());
  if (const char* examples = ExamplesOf(cmd)) {
    std::printf("\nexamples:\n");
    for (const char* p = examples; *p != '\0';) {
      const char* end = std::strchr(p, '\n');
      const size_t n = end != nullptr ? static_cast<size_t>(end - p) : std::strlen(p);
      std::printf("  %.*s\n", static_cast<int>(n), p);
      p += n + (end != nullptr ? 1 : 0);
    }
  }
}

void SetSubject(const std::string& subject) { g_subject = subject; }
const std::string& Subject() { return g_subject; }

// ---- naming ----------------------------------------------------------------------

sfl_ItemRef ParseRef(const std::string& text) {
  sfl_ItemRef ref{};
  if (!text.empty() &&
      (Accepts([&] { im_FormItemRef(text.c_str(), &ref); }) || PathToRef(text, &ref))) {
    SetSubjectRef(ref);
    return ref;
  }
  throw UsageError{"'" + text +
                   "' is neither a reference (DOMAIN.SUBDOMAIN.FILEID[.NAME][:ITEM]) nor a "
                   "container path in the store"};
}

sfl_ItemRef ParseItemRef(const std::string& text) {
  sfl_ItemRef ref = ParseRef(text);
  if (ItemNumber(ref) == 0)
    throw UsageError{"names a container; add ':<item>' to name one of its items"};
  return ref;
}

sfl_ItemRef ParseContainerRef(const std::string& text) {
  sfl_ItemRef ref = ParseRef(text);
  if (ItemNumber(ref) != 0)
    throw UsageError{"names an item; give its container (without ':<item>')"};
  return ref;
}

bool TryParseItemRef(const std::string& text, sfl_ItemRef* out) {
  sfl_ItemRef ref{};
  if (text.empty()) return false;
  if (!Accepts([&] { im_FormItemRef(text.c_str(), &ref); }) && !PathToRef(text, &ref)) return false;
  if (ItemNumber(ref) == 0) return false;
  SetSubjectRef(ref);
  *out = ref;
  return true;
}

std::string RefText(const sfl_ItemRef& ref) {
  char buf[128];
  int32_t n = im_ItemRef2Text(&ref, buf, sizeof buf);
  return std::string(buf, static_cast<size_t>(n));
}

std::string RefPath(const sfl_ItemRef& ref) {
  char buf[PATH_MAX + 16];
  int32_t n = im_ItemRef2FName(&ref, buf, sizeof buf);
  return std::string(buf, static_cast<size_t>(n));
}

std::string StoreRootText() {
  sfl_ItemRef zero{};
  std::string p = RefPath(zero);
  const std::string tail = "/0/0/0";
  if (p.size() >= tail.size() && p.compare(p.size() - tail.size(), tail.size(), tail) == 0)
    p.resize(p.size() - tail.size());
  return p;
}

sfl_ItemRef ContainerOf(const sfl_ItemRef& ref) {
  sfl_ItemRef c = ref;
  c.Flags = static_cast<uint16_t>(c.Flags & ~SFL_ITEM_NUM_MASK);
  return c;
}

std::vector<StoreEntry> StoreContainers(std::vector<std::string>* leftovers) {
  namespace fs = std::filesystem;
  const std::string root = StoreRootText();
  struct stat st;
  if (stat(root.c_str(), &st) != 0)
    throw Failure{"cannot read the store root " + root + ": " + ErrnoText(errno, root, true),
                  kExitUnreadable};
  if (!S_ISDIR(st.st_mode))
    throw Failure{"the store root " + root + " is not a directory", kExitUnreadable};
  std::vector<StoreEntry> found;
  std::vector<std::string> dirs = {root};
  while (!dirs.empty()) {
    const std::string dir = dirs.back();
    dirs.pop_back();
    std::error_code ec;
    fs::directory_iterator it(dir, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
      const std::string path = it->path().string();
      std::error_code tec;
      if (it->is_directory(tec)) {
        dirs.push_back(path);
        continue;
      }
      if (!it->is_regular_file(tec)) continue;
      // Only names the store itself gives its containers count; anything
      // else under the root (a file being rebuilt, say) does not.
      sfl_ItemRef ref{};
      if (!Accepts([&] { im_FName2ItemRef(path.c_str(), &ref); }) || ItemNumber(ref) != 0) {
        const std::string scratchTail = "#.new";
        const bool scratch = path.size() > scratchTail.size() &&
                             path.compare(path.size() - scratchTail.size(), scratchTail.size(), scratchTail) == 0;
        const std::string container = scratch ? path.substr(0, path.size() - scratchTail.size()) : "";
        if (leftovers != nullptr && scratch && !it->is_symlink(tec) &&
            Accepts([&] { im_FName2ItemRef(container.c_str(), &ref); }) && ItemNumber(ref) == 0)
          leftovers->push_back(path);
        continue;
      }
      found.push_back(StoreEntry{path, ref, ""});
    }
    if (ec)
      found.push_back(StoreEntry{dir, sfl_ItemRef{},
                                 "its containers cannot be listed: " + ErrnoText(ec.value(), dir, true)});
  }
  std::sort(found.begin(), found.end(),
            [](const StoreEntry& a, const StoreEntry& b) { return a.path < b.path; });
  if (leftovers != nullptr) std::sort(leftovers->begin(), leftovers->end());
  return found;
}

// ---- scoped handles -------------------------------------------------------------------

void ForgetFailedClose(const sfl::Escape&, const char*, int32_t) {}

// The tool opens containers with the implicit-open mark clear: closing the
// last item handle then leaves the container open, and the tool closes it
// itself, so that every close is done (and every close error reported) once.
Container::Container(const sfl_ItemRef& ref) : ref_(ContainerOf(ref)) {
  base_ = sfl::Container::Open(sfl::Ref(ref_));
  emptyAtOpen_ = !HoldsItems();  // a failure here closes what was opened
}

Container::~Container() {
  // What is still open after this is closed by base_'s own destructor.
  try {
    KeptOpenForBeingEmpty();
  } catch (const er_Escape&) {
    er_Clear();
    base_.Release();
  }
}

void Container::Close() {
  if (!base_.IsOpen() || KeptOpenForBeingEmpty()) return;
  CloseOnce(base_);
}

bool Container::KeptOpenForBeingEmpty() {
  if (!base_.IsOpen() || !emptyAtOpen_ || HoldsItems()) return false;
  base_.Release();  // stays open until the process ends
  return true;
}

bool Container::HoldsItems() const {
  std::vector<sfl_ItemInfo> slots = Slots();
  for (size_t i = 1; i < slots.size(); ++i)
    if (slots[i].InUse) return true;
  return false;
}

// Bytes of the file that neither the header, the item table nor any item
// (the free map included) holds: what a compaction would give back.
uint64_t HoleBytes(uint64_t fileSize, const std::vector<sfl_ItemInfo>& slots) {
  uint64_t held = kBlockBytes + (slots.size() * 64 + kBlockBytes - 1) / kBlockBytes * kBlockBytes;
  for (const sfl_ItemInfo& s : slots)
    if (s.InUse) held += uint64_t{s.UsedBlocks} * kBlockBytes;
  return fileSize > held ? fileSize - held : 0;
}

std::string PendingNote() {
  return "its space is freed when the last process holding the container closes it";
}

sfl_ItemInfo Container::UsedSlot(uint32_t item) const {
  std::vector<sfl_ItemInfo> slots = Slots();
  if (item >= slots.size())
    throw Failure{"the container has " + std::to_string(slots.size()) +
                  " slots; there is no item " + std::to_string(item)};
  if (!slots[item].InUse)
    throw Failure{"no item " + std::to_string(item) + ": it was deleted, or never stored (slot " +
                  std::to_string(item) + " is free)"};
  if (slots[item].Flags & DELETED)
    throw Failure{"item " + std::to_string(item) + " is deleted; " + PendingNote()};
  return slots[item];
}

// ---- output ----------------------------------------------------------------------------

std::string FormatTime(uint32_t seconds) {
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tmv;
  gmtime_r(&t, &tmv);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tmv);
  return buf;
}

namespace {

struct FlagName {
  uint32_t bit;
  const char* name;
};

// The names of the bits set in `flags`, in table order; bits the table does
// not know are shown together as one hexadecimal value.
template <size_t N>
std::vector<std::string> NamesOfBits(uint32_t flags, const FlagName (&table)[N]) {
  std::vector<std::string> names;
  uint32_t known = 0;
  for (const auto& n : table) {
    known |= n.bit;
    if (flags & n.bit) names.push_back(n.name);
  }
  if (flags & ~known) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", flags & ~known);
    names.push_back(buf);
  }
  return names;
}

}  // namespace

std::vector<std::string> ItemFlagNames(uint32_t flags) {
  static const FlagName kNames[] = {{BLOCKED_ITEM, "BLOCKED_ITEM"}, {HAS_INT_ITEM, "HAS_INT_ITEM"},
                                    {INT_ITEM, "INT_ITEM"},         {DELETED, "DELETED"},
                                    {OTHER_LOCKS, "OTHER_LOCKS"},   {MEM_FREEMAP, "MEM_FREEMAP"}};
  return NamesOfBits(flags, kNames);
}

std::vector<std::string> FileFlagNames(uint32_t flags) {
  static const FlagName kNames[] = {
      {SINGLE_FILE, "SINGLE_FILE"},         {ASYNCHRONOUS, "ASYNCHRONOUS"},
      {BEEN_COMPACTED, "BEEN_COMPACTED"},   {ITEM_PEND_DEL, "ITEM_PEND_DEL"},
      {NEED_COMPACTION, "NEED_COMPACTION"}, {HAS_BEEN_COMPACTED, "HAS_BEEN_COMPACTED"}};
  return NamesOfBits(flags, kNames);
}

std::string JoinFlags(uint32_t flags) {
  std::string s;
  for (const std::string& n : ItemFlagNames(flags)) s += (s.empty() ? "" : "|") + n;
  return s.empty() ? "-" : s;
}

std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string JsonFlags(uint32_t flags) {
  std::string s = "[";
  for (const std::string& n : ItemFlagNames(flags)) s += (s.size() > 1 ? ", " : "") + JsonString(n);
  return s + "]";
}

// ---- input and output -------------------------------------------------------------------

void WriteAll(int fd, const void* data, size_t len) {
  const char* p = static_cast<const char*>(data);
  while (len > 0) {
    ssize_t n = write(fd, p, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw SystemFailure{n < 0 ? errno : EIO, fd == 1 ? "standard output" : "output", "writing"};
    p += n;
    len -= static_cast<size_t>(n);
  }
}

std::string ReadAll(int fd) {
  std::string data;
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw SystemFailure{errno, fd == 0 ? "standard input" : "input", "reading"};
    if (n == 0) return data;
    data.append(buf, static_cast<size_t>(n));
  }
}

uint64_t ParseNumber(const std::string& text, const std::string& what, uint64_t max) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos)
    throw UsageError{"bad " + what + " '" + text + "' (a non-negative decimal number)"};
  errno = 0;
  unsigned long long v = std::strtoull(text.c_str(), nullptr, 10);
  if (errno != 0 || v > max)
    throw UsageError{what + " '" + text + "' is too large (at most " + std::to_string(max) + ")"};
  return v;
}

// Transfers below this size finish before a progress line would help.
constexpr uint64_t kProgressFrom = 4ull << 20;

TransferProgress::TransferProgress(const char* verb, uint64_t total)
    : verb_(verb), total_(total), on_(total >= kProgressFrom && isatty(2) == 1) {}

TransferProgress::~TransferProgress() {
  if (!on_ || shownMiB_ == UINT64_MAX) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
}

void TransferProgress::Show(uint64_t done) {
  if (!on_ || done >> 20 == shownMiB_) return;
  shownMiB_ = done >> 20;
  std::fprintf(stderr, "\r\033[K%s %llu of %llu MiB", verb_, static_cast<unsigned long long>(shownMiB_),
               static_cast<unsigned long long>((total_ + (1 << 20) - 1) >> 20));
  std::fflush(stderr);
}

Output::Output(const std::string& path) : path_(path == "-" ? "" : path) {
  if (path_.empty()) return;
  fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd_ < 0) throw SystemFailure{errno, path_, "opening"};
}

Output::~Output() {
  if (path_.empty() || finished_) return;
  close(fd_);
  unlink(path_.c_str());
}

void Output::Finish() {
  if (path_.empty() || finished_) return;
  finished_ = true;
  if (close(fd_) != 0) throw SystemFailure{errno, path_, "writing"};
}

}  // namespace cli
