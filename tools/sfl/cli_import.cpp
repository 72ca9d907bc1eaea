// `sfl import` and `sfl export`: a tree of files (one file per item, a
// Maildir included) into new containers and back out. Import keeps a journal
// so that an interrupted run, started again, goes on where it stopped and
// stores nothing twice; its mapping of files to item references is what
// export uses to lay the files out again under their own names.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "cli_sha256.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kSlots = SFL_ITEM_NUM_MASK;  // items per container
constexpr size_t kChunk = 64 * 1024;
const char kJournalFormat[] = "sfl-import 1";

// Names go into one-line records: a backslash and a newline are escaped.
std::string Escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else
      out += c;
  }
  return out;
}

std::string Unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 1 < s.size()) {
      out += s[i + 1] == 'n' ? '\n' : s[i + 1];
      ++i;
    } else {
      out += s[i];
    }
  }
  return out;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t end = text.find('\n', pos);
    if (end == std::string::npos) break;  // a torn last line is not a record
    lines.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return lines;
}

std::string ReadFileText(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SystemFailure{errno, path, "opening"};
  std::string text;
  try {
    text = ReadAll(fd);
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
  return text;
}

// ---- the files to import ---------------------------------------------------------------

// The files under `root` in path order, in groups that go into one container
// together: the files of a directory that holds at most seven files and no
// directory (one message in parts) form one group; any other file is a group
// of its own. A Maildir's tmp/ (deliveries not finished) is left out.
// Symbolic links to files are read through; other kinds are named and left
// out.
std::vector<std::vector<std::string>> FileGroups(const std::string& root, std::vector<std::string>* allDirs) {
  std::map<std::string, std::vector<std::string>> filesOf;  // directory -> files (relative)
  std::set<std::string> hasSubdir;
  std::vector<std::string> dirs = {""};
  while (!dirs.empty()) {
    const std::string rel = dirs.back();
    dirs.pop_back();
    const std::string abs = rel.empty() ? root : root + "/" + rel;
    std::error_code ec;
    fs::directory_iterator it(abs, ec);
    if (ec) throw SystemFailure{ec.value(), abs, "listing"};
    const bool maildir = fs::is_directory(abs + "/cur") && fs::is_directory(abs + "/new");
    filesOf[rel];
    for (; it != fs::directory_iterator(); it.increment(ec)) {
      const std::string name = it->path().filename().string();
      const std::string child = rel.empty() ? name : rel + "/" + name;
      const fs::file_status st = it->symlink_status(ec);
      if (fs::is_directory(st)) {
        hasSubdir.insert(rel);
        allDirs->push_back(child);
        if (maildir && name == "tmp") continue;
        dirs.push_back(child);
      } else if (fs::is_regular_file(st) || (fs::is_symlink(st) && fs::is_regular_file(it->status(ec)))) {
        filesOf[rel].push_back(child);
      } else {
        std::fprintf(stderr, "sfl import: %s/%s: not a regular file; left out\n", root.c_str(), child.c_str());
      }
    }
    if (ec) throw SystemFailure{ec.value(), abs, "listing"};
  }
  std::vector<std::vector<std::string>> groups;
  for (auto& [dir, files] : filesOf) {
    std::sort(files.begin(), files.end());
    const bool message = !dir.empty() && !hasSubdir.count(dir) && !files.empty() && files.size() <= kSlots;
    if (message) {
      groups.push_back(files);
    } else {
      for (const std::string& f : files) groups.push_back({f});
    }
  }
  std::sort(groups.begin(), groups.end());
  std::sort(allDirs->begin(), allDirs->end());
  return groups;
}

// ---- the journal ---------------------------------------------------------------------------
//
// Lines, each written whole with one write() and in this order:
//   sfl-import 1 <input directory>
//   C <container>            a new container, before anything is stored in it
//   I <item> <file>          before the file is stored as that item
//   D <item> <file>          after it is stored completely and closed
//   X <item> <file>          the store in that item was given up (the item
//                            deleted as cut short); the file is stored anew
// A run that finds an I without its D stored that file, or began to: the
// slot it names is looked at and the item is completed there (or made
// there), never made again elsewhere unless given up with an X first. The
// slot is chosen before the store (the next one of the container, which
// only this import fills), so the I line names it.

struct Journal {
  std::string path;
  int fd = -1;
  std::vector<std::pair<std::string, std::string>> done;  // item, file
  std::set<std::string> doneFiles;
  std::string container;            // the current container, or ""
  uint32_t nextSlot = 1;            // in that container
  std::string pendingItem, pendingFile;  // an I without its D

  ~Journal() {
    if (fd >= 0) close(fd);
  }
  void Append(const std::string& line) {
    const std::string l = line + "\n";
    WriteAll(fd, l.data(), l.size());
  }
};

void OpenJournal(Journal* j, const std::string& path, const std::string& root) {
  j->path = path;
  struct stat st;
  // A journal without its first line whole is one a run was stopped in
  // while starting it: it is begun again.
  std::vector<std::string> lines;
  if (stat(path.c_str(), &st) == 0) lines = Lines(ReadFileText(path));
  const bool exists = !lines.empty();
  if (exists) {
    if (lines[0] != std::string(kJournalFormat) + " " + Escape(root))
      throw Failure{path + " is the journal of another import (" + lines[0] + "); give another --journal"};
    for (size_t i = 1; i < lines.size(); ++i) {
      const std::string& l = lines[i];
      if (l.size() < 2) continue;
      const std::string rest = l.substr(2);
      if (l[0] == 'C') {
        j->container = rest;
        j->nextSlot = 1;
        continue;
      }
      const size_t sp = rest.find(' ');
      if (sp == std::string::npos) continue;
      const std::string item = rest.substr(0, sp), file = Unescape(rest.substr(sp + 1));
      if (l[0] == 'I') {
        j->pendingItem = item;
        j->pendingFile = file;
        const size_t colon = item.rfind(':');
        j->nextSlot = static_cast<uint32_t>(std::stoul(item.substr(colon + 1))) + 1;
      } else if (l[0] == 'D') {
        j->done.emplace_back(item, file);
        j->doneFiles.insert(file);
        if (item == j->pendingItem) j->pendingItem.clear();
      } else if (l[0] == 'X') {
        if (item == j->pendingItem) j->pendingItem.clear();
      }
    }
  }
  j->fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | (exists ? 0 : O_TRUNC) | O_CLOEXEC, 0644);
  if (j->fd < 0) throw SystemFailure{errno, path, "opening"};
  if (!exists) j->Append(std::string(kJournalFormat) + " " + Escape(root));
}

