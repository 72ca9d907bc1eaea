// sfl_maint: the integrity check of a container file. It reads the file
// header, every item header in use, internal containers and index trees,
// builds its own map of the blocks they occupy (the shadow map), compares
// that with the file's free map, prints a numbered line for each fault and
// repairs some of them when asked and when no other process holds the file.
//
// The file is the check's input and may hold anything: every field read
// from it is distrusted, all arithmetic on offsets and sizes is done in 64
// bits against the file's real size, and every write the check makes lies
// within bytes it has just read in full.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <vector>

#include "cl.h"
#include "im.h"
#include "mes.h"
#include "os.h"
#include "sfl_alone.h"
#include "sfl_coding.h"
#include "sfl_int.h"

namespace {

// Item-check results.
constexpr int kSound = 255;
constexpr int kAllZero = 9;
constexpr int kTreeFailed = 8;
constexpr int kShortHeader = 6;
constexpr int kHeaderPastEnd = 5;
constexpr int kLocationPastEnd = 4;
constexpr int kWrongType = 3;
constexpr int kWrongMagic = 2;
constexpr int kSimpleFault = 1;

constexpr uint32_t kContainerMarkerType = 3;  // internal container: (12345678, 3)
constexpr uint32_t kContainerMinSize = 1024;
constexpr uint32_t kContainerSlots = 8;
constexpr uint32_t kContainerSlotsAt = 256;
constexpr uint32_t kInUseBits = 8;  // the in-use map is one byte

// The library never builds a tree of more than seven levels (root depth 6).
// The check follows offsets read from the file, so a damaged tree could
// lead it down a chain of any length; a record found deeper than this is
// reported (1012) instead of visited.
constexpr uint32_t kMaxTreeLevels = 7;
// Internal items are always blocked, so an internal container inside an
// internal container cannot be made by the library; a chain of them in a
// damaged file is cut here (1013) rather than followed to any depth.
constexpr int kMaxContainerNesting = 2;
// The shadow map may cover the file and this many blocks beyond its end
// (the last area's final block may run past the end). A damaged size or
// offset asking for more would make the map, and the memory it takes,
// arbitrarily large; such an area is refused like a collision.
constexpr uint64_t kShadowSlackBlocks = 2048;
constexpr size_t kShadowInitial = 256;

constexpr size_t kMessageBufferSize = 2049;

uint64_t BlocksOf(uint64_t bytes) { return (bytes + SFL_BLOCK_SIZE - 1) / SFL_BLOCK_SIZE; }

// Prints one fault line: the message's prefix, a space and its text, used as
// the format for `args`. The buffer is the process's one message buffer.
void Say(int number, ...) {
  static std::unique_ptr<char[]> buffer;
  if (!buffer) buffer.reset(new char[kMessageBufferSize]);
  char* buf = buffer.get();
  // Room is kept for the newline that ends the line.
  const size_t room = kMessageBufferSize - 1;
  int n = mes_GetErrMsgPrefix(MES_GROUP_MAINT, number, buf, room);
  size_t len = n < 0 ? std::strlen(buf) : static_cast<size_t>(n);
  if (len + 1 < room) {
    buf[len++] = ' ';
    mes_GetAnyErMsg(MES_GROUP_MAINT, number, buf + len, room - len);
    len = std::strlen(buf);
  }
  buf[len] = '\n';
  buf[len + 1] = '\0';
  va_list ap;
  va_start(ap, number);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::vprintf(buf, ap);
#pragma GCC diagnostic pop
  va_end(ap);
  std::fflush(stdout);
}

// u32 for printing: locations computed in 64 bits are shown as the file's
// 32-bit offsets.
unsigned U(uint64_t v) { return static_cast<unsigned>(v); }

struct FdCloser {
  int fd = -1;
  ~FdCloser() {
    if (fd >= 0) os_close(fd);  // closing also drops the whole-file lock
  }
};

// The interest recorded for the check, withdrawn when the check ends.
struct Interest {
  sfl_BaseRec rec;
  bool recorded = false;
  ~Interest() {
    if (!recorded) return;
    er_StatusKeeper keep;  // a failed withdrawal must not replace the check's own error
    try {
      sfl_ReleaseBaseInterest(&rec);
    } catch (const er_Escape&) {
      er_Clear();
    }
  }
};

// One record check's answer: the result (255 sound, lower worse) and
// whether the record and all below it are full.
struct RecordAnswer {
  int result = kSound;
  bool full = false;
};

class Checker {
 public:
  Checker(int fd, uint64_t size, bool repair, FILE* dump)
      : fd_(fd), size_(size), repair_(repair), dump_(dump), shadow_(kShadowInitial, 0) {
    shadowLimitBits_ = BlocksOf(size) + kShadowSlackBlocks;
  }

  void SetRepair(bool on) { repair_ = on; }
  // Whether another process holds the file, and so may still be storing.
  void SetOthersHold(bool on) { othersHold_ = on; }
  // Item headers this process is storing into (checked from inside it).
  void SetStoringHere(std::set<uint64_t> at) { storingHere_ = std::move(at); }
  bool repair() const { return repair_; }
  FILE* dump() const { return dump_; }

  // Reads what the file holds of [off, off + len). A failed read raises: an
  // I/O error must stop the check, never pass for damage that a repair
  // would then "mend" by marking sound items deleted.
  ssize_t ReadAt(void* buf, size_t len, uint64_t off) {
    return static_cast<ssize_t>(sfl_PReadUpTo(fd_, buf, len, off));
  }
  ssize_t WriteAt(const void* buf, size_t len, uint64_t off) {
    ssize_t n = os_pwrite(fd_, buf, len, static_cast<off_t>(off));
    return n < 0 ? 0 : n;
  }

