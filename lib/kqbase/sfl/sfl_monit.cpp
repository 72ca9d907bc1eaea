// sfl_monit: the client of the interest service. Finds the service's queue
// pairs (sfl_GetQueue), sends with retries (sfl_DoSendMsg), and offers the
// record / withdraw / check exchanges for files (answers kept in the
// base-file record) and items (answers kept in the item-handle record).
//
// Wire format: a 4-byte little-endian message type, then the text.
//   record   type 10, 24 bytes: reference, pid, 0
//   withdraw type 11, 28 bytes: reference, token, pid, 0
//   check    type 12, 24 bytes: reference, pid, token
// Replies come on the pair's reply queue with the requester's pid as type:
//   record 16 bytes: token, other, count, -; withdraw and check 12 bytes:
//   count, other, -.
// A service serving several hosts that cannot make the record known to
// the others puts the reason 380 in the record reply's unused last word:
// the record is refused (nothing was kept) and raised as such.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>

#include "cust.h"
#include "mdc.h"
#include "ml.h"
#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"

namespace {

constexpr int kSendTries = 30;
constexpr uint32_t kFullQueuePauseUs = 500000;
constexpr size_t kDrainText = 1996;

// The process-wide queue table, filled on first use.
struct QueueTable {
  int32_t initialised = 0;
  int32_t pairCount = 0;
  int32_t servicePid[ML_MAX_PAIRS] = {};
  int32_t requestQueue[ML_MAX_PAIRS] = {};
  int32_t replyQueue[ML_MAX_PAIRS] = {};
  // The process that filled it. A forked child fills its own, so that the
  // stale replies it drains are those addressed to its own pid.
  int32_t filledBy = 0;
};
QueueTable g_queues;

// Receives whatever was left in each reply queue for this process id by an
// earlier process with the same id.
void drainStaleReplies(int32_t pid) {
  uint8_t buf[4 + kDrainText];
  for (int32_t i = 0; i < g_queues.pairCount; ++i) {
    // An empty queue has nothing to drain; skipping it spares the log an
    // absorbed "no message" escape on every start.
    struct msqid_ds ds;
    if (os_msgctl(g_queues.replyQueue[i], IPC_STAT, &ds) == 0 && ds.msg_qnum == 0) continue;
    try {
      while (os_msgrcv(g_queues.replyQueue[i], buf, kDrainText, pid, IPC_NOWAIT) > 0) {
      }
    } catch (const er_Escape&) {
      er_Accept(5);
      if (er_GetLive()) throw;
    }
  }
}

// One look at the published service; `sawService` tells whether it was
// found running (or started) before the look failed.
void fillQueueTableOnce(bool* sawService) {
  bool mustClose = ml_OpenCfgFile(2) == 0;
  try {
    if (int state = ml_GetSSState(ML_SUBSYSTEM_MONITOR); state != ML_STATE_RUNNING && state != ML_STATE_STARTING) {
      // A run directory or state file refused as untrustworthy says so.
      const std::string& why = ml_TrustProblem();
      if (!why.empty()) {
        er_LogMsg(2, "interest service not used: %s", why.c_str());
        ER_RAISE_MSG(ER_GROUP_MONIT, ML_R_NOT_AVAILABLE, why.c_str());
      }
      ER_RAISE(ER_GROUP_MONIT, ML_R_NOT_AVAILABLE);
    }
    *sawService = true;
    ml_SubSystemDetails details;
    ml_GetSubSystemDetails(ML_SUBSYSTEM_MONITOR, &details);
    int32_t pairs = static_cast<int32_t>(details.AdditionalCount) + 1;
    if (pairs > ML_MAX_PAIRS) pairs = ML_MAX_PAIRS;
    if (pairs < 1) pairs = 1;
    g_queues.pairCount = pairs;
    for (int32_t i = 0; i < pairs; ++i) {
      int32_t pid = i == 0 ? details.MainPid : details.AdditionalPids[i - 1];
      if (ml_CheckPid(pid) != 1) ER_RAISE(ER_GROUP_MONIT, ML_R_NOT_AVAILABLE);
      g_queues.servicePid[i] = pid;
      g_queues.requestQueue[i] = ml_ReadContext(ML_SUBSYSTEM_MONITOR, static_cast<int16_t>(2 * i));
      g_queues.replyQueue[i] = ml_ReadContext(ML_SUBSYSTEM_MONITOR, static_cast<int16_t>(2 * i + 1));
    }
    if (mustClose) {
      mustClose = false;
      ml_CloseCfgFile();
    }
    const int32_t self = os_getpid();
    drainStaleReplies(self);
    g_queues.filledBy = self;
    g_queues.initialised = 1;
  } catch (const er_Escape&) {
    if (mustClose) {
      // A second failure while closing must not replace the first one.
      er_StatusKeeper keep;
      try {
        ml_CloseCfgFile();
      } catch (const er_Escape&) {
        er_Clear();
      }
    }
    if (er_GetLive()) throw;
    g_queues.filledBy = os_getpid();
    g_queues.initialised = 1;
  }
}

// A look that finds the service running and then one of its processes
// ended (stopped by another process in between) looks again, which starts
// it anew where on-demand start is on: a caller never gets 380 only because
// the service went between its start and its use. A service that is not
// running (and is not started) raises 380 at the first look.
constexpr int kLookRounds = 8;
constexpr uint32_t kLookPauseUs = 20000;

void fillQueueTable() {
  for (int round = 1;; ++round) {
    bool sawService = false;
    try {
      fillQueueTableOnce(&sawService);
      return;
    } catch (const er_Escape& e) {
      if (!sawService || round == kLookRounds || e.group() != ER_GROUP_MONIT ||
          e.reason() != ML_R_NOT_AVAILABLE)
        throw;
      er_Clear();
      mdc_MicroSleep(kLookPauseUs);
    }
  }
}

bool tableCurrent() { return g_queues.initialised != 0 && g_queues.filledBy == os_getpid(); }

// The 16 reference bytes of the wire format.
void putRef(uint8_t* p, uint16_t domain, uint16_t flags, uint32_t subDomain, uint32_t fileId,
            const char name[4]) {
  sfl_PutU16(p, domain);
  sfl_PutU16(p + 2, flags);
  sfl_PutU32(p + 4, subDomain);
  sfl_PutU32(p + 8, fileId);
  std::memcpy(p + 12, name, 4);
}

struct Answer {
  uint32_t w0 = 0, w1 = 0, w2 = 0, w3 = 0;
};

// Set from a request's send until its reply is in hand: a reply that an
// exchange failed to take stays in the queue, and must not be read as the
// answer to the next request.
bool g_replyPending = false;
constexpr int kReceiveTries = 3;

// A service that stops removes its queues; a restarted one makes new ones
// and takes over the interests the old one kept. A request sent into a
// removed queue, or whose reply was awaited on one, is sent again to the
// service the table names once looked up afresh, until a live one answers.
// A stopping service lets its clients take the replies it has sent before
// it removes the queues, so a request goes again only when the old service
// never took it. Should it die outright with a reply unread, a record asked
// again counts twice until the process ends: the error is on the side of
// "held", never of "alone".
constexpr int kGoneRounds = 100;
constexpr uint32_t kGonePauseUs = 20000;

bool queueGone(int32_t queue) {
  struct msqid_ds ds;
  return os_msgctl(queue, IPC_STAT, &ds) != 0 && (errno == EINVAL || errno == EIDRM);
}

// How long a client waits for a reply before it gives up on a live service:
// "SFL_MONITOR_REPLY_SECONDS" (1 to 3600, default 5). Asked only once a
// wait has outlasted its first slice, which a served request never does.
uint64_t ReplyLimitUs() {
  return static_cast<uint64_t>(cust_GetBoundedLong("SFL_MONITOR_REPLY_SECONDS", 5, 1, 3600)) * 1000000;
}

// Between slices of a wait the client makes sure its service still lives.
// Shorter than the least limit.
constexpr uint64_t kSliceUs = 200000;

// The pair a request went to.
struct Pair {
  int32_t requestQueue = 0;
  int32_t replyQueue = 0;
  int32_t servicePid = 0;
};

bool pairGone(const Pair& p) {
  return queueGone(p.requestQueue) || queueGone(p.replyQueue) || ml_CheckPid(p.servicePid) != 1;
}

// Waits for this process's reply on the pair. A wait never outlasts the
// limit: a service that has gone (queues removed, process ended) raises at
// the next slice, for the caller to look it up again; one that lives but
// has not answered within the limit (stopped, or its reply dropped because
// the reply queue was full) raises 380 (group 116).
void awaitReply(const Pair& p, uint8_t* reply, size_t replyLen) {
  uint64_t limit = kSliceUs;
  uint64_t waited = 0;
  int failures = 0;
  while (waited < limit) {
    const uint64_t slice = std::min(kSliceUs, limit - waited);
    try {
      if (os_msgrcvWithin(p.replyQueue, reply, replyLen, os_getpid(), slice) >= 0) return;
    } catch (const er_Escape&) {
      // A receive that fails leaves the reply where it is: it is tried
      // again, a few times.
      if (++failures >= kReceiveTries || pairGone(p)) throw;
      er_Clear();
      continue;
    }
    if (waited == 0) limit = ReplyLimitUs();
    waited += slice;
    if (pairGone(p)) ER_RAISE(ER_GROUP_OS, EIDRM);
  }
  er_LogMsg(3, "interest service process %d gave no reply within %llu s", p.servicePid,
            static_cast<unsigned long long>(limit / 1000000));
  ER_RAISE(ER_GROUP_MONIT, ML_R_NOT_AVAILABLE);
}

// Sends one request on a pair and waits for its reply of `replyLen` bytes.
Answer exchangeOn(const Pair& p, const uint8_t* text, size_t textLen, int32_t type,
                  size_t replyLen) {
  if (g_replyPending) {
    drainStaleReplies(os_getpid());
    g_replyPending = false;
  }
  uint8_t msg[4 + ML_WITHDRAW_LEN] = {};
  sfl_PutU32(msg, static_cast<uint32_t>(type));
  std::memcpy(msg + 4, text, textLen);
  sfl_DoSendMsg(p.requestQueue, msg, textLen, 0);
  // Until the reply is in hand: one that comes after this exchange gave up
  // is drained before the next request goes.
  g_replyPending = true;
  uint8_t reply[4 + ML_RECORD_REPLY_LEN] = {};
  awaitReply(p, reply, replyLen);
  g_replyPending = false;
  Answer a;
  a.w0 = sfl_GetU32(reply + 4);
  a.w1 = sfl_GetU32(reply + 8);
  a.w2 = sfl_GetU32(reply + 12);
  if (replyLen == ML_RECORD_REPLY_LEN) a.w3 = sfl_GetU32(reply + 16);
  return a;
}

// Sends one request about `ref` and waits for its reply.
Answer exchange(const sfl_ItemRef& ref, const uint8_t* text, size_t textLen, int32_t type,
                size_t replyLen) {
  for (int round = 1;; ++round) {
    bool found = false;
    Pair p;
    try {
      sfl_GetQueue(&ref, &p.requestQueue, &p.replyQueue, nullptr, &p.servicePid);
      found = true;
      return exchangeOn(p, text, textLen, type, replyLen);
    } catch (const er_Escape&) {
      if (!found || round == kGoneRounds || !pairGone(p)) throw;
      er_Clear();
      // The replies waiting in a removed queue went with it.
      g_replyPending = false;
      g_queues.initialised = 0;
      mdc_MicroSleep(kGonePauseUs);
    }
  }
}

// Record, withdraw and check for a reference whose wire flags are given.
Answer record(const sfl_ItemRef& ref, uint16_t wireFlags) {
  uint8_t text[ML_RECORD_LEN] = {};
  putRef(text, ref.Domain, wireFlags, ref.SubDomain, ref.FileId, ref.Name);
  sfl_PutU32(text + 16, static_cast<uint32_t>(os_getpid()));
  Answer a = exchange(ref, text, sizeof text, ML_MSG_RECORD, ML_RECORD_REPLY_LEN);
  if (a.w3 == ML_R_NOT_AVAILABLE) ER_RAISE(ER_GROUP_MONIT, ML_R_NOT_AVAILABLE);
  return a;
}

Answer withdraw(const sfl_ItemRef& ref, uint16_t wireFlags, uint32_t token) {
  uint8_t text[ML_WITHDRAW_LEN] = {};
  putRef(text, ref.Domain, wireFlags, ref.SubDomain, ref.FileId, ref.Name);
  sfl_PutU32(text + 16, token);
  sfl_PutU32(text + 20, static_cast<uint32_t>(os_getpid()));
  return exchange(ref, text, sizeof text, ML_MSG_WITHDRAW, ML_WITHDRAW_REPLY_LEN);
}

Answer check(const sfl_ItemRef& ref, uint16_t wireFlags, uint32_t token) {
  uint8_t text[ML_CHECK_LEN] = {};
  putRef(text, ref.Domain, wireFlags, ref.SubDomain, ref.FileId, ref.Name);
  sfl_PutU32(text + 16, static_cast<uint32_t>(os_getpid()));
  sfl_PutU32(text + 20, token);
  return exchange(ref, text, sizeof text, ML_MSG_CHECK, ML_CHECK_REPLY_LEN);
}

constexpr uint16_t fileFlags(uint16_t flags) {
  return static_cast<uint16_t>(flags & ~SFL_ITEM_NUM_MASK);
}

}  // namespace

