// The tool's one way of reporting a failure: every command's error becomes
// one line on standard error that names the operation, the reference, the
// path it resolved to with the store root, the system's own text for an
// errno and, where there is one, what to do about it.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli.h"

namespace cli {
namespace {

constexpr int kServiceDown = 380;

bool g_hasRef = false;
sfl_ItemRef g_ref{};

std::string UserName(uid_t uid) {
  struct passwd pw;
  struct passwd* found = nullptr;
  char buf[1024];
  if (getpwuid_r(uid, &pw, buf, sizeof buf, &found) == 0 && found != nullptr) return pw.pw_name;
  return "uid " + std::to_string(uid);
}

std::string Mode(mode_t m) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(m & 07777));
  return buf;
}

std::string Cwd() {
  char buf[PATH_MAX];
  return getcwd(buf, sizeof buf) != nullptr ? std::string(buf) : std::string(".");
}

// The path as the user should look for it: relative paths are shown with
// the directory they are relative to.
std::string Located(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  return path + " in " + Cwd();
}

// The leading directories of a path, shortest first ("a/b/c" gives "a",
// "a/b").
std::vector<std::string> Parents(const std::string& path) {
  std::vector<std::string> out;
  for (size_t i = 1; i < path.size(); ++i)
    if (path[i] == '/' && path[i - 1] != '/') out.push_back(path.substr(0, i));
  return out;
}

// What keeps this user out of `path`: the first directory on the way that
// does not let us through, or the file or directory itself.
std::string WhoBlocks(const std::string& path) {
  std::vector<std::string> steps = Parents(path);
  steps.push_back(path);
  for (const std::string& p : steps) {
    struct stat st;
    if (stat(p.c_str(), &st) != 0) continue;
    const bool last = &p == &steps.back();
    const bool dir = S_ISDIR(st.st_mode);
    const int need = !dir ? R_OK | W_OK : last ? R_OK | X_OK : X_OK;
    if (access(p.c_str(), need) == 0) continue;
    const char* what = !dir ? "read and write it" : last ? "list it" : "through";
    return p + " (owner " + UserName(st.st_uid) + ", mode " + Mode(st.st_mode) +
           ") does not let " + UserName(geteuid()) + " " + what +
           ": ask its owner for access, or run sfl as that user";
  }
  return "permission denied on the way to " + path + ": ask the store's owner for access";
}

// The first part of the path that is a file where a directory belongs.
std::string NotADirectory(const std::string& path) {
  for (const std::string& p : Parents(path)) {
    struct stat st;
    if (stat(p.c_str(), &st) == 0 && !S_ISDIR(st.st_mode))
      return p + " is a file where a directory should be";
  }
  return "a part of " + path + " is not a directory";
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// What to do after an errno on a file of the store (`inStore`) or on a
// file the user named.
std::string Advice(int err, const std::string& path, bool inStore) {
  switch (err) {
    case ENOENT:
      if (!inStore) return "";
      if (!IsDirectory(StoreRootText()))
        return "the store root does not exist: run sfl where the store is, or give "
               "--store DIR or SFL_STORE_ROOT";
      return "no container file there: check the reference, or list the store with 'sfl ls'";
    case EACCES:
    case EPERM:
      return WhoBlocks(path);
    case ENOTDIR:
      return NotADirectory(path);
    case ENOSPC:
    case EDQUOT:
      return "the file system holding " + path +
             " is full: free some space and try again (what failed was undone)";
    case EROFS:
      return "the store is on a read-only file system";
    case EFBIG:
      return "the file would pass the size limit of this process or file system";
    default:
      return "";
  }
}

}  // namespace

// The run directory of the interest service, found as the library finds it
// (SFL_RUN_DIR is taken from the environment only, not from SFL_CONFIG).
std::string ServiceRunDir() {
  if (const char* v = std::getenv("SFL_RUN_DIR"); v != nullptr && *v != '\0') return v;
  if (const char* x = std::getenv("XDG_RUNTIME_DIR"); x != nullptr && *x != '\0')
    return std::string(x) + "/sfl";
  return "/tmp/sfl-run-" + std::to_string(static_cast<unsigned>(getuid()));
}

