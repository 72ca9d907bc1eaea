// ml_: the subsystem library. It finds the processes and message queues of
// the interest service (subsystem 52) through a small state file that the
// service publishes in its run directory, starts the service on demand, and
// holds the serving code itself (ml_service.cpp) so that the sfl-monitor
// program and the library's on-demand start run the same service.
//
// Run directory: "SFL_RUN_DIR"; else $XDG_RUNTIME_DIR/sfl; else
// /tmp/sfl-run-<uid>. Files in it:
//   sfl-monitor.state  the published state (text, replaced atomically)
//   sfl-monitor.lock   flock'ed by the running service for its whole life
//   sfl-monitor.start  flock'ed by a process that starts the service
//   sfl-monitor.log    the service's log when it runs detached
//   sfl-monitor.interests.N  the interests pair N holds (ml_keep.h)
//   sfl-monitor.prom   the service's counts, rewritten every few seconds (ml_metrics.h)
#ifndef KQ_ML_H
#define KQ_ML_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// Subsystem number of the interest service and its states.
enum { ML_SUBSYSTEM_MONITOR = 52 };
enum { ML_STATE_DOWN = 0, ML_STATE_STARTING = 1, ML_STATE_RUNNING = 6 };
// At most this many queue pairs (one serving process each).
enum { ML_MAX_PAIRS = 4 };
// Additional process ids kept by the details call.
enum { ML_MAX_ADDITIONAL = 16 };
// Reason raised (group ER_GROUP_MONIT) when the service cannot be reached.
enum { ML_R_NOT_AVAILABLE = 380 };

// Wire message types of the interest protocol.
enum { ML_MSG_TICK = 1, ML_MSG_RECORD = 10, ML_MSG_WITHDRAW = 11, ML_MSG_CHECK = 12 };
// Text lengths of requests and replies.
enum {
  ML_RECORD_LEN = 24, ML_WITHDRAW_LEN = 28, ML_CHECK_LEN = 24,
  ML_RECORD_REPLY_LEN = 16, ML_WITHDRAW_REPLY_LEN = 12, ML_CHECK_REPLY_LEN = 12
};

// ---- the published state --------------------------------------------------------------

struct ml_State {
  int32_t Subsystem = ML_SUBSYSTEM_MONITOR;
  int32_t State = ML_STATE_DOWN;
  int32_t MainPid = 0;
  std::vector<int32_t> Additional;  // pids of the additional processes
  std::vector<int32_t> Context;     // context values 0.. (2i request, 2i+1 reply queue)
  int32_t CpuLatencyUs = -1;        // CPU latency request held (ml_qos.h); -1: none
};

// Reads `fd` to its end into `out`, at most `limit` bytes. False on a read
// error or a longer file, with `why` (when given) saying which. The one
// reader of every file the service and its clients take in.
bool ml_ReadBounded(int fd, size_t limit, std::string* out, std::string* why = nullptr);

std::string ml_RunDir();
std::string ml_StatePath(const std::string& runDir);
std::string ml_LockPath(const std::string& runDir);
std::string ml_StartLockPath(const std::string& runDir);
std::string ml_LogPath(const std::string& runDir);

// Whom a run directory and the service's files may belong to: this user,
// root, or the service account "SFL_SERVICE_USER" names.
bool ml_TrustedOwner(uid_t uid);
// Opens the run directory as the service and its clients both use it: not
// through a symbolic link, a directory, of a trusted owner, writable by
// nobody else (neither its group nor others). With `create`, makes it first
// (with `mode`) when absent. Returns its descriptor, or -1 (errno set, and
// what was found kept for ml_TrustProblem).
int ml_OpenRunDir(const std::string& runDir, bool create, mode_t mode);
// Makes sure the run directory exists and can be trusted (ml_OpenRunDir).
// Returns 0, or -1 (errno set).
int ml_PrepareRunDir(const std::string& runDir, mode_t mode);
// What the latest refusal of a run directory or of the state file in it
// found, naming the path and its owner; empty when the latest look found
// nothing wrong.
const std::string& ml_TrustProblem();

// Text form of the state file and its parse. A parse of anything malformed
// (or of another format version) gives false.
std::string ml_FormatState(const ml_State& st);
bool ml_ParseState(const std::string& text, ml_State* out);
// Reads the state file, opened relative to the run directory's descriptor:
// false when absent, malformed, or not to be trusted (not a regular file, a
// symbolic link, another owner's, writable by its group or others).
bool ml_ReadState(const std::string& runDir, ml_State* out);
// Writes `text` as the whole of `path` at once: into `tmp` (in the same
// directory), then renamed over `path`; a failure removes `tmp`. 0 or -1.
int ml_ReplaceFile(const std::string& path, const std::string& tmp, const std::string& text,
                   mode_t mode);
