// Streams over plain files and over simple items: pass-through for plain
// files; for items the open modes, the element size, read-only streams, the
// confinement of every transfer to the item's bounds, the re-seek before
// reads and writes, line reading (with its cut length and its deliberately
// unsynchronised position), errors that free the record, and byte-range
// locks that survive the container's second descriptor.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

// ---- helpers -----------------------------------------------------------------

constexpr auto EscapeOf = sfltest::EscapeCodeOf;
constexpr long Sfl(int reason) { return sfltest::EscapeCode(ER_GROUP_SFL, reason); }
constexpr long Table(int reason) { return sfltest::EscapeCode(ER_GROUP_TABLE, reason); }
constexpr long Os(int err) { return sfltest::EscapeCode(ER_GROUP_OS, err); }

std::set<int> Descriptors() {
  std::set<int> fds;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return fds;
  int own = dirfd(d);
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    int fd = std::atoi(e->d_name);
    if (fd != own) fds.insert(fd);
  }
  closedir(d);
  return fds;
}

constexpr auto PlainFile = sfltest::WritePlainFile;

std::string FileText(const std::string& path) {
  std::string out;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  char buf[4096];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  ::close(fd);
  return out;
}

constexpr auto NameOf = sfltest::ItemPath;

// A container file kept open through its base handle for the test's length.
struct Container {
  int32_t base = -1;
  sfl_ItemRef ref{};
  Container() {
    base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_GetSerFileItem(base, &ref);
  }
  ~Container() {
    if (base >= 0) {
      try {
        sfl_CloseFile(base);
      } catch (const er_Escape&) {
      }
    }
  }
  std::string Path() const { return NameOf(ref); }

  // Stores a closed simple item holding `data`.
  sfl_ItemRef Store(const std::string& data) {
    sfl_ItemRef item{};
    int32_t h = sfl_StoreBasicItem(base, nullptr, static_cast<uint32_t>(data.size()), &item, 0);
    EXPECT_GE(h, SFL_ITEM_HANDLE_FIRST);
    if (!data.empty()) {
      EXPECT_EQ(sfl_WriteSimpleData(h, 0, static_cast<uint32_t>(data.size()), data.data()),
                static_cast<int32_t>(data.size()));
    }
    sfl_CloseItem(h);
    return item;
  }
};

struct ItemPlace {
  uint32_t offset;
  uint32_t size;
};

ItemPlace PlaceOf(const sfl_ItemRef& ref) {
  int32_t h = sfl_OpenItem(&ref, 1);
  sfl_ItemRec* r = sfl_ItemHandle2Record(h);
  ItemPlace p{r->Offset, r->Size};
  sfl_CloseItem(h);
  return p;
}

// The item's bytes as stored, read positionally through an item handle.
std::string Stored(const sfl_ItemRef& ref) {
  int32_t h = sfl_OpenItem(&ref, 1);
  uint32_t size = sfl_ItemHandle2Record(h)->Size;
  std::string out(size, '\0');
  if (size > 0) {
    EXPECT_EQ(sfl_ReadSimpleData(h, 0, size, out.data()), static_cast<int32_t>(size));
  }
  sfl_CloseItem(h);
  return out;
}

std::string RawBytes(const std::string& path, uint32_t offset, uint32_t len) {
  std::string out(len, '\0');
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  ssize_t n = ::pread(fd, out.data(), len, offset);
  ::close(fd);
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

std::string Pattern(size_t n, char first, int span) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(first + static_cast<int>(i % span));
  return s;
}

std::string ReadAll(int32_t s, size_t max) {
  std::string out(max, '\0');
  size_t n = sfl_fRead(out.data(), 1, max, s);
  out.resize(n);
  return out;
}

// ---- plain files -----------------------------------------------------------------

TEST(PlainStreams, PassThroughWithTheCallersMode) {
  std::string path = PlainFile("plain.txt", "first line\nsecond\n");
  int32_t s = sfl_fOpen(path.c_str(), "r");
  EXPECT_EQ(s, 9000);

  // sfl_fileno gives the stream's own descriptor: the same file, close-on-exec.
  int fd = sfl_fileno(s);
  ASSERT_GE(fd, 0);
  EXPECT_LT(fd, SFL_BASE_HANDLE_FIRST);
  struct stat a{}, b{};
  ASSERT_EQ(::fstat(fd, &a), 0);
  ASSERT_EQ(::stat(path.c_str(), &b), 0);
  EXPECT_EQ(a.st_ino, b.st_ino);
  EXPECT_EQ(a.st_dev, b.st_dev);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);

  char line[64];
  ASSERT_NE(sfl_fgets(line, sizeof line, s), nullptr);
  EXPECT_STREQ(line, "first line\n");
  EXPECT_EQ(sfl_fTell(s), 11);
  // Element sizes other than 1 pass through to the wrapped stream.
  char two[4] = {};
  EXPECT_EQ(sfl_fRead(two, 2, 2, s), 2u);
  EXPECT_EQ(std::string(two, 4), "seco");
  // A plain stream opened "r" is not a read-only item stream: the write
  // goes to the wrapped stream, which refuses it.
  EXPECT_EQ(sfl_fWrite("x", 1, 1, s), 0u);
  EXPECT_EQ(sfl_fSeek(s, 0, SEEK_END), 0);
  EXPECT_EQ(sfl_fTell(s), 18);
  EXPECT_EQ(sfl_fgets(line, sizeof line, s), nullptr);
  EXPECT_EQ(sfl_fSeek(s, 6, SEEK_SET), 0);
  ASSERT_NE(sfl_fgets(line, sizeof line, s), nullptr);
  EXPECT_STREQ(line, "line\n");
  sfl_fClose(s);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);

  // "w" truncates, as fopen does; element size 4 passes through.
  s = sfl_fOpen(path.c_str(), "w");
  const uint32_t words[3] = {1, 2, 3};
  EXPECT_EQ(sfl_fWrite(words, 4, 3, s), 3u);
  sfl_fClose(s);
  EXPECT_EQ(FileText(path).size(), 12u);

  // Modes item streams refuse are fine for plain files.
  s = sfl_fOpen(path.c_str(), "a+");
  EXPECT_EQ(sfl_fWrite("tail", 1, 4, s), 4u);
  sfl_fClose(s);
  EXPECT_EQ(FileText(path).substr(12), "tail");
}

