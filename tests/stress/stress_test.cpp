// Multi-process stress: several worker processes share four containers and
// store, read, rewrite, delete, attach and detach simple items, and create,
// append to, read and free blocks of blocked items, chosen at random for a
// bounded number of operations each. All processes use the real interest
// service of this test's run directory.
//
// Every item's bytes carry their identity (a generation number unique to
// that item, a version or block ordinal, the size) and a checksum of the
// rest, and every read is compared byte for byte with what was written.
// The history holds: a stored item reads back until its delete completes,
// and every read returns bytes that a completed write of the item, or one
// in flight during the read, wrote (with rewrites that overlap reads, byte
// by byte: nothing orders a read against a write of the same bytes).
//
// Besides the item operations, switched on by name in SFL_STRESS_EXTRA (a
// comma-separated list; "all" for every one, "none" for none; the default
// is all but "restart"):
//   overlap       rewrites of simple items that run while others read them
//   compact-item  item compaction of a blocked item (renumbers its blocks)
//   compact-file  whole-file compaction of a container
//   check         the integrity check with repair asked for
//   restart       the interest service stopped (the next call starts it)
//
// Workers learn which items exist from a registry: a shared file in the test
// directory, mapped by every worker, one entry per container slot, each
// guarded by an open-file-description lock on one byte of that file. The
// library itself is never used to coordinate the test.
//
// At the end, while the workers are still alive (holding their cold-store
// descriptors), no byte-range lock may be left on any container; each worker
// has as many descriptors as before plus its cold-store files. After they
// exit, the containers are read raw: the slots in use are exactly the live
// items, nothing is left pending deletion, and the free map marks exactly the
// blocks that the header, the item table, the map itself and every live
// item (index records and data blocks of blocked items) occupy. Last, every
// live item reads back intact and every deleted item is gone.
//
// Sizes: SFL_STRESS_PROCS (default 8) workers, SFL_STRESS_OPS (default 2500)
// operations each; SFL_STRESS_SEED changes the random choices.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "im.h"
#include "sfl_int.h"
#include "test_env.h"

