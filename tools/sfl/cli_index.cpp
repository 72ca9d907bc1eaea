// The tool's direct view of a blocked item's index in the container file:
// listing a tree's blocks, for which the library offers no call. It reads
// under the item header lock that every change of the tree takes; all block
// data still moves through the library.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli.h"

namespace cli {
namespace {

constexpr uint32_t kFanOut = 32;
constexpr uint32_t kMaxDepth = 6;

constexpr size_t kIndexSize = 384;
constexpr uint32_t kMagic = 12345678;
constexpr uint32_t kIndexType = 18;
constexpr uint32_t kTableOffsetField = 24;  // in the file header
constexpr uint32_t kItemHeaderSize = 64;
constexpr uint32_t kItemHeaderType = 17;
constexpr uint32_t kHeaderFileOffsetField = 24;  // in an item header
constexpr uint32_t kHeaderIndexDepthField = 28;
constexpr uint32_t kEntriesField = 32;  // in an index record: 32 x {offset, size}

// Raw bytes of the container file. Throws Failure when they cannot be read.
std::string ReadRaw(const sfl_ItemRef& ref, uint32_t offset, size_t len) {
  const std::string path = RefPath(ContainerOf(ref));
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Failure{path + ": " + std::strerror(errno)};
  std::string raw(len, '\0');
  ssize_t n = pread(fd, raw.data(), raw.size(), offset);
  close(fd);
  if (n != static_cast<ssize_t>(raw.size())) throw Failure{"cannot read the container file"};
  return raw;
}

std::string ReadRootBytes(const sfl_ItemRef& ref, uint32_t offset) {
  return ReadRaw(ref, offset, kIndexSize);
}

uint32_t GetLe32(const std::string& buf, size_t at) {
  uint32_t v = 0;
  for (size_t i = 4; i-- > 0;) v = (v << 8) | static_cast<uint8_t>(buf[at + i]);
  return v;
}

bool AllZero(const std::string& bytes) {
  return bytes.find_first_not_of('\0') == std::string::npos;
}

// Holds an item's header lock, taken through the library, for a scope.
class HeaderLock {
 public:
  HeaderLock(int32_t item, int32_t mode)
      : rec_(sfl_ItemHandle2Record(item)), held_(sfl_LockItemHeader(rec_, mode)) {}
  ~HeaderLock() {
    if (!held_) return;
    try {
      sfl_UnLockItemHeader(rec_);
    } catch (const er_Escape&) {
      er_Clear();
    }
  }
  HeaderLock(const HeaderLock&) = delete;
  HeaderLock& operator=(const HeaderLock&) = delete;

 private:
  sfl_ItemRec* rec_;
  int32_t held_;
};

// An index record's fields, decoded from its little-endian bytes.
struct IndexNode {
  uint32_t depth = 0;
  uint32_t offsets[kFanOut] = {};
  uint32_t sizes[kFanOut] = {};
};

IndexNode DecodeNode(const std::string& raw, uint32_t at) {
  if (GetLe32(raw, 0) != kMagic || GetLe32(raw, 4) != kIndexType)
    throw Failure{"bad index record at offset " + std::to_string(at)};
  IndexNode node;
  node.depth = GetLe32(raw, 8);
  for (uint32_t e = 0; e < kFanOut; ++e) {
    node.offsets[e] = GetLe32(raw, kEntriesField + 8 * e);
    node.sizes[e] = GetLe32(raw, kEntriesField + 8 * e + 4);
  }
  return node;
}

uint64_t Span(uint32_t depth) {  // block numbers under one entry of a record of this depth
  uint64_t span = 1;
  for (uint32_t i = 0; i < depth; ++i) span *= kFanOut;
  return span;
}

struct TreeWalk {
  int fd;
  uint64_t first, last;
  std::vector<BlockEntry>* out;

  void Visit(uint32_t off, uint32_t depth, uint64_t base) {
    std::string raw(kIndexSize, '\0');
    if (pread(fd, raw.data(), raw.size(), off) != static_cast<ssize_t>(raw.size()))
      throw Failure{"cannot read the index record at offset " + std::to_string(off)};
    const IndexNode node = DecodeNode(raw, off);
    if (node.depth != depth)
      throw Failure{"index record at offset " + std::to_string(off) + " has the wrong depth"};
    const uint64_t span = Span(depth);
    for (uint32_t e = 0; e < kFanOut; ++e) {
      if (node.offsets[e] == 0) continue;  // an empty entry
      const uint64_t lo = base + e * span;
      if (lo > last || lo + span - 1 < first) continue;
      if (depth > 0)
        Visit(node.offsets[e], depth - 1, lo);
      else
        out->push_back({static_cast<uint32_t>(lo), node.sizes[e]});
    }
  }
};

}  // namespace

std::string ReadWholeBlock(int32_t item, uint32_t block) {
  // A read transfers the smaller of the block's length and the buffer's, so
  // a read that fills the buffer is repeated with a larger one.
  std::string buf(64 * 1024, '\0');
  for (;;) {
    uint32_t n = sfl_ReadBlockedData(item, block, static_cast<uint32_t>(buf.size()), buf.data());
    if (n < buf.size() || buf.size() >= (1u << 31)) {
      buf.resize(n);
      return buf;
    }
    buf.resize(buf.size() * 2);
  }
}

std::vector<BlockEntry> ListBlocks(int32_t item, const sfl_ItemRef& ref, uint32_t first,
                                   uint32_t last) {
  // Probing every possible number through the library would cost one failed
  // read per empty number (a million for a tree of depth 3), so the tree is
  // walked in the file, under the item header's shared lock, which every
  // change of the tree excludes.
  const std::string path = RefPath(ContainerOf(ref));
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Failure{path + ": " + std::strerror(errno)};
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};
  HeaderLock lock(item, SFL_LOCK_SHARED);
  // The root and depth as they are now, under the lock.
  const uint32_t table = GetLe32(ReadRaw(ref, kTableOffsetField, 4), 0);
  const std::string header =
      ReadRaw(ref, table + ItemNumber(ref) * kItemHeaderSize, kItemHeaderSize);
  if (GetLe32(header, 0) != kMagic || GetLe32(header, 4) != kItemHeaderType)
    throw Failure{"the item's header is not valid"};
  const uint32_t root = GetLe32(header, kHeaderFileOffsetField);
  const uint32_t depth = GetLe32(header, kHeaderIndexDepthField);
  if (depth > kMaxDepth) throw Failure{"the item's index is deeper than the library allows"};
  std::vector<BlockEntry> blocks;
  // A root still as the library laid it down (zeros) holds no blocks.
  if (depth == 0 && AllZero(ReadRootBytes(ref, root))) return blocks;
  TreeWalk walk{fd, first, last, &blocks};
  walk.Visit(root, depth, 0);
  return blocks;
}

void ForEachBlock(int32_t item, const sfl_ItemRef& ref,
                  const std::function<void(uint32_t, const std::string&)>& fn, uint32_t first,
                  uint32_t last) {
  for (const BlockEntry& b : ListBlocks(item, ref, first, last)) {
    std::string data(b.size, '\0');
    uint32_t n = sfl_ReadBlockedData(item, b.number, b.size, data.data());
    if (n != b.size)
      throw Failure{"block " + std::to_string(b.number) + " read short (" + std::to_string(n) +
                    " of " + std::to_string(b.size) + " bytes)"};
    fn(b.number, data);
  }
}

bool RootIsBlank(const sfl_ItemRef& ref, const sfl_ItemInfo& info) {
  return info.IndexDepth == 0 && AllZero(ReadRootBytes(ref, info.FileOffset));
}

}  // namespace cli
