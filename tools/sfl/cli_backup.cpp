// `sfl backup` and `sfl restore`: a consistent copy of a live store and the
// way back. Each container is copied whole while one exclusive record lock
// over all of its bytes is held through a descriptor of the tool's own: every
// change the library makes to a container's records is made under a lock of
// those records' bytes, so no writer changes the file while it is copied, and
// each waits for no longer than the copy of that one container takes. The
// copies are verified by the integrity check, run in a child process with a
// private interest service (the copies carry the store's references, and
// their checks must not count as holders of the live containers).
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "cli.h"
#include "cli_sha256.h"

namespace cli {
namespace {

namespace fs = std::filesystem;

const char kManifest[] = "MANIFEST";
const char kSums[] = "SHA256SUMS";
const char kFormat[] = "sfl-backup 1";
constexpr int kCopyRounds = 5;

int64_t Nanos(clockid_t clock) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

std::string SelfProgram() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) throw SystemFailure{errno, "/proc/self/exe", "finding this program"};
  self[n] = '\0';
  return self;
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

}  // namespace

void MakeDirs(const std::string& dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) throw SystemFailure{ec.value(), dir, "making the directory"};
}

std::string ParentDir(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Runs this program with `args` and the environment changes; what it prints
// (both streams) is given back in `output`. Returns its exit status.
int RunSelf(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
            std::string* output) {
  std::vector<std::string> argv = {SelfProgram()};
  argv.insert(argv.end(), args.begin(), args.end());
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) throw SystemFailure{errno, argv[0], "starting"};
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw SystemFailure{errno, argv[0], "starting"};
  if (pid == 0) {
    for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    dup2(pipeFds[1], 1);
    dup2(pipeFds[1], 2);
    std::vector<char*> av;
    for (std::string& s : argv) av.push_back(s.data());
    av.push_back(nullptr);
    execv(av[0], av.data());
    _exit(127);
  }
  close(pipeFds[1]);
  *output = ReadAll(pipeFds[0]);
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

namespace {

// Whether `path` is `dir` or lies under it (the parts that do not exist yet
// taken as written).
bool Within(const std::string& path, const std::string& dir) {
  std::error_code ec;
  const std::string p = fs::weakly_canonical(path, ec).string();
  const std::string d = fs::weakly_canonical(dir, ec).string();
  return p == d || p.compare(0, d.size() + 1, d + "/") == 0;
}

std::string Trimmed(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}


void SyncPath(const std::string& path, bool dir) {
  const int fd = open(path.c_str(), (dir ? O_RDONLY | O_DIRECTORY : O_WRONLY) | O_CLOEXEC);
  if (fd < 0) throw SystemFailure{errno, path, "opening"};
  const int rc = fsync(fd);
  const int err = errno;
  close(fd);
  if (rc != 0) throw SystemFailure{err, path, "flushing"};
}

// Bytes per second a copy reads at most (--limit-rate); 0: no limit.
uint64_t g_rate = 0;

// Copies `in` (from its start, `size` bytes) to a new file `out`; returns
// the checksum of what was written.
std::string CopyBytes(int in, const std::string& inPath, uint64_t size, const std::string& out) {
  Fd o(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (o.get() < 0) throw SystemFailure{errno, out, "creating"};
  std::vector<char> buf(g_rate != 0 ? 64 << 10 : 1 << 20);
  const int64_t began = Nanos(CLOCK_MONOTONIC);
  Sha256 sum;
  uint64_t done = 0;
  while (done < size) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(buf.size(), size - done));
    const ssize_t n = pread(in, buf.data(), want, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw SystemFailure{errno, inPath, "reading", true};
    if (n == 0) throw Failure{inPath + ": the file ended early while it was locked"};
    sum.Add(buf.data(), static_cast<size_t>(n));
    WriteAll(o.get(), buf.data(), static_cast<size_t>(n));
    done += static_cast<uint64_t>(n);
    if (g_rate != 0) {
      const int64_t due = began + static_cast<int64_t>(done * 1000000000 / g_rate);
      const int64_t now = Nanos(CLOCK_MONOTONIC);
      if (due > now) usleep(static_cast<useconds_t>((due - now) / 1000));
    }
  }
  if (close(o.get()) != 0) {
    const int err = errno;
    throw SystemFailure{err, out, "writing"};
  }
  return sum.Hex();
}

// The checksum and size of a file as it is now.
std::string FileSum(const std::string& path, uint64_t* size) {
  Fd in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) throw SystemFailure{errno, path, "opening"};
  std::vector<char> buf(1 << 20);
  Sha256 sum;
  *size = 0;
  for (;;) {
    const ssize_t n = read(in.get(), buf.data(), buf.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw SystemFailure{errno, path, "reading"};
    if (n == 0) break;
    sum.Add(buf.data(), static_cast<size_t>(n));
    *size += static_cast<uint64_t>(n);
  }
  return sum.Hex();
}

// ---- child processes of the tool itself --------------------------------------------


// Checks the containers `rels` (paths under `root`) with the integrity check,
// in a child process whose store root is `root` and whose interest service is
// its own, stopped again afterwards. Returns the references that failed;
// their faults are shown when `show`.
std::vector<std::string> CheckCopies(const std::string& root, const std::vector<std::string>& refs,
                                     bool show = true) {
  if (refs.empty()) return {};
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/sfl-verify-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) throw SystemFailure{errno, pattern, "making a directory from"};
  const std::string runDir = name.data();
  const std::map<std::string, std::string> env = {
      {"SFL_RUN_DIR", runDir}, {"SFL_MONITOR_IDLE_SECONDS", "5"}, {"SFL_STORE_ROOT", root}};
  std::vector<std::string> failed;
  auto check = [&](const std::vector<std::string>& which) {
    std::vector<std::string> args = {"check", "--quiet"};
    args.insert(args.end(), which.begin(), which.end());
    std::string out;
    const int rc = RunSelf(args, env, &out);
    if (rc != 0 && show) std::fprintf(stderr, "%s", out.c_str());  // the faults
    return rc;
  };
  if (check(refs) != 0) {
    // Find which: each again on its own.
    for (const std::string& r : refs)
      if (check({r}) != 0) failed.push_back(r);
    if (failed.empty()) failed.push_back("(the check of all)");
  }
  std::string ignored;
  RunSelf({"service", "stop", "--force"}, env, &ignored);
  std::error_code ec;
  fs::remove_all(runDir, ec);
  return failed;
}

// ---- backup -------------------------------------------------------------------------

struct Copied {
  std::string ref, rel;
  uint64_t size = 0;
  std::string sum;
  int64_t moment = 0;  // realtime, ns, read while the lock was held
  int64_t waitUs = 0;  // how long the tool waited for the lock
  int64_t heldUs = 0;  // how long writers were kept out
  bool gone = false;   // the container was removed before it could be copied
};

// Copies one container whole under an exclusive lock of all its bytes. The
// lock is taken through a descriptor of the tool's own and waits for the
// locks of the library's callers; it is held only while the bytes are read
// and written to the copy (flushing the copy comes after). A container that
// a rebuild replaced, or a last close removed, while the tool waited is
// opened again by its path.
Copied CopyContainer(const std::string& src, const std::string& dst) {
  Copied c;
  for (int attempt = 0;; ++attempt) {
    Fd fd(open(src.c_str(), O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) {
      if (errno == ENOENT) {
        c.gone = true;
        return c;
      }
      throw SystemFailure{errno, src, "opening", true};
    }
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;  // every byte, however far the file grows
    const int64_t asked = Nanos(CLOCK_MONOTONIC);
    while (fcntl(fd.get(), F_OFD_SETLKW, &fl) != 0)
      if (errno != EINTR) throw SystemFailure{errno, src, "locking", true};
    const int64_t got = Nanos(CLOCK_MONOTONIC);
    c.moment = Nanos(CLOCK_REALTIME);
    struct stat held, named;
    if (fstat(fd.get(), &held) != 0) throw SystemFailure{errno, src, "reading", true};
    const bool same = held.st_nlink > 0 && stat(src.c_str(), &named) == 0 && named.st_ino == held.st_ino &&
                      named.st_dev == held.st_dev;
    if (!same) {
      if (attempt >= 100) throw Failure{src + ": the file keeps being replaced; try again later"};
      continue;  // closing the descriptor gives the lock back
    }
    c.waitUs = (got - asked) / 1000;
    c.size = static_cast<uint64_t>(held.st_size);
    c.sum = CopyBytes(fd.get(), src, c.size, dst + ".part");
    fd.Close();  // the lock goes with the descriptor
    c.heldUs = (Nanos(CLOCK_MONOTONIC) - got) / 1000;
    SyncPath(dst + ".part", false);
    if (rename((dst + ".part").c_str(), dst.c_str()) != 0) throw SystemFailure{errno, dst, "renaming"};
    return c;
  }
}

// The path of a container under the store root, as the manifest keeps it.
std::string RelativeToRoot(const std::string& path, const std::string& root) {
  if (path.compare(0, root.size() + 1, root + "/") != 0)
    throw Failure{path + " is not under the store root " + root};
  return path.substr(root.size() + 1);
}

class Progress {
 public:
  Progress(const char* verb, size_t total) : verb_(verb), total_(total), on_(isatty(2) != 0) {}
  ~Progress() {
    if (on_ && shown_) std::fprintf(stderr, "\r\033[K");
  }
  void Show(size_t done) {
    if (!on_) return;
    std::fprintf(stderr, "\r%s %zu of %zu containers", verb_, done, total_);
    shown_ = true;
  }

 private:
  const char* verb_;
  size_t total_;
  bool on_;
  bool shown_ = false;
};

int RunBackup(const Args& a) {
  const std::string dest = a.positional[0];
  SetSubject(dest);
  const bool json = a.Has("json");
  if (a.Has("limit-rate")) g_rate = ParseNumber(a.Get("limit-rate"), "rate", 1 << 20) * 1024;
  const int64_t since = a.Has("since") ? static_cast<int64_t>(ParseNumber(a.Get("since"), "stamp", INT64_MAX)) : -1;
  // Stamps are coarse real time: a file's change time is taken from that
  // clock (or a finer one), so a change after this moment shows a time at
  // or after it, and `--since <stamp>` misses none.
  const int64_t stamp = Nanos(CLOCK_REALTIME_COARSE);
  const std::string root = StoreRootText();

  struct Entry {
    std::string ref, path;
  };
  std::vector<Entry> entries;
  if (a.positional.size() > 1) {
    for (size_t i = 1; i < a.positional.size(); ++i) {
      const sfl_ItemRef ref = ParseContainerRef(a.positional[i]);
      entries.push_back({RefText(ref), RefPath(ref)});
    }
  } else {
    for (const StoreEntry& e : StoreContainers()) {
      if (!e.unreadable.empty()) throw Failure{e.path + ": cannot be read: " + e.unreadable, kExitUnreadable};
      entries.push_back({RefText(e.ref), e.path});
    }
  }
  if (Within(dest, root)) throw UsageError{"the backup cannot go inside the store root " + root};
  struct stat st;
  if (stat((dest + "/" + kManifest).c_str(), &st) == 0)
    throw Failure{dest + " holds a backup already; give a new directory"};
  MakeDirs(dest);

  std::vector<Copied> copied;
  std::vector<std::string> unchanged, gone;
  Progress progress("copying", entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    progress.Show(i);
    const Entry& e = entries[i];
    SetSubject(e.ref);
    if (since >= 0) {
      if (stat(e.path.c_str(), &st) != 0) {
        if (errno == ENOENT) {
          gone.push_back(e.ref);
          continue;
        }
        throw SystemFailure{errno, e.path, "reading", true};
      }
      if (int64_t{st.st_mtim.tv_sec} * 1000000000 + st.st_mtim.tv_nsec < since) {
        unchanged.push_back(e.ref + " " + RelativeToRoot(e.path, root));
        continue;
      }
    }
    const std::string rel = RelativeToRoot(e.path, root);
    MakeDirs(ParentDir(dest + "/" + rel));
    Copied c = CopyContainer(e.path, dest + "/" + rel);
    if (c.gone) {
      gone.push_back(e.ref);
      continue;
    }
    c.ref = e.ref;
    c.rel = rel;
    copied.push_back(c);
  }
  progress.Show(entries.size());

  // A copy can catch a store half way: its slot taken, its item header not
  // yet written (the check's SFL-204-1048). Such a copy is taken again, a
  // few times, before the backup gives up on it.
  SetSubject(dest);
  std::vector<std::string> refs;
  for (const Copied& c : copied) refs.push_back(c.ref);
  uint32_t retaken = 0;
  for (int round = 0;; ++round) {
    const bool last = round == kCopyRounds - 1;
    refs = CheckCopies(dest, refs, last);
    if (refs.empty()) break;
    if (last) {
      std::string list;
      for (const std::string& b : refs) list += (list.empty() ? "" : " ") + b;
      throw Failure{"the copy of " + list + " does not check clean (its faults are above); no manifest was written"};
    }
    for (Copied& c : copied) {
      if (std::find(refs.begin(), refs.end(), c.ref) == refs.end()) continue;
      SetSubject(c.ref);
      Copied again = CopyContainer(root + "/" + c.rel, dest + "/" + c.rel);
      if (again.gone) throw Failure{c.ref + " was removed while it was copied again; run the backup again"};
      again.ref = c.ref;
      again.rel = c.rel;
      c = again;
      ++retaken;
    }
    SetSubject(dest);
  }

  std::string manifest = std::string(kFormat) + "\n";
  manifest += "stamp " + std::to_string(stamp) + "\n";
  manifest += "since " + (since >= 0 ? std::to_string(since) : std::string("-")) + "\n";
  manifest += "root " + root + "\n";
  std::string sums;
  uint64_t bytes = 0;
  int64_t maxHeld = 0, maxWait = 0;
  for (const Copied& c : copied) {
    manifest += "container " + c.ref + " " + c.rel + " " + std::to_string(c.size) + " " + c.sum + " " +
                std::to_string(c.moment) + " " + std::to_string(c.heldUs) + "\n";
    sums += c.sum + "  " + c.rel + "\n";
    bytes += c.size;
    maxHeld = std::max(maxHeld, c.heldUs);
    maxWait = std::max(maxWait, c.waitUs);
  }
  for (const std::string& u : unchanged) manifest += "unchanged " + u + "\n";
  manifest += "end " + std::to_string(copied.size()) + "\n";
  for (const auto& [name, text] : {std::pair<const char*, std::string>{kSums, sums}, {kManifest, manifest}}) {
    const std::string path = dest + "/" + name;
    {
      Fd f(open((path + ".part").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
      if (f.get() < 0) throw SystemFailure{errno, path + ".part", "creating"};
      WriteAll(f.get(), text.data(), text.size());
      if (fsync(f.get()) != 0) throw SystemFailure{errno, path + ".part", "flushing"};
    }
    if (rename((path + ".part").c_str(), path.c_str()) != 0) throw SystemFailure{errno, path, "renaming"};
  }
  SyncPath(dest, true);

  if (json) {
    std::printf("{\"dest\": %s, \"stamp\": %lld, \"since\": %lld, \"copied\": %zu, \"unchanged\": %zu, "
                "\"gone\": %zu, \"bytes\": %llu, \"max_held_us\": %lld, \"max_wait_us\": %lld, "
                "\"retaken\": %u, \"checked\": true}\n",
                JsonString(dest).c_str(), static_cast<long long>(stamp), static_cast<long long>(since),
                copied.size(), unchanged.size(), gone.size(), static_cast<unsigned long long>(bytes),
                static_cast<long long>(maxHeld), static_cast<long long>(maxWait), retaken);
  } else {
    for (const Copied& c : copied)
      std::printf("%s  %llu bytes, writers kept out %.1f ms\n", c.ref.c_str(),
                  static_cast<unsigned long long>(c.size), static_cast<double>(c.heldUs) / 1000);
    for (const std::string& g : gone) std::printf("%s  removed before it was copied\n", g.c_str());
    std::printf("%zu container%s copied, %zu unchanged, %llu bytes, all checked clean\n", copied.size(),
                copied.size() == 1 ? "" : "s", unchanged.size(), static_cast<unsigned long long>(bytes));
    std::printf("stamp %lld: give it to --since for the next backup\n", static_cast<long long>(stamp));
  }
  return kExitOk;
}

// ---- restore ------------------------------------------------------------------------

struct ManifestEntry {
  std::string ref, rel, sum;
  uint64_t size = 0;
};

std::vector<ManifestEntry> ReadManifest(const std::string& src) {
  const std::string path = src + "/" + kManifest;
  Fd f(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (f.get() < 0) throw SystemFailure{errno, path, "opening"};
  const std::string text = ReadAll(f.get());
  std::vector<ManifestEntry> out;
  size_t pos = 0;
  bool ended = false, first = true;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    if (first) {
      if (line != kFormat) throw Failure{path + " is not a backup manifest"};
      first = false;
      continue;
    }
    if (line.compare(0, 10, "container ") == 0) {
      char ref[64], rel[PATH_MAX], sum[80];
      unsigned long long size = 0;
      if (std::sscanf(line.c_str(), "container %63s %4095s %llu %79s", ref, rel, &size, sum) != 4 ||
          std::string(rel).find("..") != std::string::npos || rel[0] == '/')
        throw Failure{path + ": a damaged line: " + line};
      out.push_back({ref, rel, sum, size});
    } else if (line.compare(0, 4, "end ") == 0) {
      if (std::to_string(out.size()) != line.substr(4)) throw Failure{path + ": the count at its end does not match"};
      ended = true;
    }
  }
  if (!ended) throw Failure{path + " is incomplete (it has no end line)"};
  return out;
}

int RunRestore(const Args& a) {
  const std::string src = a.positional[0];
  SetSubject(src);
  const std::vector<ManifestEntry> entries = ReadManifest(src);
  // Every copy is as the backup wrote it, and checks clean.
  std::vector<std::string> refs;
  for (const ManifestEntry& e : entries) {
    uint64_t size = 0;
    const std::string sum = FileSum(src + "/" + e.rel, &size);
    if (size != e.size || sum != e.sum)
      throw Failure{src + "/" + e.rel + ": does not match the manifest (size or checksum); nothing was restored"};
    refs.push_back(e.ref);
  }
  const std::vector<std::string> bad = CheckCopies(src, refs);
  if (!bad.empty()) throw Failure{"the backup's " + bad[0] + " does not check clean; nothing was restored"};

  const bool beside = a.Has("beside");
  const std::string target = beside ? a.Get("beside") : StoreRootText();
  if (beside && Within(target, StoreRootText()))
    throw UsageError{"--beside names the store root or a directory in it; restore in place without --beside"};
  if (!beside) {
    // Only a store no process holds is replaced. The service knows; a
    // service that holds no interest is stopped (the library starts one
    // again when it is next needed).
    std::string why;
    if (RunSelf({"service", "stop"}, {}, &why) != 0)
      throw Failure{"the store is in use (" + Trimmed(why) + "); stop the processes holding it first, or "
                    "restore with --beside DIR"};
  }
  // Everything is copied beside its place first and renamed into place
  // only when all copies are made: a failure leaves the store as it was.
  std::vector<std::string> parts;
  try {
    Progress progress("restoring", entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
      progress.Show(i);
      const ManifestEntry& e = entries[i];
      const std::string to = target + "/" + e.rel;
      MakeDirs(ParentDir(to));
      Fd in(open((src + "/" + e.rel).c_str(), O_RDONLY | O_CLOEXEC));
      if (in.get() < 0) throw SystemFailure{errno, src + "/" + e.rel, "opening"};
      parts.push_back(to + ".restoring");
      if (CopyBytes(in.get(), src + "/" + e.rel, e.size, parts.back()) != e.sum)
        throw Failure{src + "/" + e.rel + ": changed while it was restored"};
      SyncPath(parts.back(), false);
    }
  } catch (...) {
    for (const std::string& p : parts) unlink(p.c_str());
    throw;
  }
  for (const ManifestEntry& e : entries) {
    const std::string to = target + "/" + e.rel;
    if (rename((to + ".restoring").c_str(), to.c_str()) != 0) throw SystemFailure{errno, to, "renaming"};
    SyncPath(ParentDir(to), true);
  }
  if (a.Has("json"))
    std::printf("{\"source\": %s, \"target\": %s, \"restored\": %zu}\n", JsonString(src).c_str(),
                JsonString(target).c_str(), entries.size());
  else
    std::printf("%zu container%s restored into %s\n", entries.size(), entries.size() == 1 ? "" : "s",
                target.c_str());
  return kExitOk;
}

}  // namespace

const std::vector<Command>& BackupCommands() {
  static const std::vector<Command> kCommands = {
      {"backup",
       "<dest> [--since STAMP] [--limit-rate KIB] [--json] [container...]",
       "copy a live store (or the containers named) consistently",
       "Copies every container of the store (or those named) into <dest>, a new or\n"
       "empty directory, under the same relative paths, while other processes go on\n"
       "using the store. Each container is copied whole at one moment: the tool holds\n"
       "an exclusive lock over all of its bytes while it reads it, so a process that\n"
       "changes that container waits until its copy is made (the text output says how\n"
       "long each one was kept out), and no longer.\n"
       "\n"
       "Every copy is then checked with the integrity check. Last, <dest>/MANIFEST is\n"
       "written (the backup is complete only when it is there):\n"
       "    sfl-backup 1\n"
       "    stamp <ns>    the time the backup started, for --since\n"
       "    since <ns>|-\n"
       "    root <store root>\n"
       "    container <ref> <path> <bytes> <sha256> <moment ns> <held us>\n"
       "    unchanged <ref> <path>    (with --since)\n"
       "    end <number of containers copied>\n"
       "with <dest>/SHA256SUMS for 'sha256sum -c'. The moment is when the copy was\n"
       "taken (nanoseconds since 1970, UTC): the copy holds what the container held\n"
       "then.\n"
       "\n"
       "--since STAMP copies only containers changed at or after STAMP (the stamp an\n"
       "earlier backup printed and wrote in its manifest) and lists the others as\n"
       "unchanged. A progress line shows on a terminal.\n",
       {{"since", 0, true, "copy only containers changed at or after this stamp"},
        {"limit-rate", 0, true, "read at most this many KiB per second (less load on the disk, but "
                                "writers of a container wait longer for its copy)"},
        {"json", 0, false, "one JSON object: dest, stamp, since, copied, unchanged, gone, bytes, "
                           "max_held_us, max_wait_us, checked"}},
       1,
       -1,
       RunBackup},
      {"restore",
       "<src> [--beside DIR] [--json]",
       "put a backup in place of a store, or beside it",
       "Verifies the backup in <src>: its manifest, each copy's size and checksum, and\n"
       "the integrity check of every copy. Then copies the containers into the store\n"
       "(or, with --beside DIR, into DIR as a store root of its own, leaving the store\n"
       "alone), each first beside its place and renamed into place only when all are\n"
       "copied: on a failure nothing is restored. Containers of the store that the\n"
       "backup does not hold are left as they are.\n"
       "\n"
       "In place, the store must not be in use: restore stops its interest service,\n"
       "and refuses when the service has processes holding containers.\n",
       {{"beside", 0, true, "restore into this directory instead of the store"},
        {"json", 0, false, "one JSON object: source, target, restored"}},
       1,
       1,
       RunRestore},
  };
  return kCommands;
}

}  // namespace cli
