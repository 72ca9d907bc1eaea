// The `limit` row: what this machine allows, measured in the same run as the
// workloads so that every figure can be read against it.
//   msgq       one System V message round trip between two processes, both
//              waiting in msgrcv (the receiver's CPU may go idle between
//              messages, and waking it is part of the cost);
//   msgq-poll  the same round trip with both sides polling (IPC_NOWAIT) in
//              a loop, so that neither CPU ever goes idle;
//   msgq-qos   the msgq round trip with a CPU latency request of 0 held on
//              /dev/cpu_dma_latency meanwhile (idle processors stay
//              shallow), as the interest service holds one with
//              "SFL_MONITOR_CPU_LATENCY_US" set; fails where the device
//              cannot be opened;
//   file       open, read and close of one small file (4 KiB);
//   create     creating a new 4 KiB file (open, write, close) and unlinking
//              it: what a new container or one file per part costs before
//              anything else;
//   im-new     a new container file through the item-reference library
//              (im_GetNewDataItem), 4 KiB written, then removed the way an
//              emptied container is (im_RetireItem) with the pool off;
//   im-pool    the same with the container pool on: the removal keeps
//              the file and the next new file reuses it;
//   lock       taking and releasing a record lock on 64 bytes of an open
//              file (two fcntl calls), as every read-modify-write of a
//              container's record does;
//   pread      one 384-byte positioned read of an open file from the page
//              cache (an index record, near enough any header);
//   pwrite     one 384-byte positioned write into the page cache, not
//              flushed;
//   flush      the same write, then fdatasync: the least a flush costs
//              (one page written back, the device's cache flushed);
//   w3f-wait   W3's readers, started together, each doing per read only
//              what a read by reference must: three exchanges with one
//              echo process (the record at the open, the check and the
//              withdrawal at the close, of the interest service's sizes)
//              and an open, a read and a close of a small file; each
//              reply waited for in msgrcv;
//   w3f-poll   the same, each reply awaited as the library does (a few
//              polls with a yield between them, then a wait in msgrcv);
//   w3f-qos-wait, w3f-qos-poll  the same two with the CPU latency
//              request held.
// Each is timed over many repetitions; the figure is operations per second.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench.h"
#include "im.h"

namespace bench {
namespace {

// The interest service's request types (record, withdraw, check).
constexpr long kRecord = 10, kWithdraw = 11, kCheck = 12;

struct Msg {
  long type;
  char text[28];
};

// Receives one message of `type`, blocking or polling.
void Receive(int q, long type, bool poll, size_t len = 16) {
  Msg m;
  for (;;) {
    ssize_t n = msgrcv(q, &m, len, type, poll ? IPC_NOWAIT : 0);
    if (n >= 0) return;
    if (errno == EINTR || (poll && errno == ENOMSG)) continue;
    Fail("msgrcv: %s", std::strerror(errno));
  }
}

void Send(int q, long type, size_t len = 16, int32_t pid = 0) {
  Msg m{type, {}};
  std::memcpy(m.text + (type == kWithdraw ? 20 : 16), &pid, sizeof pid);
  while (msgsnd(q, &m, len, 0) != 0) {
    if (errno != EINTR) Fail("msgsnd: %s", std::strerror(errno));
  }
}

// `rounds` round trips: the parent sends type 1 to the echo child on one
// queue and waits for type 2 on the other.
Figures RoundTrips(int rounds, bool poll) {
  int req = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  int rep = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  if (req < 0 || rep < 0) Fail("msgget: %s", std::strerror(errno));
  pid_t child = fork();
  if (child < 0) Fail("fork");
  if (child == 0) {
    for (int i = 0; i < rounds + 100; ++i) {
      Receive(req, 1, poll);
      Send(rep, 2);
    }
    _exit(0);
  }
  for (int i = 0; i < 100; ++i) {  // warm-up
    Send(req, 1);
    Receive(rep, 2, poll);
  }
  double t0 = Now();
  for (int i = 0; i < rounds; ++i) {
    Send(req, 1);
    Receive(rep, 2, poll);
  }
  double t1 = Now();
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  msgctl(req, IPC_RMID, nullptr);
  msgctl(rep, IPC_RMID, nullptr);
  Figures f;
  f["seconds"] = t1 - t0;
  f["ops"] = rounds;
  return f;
}

// Writes 4 KiB of payload to a new file at `path`.
void WriteSmallFile(const std::string& path) {
  std::vector<uint8_t> buf(4096);
  FillPayload(buf.data(), static_cast<uint32_t>(buf.size()), 1, 1);
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || write(fd, buf.data(), buf.size()) != static_cast<ssize_t>(buf.size())) Fail("write %s", path.c_str());
  close(fd);
}

Figures OpenReadClose(const std::string& dir, int rounds) {
  std::string path = dir + "/limit-file";
  WriteSmallFile(path);
  std::vector<uint8_t> buf(4096);
  double t0 = Now();
  for (int i = 0; i < rounds; ++i) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Fail("open %s", path.c_str());
    if (read(fd, buf.data(), buf.size()) != static_cast<ssize_t>(buf.size())) Fail("short read");
    close(fd);
  }
  double t1 = Now();
  unlink(path.c_str());
  Figures f;
  f["seconds"] = t1 - t0;
  f["ops"] = rounds;
  return f;
}

