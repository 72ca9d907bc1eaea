// mdc_: time, close, sleep, status and the deletion service's two queries.
#include "mdc.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <time.h>

#include "cust.h"
#include "os.h"

uint32_t mdc_time() { return static_cast<uint32_t>(std::time(nullptr)); }

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