  // Marks `bytes` at `off` in the shadow map. Returns false on a collision:
  // an empty area, a block already marked, or an area beyond the map's bound;
  // nothing is marked then.
  bool Mark(uint64_t off, uint64_t bytes) {
    const uint64_t n = BlocksOf(bytes);
    if (n == 0) return false;
    const uint64_t first = off / SFL_BLOCK_SIZE;
    if (first + n > shadowLimitBits_) return false;
    const uint64_t needBytes = (first + n + 7) / 8;
    if (needBytes > shadow_.size())
      shadow_.resize(BlocksOf(needBytes) * SFL_BLOCK_SIZE, 0);
    if (!Bits(first, n, false)) return false;
    Bits(first, n, true);
    return true;
  }

  int ItemCheck(uint64_t loc, bool repair, int nesting);
  bool CompareFreeMap(uint64_t tableOffset);
  // Whether the header at `loc` was marked deleted by this check.
  bool MarkedDeleted(uint64_t loc) const { return markedDeleted_.count(loc) != 0; }

 private:
  struct Record {
    uint64_t at = 0;
    sfl_IndexBytes raw{};
    sfl_IndexRecord rec;
  };

  // With set false: whether bits [first, first + n) are all clear. With set
  // true: sets them. Whole bytes are handled a byte at a time, so that a
  // damaged file full of long overlapping areas stays quick to check.
  bool Bits(uint64_t first, uint64_t n, bool set) {
    uint64_t b = first;
    const uint64_t end = first + n;
    while (b < end) {
      uint8_t& byte = shadow_[b / 8];
      if (b % 8 == 0 && end - b >= 8) {
        if (set)
          byte = 0xFF;
        else if (byte != 0)
          return false;
        b += 8;
        continue;
      }
      const uint8_t bit = static_cast<uint8_t>(1u << (b % 8));
      if (set)
        byte = static_cast<uint8_t>(byte | bit);
      else if (byte & bit)
        return false;
      ++b;
    }
    return true;
  }

  void MarkDeleted(uint64_t loc, sfl_ItemHeaderBytes raw, bool repair);
  int BlockedCheck(uint64_t loc, sfl_ItemHeaderBytes& raw, const sfl_ItemHeader& h, bool repair);
  RecordAnswer RecordCheck(Record& r, uint64_t expectedParent, uint32_t level, bool repair);
  int EverUsedWalk(uint64_t rootAt, bool repair);
  bool WalkRecord(uint64_t at, uint32_t level, bool repair, uint64_t* highest, int* result);
  void HoldEverUsed(Record& r, uint64_t highest, bool repair, int* result);