Figures CreateUnlink(const std::string& dir, int rounds) {
  std::vector<uint8_t> buf(4096);
  FillPayload(buf.data(), static_cast<uint32_t>(buf.size()), 1, 1);
  double t0 = Now();
  for (int i = 0; i < rounds; ++i) {
    std::string path = dir + "/limit-" + std::to_string(i);
    int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0) Fail("create %s", path.c_str());
    if (write(fd, buf.data(), buf.size()) != static_cast<ssize_t>(buf.size())) Fail("short write");
    close(fd);
    if (unlink(path.c_str()) != 0) Fail("unlink %s", path.c_str());
  }
  double t1 = Now();
  Figures f;
  f["seconds"] = t1 - t0;
  f["ops"] = rounds;
  return f;
}

// New container files made and given up `rounds` times through the
// item-reference library, with the pool on or off.
Figures NewAndRetire(const std::string& dir, int rounds, bool pool) {
  setenv("SFL_STORE_ROOT", (dir + "/store").c_str(), 1);
  setenv("SFL_CONTAINER_POOL", pool ? "4" : "0", 1);
  // Every SubDomain directory first, as in a store in use: a directory
  // made on the way costs a flush of its parent, which is not what is
  // measured here.
  for (int sub = 0; sub < 256; ++sub) MakeDirs(dir + "/store/2/" + std::to_string(sub));
  std::vector<uint8_t> buf(4096);
  FillPayload(buf.data(), static_cast<uint32_t>(buf.size()), 1, 1);
  double t0 = Now();
  for (int i = 0; i < rounds; ++i) {
    sfl_ItemRef ref{};
    const int fd = im_GetNewDataItem(&ref);
    if (write(fd, buf.data(), buf.size()) != static_cast<ssize_t>(buf.size())) Fail("short write");
    im_RetireItem(&ref, fd, false);
    close(fd);
  }
  double t1 = Now();
  RemoveTree(dir + "/store");
  Figures f;
  f["seconds"] = t1 - t0;
  f["ops"] = rounds;
  return f;
}

// The floor of W3: `readers` processes, started together, each making
// `reads` reads that do only what a read of a part by reference must do.
// The echo process answers every request the way the interest service
// does (a reply of the size the client expects, typed with the
// requester's process id, on the reply queue) and keeps nothing. Each read
// opens one of 64 small files in turn and reads a part's worth from it.
Figures W3Floor(const std::string& dir, int readers, int reads, bool poll) {
  constexpr int kFiles = 64;
  for (int i = 0; i < kFiles; ++i) WriteSmallFile(dir + "/w3-floor-" + std::to_string(i));
  const int req = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  const int rep = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
  if (req < 0 || rep < 0) Fail("msgget: %s", std::strerror(errno));
  const pid_t echo = fork();
  if (echo < 0) Fail("fork");
  if (echo == 0) {
    Msg m;
    for (;;) {
      const ssize_t n = msgrcv(req, &m, sizeof m.text, 0, MSG_NOERROR);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) _exit(0);  // the queue is gone: the run is over
      int32_t pid = 0;
      std::memcpy(&pid, m.text + (m.type == kWithdraw ? 20 : 16), sizeof pid);
      const size_t replyLen = m.type == kRecord ? 16 : 12;
      m.type = pid;
      while (msgsnd(rep, &m, replyLen, 0) != 0 && errno == EINTR) {
      }
    }
  }
  const Together t = RunTogether(
      readers,
      [&](int r, int startFd, int) {
        const int32_t me = getpid();
        std::vector<uint8_t> part(300);
        auto exchange = [&](long type, size_t len, size_t replyLen) {
          Send(req, type, len, me);
          Msg m;
          for (int polls = poll ? 0 : 50; msgrcv(rep, &m, replyLen, me, IPC_NOWAIT) < 0; ++polls) {
            if (errno != ENOMSG && errno != EINTR) Fail("msgrcv: %s", std::strerror(errno));
            if (polls >= 50) {
              Receive(rep, me, false, replyLen);
              break;
            }
            sched_yield();
          }
        };
        char go;
        if (read(startFd, &go, 1) < 0) return 4;
        for (int k = 0; k < reads; ++k) {
          const std::string path = dir + "/w3-floor-" + std::to_string((k + r) % kFiles);
          const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
          if (fd < 0) return 3;
          exchange(kRecord, 24, 16);
          if (pread(fd, part.data(), part.size(), 896) != static_cast<ssize_t>(part.size())) return 3;
          exchange(kCheck, 24, 12);
          exchange(kWithdraw, 28, 12);
          close(fd);
        }
        return 0;
      },
      "floor reader(s)");
  msgctl(req, IPC_RMID, nullptr);
  msgctl(rep, IPC_RMID, nullptr);
  int status = 0;
  while (waitpid(echo, &status, 0) < 0 && errno == EINTR) {
  }
  for (int i = 0; i < kFiles; ++i) unlink((dir + "/w3-floor-" + std::to_string(i)).c_str());
  Figures f;
  f["seconds"] = t.seconds;
  f["ops"] = static_cast<double>(readers) * reads;
  return f;
}

