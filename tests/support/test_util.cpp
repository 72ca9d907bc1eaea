// Helpers shared by the tests; see test_util.h.
#include "test_util.h"

#include <fcntl.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "im.h"
#include "os.h"
#include "test_env.h"

namespace sfltest {

// ---- escapes ----------------------------------------------------------------------

Escape EscapeOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const er_Escape& e) {
    er_Clear();
    return {e.group(), e.reason()};
  }
  return {};
}

Escape EscapeOfThenClear(const std::function<void()>& fn) {
  const Escape e = EscapeOf(fn);
  er_Clear();
  return e;
}

std::pair<int, int> GroupAndReasonOf(const std::function<void()>& fn) {
  const Escape e = EscapeOf(fn);
  return {e.group, e.reason};
}

long EscapeCodeOf(const std::function<void()>& fn) {
  const Escape e = EscapeOf(fn);
  return EscapeCode(e.group, e.reason);
}

int ReasonOf(const std::function<void()>& fn) { return EscapeOf(fn).reason; }

// ---- files and descriptors -----------------------------------------------------------

std::string ItemPath(const sfl_ItemRef& ref) {
  char buf[PATH_MAX];
  im_ItemRef2FName(&ref, buf, sizeof buf);
  return buf;
}

std::string ItemPathOf(int32_t baseHandle) {
  sfl_ItemRef ref{};
  sfl_GetSerFileItem(baseHandle, &ref);
  return ItemPath(ref);
}

std::vector<uint8_t> ReadExactly(int fd, uint64_t off, size_t len) {
  std::vector<uint8_t> b(len);
  EXPECT_EQ(::pread(fd, b.data(), len, static_cast<off_t>(off)), static_cast<ssize_t>(len));
  return b;
}

std::vector<uint8_t> ReadUpTo(int fd, uint64_t off, size_t len) {
  std::vector<uint8_t> b(len);
  const ssize_t n = ::pread(fd, b.data(), len, static_cast<off_t>(off));
  b.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return b;
}

std::vector<uint8_t> FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string WritePlainFile(const std::string& leaf, const std::string& text) {
  std::string path = TestDir() + "/" + leaf;
  const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(fd);
  return path;
}

std::vector<uint8_t> PseudoRandomBytes(size_t n, uint32_t seed, uint32_t salt) {
  std::vector<uint8_t> v(n);
  uint32_t x = seed * 2654435761u + salt;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    v[i] = static_cast<uint8_t>(x >> 16);
  }
  return v;
}

bool DescriptorOpen(int fd) { return fd >= 0 && ::fcntl(fd, F_GETFD) != -1; }

CapturedOutput::CapturedOutput(int fd) : fd_(fd) {
  std::fflush(nullptr);
  std::string templ = TestDir() + "/captured-XXXXXX";
  const int file = ::mkstemp(templ.data());
  EXPECT_GE(file, 0) << "no file to capture descriptor " << fd;
  if (file < 0) return;
  path_ = templ;
  saved_ = ::dup(fd_);
  ::dup2(file, fd_);
  ::close(file);
}

CapturedOutput::~CapturedOutput() { Stop(); }

std::string CapturedOutput::Stop() {
  if (saved_ >= 0) {
    std::fflush(nullptr);
    ::dup2(saved_, fd_);
    ::close(saved_);
    saved_ = -1;
    const std::vector<uint8_t> b = FileBytes(path_);
    text_.assign(b.begin(), b.end());
    ::unlink(path_.c_str());
  }
  return text_;
}

std::string WrittenTo(int fd, const std::function<void()>& fn) {
  CapturedOutput capture(fd);
  fn();
  return capture.Stop();
}

// ---- locks seen from another process ---------------------------------------------------

int LockStateElsewhere(const std::string& path, off_t start, off_t len) {
  return RunInChild([&] {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return 2;
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    if (::fcntl(fd, F_OFD_GETLK, &fl) != 0) return 3;
    return fl.l_type == F_UNLCK ? 0 : 1;
  });
}

void CloseColdFiles() {
  sfl_FilesTable& t = sfl_OpenFiles();
  for (size_t i = 0; i < t.HighWater(); ++i) {
    sfl_BaseRec* r = t.At(i);
    if (r == nullptr || r->InUse != 1 || r->InColdStore == 0) continue;
    const sfl_ItemRef ref = sfl_RefOf(*r);
    sfl_CheckFileAccessed(&ref, nullptr, nullptr, 0, nullptr);
  }
}

bool LockableElsewhere(const std::string& path, uint32_t off, uint32_t len) {
  return RunInChild([&] {
           const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
           if (fd < 0) return 2;
           return os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, 0, off, 0, len, 0) ? 0 : 1;
         }) == 0;
}

// ---- logged messages --------------------------------------------------------------------