TEST(PlainStreams, NameWithColonThatIsNotAnItemName) {
  std::string path = PlainFile("odd:3", "colon\n");
  int32_t s = sfl_fOpen(path.c_str(), "r");
  EXPECT_LT(sfl_fileno(s), SFL_BASE_HANDLE_FIRST);
  EXPECT_EQ(ReadAll(s, 100), "colon\n");
  sfl_fClose(s);
}

TEST(PlainStreams, MissingFileRaisesAndTakesNothing) {
  std::set<int> before = Descriptors();
  std::string path = sfltest::TestDir() + "/absent.txt";
  EXPECT_EQ(EscapeOf([&] { sfl_fOpen(path.c_str(), "r"); }), Os(ENOENT));
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(Descriptors(), before);
}

// ---- opening item streams -------------------------------------------------------------

TEST(ItemStreams, OpenByReferenceAndByItemName) {
  Container c;
  std::string data = Pattern(300, 'a', 26);
  sfl_ItemRef item = c.Store(data);
  ItemPlace place = PlaceOf(item);

  int32_t s = sfl_fOpenItem(&item, "r");
  EXPECT_EQ(s, 9000);
  int32_t ih = sfl_fileno(s);  // an item stream answers with its item handle
  EXPECT_GE(ih, SFL_ITEM_HANDLE_FIRST);
  EXPECT_EQ(sfl_ItemHandle2Record(ih)->Offset, place.offset);
  EXPECT_EQ(sfl_fTell(s), 0);
  EXPECT_EQ(ReadAll(s, 1000), data);

  std::string name = NameOf(item);
  ASSERT_NE(name.find(':'), std::string::npos);
  int32_t t = sfl_fOpen(name.c_str(), "r");
  EXPECT_EQ(t, 9001);
  EXPECT_EQ(sfl_fileno(t), ih);  // the second open shares the item handle
  EXPECT_EQ(sfl_ItemHandle2Record(ih)->OpenRefs, 2);
  EXPECT_EQ(ReadAll(t, 1000), data);
  sfl_fClose(t);
  EXPECT_EQ(sfl_ItemHandle2Record(ih)->OpenRefs, 1);
  sfl_fClose(s);
  EXPECT_EQ(EscapeOf([&] { sfl_ItemHandle2Record(ih); }), Table(28867));
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
}

// A reference to the file itself (item number 0) opens the container as a
// plain file with the caller's mode.
TEST(ItemStreams, FileReferenceOpensThePlainFile) {
  Container c;
  c.Store("x");
  int32_t s = sfl_fOpenItem(&c.ref, "rb");
  int fd = sfl_fileno(s);
  EXPECT_LT(fd, SFL_BASE_HANDLE_FIRST);
  char magic[4];
  EXPECT_EQ(sfl_fRead(magic, 4, 1, s), 1u);  // element size is the caller's
  EXPECT_EQ(RawBytes(c.Path(), 0, 4), std::string(magic, 4));
  sfl_fClose(s);
}

TEST(ItemStreams, OnlyModesRWAndRWOpenItems) {
  Container c;
  sfl_ItemRef item = c.Store("data");
  int itemsBefore = sfl_OpenItems().InUseCount();
  std::set<int> fdsBefore = Descriptors();
  for (const char* mode : {"r+", "a", "wb", "rb", "w+", "", "R", "rw+", "wr"}) {
    EXPECT_EQ(EscapeOf([&] { sfl_fOpenItem(&item, mode); }), Sfl(28886)) << mode;
    std::string name = NameOf(item);
    EXPECT_EQ(EscapeOf([&] { sfl_fOpen(name.c_str(), mode); }), Sfl(28886)) << mode;
  }
  EXPECT_EQ(sfl_OpenItems().InUseCount(), itemsBefore);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(Descriptors(), fdsBefore);
  for (const char* mode : {"r", "w", "rw"}) {
    int32_t s = sfl_fOpenItem(&item, mode);
    EXPECT_EQ(sfl_L3Handle2Record(s)->ReadOnly, std::strcmp(mode, "r") == 0 ? 1u : 0u) << mode;
    EXPECT_EQ(sfl_L3Handle2Record(s)->IsItem, 1u);
    sfl_fClose(s);
  }
  // "w" does not truncate an item.
  EXPECT_EQ(Stored(item), "data");
}