// ---- storing ----------------------------------------------------------------------------

// Writes the file's bytes into the item from `from` on.
void WriteFileInto(sfl::Item& item, const std::string& file, uint32_t size) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw SystemFailure{errno, file, "opening"};
  std::vector<std::byte> buf(kChunk);
  uint32_t pos = 0;
  try {
    while (pos < size) {
      const ssize_t n = read(fd, buf.data(), std::min<size_t>(buf.size(), size - pos));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw SystemFailure{errno, file, "reading"};
      if (n == 0) throw Failure{file + ": ended before its size was reached (file changed?)"};
      for (ssize_t done = 0; done < n;) {
        const int32_t w =
            item.Write(pos, std::span<const std::byte>(buf).subspan(static_cast<size_t>(done), static_cast<size_t>(n - done)));
        if (w <= 0) throw Failure{file + ": could not be written into its item"};
        done += w;
        pos += static_cast<uint32_t>(w);
      }
    }
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
}

uint32_t SizeOfFile(const std::string& file) {
  struct stat st;
  if (stat(file.c_str(), &st) != 0) throw SystemFailure{errno, file, "reading"};
  if (static_cast<uint64_t>(st.st_size) > UINT32_MAX) throw Failure{file + ": too large for an item (4 GiB at most)"};
  return static_cast<uint32_t>(st.st_size);
}