// Holds a CPU latency request of 0 for its lifetime; fails where the
// device cannot be opened.
class LatencyRequest {
 public:
  LatencyRequest() : fd_(open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC)) {
    const int32_t zero = 0;
    if (fd_ < 0 || write(fd_, &zero, sizeof zero) != sizeof zero)
      Fail("no CPU latency request: %s", std::strerror(errno));
  }
  ~LatencyRequest() { close(fd_); }
  LatencyRequest(const LatencyRequest&) = delete;
  LatencyRequest& operator=(const LatencyRequest&) = delete;

 private:
  int fd_;
};

// A file of 1 MiB to lock, read and write in, removed afterwards.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& dir) : path_(dir + "/limit-records") {
    fd_ = open(path_.c_str(), O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0644);
    std::vector<uint8_t> buf(1 << 20, 0x5A);
    if (fd_ < 0 || write(fd_, buf.data(), buf.size()) != static_cast<ssize_t>(buf.size()))
      Fail("write %s", path_.c_str());
  }
  ~ScratchFile() {
    close(fd_);
    unlink(path_.c_str());
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  int fd() const { return fd_; }

 private:
  std::string path_;
  int fd_ = -1;
};

Figures Timed(int rounds, const std::function<void(int)>& one) {
  for (int i = 0; i < 100; ++i) one(i);  // warm-up
  double t0 = Now();
  for (int i = 0; i < rounds; ++i) one(i);
  double t1 = Now();
  Figures f;
  f["seconds"] = t1 - t0;
  f["ops"] = rounds;
  return f;
}

Figures LockUnlock(const std::string& dir, int rounds) {
  ScratchFile file(dir);
  struct flock l {};
  l.l_whence = SEEK_SET;
  l.l_len = 64;
  return Timed(rounds, [&](int i) {
    l.l_start = 128 + (i % 8) * 64;
    l.l_type = F_WRLCK;
    if (fcntl(file.fd(), F_OFD_SETLKW, &l) != 0) Fail("lock: %s", std::strerror(errno));
    l.l_type = F_UNLCK;
    if (fcntl(file.fd(), F_OFD_SETLK, &l) != 0) Fail("unlock: %s", std::strerror(errno));
  });
}

// One 384-byte record read or written per round, a write flushed after it
// for WriteFlushed.
enum class Transfer { Read, Write, WriteFlushed };

Figures RecordTransfer(const std::string& dir, int rounds, Transfer how) {
  ScratchFile file(dir);
  std::vector<uint8_t> buf(384);
  return Timed(rounds, [&](int i) {
    const off_t at = 4096 + static_cast<off_t>(i % 2048) * 384;
    const ssize_t n = how == Transfer::Read ? pread(file.fd(), buf.data(), buf.size(), at)
                                            : pwrite(file.fd(), buf.data(), buf.size(), at);
    if (n != static_cast<ssize_t>(buf.size())) Fail("short record transfer");
    if (how == Transfer::WriteFlushed && fdatasync(file.fd()) != 0)
      Fail("fdatasync: %s", std::strerror(errno));
  });
}

}  // namespace

Figures RunLimit(const std::string& system, const std::string& dir, const Sizes& sizes) {
  // As many round trips as W3 makes reads: a few seconds at most.
  const int rounds = std::max(1000, sizes.readsPerReader * 4);
  if (system == "msgq") return RoundTrips(rounds, false);
  if (system == "msgq-poll") return RoundTrips(rounds, true);
  if (system == "msgq-qos") {
    const LatencyRequest held;  // for this run only
    return RoundTrips(rounds, false);
  }
  if (system == "w3f-wait" || system == "w3f-poll")
    return W3Floor(dir, sizes.readers, sizes.readsPerReader, system == "w3f-poll");
  if (system == "w3f-qos-wait" || system == "w3f-qos-poll") {
    const LatencyRequest held;
    return W3Floor(dir, sizes.readers, sizes.readsPerReader, system == "w3f-qos-poll");
  }
  if (system == "file") return OpenReadClose(dir, rounds * 4);
  if (system == "create") return CreateUnlink(dir, std::max(200, rounds / 10));
  if (system == "im-new") return NewAndRetire(dir, std::max(200, rounds / 10), false);
  if (system == "im-pool") return NewAndRetire(dir, std::max(200, rounds / 10), true);
  if (system == "lock") return LockUnlock(dir, rounds * 4);
  if (system == "pread") return RecordTransfer(dir, rounds * 4, Transfer::Read);
  if (system == "pwrite") return RecordTransfer(dir, rounds * 4, Transfer::Write);
  // A flush costs 0.1 to 0.2 ms on this machine's disk, far more than a write.
  if (system == "flush") return RecordTransfer(dir, std::max(100, rounds / 50), Transfer::WriteFlushed);
  Fail("limit has no system %s", system.c_str());
}

}  // namespace bench
