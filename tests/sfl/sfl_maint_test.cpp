// The integrity check: containers made by the library check clean; each
// kind of damage, made by hand in a real container, gives its numbered
// message, the result, and with repair the bytes written and a clean second
// check; another process holding the file stops every repair; and random
// damage always ends in a report and a result.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <regex>
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

// Redirects a descriptor into a temporary file for the life of the object.
class Capture {
 public:
  explicit Capture(int fd) : fd_(fd) {
    std::fflush(stdout);
    std::fflush(stderr);
    std::snprintf(path_, sizeof path_, "%s/capture-XXXXXX", sfltest::TestDir().c_str());
    tmp_ = ::mkstemp(path_);
    saved_ = ::dup(fd_);
    ::dup2(tmp_, fd_);
  }
  ~Capture() { Stop(); }
  std::string Stop() {
    if (saved_ >= 0) {
      std::fflush(stdout);
      std::fflush(stderr);
      ::dup2(saved_, fd_);
      ::close(saved_);
      saved_ = -1;
      Bytes b = sfltest::FileBytes(path_);
      text_.assign(b.begin(), b.end());
      ::close(tmp_);
      ::unlink(path_);
    }
    return text_;
  }

 private:
  int fd_;
  int tmp_ = -1;
  int saved_ = -1;
  char path_[512];
  std::string text_;
};

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
  Capture out(1), err(2);
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
[[maybe_unused]] uint64_t EntryAt(uint64_t record, uint32_t n) { return record + sfl_ix::Entries + sfl_ix::EntrySize * n; }

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

}  // namespace
