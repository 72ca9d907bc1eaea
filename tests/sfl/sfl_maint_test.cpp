// The integrity check: containers made by the library check clean; each
// kind of damage, made by hand in a real container, gives its numbered
// message, the result, and with repair the bytes written and a clean second
// check; another process holding the file stops every repair; and random
// damage always ends in a report and a result.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;
using sfltest::EscapeOf;

// ---- running the check ---------------------------------------------------------------

struct CheckRun {
  int32_t result = -1;
  std::string out;  // the fault lines
  std::string err;  // an error shown by the check
  std::vector<int> numbers;  // the message numbers printed, in order

  bool Saw(int number) const { return std::count(numbers.begin(), numbers.end(), number) > 0; }
  // The printed line of message `number` (the first one).
  std::string Line(int number) const {
    const std::string key = "SFL-204-" + std::to_string(number) + ":";
    size_t at = out.find(key);
    if (at == std::string::npos) return "";
    return out.substr(at, out.find('\n', at) - at);
  }
};

std::vector<int> NumbersIn(const std::string& text) {
  std::vector<int> numbers;
  static const std::regex line("^SFL-204-([0-9]+): ");
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::smatch m;
    const std::string l = text.substr(start, end - start);
    if (std::regex_search(l, m, line)) numbers.push_back(std::stoi(m[1]));
    start = end + 1;
  }
  return numbers;
}

CheckRun RunCheck(const sfl_ItemRef& ref, int32_t repair, FILE* dump = nullptr) {
  CheckRun run;
  sfltest::CapturedOutput out(1), err(2);
  run.result = sfl_CheckSflIntegrity2(&ref, repair, dump);
  run.err = err.Stop();
  run.out = out.Stop();
  run.numbers = NumbersIn(run.out);
  return run;
}

std::string Describe(const CheckRun& r) {
  return "result " + std::to_string(r.result) + "\nout:\n" + r.out + "err:\n" + r.err;
}

// ---- raw access to a container ------------------------------------------------------------

class RawFile {
 public:
  explicit RawFile(const std::string& path) : fd_(::open(path.c_str(), O_RDWR)) {
    EXPECT_GE(fd_, 0) << path;
  }
  ~RawFile() { ::close(fd_); }
  Bytes Read(uint64_t off, size_t len) { return sfltest::ReadExactly(fd_, off, len); }
  uint32_t U32(uint64_t off) { return sfl_GetU32(Read(off, 4).data()); }
  void Write(uint64_t off, const Bytes& b) {
    ASSERT_EQ(::pwrite(fd_, b.data(), b.size(), static_cast<off_t>(off)), static_cast<ssize_t>(b.size()));
  }
  void PutU32(uint64_t off, uint32_t v) {
    Bytes b(4);
    sfl_PutU32(b.data(), v);
    Write(off, b);
  }
  void PutU16(uint64_t off, uint16_t v) {
    Bytes b(2);
    sfl_PutU16(b.data(), v);
    Write(off, b);
  }
  sfl_ItemHeader Header(uint64_t off) {
    Bytes b = Read(off, SFL_ITEM_HEADER_SIZE);
    return sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(b.data(), SFL_ITEM_HEADER_SIZE));
  }
  sfl_IndexRecord Index(uint64_t off) {
    Bytes b = Read(off, SFL_INDEX_SIZE);
    return sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE>(b.data(), SFL_INDEX_SIZE));
  }
  uint64_t Size() {
    struct stat st;
    ::fstat(fd_, &st);
    return static_cast<uint64_t>(st.st_size);
  }
  void Truncate(uint64_t len) { ASSERT_EQ(::ftruncate(fd_, static_cast<off_t>(len)), 0); }
  int fd() const { return fd_; }

 private:
  int fd_;
};

uint64_t SlotAt(uint32_t n) { return SFL_TABLE_OFFSET + uint64_t{SFL_ITEM_HEADER_SIZE} * n; }
uint64_t EntryAt(uint64_t record, uint32_t n) { return record + sfl_ix::Entries + sfl_ix::EntrySize * n; }

Bytes Pattern(uint32_t seed, uint32_t len) {
  Bytes b(len);
  for (uint32_t i = 0; i < len; ++i) b[i] = static_cast<uint8_t>(seed * 31 + i * 7 + 1);
  return b;
}

// ---- containers made by the library ---------------------------------------------------------

// A new container, open; Close() closes it (into the cold store, which
// withdraws this process's interest, so the check sees itself alone).
class Made {
 public:
  Made() {
    auto c = sfltest::NewContainer();
    bh_ = c.bh;
    ref_ = c.ref;
  }
  ~Made() {
    if (bh_ >= 0) sfl_CloseFile(bh_);
  }
  int32_t bh() const { return bh_; }
  const sfl_ItemRef& ref() const { return ref_; }
  std::string Path() const { return sfltest::ItemPath(ref_); }

  // A simple item of `size` bytes, written whole; returns its slot.
  uint32_t Simple(uint32_t size) {
    sfl_ItemRef ref{};
    int32_t h = sfl_StoreBasicItem(bh_, nullptr, size, &ref, 0);
    if (size > 0) {
      Bytes d = Pattern(size, size);
      EXPECT_EQ(sfl_WriteSimpleData(h, 0, size, d.data()), static_cast<int32_t>(size));
    }
    sfl_CloseItem(h);
    return sfl_ItemNumOf(ref);
  }
  // A blocked item in the item table with `blocks` blocks of `len` bytes.
  uint32_t Blocked(uint32_t blocks, uint32_t len = 40, int mode = 0) {
    sfl_ItemRef ref{};
    int32_t h = sfl_CreateBlockedItem(bh_, &ref);
    sfl_FormatBlockedRoot(h);
    for (uint32_t i = 0; i < blocks; ++i) {
      Bytes d = Pattern(i, len);
      sfl_GetNewBlock(h, static_cast<int32_t>(len), mode, d.data());
    }
    sfl_CloseItem(h);
    return sfl_ItemNumOf(ref);
  }
  // A simple item of `size` bytes laid out as an internal container: the
  // marker, and an internal blocked item at each of `slots` with `blocks`
  // blocks each.
  uint32_t InternalContainer(uint32_t size, const std::vector<uint32_t>& slots, uint32_t blocks) {
    sfl_ItemRef ref{};
    int32_t h = sfl_StoreBasicItem(bh_, nullptr, size, &ref, 0);
    Bytes marker(8);
    sfl_PutU32(marker.data(), SFL_MAGIC);
    sfl_PutU32(marker.data() + 4, 3);
    EXPECT_EQ(sfl_WriteSimpleData(h, 0, 8, marker.data()), 8);
    for (uint32_t s : slots) {
      int32_t ih = sfl_CreateIntBItem(h, 0, 256 + 64 * s, 0);
      for (uint32_t i = 0; i < blocks; ++i) {
        Bytes d = Pattern(i + s, 30);
        sfl_GetNewBlock(ih, 30, 0, d.data());
      }
      sfl_CloseIntItem(ih);
    }
    sfl_CloseItem(h);
    return sfl_ItemNumOf(ref);
  }
  void Close() {
    sfl_CloseFile(bh_);
    bh_ = -1;
  }

