// mdc_: the site's low-level services as the library calls them: the clock,
// close, sleep and file status, the secure-deletion service's two queries,
// and the hand-over of a newly built file to the service account.
//
// Close, sleep and status are the os_ calls under the names the library's
// callers use, and stay that thin on purpose: going through os_, they are
// seen by its test switch and call counters like every other system call.
// What is mdc_'s own is site policy read from configuration (whether freed
// space is destroyed, which account new files go to) and the 32-bit clock
// the container headers hold.
#ifndef KQ_MDC_H
#define KQ_MDC_H

#include <cstdint>
#include <sys/stat.h>

// Seconds since 1970-01-01 UTC, as a 32-bit count.
uint32_t mdc_time();
// Test switch: while `seconds` is not 0, mdc_time returns it, so that two
// runs of the same work write the same bytes.
void mdc_FixTime(uint32_t seconds);
int mdc_close(int fd);
void mdc_MicroSleep(uint32_t microseconds);
int mdc_fstat(int fd, struct stat* st);
// Non-zero when freed file space must be destroyed before it is reused:
// configured by "SFL_SECURE_DELETE" (any value other than "0"); 0 otherwise.
int mdc_DDSGetDelStatus();
// Overwrites `len` bytes at `offset` of the file with zeros. Returns 0, or -1
// when a write failed.
int mdc_DDSDelFileByDes(int fd, uint64_t offset, uint64_t len);

// Gives the file to the service account "SFL_SERVICE_USER" names (the
// function keeps the ext_ name its callers use): a user name (the file also
// gets that user's group) or a decimal uid (the group is left as it is). Does nothing and returns 0 when the key is absent or empty.
// Returns -1 when the account is unknown or the change of owner is refused
// (a process may not give a file to another user without the privilege).
int ext_ChownToVessant(const char* path);
// The same through an open descriptor: a file that was just created is
// changed, never whatever its name has been made to lead to since.
int ext_FChownToVessant(int fd);
// The ids of that account: 1 with them set (the group is -1 for a bare
// uid), 0 when the key is absent or empty, -1 when it names no account.
int mdc_ServiceAccount(uid_t* uid, gid_t* gid);

#endif  // KQ_MDC_H
