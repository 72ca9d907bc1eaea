// cl_: one line on standard error for an escape, with its text from the
// message library.
#include "cl.h"

#include "mes.h"
#include "os.h"

std::string cl_ErrorLine(int group, int reason, const char* path) {
  char prefix[64];
  char text[512];
  mes_GetErrMsgPrefix(group, reason, prefix, sizeof prefix);
  mes_GetAnyErMsg(group, reason, text, sizeof text);
  std::string line = std::string(prefix) + " " + text;
  if (path != nullptr && *path != '\0') line += std::string(" (file ") + path + ")";
  // One line whatever the path holds.
  for (char& ch : line)
    if (ch == '\n' || ch == '\r') ch = ' ';
  return line;
}

void cl_DisplayError(int group, int reason, const char* path) {
  std::string line = cl_ErrorLine(group, reason, path) + "\n";
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = os_write(2, p, left);
    if (n <= 0) return;  // showing an error must not raise another
    p += static_cast<size_t>(n);
    left -= static_cast<size_t>(n);
  }
}
