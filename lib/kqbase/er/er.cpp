// er_: the escape type, the process-wide error status, logging and tracing.
//
// er_ sits beneath os_ (os_ raises its escapes through er_), so its own few
// system calls, opening, writing and closing the log, are made directly:
// going through os_ would make the two depend on each other, and a log line
// must neither raise nor use up a fault the test switch keeps for the
// library's own calls.
#include "er.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "cust.h"
#include "mes.h"

int er_SubSystemLoggingLevel = 0;

namespace {

er_Status g_status = {0, 0, 0, nullptr, 0};
er_LogHook g_hook = nullptr;
int g_threshold = -1;  // read from configuration on first log
int g_logFd = -1;      // -1: not chosen yet; 2 for standard error

void readLogSettings() {
  if (g_threshold >= 0) return;
  g_threshold = 5;
  if (const char* v = cust_GetCustomiseInfo("SFL_LOG_LEVEL")) g_threshold = std::atoi(v);
  g_logFd = 2;
  if (const char* path = cust_GetCustomiseInfo("SFL_LOG_FILE")) {
    int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd >= 0) g_logFd = fd;
  }
}

void writeLine(const std::string& line) {
  readLogSettings();
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = ::write(g_logFd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // logging must never raise
    p += n;
    left -= static_cast<size_t>(n);
  }
}

std::string vformat(const char* fmt, va_list ap) {
  char buf[1024];
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  if (n < 0) return std::string();
  return std::string(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}

std::string prefix(int level) {
  char buf[64];
  std::time_t now = std::time(nullptr);
  std::tm tmv;
  gmtime_r(&now, &tmv);
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02dZ sfl[%d] L%d ", tmv.tm_year + 1900,
                tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
                static_cast<int>(getpid()), level);
  return buf;
}

__attribute__((constructor)) void readTraceLevel() {
  if (const char* v = cust_GetCustomiseInfo("SFL_TRACE_LEVEL")) er_SubSystemLoggingLevel = std::atoi(v);
}

}  // namespace

er_Escape::er_Escape(int group, int reason, const char* file, int line, std::string text)
    : group_(group), reason_(reason), file_(file), line_(line), text_(std::move(text)) {}

void er_TracedEscape(int group, int reason, const char* file, int line, const char* detail) {
  g_status = {1, group, reason, file, line};
  std::string text = "escape " + std::to_string(group) + "/" + std::to_string(reason) + " (" +
                     er_ReasonText(group, reason) + ")";
  if (detail != nullptr && *detail != '\0') text += ": " + std::string(detail);
  const char* base = std::strrchr(file, '/');
  text += " at " + std::string(base != nullptr ? base + 1 : file) + ":" + std::to_string(line);
  throw er_Escape(group, reason, file, line, std::move(text));
}

extern "C" {

int er_GetLive(void) { return g_status.live; }

void er_Accept(int level) {
  if (g_status.live) {
    er_EnhLogMsg(level, g_status.group, g_status.reason, g_status.file ? g_status.file : "?",
                 g_status.line, "escape absorbed");
  }
  g_status.live = 0;
}

void er_Clear(void) { g_status.live = 0; }

void er_RecordStatus(er_Status* saved) {
  if (saved != nullptr) *saved = g_status;
}

void er_RestoreStatus(const er_Status* saved) {
  if (saved != nullptr) g_status = *saved;
}

void er_GetStatus(er_Status* out) {
  if (out != nullptr) *out = g_status;
}

void er_LogMsg(int level, const char* fmt, ...) {
  readLogSettings();
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  if (level <= g_threshold) writeLine(prefix(level) + text + "\n");
}

void er_EnhLogMsg(int level, int group, int reason, const char* file, int line, const char* fmt,
                  ...) {
  readLogSettings();
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);
  if (g_hook != nullptr) g_hook(level, group, reason, text.c_str());
  if (level <= g_threshold) {
    const char* base = std::strrchr(file, '/');
    writeLine(prefix(level) + std::to_string(group) + "/" + std::to_string(reason) + " " + text +
              " (" + (base != nullptr ? base + 1 : file) + ":" + std::to_string(line) + ")\n");
  }
}

void er_RealLogProc(const char* name, int entering) {
  writeLine(prefix(10) + (entering ? "enter " : "exit  ") + name + "\n");
}

void er_ResetLogSettings(void) {
  if (g_logFd > 2) ::close(g_logFd);
  g_logFd = -1;
  g_threshold = -1;
}

er_LogHook er_SetLogHook(er_LogHook hook) {
  er_LogHook old = g_hook;
  g_hook = hook;
  return old;
}

void er_RaiseC(int group, int reason, const char* file, int line) {
  er_TracedEscape(group, reason, file, line);
}

int er_CallC(er_CFunc fn, void* ctx, int* group, int* reason) {
  try {
    fn(ctx);
    return 0;
  } catch (const er_Escape& e) {
    if (group != nullptr) *group = e.group();
    if (reason != nullptr) *reason = e.reason();
    er_Clear();
    return 1;
  }
}

const char* er_ReasonText(int group, int reason) {
  // The texts live in the message library, with every other message shown
  // to an operator.
  const char* text = mes_Text(group, reason);
  return text != nullptr ? text : "error";
}

}  // extern "C"