namespace {

constexpr int kContainers = 4;
constexpr int kSlots = 8;         // slot 0 is the free map; items are 1 to 7
constexpr int kMaxBlocks = 40;    // blocks a blocked item may get
constexpr uint32_t kStampSize = 20;
constexpr uint32_t kStampMagic = 0x5354524Du;  // "MRTS"

enum EntryState : uint32_t { kFree = 0, kLive = 1 };

// One container slot as the workers believe it to be.
struct Entry {
  uint32_t state;
  uint32_t gen;       // identity of the item's content; 0 when free
  uint32_t blocked;
  uint32_t anchor;    // stored at setup, never deleted
  uint32_t version;   // simple items: bumped by every rewrite
  uint32_t size;      // simple items: current size
  uint32_t reserved;  // simple items: the size it was stored with
  int32_t acc;        // attach count the item header must hold
  uint32_t readers;   // workers reading this slot now (pins, never reset)
  uint32_t writing;   // simple items: the version a rewrite is writing, 0 when none
  uint32_t nblocks;
  uint32_t blockNum[kMaxBlocks];
  uint32_t blockSize[kMaxBlocks];
  uint8_t blockLive[kMaxBlocks];
};

enum Counter {
  kStores, kBlockedStores, kFull, kReads, kGone, kWrites, kTruncates, kDeletes, kAttaches,
  kDetaches, kAppends, kBlockReads, kFrees, kOverlapWrites, kOverlapReads, kItemCompactions,
  kFileCompactions, kFileCompactionsDone, kChecks, kRestarts, kFailures, kCounters
};
const char* const kCounterNames[kCounters] = {
    "stores", "blocked stores", "container full", "reads", "reads of vanished items",
    "rewrites", "size changes", "deletes", "attaches", "detaches", "block appends",
    "block reads", "block frees", "overlapping rewrites", "reads during a rewrite",
    "item compactions", "file compactions tried", "file compactions done", "checks", "service restarts",
    "failures"};

// The operations beyond the item operations, each behind a switch.
enum Extra : uint32_t {
  kOverlap = 1, kCompactItem = 2, kCompactFile = 4, kCheck = 8, kRestart = 16
};
struct ExtraName {
  Extra bit;
  const char* name;
};
constexpr ExtraName kExtraNames[] = {{kOverlap, "overlap"},
                                     {kCompactItem, "compact-item"},
                                     {kCompactFile, "compact-file"},
                                     {kCheck, "check"},
                                     {kRestart, "restart"}};
// What the default run includes: every extra.
constexpr uint32_t kDefaultExtras = kOverlap | kCompactItem | kCompactFile | kCheck | kRestart;
uint32_t g_extras = kDefaultExtras;

// Reads SFL_STRESS_EXTRA; false for a name it does not know.
bool ReadExtras() {
  const char* v = std::getenv("SFL_STRESS_EXTRA");
  if (v == nullptr) return true;
  std::string list = v;
  g_extras = 0;
  size_t at = 0;
  while (at <= list.size()) {
    size_t comma = list.find(',', at);
    if (comma == std::string::npos) comma = list.size();
    const std::string name = list.substr(at, comma - at);
    at = comma + 1;
    if (name.empty() || name == "none") continue;
    if (name == "all") {
      for (const ExtraName& e : kExtraNames) g_extras |= e.bit;
      continue;
    }
    bool known = false;
    for (const ExtraName& e : kExtraNames) {
      if (name == e.name) {
        g_extras |= e.bit;
        known = true;
      }
    }
    if (!known) return false;
  }
  return true;
}
bool Has(Extra e) { return (g_extras & e) != 0; }

struct Registry {
  sfl_ItemRef containers[kContainers];
  Entry e[kContainers][kSlots];
  uint32_t nextGen;
  uint64_t counters[kCounters];
};

Registry* g_reg = nullptr;
std::string g_regPath;

void Count(Counter c) { __atomic_fetch_add(&g_reg->counters[c], 1, __ATOMIC_SEQ_CST); }
uint32_t NewGen() { return __atomic_add_fetch(&g_reg->nextGen, 1, __ATOMIC_SEQ_CST); }

int EnvInt(const char* key, int dflt) {
  const char* v = std::getenv(key);
  return v != nullptr && std::atoi(v) > 0 ? std::atoi(v) : dflt;
}

// ---- content --------------------------------------------------------------------
uint8_t BodyByte(uint32_t gen, uint32_t sub, uint32_t i) {
  uint32_t x = (gen * 2654435761u) ^ (sub * 40503u) ^ (i * 2246822519u);
  x ^= x >> 15;
  return static_cast<uint8_t>(x);
}
void Put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t Get32(const uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint32_t Checksum(const uint8_t* p, size_t n) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
  return h;
}
// Content of an item (sub = version) or a block (sub = ordinal).
std::vector<uint8_t> Content(uint32_t gen, uint32_t sub, uint32_t size) {
  std::vector<uint8_t> v(size);
  for (uint32_t i = kStampSize; i < size; ++i) v[i] = BodyByte(gen, sub, i);
  Put32(&v[0], kStampMagic);
  Put32(&v[4], gen);
  Put32(&v[8], sub);
  Put32(&v[12], size);
  Put32(&v[16], Checksum(v.data() + kStampSize, size - kStampSize));
  return v;
}
// Empty when the bytes are what (gen, sub, size) wrote, else what differs.
std::string Verify(const uint8_t* p, uint32_t n, uint32_t gen, uint32_t sub, uint32_t size) {
  char msg[200];
  if (n != size) {
    std::snprintf(msg, sizeof msg, "read %u bytes, expected %u", n, size);
    return msg;
  }
  if (Get32(p) != kStampMagic || Get32(p + 4) != gen || Get32(p + 8) != sub ||
      Get32(p + 12) != size) {
    std::snprintf(msg, sizeof msg, "stamp says gen %u sub %u size %u, expected %u/%u/%u",
                  Get32(p + 4), Get32(p + 8), Get32(p + 12), gen, sub, size);
    return msg;
  }
  if (Get32(p + 16) != Checksum(p + kStampSize, size - kStampSize)) return "checksum differs";
  for (uint32_t i = kStampSize; i < size; ++i) {
    if (p[i] != BodyByte(gen, sub, i)) {
      std::snprintf(msg, sizeof msg, "byte %u differs", i);
      return msg;
    }
  }
  return "";
}
// Empty when every byte is what one of the versions first..last (all of
// `size` bytes) wrote at its place, else the first byte that none wrote.
std::string VerifyAny(const uint8_t* p, uint32_t n, uint32_t gen, uint32_t first, uint32_t last,
                      uint32_t size) {
  if (n != size) return "read " + std::to_string(n) + " bytes, expected " + std::to_string(size);
  std::vector<std::vector<uint8_t>> versions;
  for (uint32_t v = first; v <= last; ++v) versions.push_back(Content(gen, v, size));
  for (uint32_t i = 0; i < size; ++i) {
    bool written = false;
    for (const auto& v : versions) written = written || v[i] == p[i];
    if (!written) {
      return "byte " + std::to_string(i) + " was written by none of versions " +
             std::to_string(first) + " to " + std::to_string(last);
    }
  }
  return "";
}

sfl_ItemRef ItemRef(int c, int n) {
  sfl_ItemRef r = g_reg->containers[c];
  r.Flags = static_cast<uint16_t>((r.Flags & ~SFL_ITEM_NUM_MASK) | n);
  return r;
}

std::string ContainerPath(int c) {
  char path[4096];
  im_GetRealFileName(&g_reg->containers[c], path, sizeof path);
  return path;
}

int CountFds() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

// ---- the registry's entry locks ---------------------------------------------------------
// One byte per entry, locked through this process's own open of the
// registry file (open-file-description locks exclude each other only
// between separate opens).
class EntryLocks {
 public:
  EntryLocks() : fd_(open(g_regPath.c_str(), O_RDWR | O_CLOEXEC)) {}
  ~EntryLocks() { close(fd_); }
  bool ok() const { return fd_ >= 0; }
  void Lock(int c, int n) { Set(c, n, F_WRLCK); }
  void Unlock(int c, int n) { Set(c, n, F_UNLCK); }

 private:
  void Set(int c, int n, short type) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = c * kSlots + n;
    fl.l_len = 1;
    while (fcntl(fd_, F_OFD_SETLKW, &fl) != 0) {
      if (errno != EINTR) std::abort();
    }
  }
  int fd_;
};

// Holds one entry's lock for a scope.
// An item handle closed on every path: a read that fails part way (the
// slot may hold another item by now) must not leave the item open.
class OpenedItem {
 public:
  explicit OpenedItem(const sfl_ItemRef& ref) : h_(sfl_OpenItem(&ref, 0)) {}
  ~OpenedItem() {
    if (h_ < 0) return;
    try {
      sfl_CloseItem(h_);
    } catch (const er_Escape&) {
      er_Clear();
    }
  }
  OpenedItem(const OpenedItem&) = delete;
  OpenedItem& operator=(const OpenedItem&) = delete;
  int32_t get() const { return h_; }
  void Close() {
    int32_t h = h_;
    h_ = -1;
    sfl_CloseItem(h);
  }

 private:
  int32_t h_;
};

