// ml_qos: the interest service's wake-up floor. A client's exchange with
// the service is two process wake-ups, and on an idle machine most of its
// time is a processor leaving a deep idle state. While the service has
// clients it may hold a CPU latency request (the kernel's PM QoS interface,
// a descriptor on /dev/cpu_dma_latency holding a value in microseconds),
// which keeps idle processors shallow; it lets go when idle, since
// processors that never sleep deeply cost power.
//
// "SFL_MONITOR_CPU_LATENCY_US" gives the value (0 up to 2,000,000; absent,
// empty or invalid: no request at all). "SFL_MONITOR_CPU_LATENCY_DEV"
// names another device (tests, containers); default /dev/cpu_dma_latency.
// A device that cannot be opened (not root, no permission) means no
// request: logged once, and tried again at each check while busy.
#ifndef KQ_ML_QOS_H
#define KQ_ML_QOS_H

#include <cstdint>
#include <string>

// A busy spell lasts this long past the last request, so that a client
// between two messages keeps the floor.
constexpr int64_t ML_QOS_LINGER_MS = 2000;

class ml_Qos {
 public:
  // Reads the two keys.
  ml_Qos();
  ~ml_Qos();
  ml_Qos(const ml_Qos&) = delete;
  ml_Qos& operator=(const ml_Qos&) = delete;

  // Holds the request while `busy`, releases it otherwise; true when that
  // changed whether it is held.
  bool Update(bool busy);
  // The value held, -1 when none is.
  int32_t HeldUs() const { return fd_ >= 0 ? us_ : -1; }
  // Whether a client's request should take the floor at once rather than
  // at the next check: one is configured, not held, and the last try did
  // not fail (a device that refused is tried again at the checks only).
  bool TakeAtOnce() const { return us_ >= 0 && fd_ < 0 && !failedLogged_; }

 private:
  int32_t us_ = -1;  // configured value; -1: none
  std::string device_;
  int fd_ = -1;
  bool failedLogged_ = false;
};

#endif  // KQ_ML_QOS_H
