// im_: the mapping from item references to paths under the store root, the
// text form of references, and creation, opening and removal of the files
// they name. The layout and text form are described in im.h.
#include "im.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

#include "cust.h"
#include "im_int.h"
#include "er.h"
#include "mdc.h"
#include "os.h"

namespace {

constexpr mode_t kFileMode = 0660;
constexpr mode_t kDirMode = 0770;
constexpr int kMaxCreateAttempts = 1000;

std::string StoreRoot() {
  const char* v = cust_GetCustomiseInfo("SFL_STORE_ROOT");
  std::string root = (v != nullptr && *v != '\0') ? v : "./sfl-store";
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  return root;
}

bool SafeNameChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

// The name tag as a string; refuses one that is unterminated or holds a
// character outside the safe set.
std::string CheckedName(const sfl_ItemRef& ref) {
  size_t len = 0;
  while (len < sizeof ref.Name && ref.Name[len] != '\0') ++len;
  if (len == sizeof ref.Name)
    ER_RAISE_MSG(ER_GROUP_CONFIG, IM_R_UNSAFE_NAME, "name tag not terminated");
  for (size_t i = 0; i < len; ++i)
    if (!SafeNameChar(ref.Name[i]))
      ER_RAISE_MSG(ER_GROUP_CONFIG, IM_R_UNSAFE_NAME, "name tag outside [A-Za-z0-9_-]");
  return std::string(ref.Name, len);
}

std::string DirOf(const sfl_ItemRef& ref) {
  // A root of "/" takes no second slash: names must read back as written.
  std::string root = StoreRoot();
  if (root != "/") root += "/";
  return root + std::to_string(ref.Domain) + "/" + std::to_string(ref.SubDomain);
}

// A reference the caller must give: null is a bad call argument.
const sfl_ItemRef& Given(const sfl_ItemRef* ref) {
  if (ref == nullptr) ER_RAISE(ER_GROUP_CALL, EINVAL);
  return *ref;
}

std::string ContainerPath(const sfl_ItemRef& ref) {
  std::string name = CheckedName(ref);
  std::string path = DirOf(ref) + "/" + std::to_string(ref.FileId);
  if (!name.empty()) path += "." + name;
  return path;
}

int32_t CopyOut(const std::string& s, char* out, size_t outLen) {
  if (out == nullptr || s.size() + 1 > outLen) ER_RAISE(ER_GROUP_CONFIG, IM_R_BUFFER);
  std::memcpy(out, s.c_str(), s.size() + 1);
  return static_cast<int32_t>(s.size());
}

// Parses an unsigned decimal number of at most `max` from s[*pos...],
// stopping at the first non-digit. Returns false when there is no digit or
// the value is too large.
bool ParseNumber(const std::string& s, size_t* pos, uint64_t max, uint64_t* value) {
  size_t p = *pos;
  uint64_t v = 0;
  while (p < s.size() && s[p] >= '0' && s[p] <= '9') {
    v = v * 10 + static_cast<uint64_t>(s[p] - '0');
    if (v > max) return false;
    ++p;
  }
  if (p == *pos) return false;
  *pos = p;
  *value = v;
  return true;
}

// Parses "[.<name>][:<item>]" at the end of s from *pos into ref; raises
// `reason` when the rest does not fit.
void ParseNameAndItem(const std::string& s, size_t pos, int reason, sfl_ItemRef* ref) {
  if (pos < s.size() && s[pos] == '.') {
    ++pos;
    size_t start = pos;
    while (pos < s.size() && s[pos] != ':') ++pos;
    std::string name = s.substr(start, pos - start);
    if (name.empty() || name.size() > 3) ER_RAISE(ER_GROUP_CONFIG, reason);
    for (char c : name)
      if (!SafeNameChar(c))
        ER_RAISE_MSG(ER_GROUP_CONFIG, IM_R_UNSAFE_NAME, "name tag outside [A-Za-z0-9_-]");
    std::memcpy(ref->Name, name.data(), name.size());
  }
  if (pos < s.size() && s[pos] == ':') {
    ++pos;
    if (pos + 1 != s.size() || s[pos] < '1' || s[pos] > '7') ER_RAISE(ER_GROUP_CONFIG, reason);
    ref->Flags = static_cast<uint16_t>(s[pos] - '0');
    ++pos;
  }
  if (pos != s.size()) ER_RAISE(ER_GROUP_CONFIG, reason);
}

// Creates every missing directory of `path` (which must not end in '/'):
// the deepest first, and its parents only when it says they are missing,
// so a new directory under an existing one costs one call.
//
// A directory made here is flushed into its parent at once: the files later
// created in it are flushed into it by their first flush (sfl), and that
// would hold nothing if the directory itself could vanish in a power cut.
// Directories are made rarely (the first file of a SubDomain), so the cost
// is one flush per directory made.
void EnsureDirs(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (os_mkdir(path.c_str(), kDirMode) != 0) {
    if (errno == EEXIST) return;
    if (errno != ENOENT || slash == std::string::npos || slash == 0)
      ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
    EnsureDirs(path.substr(0, slash));
    if (os_mkdir(path.c_str(), kDirMode) != 0) {
      if (errno == EEXIST) return;
      ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
    }
  }
  const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  if (os_FsyncDir(parent.c_str()) != 0) ER_RAISE_MSG(ER_GROUP_OS, errno, parent.c_str());
}

// A process-local generator of FileId candidates. It is reseeded when the
// process id changes, so forked children do not repeat their parent's
// sequence (O_EXCL would still keep them apart, at the price of retries).
uint32_t NextCandidate() {
  static uint64_t state = 0;
  static pid_t seededFor = 0;
  pid_t pid = os_getpid();
  if (state == 0 || seededFor != pid) {
    state = (static_cast<uint64_t>(pid) << 32) ^ mdc_time() ^
            reinterpret_cast<uintptr_t>(&state) ^ 0x9E3779B97F4A7C15ull;
    seededFor = pid;
  }
  // splitmix64
  state += 0x9E3779B97F4A7C15ull;
  uint64_t z = state;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  z ^= z >> 31;
  uint32_t id = static_cast<uint32_t>(z) & 0x7FFFFFFF;
  return id == 0 ? 1 : id;
}

int CreateUnique(uint16_t domain, sfl_ItemRef* out) {
  // An emptied container kept in a pool spares the file system a new inode.
  const int pooled = im_TakePooled(domain, out);
  if (pooled >= 0) return pooled;
  for (int attempt = 0; attempt < kMaxCreateAttempts; ++attempt) {
    sfl_ItemRef ref{};
    ref.Domain = domain;
    ref.FileId = NextCandidate();
    ref.SubDomain = ref.FileId % 256;
    std::string path = ContainerPath(ref);
    int fd = os_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, kFileMode);
    if (fd < 0 && errno == ENOENT) {
      // The directories are made only when missing: most creates find them.
      EnsureDirs(DirOf(ref));
      fd = os_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, kFileMode);
    }
    if (fd < 0) {
      // EEXIST: taken by someone else; ENOENT: the directory went away
      // between its creation and the open. Both are worth another try.
      if (errno == EEXIST || errno == ENOENT) continue;
      ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
    }
    // The umask may have removed group bits; the store wants 0660 exactly.
    if (os_fchmod(fd, kFileMode) != 0) {
      int err = errno;
      os_close(fd);
      os_unlink(path.c_str());
      ER_RAISE_MSG(ER_GROUP_OS, err, path.c_str());
    }
    if (out != nullptr) *out = ref;
    return fd;
  }
  ER_RAISE(ER_GROUP_CONFIG, IM_R_NO_UNIQUE_ID);
}

}  // namespace