sfl_ItemRef ItemAt(const sfl_ItemRef& container, uint32_t slot) {
  sfl_ItemRef r = ContainerOf(container);
  r.Flags = static_cast<uint16_t>(r.Flags | slot);
  return r;
}

class Importer {
 public:
  Importer(Journal* j, const std::string& root) : j_(j), root_(root) {}

  // Finishes the store an interrupted run began, in the slot its journal
  // names: an item there (its header written, its store closed) gets its
  // data again; a slot still free gets the item; a slot taken but never
  // written is given back by a repairing check first. An item whose store
  // never closed (still INCOMPLETE: its data cannot be trusted) is deleted
  // by that check, and the file goes to a later slot.
  void FinishPending() {
    if (j_->pendingItem.empty()) return;
    const sfl_ItemRef item = ParseItemRef(j_->pendingItem);
    const std::string file = root_ + "/" + j_->pendingFile;
    SetSubject(j_->pendingItem);
    Open(ContainerOf(item));
    const uint32_t slot = ItemNumber(item);
    std::vector<sfl_ItemInfo> slots = c_->Slots();
    if (slot < slots.size() && slots[slot].InUse &&
        (!slots[slot].Valid || ((slots[slot].Flags & INCOMPLETE) && !(slots[slot].Flags & DELETED)))) {
      c_.reset();
      std::string out;
      const sfl_ItemRef cref = ContainerOf(item);
      RunSelf({"check", "--repair", "--quiet", RefText(cref)}, {}, &out);
      Open(cref);
      slots = c_->Slots();
    }
    // The repair deleted a store that never closed (now, or in a run
    // stopped since): its slot stays taken until a final close releases it,
    // so the file is given up there and stored afresh in a slot after it.
    if (slot < slots.size() && slots[slot].InUse && (slots[slot].Flags & DELETED)) {
      j_->Append("X " + j_->pendingItem + " " + Escape(j_->pendingFile));
      j_->pendingItem.clear();
      return;
    }
    if (slot < slots.size() && slots[slot].InUse && slots[slot].Valid && !(slots[slot].Flags & DELETED)) {
      if (slots[slot].FileSize != SizeOfFile(file))
        throw Failure{j_->pendingItem + " does not have the size of " + file + " (was the file changed?)"};
      sfl::Item h = OpenItem(item);
      WriteFileInto(h, file, slots[slot].FileSize);
      CloseOnce(h);
    } else {
      StoreAt(slot, file);
    }
    j_->Append("D " + j_->pendingItem + " " + Escape(j_->pendingFile));
    j_->done.emplace_back(j_->pendingItem, j_->pendingFile);
    j_->doneFiles.insert(j_->pendingFile);
    j_->pendingItem.clear();
  }

  void Group(const std::vector<std::string>& files) {
    std::vector<std::string> todo;
    for (const std::string& f : files)
      if (!j_->doneFiles.count(f)) todo.push_back(f);
    if (todo.empty()) return;
    if (j_->container.empty() || j_->nextSlot + todo.size() - 1 > kSlots) NewContainer();
    if (c_ == nullptr) Open(ParseContainerRef(j_->container));
    for (const std::string& f : todo) {
      if (j_->nextSlot > kSlots) NewContainer();
      const uint32_t slot = j_->nextSlot++;
      const std::string itemText = RefText(ItemAt(ref_, slot));
      SetSubject(itemText);
      j_->Append("I " + itemText + " " + Escape(f));
      StoreAt(slot, root_ + "/" + f);
      j_->Append("D " + itemText + " " + Escape(f));
      j_->done.emplace_back(itemText, f);
      j_->doneFiles.insert(f);
      ++stored_;
    }
  }

  void Finish() {
    if (c_ != nullptr) c_->Close();
    c_.reset();
  }
  uint64_t stored() const { return stored_; }