 private:
  int32_t bh_ = -1;
  sfl_ItemRef ref_{};
};

// The fault lines other than extra used bits in the free map, which are
// not faults.
std::vector<int> Faults(const CheckRun& r) {
  std::vector<int> f;
  for (int n : r.numbers)
    if (n != 1037) f.push_back(n);
  return f;
}

void ExpectClean(const sfl_ItemRef& ref) {
  CheckRun r = RunCheck(ref, 0);
  EXPECT_EQ(r.result, 0) << Describe(r);
  EXPECT_TRUE(Faults(r).empty()) << Describe(r);
  EXPECT_EQ(r.err, "");
}

// ---- containers made by the library check clean ------------------------------------------------

// An empty container goes at its last close, so it is checked open (this
// process's own interest does not matter when nothing is to be repaired).
TEST(CheckLibraryFiles, EmptyContainer) {
  Made m;
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 0) << Describe(r);
  EXPECT_TRUE(r.numbers.empty()) << Describe(r);
}

TEST(CheckLibraryFiles, SimpleItemsOfManySizes) {
  for (const std::vector<uint32_t>& sizes :
       {std::vector<uint32_t>{0, 1, 127, 128, 129, 1000, 5000},
        std::vector<uint32_t>{300000, 64, 1, 2048, 70000, 0, 129}}) {
    Made m;
    for (uint32_t s : sizes) m.Simple(s);
    m.Close();
    ExpectClean(m.ref());
  }
}

TEST(CheckLibraryFiles, BlockedItemsOfDepthZeroToTwo) {
  Made m;
  const uint32_t d0 = m.Blocked(20);
  const uint32_t d1 = m.Blocked(100, 20, 1);
  const uint32_t d2 = m.Blocked(1100, 10);
  m.Close();
  RawFile f(m.Path());
  EXPECT_EQ(f.Header(SlotAt(d0)).IndexDepth, 0u);
  EXPECT_EQ(f.Header(SlotAt(d1)).IndexDepth, 1u);
  EXPECT_EQ(f.Header(SlotAt(d2)).IndexDepth, 2u);
  ExpectClean(m.ref());
}

TEST(CheckLibraryFiles, FullLeavesAndExactLevelBoundaries) {
  for (uint32_t blocks : {32u, 33u, 64u, 1024u, 1025u}) {
    Made m;
    m.Blocked(blocks, 8);
    m.Blocked(blocks, 8, 1);
    m.Close();
    SCOPED_TRACE(blocks);
    ExpectClean(m.ref());
  }
}

TEST(CheckLibraryFiles, InternalItemsInAnInternalContainer) {
  Made m;
  m.Simple(500);
  m.InternalContainer(2048, {0, 3, 7}, 40);
  m.Close();
  ExpectClean(m.ref());
}

TEST(CheckLibraryFiles, AfterDeletionsAndFrees) {
  Made m;
  const uint32_t a = m.Simple(1000);
  m.Simple(4000);
  // Free some blocks of a blocked item, in a leaf and across leaves.
  sfl_ItemRef bref{};
  int32_t h = sfl_CreateBlockedItem(m.bh(), &bref);
  sfl_FormatBlockedRoot(h);
  for (uint32_t i = 0; i < 70; ++i) {
    Bytes d = Pattern(i, 50);
    sfl_GetNewBlock(h, 50, 0, d.data());
  }
  for (uint32_t b : {3u, 31u, 32u, 40u, 69u}) sfl_FreeBlock(h, b, 0);
  sfl_CloseItem(h);
  // Delete a simple item while alone: its space goes back at once.
  sfl_ItemRef aref = sfl_ItemRefIn(*sfl_Handle2Record(m.bh()), a);
  int32_t ha = sfl_OpenItem(&aref, 0);
  sfl_DetachOpenItem(ha);
  sfl_DeleteItem(ha);
  sfl_CloseItem(ha);
  m.Simple(200);
  m.Close();
  ExpectClean(m.ref());
}

// ---- the dump stream ---------------------------------------------------------------------------

size_t Occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(CheckDump, EveryHeaderAndIndexRecordReadIsDumped) {
  Made m;
  m.Simple(100);
  m.Blocked(40);  // a root and two leaves
  m.InternalContainer(2048, {2, 6}, 3);  // two internal items, one leaf each
  m.Close();
  FILE* dump = std::tmpfile();
  ASSERT_NE(dump, nullptr);
  CheckRun r = RunCheck(m.ref(), 0, dump);
  EXPECT_EQ(r.result, 0) << Describe(r);
  std::string text;
  std::rewind(dump);
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, dump)) > 0;) text.append(buf, n);
  std::fclose(dump);
  EXPECT_EQ(text.rfind("=HHHHHHHHHHHHHHHHHHHHHHHH=\nLocation=0x00000000 (0)\n", 0), 0u) << text;
  EXPECT_EQ(Occurrences(text, "=HHHHHHHHHHHHHHHHHHHHHHHH="), 1u);
  // Slots 0 to 3, and the two internal headers.
  EXPECT_EQ(Occurrences(text, "=IIIIIIIIIIIIIIIIIIIIIIII="), 6u);
  EXPECT_EQ(Occurrences(text, "=XXXXXXXXXXXXXXXXXXXXXXXX="), 5u);
  EXPECT_EQ(Occurrences(text, "=CICICICICICICICICICICI=2\n"), 1u);
  EXPECT_EQ(Occurrences(text, "=CICICICICICICICICICICI=6\n"), 1u);
  // The fault lines stay on standard output, away from the dump.
  EXPECT_EQ(text.find("SFL-204-"), std::string::npos);
}

// ---- damage made by hand ------------------------------------------------------------------------

