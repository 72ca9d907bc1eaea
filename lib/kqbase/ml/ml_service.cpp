// ml_: the interest service. The main process creates one to four pairs of
// System V queues (request, reply), serves pair 0 itself and forks one
// additional process per further pair, plus a ticker process that puts a
// tick message on every request queue four times a second: the serving
// processes block in msgrcv and the ticks are what wake them for their
// periodic work (sweeping dead processes, idle and stop checks).
//
// Requests are read with a buffer of the largest message size and
// MSG_NOERROR, and anything whose type and length are not exactly those of a
// request is dropped. Replies are sent without waiting; a full reply queue is
// first purged of older replies for the same requester (a client waits for
// one reply at a time, so earlier ones are stale), then rewritten with only
// the newest reply of each live process; if it is still full (more waiting
// clients than the queue holds) the reply is dropped. Either way a client
// that never reads its replies cannot stall the service.
//
// Each serving process keeps its entries on disk (ml_keep.h). At start the
// main process reads what an earlier service left, keeps what live processes
// still hold, and hands each pair its share by the same routing the clients
// use (the pair count may have changed), written afresh before anyone is
// served. A stop leaves the files in place for the next start, and waits
// (boundedly) for the replies already sent to be taken before it removes the
// queues, so that no client asks the next service again for what this one
// already recorded.
//
// With a cluster (ml_cluster.h) each serving process also tells the other
// hosts what this host holds and folds what they hold into its answers.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unordered_set>
#include <unistd.h>
#include <vector>

#include "er.h"
#include "le.h"
#include "ml.h"
#include "ml_cluster.h"
#include "ml_interest.h"
#include "ml_keep.h"
#include "ml_metrics.h"
#include "ml_qos.h"
#include "os.h"

namespace {

constexpr size_t kMaxText = 8192;        // largest message the kernel takes by default
constexpr int kTickMs = 250;             // ticker period
constexpr int kSweepMs = 2000;           // sweep of dead processes
constexpr size_t kMaxRequesters = 4096;  // requesters remembered between sweeps

volatile std::sig_atomic_t g_stop = 0;
extern "C" void onStopSignal(int) { g_stop = 1; }

int64_t nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// The service's log: standard error, which a detached service has on the
// run directory's log file.
void logLine(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void logLine(const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  char stamp[32];
  std::time_t t = std::time(nullptr);
  std::tm tmv;
  gmtime_r(&t, &tmv);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tmv);
  char line[640];
  int n = std::snprintf(line, sizeof line, "%s sfl-monitor[%d] %s\n", stamp,
                        static_cast<int>(os_getpid()), text);
  if (n > 0) os_write(2, line, static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1);
}

bool pidAlive(int32_t pid) { return ml_CheckPid(pid) == 1; }

// Shared between the serving processes (an anonymous shared mapping made
// before the forks): what the main process needs for its idle decision.
struct PairStats {
  std::atomic<int64_t> entries{0};
  std::atomic<int64_t> lastActivityMs{0};
};
struct Shared {
  PairStats pairs[ML_MAX_PAIRS];
  ml_ServiceMetrics metrics;  // what the ticker publishes (ml_metrics.h)
  // A client's request takes the CPU latency request at once, not at the
  // next tick. Only the main process holds it (it serves pair 0); its
  // checks set this while the request is wanted and not held. The next
  // request any pair answers then takes it, once: pair 0 by running the
  // check, another pair's process by waking the main process with a tick,
  // so that a client routed to any pair gets it. True at the start: a
  // check too many costs little.
  std::atomic<bool> checkOnRequest{true};
};

struct Server {
  int pair = 0;
  int requestQueue = -1;
  int replyQueue = -1;
  Shared* shared = nullptr;
  ml_InterestTable table;
  ml_KeepFile keep;
  uint64_t keepFailures = 0;  // as last logged
  std::unordered_set<int32_t> requesters;  // answered since the last sweep
  int64_t nextSweepMs = 0;
  uint64_t malformed = 0;
  uint64_t dropped = 0;
  uint64_t forged = 0;
  ml_ClusterView* cluster = nullptr;  // null: this host alone
  ml_PairMetrics* metrics = nullptr;  // this pair's block of the shared counters
  int mainRequestQueue = -1;  // pair 0's, to wake the main process (other pairs only)
  std::unique_ptr<ml_HolderCount> holders;