void sfl_GetQueue(const sfl_ItemRef* ref, int32_t* requestQueue, int32_t* replyQueue,
                  int32_t* pairCount, int32_t* servicePid) {
  if (!tableCurrent()) fillQueueTable();
  if (pairCount != nullptr) *pairCount = g_queues.pairCount;
  if (ref == nullptr) return;
  uint32_t pair = ref->SubDomain % static_cast<uint32_t>(g_queues.pairCount);
  if (ml_CheckPid(g_queues.servicePid[pair]) != 1) {
    // The service this table names has gone. A restarted (or, by default,
    // newly started) one has new processes and queues, so look once more
    // before giving up.
    g_queues.initialised = 0;
    fillQueueTable();
    if (pairCount != nullptr) *pairCount = g_queues.pairCount;
    pair = ref->SubDomain % static_cast<uint32_t>(g_queues.pairCount);
    if (ml_CheckPid(g_queues.servicePid[pair]) != 1) ER_RAISE(ER_GROUP_MONIT, ML_R_NOT_AVAILABLE);
  }
  if (requestQueue != nullptr) *requestQueue = g_queues.requestQueue[pair];
  if (replyQueue != nullptr) *replyQueue = g_queues.replyQueue[pair];
  if (servicePid != nullptr) *servicePid = g_queues.servicePid[pair];
}

