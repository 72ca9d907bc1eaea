// im_: the container pool. A container emptied by its last close is moved
// into a pool in its own directory instead of being removed, and the next
// new file of the same Domain is taken from a pool and renamed to its new
// reference: the file system then reuses an inode instead of allocating
// one, the largest single cost of a store that makes and removes a
// container per message.
//
// Names. A directory's pool is the files "#pool.0" to "#pool.<n-1>" (n from
// "SFL_CONTAINER_POOL"; absent or 0: no pool, see kDefaultSlots). A process moves a
// file through "#retire.<pid>" on its way into a pool and "#take.<pid>" on
// its way out. No reference maps to a name that starts with '#' (a FileId
// is digits), so none of these is ever reached by a reference, taken for a
// container by a listing or the check, or replaced by a creation.
//
// Every move is a rename, so at any instant the file has exactly one name:
// a container name, a pool name or a private name. A pool slot is filled
// with a rename that never replaces (EEXIST: try the next slot; all taken:
// the file is removed as before), and emptied by renaming it to the
// taker's private name: of two processes racing for one slot one wins, the
// other finds it gone. The emptier empties the file (truncates it to 0)
// under its private name, before the file enters a pool: a truncation on
// ext4 makes the next close write the file back (its guard for programs
// that rewrite a file in place), which at the take would fall on the new
// container's first close, and here falls on a file with nothing to write.
// The taker, holding the file under its private name, names it with a
// fresh FileId, again without replacing anything; it truncates only a file
// that is not empty (a truncation a power cut undid). A process killed on the way leaves the file under
// its private name; the next process with the same pid renames over it.
//
// Old references. A file leaves its container name under the file-header
// lock with no other process holding the file (the last close), and every
// open or revival of a descriptor checks, under that lock, that the name
// still leads to the file it holds. A descriptor kept from before therefore
// finds its name gone and lets the file go.
//
// Power cuts. Where the close flushes the removal of the name, the file
// enters a pool only once that removal is flushed (it waits under its
// private name meanwhile): a cut can never bring back an old name for a
// file another reference is using by then. Where nothing is flushed
// ("SFL_ALL_ASYNC_IO", USER_ASYNC and files that never sync) the file goes
// into a pool at once; README says what a cut may then show.
//
// Only files of at most kPoolMaxBytes are kept, so a pool never holds much
// disk space; larger ones are removed.
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

#include "cust.h"
#include "er.h"
#include "im_int.h"
#include "os.h"

