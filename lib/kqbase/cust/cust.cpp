// cust_: configuration lookup (environment first, then the SFL_CONFIG file).
//
// cust_ is the bottom of the support libraries: the error library reads its
// log settings here, and os_ raises through the error library. So the one
// file it reads is read with the system calls themselves, not through os_.
#include "cust.h"

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <map>
#include <string>
#include <unistd.h>

namespace {

// Built on first use and never destroyed: lookups run from load-time
// constructors (the trace level) before this file's globals would exist,
// and from handlers at exit after they would be gone.
struct State {
  bool loaded = false;
  std::map<std::string, std::string> file;
  std::deque<std::string> envCopies;  // stable storage for returned env values
};

State& state() {
  static State* s = new State;
  return *s;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

void loadFile() {
  State& st = state();
  st.loaded = true;
  st.file.clear();
  const char* path = std::getenv("SFL_CONFIG");
  if (path == nullptr || *path == '\0') return;
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  std::string text;
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::string line = trim(text.substr(pos, eol - pos));
    pos = eol + 1;
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    st.file[trim(line.substr(0, eq))] = trim(line.substr(eq + 1));
  }
}

}  // namespace

const char* cust_GetCustomiseInfo(const char* key) {
  if (key == nullptr) return nullptr;
  State& st = state();
  if (const char* v = std::getenv(key)) {
    // Copy: the caller may keep the pointer while the environment changes.
    // One copy per distinct value, kept for good (a deque never moves them).
    for (const std::string& s : st.envCopies)
      if (s == v) return s.c_str();
    st.envCopies.emplace_back(v);
    return st.envCopies.back().c_str();
  }
  if (!st.loaded) loadFile();
  auto it = st.file.find(key);
  return it == st.file.end() ? nullptr : it->second.c_str();
}

void cust_Reload() {
  State& st = state();
  st.loaded = false;
  st.file.clear();
}

long cust_GetBoundedLong(const char* key, long fallback, long lo, long hi) {
  const char* v = cust_GetCustomiseInfo(key);
  if (v == nullptr || *v == '\0') return fallback;
  char* end = nullptr;
  errno = 0;
  const long n = std::strtol(v, &end, 10);
  if (errno != 0 || *end != '\0' || n < lo || n > hi) return fallback;
  return n;
}
