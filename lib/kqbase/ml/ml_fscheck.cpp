// ml_fscheck: judging the file system under a store root shared between
// hosts (see ml_fscheck.h).
#include "ml_fscheck.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "ml.h"
#include "os.h"

namespace {

constexpr unsigned long kFuseMagic = 0x65735546;

struct FsType {
  unsigned long Magic;
  ml_FsKind Kind;
  const char* Name;
};

// Types known here. Local: one kernel's own. Shared: another host may use
// the same files through a client with caches this service cannot see.
constexpr FsType kTypes[] = {
    {0xEF53, ml_FsKind::Local, "ext2/ext3/ext4"},
    {0x58465342, ml_FsKind::Local, "XFS"},
    {0x9123683E, ml_FsKind::Local, "Btrfs"},
    {0x01021994, ml_FsKind::Local, "tmpfs"},
    {0x858458F6, ml_FsKind::Local, "ramfs"},
    {0x794C7630, ml_FsKind::Local, "overlayfs"},
    {0xF2F52010, ml_FsKind::Local, "F2FS"},
    {0x2FC12FC1, ml_FsKind::Local, "ZFS"},
    {0xCA451A4E, ml_FsKind::Local, "bcachefs"},
    {kFuseMagic, ml_FsKind::Fuse, "FUSE"},
    {0x6969, ml_FsKind::Shared, "NFS"},
    {0x517B, ml_FsKind::Shared, "SMB"},
    {0xFF534D42, ml_FsKind::Shared, "CIFS"},
    {0xFE534D42, ml_FsKind::Shared, "SMB2"},
    {0x00C36400, ml_FsKind::Shared, "CephFS"},
    {0x5346414F, ml_FsKind::Shared, "AFS"},
    {0x01021997, ml_FsKind::Shared, "9P"},
    {0x7461636F, ml_FsKind::Shared, "OCFS2"},
    {0x01161970, ml_FsKind::Shared, "GFS2"},
    {0x0BD00BD0, ml_FsKind::Shared, "Lustre"},
};

// The client-side translators that keep what another client wrote from a
// read, or a name another client made or replaced from a lookup, and the
// volume option that turns each off.
struct Cache {
  const char* Type;    // after "performance/"
  const char* Option;  // gluster volume set VOL <Option> off
};
constexpr Cache kCaches[] = {
    {"write-behind", "performance.write-behind"}, {"read-ahead", "performance.read-ahead"},
    {"io-cache", "performance.io-cache"},         {"quick-read", "performance.quick-read"},
    {"md-cache", "performance.stat-prefetch"},    {"stat-prefetch", "performance.stat-prefetch"},
    {"open-behind", "performance.open-behind"},   {"nl-cache", "performance.nl-cache"},
};

bool space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

void add(std::vector<std::string>* missing, const std::string& what) {
  for (const std::string& m : *missing)
    if (m == what) return;
  missing->push_back(what);
}

// Whitespace-separated words of `s`.
std::vector<std::string> words(const std::string& s) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && space(s[i])) ++i;
    const size_t b = i;
    while (i < s.size() && !space(s[i])) ++i;
    if (i > b) out.push_back(s.substr(b, i - b));
  }
  return out;
}

// The string value of "Cmdlinestr" in the client's small JSON object;
// false when there is none or it is not closed.
bool commandLine(const std::string& json, std::string* out) {
  const std::string key = "\"Cmdlinestr\"";
  size_t i = json.find(key);
  if (i == std::string::npos) return false;
  i += key.size();
  while (i < json.size() && space(json[i])) ++i;
  if (i >= json.size() || json[i] != ':') return false;
  ++i;
  while (i < json.size() && space(json[i])) ++i;
  if (i >= json.size() || json[i] != '"') return false;
  out->clear();
  for (++i; i < json.size(); ++i) {
    char c = json[i];
    if (c == '"') return true;
    if (c == '\\') {
      if (++i >= json.size()) return false;
      c = json[i];
    }
    out->push_back(c);
  }
  return false;
}

// The last value given to option `name` ("--name=V" or "--name V"); empty
// when it is not given.
std::string optionValue(const std::vector<std::string>& args, const std::string& name) {
  const std::string flag = "--" + name;
  std::string value;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i].compare(0, flag.size() + 1, flag + "=") == 0) value = args[i].substr(flag.size() + 1);
    else if (args[i] == flag && i + 1 < args.size()) value = args[++i];
  }
  return value;
}

// "0", "00", "0.0": a timeout of none.
bool zero(const std::string& v) {
  if (v.empty() || v == ".") return false;
  int dots = 0;
  for (char c : v) {
    if (c == '.') ++dots;
    else if (c != '0') return false;
  }
  return dots <= 1;
}

// Reads all of `path` when it is a regular file of at most ML_META_MAX
// bytes; otherwise false with `why`.
bool readBounded(const std::string& path, std::string* out, std::string* why) {
  // Non-blocking: a FIFO planted there must not hold the service up.
  const int fd = os_open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    *why = std::strerror(errno);
    return false;
  }
  struct stat st {};
  bool ok = os_fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!ok) *why = "not a regular file";
  // Its size is not trusted (the client's files say 0): read to the end.
  if (ok) ok = ml_ReadBounded(fd, ML_META_MAX, out, why);
  os_close(fd);
  return ok;
}