 private:
  void Open(const sfl_ItemRef& cref) {
    if (c_ != nullptr && std::memcmp(&c_->ref(), &cref, sizeof cref) == 0) return;
    if (c_ != nullptr) c_->Close();
    c_.reset();
    c_ = std::make_unique<Container>(cref);
    ref_ = cref;
  }

  void NewContainer() {
    if (c_ != nullptr) c_->Close();
    c_.reset();
    sfl::Container base = sfl::Container::Create(SFL_TYPE_DATA_ITEM, 0);
    ref_ = base.Reference().Raw();
    c_ = std::make_unique<Container>(ref_, std::move(base));
    j_->container = RefText(ref_);
    j_->nextSlot = 1;
    j_->Append("C " + j_->container);
  }

  void StoreAt(uint32_t slot, const std::string& file) {
    const uint32_t size = SizeOfFile(file);
    sfl::Item item = c_->NewItemAt(slot, size);
    if (!item.IsOpen()) throw Failure{RefText(ItemAt(c_->ref(), slot)) + ": the slot is taken by another process's item"};
    WriteFileInto(item, file, size);
    CloseOnce(item);
  }

  Journal* j_;
  std::string root_;
  std::unique_ptr<Container> c_;
  sfl_ItemRef ref_{};
  uint64_t stored_ = 0;
};

int RunImport(const Args& a) {
  std::error_code ec;
  const std::string root = fs::absolute(a.positional[0], ec).lexically_normal().string();
  SetSubject(a.positional[0]);
  struct stat st;
  if (stat(root.c_str(), &st) != 0) throw SystemFailure{errno, root, "reading"};
  if (!S_ISDIR(st.st_mode)) throw Failure{root + " is not a directory"};
  std::vector<std::string> dirs;
  const std::vector<std::vector<std::string>> groups = FileGroups(root, &dirs);
  size_t total = 0;
  for (const auto& g : groups) total += g.size();

  Journal j;
  OpenJournal(&j, a.Get("journal", "sfl-import.journal"), root);
  const size_t before = j.done.size();
  Importer imp(&j, root);
  imp.FinishPending();
  const bool tty = isatty(2) != 0;
  for (size_t i = 0; i < groups.size(); ++i) {
    if (tty && i % 64 == 0) std::fprintf(stderr, "\rimporting: %zu of %zu files", j.done.size(), total);
    imp.Group(groups[i]);
  }
  imp.Finish();
  if (tty) std::fprintf(stderr, "\r\033[K");

  // Directories first ("/ <dir>"), so that export makes the empty ones too.
  std::string map;
  for (const std::string& d : dirs) map += "/ " + Escape(d) + "\n";
  for (const auto& [item, file] : j.done) map += item + " " + Escape(file) + "\n";
  if (a.Has("map")) {
    const std::string path = a.Get("map");
    const int fd = open((path + ".part").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw SystemFailure{errno, path + ".part", "creating"};
    WriteAll(fd, map.data(), map.size());
    close(fd);
    if (rename((path + ".part").c_str(), path.c_str()) != 0) throw SystemFailure{errno, path, "renaming"};
  } else {
    std::fwrite(map.data(), 1, map.size(), stdout);
  }
  std::fprintf(stderr, "sfl import: %zu files: %zu stored now, %zu by an earlier run\n", j.done.size(),
               j.done.size() - before, before);
  return kExitOk;
}

// ---- export ------------------------------------------------------------------------------

struct Export {
  std::string dest;
  std::map<std::string, std::string> names;  // item reference -> relative path
  std::vector<std::string> dirs;             // relative, from the mapping
  bool named = false;
  std::string manifest;
  uint64_t files = 0, bytes = 0;
};

void WriteNewFile(const std::string& path, const std::function<void(int)>& fill) {
  MakeDirs(ParentDir(path));
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) throw SystemFailure{errno, path, "creating"};
  try {
    fill(fd);
  } catch (...) {
    close(fd);
    unlink(path.c_str());
    throw;
  }
  if (close(fd) != 0) throw SystemFailure{errno, path, "writing"};
}