class Locked {
 public:
  Locked(EntryLocks& l, int c, int n) : l_(l), c_(c), n_(n) { l_.Lock(c, n); }
  ~Locked() { l_.Unlock(c_, n_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  EntryLocks& l_;
  int c_, n_;
};

// ---- a worker ----------------------------------------------------------------------------
class Worker {
 public:
  Worker(int id, uint64_t seed) : id_(id), rng_(seed) {}

  // Returns true when every operation behaved.
  bool Run(int ops) {
    if (!locks_.ok()) return Failed("cannot open the registry");
    for (int i = 0; i < ops && ok_; ++i) {
      int c = static_cast<int>(Below(kContainers));
      uint32_t pick = Below(100);
      int n = 0;
      const uint32_t extra = Below(1000);
      try {
        if (Has(kCompactFile) && extra < 3) CompactFile(c);
        else if (Has(kCheck) && extra >= 3 && extra < 6) CheckRepair(c);
        else if (Has(kRestart) && extra == 6) RestartService();
        else if (Has(kCompactItem) && extra >= 10 && extra < 20) CompactItem(c, n = Pick(c, 1));
        else if (pick < 14) Store(c);
        else if (pick < 36) Read(c, n = Pick(c, 0));
        else if (pick < 44) Rewrite(c, n = Pick(c, 0));
        else if (pick < 56) Delete(c, n = Pick(c, -1));
        else if (pick < 63) Attach(c, n = Pick(c, -1));
        else if (pick < 70) Detach(c, n = Pick(c, -1));
        else if (pick < 80) Append(c, n = Pick(c, 1));
        else if (pick < 93) ReadBlocks(c, n = Pick(c, 1));
        else FreeBlock(c, n = Pick(c, 1));
      } catch (const er_Escape& e) {
        Failed("operation %u on container %d slot %d: escape %d/%d at %s:%d", pick, c, n,
               e.group(), e.reason(), e.file(), e.line());
      }
    }
    return ok_;
  }

 private:
  uint32_t Below(uint32_t n) {
    rng_ ^= rng_ << 13;
    rng_ ^= rng_ >> 7;
    rng_ ^= rng_ << 17;
    return static_cast<uint32_t>(rng_ % n);
  }

  // A slot that looks live (blocked: 1 blocked items, 0 simple, -1 any),
  // read without the lock: only a hint, every operation checks again under
  // the entry lock. 1 when none looks right.
  int Pick(int c, int blocked) {
    int start = static_cast<int>(Below(kSlots - 1));
    for (int i = 0; i < kSlots - 1; ++i) {
      int n = 1 + (start + i) % (kSlots - 1);
      const Entry& e = g_reg->e[c][n];
      if (__atomic_load_n(&e.state, __ATOMIC_RELAXED) != kLive) continue;
      if (blocked >= 0 && __atomic_load_n(&e.blocked, __ATOMIC_RELAXED) != static_cast<uint32_t>(blocked)) continue;
      return n;
    }
    return 1;
  }

  bool Failed(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, fmt);
    std::fprintf(stderr, "stress worker %d (pid %d): ", id_, getpid());
    std::vfprintf(stderr, fmt, ap);
    std::fprintf(stderr, "\n");
    va_end(ap);
    Count(kFailures);
    ok_ = false;
    return false;
  }

  uint32_t ItemSize() {
    uint32_t r = Below(100);
    if (r < 10) return kStampSize + Below(200);
    if (r < 92) return kStampSize + Below(20000);
    return 100000 + Below(200000);  // now and then one that grows the file
  }
  uint32_t BlockSize() { return 64 + Below(2048 - 64 + 1); }

  // Stores a new item in container c, simple or blocked, and enters it.
  void Store(int c) {
    bool blocked = Below(4) == 0;
    uint32_t gen = NewGen();
    sfl_ItemRef ref{};
    int32_t base = sfl_OpenSfl(&g_reg->containers[c], 0);
    int32_t h = -1;
    Entry fresh{};
    fresh.state = kLive;
    fresh.gen = gen;
    if (!blocked) {
      uint32_t size = ItemSize();
      h = sfl_StoreBasicItem(base, nullptr, size, &ref, Below(2));
      if (h < 0) {
        Count(kFull);
        sfl_CloseFile(base);
        return;
      }
      std::vector<uint8_t> data = Content(gen, 0, size);
      if (Below(2) == 0) {
        int32_t wrote = sfl_WriteSimpleData(h, 0, size, data.data());
        if (wrote != static_cast<int32_t>(size)) Failed("store wrote %d of %u", wrote, size);
      } else {
        WriteSerially(h, data);
      }
      fresh.size = fresh.reserved = size;
      fresh.acc = 1;  // a new simple item has one owner
    } else {
      try {
        h = sfl_CreateBlockedItem(base, &ref);
      } catch (const er_Escape& e) {
        if (e.reason() != SFL_R_NO_BLOCKED_SLOT) throw;
        Count(kFull);
        sfl_CloseFile(base);
        return;
      }
      // The new root is laid down as zeros, which index reads refuse: it
      // becomes an empty leaf before the first block.
      if (sfl_FormatBlockedRoot(h) != 1) Failed("root of a new blocked item was not blank");
      fresh.blocked = 1;
      fresh.acc = 0;  // a blocked item starts without owners
      uint32_t first = 1 + Below(4);
      for (uint32_t k = 0; k < first; ++k) AppendTo(h, fresh);
    }
    int n = ref.Flags & SFL_ITEM_NUM_MASK;
    {
      Locked hold(locks_, c, n);
      Entry& e = g_reg->e[c][n];
      if (e.state != kFree) {
        Failed("container %d handed out slot %d, which holds live item %u", c, n, e.gen);
      } else {
        uint32_t readers = e.readers;
        e = fresh;
        e.readers = readers;
      }
    }
    sfl_CloseItem(h);
    sfl_CloseFile(base);
    Count(blocked ? kBlockedStores : kStores);
  }

  void WriteSerially(int32_t h, const std::vector<uint8_t>& data) {
    sfl_seek(h, 0, 0);
    size_t done = 0;
    while (done < data.size()) {
      uint32_t chunk = std::min<uint32_t>(1 + Below(5000), static_cast<uint32_t>(data.size() - done));
      int32_t wrote = sfl_WriteSerialData(h, data.data() + done, chunk);
      if (wrote != static_cast<int32_t>(chunk)) {
        Failed("serial write of %u gave %d", chunk, wrote);
        return;
      }
      done += chunk;
    }
  }

  // Places one more block in a blocked item (open as h) and records it.
  void AppendTo(int32_t h, Entry& e) {
    uint32_t k = e.nblocks;
    uint32_t size = BlockSize();
    std::vector<uint8_t> data = Content(e.gen, k, size);
    int32_t mode = Below(2) == 0 ? 1 : 0;  // append, or first free entry
    int32_t b = sfl_GetNewBlock(h, static_cast<int32_t>(size), mode, data.data());
    if (b < 0) {
      Failed("no block placed for item %u", e.gen);
      return;
    }
    for (uint32_t j = 0; j < e.nblocks; ++j) {
      if (e.blockLive[j] && e.blockNum[j] == static_cast<uint32_t>(b)) {
        Failed("block %d of item %u handed out twice", b, e.gen);
      }
    }
    e.blockNum[k] = static_cast<uint32_t>(b);
    e.blockSize[k] = size;
    e.blockLive[k] = 1;
    e.nblocks = k + 1;
  }

  // Whether a failed read is explained by the item having gone meanwhile.
  bool Vanished(int c, int n, uint32_t gen) {
    Locked hold(locks_, c, n);
    const Entry& e = g_reg->e[c][n];
    return e.state != kLive || e.gen != gen;
  }

  void Pin(int c, int n, int delta) {
    Locked hold(locks_, c, n);
    g_reg->e[c][n].readers += delta;
  }

  void Read(int c, int n) {
    Entry snap;
    {
      Locked hold(locks_, c, n);
      Entry& e = g_reg->e[c][n];
      if (e.state != kLive || e.blocked) return;
      ++e.readers;
      snap = e;
    }
    sfl_ItemRef ref = ItemRef(c, n);
    std::string problem;
    try {
      OpenedItem item(ref);
      const int32_t h = item.get();
      std::vector<uint8_t> buf(snap.size);
      uint32_t got = 0;
      if (Below(2) == 0) {
        got = static_cast<uint32_t>(sfl_ReadSimpleData(h, 0, snap.size, buf.data()));
      } else {
        // Never ask for more than the buffer holds: the slot may hold a
        // bigger item by now.
        int32_t r;
        while (got < snap.size &&
               (r = sfl_ReadSerialData(h, buf.data() + got,
                                       std::min<uint32_t>(1 + Below(6000), snap.size - got))) > 0) {
          got += static_cast<uint32_t>(r);
        }
      }
      struct stat st {};
      sfl_FStatItem(h, &st);
      item.Close();
      problem = Verify(buf.data(), got, snap.gen, snap.version, snap.size);
      if (!problem.empty()) {
        // Rewrites of the same size may have run during the read: each byte
        // must then be one that a version from the one seen at the start to
        // the newest completed or in flight wrote.
        uint32_t latest = snap.version;
        {
          Locked hold(locks_, c, n);
          const Entry& e = g_reg->e[c][n];
          if (e.state == kLive && e.gen == snap.gen) latest = std::max(e.version, e.writing);
        }
        if (latest > snap.version &&
            VerifyAny(buf.data(), got, snap.gen, snap.version, latest, snap.size).empty()) {
          problem.clear();
          Count(kOverlapReads);
        }
      }
      if (problem.empty() && static_cast<uint32_t>(st.st_size) != snap.size) {
        problem = "status size " + std::to_string(st.st_size);
      }
    } catch (const er_Escape& e) {
      problem = "escape " + std::to_string(e.group()) + "/" + std::to_string(e.reason());
    }
    if (!problem.empty()) {
      if (Vanished(c, n, snap.gen)) {
        Count(kGone);
      } else {
        Failed("item %u (container %d slot %d, version %u): %s", snap.gen, c, n, snap.version,
               problem.c_str());
      }
    } else {
      Count(kReads);
    }
    Pin(c, n, -1);
  }

  // Rewrites a simple item with a new version, sometimes with a new size
  // inside the space it was stored with.
  void Rewrite(int c, int n) {
    if (Has(kOverlap) && Below(2) == 0) {
      OverlappingRewrite(c, n);
      return;
    }
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    if (e.state != kLive || e.blocked || e.readers != 0 || e.writing != 0) return;
    sfl_ItemRef ref = ItemRef(c, n);
    int32_t h = sfl_OpenItem(&ref, 0);
    uint32_t size = e.size;
    if (Below(3) == 0) {
      uint32_t room = sfl_CalculateBlocks(e.reserved) * 128;
      size = kStampSize + Below(room - kStampSize + 1);
      sfl_TruncateSimItem(h, size);
      Count(kTruncates);
    }
    std::vector<uint8_t> data = Content(e.gen, e.version + 1, size);
    if (Below(2) == 0) {
      int32_t wrote = sfl_WriteSimpleData(h, 0, size, data.data());
      if (wrote != static_cast<int32_t>(size)) Failed("rewrite wrote %d of %u", wrote, size);
    } else {
      WriteSerially(h, data);
    }
    sfl_CloseItem(h);
    e.version += 1;
    e.size = size;
    Count(kWrites);
  }

  // Rewrites a simple item with a new version of the same size without
  // holding its entry: reads of it may run meanwhile. The entry says which
  // version is in flight, and nothing else changes the item until it is
  // done.
  void OverlappingRewrite(int c, int n) {
    uint32_t gen, version, size;
    {
      Locked hold(locks_, c, n);
      Entry& e = g_reg->e[c][n];
      if (e.state != kLive || e.blocked || e.writing != 0) return;
      gen = e.gen;
      version = e.version + 1;
      size = e.size;
      e.writing = version;
    }
    sfl_ItemRef ref = ItemRef(c, n);
    {
      OpenedItem item(ref);
      std::vector<uint8_t> data = Content(gen, version, size);
      if (Below(2) == 0) {
        int32_t wrote = sfl_WriteSimpleData(item.get(), 0, size, data.data());
        if (wrote != static_cast<int32_t>(size)) Failed("rewrite wrote %d of %u", wrote, size);
      } else {
        WriteSerially(item.get(), data);
      }
      item.Close();
    }
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    e.version = version;
    e.writing = 0;
    Count(kOverlapWrites);
  }

  // Renumbers a blocked item's blocks from 0 in their order. Blocks are
  // read by number, so no reader may be on the item meanwhile.
  void CompactItem(int c, int n) {
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    if (e.state != kLive || !e.blocked || e.readers != 0) return;
    sfl_ItemRef ref = ItemRef(c, n);
    OpenedItem item(ref);
    const uint32_t last = sfl_CompactBlockedItem(item.get());
    item.Close();
    std::vector<uint32_t> live;
    for (uint32_t k = 0; k < e.nblocks; ++k)
      if (e.blockLive[k]) live.push_back(k);
    std::sort(live.begin(), live.end(),
              [&](uint32_t a, uint32_t b) { return e.blockNum[a] < e.blockNum[b]; });
    for (uint32_t i = 0; i < live.size(); ++i) e.blockNum[live[i]] = i;
    const uint32_t want = live.empty() ? 0 : static_cast<uint32_t>(live.size()) - 1;
    if (last != want) Failed("item compaction of item %u gave last block %u, expected %u", e.gen, last, want);
    Count(kItemCompactions);
  }

  // A rebuild of the whole container; while others hold it, it only marks it.
  void CompactFile(int c) {
    const int32_t r = sfl_CompactContainer(&g_reg->containers[c]);
    Count(kFileCompactions);
    if (r == SFL_COMPACT_DONE) Count(kFileCompactionsDone);
  }

  // The check with repair asked for; it repairs only when no other process
  // holds the container, and whatever it reports must not cost an item.
  void CheckRepair(int c) {
    (void)sfl_CheckSflIntegrity(&g_reg->containers[c], 1);
    Count(kChecks);
  }

  void RestartService() {
    sfltest::StopService();
    Count(kRestarts);
  }

  // Drops every owner of an item; the last detach marks it deleted and the
  // close that follows deletes it (at once, or when the last process lets
  // go of the container).
  void Delete(int c, int n) {
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    if (e.state != kLive || e.anchor || e.writing != 0) return;
    sfl_ItemRef ref = ItemRef(c, n);
    if (Below(2) == 0) {
      do {
        uint32_t left = sfl_DetachItem(&ref);
        int32_t want = e.acc > 0 ? e.acc - 1 : 0;
        if (left != static_cast<uint32_t>(want)) Failed("detach left %u, expected %d", left, want);
        e.acc = want;
      } while (e.acc > 0 && ok_);
    } else {
      int32_t h = sfl_OpenItem(&ref, 0);
      while (ok_) {
        uint32_t left = sfl_DetachOpenItem(h);
        int32_t want = e.acc > 0 ? e.acc - 1 : 0;
        if (left != static_cast<uint32_t>(want)) Failed("detach left %u, expected %d", left, want);
        e.acc = want;
        if (e.acc == 0) break;
      }
      sfl_CloseItem(h);
    }
    e.state = kFree;
    e.gen = 0;
    Count(kDeletes);
  }

  void Attach(int c, int n) {
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    if (e.state != kLive || e.acc >= 4) return;
    sfl_ItemRef ref = ItemRef(c, n);
    uint32_t now;
    if (Below(2) == 0) {
      now = sfl_AttachItem(&ref);
    } else {
      int32_t h = sfl_OpenItem(&ref, 0);
      now = sfl_Attach2OpenItem(h);
      sfl_CloseItem(h);
    }
    if (now != static_cast<uint32_t>(e.acc + 1)) Failed("attach gave %u, expected %d", now, e.acc + 1);
    e.acc += 1;
    Count(kAttaches);
  }

  // Detaches an owner without deleting: only while two or more remain.
  void Detach(int c, int n) {
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    if (e.state != kLive || e.acc < 2) return;
    sfl_ItemRef ref = ItemRef(c, n);
    uint32_t now = sfl_DetachItem(&ref);
    if (now != static_cast<uint32_t>(e.acc - 1)) Failed("detach gave %u, expected %d", now, e.acc - 1);
    e.acc -= 1;
    Count(kDetaches);
  }

  void Append(int c, int n) {
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    if (e.state != kLive || !e.blocked || e.nblocks >= kMaxBlocks) return;
    sfl_ItemRef ref = ItemRef(c, n);
    int32_t h = sfl_OpenItem(&ref, 0);
    AppendTo(h, e);
    sfl_CloseItem(h);
    Count(kAppends);
  }

  void ReadBlocks(int c, int n) {
    Entry snap;
    {
      Locked hold(locks_, c, n);
      Entry& e = g_reg->e[c][n];
      if (e.state != kLive || !e.blocked) return;
      ++e.readers;
      snap = e;
    }
    sfl_ItemRef ref = ItemRef(c, n);
    std::string problem;
    try {
      OpenedItem item(ref);
      const int32_t h = item.get();
      for (uint32_t k = 0; k < snap.nblocks && problem.empty(); ++k) {
        if (!snap.blockLive[k] || Below(3) != 0) continue;
        std::vector<uint8_t> buf(snap.blockSize[k]);
        uint32_t got = sfl_ReadBlockedData(h, snap.blockNum[k], snap.blockSize[k], buf.data());
        problem = Verify(buf.data(), got, snap.gen, k, snap.blockSize[k]);
        if (!problem.empty()) problem = "block " + std::to_string(snap.blockNum[k]) + ": " + problem;
        Count(kBlockReads);
      }
      item.Close();
    } catch (const er_Escape& e) {
      problem = "escape " + std::to_string(e.group()) + "/" + std::to_string(e.reason());
    }
    if (!problem.empty()) {
      // Frees wait for readers, so a live block of a live item must read.
      if (Vanished(c, n, snap.gen)) {
        Count(kGone);
      } else {
        Failed("blocked item %u (container %d slot %d): %s", snap.gen, c, n, problem.c_str());
      }
    }
    Pin(c, n, -1);
  }

  // Frees one block; reading it afterwards must find an empty entry.
  void FreeBlock(int c, int n) {
    Locked hold(locks_, c, n);
    Entry& e = g_reg->e[c][n];
    if (e.state != kLive || !e.blocked || e.readers != 0) return;
    std::vector<uint32_t> live;
    for (uint32_t k = 0; k < e.nblocks; ++k) {
      if (e.blockLive[k]) live.push_back(k);
    }
    if (live.size() < 2) return;  // keep at least one block to read
    uint32_t k = live[Below(static_cast<uint32_t>(live.size()))];
    sfl_ItemRef ref = ItemRef(c, n);
    int32_t h = sfl_OpenItem(&ref, 0);
    sfl_FreeBlock(h, e.blockNum[k], 0);
    e.blockLive[k] = 0;
    uint8_t buf[64];
    try {
      sfl_ReadBlockedData(h, e.blockNum[k], sizeof buf, buf);
      Failed("freed block %u of item %u still reads", e.blockNum[k], e.gen);
    } catch (const er_Escape& x) {
      if (x.reason() != SFL_R_EMPTY_ENTRY) {
        Failed("reading freed block %u gave %d, expected %d", e.blockNum[k], x.reason(),
               SFL_R_EMPTY_ENTRY);
      }
    }
    sfl_CloseItem(h);
    Count(kFrees);
  }

  int id_;
  uint64_t rng_;
  bool ok_ = true;
  EntryLocks locks_;
};

// ---- setup and the checks from outside --------------------------------------------------

// Creates the containers, each with an anchor item in slot 1 that is never
// deleted (a container whose last item goes is removed).
int MakeContainers() {
  for (int c = 0; c < kContainers; ++c) {
    int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_GetSerFileItem(base, &g_reg->containers[c]);
    uint32_t gen = NewGen();
    uint32_t size = 1000 + 100 * c;
    sfl_ItemRef ref{};
    int32_t h = sfl_StoreBasicItem(base, nullptr, size, &ref, 0);
    std::vector<uint8_t> data = Content(gen, 0, size);
    if (sfl_WriteSimpleData(h, 0, size, data.data()) != static_cast<int32_t>(size)) return 1;
    int n = ref.Flags & SFL_ITEM_NUM_MASK;
    Entry& e = g_reg->e[c][n];
    e.state = kLive;
    e.gen = gen;
    e.anchor = 1;
    e.size = e.reserved = size;
    e.acc = 1;
    sfl_CloseItem(h);
    sfl_CloseFile(base);
  }
  return 0;
}

// Whether any process holds a byte-range lock anywhere on the file.
bool AnyLock(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  bool held = fcntl(fd, F_OFD_GETLK, &fl) != 0 || fl.l_type != F_UNLCK;
  close(fd);
  return held;
}

// Lines of /proc/locks that name the file's inode.
int ProcLocks(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return 0;
  std::ifstream in("/proc/locks");
  std::string line;
  char tag[64];
  std::snprintf(tag, sizeof tag, ":%llu ", static_cast<unsigned long long>(st.st_ino));
  int n = 0;
  while (std::getline(in, line)) {
    if (line.find(tag) != std::string::npos) ++n;
  }
  return n;
}

std::vector<uint8_t> ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Marks blocks [first, first + count) as used by `what`; an overlap is an
// error.
void Mark(std::vector<int>& owner, uint64_t first, uint64_t count, int what,
          std::vector<std::string>* errors) {
  for (uint64_t b = first; b < first + count; ++b) {
    if (b >= owner.size()) owner.resize(b + 1, -1);
    if (owner[b] != -1 && errors->size() < 20) {
      errors->push_back("block " + std::to_string(b) + " used by " + std::to_string(owner[b]) +
                        " and " + std::to_string(what));
    }
    owner[b] = what;
  }
}

// Walks a blocked item's index tree, marking its records and data blocks.
void WalkIndex(const std::vector<uint8_t>& file, uint32_t off, bool root, int level, int slot,
               std::vector<int>& owner, std::vector<std::string>* errors) {
  if (static_cast<uint64_t>(off) + SFL_INDEX_SIZE > file.size() || level > 7) {
    errors->push_back("slot " + std::to_string(slot) + ": index record at " + std::to_string(off) +
                      " outside the file");
    return;
  }
  Mark(owner, off / SFL_BLOCK_SIZE, sfl_CalculateBlocks(SFL_INDEX_SIZE), slot, errors);
  sfl_IndexRecord r =
      sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE>(file.data() + off, SFL_INDEX_SIZE));
  if (r.Magic != SFL_MAGIC || r.Type != SFL_TYPE_INDEX) {
    if (!root) errors->push_back("slot " + std::to_string(slot) + ": bad index record at " + std::to_string(off));
    return;  // a root never written yet is an empty leaf
  }
  for (const auto& en : r.Entries) {
    if (en.SectionOffSet == 0) continue;
    if (r.Depth > 0) {
      WalkIndex(file, en.SectionOffSet, false, level + 1, slot, owner, errors);
    } else {
      Mark(owner, en.SectionOffSet / SFL_BLOCK_SIZE, sfl_CalculateBlocks(en.SectionSize), slot, errors);
    }
  }
}