TEST(ItemStreams, NewDescriptorsAreCloseOnExec) {
  Container c;
  sfl_ItemRef item = c.Store("data");
  std::set<int> before = Descriptors();
  int32_t s = sfl_fOpenItem(&item, "rw");
  std::set<int> after = Descriptors();
  int added = 0;
  for (int fd : after) {
    if (before.count(fd)) continue;
    ++added;
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
  }
  EXPECT_GE(added, 1);  // the container stream at least
  sfl_fClose(s);
}

// ---- reading and writing inside the item's bounds ------------------------------------

TEST(ItemStreams, ElementSizeMustBeOne) {
  Container c;
  sfl_ItemRef item = c.Store("abcdefgh");
  int32_t s = sfl_fOpenItem(&item, "rw");
  char buf[8] = {};
  EXPECT_EQ(EscapeOf([&] { sfl_fRead(buf, 2, 2, s); }), Sfl(28887));
  EXPECT_EQ(EscapeOf([&] { sfl_fRead(buf, 0, 2, s); }), Sfl(28887));
  EXPECT_EQ(EscapeOf([&] { sfl_fWrite("zzzz", 2, 2, s); }), Sfl(28887));
  EXPECT_EQ(EscapeOf([&] { sfl_fWrite("zzzz", 4, 1, s); }), Sfl(28887));
  EXPECT_EQ(sfl_fTell(s), 0);
  sfl_fClose(s);
  EXPECT_EQ(Stored(item), "abcdefgh");
}

TEST(ItemStreams, ReadOnlyStreamRefusesWrites) {
  Container c;
  sfl_ItemRef item = c.Store("abcdefgh");
  int32_t s = sfl_fOpenItem(&item, "r");
  EXPECT_EQ(EscapeOf([&] { sfl_fWrite("zz", 1, 2, s); }), Sfl(28893));
  EXPECT_EQ(sfl_fTell(s), 0);
  EXPECT_EQ(ReadAll(s, 3), "abc");
  EXPECT_EQ(EscapeOf([&] { sfl_fWrite("zz", 1, 2, s); }), Sfl(28893));
  sfl_fClose(s);
  EXPECT_EQ(Stored(item), "abcdefgh");

  for (const char* mode : {"w", "rw"}) {
    s = sfl_fOpenItem(&item, mode);
    EXPECT_EQ(sfl_fWrite("zz", 1, 2, s), 2u) << mode;
    sfl_fClose(s);
  }
  EXPECT_EQ(Stored(item), "zzcdefgh");
}

TEST(ItemStreams, ReadsStopAtTheItemsEnd) {
  Container c;
  std::string a = Pattern(128, '0', 10);  // whole blocks: B lies right behind
  std::string b = Pattern(256, 'A', 26);
  sfl_ItemRef ia = c.Store(a);
  sfl_ItemRef ib = c.Store(b);
  ASSERT_EQ(PlaceOf(ib).offset, PlaceOf(ia).offset + 128);

  int32_t s = sfl_fOpenItem(&ia, "r");
  EXPECT_EQ(ReadAll(s, 100), a.substr(0, 100));
  EXPECT_EQ(sfl_fTell(s), 100);
  // Asking for more than is left is cut to the item's end.
  std::vector<char> buf(1000, '#');
  EXPECT_EQ(sfl_fRead(buf.data(), 1, buf.size(), s), 28u);
  EXPECT_EQ(std::string(buf.data(), 28), a.substr(100));
  EXPECT_EQ(buf[28], '#');
  EXPECT_EQ(sfl_fTell(s), 128);
  // At the end a read returns 0 and moves nothing.
  EXPECT_EQ(sfl_fRead(buf.data(), 1, 10, s), 0u);
  EXPECT_EQ(sfl_fRead(buf.data(), 1, 1, s), 0u);
  EXPECT_EQ(sfl_fTell(s), 128);
  // A zero-length read anywhere is 0.
  EXPECT_EQ(sfl_fSeek(s, 5, SEEK_SET), 0);
  EXPECT_EQ(sfl_fRead(buf.data(), 1, 0, s), 0u);
  EXPECT_EQ(sfl_fTell(s), 5);
  sfl_fClose(s);

  // An empty item reads nothing at all.
  sfl_ItemRef empty = c.Store("");
  s = sfl_fOpenItem(&empty, "r");
  EXPECT_EQ(sfl_fRead(buf.data(), 1, 10, s), 0u);
  sfl_fClose(s);
}

TEST(ItemStreams, WritesNeverPassTheEnd) {
  Container c;
  std::string a(128, '.');
  std::string b = Pattern(128, 'A', 26);
  sfl_ItemRef ia = c.Store(a);
  sfl_ItemRef ib = c.Store(b);
  ASSERT_EQ(PlaceOf(ib).offset, PlaceOf(ia).offset + 128);

  int32_t s = sfl_fOpenItem(&ia, "rw");
  EXPECT_EQ(sfl_fSeek(s, 120, SEEK_SET), 0);
  // Nine bytes from 120 would pass the end: refused, nothing written.
  EXPECT_EQ(EscapeOf([&] { sfl_fWrite("123456789", 1, 9, s); }), Sfl(28874));
  EXPECT_EQ(sfl_fTell(s), 120);
  // Exactly up to the end is fine.
  EXPECT_EQ(sfl_fWrite("12345678", 1, 8, s), 8u);
  EXPECT_EQ(sfl_fTell(s), 128);
  EXPECT_EQ(EscapeOf([&] { sfl_fWrite("x", 1, 1, s); }), Sfl(28874));
  EXPECT_EQ(sfl_fWrite("x", 1, 0, s), 0u);
  sfl_fClose(s);

  std::string want = a;
  want.replace(120, 8, "12345678");
  EXPECT_EQ(Stored(ia), want);
  EXPECT_EQ(Stored(ib), b);
}

