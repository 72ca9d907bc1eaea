// mdc_: low-level helpers: time, close, sleep, file status, and the queries
// of the secure-deletion service.
#ifndef KQ_MDC_H
#define KQ_MDC_H

#include <cstdint>
#include <sys/stat.h>

// Seconds since 1970-01-01 UTC, as a 32-bit count.
uint32_t mdc_time();
int mdc_close(int fd);
void mdc_MicroSleep(uint32_t microseconds);
int mdc_fstat(int fd, struct stat* st);
// Non-zero when freed file space must be destroyed before it is reused:
// configured by "SFL_SECURE_DELETE" (any value other than "0"); 0 otherwise.
int mdc_DDSGetDelStatus();
// Overwrites `len` bytes at `offset` of the file with zeros. Returns 0, or -1
// when a write failed.
int mdc_DDSDelFileByDes(int fd, uint64_t offset, uint64_t len);

#endif  // KQ_MDC_H