namespace {

std::vector<LogEntry>& Captured() {
  static std::vector<LogEntry> entries;
  return entries;
}

void Capture(int level, int group, int reason, const char*) { Captured().push_back({level, group, reason}); }

}  // namespace

LogCapture::LogCapture() {
  Captured().clear();
  previous_ = er_SetLogHook(Capture);
}

LogCapture::~LogCapture() { er_SetLogHook(previous_); }

const std::vector<LogEntry>& LogCapture::Entries() const { return Captured(); }

bool LogCapture::SawReason(int reason) const {
  for (const LogEntry& e : Captured())
    if (e.reason == reason) return true;
  return false;
}

// ---- records of a file ---------------------------------------------------------------------

OpenContainer NewContainer() {
  OpenContainer c;
  c.bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_GetSerFileItem(c.bh, &c.ref);
  return c;
}

sfl_BaseRec* OpenRecordOf(const sfl_ItemRef& fileRef) {
  sfl_FilesTable& t = sfl_OpenFiles();
  for (size_t i = 0; i < t.HighWater(); ++i) {
    sfl_BaseRec* r = t.At(i);
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 0 && sfl_SameFile(sfl_RefOf(*r), fileRef))
      return r;
  }
  return nullptr;
}

sfl_ItemInfo SlotOf(int32_t baseHandle, uint32_t n) {
  sfl_ItemInfo info[8] = {};
  sfl_ListItems(baseHandle, info, 8);
  return info[n];
}

sfl_FileHeader FileHeaderOf(int32_t baseHandle) {
  sfl_FileHeader h;
  sfl_ReadFileHeader(sfl_Handle2Record(baseHandle), &h);
  return h;
}

std::vector<uint8_t> FreeMapOf(int32_t baseHandle) {
  sfl_BaseRec* rec = sfl_Handle2Record(baseHandle);
  sfl_ItemHeader fm;
  sfl_ReadItemHeader(rec->FreeMapItem, &fm);
  std::vector<uint8_t> map;
  sfl_ReadFreeMap(rec, &map, fm);
  return map;
}

void EditHeader(int32_t itemHandle, const std::function<void(sfl_ItemHeader&)>& edit) {
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  sfl_Held lock;
  lock.ItemHeader(item, SFL_LOCK_EXCL);
  sfl_ItemHeader h;
  sfl_ReadItemHeader(item, &h);
  edit(h);
  sfl_WriteItemHeader(item, h);
}

void ParentItemTest::SetUp() {
  base_ = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  parent_ = sfl_StoreBasicItem(base_, nullptr, 512, &parentRef_, 0);
  ASSERT_GE(parent_, SFL_ITEM_HANDLE_FIRST);
  rec_ = sfl_Handle2Record(base_);
  fd_ = rec_->FileDes;
  sfl_GetSerFileItem(base_, &fileRef_);
}

sfl_ItemHeader ParentItemTest::Header(uint32_t off) {
  std::vector<uint8_t> b = Raw(off, SFL_ITEM_HEADER_SIZE);
  return sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(b.data(), SFL_ITEM_HEADER_SIZE));
}

std::vector<uint8_t> ParentItemTest::Map() {
  sfl_ItemHeader fm = Header(SFL_TABLE_OFFSET);
  return Raw(fm.FileOffset, fm.FileSize);
}

// ---- processes ----------------------------------------------------------------------------------

Gate::Gate() {
  if (pipe(fds_) != 0) std::abort();
}

Gate::~Gate() {
  close(fds_[0]);
  close(fds_[1]);
}

void Gate::Open() {
  char c = 1;
  if (write(fds_[1], &c, 1) != 1) std::abort();
}

void Gate::Wait() {
  char c;
  if (read(fds_[0], &c, 1) != 1) std::abort();
}

bool Eventually(const std::function<bool()>& cond, int seconds) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return cond();
}

int ExitWithin(pid_t pid, int seconds) {
  int status = 0;
  if (!Eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds)) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// ---- message queues ----------------------------------------------------------------------

std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc", ec)) {
    const std::string name = e.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in(e.path() / "stat");
    std::string line;
    if (!std::getline(in, line) || line.rfind(')') == std::string::npos) continue;
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    char state = 0;
    pid_t ppid = 0;
    if (rest >> state >> ppid && ppid == parent) out.push_back(std::stoi(name));
  }
  return out;
}

char ProcessState(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(in, line) || line.rfind(')') == std::string::npos) return 0;
  std::istringstream rest(line.substr(line.rfind(')') + 1));
  char state = 0;
  rest >> state;
  return state;
}

bool QueueExists(int q) {
  struct msqid_ds ds;
  return msgctl(q, IPC_STAT, &ds) == 0;
}

size_t QueueDepth(int q) {
  struct msqid_ds ds;
  return msgctl(q, IPC_STAT, &ds) == 0 ? ds.msg_qnum : 0;
}

}  // namespace sfltest