  explicit Server(size_t maxEntries) : table(maxEntries, pidAlive, ml_ProcessStart) {}
};

// Held entries and marks: a service holding either is not idle.
int64_t heldBy(const Server& s) { return static_cast<int64_t>(s.table.Entries() + s.table.Marks()); }

// Gives a serving process what its pair's file holds (written by the main
// process before the forks, in this order) and keeps the file up to date
// from then on.
void restore(Server& s, const std::vector<ml_Saved>& saved, const std::string& path) {
  s.metrics = &s.shared->metrics.Pair[s.pair];
  s.holders = std::make_unique<ml_HolderCount>(s.metrics);
  for (size_t i = 0; i < saved.size(); ++i) {
    s.table.Restore(saved[i], static_cast<uint32_t>(i));
    s.holders->Seed(static_cast<uint32_t>(i), saved[i]);
  }
  // The count of holders sees every slot change on its way to the file.
  s.table.SetJournal(s.holders.get());
  ml_NoteTable(s.metrics, s.table);
  if (s.keep.Open(path)) {
    s.holders->SetNext(&s.keep);
  } else {
    logLine("pair %d: cannot keep interests in %s (%s); a restart will forget them", s.pair,
            path.c_str(), std::strerror(errno));
  }
  if (!saved.empty()) logLine("pair %d: %zu interest(s) of live processes taken over", s.pair, saved.size());
  if (s.cluster != nullptr) s.cluster->Adopt(saved);
}

// The routing of the clients: pair SubDomain mod pair count.
int pairOf(const ml_Saved& s, int pairs) {
  return static_cast<int>(le_GetU32(s.Ref.data() + 4) % static_cast<uint32_t>(pairs));
}

// Reads what an earlier service left for any pair count, and writes each
// pair's share afresh. Returns the shares.
std::vector<std::vector<ml_Saved>> takeOver(const std::string& dir, int pairs, size_t maxEntries,
                                            mode_t mode) {
  const std::string boot = ml_BootId();
  std::vector<std::vector<ml_Saved>> shares(static_cast<size_t>(pairs));
  for (int i = 0; i < ML_MAX_PAIRS; ++i) {
    const std::string path = ml_KeepPath(dir, i);
    ml_KeepLoad load;
    ml_LoadKeep(path, os_getuid(), boot, ml_KeepSlotLimit(maxEntries), ml_SavedProcessLives, &load);
    if (!load.Refused.empty()) logLine("%s not used: %s", path.c_str(), load.Refused.c_str());
    if (load.Dropped > 0) logLine("%s: %zu slot(s) dropped (ended processes or bent)", path.c_str(), load.Dropped);
    for (const ml_Saved& s : load.Saved) {
      if (s.Kind == ML_SAVED_ANY) {
        for (auto& share : shares) share.push_back(s);
      } else {
        shares[static_cast<size_t>(pairOf(s, pairs))].push_back(s);
      }
    }
  }
  // The same slot may have come from two files (a start cut short between
  // writes): once is enough.
  for (auto& share : shares) {
    std::set<std::tuple<uint32_t, ml_RefKey, int32_t, uint32_t>> seen;
    std::vector<ml_Saved> unique;
    for (const ml_Saved& s : share)
      if (seen.insert({s.Kind, s.Ref, s.Pid, s.Token}).second) unique.push_back(s);
    share.swap(unique);
  }
  for (int i = 0; i < pairs; ++i) {
    const std::string path = ml_KeepPath(dir, i);
    if (ml_WriteKeep(path, boot, shares[static_cast<size_t>(i)], mode) != 0)
      logLine("cannot write %s: %s", path.c_str(), std::strerror(errno));
  }
  for (int i = pairs; i < ML_MAX_PAIRS; ++i) os_unlink(ml_KeepPath(dir, i).c_str());
  return shares;
}

// Removes every reply waiting for `pid`.
void purgeRepliesFor(int queue, int32_t pid) {
  uint8_t buf[4 + kMaxText];
  try {
    for (int i = 0; i < 100000; ++i) os_msgrcv(queue, buf, kMaxText, pid, IPC_NOWAIT | MSG_NOERROR);
  } catch (const er_Escape&) {
    er_Clear();  // ENOMSG: none left
  }
}

// Rewrites the reply queue keeping, for each live process, only its newest
// reply: a client waits for one reply at a time, so older ones will never be
// read, and replies to processes that have died never will either.
void compactReplies(int queue) {
  struct msqid_ds ds;
  if (os_msgctl(queue, IPC_STAT, &ds) != 0) return;
  std::vector<std::vector<uint8_t>> held;
  std::vector<uint8_t> buf(4 + kMaxText);
  for (msgqnum_t i = 0; i < ds.msg_qnum; ++i) {
    ssize_t n;
    try {
      n = os_msgrcv(queue, buf.data(), kMaxText, 0, IPC_NOWAIT | MSG_NOERROR);
    } catch (const er_Escape&) {
      er_Clear();
      break;
    }
    held.emplace_back(buf.begin(), buf.begin() + 4 + n);
  }
  std::unordered_set<int32_t> seen;
  std::vector<const std::vector<uint8_t>*> keep;
  for (auto it = held.rbegin(); it != held.rend(); ++it) {
    int32_t pid = static_cast<int32_t>(le_GetU32(it->data()));
    if (seen.insert(pid).second && pidAlive(pid)) keep.push_back(&*it);
  }
  for (auto it = keep.rbegin(); it != keep.rend(); ++it)
    os_msgsnd(queue, (*it)->data(), (*it)->size() - 4, IPC_NOWAIT);
}

void sendReply(Server& s, int32_t pid, const uint8_t* text, size_t len) {
  uint8_t msg[4 + 16] = {};
  le_PutU32(msg, static_cast<uint32_t>(pid));
  std::memcpy(msg + 4, text, len);
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (os_msgsnd(s.replyQueue, msg, len, IPC_NOWAIT) == 0) return;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) break;
    if (attempt == 0) purgeRepliesFor(s.replyQueue, pid);
    if (attempt == 1) compactReplies(s.replyQueue);
  }
  s.metrics->Dropped.fetch_add(1);
  if (s.dropped++ % 1000 == 0)
    logLine("pair %d: reply to pid %d dropped (%s); %llu so far", s.pair, pid, std::strerror(errno),
            static_cast<unsigned long long>(s.dropped));
}

