// Commands on containers and simple items: create, put, get, ls, stat, rm,
// attach, detach and truncate.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cli.h"

namespace cli {
namespace {

constexpr size_t kChunk = 8192;  // the library moves item data in 8 KiB steps

// Where the data of a new item comes from: a regular file read as it is
// copied (its size is known up front), or anything else (standard input, a
// pipe) copied first into an unnamed temporary file, so that the item can
// be made at its final size while memory stays bounded.
class Source {
 public:
  explicit Source(const std::string& path) {
    if (path.empty() || path == "-") {
      Spool(0);
      return;
    }
    name_ = path;
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw SystemFailure{errno, path, "opening"};
    struct stat st;
    if (fstat(fd_, &st) != 0) throw SystemFailure{errno, path, "reading"};
    if (S_ISDIR(st.st_mode)) throw Failure{path + ": is a directory"};
    if (S_ISREG(st.st_mode)) {
      size_ = static_cast<uint64_t>(st.st_size);
    } else {
      const int from = fd_;
      fd_ = -1;
      Spool(from);
      close(from);
    }
  }
  ~Source() {
    if (fd_ >= 0) close(fd_);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  uint64_t size() const { return size_; }

  // Fills up to `len` bytes; 0 at the end.
  size_t Next(char* buf, size_t len) {
    for (;;) {
      ssize_t n = read(fd_, buf, len);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw SystemFailure{errno, name_, "reading"};
      return static_cast<size_t>(n);
    }
  }

 private:
  // Copies everything `from` gives into a temporary file (in TMPDIR, else
  // /tmp) and reads from there.
  void Spool(int from) {
    const char* dir = std::getenv("TMPDIR");
    const std::string where = dir != nullptr && *dir != '\0' ? dir : "/tmp";
    std::string pattern = where + "/sfl-put-XXXXXX";
    fd_ = mkstemp(pattern.data());
    if (fd_ < 0) throw SystemFailure{errno, where, "making a temporary file for " + name_ + " in"};
    unlink(pattern.c_str());
    std::vector<char> buf(1 << 16);
    for (;;) {
      ssize_t n = read(from, buf.data(), buf.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw SystemFailure{errno, name_, "reading"};
      if (n == 0) break;
      const char* p = buf.data();
      for (size_t left = static_cast<size_t>(n); left > 0;) {
        ssize_t w = write(fd_, p, left);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) throw SystemFailure{w < 0 ? errno : EIO, where, "keeping " + name_ + " in"};
        p += w;
        left -= static_cast<size_t>(w);
      }
      size_ += static_cast<uint64_t>(n);
    }
    if (lseek(fd_, 0, SEEK_SET) != 0) throw SystemFailure{errno, where, "reading back"};
  }

  std::string name_ = "standard input";
  int fd_ = -1;
  uint64_t size_ = 0;
};

// Why a container takes no new item: its slots are all in use, some
// perhaps by deleted items that wait for another process's close.
std::string FullText(const Container& c) {
  const std::vector<sfl_ItemInfo> slots = c.Slots();
  size_t pending = 0;
  for (size_t i = 1; i < slots.size(); ++i)
    if (slots[i].InUse && (slots[i].Flags & DELETED)) ++pending;
  std::string s = "the container is full: all " + std::to_string(slots.size() - 1) +
                  " item slots are in use";
  if (pending > 0)
    s += ", " + std::to_string(pending) + " of them by deleted items that wait for another " +
         "process to close the container (they are freed then)";
  return s + "; store into a new container with 'sfl put --new-container-if-full'";
}

// Stores the source as a new simple item of the container; returns false
// when the container has no free slot. The item is reserved at its final
// size and written in 8 KiB chunks; a failure part way deletes the
// half-written item again.
bool StoreItem(Container& c, Source& src, const std::string& what, sfl_ItemRef* out) {
  if (src.size() > UINT32_MAX) throw Failure{what + ": too large for an item (4 GiB at most)"};
  const uint32_t size = static_cast<uint32_t>(src.size());
  sfl::Item item = c.NewItem(size);
  if (!item.IsOpen()) return false;
  *out = item.Reference().Raw();
  try {
    char buf[kChunk];
    uint32_t pos = 0;
    TransferProgress progress("storing", size);
    while (pos < size) {
      progress.Show(pos);
      size_t got = src.Next(buf, std::min<size_t>(kChunk, size - pos));
      if (got == 0) throw Failure{what + ": ended before its size was reached (file changed?)"};
      size_t done = 0;
      while (done < got) {
        const int32_t n = item.Write(pos, std::as_bytes(std::span<const char>(buf + done, got - done)));
        if (n <= 0) throw SystemFailure{n < 0 ? errno : EIO, RefPath(c.ref()), "writing into", true};
        done += static_cast<size_t>(n);
        pos += static_cast<uint32_t>(n);
      }
    }
  } catch (...) {
    try {
      item.Delete();
    } catch (const er_Escape&) {
      er_Clear();
    }
    throw;
  }
  CloseOnce(item);
  return true;
}

std::string SourceName(const std::string& path) { return path == "-" ? "standard input" : path; }

void PrintLine(const std::string& s) { std::printf("%s\n", s.c_str()); }

// ---- create ---------------------------------------------------------------------

// The item slots of a new container: seven, or one for a single-item file.
uint32_t SlotsOfNew(bool single) { return single ? 1 : SFL_ITEM_NUM_MASK; }

int RunCreate(const Args& a) {
  int32_t flags = 0;
  if (a.Has("single")) flags |= SINGLE_FILE;
  if (a.Has("async")) flags |= ASYNCHRONOUS;
  const int32_t type = a.Has("temp") ? SFL_TYPE_TEMP_ITEM : SFL_TYPE_DATA_ITEM;
  const uint32_t slots = SlotsOfNew(a.Has("single"));
  if (a.positional.size() > slots)
    throw UsageError{std::to_string(a.positional.size()) + " files do not fit in one container (" +
                     std::to_string(slots) + " item slot" + (slots == 1 ? "" : "s") +
                     "); nothing was stored: create it with fewer, then 'sfl put " +
                     "--new-container-if-full <container> <file>...' for the rest"};
  // Every input is opened before the container exists, so a missing file
  // leaves nothing behind.
  std::vector<std::unique_ptr<Source>> sources;
  for (const std::string& path : a.positional) sources.push_back(std::make_unique<Source>(path));
  sfl::Container base = sfl::Container::Create(type, flags);
  const sfl_ItemRef ref = base.Reference().Raw();
  SetSubjectRef(ref);
  if (sources.empty()) {
    // The library removes a container that holds no items when its last
    // user closes it, so an empty new container is left open here: the
    // process ends without the final close and the file stays for `put`
    // (the tool's other commands leave an empty container as they find it).
    base.Release();
    PrintLine(RefText(ref) + " " + RefPath(ref));
    return kExitOk;
  }
  Container c(ref, std::move(base));
  // Each reference is printed as soon as its item is stored, the container
  // line with the first: whatever fails later, what was stored is named.
  for (size_t i = 0; i < sources.size(); ++i) {
    sfl_ItemRef item{};
    if (!StoreItem(c, *sources[i], SourceName(a.positional[i]), &item)) throw Failure{FullText(c)};
    if (i == 0) PrintLine(RefText(ref) + " " + RefPath(ref));
    PrintLine(RefText(item));
    std::fflush(stdout);
  }
  c.Close();
  return kExitOk;
}

// ---- put ---------------------------------------------------------------------------

// Creates a container like the one that is full (the same domain, so the
// same kind) for the items that did not fit.
std::unique_ptr<Container> NewContainerLike(const sfl_ItemRef& full) {
  const int32_t type = full.Domain == 4 ? SFL_TYPE_TEMP_ITEM : SFL_TYPE_DATA_ITEM;
  sfl::Container base = sfl::Container::Create(type, 0);
  const sfl_ItemRef ref = base.Reference().Raw();
  SetSubjectRef(ref);
  return std::make_unique<Container>(ref, std::move(base));
}

int RunPut(const Args& a) {
  sfl_ItemRef ref = ParseContainerRef(a.positional[0]);
  std::vector<std::string> paths(a.positional.begin() + 1, a.positional.end());
  if (paths.empty()) paths.push_back("-");
  const bool several = paths.size() > 1;
  const bool spill = a.Has("new-container-if-full");
  // Every input is opened first, so a missing file stores nothing.
  std::vector<std::unique_ptr<Source>> sources;
  for (const std::string& path : paths) sources.push_back(std::make_unique<Source>(path));
  auto c = std::make_unique<Container>(ref);
  for (size_t i = 0; i < sources.size(); ++i) {
    sfl_ItemRef out{};
    if (!StoreItem(*c, *sources[i], SourceName(paths[i]), &out)) {
      if (!spill) throw Failure{FullText(*c)};
      c->Close();
      c = NewContainerLike(c->ref());
      if (!StoreItem(*c, *sources[i], SourceName(paths[i]), &out)) throw Failure{FullText(*c)};
    }
    PrintLine(several ? RefText(out) + " " + paths[i] : RefText(out));
    std::fflush(stdout);
  }
  c->Close();
  return kExitOk;
}

// ---- get ---------------------------------------------------------------------------

int RunGet(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  Container c(ref);
  const sfl_ItemInfo info = c.UsedSlot(ItemNumber(ref));
  const bool blocked = (info.Flags & BLOCKED_ITEM) != 0;
  sfl::BlockedItem blockedItem;
  sfl::Item item;
  if (blocked)
    blockedItem = OpenBlockedItem(ref);
  else
    item = OpenItem(ref);
  Output out(a.Get("output"));
  if (blocked) {
    ForEachBlock(blockedItem,
                 [&](uint32_t, const std::string& data) { out.Write(data.data(), data.size()); });
    CloseOnce(blockedItem);
  } else {
    const uint32_t size = static_cast<uint32_t>(item.Size());
    std::byte buf[kChunk];
    TransferProgress progress("reading", size);
    for (uint32_t pos = 0; pos < size;) {
      progress.Show(pos);
      const uint32_t want = std::min<uint32_t>(kChunk, size - pos);
      const int32_t n = item.Read(pos, std::span<std::byte>(buf, want));
      if (n <= 0) throw Failure{"short read from the item at offset " + std::to_string(pos)};
      out.Write(buf, static_cast<size_t>(n));
      pos += static_cast<uint32_t>(n);
    }
    CloseOnce(item);
  }
  c.Close();
  out.Finish();
  return kExitOk;
}

// ---- ls ----------------------------------------------------------------------------

std::string ItemRefIn(const sfl_ItemRef& container, uint32_t n) {
  sfl_ItemRef r = container;
  r.Flags = static_cast<uint16_t>((r.Flags & ~SFL_ITEM_NUM_MASK) | n);
  return RefText(r);
}

// `sfl ls` without a container: the containers of the store, a page at a
// time (--skip, --limit), each with its items, bytes and holes.
int ListStore(const Args& a) {
  const uint64_t skip = a.Has("skip") ? ParseNumber(a.Get("skip"), "count", UINT32_MAX) : 0;
  const uint64_t limit = a.Has("limit") ? ParseNumber(a.Get("limit"), "count", UINT32_MAX) : UINT64_MAX;
  const bool json = a.Has("json");
  const std::vector<StoreEntry> all = StoreContainers();
  size_t unreadable = 0;
  if (!json) std::printf("%5s %12s %10s  %s\n", "ITEMS", "BYTES", "HOLES", "CONTAINER PATH");
  uint64_t shown = 0, index = 0;
  std::string items;
  for (const StoreEntry& e : all) {
    if (!e.unreadable.empty()) {
      ++unreadable;
      std::fprintf(stderr, "sfl ls: %s: cannot be read: %s\n", e.path.c_str(), e.unreadable.c_str());
      continue;
    }
    if (index++ < skip || shown >= limit) continue;
    ++shown;
    struct stat st;
    std::vector<sfl_ItemInfo> slots;
    // A container the library cannot open is shown on its own line and
    // makes the exit status 3; the listing goes on.
    try {
      if (stat(e.path.c_str(), &st) != 0) throw SystemFailure{errno, e.path, "reading", true};
      Container c(e.ref);
      slots = c.Slots();
      c.Close();
    } catch (const er_Escape& x) {
      er_Clear();
      ++unreadable;
      --shown;
      std::fprintf(stderr, "sfl ls: %s: cannot be read: error %d/%d: %s\n", e.path.c_str(), x.group(),
                   x.reason(), er_ReasonText(x.group(), x.reason()));
      continue;
    }
    size_t used = 0;
    for (size_t i = 1; i < slots.size(); ++i) used += slots[i].InUse ? 1 : 0;
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    const uint64_t holes = HoleBytes(size, slots);
    if (json) {
      items += std::string(items.empty() ? "\n  " : ",\n  ") + "{\"container\": " + JsonString(RefText(e.ref)) +
               ", \"path\": " + JsonString(e.path) + ", \"items\": " + std::to_string(used) +
               ", \"bytes\": " + std::to_string(size) + ", \"holes\": " + std::to_string(holes) + "}";
    } else {
      std::printf("%5zu %12llu %10llu  %s %s\n", used, static_cast<unsigned long long>(size),
                  static_cast<unsigned long long>(holes), RefText(e.ref).c_str(), e.path.c_str());
    }
  }
  const uint64_t total = all.size() - unreadable;
  if (json) {
    std::printf("{\"total\": %llu, \"containers\": [%s%s]}\n", static_cast<unsigned long long>(total),
                items.c_str(), items.empty() ? "" : "\n");
  } else if (a.Has("limit") || a.Has("skip")) {
    std::printf("%llu of %llu containers shown", static_cast<unsigned long long>(shown),
                static_cast<unsigned long long>(total));
    if (skip + shown < total)
      std::printf("; --skip %llu for the next", static_cast<unsigned long long>(skip + shown));
    std::printf("\n");
  } else {
    std::printf("%llu container%s\n", static_cast<unsigned long long>(total), total == 1 ? "" : "s");
  }
  return unreadable > 0 ? kExitUnreadable : kExitOk;
}

int RunLs(const Args& a) {
  if (a.positional.empty()) return ListStore(a);
  if (a.Has("limit") || a.Has("skip")) throw UsageError{"--limit and --skip page the list of containers; name no container with them"};
  sfl_ItemRef ref = ParseContainerRef(a.positional[0]);
  Container c(ref);
  const std::vector<sfl_ItemInfo> slots = c.Slots();
  const std::vector<std::string> fileFlags = FileFlagNames(c.Flags());
  c.Close();
  const bool all = a.Has("all");
  size_t used = 0;
  for (size_t i = 1; i < slots.size(); ++i) used += slots[i].InUse ? 1 : 0;
  auto shown = [&](const sfl_ItemInfo& s) { return all || (s.ItemNum != 0 && s.InUse); };

  if (a.Has("json")) {
    std::string s = "{\"container\": " + JsonString(RefText(ref)) +
                    ", \"path\": " + JsonString(RefPath(ref)) +
                    ", \"slots\": " + std::to_string(slots.size()) +
                    ", \"used\": " + std::to_string(used) + ", \"file_flags\": [";
    for (size_t i = 0; i < fileFlags.size(); ++i) s += (i ? ", " : "") + JsonString(fileFlags[i]);
    s += "], \"items\": [";
    bool first = true;
    for (const sfl_ItemInfo& it : slots) {
      if (!shown(it)) continue;
      s += first ? "\n  " : ",\n  ";
      first = false;
      s += "{\"item\": " + std::to_string(it.ItemNum) +
           ", \"reference\": " + JsonString(ItemRefIn(ref, it.ItemNum)) +
           ", \"in_use\": " + (it.InUse ? "true" : "false") +
           ", \"valid\": " + (it.Valid ? "true" : "false") +
           ", \"size\": " + std::to_string(it.FileSize) +
           ", \"blocks\": " + std::to_string(it.UsedBlocks) +
           ", \"attach\": " + std::to_string(it.AccCount) + ", \"flags\": " + JsonFlags(it.Flags) +
           ", \"changed\": " + JsonString(FormatTime(it.ChangeDate)) +
           ", \"changed_epoch\": " + std::to_string(it.ChangeDate) +
           ", \"offset\": " + std::to_string(it.FileOffset) +
           ", \"index_depth\": " + std::to_string(it.IndexDepth) + "}";
    }
    s += first ? "]}" : "\n]}";
    PrintLine(s);
    return kExitOk;
  }

  std::string joined;
  for (const std::string& f : fileFlags) joined += (joined.empty() ? "" : "|") + f;
  std::printf("%s  %s  %zu of %zu item slots used  file flags: %s\n", RefText(ref).c_str(),
              RefPath(ref).c_str(), used, slots.empty() ? size_t{0} : slots.size() - 1,
              joined.empty() ? "-" : joined.c_str());
  std::printf("%4s %12s %8s %6s  %-20s  %s\n", "ITEM", "SIZE", "BLOCKS", "ATTACH", "CHANGED",
              "FLAGS");
  for (const sfl_ItemInfo& it : slots) {
    if (!shown(it)) continue;
    std::string flags = JoinFlags(it.Flags);
    if (it.ItemNum == 0) flags += " (free map)";
    if (!it.InUse)
      flags += " (free slot)";
    else if (!it.Valid)
      flags += " (header not written)";
    std::printf("%4u %12u %8u %6u  %-20s  %s\n", it.ItemNum, it.FileSize, it.UsedBlocks,
                it.AccCount, FormatTime(it.ChangeDate).c_str(), flags.c_str());
  }
  return kExitOk;
}

// ---- stat --------------------------------------------------------------------------

int RunStat(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  Container c(ref);
  const sfl_ItemInfo info = c.UsedSlot(ItemNumber(ref));
  sfl::Item item = OpenItem(ref);
  const struct stat st = item.Stat();
  CloseOnce(item);
  c.Close();
  const bool blocked = (info.Flags & BLOCKED_ITEM) != 0;
  const uint32_t changed = static_cast<uint32_t>(st.st_mtime);
  if (a.Has("json")) {
    PrintLine("{\"reference\": " + JsonString(RefText(ref)) +
              ", \"path\": " + JsonString(RefPath(ref)) +
              ", \"kind\": " + JsonString(blocked ? "blocked" : "simple") +
              ", \"size\": " + std::to_string(static_cast<uint64_t>(st.st_size)) +
              ", \"blocks\": " + std::to_string(info.UsedBlocks) +
              ", \"attach\": " + std::to_string(static_cast<uint64_t>(st.st_nlink)) +
              ", \"flags\": " + JsonFlags(info.Flags) + ", \"changed\": " +
              JsonString(FormatTime(changed)) + ", \"changed_epoch\": " + std::to_string(changed) +
              ", \"offset\": " + std::to_string(info.FileOffset) +
              ", \"index_depth\": " + std::to_string(info.IndexDepth) + "}");
    return kExitOk;
  }
  std::printf("reference    %s\n", RefText(ref).c_str());
  std::printf("path         %s\n", RefPath(ref).c_str());
  std::printf("kind         %s\n", blocked ? "blocked" : "simple");
  std::printf("size         %llu\n", static_cast<unsigned long long>(st.st_size));
  std::printf("blocks       %u (128-byte units)\n", info.UsedBlocks);
  std::printf("attach       %llu\n", static_cast<unsigned long long>(st.st_nlink));
  std::printf("changed      %s\n", FormatTime(changed).c_str());
  std::printf("flags        %s\n", JoinFlags(info.Flags).c_str());
  std::printf("offset       %u\n", info.FileOffset);
  if (blocked) std::printf("index depth  %u\n", info.IndexDepth);
  return kExitOk;
}

// ---- rm, attach, detach, truncate ------------------------------------------------------

// Deleting what is already deleted succeeds: the item is gone either way,
// and a note on standard error says which way.
int RunRm(const Args& a) {
  for (const std::string& text : a.positional) {
    sfl_ItemRef ref = ParseItemRef(text);
    Container c(ref);
    const std::vector<sfl_ItemInfo> slots = c.Slots();
    const uint32_t n = ItemNumber(ref);
    if (n < slots.size() && (!slots[n].InUse || (slots[n].Flags & DELETED))) {
      std::fprintf(stderr, "sfl rm: %s: already deleted%s\n", RefText(ref).c_str(),
                   slots[n].InUse ? ("; " + PendingNote()).c_str() : "");
      c.Close();
      continue;
    }
    sfl::Item item = OpenItem(ref);
    item.Delete();
    c.Close();
  }
  return kExitOk;
}

// Attach and detach name the item without opening it; the slot is looked at
// first so that a deleted item is reported as such.
int RunAttach(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  Container c(ref);
  c.UsedSlot(ItemNumber(ref));
  std::printf("%u\n", sfl_AttachItem(&ref));
  c.Close();
  return kExitOk;
}

int RunDetach(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  Container c(ref);
  c.UsedSlot(ItemNumber(ref));
  std::printf("%u\n", sfl_DetachItem(&ref));
  c.Close();
  return kExitOk;
}

int RunTruncate(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  const uint32_t size = static_cast<uint32_t>(ParseNumber(a.positional[1], "size", UINT32_MAX));
  Container c(ref);
  c.UsedSlot(ItemNumber(ref));
  sfl::Item item = OpenItem(ref);
  item.Truncate(size);
  CloseOnce(item);
  c.Close();
  return kExitOk;
}

}  // namespace

const std::vector<Command>& ItemCommands() {
  static const std::vector<Command> kCommands = {
      {"create",
       "[--single] [--async] [--temp] [file|-]...",
       "create a container; print its reference and path",
       "Creates a new container in the store and prints one line: its reference and its\n"
       "path. Files named after the options are stored in it as items 1, 2, ... and\n"
       "their references printed, one per line, each as soon as it is stored. More\n"
       "files than the container has slots (7, or 1 with --single) are refused before\n"
       "anything is stored.\n"
       "A container that holds no items is removed by its last close; a container\n"
       "created without files is therefore left on disk unclosed, for 'sfl put', and\n"
       "the tool's other commands leave an empty container as they find it.\n",
       {{"single", 0, false, "a single-item file (one item, no free map)"},
        {"async", 0, false, "never flush this file (ASYNCHRONOUS)"},
        {"temp", 0, false, "a temporary container (domain 4, never compacted at close)"}},
       0,
       -1,
       RunCreate},
      {"put",
       "[--new-container-if-full] <container> [file|-]...",
       "store files (or standard input) as new items",
       "Stores each file, or standard input when it is '-' or absent, as a new simple\n"
       "item of the container and prints the new item's reference; with several files,\n"
       "each line is the reference and the file. When the container is full the command\n"
       "fails and says whether deleted items wait for another process's close; with\n"
       "--new-container-if-full it creates a new container instead and goes on there.\n",
       {{"new-container-if-full", 0, false, "store into a new container when this one is full"}},
       1,
       -1,
       RunPut},
      {"get",
       "<item> [-o file]",
       "write an item's data to standard output or a file",
       "Writes the item's bytes to standard output, or to the file given with -o (removed\n"
       "again if the command fails). A blocked item is written as its blocks in order.\n",
       {{"output", 'o', true, "write to this file instead of standard output"}},
       1,
       1,
       RunGet},
      {"ls",
       "[<container>] [--json] [--all] [--limit N] [--skip N]",
       "list the containers of the store, or the items of one",
       "Without a container: one line per container of the store, in path order, with\n"
       "its items, bytes and holes (bytes no item holds, which compaction gives back),\n"
       "its reference and its path, then a count; --limit and --skip page the list.\n"
       "With a container: lists the container's own flags (NEED_COMPACTION: its next last close or 'sfl\n"
       "compact' rebuilds it; HAS_BEEN_COMPACTED: replaced by a rebuild; ...), then the\n"
       "items in use: item number, size in bytes, 128-byte blocks reserved, attach\n"
       "count, change time (UTC) and flags by name.\n",
       {{"json", 0, false, "print one JSON object"},
        {"all", 'a', false, "also show slot 0 (the free map) and free slots"},
        {"limit", 0, true, "show at most this many containers"},
        {"skip", 0, true, "leave out this many containers first"}},
       0,
       1,
       RunLs},
      {"stat",
       "<item> [--json]",
       "show one item's status",
       "Shows the item's reference, path, kind (simple or blocked), size, reserved\n"
       "128-byte blocks, attach count, change time, flags and data offset.\n",
       {{"json", 0, false, "print one JSON object"}},
       1,
       1,
       RunStat},
      {"rm",
       "<item>...",
       "delete items",
       "Deletes each item. While another process has the container open, the item is\n"
       "marked DELETED and released by the container's last close. A container whose\n"
       "last item is released is removed. An item already deleted is not an error: a\n"
       "note on standard error says so.\n",
       {},
       1,
       -1,
       RunRm},
      {"attach",
       "<item>",
       "add an owner to an item; print the attach count",
       "Raises the item's attach count (the owners that hold it outside any open handle)\n"
       "and prints the new count.\n",
       {},
       1,
       1,
       RunAttach},
      {"detach",
       "<item>",
       "drop an owner of an item; print the attach count",
       "Lowers the item's attach count and prints the new count. An item whose count\n"
       "reaches 0 is deleted.\n",
       {},
       1,
       1,
       RunDetach},
      {"truncate",
       "<item> <size>",
       "change a simple item's size within its reserved space",
       "Sets the item's size. The new size may be smaller or larger, but not beyond the\n"
       "128-byte blocks reserved when the item was stored; no space is freed.\n",
       {},
       2,
       2,
       RunTruncate},
  };
  return kCommands;
}

}  // namespace cli