void sfl_DoSendMsg(int32_t queue, const void* message, size_t textLength, int32_t flags) {
  int rc = -1;
  for (int attempt = 1; attempt <= kSendTries; ++attempt) {
    rc = os_msgsnd(queue, message, textLength, flags);
    if (rc != -1) break;
    // A full queue gets time to drain; any other failure is tried again at
    // once. No pause after the last try.
    if (errno == EAGAIN && attempt < kSendTries) mdc_MicroSleep(kFullQueuePauseUs);
  }
  if (rc != 0) SFL_RAISE(SFL_R_NOT_SENT);
}

void sfl_RecordBaseInterest(sfl_BaseRec* rec) {
  ER_TRACE_PROC("sfl_RecordBaseInterest");
  const sfl_ItemRef ref = sfl_RefOf(*rec);
  Answer a = record(ref, fileFlags(ref.Flags));
  rec->InterestToken = a.w0;
  rec->OtherInterest = a.w1;
  rec->ProcAccCount = a.w2;
}

void sfl_ReleaseBaseInterest(sfl_BaseRec* rec) {
  ER_TRACE_PROC("sfl_ReleaseBaseInterest");
  const sfl_ItemRef ref = sfl_RefOf(*rec);
  Answer a = withdraw(ref, fileFlags(ref.Flags), rec->InterestToken);
  rec->ProcAccCount = a.w0;
  rec->OtherInterest = a.w1;
}