TEST(ItemStreams, WritesLandInTheItemAndAreSeenAfterClose) {
  Container c;
  sfl_ItemRef i1 = c.Store(std::string(200, '-'));
  sfl_ItemRef i2 = c.Store(std::string(200, '+'));
  int32_t s = sfl_fOpenItem(&i2, "w");
  EXPECT_EQ(sfl_fSeek(s, 10, SEEK_SET), 0);
  EXPECT_EQ(sfl_fWrite("hello", 1, 5, s), 5u);
  EXPECT_EQ(sfl_fTell(s), 15);
  sfl_fClose(s);
  std::string want(200, '+');
  want.replace(10, 5, "hello");
  EXPECT_EQ(Stored(i2), want);
  EXPECT_EQ(Stored(i1), std::string(200, '-'));
  // In the file, at the item's offset.
  EXPECT_EQ(RawBytes(c.Path(), PlaceOf(i2).offset + 10, 5), "hello");
}

// Stream writes go by the stream's own descriptor; the container's record
// must still know that the file has something to flush.
TEST(ItemStreams, AWriteLeavesTheContainerToBeFlushed) {
  Container c;
  sfl_ItemRef i = c.Store(std::string(64, '-'));
  int32_t s = sfl_fOpenItem(&i, "w");
  sfl_BaseRec* base = sfl_ItemHandle2Record(sfl_L3Handle2Record(s)->ItemHandle)->BaseRecord;
  base->Unflushed = 0;
  EXPECT_EQ(sfl_fWrite("abc", 1, 3, s), 3u);
  EXPECT_EQ(base->Unflushed, 1u);
  sfl_fClose(s);
}

// ---- seeking ---------------------------------------------------------------------------

TEST(ItemStreams, SeekChecksAndReseekBeforeTransfers) {
  Container c;
  std::string data = Pattern(100, 'a', 26);
  sfl_ItemRef item = c.Store(data);
  int32_t s = sfl_fOpenItem(&item, "rw");

  // whence 0: 0 to Size.
  EXPECT_EQ(sfl_fSeek(s, 0, SEEK_SET), 0);
  EXPECT_EQ(sfl_fSeek(s, 100, SEEK_SET), 0);
  EXPECT_EQ(sfl_fTell(s), 100);
  EXPECT_EQ(EscapeOf([&] { sfl_fSeek(s, 101, SEEK_SET); }), Sfl(28874));
  EXPECT_EQ(EscapeOf([&] { sfl_fSeek(s, -1, SEEK_SET); }), Sfl(28874));
  EXPECT_EQ(sfl_fTell(s), 100);
  EXPECT_EQ(sfl_fSeek(s, 40, SEEK_SET), 0);
  EXPECT_EQ(ReadAll(s, 5), data.substr(40, 5));

  // whence 1: never back to exactly 0 or beyond, never past Size.
  EXPECT_EQ(EscapeOf([&] { sfl_fSeek(s, -45, SEEK_CUR); }), Sfl(28874));
  EXPECT_EQ(EscapeOf([&] { sfl_fSeek(s, -46, SEEK_CUR); }), Sfl(28874));
  EXPECT_EQ(EscapeOf([&] { sfl_fSeek(s, 56, SEEK_CUR); }), Sfl(28874));
  EXPECT_EQ(sfl_fTell(s), 45);
  EXPECT_EQ(sfl_fSeek(s, -44, SEEK_CUR), 0);
  EXPECT_EQ(sfl_fTell(s), 1);
  // The container stream now stands elsewhere; the read re-seeks.
  EXPECT_EQ(ReadAll(s, 4), data.substr(1, 4));
  EXPECT_EQ(sfl_fSeek(s, 20, SEEK_CUR), 0);
  EXPECT_EQ(sfl_fTell(s), 25);
  EXPECT_EQ(sfl_fWrite("XY", 1, 2, s), 2u);  // the write re-seeks too
  EXPECT_EQ(sfl_fTell(s), 27);
  EXPECT_EQ(sfl_fSeek(s, 73, SEEK_CUR), 0);  // exactly to Size
  EXPECT_EQ(sfl_fTell(s), 100);

  // whence 2: offset 0 only, to Size.
  EXPECT_EQ(sfl_fSeek(s, 10, SEEK_SET), 0);
  EXPECT_EQ(EscapeOf([&] { sfl_fSeek(s, -1, SEEK_END); }), Sfl(28874));
  EXPECT_EQ(EscapeOf([&] { sfl_fSeek(s, 1, SEEK_END); }), Sfl(28874));
  EXPECT_EQ(sfl_fTell(s), 10);
  EXPECT_EQ(sfl_fSeek(s, 0, SEEK_END), 0);
  EXPECT_EQ(sfl_fTell(s), 100);
  char one;
  EXPECT_EQ(sfl_fRead(&one, 1, 1, s), 0u);
  EXPECT_EQ(EscapeOf([&] { sfl_fWrite("z", 1, 1, s); }), Sfl(28874));
  EXPECT_EQ(sfl_fSeek(s, 24, SEEK_SET), 0);
  EXPECT_EQ(ReadAll(s, 4), std::string(1, data[24]) + "XY" + data[27]);
  sfl_fClose(s);

  std::string want = data;
  want.replace(25, 2, "XY");
  EXPECT_EQ(Stored(item), want);
}