void noteMalformed(Server& s, int32_t type, ssize_t len) {
  s.metrics->Malformed.fetch_add(1);
  if (s.malformed++ % 1000 == 0)
    logLine("pair %d: malformed message dropped (type %d, length %zd); %llu so far", s.pair, type,
            len, static_cast<unsigned long long>(s.malformed));
}

// The sender of the request just taken, as far as the kernel tells: when
// the queue is empty right after the take, the last message sent to it was
// that request, so its last sender is the request's. 0 when it cannot tell
// (more requests waiting, or the status not to be had). A writer of the
// queue can make it unable to tell by sending two at once: what keeps
// another's interest from being withdrawn is its random token.
int32_t senderOf(Server& s) {
  struct msqid_ds ds;
  if (os_msgctl(s.requestQueue, IPC_STAT, &ds) != 0 || ds.msg_qnum != 0) return 0;
  return static_cast<int32_t>(ds.msg_lspid);
}

void noteForged(Server& s, int32_t named, int32_t sender) {
  if (s.forged++ % 1000 == 0)
    logLine("pair %d: request in the name of pid %d sent by pid %d dropped; %llu so far", s.pair,
            named, sender, static_cast<unsigned long long>(s.forged));
}

// Answers one message; true when it was a request that was answered.
bool handle(Server& s, const uint8_t* msg, ssize_t len) {
  const int32_t type = static_cast<int32_t>(le_GetU32(msg));
  if (type == ML_MSG_TICK) return false;
  // A request in another process's name is neither answered nor counted.
  const int32_t named = ml_RequestPid(msg, static_cast<size_t>(len));
  if (const int32_t sender = named > 0 ? senderOf(s) : 0; sender > 0 && sender != named) {
    noteForged(s, named, sender);
    return false;
  }
  uint8_t reply[16];
  int32_t pid = 0;
  const size_t replyLen = s.cluster != nullptr
                              ? s.cluster->Answer(s.table, msg, static_cast<size_t>(len), &pid, reply)
                              : ml_AnswerRequest(s.table, msg, static_cast<size_t>(len), &pid, reply);
  if (replyLen == 0) {
    noteMalformed(s, type, len);
    return false;
  }
  sendReply(s, pid, reply, replyLen);
  s.metrics->Requests[ml_RequestKindOf(type)].fetch_add(1);
  ml_NoteTable(s.metrics, s.table);
  if (s.cluster != nullptr) s.cluster->AfterReply();
  if (s.requesters.size() < kMaxRequesters) s.requesters.insert(pid);
  PairStats& ps = s.shared->pairs[s.pair];
  ps.entries.store(heldBy(s));
  ps.lastActivityMs.store(nowMs());
  return true;
}