// The free map's place, from slot 0's header.
struct MapPlace {
  uint64_t off = 0;
  uint32_t size = 0;
};
MapPlace MapOf(RawFile& f) {
  sfl_ItemHeader h = f.Header(SlotAt(0));
  return {h.FileOffset, h.FileSize};
}
bool MapBit(RawFile& f, uint64_t block) {
  return (f.Read(MapOf(f).off + block / 8, 1)[0] >> (block % 8)) & 1u;
}
void SetMapBit(RawFile& f, uint64_t block, bool on) {
  const uint64_t at = MapOf(f).off + block / 8;
  Bytes b = f.Read(at, 1);
  if (on)
    b[0] = static_cast<uint8_t>(b[0] | (1u << (block % 8)));
  else
    b[0] = static_cast<uint8_t>(b[0] & ~(1u << (block % 8)));
  f.Write(at, b);
}

// A checked second run with repair, then one without: both clean.
void ExpectCleanAfterRepair(const sfl_ItemRef& ref) {
  SCOPED_TRACE("second check");
  ExpectClean(ref);
}

// The check found exactly one kind of fault, `number`, and printed `line` for it.
void ExpectOnlyFault(const CheckRun& r, int number, const std::string& line) {
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{number}) << Describe(r);
  EXPECT_EQ(r.Line(number), line);
}

TEST(CheckFaults, SpaceInUseMarkedFreeIsRepaired) {
  Made m;
  const uint32_t slot = m.Simple(1000);
  m.Close();
  RawFile f(m.Path());
  const sfl_ItemHeader h = f.Header(SlotAt(slot));
  const uint64_t last = h.FileOffset / 128 + h.UsedBlocks - 1;
  SetMapBit(f, last, false);
  const Bytes damaged = f.Read(MapOf(f).off + last / 8, 1);

  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1036}) << Describe(r);
  char want[128];
  std::snprintf(want, sizeof want, "SFL-204-1036: free-map byte %u is 0x%02x but the space in use needs 0x%02x",
                static_cast<unsigned>(last / 8), damaged[0], damaged[0] | (1u << (last % 8)));
  EXPECT_EQ(r.Line(1036).rfind(want, 0), 0u) << r.Line(1036);
  EXPECT_FALSE(MapBit(f, last));  // not repaired without asking

  r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_TRUE(r.Saw(1036));
  EXPECT_TRUE(MapBit(f, last));
  EXPECT_EQ(f.Read(MapOf(f).off + last / 8, 1)[0], damaged[0] | (1u << (last % 8)));
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, ExtraUsedBitsAreReportedButLeaveTheResultZero) {
  Made m;
  m.Simple(300);
  m.Close();
  RawFile f(m.Path());
  SetMapBit(f, 100, true);
  const Bytes before = sfltest::FileBytes(m.Path());
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 0) << Describe(r);
  EXPECT_EQ(r.numbers, std::vector<int>{1037}) << Describe(r);
  EXPECT_EQ(r.Line(1037).rfind("SFL-204-1037: free-map byte 12 is 0x10 but only 0x00 is in use", 0), 0u)
      << r.Line(1037);
  EXPECT_EQ(sfltest::FileBytes(m.Path()), before);  // nothing to repair
}

TEST(CheckFaults, CollisionOfTwoItems) {
  Made m;
  const uint32_t a = m.Simple(1000);
  const uint32_t b = m.Simple(1000);
  m.Close();
  RawFile f(m.Path());
  const uint32_t aOff = f.Header(SlotAt(a)).FileOffset;
  f.PutU32(SlotAt(b) + sfl_ih::FileOffset, aOff);

  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_TRUE(r.Saw(1024)) << Describe(r);
  EXPECT_EQ(r.Line(1024).rfind("SFL-204-1024: item data at file offset " + std::to_string(aOff), 0), 0u);
  EXPECT_TRUE(r.Saw(1031));

  r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1);
  const sfl_ItemHeader h = f.Header(SlotAt(b));
  EXPECT_EQ(h.AccCount, 0u);
  EXPECT_EQ(h.FileSize, 0u);
  EXPECT_EQ(h.UsedBlocks, 0u);
  EXPECT_EQ(h.FileOffset, 0u);
  EXPECT_EQ(h.Flags & DELETED, static_cast<uint32_t>(DELETED));
  EXPECT_EQ(f.Header(SlotAt(a)).FileOffset, aOff);  // the first owner keeps its space
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, BranchWithWrongParentIsRepaired) {
  Made m;
  const uint32_t slot = m.Blocked(40);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  ASSERT_EQ(f.Index(root).Depth, 1u);
  f.PutU32(root + sfl_ix::ParentOff, 4444);

  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1006}) << Describe(r);
  EXPECT_EQ(r.Line(1006).rfind("SFL-204-1006: index record at file offset " + std::to_string(root) +
                                   " names 4444 as its parent",
                               0),
            0u)
      << r.Line(1006);
  EXPECT_EQ(f.Index(root).ParentOff, SlotAt(slot));
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, WrongParentOfALeafIsNotChecked) {
  Made m;
  const uint32_t slot = m.Blocked(40);
  m.Close();
  RawFile f(m.Path());
  const uint64_t leaf = f.Index(f.Header(SlotAt(slot)).FileOffset).Entries[1].SectionOffSet;
  f.PutU32(leaf + sfl_ix::ParentOff, 4444);
  ExpectClean(m.ref());
}