  int fd_;
  uint64_t size_;
  bool repair_;
  bool othersHold_ = false;
  std::set<uint64_t> storingHere_;
  FILE* dump_;
  std::vector<uint8_t> shadow_;
  uint64_t shadowLimitBits_ = 0;
  // Index records the record check found sound in the current tree; the
  // EverUsed walk descends only into these, each once.
  std::set<uint64_t> treeRecords_;
  std::set<uint64_t> walked_;
  // Headers marked deleted and written back whole.
  std::set<uint64_t> markedDeleted_;
};

// Zeroes the header's place and size, sets DELETED and writes it back.
void Checker::MarkDeleted(uint64_t loc, sfl_ItemHeaderBytes raw, bool repair) {
  if (!repair) return;
  sfl_PutU32(raw.data() + sfl_ih::AccCount, 0);
  sfl_PutU32(raw.data() + sfl_ih::FileSize, 0);
  sfl_PutU32(raw.data() + sfl_ih::UsedBlocks, 0);
  sfl_PutU32(raw.data() + sfl_ih::FileOffset, 0);
  // A deleted header holds no space, so it no longer names an index tree:
  // left blocked, its root would be read at offset 0 by the next check and
  // by the release of the item.
  const uint32_t flags = sfl_GetU32(raw.data() + sfl_ih::Flags);
  sfl_PutU32(raw.data() + sfl_ih::Flags, (flags & ~static_cast<uint32_t>(BLOCKED_ITEM)) | DELETED);
  ssize_t n = WriteAt(raw.data(), raw.size(), loc);
  // The text of 1000 shows the bytes written, so they go with the location.
  if (n != static_cast<ssize_t>(raw.size()))
    Say(1000, U(loc), static_cast<int>(n));
  else
    markedDeleted_.insert(loc);
}

// A slot taken for a new item whose process stopped before the item's
// first full header write: zeros but for the attach count, the date and,
// for a blocked item, its flag. Nothing else refers to it, so the repair
// frees the slot as it does an all-zero one.
bool UnwrittenSlot(const sfl_ItemHeader& h, const sfl_ItemHeaderBytes& raw) {
  constexpr size_t kReservedAt = 36;
  return h.Magic == 0 && h.Type == 0 && h.FileSize == 0 && h.UsedBlocks == 0 && h.FileOffset == 0 &&
         h.IndexDepth == 0 && (h.Flags & ~static_cast<uint32_t>(BLOCKED_ITEM)) == 0 &&
         std::all_of(raw.begin() + kReservedAt, raw.end(), [](uint8_t b) { return b == 0; });
}

int Checker::ItemCheck(uint64_t loc, bool repair, int nesting) {
  if (loc > size_) {
    Say(1017, U(loc));
    return kLocationPastEnd;
  }
  if (loc + SFL_ITEM_HEADER_SIZE > size_) {
    Say(1018, U(loc));
    return kHeaderPastEnd;
  }
  sfl_ItemHeaderBytes raw{};
  ssize_t n = ReadAt(raw.data(), raw.size(), loc);
  if (n != static_cast<ssize_t>(raw.size())) {
    Say(1019, U(loc), static_cast<int>(n));
    return kShortHeader;
  }
  if (dump_ != nullptr) sfl_DumpItemHeader(dump_, raw.data(), U(loc));
  if (std::all_of(raw.begin(), raw.end(), [](uint8_t b) { return b == 0; })) {
    Say(1041, U(loc));
    return kAllZero;
  }
  const sfl_ItemHeader h = sfl_DecodeItemHeader(raw);
  if (UnwrittenSlot(h, raw)) {
    Say(1048, U(loc));
    return kAllZero;
  }
  if (h.Magic != SFL_MAGIC) {
    Say(1020, U(loc), h.Magic);
    return kWrongMagic;
  }
  if (h.Type != SFL_TYPE_ITEM_HEADER) {
    Say(1021, U(loc), h.Type);
    return kWrongType;
  }
  if (h.Flags & BLOCKED_ITEM) return BlockedCheck(loc, raw, h, repair) == kSound ? kSound : kTreeFailed;
  // Stored without a source and never closed by its storer: the data it
  // holds may be the zeros it was stored with, or older bytes, in place of
  // what was to be written. While another process holds the file that may
  // be a store under way; with nobody else, it is a store cut short, which
  // the repair deletes.
  if ((h.Flags & INCOMPLETE) != 0 && (h.Flags & DELETED) == 0 && nesting == 0 && !othersHold_ &&
      storingHere_.count(loc) == 0) {
    Say(1050, U(loc));
    MarkDeleted(loc, raw, repair);
    return kSimpleFault;
  }

  // A simple item.
  const uint64_t off = h.FileOffset;
  if (off > size_) {
    Say(1022, U(loc));
    MarkDeleted(loc, raw, repair);
    return kSimpleFault;
  }
  if (off + h.FileSize > size_) {
    Say(1023, h.FileOffset, U(loc));
    MarkDeleted(loc, raw, repair);
    return kSimpleFault;
  }
  if (BlocksOf(h.FileSize) > h.UsedBlocks) {
    Say(1043, h.FileOffset, U(loc));
    MarkDeleted(loc, raw, repair);
  }
  if (h.FileSize != 0 || h.UsedBlocks != 0) {
    if (!Mark(off, static_cast<uint64_t>(h.UsedBlocks) * SFL_BLOCK_SIZE)) {
      Say(1024, h.FileOffset);
      MarkDeleted(loc, raw, repair);
      return kSimpleFault;
    }
  }

  // An internal container: the data starts with the marker and holds up to
  // eight item headers from 256 bytes in.
  if (h.FileSize >= kContainerMinSize) {
    uint8_t marker[8];
    if (ReadAt(marker, sizeof marker, off) == static_cast<ssize_t>(sizeof marker) &&
        sfl_GetU32(marker) == SFL_MAGIC && sfl_GetU32(marker + 4) == kContainerMarkerType) {
      if (nesting >= kMaxContainerNesting) {
        Say(1013, U(loc));
        return kSimpleFault;
      }
      bool failed = false;
      for (uint32_t slot = 0; slot < kContainerSlots; ++slot) {
        const uint64_t at = off + kContainerSlotsAt + uint64_t{SFL_ITEM_HEADER_SIZE} * slot;
        sfl_ItemHeaderBytes s{};
        if (ReadAt(s.data(), s.size(), at) != static_cast<ssize_t>(s.size())) continue;
        if (sfl_GetU32(s.data()) != SFL_MAGIC || sfl_GetU32(s.data() + 4) != SFL_TYPE_ITEM_HEADER)
          continue;
        if (dump_ != nullptr) std::fprintf(dump_, "=CICICICICICICICICICICI=%d\n", static_cast<int>(slot));
        const int r = ItemCheck(at, repair, nesting + 1);
        if (r == kSound) continue;
        failed = true;
        if (r >= 2 && r <= 7 && repair) {
          Say(1025, h.FileOffset);
          const sfl_ItemHeaderBytes zeros{};
          ssize_t w = WriteAt(zeros.data(), zeros.size(), at);
          // Reported after the write succeeded (the deletion mark reports a
          // failed one).
          if (w == static_cast<ssize_t>(zeros.size())) Say(1000, U(at), static_cast<int>(w));
        }
      }
      if (failed) return kTreeFailed;
    }
  }
  return kSound;
}

int Checker::BlockedCheck(uint64_t loc, sfl_ItemHeaderBytes& raw, const sfl_ItemHeader& h,
                          bool repair) {
  const uint64_t off = h.FileOffset;
  if (off > size_) {
    Say(1014, h.FileOffset);
    MarkDeleted(loc, raw, repair);
    return kSimpleFault;
  }
  if (off + h.FileSize > size_) {
    Say(1015, h.FileOffset);
    MarkDeleted(loc, raw, repair);
    return kSimpleFault;
  }
  Record root;
  root.at = off;
  ssize_t n = ReadAt(root.raw.data(), root.raw.size(), off);
  if (n != static_cast<ssize_t>(root.raw.size())) {
    Say(1016, h.FileOffset, static_cast<int>(n));
    MarkDeleted(loc, raw, repair);
    return kSimpleFault;
  }
  root.rec = sfl_DecodeIndex(root.raw);
  if (root.rec.Magic != SFL_MAGIC) {
    Say(1003, root.rec.Magic);
    MarkDeleted(loc, raw, repair);
    return kWrongMagic;
  }
  if (root.rec.Type != SFL_TYPE_INDEX) {
    Say(1004, root.rec.Type);
    MarkDeleted(loc, raw, repair);
    return kWrongType;
  }
  if (dump_ != nullptr) sfl_DumpBlockedIndex(dump_, root.raw.data(), U(off));
  if (!Mark(off, h.FileSize)) {
    Say(1005, h.FileOffset);
    MarkDeleted(loc, raw, repair);
    return kSimpleFault;
  }
  treeRecords_.clear();
  treeRecords_.insert(off);
  const RecordAnswer a = RecordCheck(root, loc, 0, repair);
  if (a.result != kSound) {
    // What the repair just mended (entries cleared, counts raised) can
    // leave the EverUsed counts on the way to the highest block short: they
    // are mended in the same run, or the next check would find them. The
    // answer stays the record check's.
    if (repair) EverUsedWalk(off, repair);
    return a.result;
  }
  return EverUsedWalk(off, repair);
}

RecordAnswer Checker::RecordCheck(Record& r, uint64_t expectedParent, uint32_t level, bool repair) {
  sfl_IndexRecord& x = r.rec;
  uint8_t* raw = r.raw.data();
  const bool branch = x.Depth != 0;
  RecordAnswer answer;
  int& result = answer.result;
  auto atMost = [&result](int bound) { result = std::min(result, bound); };
  bool repaired = false;

  if (branch && x.ParentOff != expectedParent) {
    Say(1006, U(r.at), x.ParentOff);
    atMost(7);
    if (repair) {
      x.ParentOff = static_cast<uint32_t>(expectedParent);
      sfl_PutU32(raw + sfl_ix::ParentOff, x.ParentOff);
      repaired = true;
    }
  }

  uint32_t count = 0;
  int last = -1;
  bool entryFailed = false;  // set by the first failed entry, never reset
  bool childrenFull = true;
  for (uint32_t i = 0; i < SFL_INDEX_ENTRIES; ++i) {
    sfl_IndexEntry& e = x.Entries[i];
    uint8_t* eraw = raw + sfl_ix::Entries + sfl_ix::EntrySize * i;
    const int entry = static_cast<int>(i);
    if (e.SectionOffSet == 0) continue;
    ++count;
    last = entry;
    const uint64_t off = e.SectionOffSet;
    bool bad = true;
    if (off > size_)
      Say(1008, entry, e.SectionOffSet);
    else if (off + e.SectionSize > size_)
      Say(1009, entry, U(r.at));
    else if (!Mark(off, e.SectionSize))
      Say(1010, entry, U(r.at));
    else
      bad = false;
    if (bad) {
      atMost(kSimpleFault);
      entryFailed = true;
      childrenFull = false;
      if (repair) {
        e.SectionOffSet = 0;
        sfl_PutU32(eraw, 0);
        repaired = true;
      }
      continue;
    }
    if (!branch) continue;
    if (entryFailed) {
      // Deliberately: after a failed entry the children of later entries
      // are not visited.
      childrenFull = false;
      continue;
    }

    // The child check.
    int childResult = kSound;
    Record child;
    child.at = off;
    if (e.SectionSize != SFL_INDEX_SIZE) {
      Say(1001, entry, U(r.at), e.SectionSize);
      childResult = kSimpleFault;
    } else if (ssize_t n = ReadAt(child.raw.data(), child.raw.size(), off);
               n != static_cast<ssize_t>(child.raw.size())) {
      Say(1002, e.SectionOffSet, static_cast<int>(n));
      childResult = kSimpleFault;
    } else {
      child.rec = sfl_DecodeIndex(child.raw);
      if (child.rec.Magic != SFL_MAGIC) {
        Say(1003, child.rec.Magic);
        childResult = kWrongMagic;
      } else if (child.rec.Type != SFL_TYPE_INDEX) {
        Say(1004, child.rec.Type);
        childResult = kWrongType;
      } else if (level + 1 >= kMaxTreeLevels) {
        Say(1012, entry, U(r.at));
        childResult = kSimpleFault;
      }
    }
    if (childResult != kSound) {
      atMost(childResult);
      childrenFull = false;
      if (repair) {
        e = sfl_IndexEntry{};
        sfl_PutU32(eraw, 0);
        sfl_PutU32(eraw + 4, 0);
        repaired = true;
      }
      continue;
    }
    if (dump_ != nullptr) sfl_DumpBlockedIndex(dump_, child.raw.data(), U(off));
    treeRecords_.insert(off);
    const RecordAnswer c = RecordCheck(child, r.at, level + 1, repair);
    atMost(c.result);
    if (!c.full) childrenFull = false;
    // A set bit over a child that is not full hides free entries from every
    // search. A clear bit over a full child is what the library leaves when
    // it fills a leaf through its cached path; its next search of the tree
    // sets the bit, so that is no fault.
    const bool bit = ((x.FreeMap >> i) & 1u) != 0;
    if (bit && !c.full) {
      Say(1044, entry, U(r.at), c.full ? 1 : 0);
      atMost(7);
      if (repair) {
        x.FreeMap &= ~(1u << i);
        sfl_PutU32(raw + sfl_ix::FreeMap, x.FreeMap);
        repaired = true;
      }
    }
  }

  // An empty entry of a branch cannot be full.
  for (uint32_t i = 0; branch && i < SFL_INDEX_ENTRIES; ++i) {
    const sfl_IndexEntry& e = x.Entries[i];
    if (e.SectionOffSet != 0 || e.SectionSize != 0 || ((x.FreeMap >> i) & 1u) == 0) continue;
    Say(1007, static_cast<int>(i), U(r.at));
    atMost(7);
    if (repair) {
      x.FreeMap &= ~(1u << i);
      sfl_PutU32(raw + sfl_ix::FreeMap, x.FreeMap);
      repaired = true;
    }
  }

  // Entries cleared by a repair above no longer count: the record is held
  // to what it will be once written back.
  count = static_cast<uint32_t>(std::count_if(x.Entries.begin(), x.Entries.end(),
                                              [](const sfl_IndexEntry& e) { return e.SectionOffSet != 0; }));
  if (x.Used != count) {
    Say(1039, U(r.at), x.Used, count);
    atMost(kTreeFailed);
    if (repair) {
      x.Used = count;
      sfl_PutU32(raw + sfl_ix::Used, count);
      repaired = true;
    }
  }
  if (!branch && last >= 1 && x.EverUsed < static_cast<uint32_t>(last) + 1) {
    Say(1040, U(r.at), x.EverUsed, static_cast<unsigned>(last + 1));
    atMost(kTreeFailed);
    if (repair) {
      // Set to the most a record can hold, not to the value needed.
      x.EverUsed = SFL_INDEX_ENTRIES;
      sfl_PutU32(raw + sfl_ix::EverUsed, x.EverUsed);
      repaired = true;
    }
  }
  if (repaired) {
    ssize_t n = WriteAt(r.raw.data(), r.raw.size(), r.at);
    if (n != static_cast<ssize_t>(r.raw.size())) Say(1011, U(r.at));
  }
  answer.full = count == SFL_INDEX_ENTRIES && (!branch || childrenFull);
  return answer;
}

// Entries under one entry of a record of depth d, 32^d, saturating: a
// damaged depth must not overflow the range arithmetic.
uint64_t Span(uint32_t depth) {
  uint64_t v = 1;
  for (uint32_t i = 0; i < depth; ++i) {
    if (v > (uint64_t{1} << 40)) return uint64_t{1} << 45;
    v *= SFL_INDEX_ENTRIES;
  }
  return v;
}

int Checker::EverUsedWalk(uint64_t rootAt, bool repair) {
  walked_.clear();
  uint64_t highest = 0;
  int result = kSound;
  WalkRecord(rootAt, 0, repair, &highest, &result);
  return result;
}

// Holds a record on the way to the highest block to its EverUsed.
void Checker::HoldEverUsed(Record& r, uint64_t highest, bool repair, int* result) {
  const sfl_IndexRecord& x = r.rec;
  const uint64_t base = x.BaseBlockNum;
  const uint64_t end = base + Span(x.Depth) * SFL_INDEX_ENTRIES;
  uint64_t needed = 0;
  if (end <= highest) {
    needed = SFL_INDEX_ENTRIES;
  } else if (highest >= base) {
    const uint64_t upTo = highest - base + 1;
    const uint64_t span = Span(x.Depth);
    needed = x.Depth != 0 ? (upTo + span - 1) / span : upTo;
    needed = std::min<uint64_t>(needed, SFL_INDEX_ENTRIES);
  }
  if (x.EverUsed >= needed) return;
  Say(1040, U(r.at), x.EverUsed, U(needed));
  *result = std::min(*result, kTreeFailed);
  if (!repair) return;
  r.rec.EverUsed = static_cast<uint32_t>(needed);
  sfl_PutU32(r.raw.data() + sfl_ix::EverUsed, r.rec.EverUsed);
  ssize_t n = WriteAt(r.raw.data(), r.raw.size(), r.at);
  if (n != static_cast<ssize_t>(r.raw.size())) Say(1011, U(r.at));
}

// Visits the record at `at` from its last entry down (the first one looked
// at is number 32, which lies in the reserved bytes after the entries), and
// depth first. Returns true once the highest block in use was found below
// (or in) this record; every record on the way back up is held to it.
bool Checker::WalkRecord(uint64_t at, uint32_t level, bool repair, uint64_t* highest, int* result) {
  Record r;
  r.at = at;
  ssize_t n = ReadAt(r.raw.data(), r.raw.size(), at);
  if (n != static_cast<ssize_t>(r.raw.size())) {
    Say(1002, U(at), static_cast<int>(n));
    *result = std::min(*result, kTreeFailed);
    return false;
  }
  // Only records the record check found sound are followed, each once: an
  // entry read from the reserved bytes, or a damaged tree, could otherwise
  // lead the walk round a cycle or into bytes that are no index record.
  if (treeRecords_.count(at) == 0 || !walked_.insert(at).second || level >= kMaxTreeLevels)
    return false;
  r.rec = sfl_DecodeIndex(r.raw);
  const uint8_t* raw = r.raw.data();
  for (int i = static_cast<int>(SFL_INDEX_ENTRIES); i >= 0; --i) {
    const uint32_t off = sfl_GetU32(raw + sfl_ix::Entries + sfl_ix::EntrySize * static_cast<size_t>(i));
    if (off == 0) continue;
    bool found = false;
    if (r.rec.Depth == 0) {
      *highest = static_cast<uint64_t>(i) + r.rec.BaseBlockNum;
      found = true;
    } else {
      found = WalkRecord(off, level + 1, repair, highest, result);
      // The reserved bytes hold no entry: a nonzero word there that leads
      // past the end of the file is damage (a torn write, say) of this
      // record alone. The repair zeroes the reserved bytes, as written.
      const bool reserved = i == static_cast<int>(SFL_INDEX_ENTRIES);
      if (reserved && repair && uint64_t{off} + SFL_INDEX_SIZE > size_) {
        const size_t from = sfl_ix::Entries + sfl_ix::EntrySize * SFL_INDEX_ENTRIES;
        std::fill(r.raw.begin() + static_cast<std::ptrdiff_t>(from), r.raw.end(), uint8_t{0});
        if (WriteAt(r.raw.data(), r.raw.size(), r.at) != static_cast<ssize_t>(r.raw.size())) Say(1011, U(r.at));
      }
    }
    if (found) {
      HoldEverUsed(r, *highest, repair, result);
      return true;
    }
  }
  return false;
}

bool Checker::CompareFreeMap(uint64_t loc) {
  if (loc > size_) {
    Say(1017, U(loc));
    return false;
  }
  if (loc + SFL_ITEM_HEADER_SIZE > size_) {
    Say(1018, U(loc));
    return false;
  }
  sfl_ItemHeaderBytes raw{};
  ssize_t n = ReadAt(raw.data(), raw.size(), loc);
  if (n != static_cast<ssize_t>(raw.size())) {
    Say(1019, U(loc), static_cast<int>(n));
    return false;
  }
  const sfl_ItemHeader h = sfl_DecodeItemHeader(raw);
  if (h.Magic != SFL_MAGIC) {
    Say(1020, U(loc), h.Magic);
    return false;
  }
  if (h.Type != SFL_TYPE_ITEM_HEADER) {
    Say(1021, U(loc), h.Type);
    return false;
  }
  if (h.Flags & BLOCKED_ITEM) ER_RAISE(ER_GROUP_MAINT, SFL_R_MAINT_MAP_BLOCKED);
  const uint64_t off = h.FileOffset;
  if (off > size_) {
    Say(1022, U(loc));
    return false;
  }
  if (off + h.FileSize > size_) {
    Say(1023, h.FileOffset, U(loc));
    return false;
  }
  if (h.FileSize < shadow_.size()) {
    Say(1034, h.FileSize, U(shadow_.size()));
    return false;
  }
  // Only the part the shadow map covers is compared, so only that much of
  // the map is read, however long the header says the map is.
  std::vector<uint8_t> map(shadow_.size());
  n = ReadAt(map.data(), map.size(), off);
  if (n != static_cast<ssize_t>(map.size())) {
    Say(1035);
    return false;
  }
  bool sound = true;
  bool repaired = false;
  for (size_t i = 0; i < map.size(); ++i) {
    const uint8_t disk = map[i];
    const uint8_t used = shadow_[i];
    if (disk == used) continue;
    if ((disk & used) == used) {
      Say(1037, U(i), static_cast<unsigned>(disk), static_cast<unsigned>(used));
      continue;
    }
    Say(1036, U(i), static_cast<unsigned>(disk), static_cast<unsigned>(used));
    sound = false;
    if (repair_) {
      map[i] = static_cast<uint8_t>(disk | used);
      repaired = true;
    }
  }
  if (repaired) {
    ssize_t w = WriteAt(map.data(), map.size(), off);
    if (w != static_cast<ssize_t>(map.size())) Say(1038);
  }
  return sound;
}

// Opens the file for the check: read-write, or read-only when only looking
// and the file cannot be written.
int OpenForCheck(const char* path, bool repair) {
  try {
    return im_OpenContainer(path, O_RDWR);
  } catch (const er_Escape& e) {
    if (repair || e.group() != ER_GROUP_OS || (e.reason() != EACCES && e.reason() != EROFS)) throw;
    er_Clear();
  }
  return im_OpenContainer(path, O_RDONLY);
}

// A creation cut short: creation makes the file empty, then writes the
// header at 0, the item table at 128 and, in a container, the free map at
// 640. A process killed in between leaves a prefix of that structure; a
// power cut before the creation's flush can keep any of the three writes
// and drop the others (a dropped one reads as zeros, a file extended past
// it included). So a file no longer than the structure, each of whose
// bytes is either zero or the byte creation writes there (the free map's
// change date aside), and which is not the whole structure, is one. No
// item can have been stored in such a file: a store needs the header and
// writes a slot of the table. A file of zeros cannot tell its kind: it is
// completed as a container, which goes at its first final close like any
// container without items. Gives the creation flags when the file is one,
// nothing otherwise.
std::optional<uint32_t> UnfinishedCreation(int fd, uint64_t size) {
  constexpr uint64_t kContainerEnd = SFL_CONTAINER_DATA_OFFSET + SFL_INITIAL_MAP_SIZE;
  if (size > kContainerEnd) return std::nullopt;
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  // Read as the check reads: a transfer that comes up short is continued,
  // and one that fails raises, so neither passes for a file of other bytes.
  if (sfl_PReadUpTo(fd, bytes.data(), bytes.size(), 0) != bytes.size()) return std::nullopt;
  constexpr size_t kDateAt = SFL_TABLE_OFFSET + sfl_ih::ChangeDate;
  for (const uint32_t flags : {0u, uint32_t{SINGLE_FILE}, uint32_t{ASYNCHRONOUS},
                               uint32_t{SINGLE_FILE | ASYNCHRONOUS}}) {
    sfl_FileHeader h;
    std::vector<uint8_t> table, map;
    sfl_NewFileImage(flags, &h, &table, &map);
    std::vector<uint8_t> image(h.DataOffset + map.size(), 0);
    sfl_EncodeFileHeader(h, std::span<uint8_t, SFL_FILE_HEADER_SIZE>(image.data(), SFL_FILE_HEADER_SIZE));
    std::copy(table.begin(), table.end(), image.begin() + h.TableOffset);
    std::copy(map.begin(), map.end(), image.begin() + h.DataOffset);
    if (size > image.size()) continue;
    bool prefix = true, whole = size == image.size();
    for (size_t i = 0; i < bytes.size() && prefix; ++i) {
      if (i >= kDateAt && i < kDateAt + 4 && !map.empty()) continue;
      prefix = bytes[i] == 0 || bytes[i] == image[i];
      whole = whole && bytes[i] == image[i];
    }
    // The whole structure is a container, whatever another set of flags
    // would take for zeros.
    if (prefix) return whole ? std::nullopt : std::optional<uint32_t>(flags);
  }
  return std::nullopt;
}

// Reports a creation cut short and, when repairing, completes it with the
// structure creation writes: the file becomes an empty container (removed,
// like any container without items, at its first final close). A process
// still creating the file holds its header lock; the file is then left to
// it. Either way the result is a fault.
int32_t CompleteCreation(int fd, uint64_t size, uint32_t flags, bool repair) {
  Say(1045, U(size));
  if (!repair) return 1;
  if (os_TryLockPart(fd, OS_LOCK_EXCL | OS_LOCK_NOWAIT, SEEK_SET, 0, 0, SFL_FILE_HEADER_SIZE, 0) == 0) {
    Say(1046);
    return 1;
  }
  sfl_FileHeader h;
  std::vector<uint8_t> table, map;
  sfl_NewFileImage(flags, &h, &table, &map);
  sfl_FileHeaderBytes raw{};
  sfl_EncodeFileHeader(h, raw);
  // The lock goes with the check's descriptor when the check ends.
  if (os_pwrite(fd, raw.data(), raw.size(), 0) != static_cast<ssize_t>(raw.size()) ||
      os_pwrite(fd, table.data(), table.size(), h.TableOffset) != static_cast<ssize_t>(table.size()) ||
      (!map.empty() &&
       os_pwrite(fd, map.data(), map.size(), h.DataOffset) != static_cast<ssize_t>(map.size())))
    ER_RAISE(ER_GROUP_MAINT, SFL_R_MAINT_HEADER_WRITE);
  Say(1047);
  return 1;
}

// A slot taken for a new item and not written yet (UnwrittenSlot), found
// while another process holds the file, is that process's store under way:
// the store writes the item's header once it has taken space, without the
// header lock the check holds.
bool SlotBeingStored(Checker& c, uint64_t loc) {
  sfl_ItemHeaderBytes raw{};
  const bool whole = c.ReadAt(raw.data(), raw.size(), loc) == static_cast<ssize_t>(raw.size());
  return whole && UnwrittenSlot(sfl_DecodeItemHeader(raw), raw);
}

// The item headers of the file `ref` names that this process has stored
// into and not yet closed: a check run from inside the storing process
// leaves them alone, as it does another process's.
std::set<uint64_t> StoringHere(const sfl_ItemRef& ref) {
  std::set<uint64_t> out;
  sfl_ItemsTable& items = sfl_OpenItems();
  for (size_t i = 0; i < items.HighWater(); ++i) {
    const sfl_ItemRec* r = items.At(i);
    if (r == nullptr || r->InUse != 1 || r->Incomplete == 0 || r->BaseRecord == nullptr) continue;
    if (sfl_SameFile(sfl_RefOf(*r->BaseRecord), ref)) out.insert(r->HeaderOff);
  }
  return out;
}

// Whether the header at `loc` is an item marked deleted.
bool DeletedItem(Checker& c, uint64_t loc) {
  sfl_ItemHeaderBytes raw{};
  if (c.ReadAt(raw.data(), raw.size(), loc) != static_cast<ssize_t>(raw.size())) return false;
  const sfl_ItemHeader h = sfl_DecodeItemHeader(raw);
  return h.Magic == SFL_MAGIC && h.Type == SFL_TYPE_ITEM_HEADER && (h.Flags & DELETED) != 0;
}

// Opens of a name that moved on to another file (a rebuild renamed a new
// one over it) before the check could lock it.
constexpr int kOpenAttempts = 8;

int32_t RunCheck(const sfl_ItemRef& ref, const char* path, bool repairAsked, FILE* dump,
                 FdCloser& file, Interest& interest) {
  // The check reads the file under its header lock, held to the end:
  // exclusive when it may repair, so that it repairs only while no other
  // process uses the file and none can start to; shared when it only looks,
  // so that processes go on opening and using the file, but no item slot is
  // taken or given back, no item deleted and the file is neither removed
  // nor replaced while it is read.
  interest.rec = sfl_BaseRec{};
  sfl_SetRef(interest.rec, ref);
  sfl_HoldAlone exclusive;
  sfl_Held shared;
  uint64_t size = 0;
  for (int attempt = 1;; ++attempt) {
    file.fd = OpenForCheck(path, repairAsked);
    if (os_flock(file.fd, LOCK_EX) != 0) ER_RAISE_MSG(ER_GROUP_OS, errno, path);
    struct stat st;
    if (os_fstat(file.fd, &st) != 0) ER_RAISE_MSG(ER_GROUP_OS, errno, path);
    size = static_cast<uint64_t>(st.st_size);
    // A creation cut short has a lock protocol of its own (its creator may
    // still hold the header lock).
    if (const std::optional<uint32_t> flags = UnfinishedCreation(file.fd, size))
      return CompleteCreation(file.fd, size, *flags, repairAsked);
    if (size <= SFL_FILE_HEADER_SIZE) SFL_RAISE(SFL_R_BAD_FILE);
    interest.rec.FileDes = file.fd;
    if (repairAsked)
      exclusive.Lock(&interest.rec);
    else
      shared.Header(&interest.rec, SFL_LOCK_SHARED);
    // Under the lock the name stays where it is: the file checked is the one
    // it leads to.
    if (sfl_SameInode(file.fd, path)) break;
    exclusive.Release();
    shared.Unlock();
    os_close(file.fd);
    file.fd = -1;
    if (attempt == kOpenAttempts) ER_RAISE_MSG(ER_GROUP_OS, ESTALE, path);
  }
  // The file may have grown before the lock was taken.
  struct stat st;
  if (os_fstat(file.fd, &st) != 0) ER_RAISE_MSG(ER_GROUP_OS, errno, path);
  size = static_cast<uint64_t>(st.st_size);
  Checker c(file.fd, size, repairAsked, dump);

  sfl_FileHeaderBytes raw{};
  if (c.ReadAt(raw.data(), raw.size(), 0) != static_cast<ssize_t>(raw.size()))
    ER_RAISE(ER_GROUP_MAINT, SFL_R_MAINT_HEADER_SHORT);
  const sfl_FileHeader fh = sfl_DecodeFileHeader(raw);
  if (fh.Magic != SFL_MAGIC) {
    Say(1027, fh.Magic);
    SFL_RAISE(SFL_R_BAD_FILE);
  }
  if (fh.Type != SFL_TYPE_FILE_HEADER) {
    Say(1028, fh.Type);
    SFL_RAISE(SFL_R_BAD_FILE);
  }
  if (dump != nullptr) sfl_DumpHeader(dump, raw.data(), 0);

  if (repairAsked) {
    exclusive.Decide(sfl_Interest::Record);
  } else {
    sfl_RecordBaseInterest(&interest.rec);
  }
  interest.recorded = true;
  if (c.repair() && !exclusive.Alone()) {
    c.SetRepair(false);
    Say(1029);
  }

  const bool othersHold = interest.rec.ProcAccCount != 1 || interest.rec.OtherInterest != 0;
  c.SetOthersHold(othersHold);
  c.SetStoringHere(StoringHere(ref));

  int32_t fault = 0;
  uint32_t maxItems = fh.MaxItems;
  const bool single = (fh.Flags & SINGLE_FILE) != 0;
  if (maxItems == 0 || (single && maxItems != 1)) {
    // The check holds a single-item file to exactly one item slot.
    Say(1030, static_cast<unsigned>(fh.MaxItems));
    fault = 1;
    maxItems = maxItems != 0 ? 1 : (single ? 1 : SFL_CONTAINER_MAX_ITEMS);
  }

  c.Mark(0, SFL_FILE_HEADER_SIZE);
  c.Mark(fh.TableOffset, uint64_t{maxItems} * SFL_ITEM_HEADER_SIZE);

  uint8_t inUse = fh.InUseItms;
  uint16_t usedItems = fh.UsedItems;
  bool inUseChanged = false;
  bool pendingDeletion = false;
  bool compareMap = true;
  // The in-use map is one byte: slots past the eighth have no bit.
  const uint32_t slots = std::min(maxItems, kInUseBits);
  for (uint32_t i = 0; i < slots; ++i) {
    if ((inUse & (1u << i)) == 0) continue;
    const uint64_t loc = uint64_t{fh.TableOffset} + uint64_t{SFL_ITEM_HEADER_SIZE} * i;
    // A store under way in another process is not a fault (see
    // SlotBeingStored); with nobody else holding the file, the same slot is
    // a store cut short.
    if (i != 0 && othersHold && SlotBeingStored(c, loc)) continue;
    // Slot 0 holds the free map, which the check never repairs as an item.
    const bool repairSlot = c.repair() && i != 0;
    const int r = c.ItemCheck(loc, repairSlot, 0);
    // A table item the repair marked deleted is released like any deleted
    // item, by the final close once no process holds the file: the file
    // says so with ITEM_PEND_DEL. Its header no longer names any space, so
    // the release gives back its slot and count and frees nothing.
    if (repairSlot && c.MarkedDeleted(loc)) pendingDeletion = true;
    // A deleted item in a file that does not say a release is pending would
    // hold its slot and space for ever: the repair marks the file.
    if (i != 0 && (fh.Flags & ITEM_PEND_DEL) == 0 && !c.MarkedDeleted(loc) && DeletedItem(c, loc)) {
      Say(1049, U(loc));
      fault = 1;
      if (c.repair()) pendingDeletion = true;
    }
    if (r == kSound) continue;
    fault = 1;
    if (r == kAllZero && repairSlot) {
      // The slot is free again, so it no longer counts as one in use.
      inUse = static_cast<uint8_t>(inUse & ~(1u << i));
      if (usedItems > 0) --usedItems;
      inUseChanged = true;
    } else if (r >= 1 && r <= 7) {
      Say(1031, U(loc));
      if (i == 0) compareMap = false;
    }
  }

  if (compareMap && !c.CompareFreeMap(fh.TableOffset)) fault = 1;

  if (inUseChanged || (pendingDeletion && (fh.Flags & ITEM_PEND_DEL) == 0)) {
    raw[sfl_fh::InUseItms] = inUse;
    sfl_PutU16(raw.data() + sfl_fh::UsedItems, usedItems);
    if (pendingDeletion) sfl_PutU32(raw.data() + sfl_fh::Flags, fh.Flags | ITEM_PEND_DEL);
    if (c.WriteAt(raw.data(), raw.size(), 0) != static_cast<ssize_t>(raw.size()))
      ER_RAISE(ER_GROUP_MAINT, SFL_R_MAINT_HEADER_WRITE);
  }
  return fault;
}

}  // namespace