bool isDir(const std::string& path) {
  struct stat st {};
  return os_stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string parentOf(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const size_t slash = p.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : p.substr(0, slash);
}

// The top directory of the mount holding `dir`: up while ".." is on the
// same device and is not the directory itself (the root's "..").
std::string mountRootOf(const std::string& dir) {
  std::string cur = dir;
  struct stat cs {};
  if (os_stat(cur.c_str(), &cs) != 0) return cur;
  for (int i = 0; i < 256; ++i) {
    const std::string up = cur + "/..";
    struct stat ps {};
    if (os_stat(up.c_str(), &ps) != 0 || ps.st_dev != cs.st_dev || ps.st_ino == cs.st_ino) break;
    cur = up;
    cs = ps;
  }
  return cur;
}

}  // namespace

ml_FsKind ml_FsKindOf(unsigned long fType, std::string* name) {
  for (const FsType& t : kTypes) {
    if (t.Magic == fType) {
      *name = t.Name;
      return t.Kind;
    }
  }
  char hex[32];
  std::snprintf(hex, sizeof hex, "type 0x%lx", fType);
  *name = hex;
  return ml_FsKind::Unknown;
}

void ml_GlusterGraphMissing(const std::string& volfile, std::vector<std::string>* missing) {
  int types = 0;
  size_t b = 0;
  while (b < volfile.size()) {
    size_t e = volfile.find('\n', b);
    if (e == std::string::npos) e = volfile.size();
    const std::vector<std::string> w = words(volfile.substr(b, e - b));
    b = e + 1;
    if (w.size() < 2 || w[0] != "type") continue;
    ++types;
    const std::string prefix = "performance/";
    if (w[1].compare(0, prefix.size(), prefix) != 0) continue;
    const std::string kind = w[1].substr(prefix.size());
    for (const Cache& c : kCaches)
      if (kind == c.Type) add(missing, std::string(c.Option) + " is on");
  }
  if (types == 0) add(missing, "the client's translator graph names no translator");
}

void ml_GlusterMountMissing(const std::string& cmdline, std::vector<std::string>* missing) {
  std::string line;
  if (!commandLine(cmdline, &line)) {
    add(missing, "the client's mount options cannot be read");
    return;
  }
  const std::vector<std::string> args = words(line);
  const std::string dio = optionValue(args, "direct-io-mode");
  if (dio != "enable" && dio != "on" && dio != "yes" && dio != "true")
    add(missing, "mount lacks direct-io-mode=enable");
  for (const char* t : {"entry-timeout", "attribute-timeout", "negative-timeout"})
    if (!zero(optionValue(args, t))) add(missing, std::string("mount lacks ") + t + "=0");
}

std::string ml_FsVerdict::Line() const {
  std::string s = "store root " + Root + " (" + FsName + ")";
  for (size_t i = 0; i < Missing.size(); ++i) s += (i == 0 ? ": " : "; ") + Missing[i];
  return s;
}

ml_FsVerdict ml_JudgeStoreFs(const std::string& root, unsigned long fType, const std::string& mountRoot,
                             bool trustUnverified) {
  ml_FsVerdict v;
  v.Root = root;
  const ml_FsKind kind = ml_FsKindOf(fType, &v.FsName);
  if (kind == ml_FsKind::Local) return v;
  const std::string meta = mountRoot + "/.meta";
  if (kind == ml_FsKind::Fuse && isDir(meta)) {
    v.FsName = "GlusterFS";
    std::string text, why;
    if (readBounded(meta + "/graphs/active/volfile", &text, &why))
      ml_GlusterGraphMissing(text, &v.Missing);
    else
      v.Missing.push_back("the client's translator graph cannot be read (.meta/graphs/active/volfile: " + why + ")");
    if (readBounded(meta + "/cmdline", &text, &why))
      ml_GlusterMountMissing(text, &v.Missing);
    else
      v.Missing.push_back("the client's mount options cannot be read (.meta/cmdline: " + why + ")");
    v.Refused = !v.Missing.empty();
    return v;
  }
  if (trustUnverified) return v;
  v.Refused = true;
  v.Missing.push_back("its caches cannot be examined (SFL_CLUSTER_TRUST_FS=1 vouches for it)");
  return v;
}

ml_FsVerdict ml_CheckStoreFs(const std::string& root, bool trustUnverified) {
  ml_FsVerdict v;
  v.Root = root.empty() ? "." : root;
  v.FsName = "?";
  std::string dir = v.Root;
  struct stat st {};
  int up = 0;
  while (os_stat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT || ++up > 256) {
      v.Refused = true;
      v.Missing.push_back(dir + " cannot be examined: " + std::strerror(errno));
      return v;
    }
    dir = parentOf(dir);
  }
  struct statfs fs {};
  if (os_statfs(dir.c_str(), &fs) != 0) {
    v.Refused = true;
    v.Missing.push_back(dir + " cannot be examined: " + std::strerror(errno));
    return v;
  }
  return ml_JudgeStoreFs(v.Root, static_cast<unsigned long>(fs.f_type), mountRootOf(dir), trustUnverified);
}