TEST(CheckFaults, UsedCountWrongIsRepaired) {
  Made m;
  const uint32_t slot = m.Blocked(5);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  f.PutU32(root + sfl_ix::Used, 9);
  CheckRun r = RunCheck(m.ref(), 1);
  ExpectOnlyFault(r, 1039, "SFL-204-1039: the index record at file offset " + std::to_string(root) +
                           " counts 9 entries in use, but 5 are");
  EXPECT_EQ(f.Index(root).Used, 5u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, LeafEverUsedTooSmallIsRaisedToThirtyTwo) {
  Made m;
  const uint32_t slot = m.Blocked(5);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  f.PutU32(root + sfl_ix::EverUsed, 2);
  CheckRun r = RunCheck(m.ref(), 1);
  ExpectOnlyFault(r, 1040, "SFL-204-1040: the index record at file offset " + std::to_string(root) +
                           " has EverUsed 2 but needs at least 5");
  EXPECT_EQ(f.Index(root).EverUsed, 32u);  // not to the value needed
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, BranchEverUsedTooSmallIsRaisedToTheNeededValue) {
  Made m;
  const uint32_t slot = m.Blocked(40);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  ASSERT_EQ(f.Index(root).EverUsed, 2u);
  f.PutU32(root + sfl_ix::EverUsed, 1);
  CheckRun r = RunCheck(m.ref(), 1);
  ExpectOnlyFault(r, 1040, "SFL-204-1040: the index record at file offset " + std::to_string(root) +
                           " has EverUsed 1 but needs at least 2");
  EXPECT_EQ(f.Index(root).EverUsed, 2u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, EverUsedWalkStartsInTheReservedBytes) {
  // Entry "32" is read from the bytes after the 32 entries: a non-zero word
  // there counts as a block one past the last entry.
  Made m;
  const uint32_t slot = m.Blocked(5);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  f.PutU32(EntryAt(root, 32), 1);
  CheckRun r = RunCheck(m.ref(), 0);
  ExpectOnlyFault(r, 1040, "SFL-204-1040: the index record at file offset " + std::to_string(root) +
                           " has EverUsed 5 but needs at least 32");  // at most 32
                           }
                           
                           TEST(CheckFaults, IndexRecordWithWrongMagic) {
                           Made m;
                           const uint32_t slot = m.Blocked(40);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  const sfl_IndexRecord before = f.Index(root);
  const uint64_t leaf0 = before.Entries[0].SectionOffSet;
  f.PutU32(leaf0, 777);

  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1003}) << Describe(r);
  EXPECT_EQ(r.Line(1003).rfind("SFL-204-1003: index record with a wrong magic number 777", 0), 0u);

  // Repair cuts the damaged child off its parent; the parent is written
  // back consistent (its count and full mark follow the cleared entry).
  r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_TRUE(r.Saw(1003));
  const sfl_IndexRecord after = f.Index(root);
  EXPECT_EQ(after.Entries[0].SectionOffSet, 0u);
  EXPECT_EQ(after.Entries[0].SectionSize, 0u);
  EXPECT_EQ(after.Entries[1].SectionOffSet, before.Entries[1].SectionOffSet);
  EXPECT_EQ(after.Used, 1u);
  EXPECT_EQ(after.FreeMap & 1u, 0u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, RootWithWrongMagicDeletesTheItemOnRepair) {
  Made m;
  const uint32_t slot = m.Blocked(3);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  f.PutU32(root, 1);
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1003}) << Describe(r);
  const sfl_ItemHeader h = f.Header(SlotAt(slot));
  EXPECT_EQ(h.Flags, static_cast<uint32_t>(DELETED));
  EXPECT_EQ(h.FileOffset, 0u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, ItemHeaderLocationPastTheEnd) {
  Made m;
  m.Simple(100);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(sfl_fh::TableOffset, 0x7FFFFF00);
  const Bytes before = sfltest::FileBytes(m.Path());
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(r.numbers, (std::vector<int>{1017, 1031, 1017, 1031})) << Describe(r);
  EXPECT_EQ(r.Line(1017), "SFL-204-1017: item header location " + std::to_string(0x7FFFFF00) +
                              " lies past the end of the file");
  EXPECT_EQ(sfltest::FileBytes(m.Path()), before);  // nothing there to repair
}

TEST(CheckFaults, ItemDataStartingPastTheEnd) {
  Made m;
  const uint32_t slot = m.Simple(1000);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(slot) + sfl_ih::FileOffset, static_cast<uint32_t>(f.Size() + 4096));
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1022, 1031})) << Describe(r);
  EXPECT_EQ(r.Line(1022), "SFL-204-1022: the data of the item whose header is at file offset " +
                              std::to_string(SlotAt(slot)) + " starts past the end of the file");
  const sfl_ItemHeader h = f.Header(SlotAt(slot));
  EXPECT_EQ(h.FileOffset, 0u);
  EXPECT_EQ(h.Flags & DELETED, static_cast<uint32_t>(DELETED));
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, ItemDataRunningPastTheEndWithAHugeSize) {
  Made m;
  const uint32_t slot = m.Simple(1000);
  m.Close();
  RawFile f(m.Path());
  const uint32_t off = f.Header(SlotAt(slot)).FileOffset;
  f.PutU32(SlotAt(slot) + sfl_ih::FileSize, 0xFFFFFF80u);  // would wrap in 32 bits
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1023, 1031})) << Describe(r);
  EXPECT_EQ(r.Line(1023), "SFL-204-1023: the data at file offset " + std::to_string(off) +
                              " of the item whose header is at file offset " + std::to_string(SlotAt(slot)) +
                              " runs past the end of the file");
  EXPECT_EQ(f.Header(SlotAt(slot)).FileSize, 0u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, ZeroLengthItemWithoutBlocksIsNotMarked) {
  Made m;
  const uint32_t slot = m.Simple(0);
  m.Simple(10);
  m.Close();
  RawFile f(m.Path());
  EXPECT_EQ(f.Header(SlotAt(slot)).UsedBlocks, 0u);
  ExpectClean(m.ref());
}

TEST(CheckFaults, ItemWithSizeButNoBlocksCollides) {
  Made m;
  const uint32_t slot = m.Simple(0);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(slot) + sfl_ih::FileSize, 10);
  f.PutU32(SlotAt(slot) + sfl_ih::FileOffset, 640);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  // Too few blocks for the size, and an empty area collides.
  EXPECT_EQ(Faults(r), (std::vector<int>{1043, 1024, 1031})) << Describe(r);
}

TEST(CheckFaults, HugeBlockCountIsRefusedNotMapped) {
  // 2^32 - 1 blocks from a small file: the shadow map is not grown to
  // cover them (half a gigabyte); the area is reported like a collision.
  Made m;
  const uint32_t slot = m.Simple(1000);
  m.Close();
  RawFile f(m.Path());
  const uint32_t off = f.Header(SlotAt(slot)).FileOffset;
  f.PutU32(SlotAt(slot) + sfl_ih::UsedBlocks, 0xFFFFFFFFu);
  const auto start = std::chrono::steady_clock::now();
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 2.0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1024, 1031})) << Describe(r);
  EXPECT_EQ(r.Line(1024).rfind("SFL-204-1024: item data at file offset " + std::to_string(off), 0), 0u);
}

TEST(CheckFaults, AllZeroSlotClearsItsInUseBitOnRepair) {
  Made m;
  const uint32_t slot = m.Simple(100);
  m.Close();
  RawFile f(m.Path());
  f.Write(SlotAt(slot), Bytes(64, 0));
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1041}) << Describe(r);
  r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1);
  EXPECT_EQ(f.Read(sfl_fh::InUseItms, 1)[0] & (1u << slot), 0u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, ItemHeaderWithWrongMagicOrType) {
  Made m;
  const uint32_t a = m.Simple(100);
  const uint32_t b = m.Simple(100);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(a), 5);
  f.PutU32(SlotAt(b) + 4, 18);
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1020, 1031, 1021, 1031})) << Describe(r);
  EXPECT_EQ(r.Line(1020), "SFL-204-1020: the item header at file offset " + std::to_string(SlotAt(a)) +
                              " has a wrong magic number 5");
}