// Writes the items of one container (all, or the one `only` names).
void ExportContainer(const sfl_ItemRef& cref, uint32_t only, Export* e) {
  SetSubjectRef(cref);
  Container c(cref);
  const std::vector<sfl_ItemInfo> slots = c.Slots();
  for (uint32_t n = 1; n < slots.size(); ++n) {
    if (only != 0 && n != only) continue;
    if (!slots[n].InUse || (slots[n].Flags & DELETED)) continue;
    const std::string refText = RefText(ItemAt(cref, n));
    std::string rel;
    if (e->named) {
      auto it = e->names.find(refText);
      if (it == e->names.end()) continue;  // not one of the files named
      rel = it->second;
    } else {
      rel = RefText(cref) + "/" + std::to_string(n);
    }
    const bool blocked = (slots[n].Flags & BLOCKED_ITEM) != 0;
    sfl::BlockedItem blockedItem;
    sfl::Item item;
    if (blocked)
      blockedItem = OpenBlockedItem(ItemAt(cref, n));
    else
      item = OpenItem(ItemAt(cref, n));
    Sha256 sum;
    uint64_t size = 0;
    WriteNewFile(e->dest + "/" + rel, [&](int fd) {
      auto put = [&](const char* data, size_t len) {
        WriteAll(fd, data, len);
        sum.Add(data, len);
        size += len;
      };
      if (blocked) {
        ForEachBlock(blockedItem, [&](uint32_t, const std::string& d) { put(d.data(), d.size()); });
      } else {
        std::vector<std::byte> buf(kChunk);
        for (uint32_t pos = 0; pos < slots[n].FileSize;) {
          const uint32_t want = std::min<uint32_t>(kChunk, slots[n].FileSize - pos);
          const int32_t got = item.Read(pos, std::span<std::byte>(buf).first(want));
          if (got <= 0) throw Failure{refText + ": short read at offset " + std::to_string(pos)};
          put(reinterpret_cast<const char*>(buf.data()), static_cast<size_t>(got));
          pos += static_cast<uint32_t>(got);
        }
      }
    });
    if (blocked)
      CloseOnce(blockedItem);
    else
      CloseOnce(item);
    e->manifest += refText + " " + std::to_string(size) + " " + sum.Hex() + " " + Escape(rel) + "\n";
    ++e->files;
    e->bytes += size;
  }
  c.Close();
}

int RunExport(const Args& a) {
  Export e;
  std::vector<std::string> refs = a.positional;
  e.dest = refs.back();
  refs.pop_back();
  if (a.Has("all") && !refs.empty())
    throw UsageError{"give either references or --all, and the destination directory last"};
  if (!a.Has("all") && refs.empty() && !a.Has("names"))
    throw UsageError{"give references, --all or --names MAP, and the destination directory last"};
  if (a.Has("names")) {
    e.named = true;
    for (const std::string& l : Lines(ReadFileText(a.Get("names")))) {
      const size_t sp = l.find(' ');
      if (sp == std::string::npos) continue;
      const std::string rel = Unescape(l.substr(sp + 1));
      if (rel.empty() || rel[0] == '/' || rel == ".." || rel.rfind("../", 0) == 0 ||
          rel.find("/../") != std::string::npos)
        throw Failure{a.Get("names") + ": a name outside the destination: " + rel};
      if (l.compare(0, sp, "/") == 0)
        e.dirs.push_back(rel);
      else
        e.names[l.substr(0, sp)] = rel;
    }
  }
  MakeDirs(e.dest);
  for (const std::string& d : e.dirs) MakeDirs(e.dest + "/" + d);
  if (a.Has("all")) {
    for (const StoreEntry& s : StoreContainers()) {
      if (!s.unreadable.empty()) throw Failure{s.path + ": cannot be read: " + s.unreadable, kExitUnreadable};
      ExportContainer(s.ref, 0, &e);
    }
  } else if (!refs.empty()) {
    for (const std::string& r : refs) {
      const sfl_ItemRef ref = ParseRef(r);
      ExportContainer(ContainerOf(ref), ItemNumber(ref), &e);
    }
  } else {
    // The containers the mapping names, each once, in its order.
    std::vector<std::string> containers;
    for (const auto& [item, rel] : e.names) {
      const std::string c = item.substr(0, item.rfind(':'));
      if (std::find(containers.begin(), containers.end(), c) == containers.end()) containers.push_back(c);
    }
    for (const std::string& c : containers) ExportContainer(ParseContainerRef(c), 0, &e);
  }
  if (a.Has("manifest")) {
    WriteNewFile(a.Get("manifest"), [&](int fd) { WriteAll(fd, e.manifest.data(), e.manifest.size()); });
  } else {
    std::fwrite(e.manifest.data(), 1, e.manifest.size(), stdout);
  }
  std::fprintf(stderr, "sfl export: %llu files, %llu bytes\n", static_cast<unsigned long long>(e.files),
               static_cast<unsigned long long>(e.bytes));
  return kExitOk;
}

}  // namespace