// Reads a container raw and checks its table against the registry and its
// free map against the space its records and items occupy.
std::vector<std::string> CheckContainer(int c) {
  std::vector<std::string> errors;
  std::vector<uint8_t> file = ReadWhole(ContainerPath(c));
  if (file.size() < SFL_CONTAINER_DATA_OFFSET) return {"container " + std::to_string(c) + " too short"};
  sfl_FileHeader fh =
      sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE>(file.data(), SFL_FILE_HEADER_SIZE));
  if (fh.Flags & ITEM_PEND_DEL) errors.push_back("file still has deletions pending");
  std::vector<int> owner;
  Mark(owner, 0, sfl_CalculateBlocks(fh.TableOffset + fh.MaxItems * SFL_ITEM_HEADER_SIZE), 100, &errors);
  int used = 0;
  std::vector<uint8_t> map;
  for (uint32_t n = 0; n < fh.MaxItems && n < kSlots; ++n) {
    uint32_t off = fh.TableOffset + n * SFL_ITEM_HEADER_SIZE;
    sfl_ItemHeader ih = sfl_DecodeItemHeader(
        std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(file.data() + off, SFL_ITEM_HEADER_SIZE));
    bool inUse = (fh.InUseItms >> n) & 1;
    const Entry& e = g_reg->e[c][n];
    if (n == 0) {
      if (static_cast<uint64_t>(ih.FileOffset) + ih.FileSize > file.size()) {
        errors.push_back("free map lies outside the file");
        return errors;
      }
      map.assign(file.begin() + ih.FileOffset, file.begin() + ih.FileOffset + ih.FileSize);
      Mark(owner, ih.FileOffset / SFL_BLOCK_SIZE, ih.UsedBlocks, 0, &errors);
      continue;
    }
    std::string where = "container " + std::to_string(c) + " slot " + std::to_string(n);
    if (inUse != (e.state == kLive)) {
      errors.push_back(where + (inUse ? " in use but not live" : " live but not in use"));
    }
    if (!inUse) continue;
    ++used;
    if (ih.Magic != SFL_MAGIC || ih.Type != SFL_TYPE_ITEM_HEADER) {
      errors.push_back(where + ": header not valid");
      continue;
    }
    if (ih.Flags & DELETED) errors.push_back(where + ": still marked deleted");
    if (static_cast<int32_t>(ih.AccCount) != e.acc) {
      errors.push_back(where + ": attach count " + std::to_string(ih.AccCount) + ", expected " +
                       std::to_string(e.acc));
    }
    if (ih.Flags & BLOCKED_ITEM) {
      WalkIndex(file, ih.FileOffset, true, 0, static_cast<int>(n), owner, &errors);
    } else {
      if (ih.FileSize != e.size) errors.push_back(where + ": size " + std::to_string(ih.FileSize));
      Mark(owner, ih.FileOffset / SFL_BLOCK_SIZE, ih.UsedBlocks, static_cast<int>(n), &errors);
    }
  }
  if (fh.UsedItems != used) {
    errors.push_back("used-items count " + std::to_string(fh.UsedItems) + ", slots in use " +
                     std::to_string(used));
  }
  uint64_t mismatches = 0;
  std::string first;
  uint64_t bits = std::max<uint64_t>(owner.size(), map.size() * 8);
  for (uint64_t b = 0; b < bits; ++b) {
    bool marked = b / 8 < map.size() && ((map[b / 8] >> (b % 8)) & 1);
    bool usedBlock = b < owner.size() && owner[b] != -1;
    if (marked != usedBlock) {
      if (mismatches++ == 0) {
        first = "block " + std::to_string(b) + (marked ? " marked but unused" : " used but not marked");
      }
    }
  }
  if (mismatches != 0) {
    errors.push_back("free map differs in " + std::to_string(mismatches) + " blocks, first: " + first);
  }
  for (auto& s : errors) s = "container " + std::to_string(c) + ": " + s;
  return errors;
}

