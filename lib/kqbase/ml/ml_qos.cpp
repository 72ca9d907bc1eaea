// ml_qos: holding and releasing the service's CPU latency request (see
// ml_qos.h). The kernel keeps the request as long as the descriptor it was
// written to stays open, and drops it when the descriptor closes, also when
// the service dies.
#include "ml_qos.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

#include "cust.h"
#include "os.h"

namespace {

constexpr long kMaxUs = 2000000;

int32_t ConfiguredUs() {
  return static_cast<int32_t>(cust_GetBoundedLong("SFL_MONITOR_CPU_LATENCY_US", -1, 0, kMaxUs));
}

}  // namespace

ml_Qos::ml_Qos() : us_(ConfiguredUs()) {
  const char* dev = cust_GetCustomiseInfo("SFL_MONITOR_CPU_LATENCY_DEV");
  device_ = dev != nullptr && *dev != '\0' ? dev : "/dev/cpu_dma_latency";
}

ml_Qos::~ml_Qos() { Update(false); }

bool ml_Qos::Update(bool busy) {
  if (!busy || us_ < 0) {
    if (fd_ < 0) return false;
    os_close(fd_);
    fd_ = -1;
    return true;
  }
  if (fd_ >= 0) return false;
  const int fd = os_open(device_.c_str(), O_WRONLY);
  // The device takes the value as a 32-bit binary number.
  if (fd >= 0 && os_write(fd, &us_, sizeof us_) == static_cast<ssize_t>(sizeof us_)) {
    fd_ = fd;
    failedLogged_ = false;
    return true;
  }
  const int err = errno;
  if (fd >= 0) os_close(fd);
  if (!failedLogged_) {
    std::fprintf(stderr, "sfl-monitor: no CPU latency request on %s: %s\n", device_.c_str(),
                 std::strerror(err));
    failedLogged_ = true;
  }
  return false;
}