namespace {

// Off unless asked for: a store that never flushes may, after a power cut,
// see an emptied container's old name again on a file that another
// reference reuses.
constexpr int kDefaultSlots = 0;
constexpr int kMaxSlots = 64;
constexpr off_t kPoolMaxBytes = 1 << 20;
constexpr int kHints = 16;
constexpr int kNameAttempts = 100;

// Slots per directory; 0 when the pool is off.
int PoolSlots() {
  const char* v = cust_GetCustomiseInfo("SFL_CONTAINER_POOL");
  if (v == nullptr || *v == '\0') return kDefaultSlots;
  const int n = std::atoi(v);
  return n < 0 ? 0 : n > kMaxSlots ? kMaxSlots : n;
}

std::string SlotPath(const std::string& dir, int i) { return dir + "/#pool." + std::to_string(i); }

std::string PrivatePath(const std::string& dir, const char* what) {
  return dir + "/#" + what + "." + std::to_string(os_getpid());
}

// Directories this process put files into lately, newest last: where a
// take looks first. Only a hint: another process may have emptied them.
struct Hint {
  uint16_t domain;
  uint32_t sub;
};
Hint g_hints[kHints];
int g_hintCount = 0;

void Remember(uint16_t domain, uint32_t sub) {
  for (int i = 0; i < g_hintCount; ++i) {
    if (g_hints[i].domain != domain || g_hints[i].sub != sub) continue;
    for (int j = i; j + 1 < g_hintCount; ++j) g_hints[j] = g_hints[j + 1];
    --g_hintCount;
    break;
  }
  if (g_hintCount == kHints) {
    for (int j = 0; j + 1 < kHints; ++j) g_hints[j] = g_hints[j + 1];
    --g_hintCount;
  }
  g_hints[g_hintCount++] = Hint{domain, sub};
}

void Forget(int i) {
  for (int j = i; j + 1 < g_hintCount; ++j) g_hints[j] = g_hints[j + 1];
  --g_hintCount;
}

bool Poolable(int fd) {
  struct stat st {};
  return fd >= 0 && os_fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1 &&
         st.st_size <= kPoolMaxBytes;
}

// Moves `from` into a free slot of `dir`; false when every slot is taken
// or the move failed.
bool IntoSlot(const std::string& from, const std::string& dir, int slots) {
  for (int i = 0; i < slots; ++i) {
    if (os_RenameNoReplace(from.c_str(), SlotPath(dir, i).c_str()) == 0) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

// Empties the file held under the private name `mine` and moves it into a
// pool of `dir`; the file is removed when it cannot be emptied or no slot
// is free. Nobody else can reach the file meanwhile: it has no other name.
bool EmptyIntoSlot(int fd, const std::string& mine, const std::string& dir, int slots) {
  if (os_ftruncate(fd, 0) == 0 && IntoSlot(mine, dir, slots)) return true;
  os_unlink(mine.c_str());
  return false;
}

// Gives the file held under `mine` (open as `fd`) a fresh name in its
// directory; returns false, with nothing named, when it cannot.
bool NameIt(const std::string& mine, uint16_t domain, uint32_t sub, sfl_ItemRef* out) {
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    sfl_ItemRef ref{};
    ref.Domain = domain;
    ref.FileId = (im_NextFileId() & ~uint32_t{0xFF}) | sub;
    if (ref.FileId == 0) continue;
    ref.SubDomain = ref.FileId % 256;
    const std::string path = im_ContainerPath(ref);
    if (os_RenameNoReplace(mine.c_str(), path.c_str()) == 0) {
      *out = ref;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

// Takes a file from the pool of (domain, sub); -1 when there is none or a
// step failed (the caller then creates a file as usual).
int TakeFrom(uint16_t domain, uint32_t sub, int slots, sfl_ItemRef* out) {
  sfl_ItemRef where{};
  where.Domain = domain;
  where.SubDomain = sub;
  const std::string dir = im_DirPath(where);
  const std::string mine = PrivatePath(dir, "take");
  for (int i = 0; i < slots; ++i) {
    if (os_rename(SlotPath(dir, i).c_str(), mine.c_str()) != 0) {
      if (errno == ENOENT) continue;
      return -1;
    }
    // The file is this process's alone from here: nobody else knows its name.
    const int fd = os_open(mine.c_str(), O_RDWR);
    if (fd >= 0) {
      struct stat st {};
      const bool empty = os_fstat(fd, &st) == 0 && (st.st_size == 0 || os_ftruncate(fd, 0) == 0);
      if (empty && NameIt(mine, domain, sub, out)) return fd;
      os_close(fd);
    }
    os_unlink(mine.c_str());
  }
  return -1;
}

}  // namespace

int im_TakePooled(uint16_t domain, sfl_ItemRef* out) {
  const int slots = PoolSlots();
  if (slots == 0) return -1;
  for (int i = g_hintCount - 1; i >= 0; --i) {
    if (g_hints[i].domain != domain) continue;
    const int fd = TakeFrom(domain, g_hints[i].sub, slots, out);
    if (fd >= 0) return fd;
    Forget(i);
  }
  // Another process's pools: those of the directory a new file would have
  // gone to anyway.
  return TakeFrom(domain, im_NextFileId() % 256, slots, out);
}

int im_RetireItem(const sfl_ItemRef* ref, int fd, bool flush) {
  if (ref == nullptr) ER_RAISE(ER_GROUP_CALL, EINVAL);
  const std::string path = im_ContainerPath(*ref);
  const std::string dir = im_DirPath(*ref);
  const int slots = PoolSlots();
  if (slots > 0 && Poolable(fd)) {
    // The file leaves its container name for a private one first, so that
    // it is emptied where no reference leads.
    const std::string mine = PrivatePath(dir, "retire");
    if (os_rename(path.c_str(), mine.c_str()) == 0) {
      if (flush && os_FsyncDir(dir.c_str()) != 0) {
        // The removal may not last: such a file never enters a pool.
        const int err = errno;
        os_unlink(mine.c_str());
        return err;
      }
      if (EmptyIntoSlot(fd, mine, dir, slots)) Remember(ref->Domain, ref->SubDomain);
      return 0;
    }
  }
  if (os_unlink(path.c_str()) != 0) ER_RAISE_MSG(ER_GROUP_OS, errno, path.c_str());
  if (flush && os_FsyncDir(dir.c_str()) != 0) return errno;
  return 0;
}