// In a fresh process: every live item reads back intact, every other slot
// holds nothing that can be opened.
int VerifyAll() {
  int bad = 0;
  for (int c = 0; c < kContainers; ++c) {
    for (int n = 1; n < kSlots; ++n) {
      const Entry& e = g_reg->e[c][n];
      sfl_ItemRef ref = ItemRef(c, n);
      if (e.state != kLive) {
        if (sfl_ItemExists(&ref) != 0) {
          std::fprintf(stderr, "container %d slot %d: deleted item still opens\n", c, n);
          ++bad;
        }
        continue;
      }
      int32_t h = sfl_OpenItem(&ref, 0);
      if (!e.blocked) {
        std::vector<uint8_t> buf(e.size);
        int32_t got = sfl_ReadSimpleData(h, 0, e.size, buf.data());
        std::string p = Verify(buf.data(), static_cast<uint32_t>(got), e.gen, e.version, e.size);
        if (!p.empty()) {
          std::fprintf(stderr, "container %d slot %d: %s\n", c, n, p.c_str());
          ++bad;
        }
      } else {
        for (uint32_t k = 0; k < e.nblocks; ++k) {
          if (!e.blockLive[k]) continue;
          std::vector<uint8_t> buf(e.blockSize[k]);
          uint32_t got = sfl_ReadBlockedData(h, e.blockNum[k], e.blockSize[k], buf.data());
          std::string p = Verify(buf.data(), got, e.gen, k, e.blockSize[k]);
          if (!p.empty()) {
            std::fprintf(stderr, "container %d slot %d block %u: %s\n", c, n, e.blockNum[k], p.c_str());
            ++bad;
          }
        }
      }
      sfl_CloseItem(h);
    }
  }
  return bad == 0 ? 0 : 1;
}