const std::vector<Command>& ImportCommands() {
  static const std::vector<Command> kCommands = {
      {"import",
       "<dir> [--journal FILE] [--map FILE]",
       "store a tree of files (a Maildir too) into new containers",
       "Stores every file under <dir> as an item, in path order, seven to a new\n"
       "container. The files of a directory that holds at most seven files and no\n"
       "directory (a message kept in parts) go into one container together. A\n"
       "Maildir's tmp/ is left out (its cur/ and new/ are imported); symbolic links to\n"
       "files are read through; other kinds of file are named and left out.\n"
       "\n"
       "Prints the mapping, '<item> <file>' per line (the file relative to <dir>; a\n"
       "newline in a name as \\n, a backslash as \\\\), after a '/ <directory>' line for\n"
       "each directory, or writes it to --map FILE.\n"
       "Keep it: export --names lays the files out again by it.\n"
       "\n"
       "Resumable: the journal (default ./sfl-import.journal) records each container\n"
       "and each file before and after it is stored. Run the same command again\n"
       "after an interruption: it completes a store that was cut short in the item\n"
       "the journal names (or, when that store never closed, deletes the item and\n"
       "stores the file in a later one),\n"
       "stores the files not yet stored, and stores nothing twice.\n"
       "The journal belongs to one input directory. A run cut short between creating\n"
       "a container and its journal line leaves that container empty.\n",
       {{"journal", 0, true, "the journal file (default ./sfl-import.journal)"},
        {"map", 0, true, "write the mapping to this file instead of standard output"}},
       1,
       1,
       RunImport},
      {"export",
       "<item|container>... <dest> | --all <dest> | --names MAP <dest> [--manifest FILE]",
       "write items out as files",
       "Writes items out as files under <dest>: the containers or items named, or\n"
       "with --all every container of the store, or with --names MAP alone the items\n"
       "MAP names. Each item becomes\n"
       "<dest>/<container>/<item number>, or, with --names MAP (the mapping import\n"
       "printed), <dest>/<its file's name>, and then only the items MAP names are\n"
       "written, and its directories made (empty ones too). Existing files are never\n"
       "overwritten. A blocked item is written as its blocks in order.\n"
       "\n"
       "Prints the manifest, '<item> <bytes> <sha256> <file>' per line, or writes it\n"
       "to --manifest FILE.\n",
       {{"all", 0, false, "every container of the store"},
        {"names", 0, true, "the mapping import printed: files get their names back"},
        {"manifest", 0, true, "write the manifest to this file instead of standard output"}},
       1,
       -1,
       RunExport},
  };
  return kCommands;
}

}  // namespace cli