std::string im_DirPath(const sfl_ItemRef& ref) { return DirOf(ref); }

std::string im_ContainerPath(const sfl_ItemRef& ref) { return ContainerPath(ref); }

uint32_t im_NextFileId() { return NextCandidate(); }

int im_GetNewDataItem(sfl_ItemRef* out) { return CreateUnique(SFL_TYPE_DATA_ITEM, out); }

int im_CrNewTempItem(sfl_ItemRef* out) { return CreateUnique(SFL_TYPE_TEMP_ITEM, out); }

int im_OpenItem(const sfl_ItemRef* ref) {
  return im_OpenContainer(ContainerPath(Given(ref)).c_str(), O_RDWR);
}

namespace {

// Opens `full` from `dir` (the store root's descriptor, or AT_FDCWD for a
// path outside the store, opened as it is) one directory at a time without
// following a link; `held` is the caller's holder of the directory in hand.
// Raises with the step that failed.
int WalkAndOpen(const std::string& full, std::string::size_type from, int dir, int& held,
                int leafFlags, const char* path) {
  for (std::string::size_type slash; dir != AT_FDCWD && (slash = full.find('/', from)) != std::string::npos;) {
    const std::string part = full.substr(from, slash - from);
    const int next = os_openat(dir, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (next < 0) {
      const int err = errno;
      const std::string at = full.substr(0, slash);
      if (err == ELOOP || err == ENOTDIR)
        ER_RAISE_MSG(ER_GROUP_OS, err, (at + " is a symbolic link or not a directory: the store is never entered through one").c_str());
      ER_RAISE_MSG(ER_GROUP_OS, err, at.c_str());
    }
    os_close(held);
    held = dir = next;
    from = slash + 1;
  }
  const std::string leaf = dir == AT_FDCWD ? full : full.substr(from);
  const int fd = os_openat(dir, leaf.c_str(), leafFlags);
  if (fd < 0) {
    const int err = errno;
    if (err == ELOOP)
      ER_RAISE_MSG(ER_GROUP_OS, err, (full + " is a symbolic link: a container is never opened through one").c_str());
    ER_RAISE_MSG(ER_GROUP_OS, err, path);
  }
  return fd;
}

}  // namespace

int im_OpenContainer(const char* path, int flags) {
  // The directories from the store root down, and the file itself, are
  // opened without following a link: a link planted in place of a store
  // directory or of a container is refused, not followed to a file
  // elsewhere. A FIFO or device in a container's place is refused before
  // any byte moves (and a FIFO does not block the open).
  const std::string full = path;
  const std::string root = StoreRoot();
  std::string::size_type from = 0;
  int dir = AT_FDCWD;
  if (full.size() > root.size() + 1 && full.compare(0, root.size(), root) == 0 &&
      full[root.size()] == '/') {
    dir = os_open(root.c_str(), O_RDONLY | O_DIRECTORY);
    if (dir < 0) ER_RAISE_MSG(ER_GROUP_OS, errno, root.c_str());
    from = root.size() + 1;
  }
  // Closes whichever directory is held on every path.
  struct Held {
    int fd;
    ~Held() {
      if (fd >= 0) os_close(fd);
    }
  } held{dir};
  const int leafFlags = flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  // Below the root the kernel walks the rest in one call under the same
  // rule. Should that fail for any reason (openat2 missing included), the
  // walk repeats it a directory at a time, which names the step that
  // failed.
  int fd = dir == AT_FDCWD ? -1 : os_openBeneath(dir, full.c_str() + from, leafFlags);
  if (fd < 0) fd = WalkAndOpen(full, from, dir, held.fd, leafFlags, path);
  struct stat st {};
  if (os_fstat(fd, &st) != 0) {
    const int err = errno;
    os_close(fd);
    ER_RAISE_MSG(ER_GROUP_OS, err, path);
  }
  std::string wrong;
  if (!S_ISREG(st.st_mode))
    wrong = full + " is not a regular file";
  else if (!im_OwnerTrusted(st.st_uid, st.st_gid))
    wrong = full + " belongs to uid " + std::to_string(st.st_uid) + ", group " + std::to_string(st.st_gid) +
            ": neither this user's, the service account's nor of a group of this process";
  if (!wrong.empty()) {
    os_close(fd);
    ER_RAISE_MSG(ER_GROUP_OS, EPERM, wrong.c_str());
  }
  return fd;
}

bool im_OwnerTrusted(uid_t uid, gid_t gid) {
  if (uid == os_geteuid() || uid == 0) return true;
  uid_t account;
  gid_t accountGid;
  if (mdc_ServiceAccount(&account, &accountGid) == 1 && uid == account) return true;
  return os_InGroup(gid);
}

void im_UnlinkItem(const sfl_ItemRef* ref) {
  std::string path = ContainerPath(Given(ref));
  if (os_unlink(path.c_str()) != 0) ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
}

int32_t im_GetRealFileName(const sfl_ItemRef* ref, char* out, size_t outLen) {
  CopyOut(ContainerPath(Given(ref)), out, outLen);
  return ref->Flags & SFL_ITEM_NUM_MASK;
}

int32_t im_ScratchFName(const sfl_ItemRef* ref, char* out, size_t outLen) {
  return CopyOut(ContainerPath(Given(ref)) + "#.new", out, outLen);
}

extern "C" {

int32_t im_FormItemRef(const char* text, sfl_ItemRef* out) {
  if (text == nullptr || out == nullptr) ER_RAISE(ER_GROUP_CONFIG, IM_R_BAD_TEXT);
  std::string s(text);
  sfl_ItemRef ref{};
  size_t pos = 0;
  uint64_t domain = 0, sub = 0, id = 0;
  if (!ParseNumber(s, &pos, 0xFFFF, &domain) || pos >= s.size() || s[pos++] != '.' ||
      !ParseNumber(s, &pos, 0xFFFFFFFF, &sub) || pos >= s.size() || s[pos++] != '.' ||
      !ParseNumber(s, &pos, 0xFFFFFFFF, &id))
    ER_RAISE_MSG(ER_GROUP_CONFIG, IM_R_BAD_TEXT, text);
  ref.Domain = static_cast<uint16_t>(domain);
  ref.SubDomain = static_cast<uint32_t>(sub);
  ref.FileId = static_cast<uint32_t>(id);
  ParseNameAndItem(s, pos, IM_R_BAD_TEXT, &ref);
  *out = ref;
  return 0;
}

int32_t im_ItemRef2Text(const sfl_ItemRef* ref, char* out, size_t outLen) {
  std::string name = CheckedName(Given(ref));
  std::string s = std::to_string(ref->Domain) + "." + std::to_string(ref->SubDomain) + "." +
                  std::to_string(ref->FileId);
  if (!name.empty()) s += "." + name;
  uint32_t item = ref->Flags & SFL_ITEM_NUM_MASK;
  if (item != 0) s += ":" + std::to_string(item);
  return CopyOut(s, out, outLen);
}

int32_t im_ItemRef2FName(const sfl_ItemRef* ref, char* out, size_t outLen) {
  std::string s = ContainerPath(Given(ref));
  uint32_t item = ref->Flags & SFL_ITEM_NUM_MASK;
  if (item != 0) s += ":" + std::to_string(item);
  return CopyOut(s, out, outLen);
}

int32_t im_FName2ItemRef(const char* name, sfl_ItemRef* out) {
  if (name == nullptr || out == nullptr) ER_RAISE(ER_GROUP_CONFIG, IM_R_NOT_IN_STORE);
  std::string s(name);
  std::string prefix = StoreRoot();
  if (prefix != "/") prefix += "/";
  if (s.compare(0, prefix.size(), prefix) != 0)
    ER_RAISE_MSG(ER_GROUP_CONFIG, IM_R_NOT_IN_STORE, name);
  sfl_ItemRef ref{};
  size_t pos = prefix.size();
  uint64_t domain = 0, sub = 0, id = 0;
  if (!ParseNumber(s, &pos, 0xFFFF, &domain) || pos >= s.size() || s[pos++] != '/' ||
      !ParseNumber(s, &pos, 0xFFFFFFFF, &sub) || pos >= s.size() || s[pos++] != '/' ||
      !ParseNumber(s, &pos, 0xFFFFFFFF, &id))
    ER_RAISE_MSG(ER_GROUP_CONFIG, IM_R_NOT_IN_STORE, name);
  ref.Domain = static_cast<uint16_t>(domain);
  ref.SubDomain = static_cast<uint32_t>(sub);
  ref.FileId = static_cast<uint32_t>(id);
  ParseNameAndItem(s, pos, IM_R_NOT_IN_STORE, &ref);
  *out = ref;
  return 0;
}

}  // extern "C"