// Why the interest service cannot be reached, from its run directory.
std::string ServiceAdvice() {
  const std::string dir = ServiceRunDir();
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    if (errno == EACCES) return WhoBlocks(dir);
    if (errno == ENOTDIR) return "run directory " + dir + ": " + NotADirectory(dir);
    return "run directory " + dir + " cannot be made (" + std::strerror(errno) +
           "): set SFL_RUN_DIR to a directory of yours";
  }
  if (!S_ISDIR(st.st_mode))
    return "run directory " + dir + " is a file, not a directory: remove it or set SFL_RUN_DIR";
  if (st.st_uid != geteuid())
    return "run directory " + dir + " belongs to " + UserName(st.st_uid) + ", not " +
           UserName(geteuid()) + ": use a run directory of your own (SFL_RUN_DIR) or run sfl as " +
           UserName(st.st_uid);
  if (access(dir.c_str(), R_OK | W_OK | X_OK) != 0)
    return "run directory " + dir + " (mode " + Mode(st.st_mode) + ") is not writable by " +
           UserName(geteuid());
  const char* autostart = std::getenv("SFL_MONITOR_AUTOSTART");
  if (autostart != nullptr && std::strcmp(autostart, "0") == 0)
    return "no service runs for run directory " + dir +
           " and SFL_MONITOR_AUTOSTART=0 keeps the library from starting one: "
           "run 'sfl service start'";
  return "no service runs for run directory " + dir + " and none could be started: see " + dir +
         "/sfl-monitor.log, or run 'sfl service start'";
}

std::string OwnerAndMode(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return std::strerror(errno);
  return "owner " + UserName(st.st_uid) + ", mode " + Mode(st.st_mode);
}

bool RunDirIsOurs() {
  struct stat st;
  const std::string dir = ServiceRunDir();
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid() &&
         access(dir.c_str(), R_OK | W_OK | X_OK) == 0;
}

namespace {

// "<path> (store root <root>)" for the reference the command works on.
std::string Where() {
  if (!g_hasRef) return "";
  const std::string path = RefPath(ContainerOf(g_ref));
  return path + " (store root " + Located(StoreRootText()) + ")";
}

std::string Join(std::string line, const std::string& more, const char* sep) {
  if (!more.empty()) line += sep + more;
  return line;
}

// One line on standard error, prefixed with the command and its subject.
int Emit(const std::string& command, const std::string& text, int status) {
  std::string line = "sfl";
  if (!command.empty()) line += " " + command;
  line += ": ";
  if (!Subject().empty()) line += Subject() + ": ";
  line += text;
  for (char& ch : line)
    if (ch == '\n') ch = ' ';
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", line.c_str());
  return status;
}

}  // namespace

void SetSubjectRef(const sfl_ItemRef& ref) {
  g_ref = ref;
  g_hasRef = true;
  SetSubject(RefText(ref));
}

void ForgetSubjectRef() { g_hasRef = false; }

std::string DescribeEscape(int group, int reason) {
  std::string line = "error " + std::to_string(group) + "/" + std::to_string(reason) + ": ";
  if (group == ER_GROUP_OS) {
    line += std::strerror(reason);
    const std::string where = Where();
    line = Join(line, where, ": ");
    return Join(line, g_hasRef ? Advice(reason, RefPath(ContainerOf(g_ref)), true) : "", "; ");
  }
  line += er_ReasonText(group, reason);
  if (group == ER_GROUP_MONIT && reason == kServiceDown) return line + ": " + ServiceAdvice();
  return Join(line, Where(), ": ");
}

std::string ErrnoText(int err, const std::string& path, bool inStore) {
  return Join(std::strerror(err), Advice(err, path, inStore), "; ");
}

std::string DescribeSystem(const SystemFailure& f) {
  std::string line = f.doing + " " + f.path;
  if (f.inStore) line += " (store root " + Located(StoreRootText()) + ")";
  return line + ": " + ErrnoText(f.err, f.path, f.inStore);
}

int Report(const std::string& command, const std::function<int()>& run) {
  try {
    return run();
  } catch (const UsageError& e) {
    return Emit(command, e.message, kExitUsage);
  } catch (const Failure& e) {
    return Emit(command, e.message, e.status);
  } catch (const SystemFailure& e) {
    return Emit(command, DescribeSystem(e), kExitFailure);
  } catch (const er_Escape& e) {
    er_Clear();
    return Emit(command, DescribeEscape(e.group(), e.reason()), kExitFailure);
  } catch (const std::bad_alloc&) {
    return Emit(command, "out of memory", kExitFailure);
  }
}

}  // namespace cli