// ---- line reading ----------------------------------------------------------------------

// Lines of mixed lengths, the last without its newline, filling exactly
// `total` bytes.
std::vector<std::string> MixedLines(size_t total) {
  const size_t lengths[] = {0, 1, 2, 3, 17, 60, 1, 0, 140, 5, 33, 0, 2, 250, 9, 4, 71, 1};
  std::vector<std::string> lines;
  size_t used = 0;
  char ch = 'a';
  for (size_t i = 0; used < total; ++i) {
    size_t len = lengths[i % (sizeof lengths / sizeof lengths[0])];
    std::string line(len, ch);
    ch = ch == 'z' ? 'a' : static_cast<char>(ch + 1);
    line += '\n';
    if (used + line.size() >= total) line = std::string(total - used, ch);  // no newline
    used += line.size();
    lines.push_back(line);
  }
  return lines;
}

TEST(ItemLines, ReadExactlyTheItemsLinesNeverTheNextItem) {
  Container c;
  const size_t total = 1024;  // whole blocks: the next item starts right behind
  std::vector<std::string> lines = MixedLines(total);
  std::string data;
  for (const std::string& l : lines) data += l;
  ASSERT_EQ(data.size(), total);
  ASSERT_NE(data.back(), '\n');
  sfl_ItemRef item = c.Store(data);
  std::string next = "NEXT-ITEM-WITHOUT-NEWLINES-" + std::string(200, 'Q');
  sfl_ItemRef behind = c.Store(next);
  ASSERT_EQ(PlaceOf(behind).offset, PlaceOf(item).offset + total);

  for (int32_t len : {2, 3, 7, 64, 5000}) {
    int32_t s = sfl_fOpenItem(&item, "r");
    std::vector<char> buf(static_cast<size_t>(len) + 8, '#');
    std::string joined;
    std::vector<std::string> got;
    size_t calls = 0;
    char* r;
    while ((r = sfl_fgets(buf.data(), len, s)) != nullptr && calls <= total + 1) {
      EXPECT_EQ(r, buf.data());
      std::string piece(buf.data());
      EXPECT_LE(piece.size(), static_cast<size_t>(len - 1));
      ASSERT_FALSE(piece.empty()) << "len " << len << " call " << calls;
      // A piece shorter than the buffer ends a line or the item.
      if (piece.size() < static_cast<size_t>(len - 1)) {
        EXPECT_TRUE(piece.back() == '\n' || joined.size() + piece.size() == total);
      }
      joined += piece;
      got.push_back(piece);
      EXPECT_EQ(sfl_fTell(s), static_cast<long>(joined.size()));
      ++calls;
    }
    EXPECT_EQ(joined, data) << "len " << len;
    EXPECT_EQ(sfl_fTell(s), static_cast<long>(total));
    if (len == 2) {
      EXPECT_EQ(calls, total);  // one byte per call
    }
    if (len == 5000) {
      EXPECT_EQ(got, lines);  // whole lines, the last cut at the end
    }
    EXPECT_EQ(sfl_fgets(buf.data(), len, s), nullptr);  // and it stays at the end
    sfl_fClose(s);
  }
}

TEST(ItemLines, LineReadsStopAtTheEndOfAShortenedItem) {
  // Bytes after the item's size inside its own reserved blocks are not
  // the item's either.
  Container c;
  std::string stored = "one\ntwo\nthree" + std::string(100, 'G');
  sfl_ItemRef item = c.Store(stored);
  int32_t h = sfl_OpenItem(&item, 0);
  sfl_TruncateSimItem(h, 13);
  int32_t s = sfl_fOpenItem(&item, "r");
  char buf[256];
  ASSERT_NE(sfl_fgets(buf, sizeof buf, s), nullptr);
  EXPECT_STREQ(buf, "one\n");
  ASSERT_NE(sfl_fgets(buf, sizeof buf, s), nullptr);
  EXPECT_STREQ(buf, "two\n");
  ASSERT_NE(sfl_fgets(buf, sizeof buf, s), nullptr);
  EXPECT_STREQ(buf, "three");
  EXPECT_EQ(sfl_fTell(s), 13);
  EXPECT_EQ(sfl_fgets(buf, sizeof buf, s), nullptr);
  sfl_fClose(s);
  sfl_CloseItem(h);
}

TEST(ItemLines, LengthOneGivesEmptyStringBeforeTheEndAndNullAtIt) {
  Container c;
  sfl_ItemRef item = c.Store("ab\ncd");
  int32_t s = sfl_fOpenItem(&item, "r");
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(sfl_fgets(buf, 1, s), buf);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], '#');
  EXPECT_EQ(sfl_fTell(s), 0);
  // Lengths below 1 give null at once.
  EXPECT_EQ(sfl_fgets(buf, 0, s), nullptr);
  EXPECT_EQ(sfl_fgets(buf, -5, s), nullptr);
  EXPECT_EQ(sfl_fTell(s), 0);
  EXPECT_EQ(ReadAll(s, 4), "ab\nc");
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(sfl_fgets(buf, 1, s), buf);  // one byte left
  EXPECT_EQ(buf[0], '\0');
  ASSERT_NE(sfl_fgets(buf, 8, s), nullptr);
  EXPECT_STREQ(buf, "d");
  EXPECT_EQ(sfl_fTell(s), 5);
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(sfl_fgets(buf, 1, s), nullptr);  // at the end
  EXPECT_EQ(buf[0], '#');
  EXPECT_EQ(sfl_fgets(buf, 8, s), nullptr);
  EXPECT_EQ(sfl_fTell(s), 5);
  sfl_fClose(s);
}