void sweep(Server& s) {
  size_t gone = s.table.Sweep();
  if (gone > 0) logLine("pair %d: dropped %zu interests of ended processes", s.pair, gone);
  if (s.cluster != nullptr) s.cluster->Sweep(s.table);
  // Replies left for processes that have ended would only fill the queue.
  for (int32_t pid : s.requesters)
    if (!pidAlive(pid)) purgeRepliesFor(s.replyQueue, pid);
  s.requesters.clear();
  s.shared->pairs[s.pair].entries.store(heldBy(s));
  ml_NoteTable(s.metrics, s.table);
  if (s.keep.Failures() != s.keepFailures) {
    s.keepFailures = s.keep.Failures();
    logLine("pair %d: %llu write(s) of the kept interests failed; a restart may forget some", s.pair,
            static_cast<unsigned long long>(s.keepFailures));
  }
}

// Serves one pair until a stop signal, the loss of its queue, or
// `keepGoing` (asked at every tick, and once per tick period under load)
// says to stop.
template <typename KeepGoing>
void serve(Server& s, KeepGoing keepGoing) {
  std::vector<uint8_t> buf(4 + kMaxText);
  int64_t nextCheck = 0;
  int failures = 0;
  s.nextSweepMs = nowMs() + kSweepMs;
  while (!g_stop) {
    ssize_t n = -1;
    try {
      // A stop signal ends the wait at once: the tick that would otherwise
      // wake this process may never come (its ticker killed, say).
      n = os_msgrcvUnless(s.requestQueue, buf.data(), kMaxText, 0, MSG_NOERROR, &g_stop);
      failures = 0;
    } catch (const er_Escape& e) {
      er_Clear();
      if (e.reason() == EIDRM || e.reason() == EINVAL) {
        logLine("pair %d: request queue removed", s.pair);
        return;
      }
      if (++failures > 100) {
        logLine("pair %d: receive keeps failing (%s)", s.pair, std::strerror(e.reason()));
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const bool tick = n >= 0 && static_cast<int32_t>(le_GetU32(buf.data())) == ML_MSG_TICK;
    const bool answered = n >= 0 && handle(s, buf.data(), n);
    int64_t now = nowMs();
    if (now >= s.nextSweepMs) {
      sweep(s);
      s.nextSweepMs = now + kSweepMs;
    }
    // Forged and malformed messages never run the check early, here or in
    // the main process.
    bool early = answered && s.shared->checkOnRequest.exchange(false);
    if (early && s.mainRequestQueue >= 0) {
      uint8_t wake[4];
      le_PutU32(wake, ML_MSG_TICK);
      os_msgsnd(s.mainRequestQueue, wake, 0, IPC_NOWAIT);  // a full queue wakes it anyway
      early = false;
    }
    if (tick || now >= nextCheck || early) {
      nextCheck = now + kTickMs;
      if (s.cluster != nullptr) {
        s.cluster->Tick();
        if (s.metrics != nullptr) s.metrics->Cluster.store(s.cluster->Reachable() ? 1 : 0);
      }
      if (!keepGoing()) return;
    }
  }
}

void removeQueues(const std::vector<int>& queues) {
  for (int q : queues)
    if (q >= 0) os_msgctl(q, IPC_RMID, nullptr);
}

// Ticks the request queues until stopped. Should the main process vanish
// (killed outright), it takes every queue down: a client waiting for a reply
// then gets an error instead of waiting forever, and the other serving
// processes wake and end.
void ticker(const std::vector<int>& queues, int pairs, int32_t mainPid,
            const std::function<void()>& publish) {
  // A process group of its own: a signal to the service's group (a kill of
  // the whole service) leaves the ticker to take the queues down after it.
  ::setpgid(0, 0);
  uint8_t tick[4];
  le_PutU32(tick, ML_MSG_TICK);
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(kTickMs));
    if (g_stop) return;
    publish();
    if (!pidAlive(mainPid)) {
      logLine("main process %d gone; removing the queues", static_cast<int>(mainPid));
      removeQueues(queues);
      return;
    }
    for (int i = 0; i < pairs; ++i) {
      // A full queue needs no tick: its server is awake anyway.
      if (os_msgsnd(queues[2 * i], tick, 0, IPC_NOWAIT) != 0 && (errno == EINVAL || errno == EIDRM)) return;
    }
  }
}

