// er_: escapes, the error status, logging and entry/exit tracing.
//
// An escape is a C++ exception (er_Escape) carrying an error group, a reason
// code and the source file and line that raised it. Alongside the exception
// the library keeps a process-wide error status that mirrors the last escape:
// a frame that catches an escape and wants to absorb it calls er_Accept or
// er_Clear; one that only cleans up re-throws while er_GetLive() says the
// escape is still live. C callers, who cannot catch C++ exceptions, go
// through the er_CallC trampoline.
#ifndef KQ_ER_H
#define KQ_ER_H

#ifdef __cplusplus
#include <cstdint>
#include <exception>
#include <string>
#else
#include <stdint.h>
#endif

#define ER_API __attribute__((visibility("default")))

/* Error groups used across the libraries. */
enum {
  ER_GROUP_CALL = 1,     /* bad call arguments (reasons are errno-like) */
  ER_GROUP_OS = 2,       /* an operating-system call failed; reason = errno */
  ER_GROUP_TABLE = 3,    /* handle-table faults */
  ER_GROUP_SFL = 100,    /* the storage library's own reasons */
  ER_GROUP_CONFIG = 101, /* configuration and item-reference faults */
  ER_GROUP_MONIT = 116,  /* the interest service */
  ER_GROUP_MAINT = 204   /* whole-file maintenance findings */
};

#ifdef __cplusplus
extern "C" {
#endif

/* The error status: a copy of the last escape and whether it is still live. */
typedef struct er_Status {
  int live;
  int group;
  int reason;
  const char* file;
  int line;
} er_Status;

/* Tracing switch: entry and exit of the main functions are logged when it
   exceeds 9. Read from "SFL_TRACE_LEVEL" on first use, settable by callers. */
ER_API extern int er_SubSystemLoggingLevel;

ER_API int er_GetLive(void);
/* Absorbs the live escape: logs it at `level` and clears the live mark. */
ER_API void er_Accept(int level);
ER_API void er_Clear(void);
ER_API void er_RecordStatus(er_Status* saved);
ER_API void er_RestoreStatus(const er_Status* saved);
ER_API void er_GetStatus(er_Status* out);

/* Logging. A message is written when its level is at or below the log
   threshold ("SFL_LOG_LEVEL", default 5). Output goes to standard error or
   to the file named by "SFL_LOG_FILE". */
ER_API void er_LogMsg(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
ER_API void er_EnhLogMsg(int level, int group, int reason, const char* file, int line,
                         const char* fmt, ...) __attribute__((format(printf, 6, 7)));
ER_API void er_RealLogProc(const char* name, int entering);
/* Forgets the log threshold and destination read from configuration, so
   the next message reads them again (tests change them). */
ER_API void er_ResetLogSettings(void);

/* Test and tool hook: called for every message logged through er_EnhLogMsg
   (whatever the threshold), with its level, group and reason. */
typedef void (*er_LogHook)(int level, int group, int reason, const char* text);
ER_API er_LogHook er_SetLogHook(er_LogHook hook);

/* Raises an escape; from C this unwinds only through code built with
   -fexceptions, so C callers wrap their calls in er_CallC. */
ER_API void er_RaiseC(int group, int reason, const char* file, int line);

/* Runs fn(ctx). Returns 0 when it completed; when it raised an escape,
   returns 1 and stores the escape's group and reason (either may be null). */
typedef void (*er_CFunc)(void* ctx);
ER_API int er_CallC(er_CFunc fn, void* ctx, int* group, int* reason);

/* Short text for well-known reasons (for command-line tools and logs). */
ER_API const char* er_ReasonText(int group, int reason);

#ifdef __cplusplus
} /* extern "C" */

class ER_API er_Escape : public std::exception {
 public:
  er_Escape(int group, int reason, const char* file, int line, std::string text);
  int group() const noexcept { return group_; }
  int reason() const noexcept { return reason_; }
  const char* file() const noexcept { return file_; }
  int line() const noexcept { return line_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  int group_;
  int reason_;
  const char* file_;
  int line_;
  std::string text_;
};

/* Raises an escape: records it as the live status and throws er_Escape. */
[[noreturn]] ER_API void er_TracedEscape(int group, int reason, const char* file, int line,
                                         const char* detail = nullptr);

#define ER_RAISE(group, reason) er_TracedEscape((group), (reason), __FILE__, __LINE__)
#define ER_RAISE_MSG(group, reason, detail) \
  er_TracedEscape((group), (reason), __FILE__, __LINE__, (detail))
#define ER_LOG(level, group, reason, ...) \
  er_EnhLogMsg((level), (group), (reason), __FILE__, __LINE__, __VA_ARGS__)

/* Entry/exit trace of a function, active when er_SubSystemLoggingLevel > 9. */
class er_ProcTrace {
 public:
  explicit er_ProcTrace(const char* name) : name_(name) {
    if (er_SubSystemLoggingLevel > 9) er_RealLogProc(name_, 1);
  }
  ~er_ProcTrace() {
    if (er_SubSystemLoggingLevel > 9) er_RealLogProc(name_, 0);
  }
  er_ProcTrace(const er_ProcTrace&) = delete;
  er_ProcTrace& operator=(const er_ProcTrace&) = delete;

 private:
  const char* name_;
};
#define ER_TRACE_PROC(name) er_ProcTrace er_trace_guard_(name)

/* Keeps the error status across a block that may absorb another escape. */
class er_StatusKeeper {
 public:
  er_StatusKeeper() { er_RecordStatus(&saved_); }
  ~er_StatusKeeper() { er_RestoreStatus(&saved_); }
  er_StatusKeeper(const er_StatusKeeper&) = delete;
  er_StatusKeeper& operator=(const er_StatusKeeper&) = delete;

 private:
  er_Status saved_;
};

/* Runs `fn` and gives its result; while it escapes, clears the status and
   runs it again, `tries` runs in all, after which the last escape passes on.
   For a call whose failure leaves things as they were (a lock still held, a
   reply still in its queue), so that asking again may succeed. */
template <typename Fn>
auto er_Retry(int tries, Fn&& fn) -> decltype(fn()) {
  for (int attempt = 1;; ++attempt) {
    try {
      return fn();
    } catch (const er_Escape&) {
      if (attempt >= tries) throw;
      er_Clear();
    }
  }
}
#endif /* __cplusplus */

#endif /* KQ_ER_H */