TEST(CheckFaults, FewerBlocksThanTheSizeNeeds) {
  Made m;
  const uint32_t slot = m.Simple(1000);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(slot) + sfl_ih::UsedBlocks, 2);
  CheckRun r = RunCheck(m.ref(), 0);
  // Reported, and the check goes on with the item: the two blocks are
  // marked, the rest show as unused, and the item's result stays sound.
  EXPECT_EQ(r.result, 0) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1043}) << Describe(r);
  EXPECT_TRUE(r.Saw(1037));
  // With repair the header is marked deleted all the same.
  r = RunCheck(m.ref(), 1);
  EXPECT_EQ(f.Header(SlotAt(slot)).Flags & DELETED, static_cast<uint32_t>(DELETED));
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, TwoBlockedItemsSharingARoot) {
  Made m;
  const uint32_t a = m.Blocked(3);
  const uint32_t b = m.Blocked(3);
  m.Close();
  RawFile f(m.Path());
  const uint32_t rootA = f.Header(SlotAt(a)).FileOffset;
  f.PutU32(SlotAt(b) + sfl_ih::FileOffset, rootA);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1005}) << Describe(r);
}

TEST(CheckFaults, RootPastTheEndAndShortOfTheEnd) {
  Made m;
  const uint32_t a = m.Blocked(3);
  const uint32_t b = m.Blocked(3);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(a) + sfl_ih::FileOffset, static_cast<uint32_t>(f.Size() + 1000));
  f.PutU32(SlotAt(b) + sfl_ih::FileSize, 0xFFFFFFF0u);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1014, 1015})) << Describe(r);
}

TEST(CheckFaults, RootRunningIntoTheEndOfTheFileIsAShortRead) {
  Made m;
  m.Simple(100);
  const uint32_t slot = m.Blocked(0);
  m.Close();
  RawFile f(m.Path());
  const uint32_t root = f.Header(SlotAt(slot)).FileOffset;
  f.Truncate(root + 100);
  CheckRun r = RunCheck(m.ref(), 0);
  ExpectOnlyFault(r, 1016, "SFL-204-1016: short read of the root index record at file offset " +
                           std::to_string(root) + ": 100 of 384 bytes");
}

TEST(CheckFaults, EntriesPastTheEndOrColliding) {
  Made m;
  const uint32_t slot = m.Blocked(5);
  m.Simple(500);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  const sfl_IndexRecord x = f.Index(root);
  f.PutU32(EntryAt(root, 0), static_cast<uint32_t>(f.Size() + 50));  // 1008
  f.PutU32(EntryAt(root, 1) + 4, 0x7FFFFFFF);                          // 1009
  f.PutU32(EntryAt(root, 2), x.Entries[3].SectionOffSet);              // entry 3 then collides
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1008, 1009, 1010})) << Describe(r);
  EXPECT_EQ(r.Line(1009), "SFL-204-1009: entry 1 of the index record at file offset " + std::to_string(root) +
                              " runs past the end of the file");
  EXPECT_EQ(r.Line(1010), "SFL-204-1010: entry 3 of the index record at file offset " + std::to_string(root) +
                              " overlaps space already in use, or lies far past the end of the file");

  r = RunCheck(m.ref(), 1);
  const sfl_IndexRecord after = f.Index(root);
  EXPECT_EQ(after.Entries[0].SectionOffSet, 0u);
  EXPECT_EQ(after.Entries[1].SectionOffSet, 0u);
  EXPECT_EQ(after.Entries[2].SectionOffSet, x.Entries[3].SectionOffSet);
  EXPECT_EQ(after.Entries[3].SectionOffSet, 0u);
  EXPECT_EQ(after.Used, 2u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, FailureMarkIsNotResetPerEntry) {
  // A failed entry stops the visits of later children: damage in the
  // second leaf goes unseen while the first entry is bad.
  Made m;
  const uint32_t slot = m.Blocked(40);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  const uint64_t leaf1 = f.Index(root).Entries[1].SectionOffSet;
  f.PutU32(leaf1 + sfl_ix::Used, 30);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(Faults(r), std::vector<int>{1039}) << Describe(r);  // seen while entry 0 is sound

  f.PutU32(EntryAt(root, 0), static_cast<uint32_t>(f.Size() + 50));
  r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1008}) << Describe(r);
}

TEST(CheckFaults, ChildOfWrongSizeOrType) {
  Made m;
  const uint32_t slot = m.Blocked(70);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  const sfl_IndexRecord x = f.Index(root);
  f.PutU32(EntryAt(root, 1) + 4, 200);           // 1001
  f.PutU32(x.Entries[2].SectionOffSet + 4, 17);  // 1004
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1001, 1004})) << Describe(r);
  EXPECT_EQ(r.Line(1001), "SFL-204-1001: entry 1 of the index record at file offset " + std::to_string(root) +
                              " points to a child of 200 bytes, not an index record of 384");
}

TEST(CheckFaults, EmptyEntryMarkedFullAndFullBitOverAChildWithRoom) {
  Made m;
  const uint32_t slot = m.Blocked(40);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  const uint32_t map = f.Index(root).FreeMap;
  f.PutU32(root + sfl_ix::FreeMap, map | (1u << 1) | (1u << 5));
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1044, 1007})) << Describe(r);
  EXPECT_EQ(r.Line(1044), "SFL-204-1044: entry 1 of the index record at file offset " + std::to_string(root) +
                              ": its free-map bit does not match the child's fullness (child full: 0)");
  EXPECT_EQ(f.Index(root).FreeMap, map);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, IndexRecordPointingAtItself) {
  Made m;
  const uint32_t slot = m.Blocked(40);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  const uint64_t leaf1 = f.Index(root).Entries[1].SectionOffSet;
  f.PutU32(EntryAt(root, 1), static_cast<uint32_t>(root));  // the root's child is the root
  f.PutU32(leaf1 + sfl_ix::Depth, 1);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_TRUE(r.Saw(1010)) << Describe(r);
}

