// mdc_: time, close, sleep, status, the deletion service's two queries and
// the hand-over of a new file to the service account.
#include "mdc.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <time.h>

#include "cust.h"
#include "os.h"

namespace {
uint32_t g_fixedTime = 0;
}  // namespace

uint32_t mdc_time() { return g_fixedTime != 0 ? g_fixedTime : static_cast<uint32_t>(std::time(nullptr)); }

void mdc_FixTime(uint32_t seconds) { g_fixedTime = seconds; }

int mdc_close(int fd) { return os_close(fd); }

void mdc_MicroSleep(uint32_t microseconds) { os_usleep(microseconds); }

int mdc_fstat(int fd, struct stat* st) { return os_fstat(fd, st); }

int mdc_DDSGetDelStatus() {
  const char* v = cust_GetCustomiseInfo("SFL_SECURE_DELETE");
  return v != nullptr && std::strcmp(v, "0") != 0 ? 1 : 0;
}

int mdc_DDSDelFileByDes(int fd, uint64_t offset, uint64_t len) {
  static const std::array<char, 8192> zeros{};
  while (len > 0) {
    size_t chunk = len < zeros.size() ? static_cast<size_t>(len) : zeros.size();
    ssize_t n = os_pwrite(fd, zeros.data(), chunk, static_cast<off_t>(offset));
    if (n <= 0) return -1;
    offset += static_cast<uint64_t>(n);
    len -= static_cast<uint64_t>(n);
  }
  return 0;
}

// The ids "SFL_SERVICE_USER" names: 1 with them set, 0 when the key is absent
// or empty, -1 when it names no account.
int mdc_ServiceAccount(uid_t* uid, gid_t* gid) {
  const char* account = cust_GetCustomiseInfo("SFL_SERVICE_USER");
  if (account == nullptr || *account == '\0') return 0;  // none configured: keep the owner
  *gid = static_cast<gid_t>(-1);  // a bare uid leaves the group as it is
  const bool numeric = std::all_of(account, account + std::strlen(account),
                                   [](char c) { return c >= '0' && c <= '9'; });
  if (numeric) {
    char* end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(account, &end, 10);
    if (errno != 0 || v >= static_cast<unsigned long>(static_cast<uid_t>(-1))) return -1;
    *uid = static_cast<uid_t>(v);
    return 1;
  }
  // An account that does not exist is a configuration error.
  return os_GetUserIds(account, uid, gid) == 0 ? 1 : -1;
}

int ext_ChownToVessant(const char* path) {
  uid_t uid;
  gid_t gid;
  const int found = mdc_ServiceAccount(&uid, &gid);
  if (found <= 0) return found;
  return os_chown(path, uid, gid) == 0 ? 0 : -1;
}

int ext_FChownToVessant(int fd) {
  uid_t uid;
  gid_t gid;
  const int found = mdc_ServiceAccount(&uid, &gid);
  if (found <= 0) return found;
  return os_fchown(fd, uid, gid) == 0 ? 0 : -1;
}