// Writes the state file atomically (temporary file, then rename). 0 or -1.
int ml_PublishState(const std::string& runDir, const ml_State& st, mode_t mode);

// Takes the service lock of a run directory without waiting: returns its
// descriptor (keep it open to hold the lock), or -1 when another process
// holds it. Closing the descriptor releases it.
int ml_ClaimServiceLock(const std::string& runDir);
// Whether some process holds the service lock of the run directory.
bool ml_ServiceLockHeld(const std::string& runDir);
// Whether the state names a live running service: state 6 or 1, a live
// main process and the service lock held.
bool ml_ServiceAlive(const std::string& runDir, const ml_State& st);

// ---- subsystem calls used by the interest client --------------------------------------

struct ml_SubSystemDetails {
  int32_t MainPid = 0;
  int16_t AdditionalCount = 0;
  int32_t AdditionalPids[ML_MAX_ADDITIONAL] = {};
};

// Opens the subsystem configuration (reads the state file). Returns 0 when
// this call opened it (the caller closes it), 1 when it was already open.
int ml_OpenCfgFile(int mode);
void ml_CloseCfgFile();
// State of a subsystem: the published state when its main process is alive
// and holds the service lock, else ML_STATE_DOWN. For subsystem 52 with no
// live service, starts one first when "SFL_MONITOR_AUTOSTART" allows it.
int ml_GetSSState(int subsystem);
void ml_GetSubSystemDetails(int subsystem, ml_SubSystemDetails* out);
// A context value of the subsystem; -1 when it has none at that index.
int32_t ml_ReadContext(int subsystem, int16_t index);
// 1 when a process with this id exists and has not ended, else 0. A full
// check (the signal probe, then the process state in /proc, since an ended
// process not yet reaped still answers the probe) is made at most every
// 100 ms per id (32 ids kept); in between, the signal probe alone answers.
int ml_CheckPid(int32_t pid);
// Forgets the full checks made (the next check of every id is a full one).
void ml_ForgetPidChecks();
// How long a full check vouches for an id (microseconds; 100 ms unless set).
// Tests that count a sequence's calls set it long, so that the count does
// not depend on how fast the machine ran the sequence.
void ml_SetPidCheckWindow(int64_t micros);

// ---- starting and running the service --------------------------------------------------

struct ml_ServiceOptions {
  std::string RunDir;
  int Pairs = 1;            // 1 to 4
  int IdleSeconds = 0;      // exit after this long idle with no interest; 0: never
  size_t MaxEntries = 100000;  // interest entries per serving process
  int Gid = -1;             // >= 0: queues 0660 and state 0640 for this group
};

// Whether the library may start a service on demand ("SFL_MONITOR_AUTOSTART",
// default on; "0" switches it off).
bool ml_AutoStartEnabled();
// Options of a service started on demand: the run directory, and the keys
// "SFL_MONITOR_PAIRS" (default 1), "SFL_MONITOR_IDLE_SECONDS" (default 30),
// "SFL_MONITOR_MAX_ENTRIES", "SFL_MONITOR_GROUP".
ml_ServiceOptions ml_OnDemandOptions();
// Group id from a number or a name in /etc/group; -1 when unknown.
int ml_ResolveGroup(const char* text);

// Starts a service for the run directory unless one is running: serialised
// by the start lock, so racing starters end up with one service. The service
// runs detached (double fork, new session, exec of the program, standard
// streams on the log).
// Returns 0 once a live service is published, -1 when none came up.
int ml_EnsureService(const ml_ServiceOptions& opts);
// Starts a detached service unconditionally (it refuses to run when another
// holds the lock) and waits for its publication. 0 or -1. The service is
// `program` (default: ml_MonitorProgram()) run with --foreground and the
// options, in a new session, with only its standard streams open and an
// environment of PATH alone.
int ml_StartDetached(const ml_ServiceOptions& opts, const std::string& program = "");
// The service program: "SFL_MONITOR_PROGRAM" when set, else the installed
// sfl-monitor when it is there, else the one built with this library.
std::string ml_MonitorProgram();
// Runs the service in this process until it stops (SIGTERM or SIGINT, idle
// time, loss of the run directory). Returns the exit status.
int ml_RunService(const ml_ServiceOptions& opts);

#endif  // KQ_ML_H