TEST(ItemLines, LengthIsCutAtTheItemsEnd) {
  Container c;
  std::string a = std::string(122, 'x') + "abcdef";  // 128 bytes, no newline
  sfl_ItemRef ia = c.Store(a);
  sfl_ItemRef ib = c.Store("XYZ\nmore\n");
  ASSERT_EQ(PlaceOf(ib).offset, PlaceOf(ia).offset + 128);
  int32_t s = sfl_fOpenItem(&ia, "r");
  EXPECT_EQ(sfl_fSeek(s, 122, SEEK_SET), 0);
  // The seek put the stream back at the item: the line comes from there,
  // and stops at the item's end although the buffer holds 100.
  char buf[100];
  ASSERT_NE(sfl_fgets(buf, sizeof buf, s), nullptr);
  EXPECT_STREQ(buf, "abcdef");
  EXPECT_EQ(sfl_fTell(s), 128);
  EXPECT_EQ(sfl_fgets(buf, sizeof buf, s), nullptr);
  sfl_fClose(s);
}

// Line reads do not re-seek: after sfl_fSeek with whence 1 the container
// stream stands at Offset + (Offset + Position), and sfl_fgets reads from
// there and takes its position from the stream. Kept as it is while the
// stream stands inside the item; reads and writes are not affected because
// they re-seek.
TEST(ItemLines, LineReadFollowsTheStreamAfterARelativeSeek) {
  Container c;
  std::string a;
  for (int i = 0; i < 200; ++i) a += Pattern(static_cast<size_t>(5 + i % 31), 'a', 26) + "\n";
  sfl_ItemRef ia = c.Store(a);
  const uint32_t off = PlaceOf(ia).offset;
  const uint32_t k = 10;
  const uint32_t streamAt = off + off + k;
  ASSERT_LT(streamAt + 40, off + a.size());  // the stream lands inside a

  int32_t s = sfl_fOpenItem(&ia, "r");
  EXPECT_EQ(sfl_fSeek(s, static_cast<int32_t>(k), SEEK_CUR), 0);
  EXPECT_EQ(sfl_fTell(s), static_cast<long>(k));
  char buf[40];
  ASSERT_NE(sfl_fgets(buf, sizeof buf, s), nullptr);
  const std::string from = a.substr(streamAt - off, sizeof buf - 1);
  const size_t nl = from.find('\n');
  const std::string want = nl == std::string::npos ? from : from.substr(0, nl + 1);
  EXPECT_EQ(std::string(buf), want);
  EXPECT_EQ(sfl_fTell(s), static_cast<long>(streamAt + want.size() - off));

  // Seeking with whence 0 puts everything back in step.
  EXPECT_EQ(sfl_fSeek(s, 0, SEEK_SET), 0);
  ASSERT_NE(sfl_fgets(buf, 6, s), nullptr);
  EXPECT_EQ(std::string(buf), a.substr(0, 5));
  EXPECT_EQ(sfl_fTell(s), 5);
  sfl_fClose(s);
}

// Where the stream would stand outside the item (here in the next item's
// data), the line read is refused rather than return another item's bytes.
TEST(ItemLines, ALineReadWhereTheStreamStandsOutsideTheItemIsRefused) {
  Container c;
  std::string b;
  for (int i = 0; i < 60; ++i) b += Pattern(static_cast<size_t>(5 + i % 31), 'a', 26) + "\n";
  sfl_ItemRef ia = c.Store(Pattern(128, '0', 10));
  sfl_ItemRef ib = c.Store(b);
  const uint32_t off = PlaceOf(ia).offset;
  ASSERT_GE(off + off + 10, PlaceOf(ib).offset);  // would land in b's data

  int32_t s = sfl_fOpenItem(&ia, "r");
  EXPECT_EQ(sfl_fSeek(s, 10, SEEK_CUR), 0);
  char buf[40];
  EXPECT_EQ(EscapeOf([&] { sfl_fgets(buf, sizeof buf, s); }), Sfl(SFL_R_RANGE));
  EXPECT_EQ(sfl_fTell(s), 10);
  EXPECT_EQ(sfl_fSeek(s, 10, SEEK_SET), 0);
  ASSERT_NE(sfl_fgets(buf, 6, s), nullptr);
  EXPECT_EQ(std::string(buf), Pattern(128, '0', 10).substr(10, 5));
  sfl_fClose(s);
}

// ---- mixed use -------------------------------------------------------------------------