int makeQueue(int gid) {
  int q = os_msgget(IPC_PRIVATE, IPC_CREAT | IPC_EXCL | (gid >= 0 ? 0660 : 0600));
  if (q < 0 || gid < 0) return q;
  struct msqid_ds ds;
  if (os_msgctl(q, IPC_STAT, &ds) == 0) {
    ds.msg_perm.gid = static_cast<gid_t>(gid);
    if (os_msgctl(q, IPC_SET, &ds) != 0) logLine("cannot give the queues to group %d", gid);
  }
  return q;
}

// Waits, at most kDrainMs, until every reply queue is empty. Replies to
// processes that have ended are never taken: they are cleared halfway.
constexpr int kDrainMs = 2000;
void awaitRepliesTaken(const std::vector<int>& queues, int pairs) {
  const int64_t start = nowMs();
  bool compacted = false;
  for (;;) {
    bool empty = true;
    for (int i = 0; i < pairs; ++i) {
      struct msqid_ds ds;
      if (os_msgctl(queues[2 * i + 1], IPC_STAT, &ds) == 0 && ds.msg_qnum > 0) empty = false;
    }
    const int64_t waited = nowMs() - start;
    if (empty || waited >= kDrainMs) return;
    if (!compacted && waited >= kDrainMs / 4) {
      for (int i = 0; i < pairs; ++i) compactReplies(queues[2 * i + 1]);
      compacted = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

// Stops a child: SIGTERM, then SIGKILL if it has not gone within 2 s.
void stopChild(pid_t pid) {
  if (pid <= 0) return;
  os_kill(pid, SIGTERM);
  int status = 0;
  for (int i = 0; i < 200; ++i) {
    if (os_waitpid(pid, &status, WNOHANG) != 0) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  os_kill(pid, SIGKILL);
  os_waitpid(pid, &status, 0);
}

}  // namespace

int ml_RunService(const ml_ServiceOptions& opts) { return ml_RunClusterService(opts, nullptr); }

int ml_RunClusterService(const ml_ServiceOptions& opts, ml_Cluster* cluster) {
  g_stop = 0;
  std::signal(SIGTERM, onStopSignal);
  std::signal(SIGINT, onStopSignal);
  const std::string& dir = opts.RunDir;
  const int pairs = opts.Pairs < 1 ? 1 : (opts.Pairs > ML_MAX_PAIRS ? ML_MAX_PAIRS : opts.Pairs);
  if (ml_PrepareRunDir(dir, opts.Gid >= 0 ? 0750 : 0700) != 0) {
    logLine("run directory %s unusable: %s", dir.c_str(), std::strerror(errno));
    return 1;
  }

  // The lock says who serves this run directory. One that is shutting down
  // still holds it while its clients take their last replies (at most
  // kDrainMs) and its other processes end, so wait that long before giving up.
  int lockFd = -1;
  for (int i = 0; i < 250 && lockFd < 0 && !g_stop; ++i) {
    lockFd = ml_ClaimServiceLock(dir);
    if (lockFd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (lockFd < 0) {
    logLine("another service holds %s", ml_LockPath(dir).c_str());
    return 1;
  }

  // A state file left by a service that died without cleaning up names its
  // queues: remove them.
  ml_State stale;
  if (ml_ReadState(dir, &stale)) {
    removeQueues(stale.Context);
    os_unlink(ml_StatePath(dir).c_str());
    // Its other serving processes end once their queue has gone; one still
    // answering a request could write its file after we have read it.
    for (int i = 0; i < 200; ++i) {
      bool left = false;
      for (int32_t pid : stale.Additional) left = left || pidAlive(pid);
      if (!left) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  const std::vector<std::vector<ml_Saved>> shares =
      takeOver(dir, pairs, opts.MaxEntries, opts.Gid >= 0 ? 0640 : 0600);

  std::vector<int> queues;
  for (int i = 0; i < 2 * pairs; ++i) {
    int q = makeQueue(opts.Gid);
    if (q < 0) {
      logLine("cannot create a message queue: %s", std::strerror(errno));
      removeQueues(queues);
      os_close(lockFd);
      return 1;
    }
    queues.push_back(q);
  }

  void* mem = os_mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (mem == MAP_FAILED) {
    logLine("cannot map shared statistics: %s", std::strerror(errno));
    removeQueues(queues);
    os_close(lockFd);
    return 1;
  }
  Shared* shared = new (mem) Shared;
  const int64_t startMs = nowMs();
  for (auto& p : shared->pairs) p.lastActivityMs.store(startMs);
  shared->metrics.Pairs = pairs;
  shared->metrics.StartSeconds = static_cast<int64_t>(std::time(nullptr));
  // An interest a process may hold anywhere is in every pair's share.
  for (size_t i = 0; i < shares.size(); ++i)
    for (const ml_Saved& sv : shares[i])
      if (sv.Kind != ML_SAVED_ANY || i == 0) shared->metrics.TakenOver.fetch_add(1);

  const int32_t mainPid = os_getpid();
  std::vector<pid_t> children;
  std::vector<int32_t> additional;
  bool forkFailed = false;
  auto runChild = [&](auto body) -> pid_t {
    pid_t pid = os_fork();
    if (pid == 0) {
      os_close(lockFd);  // only the main process holds the service's lock
      body();
      os_ExitNow(0);
    }
    if (pid < 0) forkFailed = true;
    return pid;
  };
  for (int i = 1; i < pairs && !forkFailed; ++i) {
    pid_t pid = runChild([&] {
      Server s(opts.MaxEntries);
      s.pair = i;
      s.requestQueue = queues[2 * i];
      s.replyQueue = queues[2 * i + 1];
      s.mainRequestQueue = queues[0];
      s.shared = shared;
      ml_ClusterView view(cluster);
      if (cluster != nullptr) {
        cluster->Begin(i);
        s.cluster = &view;
      }
      restore(s, shares[static_cast<size_t>(i)], ml_KeepPath(dir, i));
      shared->pairs[i].entries.store(heldBy(s));
      serve(s, [&] { return pidAlive(mainPid); });
      // The main process is gone (or we were stopped): take every queue down
      // so that no client waits on one that nobody serves.
      if (!pidAlive(mainPid)) removeQueues(queues);
    });
    if (pid > 0) {
      children.push_back(pid);
      additional.push_back(pid);
    }
  }
  // The ticker's place among the children: it is stopped last.
  size_t tickerAt = children.size();
  if (!forkFailed) {
    const int metricsSeconds = ml_MetricsSeconds();
    pid_t pid = runChild([&] {
      int64_t nextMs = 0;
      bool failing = false;  // logged once until a write succeeds again
      ticker(queues, pairs, mainPid, [&] {
        if (metricsSeconds == 0 || nowMs() < nextMs) return;
        nextMs = nowMs() + int64_t{metricsSeconds} * 1000;
        const bool failed =
            ml_WriteMetrics(dir, ml_SumMetrics(shared->metrics), opts.Gid >= 0 ? 0640 : 0600) != 0;
        if (failed && !failing)
          logLine("cannot write %s: %s", ml_MetricsPath(dir).c_str(), std::strerror(errno));
        failing = failed;
      });
    });
    if (pid > 0) children.push_back(pid);
  }

  int code = 0;
  ml_State st;
  st.State = ML_STATE_RUNNING;
  st.MainPid = mainPid;
  st.Additional = additional;
  st.Context.assign(queues.begin(), queues.end());
  if (forkFailed) {
    logLine("cannot fork the serving processes: %s", std::strerror(errno));
    code = 1;
  } else if (ml_PublishState(dir, st, opts.Gid >= 0 ? 0640 : 0600) != 0) {
    logLine("cannot publish the state: %s", std::strerror(errno));
    code = 1;
  } else {
    logLine("serving %d pair(s) in %s, idle limit %d s", pairs, dir.c_str(), opts.IdleSeconds);
    ml_Qos qos;  // the wake-up floor, held while clients are about
    Server s(opts.MaxEntries);
    s.pair = 0;
    s.requestQueue = queues[0];
    s.replyQueue = queues[1];
    s.shared = shared;
    ml_ClusterView view(cluster);
    if (cluster != nullptr) {
      cluster->Begin(0);
      s.cluster = &view;
    }
    restore(s, shares[0], ml_KeepPath(dir, 0));
    shared->pairs[0].entries.store(heldBy(s));
    serve(s, [&] {
      if (g_stop) return false;  // a stop of the whole group is not a failure
      for (pid_t& c : children) {
        int status = 0;
        if (c > 0 && os_waitpid(c, &status, WNOHANG) == c) {
          logLine("serving process %d ended; stopping", static_cast<int>(c));
          c = -1;  // reaped: its pid may be reused by anyone
          code = 1;
          return false;
        }
      }
      struct stat sb;
      if (os_stat(dir.c_str(), &sb) != 0) {
        logLine("run directory gone; stopping");
        code = 1;
        return false;
      }
      int64_t entries = 0, last = 0;
      for (int i = 0; i < pairs; ++i) {
        entries += shared->pairs[i].entries.load();
        int64_t a = shared->pairs[i].lastActivityMs.load();
        if (a > last) last = a;
      }
      if (qos.Update(entries > 0 || nowMs() - last < ML_QOS_LINGER_MS)) {
        st.CpuLatencyUs = qos.HeldUs();
        ml_PublishState(dir, st, opts.Gid >= 0 ? 0640 : 0600);
      }
      // A client that comes while the floor is down gets it at its first
      // request: a burst shorter than a tick would otherwise run without.
      shared->checkOnRequest.store(qos.TakeAtOnce());
      if (opts.IdleSeconds > 0) {
        if (entries == 0 && nowMs() - last >= int64_t{opts.IdleSeconds} * 1000) {
          logLine("idle for %d s with no interest held; stopping", opts.IdleSeconds);
          return false;
        }
      }
      return true;
    });
  }

  // Unpublish first so that no new client finds queues about to go. Then
  // stop the other serving processes, let the clients take the replies
  // already sent, and only then take the queues down: a client whose reply
  // went with its queue asks again, and a record asked again of the next
  // service would count twice. The ticker stays until the queues are gone:
  // should this process be killed while it waits, the ticker removes them.
  ml_State now;
  if (ml_ReadState(dir, &now) && now.MainPid == mainPid) os_unlink(ml_StatePath(dir).c_str());
  for (size_t i = 0; i < children.size(); ++i)
    if (i != tickerAt) stopChild(children[i]);
  awaitRepliesTaken(queues, pairs);
  removeQueues(queues);
  if (tickerAt < children.size()) stopChild(children[tickerAt]);
  os_unlink(ml_MetricsPath(dir).c_str());  // counts nobody refreshes would mislead
  os_munmap(mem, sizeof(Shared));
  logLine("stopped");
  os_close(lockFd);
  return code;
}