void sfl_CheckBaseInterest(sfl_BaseRec* rec) {
  ER_TRACE_PROC("sfl_CheckBaseInterest");
  const sfl_ItemRef ref = sfl_RefOf(*rec);
  // The check sends the reference as it stands, item bits included.
  Answer a = check(ref, ref.Flags, rec->InterestToken);
  rec->ProcAccCount = a.w0;
  rec->OtherInterest = a.w1;
}

void sfl_RecordItemInterest(sfl_ItemRec* item) {
  ER_TRACE_PROC("sfl_RecordItemInterest");
  const sfl_ItemRef ref = sfl_RefOf(*item);
  Answer a = record(ref, ref.Flags);
  item->InterestToken = a.w0;
  item->OtherInterest = a.w1;
  item->InterestCount = a.w2;
}

void sfl_ReleaseItemInterest(sfl_ItemRec* item) {
  ER_TRACE_PROC("sfl_ReleaseItemInterest");
  const sfl_ItemRef ref = sfl_RefOf(*item);
  Answer a = withdraw(ref, ref.Flags, item->InterestToken);
  item->InterestCount = a.w0;
  item->OtherInterest = a.w1;
}

void sfl_CheckItemInterest(sfl_ItemRec* item) {
  ER_TRACE_PROC("sfl_CheckItemInterest");
  const sfl_ItemRef ref = sfl_RefOf(*item);
  Answer a = check(ref, ref.Flags, item->InterestToken);
  item->InterestCount = a.w0;
  item->OtherInterest = a.w1;
}
