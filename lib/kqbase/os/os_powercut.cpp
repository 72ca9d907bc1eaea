// os_: the power-cut switch. While armed it keeps a journal of what the
// kernel holds but the disk may not: per file, every write and truncation
// since that file's last flush (the bytes before and after), and per
// directory every entry created, removed or renamed since that directory's
// last flush. At the chosen point it turns the files under the root into
// one state a power cut could leave, and ends the process.
//
// The cut works on the real files: it first takes every unflushed change of
// a file back (newest first, so the file is exactly as last flushed), then
// replays the changes the draw keeps, in their order; a torn write keeps
// some of its 512-byte sectors and not others, and a sector it did not keep
// that lay past the old end of the file reads as zeros (or, when asked,
// zeros or garbage), and one over old bytes keeps them (or, when asked and
// past a given offset, holds garbage). Directory
// changes are then undone in any combination, newest first. A removed name
// can come back because its file was linked into the stash directory
// before the removal.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "os.h"
#include "os_powercut.h"

bool os_pcArmed = false;

namespace {

constexpr size_t kSector = 512;

enum class Kind { Write, Truncate, Create, Remove, Rename };

// One unflushed change. Writes and truncations belong to a file (by its
// journal descriptor); entry changes to the directories they name.
struct Change {
  Kind kind = Kind::Write;
  int jfd = -1;                // file changes: the file, opened for the journal
  off_t off = 0;               // write: where; truncate: the new length
  off_t oldSize = 0;           // the file's length before the change
  std::vector<uint8_t> before; // the bytes the change overwrote or cut off
  std::vector<uint8_t> after;  // write: the bytes written
  std::string path, path2;     // entry changes: the name(s), absolute
  std::string dir, dir2;       // the directories holding them
  std::string stash;           // a link to what the removed name held
  bool isDir = false;
  bool flushed = false;
};

struct State {
  std::string root;   // canonical, with a trailing '/'
  std::string stashDir;
  uint64_t seed = 0;
  bool garbage = false;
  uint64_t garbageFrom = 0;  // 0: no garbage over old bytes
  uint64_t flushCountdown = 0, callCountdown = 0, skipCountdown = 0;
  uint64_t flushes = 0;
  unsigned stashes = 0;
  std::vector<Change> changes;
  std::map<std::pair<dev_t, ino_t>, int> journalFds;  // one per file
  std::map<int, int> fdJournal;        // descriptor -> journal descriptor (-1: not ours)
  std::map<int, std::string> fdDirs;   // descriptor -> directory it names, if ours
  Change pending;                      // between a Before and its After
  bool hasPending = false;
};
State g;

std::string Canonical(const std::string& path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::absolute(path, ec);
  // The name itself may not exist (yet, or any more): only its directory is
  // made canonical.
  std::filesystem::path dir = std::filesystem::weakly_canonical(p.parent_path(), ec);
  return (dir / p.filename()).string();
}

std::string DirOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

// The root itself (its entries) or anything below it.
bool Ours(const std::string& canonical) { return (canonical + "/").compare(0, g.root.size(), g.root) == 0; }

std::string FdPath(int fd) {
  char buf[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = ::readlink(link.c_str(), buf, sizeof buf - 1);
  if (n <= 0) return {};
  return std::string(buf, static_cast<size_t>(n));
}

// The journal descriptor of the file `fd` names, or -1 when it is not a
// regular file under the root.
int JournalOf(int fd) {
  auto known = g.fdJournal.find(fd);
  if (known != g.fdJournal.end()) return known->second;
  struct stat st;
  int jfd = -1;
  const std::string path = FdPath(fd);
  if (::fstat(fd, &st) == 0 && !path.empty() && Ours(path)) {
    if (S_ISDIR(st.st_mode)) {
      g.fdDirs[fd] = path;
    } else if (S_ISREG(st.st_mode)) {
      auto j = g.journalFds.find({st.st_dev, st.st_ino});
      if (j != g.journalFds.end()) {
        jfd = j->second;
      } else {
        // Its own description: reads and writes here never move the
        // caller's position.
        jfd = ::open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDWR | O_CLOEXEC);
        if (jfd >= 0) g.journalFds[{st.st_dev, st.st_ino}] = jfd;
      }
    }
  }
  g.fdJournal[fd] = jfd;
  return jfd;
}

off_t SizeOf(int jfd) {
  struct stat st;
  return ::fstat(jfd, &st) == 0 ? st.st_size : 0;
}

std::vector<uint8_t> ReadAt(int jfd, off_t off, size_t len) {
  std::vector<uint8_t> out(len);
  size_t got = 0;
  while (got < len) {
    const ssize_t n = ::pread(jfd, out.data() + got, len - got, off + static_cast<off_t>(got));
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  out.resize(got);
  return out;
}

void WriteAt(int jfd, const uint8_t* p, size_t len, off_t off) {
  size_t put = 0;
  while (put < len) {
    const ssize_t n = ::pwrite(jfd, p + put, len - put, off + static_cast<off_t>(put));
    if (n <= 0) return;
    put += static_cast<size_t>(n);
  }
}

uint64_t Next(uint64_t& s) {
  s += 0x9E3779B97F4A7C15ull;
  uint64_t z = s;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// 0 keeps nothing unflushed, 1 keeps everything; any other seed draws.
enum Verdict { kDrop, kKeep, kTear };
Verdict Draw(uint64_t& rng, bool canTear) {
  if (g.seed == 0) return kDrop;
  if (g.seed == 1) return kKeep;
  const uint64_t r = Next(rng) % (canTear ? 3 : 2);
  return static_cast<Verdict>(r);
}

void ReplayWrite(const Change& c, Verdict v, uint64_t& rng) {
  if (v == kKeep) {
    WriteAt(c.jfd, c.after.data(), c.after.size(), c.off);
    return;
  }
  // Torn: sector by sector (sectors of the file, not of the write).
  const off_t end = c.off + static_cast<off_t>(c.after.size());
  const off_t sizeNow = SizeOf(c.jfd);
  off_t pos = c.off;
  while (pos < end) {
    const off_t sectorEnd = std::min<off_t>(end, (pos / kSector + 1) * kSector);
    const size_t len = static_cast<size_t>(sectorEnd - pos);
    if (Next(rng) % 2 == 0) {
      WriteAt(c.jfd, c.after.data() + (pos - c.off), len, pos);
    } else if (pos >= sizeNow && g.garbage) {
      // Past the old end: the disk's sector held whatever it held.
      std::vector<uint8_t> junk(len, 0);
      if (Next(rng) % 2 == 0)
        for (uint8_t& b : junk) b = static_cast<uint8_t>(Next(rng));
      WriteAt(c.jfd, junk.data(), len, pos);
    } else if (g.garbageFrom != 0 && static_cast<uint64_t>(pos) >= g.garbageFrom && Next(rng) % 2 == 0) {
      // Over old bytes: what the drive was writing there holds neither
      // (the write's own bytes of the sector).
      std::vector<uint8_t> junk(len);
      for (uint8_t& b : junk) b = static_cast<uint8_t>(Next(rng) | 1);
      WriteAt(c.jfd, junk.data(), len, pos);
    }
    pos = sectorEnd;
  }
}

void CutFiles(uint64_t& rng) {
  // Back to the flushed state, newest change first.
  for (size_t i = g.changes.size(); i-- > 0;) {
    const Change& c = g.changes[i];
    if (c.flushed || (c.kind != Kind::Write && c.kind != Kind::Truncate)) continue;
    if (::ftruncate(c.jfd, c.oldSize) != 0) continue;
    WriteAt(c.jfd, c.before.data(), c.before.size(), c.off);
  }
  // Then forward again with what the draw keeps.
  for (const Change& c : g.changes) {
    if (c.flushed || (c.kind != Kind::Write && c.kind != Kind::Truncate)) continue;
    const Verdict v = Draw(rng, c.kind == Kind::Write);
    if (v == kDrop) continue;
    if (c.kind == Kind::Truncate) {
      if (::ftruncate(c.jfd, c.off) != 0) continue;
    } else {
      ReplayWrite(c, v, rng);
    }
  }
}

bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

void CutEntries(uint64_t& rng) {
  std::vector<bool> undo(g.changes.size(), false);
  for (size_t i = 0; i < g.changes.size(); ++i) {
    const Change& c = g.changes[i];
    if (c.flushed || c.kind == Kind::Write || c.kind == Kind::Truncate) continue;
    undo[i] = Draw(rng, false) == kDrop;
  }
  std::error_code ec;
  for (size_t i = g.changes.size(); i-- > 0;) {
    if (!undo[i]) continue;
    const Change& c = g.changes[i];
    switch (c.kind) {
      case Kind::Create:
        std::filesystem::remove_all(c.path, ec);
        break;
      case Kind::Remove:
        if (Exists(c.path)) break;
        if (c.isDir)
          ::mkdir(c.path.c_str(), 0770);
        else if (!c.stash.empty())
          ::rename(c.stash.c_str(), c.path.c_str());
        break;
      case Kind::Rename:
        if (Exists(c.path) || !Exists(c.path2)) break;
        ::rename(c.path2.c_str(), c.path.c_str());
        if (!c.stash.empty()) ::rename(c.stash.c_str(), c.path2.c_str());
        break;
      default:
        break;
    }
  }
}

// Keeps what `path` names now in the stash, so that undoing its removal
// can bring it back.
std::string Stash(const std::string& path) {
  const std::string to = g.stashDir + "/" + std::to_string(::getpid()) + "." + std::to_string(g.stashes++);
  return ::link(path.c_str(), to.c_str()) == 0 ? to : std::string();
}

void Add(Change c) { g.changes.push_back(std::move(c)); }

// The hooks run beside the wrapped call: whatever they do, the caller sees
// the errno of its own call.
struct KeepErrno {
  int saved = errno;
  ~KeepErrno() { errno = saved; }
};

}  // namespace

// ---- the switch --------------------------------------------------------------

void os_PowerCutArm(const char* root, const char* stashDir, uint64_t seed) {
  os_PowerCutDisarm();
  std::error_code ec;
  g.root = std::filesystem::weakly_canonical(root, ec).string() + "/";
  g.stashDir = stashDir;
  g.seed = seed;
  os_pcArmed = true;
}

void os_PowerCutDisarm() {
  for (const auto& [key, jfd] : g.journalFds) ::close(jfd);
  g = State{};
  os_pcArmed = false;
}

void os_PowerCutAtFlush(uint64_t nth) { g.flushCountdown = nth; }

void os_PowerCutGarbage(bool on) { g.garbage = on; }

void os_PowerCutGarbageFrom(uint64_t offset) { g.garbageFrom = offset; }

void os_PowerCutAtCall(uint64_t nth) { g.callCountdown = nth; }

void os_PowerCutSkipFlush(uint64_t nth) { g.skipCountdown = nth; }

uint64_t os_PowerCutFlushes() { return g.flushes; }

size_t os_PowerCutUnflushed() {
  size_t n = 0;
  for (const Change& c : g.changes) n += c.flushed ? 0 : 1;
  return n;
}

void os_PowerCutNow() {
  uint64_t rng = g.seed;
  CutFiles(rng);
  CutEntries(rng);
  os_ExitNow(OS_POWER_CUT_EXIT);
}

// ---- hooks -------------------------------------------------------------------

void os_PcBeforeCall() {
  if (g.callCountdown != 0 && --g.callCountdown == 0) os_PowerCutNow();
}

void os_PcBeforeWrite(int fd, off_t off, size_t len) {
  KeepErrno keep;
  g.hasPending = false;
  const int jfd = JournalOf(fd);
  if (jfd < 0) return;
  if (off < 0) off = ::lseek(fd, 0, SEEK_CUR);
  if (off < 0) return;
  Change c;
  c.kind = Kind::Write;
  c.jfd = jfd;
  c.off = off;
  c.oldSize = SizeOf(jfd);
  if (off < c.oldSize) c.before = ReadAt(jfd, off, std::min<size_t>(len, static_cast<size_t>(c.oldSize - off)));
  g.pending = std::move(c);
  g.hasPending = true;
}

void os_PcAfterWrite(ssize_t written) {
  KeepErrno keep;
  if (!g.hasPending) return;
  g.hasPending = false;
  if (written <= 0) return;
  Change c = std::move(g.pending);
  c.after = ReadAt(c.jfd, c.off, static_cast<size_t>(written));
  Add(std::move(c));
}

void os_PcBeforeTruncate(int fd, off_t len) {
  KeepErrno keep;
  const int jfd = JournalOf(fd);
  if (jfd < 0) return;
  Change c;
  c.kind = Kind::Truncate;
  c.jfd = jfd;
  c.off = len;
  c.oldSize = SizeOf(jfd);
  if (len < c.oldSize) c.before = ReadAt(jfd, len, static_cast<size_t>(c.oldSize - len));
  Add(std::move(c));
}

bool os_PcBeforeFlush(int fd) {
  KeepErrno keep;
  // Only flushes of what lies under the root count.
  JournalOf(fd);
  if (g.fdJournal[fd] < 0 && g.fdDirs.count(fd) == 0) return false;
  ++g.flushes;
  if (g.flushCountdown != 0 && --g.flushCountdown == 0) os_PowerCutNow();
  return g.skipCountdown != 0 && --g.skipCountdown == 0;
}

void os_PcFlushed(int fd) {
  KeepErrno keep;
  auto dir = g.fdDirs.find(fd);
  if (dir != g.fdDirs.end()) {
    for (Change& c : g.changes)
      if (c.kind != Kind::Write && c.kind != Kind::Truncate && (c.dir == dir->second || c.dir2 == dir->second)) {
        // A rename between two directories holds once both are flushed.
        if (c.dir == dir->second) c.dir.clear();
        if (c.dir2 == dir->second) c.dir2.clear();
        c.flushed = c.dir.empty() && c.dir2.empty();
      }
    return;
  }
  const int jfd = JournalOf(fd);
  if (jfd < 0) return;
  for (Change& c : g.changes)
    if (c.jfd == jfd) c.flushed = true;
}

void os_PcClosed(int fd) {
  g.fdJournal.erase(fd);
  g.fdDirs.erase(fd);
}

void os_PcBeforeCreate(const char* path, int flags) {
  KeepErrno keep;
  g.hasPending = false;
  if ((flags & O_CREAT) == 0) return;
  const std::string p = Canonical(path);
  if (!Ours(p) || Exists(p)) return;
  g.pending = Change{};
  g.pending.kind = Kind::Create;
  g.pending.path = p;
  g.pending.dir = DirOf(p);
  g.hasPending = true;
}

void os_PcAfterCreate(bool made) {
  KeepErrno keep;
  if (!g.hasPending) return;
  g.hasPending = false;
  if (made) Add(std::move(g.pending));
}

void os_PcMadeDir(const char* path, bool made) {
  KeepErrno keep;
  const std::string p = Canonical(path);
  if (!made || !Ours(p)) return;
  Change c;
  c.kind = Kind::Create;
  c.path = p;
  c.dir = DirOf(p);
  c.isDir = true;
  Add(std::move(c));
}

void os_PcBeforeRemove(const char* path, bool isDir) {
  KeepErrno keep;
  g.hasPending = false;
  const std::string p = Canonical(path);
  if (!Ours(p) || !Exists(p)) return;
  g.pending = Change{};
  g.pending.kind = Kind::Remove;
  g.pending.path = p;
  g.pending.dir = DirOf(p);
  g.pending.isDir = isDir;
  if (!isDir) g.pending.stash = Stash(p);
  g.hasPending = true;
}

void os_PcAfterRemove(bool done) {
  KeepErrno keep;
  if (!g.hasPending) return;
  g.hasPending = false;
  if (done) {
    Add(std::move(g.pending));
  } else if (!g.pending.stash.empty()) {
    ::unlink(g.pending.stash.c_str());
  }
}

void os_PcBeforeRename(const char* from, const char* to) {
  KeepErrno keep;
  g.hasPending = false;
  const std::string f = Canonical(from), t = Canonical(to);
  if (!Ours(f) && !Ours(t)) return;
  g.pending = Change{};
  g.pending.kind = Kind::Rename;
  g.pending.path = f;
  g.pending.path2 = t;
  g.pending.dir = DirOf(f);
  g.pending.dir2 = DirOf(t);
  if (g.pending.dir2 == g.pending.dir) g.pending.dir2.clear();
  if (Exists(t)) g.pending.stash = Stash(t);
  g.hasPending = true;
}

void os_PcAfterRename(bool done) { os_PcAfterRemove(done); }

void os_PcForget() {
  // The journal descriptors are the parent's to close; the child only
  // forgets them.
  g = State{};
  os_pcArmed = false;
}
