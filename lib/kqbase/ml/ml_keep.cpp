// ml_keep: the interest service's entries on disk (see ml_keep.h).
#include "ml_keep.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <tuple>

#include "le.h"
#include "ml.h"
#include "os.h"

namespace {

constexpr char kMagic[16] = "sfl-interests";
constexpr uint32_t kVersion = 1;
constexpr size_t kCheckAt = 60;  // the checksum ends header and slot alike
constexpr size_t kBootLen = 36;

uint32_t checksum(const uint8_t* p) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < kCheckAt; ++i) {
    h ^= p[i];
    h *= 16777619u;
  }
  return h;
}

bool allZero(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (p[i] != 0) return false;
  return true;
}

// Reads a small file from /proc (or anywhere) whole; false when it cannot.
bool readSmall(const std::string& path, std::string* out) {
  int fd = os_open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[1024];
  ssize_t n = os_read(fd, buf, sizeof buf);
  os_close(fd);
  if (n <= 0) return false;
  out->assign(buf, static_cast<size_t>(n));
  return true;
}

// One slot as read back, or false when it must be dropped.
bool decodeSlot(const uint8_t* p, ml_Saved* out) {
  if (le_GetU32(p + kCheckAt) != checksum(p) || !allZero(p + 40, 20)) return false;
  ml_Saved s;
  s.Kind = le_GetU32(p);
  s.Pid = static_cast<int32_t>(le_GetU32(p + 4));
  s.Start = static_cast<uint64_t>(le_GetU32(p + 8)) | static_cast<uint64_t>(le_GetU32(p + 12)) << 32;
  std::memcpy(s.Ref.data(), p + 16, 16);
  s.Token = le_GetU32(p + 32);
  s.Link = le_GetU32(p + 36);
  if (s.Pid <= 0 || s.Start == 0) return false;
  switch (s.Kind) {
    case ML_SAVED_ENTRY:
      if (s.Token == 0) return false;
      break;
    case ML_SAVED_MARK:
      if (s.Token != 0 || s.Link != 0) return false;
      break;
    case ML_SAVED_ANY:
      if (s.Token != 0 || s.Link != 0 || !allZero(s.Ref.data(), 16)) return false;
      break;
    default:
      return false;
  }
  *out = s;
  return true;
}

}  // namespace

std::string ml_KeepPath(const std::string& runDir, int pair) {
  return runDir + "/sfl-monitor.interests." + std::to_string(pair);
}

std::string ml_BootId() {
  std::string text;
  if (!readSmall("/proc/sys/kernel/random/boot_id", &text) || text.size() < kBootLen) return "";
  return text.substr(0, kBootLen);
}

uint64_t ml_ProcessStart(int32_t pid) {
  if (pid <= 0) return 0;
  std::string stat;
  if (!readSmall("/proc/" + std::to_string(pid) + "/stat", &stat)) return 0;
  // After the command's closing parenthesis come the fields from the third
  // on; the start time is the twenty-second.
  size_t at = stat.rfind(')');
  if (at == std::string::npos) return 0;
  ++at;
  for (int field = 3; field <= 22; ++field) {
    while (at < stat.size() && stat[at] == ' ') ++at;
    if (field == 22) break;
    while (at < stat.size() && stat[at] != ' ') ++at;
  }
  uint64_t start = 0;
  bool digits = false;
  for (; at < stat.size() && stat[at] >= '0' && stat[at] <= '9'; ++at) {
    start = start * 10 + static_cast<uint64_t>(stat[at] - '0');
    digits = true;
  }
  return digits ? start : 0;
}

bool ml_SavedProcessLives(int32_t pid, uint64_t start) {
  return ml_CheckPid(pid) == 1 && ml_ProcessStart(pid) == start;
}

size_t ml_KeepSlotLimit(size_t maxEntries) {
  // Entries and marks up to the cap each, and room for as many processes
  // marked as holding anything.
  return 2 * maxEntries + 65536;
}

void ml_EncodeSlot(const ml_Saved& s, uint8_t out[ML_KEEP_SLOT]) {
  std::memset(out, 0, ML_KEEP_SLOT);
  le_PutU32(out, s.Kind);
  le_PutU32(out + 4, static_cast<uint32_t>(s.Pid));
  le_PutU32(out + 8, static_cast<uint32_t>(s.Start));
  le_PutU32(out + 12, static_cast<uint32_t>(s.Start >> 32));
  std::memcpy(out + 16, s.Ref.data(), 16);
  le_PutU32(out + 32, s.Token);
  le_PutU32(out + 36, s.Link);
  le_PutU32(out + kCheckAt, checksum(out));
}

void ml_EncodeKeepHeader(const std::string& bootId, uint8_t out[ML_KEEP_HEADER]) {
  std::memset(out, 0, ML_KEEP_HEADER);
  std::memcpy(out, kMagic, sizeof kMagic);
  le_PutU32(out + 16, kVersion);
  le_PutU32(out + 20, ML_KEEP_SLOT);
  std::memcpy(out + 24, bootId.data(), bootId.size() < kBootLen ? bootId.size() : kBootLen);
  le_PutU32(out + kCheckAt, checksum(out));
}