TEST(CheckFaults, TreeDeeperThanSevenLevelsIsCut) {
  // A chain of branches, each the only child of the one before, written at
  // the end of the file and hung under a blocked item's root.
  Made m;
  const uint32_t slot = m.Blocked(1);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  const uint64_t start = (f.Size() + 127) / 128 * 128;
  const uint32_t levels = 12;
  for (uint32_t i = 0; i < levels; ++i) {
    sfl_IndexRecord x = sfl_NewIndexRecord();
    const uint64_t at = start + 384 * i;
    x.Depth = 1;
    x.Used = 1;
    x.EverUsed = 1;
    x.ParentOff = static_cast<uint32_t>(i == 0 ? root : at - 384);
    x.Entries[0] = {static_cast<uint32_t>(at + 384), 384};
    sfl_IndexBytes b;
    sfl_EncodeIndex(x, b);
    f.Write(at, Bytes(b.begin(), b.end()));
  }
  sfl_IndexRecord r0 = f.Index(root);
  r0.Depth = 1;
  r0.Used = 1;
  r0.EverUsed = 1;
  r0.ParentOff = static_cast<uint32_t>(SlotAt(slot));
  r0.Entries[0] = {static_cast<uint32_t>(start), 384};
  sfl_IndexBytes b;
  sfl_EncodeIndex(r0, b);
  f.Write(root, Bytes(b.begin(), b.end()));
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_TRUE(r.Saw(1012)) << Describe(r);
}

TEST(CheckFaults, InternalContainerInsideAnInternalContainerIsCut) {
  Made m;
  const uint32_t slot = m.Simple(8192);
  m.Close();
  RawFile f(m.Path());
  const uint64_t data = f.Header(SlotAt(slot)).FileOffset;
  // Each level: the marker, and in its slot 0 a simple internal header
  // whose data is the next level, 2048 bytes further on.
  for (uint32_t lvl = 0; lvl < 3; ++lvl) {
    const uint64_t at = data + 2048 * lvl;
    Bytes marker(8);
    sfl_PutU32(marker.data(), SFL_MAGIC);
    sfl_PutU32(marker.data() + 4, 3);
    f.Write(at, marker);
    sfl_ItemHeader h = sfl_NewItemHeader();
    h.FileOffset = static_cast<uint32_t>(at + 2048);
    h.FileSize = 1024;
    h.UsedBlocks = 8;
    sfl_ItemHeaderBytes hb;
    sfl_EncodeItemHeader(h, hb);
    f.Write(at + 256, Bytes(hb.begin(), hb.end()));
  }
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_TRUE(r.Saw(1024) || r.Saw(1013)) << Describe(r);
}

TEST(CheckFaults, InternalItemFaultsFailTheContainer) {
  Made m;
  const uint32_t slot = m.InternalContainer(2048, {1, 2}, 5);
  m.Close();
  RawFile f(m.Path());
  const uint64_t data = f.Header(SlotAt(slot)).FileOffset;
  const uint64_t ih = data + 256 + 64 * 2;
  const uint64_t root = f.Header(ih).FileOffset;
  f.PutU32(root + sfl_ix::Used, 1);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1039}) << Describe(r);
  r = RunCheck(m.ref(), 1);
  EXPECT_EQ(f.Index(root).Used, 5u);
  ExpectCleanAfterRepair(m.ref());
}

TEST(CheckFaults, ShortTransfersAnywhereInARepairChangeNothing) {
  // A read that comes up short inside the file is continued, never taken
  // for a record cut short: at whichever read it happens, the repairing
  // check finds nothing and the file keeps every byte.
  Made m;
  m.InternalContainer(2048, {4}, 3);
  m.Close();
  const Bytes original = sfltest::FileBytes(m.Path());
  os_ResetCallCounts();
  RunCheck(m.ref(), 1);
  const unsigned reads = static_cast<unsigned>(os_CallCount(os_Op::Pread));
  ASSERT_GT(reads, 3u);
  for (unsigned nth = 1; nth <= reads; ++nth) {
    SCOPED_TRACE("read " + std::to_string(nth));
    os_ShortNth(os_Op::Pread, nth, 10);
    CheckRun r = RunCheck(m.ref(), 1);
    os_ClearFaults();
    EXPECT_EQ(r.result, 0) << Describe(r);
    EXPECT_TRUE(Faults(r).empty()) << Describe(r);
    EXPECT_EQ(sfltest::FileBytes(m.Path()), original);
  }
}

TEST(CheckFaults, FailedReadStopsTheRepairWithNothingChanged) {
  // A read that fails is an error of the system: the check stops with it
  // and repairs nothing.
  Made m;
  m.InternalContainer(2048, {4}, 3);
  m.Close();
  const Bytes original = sfltest::FileBytes(m.Path());
  os_FailNth(os_Op::Pread, 3, EIO);
  CheckRun r = RunCheck(m.ref(), 1);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_NE(r.err.find("SFL-2-5:"), std::string::npos) << Describe(r);
  EXPECT_EQ(sfltest::FileBytes(m.Path()), original);
}

TEST(CheckFaults, FailedDeletionMarkIsReported) {
  Made m;
  const uint32_t slot = m.Simple(1000);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(slot) + sfl_ih::FileOffset, static_cast<uint32_t>(f.Size() + 4096));
  os_ShortNth(os_Op::Pwrite, 1, 10);
  CheckRun r = RunCheck(m.ref(), 1);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1022, 1000, 1031})) << Describe(r);
  EXPECT_EQ(r.Line(1000), "SFL-204-1000: item header at file offset " + std::to_string(SlotAt(slot)) +
                              " rewritten: 10 of 64 bytes written");
}

TEST(CheckFaults, FailedIndexAndMapWritesAreReported) {
  Made m;
  const uint32_t slot = m.Blocked(5);
  m.Close();
  RawFile f(m.Path());
  const uint64_t root = f.Header(SlotAt(slot)).FileOffset;
  f.PutU32(root + sfl_ix::Used, 9);
  os_FailNth(os_Op::Pwrite, 1, EIO);
  CheckRun r = RunCheck(m.ref(), 1);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1039, 1011})) << Describe(r);
  EXPECT_EQ(f.Index(root).Used, 9u);

  f.PutU32(root + sfl_ix::Used, 5);
  SetMapBit(f, root / 128, false);
  os_FailNth(os_Op::Pwrite, 1, EIO);
  r = RunCheck(m.ref(), 1);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), (std::vector<int>{1036, 1038})) << Describe(r);
  EXPECT_FALSE(MapBit(f, root / 128));
}

// ---- the file header and the free-map item -------------------------------------------------------