TEST(Stress, ProcessesShareContainers) {
  const int procs = EnvInt("SFL_STRESS_PROCS", 8);
  const int ops = EnvInt("SFL_STRESS_OPS", 2500);
  const uint64_t seed = static_cast<uint64_t>(EnvInt("SFL_STRESS_SEED", 20261122));
  ASSERT_TRUE(ReadExtras()) << "SFL_STRESS_EXTRA names an operation this test does not have";

  g_regPath = sfltest::TestDir() + "/registry";
  int rfd = open(g_regPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(rfd, 0);
  ASSERT_EQ(ftruncate(rfd, sizeof(Registry)), 0);
  void* mem = mmap(nullptr, sizeof(Registry), PROT_READ | PROT_WRITE, MAP_SHARED, rfd, 0);
  ASSERT_NE(mem, MAP_FAILED);
  close(rfd);
  g_reg = static_cast<Registry*>(mem);

  ASSERT_EQ(sfltest::RunInChild(MakeContainers), 0);

  // Each worker reports on its own pipe when its operations are done, then
  // waits (holding whatever it still holds) until the go pipe closes.
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  std::vector<int> doneRead;
  std::vector<int> doneWrite;
  std::vector<int> pids;
  for (int w = 0; w < procs; ++w) {
    int done[2];
    ASSERT_EQ(pipe(done), 0);
    doneRead.push_back(done[0]);
    doneWrite.push_back(done[1]);
    pids.push_back(sfltest::StartChild([&, w]() {
      close(go[1]);
      for (size_t i = 0; i < doneRead.size(); ++i) {
        close(doneRead[i]);
        if (static_cast<int>(i) != w) close(doneWrite[i]);
      }
      // The log is opened on first use; open it now so the count below
      // does not take it for a leak.
      er_LogMsg(1, "stress worker %d starting", w);
      int before = CountFds();
      bool ok;
      {
        Worker worker(w, seed * 1000003ull + static_cast<uint64_t>(w) + 1);
        ok = worker.Run(ops);
      }
      int after = CountFds();
      if (after - before != FilesInColdStore) {
        std::fprintf(stderr, "stress worker %d: %d descriptors before, %d after, %d in the cold store\n",
                     w, before, after, FilesInColdStore);
        Count(kFailures);
        ok = false;
      }
      char status = ok ? 'D' : 'F';
      if (write(doneWrite[w], &status, 1) != 1) ok = false;
      char c;
      while (read(go[0], &c, 1) > 0) {
      }
      return ok ? 0 : 1;
    }));
  }
  close(go[0]);
  for (int fd : doneWrite) close(fd);
  int finished = 0;
  for (int fd : doneRead) {
    char status = 0;
    if (read(fd, &status, 1) == 1 && status == 'D') ++finished;
    close(fd);
  }
  EXPECT_EQ(finished, procs) << "workers that did all their operations correctly";

  // Every worker is alive and idle now: nobody may hold a lock.
  for (int c = 0; c < kContainers; ++c) {
    std::string path = ContainerPath(c);
    EXPECT_FALSE(AnyLock(path)) << "a lock is held on container " << c;
    EXPECT_EQ(ProcLocks(path), 0) << "/proc/locks lists locks on container " << c;
  }
  close(go[1]);
  for (int pid : pids) EXPECT_EQ(sfltest::WaitChild(pid), 0);

  for (int c = 0; c < kContainers; ++c) {
    for (const auto& err : CheckContainer(c)) ADD_FAILURE() << err;
  }
  EXPECT_EQ(sfltest::RunInChild(VerifyAll), 0);
  // The library's own integrity check agrees: no container it leaves has a
  // fault (the check prints any it finds on standard output).
  for (int c = 0; c < kContainers; ++c) {
    EXPECT_EQ(sfl_CheckSflIntegrity(&g_reg->containers[c], 0), 0) << "integrity check of container " << c;
  }

  std::string extras;
  for (const ExtraName& e : kExtraNames)
    if (Has(e.bit)) extras += std::string(extras.empty() ? "" : ",") + e.name;
  std::printf("stress: %d processes x %d operations, with %s\n", procs, ops,
              extras.empty() ? "no extras" : extras.c_str());
  for (int k = 0; k < kCounters; ++k) {
    std::printf("  %-24s %llu\n", kCounterNames[k], static_cast<unsigned long long>(g_reg->counters[k]));
  }
  EXPECT_EQ(g_reg->counters[kFailures], 0u);
  // The run must have exercised every kind of operation.
  for (Counter k : {kStores, kBlockedStores, kReads, kWrites, kDeletes, kAttaches, kDetaches,
                    kAppends, kBlockReads, kFrees}) {
    EXPECT_GT(g_reg->counters[k], 0u) << kCounterNames[k];
  }
  const std::pair<Extra, Counter> ran[] = {{kOverlap, kOverlapWrites},
                                           {kCompactItem, kItemCompactions},
                                           {kCompactFile, kFileCompactions},
                                           {kCheck, kChecks},
                                           {kRestart, kRestarts}};
  for (const auto& [extra, counter] : ran) {
    if (Has(extra)) {
      EXPECT_GT(g_reg->counters[counter], 0u) << kCounterNames[counter];
    }
  }
  munmap(mem, sizeof(Registry));
}

}  // namespace