void ml_LoadKeep(const std::string& path, uid_t owner, const std::string& bootId, size_t slotLimit,
                 const ml_LivesFn& lives, ml_KeepLoad* out) {
  *out = ml_KeepLoad{};
  // Not following a link: the run directory's own file or nothing.
  int fd = os_open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) out->Refused = std::string("cannot be opened: ") + std::strerror(errno);
    return;
  }
  struct stat st;
  std::string bytes;
  if (os_fstat(fd, &st) != 0) {
    out->Refused = "cannot be examined";
  } else if (!S_ISREG(st.st_mode)) {
    out->Refused = "not a regular file";
  } else if (st.st_uid != owner) {
    out->Refused = "owned by uid " + std::to_string(st.st_uid);
  } else if ((st.st_mode & 0022) != 0) {
    out->Refused = "writable by others";
  } else if (st.st_size < ML_KEEP_HEADER || (st.st_size - ML_KEEP_HEADER) % ML_KEEP_SLOT != 0) {
    out->Refused = "size " + std::to_string(st.st_size) + " is not a header and whole slots";
  } else if (static_cast<uint64_t>(st.st_size - ML_KEEP_HEADER) / ML_KEEP_SLOT > slotLimit) {
    out->Refused = "oversized (" + std::to_string(st.st_size) + " bytes)";
  } else {
    bytes.resize(static_cast<size_t>(st.st_size));
    if (os_pread(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
      out->Refused = "short read";
  }
  os_close(fd);
  if (!out->Refused.empty()) return;

  const uint8_t* p = reinterpret_cast<const uint8_t*>(bytes.data());
  uint8_t expected[ML_KEEP_HEADER];
  ml_EncodeKeepHeader(bootId, expected);
  const size_t slots = (bytes.size() - ML_KEEP_HEADER) / ML_KEEP_SLOT;
  if (std::memcmp(p, expected, 24) != 0 || le_GetU32(p + kCheckAt) != checksum(p) ||
      !allZero(p + 24 + kBootLen, kCheckAt - 24 - kBootLen)) {
    out->Refused = "bad header";
    return;
  }
  if (bootId.empty() || std::memcmp(p + 24, expected + 24, kBootLen) != 0) {
    // Written before the last boot: every process it names has ended.
    for (size_t i = 0; i < slots; ++i)
      if (!allZero(p + ML_KEEP_HEADER + i * ML_KEEP_SLOT, ML_KEEP_SLOT)) ++out->Dropped;
    return;
  }
  std::set<std::tuple<uint32_t, ml_RefKey, int32_t, uint32_t>> seen;
  for (size_t i = 0; i < slots; ++i) {
    const uint8_t* slot = p + ML_KEEP_HEADER + i * ML_KEEP_SLOT;
    if (allZero(slot, ML_KEEP_SLOT)) continue;
    ml_Saved s;
    if (!decodeSlot(slot, &s) || !seen.insert({s.Kind, s.Ref, s.Pid, s.Token}).second ||
        !lives(s.Pid, s.Start)) {
      ++out->Dropped;
      continue;
    }
    out->Saved.push_back(s);
  }
}

int ml_WriteKeep(const std::string& path, const std::string& bootId, const std::vector<ml_Saved>& saved,
                 mode_t mode) {
  std::string bytes(ML_KEEP_HEADER + saved.size() * ML_KEEP_SLOT, '\0');
  uint8_t* p = reinterpret_cast<uint8_t*>(bytes.data());
  ml_EncodeKeepHeader(bootId, p);
  for (size_t i = 0; i < saved.size(); ++i) ml_EncodeSlot(saved[i], p + ML_KEEP_HEADER + i * ML_KEEP_SLOT);
  const std::string tmp = path + "." + std::to_string(os_getpid()) + ".tmp";
  int fd = os_open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) return -1;
  bool ok = os_fchmod(fd, mode) == 0;  // whatever the umask
  size_t done = 0;
  while (ok && done < bytes.size()) {
    ssize_t n = os_write(fd, bytes.data() + done, bytes.size() - done);
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  if (os_close(fd) != 0) ok = false;
  if (!ok || os_rename(tmp.c_str(), path.c_str()) != 0) {
    os_unlink(tmp.c_str());
    return -1;
  }
  return 0;
}

size_t ml_KeptHeld(const std::string& runDir, std::vector<int32_t>* pids) {
  pids->clear();
  struct stat dir;
  if (os_stat(runDir.c_str(), &dir) != 0) return 0;
  const std::string boot = ml_BootId();
  std::set<int32_t> holders;
  size_t held = 0;
  for (int i = 0; i < ML_MAX_PAIRS; ++i) {
    ml_KeepLoad load;
    ml_LoadKeep(ml_KeepPath(runDir, i), dir.st_uid, boot, ml_KeepSlotLimit(100000000), ml_SavedProcessLives,
                &load);
    for (const ml_Saved& s : load.Saved) {
      // A process marked as holding anything is counted once per file.
      ++held;
      holders.insert(s.Pid);
    }
  }
  pids->assign(holders.begin(), holders.end());
  return held;
}

ml_KeepFile::~ml_KeepFile() {
  if (fd_ >= 0) os_close(fd_);
}

bool ml_KeepFile::Open(const std::string& path) {
  if (fd_ >= 0) os_close(fd_);
  fd_ = os_open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  return fd_ >= 0;
}

void ml_KeepFile::Write(uint32_t slot, const uint8_t bytes[ML_KEEP_SLOT]) {
  const off_t at = static_cast<off_t>(ML_KEEP_HEADER) + static_cast<off_t>(slot) * ML_KEEP_SLOT;
  if (fd_ < 0 || os_pwrite(fd_, bytes, ML_KEEP_SLOT, at) != ML_KEEP_SLOT) ++failures_;
}

void ml_KeepFile::Put(uint32_t slot, const ml_Saved& saved) {
  uint8_t bytes[ML_KEEP_SLOT];
  ml_EncodeSlot(saved, bytes);
  Write(slot, bytes);
}

void ml_KeepFile::Clear(uint32_t slot) {
  const uint8_t zero[ML_KEEP_SLOT] = {};
  Write(slot, zero);
}