TEST(ItemStreams, PositionalAndStreamReadsAgree) {
  Container c;
  std::string data = Pattern(3000, ' ', 90);
  for (size_t i = 37; i < data.size(); i += 61) data[i] = '\n';
  sfl_ItemRef item = c.Store(data);
  c.Store(std::string(500, '!'));

  int32_t h = sfl_OpenItem(&item, 0);
  int32_t s = sfl_fOpenItem(&item, "r");
  ASSERT_EQ(sfl_fileno(s), h);
  std::mt19937 rng(12345);
  size_t pos = 0;
  char line[80];
  for (int step = 0; step < 400; ++step) {
    // Positional read anywhere in the item.
    uint32_t at = rng() % 3000;
    uint32_t len = rng() % (3000 - at + 1);
    std::string got(len, '\0');
    EXPECT_EQ(sfl_ReadSimpleData(h, at, len, got.data()), static_cast<int32_t>(len));
    EXPECT_EQ(got, data.substr(at, len));
    // Then the stream goes on from where it was.
    switch (rng() % 3) {
      case 0: {
        size_t n = rng() % 90;
        std::string r = ReadAll(s, n);
        EXPECT_EQ(r, data.substr(pos, n));
        pos += r.size();
        break;
      }
      case 1: {
        int len2 = 1 + static_cast<int>(rng() % 79);
        char* r = sfl_fgets(line, len2, s);
        if (pos == data.size()) {
          EXPECT_EQ(r, nullptr);
        } else {
          ASSERT_NE(r, nullptr);
          std::string piece(line);
          std::string want = data.substr(pos, static_cast<size_t>(len2 - 1));
          size_t nl = want.find('\n');
          if (nl != std::string::npos) want.resize(nl + 1);
          EXPECT_EQ(piece, want);
          pos += piece.size();
        }
        break;
      }
      default: {
        pos = rng() % 3001;
        EXPECT_EQ(sfl_fSeek(s, static_cast<int32_t>(pos), SEEK_SET), 0);
      }
    }
    EXPECT_EQ(sfl_fTell(s), static_cast<long>(pos));
    // Serial reads on the handle keep their own position.
    char serial[16];
    EXPECT_GE(sfl_ReadSerialData(h, serial, sizeof serial), 0);
  }
  sfl_fClose(s);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  sfl_CloseItem(h);
}

// Reads, writes, line reads and seeks in any order on one "rw" stream agree
// with a model of the item's bytes (direction changes included).
TEST(ItemStreams, MixedTransfersMatchAModel) {
  Container c;
  std::string model = Pattern(700, 'a', 26);
  for (size_t i = 11; i < model.size(); i += 23) model[i] = '\n';
  sfl_ItemRef item = c.Store(model);
  std::string behind = std::string(300, '~');
  sfl_ItemRef after = c.Store(behind);
  int32_t s = sfl_fOpenItem(&item, "rw");
  std::mt19937 rng(777);
  size_t pos = 0;
  for (int step = 0; step < 600; ++step) {
    switch (rng() % 4) {
      case 0: {
        size_t n = rng() % 40;
        EXPECT_EQ(ReadAll(s, n), model.substr(pos, n));
        pos = std::min(model.size(), pos + n);
        break;
      }
      case 1: {
        size_t n = rng() % 40;
        std::string w(n, '\0');
        for (char& ch : w) ch = static_cast<char>(rng() % 3 == 0 ? '\n' : 'A' + rng() % 26);
        if (pos + n > model.size()) {
          EXPECT_EQ(EscapeOf([&] { sfl_fWrite(w.data(), 1, n, s); }), Sfl(28874));
        } else {
          EXPECT_EQ(sfl_fWrite(w.data(), 1, n, s), n);
          model.replace(pos, n, w);
          pos += n;
        }
        break;
      }
      case 2: {
        char buf[32];
        int len = 1 + static_cast<int>(rng() % 31);
        char* r = sfl_fgets(buf, len, s);
        if (pos == model.size()) {
          EXPECT_EQ(r, nullptr);
        } else if (len == 1) {
          EXPECT_STREQ(r, "");
        } else {
          ASSERT_NE(r, nullptr);
          std::string want = model.substr(pos, static_cast<size_t>(len - 1));
          size_t nl = want.find('\n');
          if (nl != std::string::npos) want.resize(nl + 1);
          EXPECT_EQ(std::string(buf), want);
          pos += want.size();
        }
        break;
      }
      default:
        pos = rng() % (model.size() + 1);
        EXPECT_EQ(sfl_fSeek(s, static_cast<int32_t>(pos), SEEK_SET), 0);
    }
    ASSERT_EQ(sfl_fTell(s), static_cast<long>(pos)) << "step " << step;
  }
  sfl_fClose(s);
  EXPECT_EQ(Stored(item), model);
  EXPECT_EQ(Stored(after), behind);
}

// ---- errors free what was taken ------------------------------------------------------

TEST(ItemStreams, FailedOpensLeaveNothingBehind) {
  Container c;
  sfl_ItemRef item = c.Store("data");
  int32_t h = sfl_OpenItem(&item, 0);  // held by the caller throughout
  int items = sfl_OpenItems().InUseCount();
  std::set<int> fds = Descriptors();

  os_FailNth(os_Op::Fopen, 1, EMFILE);
  EXPECT_EQ(EscapeOf([&] { sfl_fOpenItem(&item, "r"); }), Os(EMFILE));
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);

  os_FailNth(os_Op::Fseek, 1, EIO);
  EXPECT_EQ(EscapeOf([&] { sfl_fOpenItem(&item, "r"); }), Os(EIO));
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  os_ClearFaults();

  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(Descriptors(), fds);

  // A full table: the item open and the container stream are given back.
  std::string plain = PlainFile("p.txt", "p");
  std::vector<int32_t> held;
  for (int i = 0; i < 16; ++i) held.push_back(sfl_fOpen(plain.c_str(), "r"));
  std::set<int> fdsFull = Descriptors();
  EXPECT_EQ(EscapeOf([&] { sfl_fOpenItem(&item, "rw"); }), Table(28888));
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  EXPECT_EQ(Descriptors(), fdsFull);
  for (int32_t t : held) sfl_fClose(t);
  sfl_CloseItem(h);
}