TEST(CheckFile, ReferenceToAnItemIsRefused) {
  Made m;
  m.Simple(10);
  sfl_ItemRef item = m.ref();
  item.Flags = static_cast<uint16_t>(item.Flags | 1);
  auto e = EscapeOf([&] { sfl_CheckSflIntegrity(&item, 0); });
  EXPECT_EQ(e.group, ER_GROUP_MAINT);
  EXPECT_EQ(e.reason, 1032);
}

TEST(CheckFile, TooShortNotAnSflFileOrWrongType) {
  Made m;
  m.Simple(10);
  m.Close();
  RawFile f(m.Path());
  const Bytes original = sfltest::FileBytes(m.Path());
  const std::string path = m.Path();

  f.PutU32(0, 99);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1);
  EXPECT_EQ(r.numbers, std::vector<int>{1027});
  EXPECT_EQ(r.err, "SFL-100-28862: not an SFL file, or wrong format version (file " + path + ")\n");

  f.Write(0, original);
  f.PutU32(4, 17);
  r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1);
  EXPECT_EQ(r.numbers, std::vector<int>{1028});
  EXPECT_EQ(r.Line(1028), "SFL-204-1028: the file header has type 17, not 16");

  f.Write(0, original);
  f.Truncate(128);
  r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1);
  EXPECT_TRUE(r.numbers.empty());
  EXPECT_NE(r.err.find("SFL-100-28862:"), std::string::npos) << r.err;
}

TEST(CheckFile, ShortTransferOfTheHeaderIsContinued) {
  Made m;
  m.Simple(10);
  m.Close();
  os_ShortNth(os_Op::Pread, 1, 50);
  CheckRun r = RunCheck(m.ref(), 0);
  os_ClearFaults();
  EXPECT_EQ(r.result, 0) << Describe(r);
  EXPECT_EQ(r.err, "");
}

TEST(CheckFile, MissingFileIsShown) {
  Made m;
  m.Simple(10);
  m.Close();
  ASSERT_EQ(::unlink(m.Path().c_str()), 0);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1);
  EXPECT_NE(r.err.find("SFL-2-2:"), std::string::npos) << r.err;
  EXPECT_EQ(er_GetLive(), 0);
}

TEST(CheckFile, SingleItemFileIsHeldToOneSlot) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
  sfl_ItemRef ref{};
  sfl_GetSerFileItem(bh, &ref);
  sfl_ItemRef item{};
  int32_t h = sfl_StoreBasicItem(bh, nullptr, 100, &item, 0);
  sfl_CloseItem(h);
  sfl_CloseFile(bh);
  CheckRun r = RunCheck(ref, 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  ASSERT_FALSE(r.numbers.empty()) << Describe(r);
  EXPECT_EQ(r.numbers[0], 1030);
  EXPECT_EQ(r.Line(1030), "SFL-204-1030: the file header gives 2 item slots, which this kind of file cannot have");
}

TEST(CheckFile, ZeroMaxItemsIsCorrectedForTheCheck) {
  Made m;
  m.Simple(100);
  m.Close();
  RawFile f(m.Path());
  f.PutU16(sfl_fh::MaxItems, 0);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(Faults(r), std::vector<int>{1030}) << Describe(r);  // the rest is checked as 8 slots
}

TEST(CheckFile, BlockedFreeMapItemIsAnError) {
  Made m;
  m.Simple(100);
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(0) + sfl_ih::Flags, BLOCKED_ITEM);
  f.PutU32(sfl_fh::InUseItms, 0x02);  // slot 0 not in use: reached only by the map comparison
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_NE(r.err.find("SFL-204-1033:"), std::string::npos) << r.err;
}