extern "C" int32_t sfl_CheckSflIntegrity2(const sfl_ItemRef* ref, int32_t repair, FILE* dump) {
  ER_TRACE_PROC("sfl_CheckSflIntegrity2");
  if (ref == nullptr) ER_RAISE(ER_GROUP_CALL, EINVAL);
  if (ref->Flags & SFL_ITEM_NUM_MASK) ER_RAISE(ER_GROUP_MAINT, SFL_R_MAINT_REF_IS_ITEM);
  char path[4096];
  im_ItemRef2FName(ref, path, sizeof path);

  int32_t result = 1;
  try {
    // Declared inside the frame so that an escape releases them (interest
    // first, then the descriptor and with it the whole-file lock) before
    // the error is shown.
    FdCloser file;
    Interest interest;
    result = RunCheck(*ref, path, repair != 0, dump, file, interest);
  } catch (const er_Escape& e) {
    std::fflush(stdout);
    cl_DisplayError(e.group(), e.reason(), path);
    er_Accept(3);
    result = 1;
    if (er_GetLive()) throw;
  }
  std::fflush(stdout);
  return result;
}

extern "C" int32_t sfl_CheckSflIntegrity(const sfl_ItemRef* ref, int32_t repair) {
  return sfl_CheckSflIntegrity2(ref, repair, nullptr);
}