// The failed open of an item nobody held gives the item handle back too.
TEST(ItemStreams, FailedOpenOfAnUnheldItemClosesIt) {
  Container c;
  sfl_ItemRef item = c.Store("data");
  int items = sfl_OpenItems().InUseCount();
  os_FailNth(os_Op::Fopen, 1, ENFILE);
  EXPECT_EQ(EscapeOf([&] { sfl_fOpenItem(&item, "r"); }), Os(ENFILE));
  os_ClearFaults();
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  int32_t s = sfl_fOpenItem(&item, "r");  // and it opens fine afterwards
  EXPECT_EQ(ReadAll(s, 10), "data");
  sfl_fClose(s);
}

TEST(ItemStreams, FailedCloseStillFreesTheRecord) {
  Container c;
  sfl_ItemRef item = c.Store("data");
  int32_t h = sfl_OpenItem(&item, 0);
  std::set<int> fds = Descriptors();
  int32_t s = sfl_fOpenItem(&item, "rw");
  EXPECT_EQ(sfl_fWrite("DA", 1, 2, s), 2u);
  os_FailNth(os_Op::Fclose, 1, EIO);
  EXPECT_EQ(EscapeOf([&] { sfl_fClose(s); }), Os(EIO));
  os_ClearFaults();
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(EscapeOf([&] { sfl_L3Handle2Record(s); }), Table(28867));
  EXPECT_EQ(sfl_ItemHandle2Record(h)->OpenRefs, 1);
  EXPECT_EQ(Descriptors(), fds);
  // The bytes were flushed before the item was given back.
  EXPECT_EQ(Stored(item), "DAta");
  sfl_CloseItem(h);

  // The same for a plain file.
  std::string plain = PlainFile("q.txt", "q");
  s = sfl_fOpen(plain.c_str(), "r");
  os_FailNth(os_Op::Fclose, 1, EIO);
  EXPECT_EQ(EscapeOf([&] { sfl_fClose(s); }), Os(EIO));
  os_ClearFaults();
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(Descriptors(), fds);
}

TEST(ItemStreams, ManyOpenCloseCyclesLeakNothing) {
  Container c;
  sfl_ItemRef a = c.Store("alpha\nbeta\n");
  sfl_ItemRef b = c.Store("gamma\n");
  std::string nameB = NameOf(b);
  int items = sfl_OpenItems().InUseCount();
  std::set<int> fds = Descriptors();
  for (int i = 0; i < 50; ++i) {
    int32_t s = sfl_fOpenItem(&a, "rw");
    int32_t t = sfl_fOpen(nameB.c_str(), "r");
    char buf[16];
    ASSERT_NE(sfl_fgets(buf, sizeof buf, s), nullptr);
    ASSERT_NE(sfl_fgets(buf, sizeof buf, t), nullptr);
    EXPECT_STREQ(buf, "gamma\n");
    sfl_fClose(t);
    sfl_fClose(s);
  }
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(Descriptors(), fds);
}

// ---- locks survive the container's second descriptor --------------------------------

// Asks from another process whether [offset, offset + len) of the file is
// write-locked by someone: 1 locked, 0 free, anything else a failure.
int ProbeLocked(const std::string& path, uint32_t offset, uint32_t len) {
  return sfltest::LockStateElsewhere(path, offset, len);
}

TEST(ItemStreamLocks, ItemLockSurvivesStreamOpenAndClose) {
  Container c;
  sfl_ItemRef a = c.Store(Pattern(256, 'a', 26));
  sfl_ItemRef b = c.Store(Pattern(256, 'A', 26));
  const std::string path = c.Path();
  int32_t h = sfl_OpenItem(&a, 0);
  const uint32_t off = sfl_ItemHandle2Record(h)->Offset;

  EXPECT_EQ(ProbeLocked(path, off, 100), 0);
  ASSERT_NE(sfl_LockSflItem(h, SFL_LOCK_EXCL, 0, 0, 100), 0);
  EXPECT_EQ(ProbeLocked(path, off, 100), 1);

  // A stream on the locked item itself, by reference.
  int32_t s = sfl_fOpenItem(&a, "rw");
  EXPECT_EQ(ProbeLocked(path, off, 100), 1);
  char buf[64];
  EXPECT_EQ(sfl_fRead(buf, 1, 10, s), 10u);
  EXPECT_EQ(sfl_fWrite("zz", 1, 2, s), 2u);
  sfl_fClose(s);
  EXPECT_EQ(ProbeLocked(path, off, 100), 1);

  // By item name.
  std::string nameA = NameOf(a);
  s = sfl_fOpen(nameA.c_str(), "r");
  ASSERT_NE(sfl_fgets(buf, sizeof buf, s), nullptr);
  sfl_fClose(s);
  EXPECT_EQ(ProbeLocked(path, off, 100), 1);

  // A stream on another item of the same file, whose close is that item's
  // last.
  s = sfl_fOpenItem(&b, "r");
  EXPECT_EQ(sfl_fRead(buf, 1, sizeof buf, s), sizeof buf);
  sfl_fClose(s);
  EXPECT_EQ(ProbeLocked(path, off, 100), 1);

  // Released through the item handle, the probe sees it go.
  EXPECT_NE(sfl_LockSflItem(h, SFL_LOCK_RELEASE, 0, 0, 100), 0);
  EXPECT_EQ(ProbeLocked(path, off, 100), 0);
  sfl_CloseItem(h);
}

}  // namespace