TEST(CheckFile, FreeMapShorterThanTheSpaceInUse) {
  Made m;
  m.Simple(300000);  // beyond the first map's 256 KiB: the map grew
  m.Close();
  RawFile f(m.Path());
  f.PutU32(SlotAt(0) + sfl_ih::FileSize, 128);
  CheckRun r = RunCheck(m.ref(), 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_TRUE(r.Saw(1034)) << Describe(r);
}

TEST(CheckFile, ShortTransferOfTheMapIsContinued) {
  Made m;
  m.Simple(100);
  m.Close();
  os_ResetCallCounts();
  RunCheck(m.ref(), 0);
  const unsigned reads = static_cast<unsigned>(os_CallCount(os_Op::Pread));
  os_ShortNth(os_Op::Pread, reads, 3);  // the map is read last
  CheckRun r = RunCheck(m.ref(), 0);
  os_ClearFaults();
  EXPECT_EQ(r.result, 0) << Describe(r);
  EXPECT_TRUE(Faults(r).empty()) << Describe(r);
}

TEST(CheckFile, FailedHeaderWriteIsAnError) {
  Made m;
  const uint32_t slot = m.Simple(100);
  m.Close();
  RawFile f(m.Path());
  f.Write(SlotAt(slot), Bytes(64, 0));
  os_ShortNth(os_Op::Pwrite, 1, 7);
  CheckRun r = RunCheck(m.ref(), 1);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_NE(r.err.find("SFL-204-1042: could not write back the repaired file header"), std::string::npos) << r.err;
}

// ---- nothing left behind ---------------------------------------------------------------------

int OpenDescriptors() {
  int n = 0;
  for (int fd = 0; fd < 1024; ++fd) n += sfltest::DescriptorOpen(fd) ? 1 : 0;
  return n;
}

TEST(CheckResources, NoDescriptorLockOrInterestLeftOnAnyPath) {
  Made m;
  m.Simple(100);
  m.Close();
  RawFile f(m.Path());
  const Bytes original = sfltest::FileBytes(m.Path());
  // A failed check first: what the process opens once on first use (the
  // log file, where the absorbed escape is logged) is not counted.
  f.PutU32(0, 1);
  EXPECT_EQ(RunCheck(m.ref(), 1).result, 1);
  f.Write(0, original);
  const int before = OpenDescriptors();
  // A clean check, one that fails after recording its interest (a blocked
  // free-map item), and one that fails at the header.
  EXPECT_EQ(RunCheck(m.ref(), 1).result, 0);
  f.PutU32(SlotAt(0) + sfl_ih::Flags, BLOCKED_ITEM);
  f.PutU32(sfl_fh::InUseItms, 0x02);
  CheckRun r = RunCheck(m.ref(), 1);
  EXPECT_NE(r.err.find("SFL-204-1033:"), std::string::npos) << r.err;
  f.Write(0, original);
  f.PutU32(0, 1);
  EXPECT_EQ(RunCheck(m.ref(), 1).result, 1);
  f.Write(0, original);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(er_GetLive(), 0);

  // The whole-file lock is gone: another process takes it at once.
  const std::string path = m.Path();
  EXPECT_EQ(sfltest::RunInChild([&] {
              int fd = ::open(path.c_str(), O_RDONLY);
              return fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
            }),
            0);
  // No interest of this process is left: a repair still sees it alone.
  SetMapBit(f, MapOf(f).off / 128, false);
  r = RunCheck(m.ref(), 1);
  EXPECT_FALSE(r.Saw(1029)) << Describe(r);
  EXPECT_TRUE(MapBit(f, MapOf(f).off / 128));
}

// ---- another process holding the file -----------------------------------------------------------

TEST(CheckShared, AnotherProcessHoldingTheFileStopsEveryRepair) {
  Made m;
  const uint32_t slot = m.Simple(1000);
  const uint32_t blocked = m.Blocked(5);
  m.Close();
  {
    RawFile f(m.Path());
    const sfl_ItemHeader h = f.Header(SlotAt(slot));
    SetMapBit(f, h.FileOffset / 128, false);
    f.PutU32(f.Header(SlotAt(blocked)).FileOffset + sfl_ix::Used, 7);
  }
  const Bytes before = sfltest::FileBytes(m.Path());

  sfltest::Gate opened, done;
  const sfl_ItemRef ref = m.ref();
  int holder = sfltest::StartChild([&] {
    int32_t bh = sfl_OpenSfl(&ref, 0);
    opened.Open();
    done.Wait();
    sfl_CloseFile(bh);
    return 0;
  });
  opened.Wait();
  CheckRun r = RunCheck(m.ref(), 1);
  done.Open();
  EXPECT_EQ(sfltest::WaitChild(holder), 0);

  EXPECT_EQ(r.result, 1) << Describe(r);
  ASSERT_FALSE(r.numbers.empty());
  EXPECT_EQ(r.numbers[0], 1029) << Describe(r);
  EXPECT_TRUE(r.Saw(1039));
  EXPECT_TRUE(r.Saw(1036));
  EXPECT_EQ(sfltest::FileBytes(m.Path()), before);

  // Alone again, the same check repairs.
  r = RunCheck(m.ref(), 1);
  EXPECT_FALSE(r.Saw(1029));
  EXPECT_NE(sfltest::FileBytes(m.Path()), before);
  ExpectCleanAfterRepair(m.ref());
}

// ---- random damage ---------------------------------------------------------------------------

// Real containers, damaged at random a few thousand times: every check ends
// with a result of 0 or 1, in bounded time, with nothing raised.
TEST(CheckFuzz, RandomDamageAlwaysEndsInAResult) {
  Made a;
  a.Simple(1000);
  a.Blocked(40);
  a.InternalContainer(2048, {0, 5}, 35);
  a.Simple(70000);
  a.Close();
  Made b;
  b.Blocked(1100, 10);
  b.Simple(0);
  b.Simple(129);
  b.Close();
  const Bytes baseA = sfltest::FileBytes(a.Path());
  const Bytes baseB = sfltest::FileBytes(b.Path());
  ASSERT_FALSE(baseA.empty());
  ASSERT_FALSE(baseB.empty());

  std::mt19937 rng(20261123);
  auto pick = [&rng](uint64_t n) { return n == 0 ? 0 : std::uniform_int_distribution<uint64_t>(0, n - 1)(rng); };
  constexpr int kRounds = 3000;
  int faults = 0;
  double slowest = 0;
  std::string problem;
  sfltest::CapturedOutput out(1), err(2);  // the fault lines of thousands of checks are not wanted
  for (int round = 0; round < kRounds; ++round) {
    const bool useA = (round % 2) == 0;
    const Made& m = useA ? a : b;
    Bytes bytes = useA ? baseA : baseB;
    // Offsets worth hitting: the file header, the item table, and the
    // first index records and map, where a damaged word sends the check
    // furthest.
    const int changes = 1 + static_cast<int>(pick(6));
    for (int c = 0; c < changes; ++c) {
      const uint64_t hot = pick(3) == 0 ? pick(bytes.size()) : pick(std::min<size_t>(bytes.size(), 8192));
      const uint64_t at = hot & ~uint64_t{3};
      switch (pick(5)) {
        case 0:
          bytes[hot] = static_cast<uint8_t>(bytes[hot] ^ (1u << pick(8)));
          break;
        case 1:
          bytes[hot] = static_cast<uint8_t>(pick(256));
          break;
        case 2: {
          static const uint32_t words[] = {0, 1, 3, 17, 18, 32, 128, 384, 640, 896, 0x7FFFFFFF,
                                           0xFFFFFFFF, 0x80000000, 12345678};
          if (at + 4 <= bytes.size()) sfl_PutU32(bytes.data() + at, words[pick(std::size(words))]);
          break;
        }
        case 3:
          if (at + 4 <= bytes.size())
            sfl_PutU32(bytes.data() + at, static_cast<uint32_t>(pick(bytes.size() + 1024)));
          break;
        default:
          if (pick(4) == 0) bytes.resize(pick(bytes.size()) + 1);
          break;
      }
    }
    {
      RawFile f(m.Path());
      f.Truncate(0);
      f.Write(0, bytes);
    }
    const auto start = std::chrono::steady_clock::now();
    int32_t result = -1;
    auto e = EscapeOf([&] { result = sfl_CheckSflIntegrity(&m.ref(), static_cast<int32_t>(pick(2))); });
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    slowest = std::max(slowest, took);
    if (e.group != 0 || (result != 0 && result != 1) || took > 5.0 || er_GetLive() != 0) {
      problem = "round " + std::to_string(round) + ": escape " + std::to_string(e.group) + "/" +
                std::to_string(e.reason) + ", result " + std::to_string(result) + ", " +
                std::to_string(took) + " s";
      break;
    }
    faults += result;
  }
  const std::vector<int> seen = NumbersIn(out.Stop());
  err.Stop();
  ASSERT_EQ(problem, "");
  // The damage was real and varied: many rounds found faults, of many kinds.
  const std::set<int> kinds(seen.begin(), seen.end());
  EXPECT_GT(faults, kRounds / 5);
  EXPECT_LT(faults, kRounds);
  EXPECT_GE(kinds.size(), 20u);
  std::printf("%d of %d damaged files had faults, %zu kinds of message; slowest check %.3f s\n", faults,
              kRounds, kinds.size(), slowest);
}

}  // namespace
