// er_: the escape type, the process-wide error status, logging and tracing.
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
#include "os.h"

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
    int fd = os_open(path, O_WRONLY | O_CREAT | O_APPEND, 0640);
    if (fd >= 0) g_logFd = fd;
  }
}

void writeLine(const std::string& line) {
  readLogSettings();
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = os_write(g_logFd, p, left);
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
  if (g_logFd > 2) os_close(g_logFd);
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
  if (group == ER_GROUP_OS) return std::strerror(reason);
  if (group == ER_GROUP_CALL) {
    switch (reason) {
      case 22: return "invalid argument";
      case 38: return "whence must be 0";
      default: return "bad call";
    }
  }
  if (group == ER_GROUP_MONIT && reason == 380) return "interest service not available";
  if (group == ER_GROUP_CONFIG) {
    switch (reason) {
      case 4401: return "unsafe name tag in item reference";
      case 4402: return "malformed item reference text";
      case 4403: return "name is not a file of the item store";
      case 4404: return "buffer too small for the name";
      case 4405: return "no unique file number found";
      default: break;
    }
  }
  if (reason == 3533) return "interest request could not be sent";
  switch (reason) {
    case 28850: return "no free item slot for a blocked item";
    case 28851: return "short write of a record or item data";
    case 28852: return "cached leaf claimed a free entry but had none";
    case 28853: return "not a blocked item";
    case 28854: return "block index within a leaf above 31";
    case 28856: return "short write of block data";
    case 28857: return "reference names no item";
    case 28858: return "item already open in this process";
    case 28859: return "detach of an item whose attach count is 0";
    case 28860: return "reference names an item, not a file";
    case 28861: return "file already open in this process";
    case 28862: return "not an SFL file, or wrong format version";
    case 28864: return "item deleted or never stored";
    case 28865: return "short write of the free map";
    case 28866: return "open-files table full";
    case 28867: return "bad handle";
    case 28868: return "open-item count would go below zero";
    case 28869: return "operation not allowed on a blocked item";
    case 28870: return "open-items table full";
    case 28871: return "short read of a record";
    case 28872: return "free map has no place, or range outside the map";
    case 28873: return "short read of the free map";
    case 28874: return "range or position outside the item";
    case 28875: return "empty index entry";
    case 28876: return "block number outside the index";
    case 28877: return "block number given for a simple parent";
    case 28878: return "internal item open more than once";
    case 28879: return "bad index record";
    case 28880: return "bad item header";
    case 28881: return "bad file header";
    case 28883: return "no internal item header there";
    case 28885: return "item closed while holding range locks";
    case 28886: return "bad stream mode for an item";
    case 28887: return "item streams move single bytes only";
    case 28888: return "stream table full";
    case 28889: return "truncate or append on a blocked item";
    case 28890: return "size beyond the reserved space";
    case 28891: return "activation of an internal item";
    case 28892: return "not possible in a single-item file";
    case 28896: return "in-memory free map required";
    case 28897: return "feature not built";
    case 28898: return "free-map extension without its header";
    case 28899: return "index tree too deep";
    default: return "error";
  }
}

}  // extern "C"
