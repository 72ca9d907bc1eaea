// ml_keep: the interest entries a serving process keeps on disk, one file
// per queue pair in the run directory, so that a service that is stopped or
// dies and is started again still knows which live processes hold what.
//
// The file is a 64-byte header (magic, version, slot size, the boot it was
// written in, checksum) and 64-byte slots, each one saved entry, mark or
// "may hold anything" with its own checksum, or all zero when free. The
// running service changes one slot per change with one pwrite; nothing is
// flushed, since a service that dies is not a machine that loses power.
//
// Nothing read back is trusted: a file that is not a regular file of the
// expected owner, writable by others, of a size that is not a header and
// whole slots or beyond the bound, or whose header is wrong, is not used at
// all; a slot whose checksum, kind, process id, token or unused bytes are
// wrong is dropped, and so is one whose process has ended or whose pid now
// belongs to another process (its start time differs), and every slot of a
// file written before the machine last booted.
#ifndef KQ_ML_KEEP_H
#define KQ_ML_KEEP_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "ml_interest.h"

enum { ML_KEEP_HEADER = 64, ML_KEEP_SLOT = 64 };

std::string ml_KeepPath(const std::string& runDir, int pair);
// This boot's identity (36 characters), "" when the system does not say.
std::string ml_BootId();
// When the process started (clock ticks since boot), 0 when unknown.
uint64_t ml_ProcessStart(int32_t pid);
// Whether the process saved with this start time still runs.
bool ml_SavedProcessLives(int32_t pid, uint64_t start);

// At most this many slots are read from one file.
size_t ml_KeepSlotLimit(size_t maxEntries);

struct ml_KeepLoad {
  std::vector<ml_Saved> Saved;  // what may still be held, in slot order
  size_t Dropped = 0;           // slots found bent, duplicated or of ended processes
  std::string Refused;          // why the whole file was not used; "" when it was (or is absent)
};
using ml_LivesFn = std::function<bool(int32_t pid, uint64_t start)>;
// Reads the file at `path`, which must belong to `owner`. An absent file is
// an empty one.
void ml_LoadKeep(const std::string& path, uid_t owner, const std::string& bootId, size_t slotLimit,
                 const ml_LivesFn& lives, ml_KeepLoad* out);
// Writes a fresh file (a temporary one renamed over it). 0 or -1.
int ml_WriteKeep(const std::string& path, const std::string& bootId, const std::vector<ml_Saved>& saved,
                 mode_t mode);
// The 64 bytes of one slot, and their check.
void ml_EncodeSlot(const ml_Saved& saved, uint8_t out[ML_KEEP_SLOT]);
void ml_EncodeKeepHeader(const std::string& bootId, uint8_t out[ML_KEEP_HEADER]);

// What live processes hold according to the files of a run directory (read
// as the service would, the owner being the run directory's): the number of
// saved entries and marks, and the processes holding them.
size_t ml_KeptHeld(const std::string& runDir, std::vector<int32_t>* pids);

// The journal of a running serving process: one pwrite per changed slot.
class ml_KeepFile : public ml_Journal {
 public:
  ml_KeepFile() = default;
  ~ml_KeepFile() override;
  ml_KeepFile(const ml_KeepFile&) = delete;
  ml_KeepFile& operator=(const ml_KeepFile&) = delete;
  bool Open(const std::string& path);
  void Put(uint32_t slot, const ml_Saved& saved) override;
  void Clear(uint32_t slot) override;
  uint64_t Failures() const { return failures_; }

 private:
  void Write(uint32_t slot, const uint8_t bytes[ML_KEEP_SLOT]);
  int fd_ = -1;
  uint64_t failures_ = 0;
};

#endif  // KQ_ML_KEEP_H
