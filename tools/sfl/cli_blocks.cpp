// Commands on blocked items (`sfl blocks append|read|list|free`) and the
// helpers that read a blocked item's blocks whole and in order.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "cli.h"

namespace cli {
namespace {

constexpr uint32_t kFanOut = 32;
constexpr uint32_t kMaxDepth = 6;

constexpr size_t kIndexSize = 384;
constexpr uint32_t kMagic = 12345678;
constexpr uint32_t kIndexType = 18;
constexpr uint32_t kTableOffsetField = 24;  // in the file header
constexpr uint32_t kParentField = 24;       // in an index record
constexpr uint32_t kItemHeaderSize = 64;
constexpr uint32_t kItemHeaderType = 17;
constexpr uint32_t kHeaderFileOffsetField = 24;  // in an item header
constexpr uint32_t kHeaderIndexDepthField = 28;
constexpr uint32_t kEntriesField = 32;           // in an index record: 32 x {offset, size}

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
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(buf[at + static_cast<size_t>(i)]);
  return v;
}

bool AllZero(const std::string& bytes) {
  return bytes.find_first_not_of('\0') == std::string::npos;
}

void PutLe32(std::string* buf, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*buf)[at + i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

// The library lays a new blocked item's root down as 384 zero bytes, which
// its own index check refuses on the first read, so no block could ever be
// placed. Before appending, the tool turns such a root into an empty leaf
// (magic, type 18, depth 0, parent = the item's header), under the item
// header's exclusive lock that every change of the tree takes.
void PrepareBlankRoot(const Container& c, const sfl_ItemRef& ref, int32_t handle) {
  const sfl_ItemInfo info = c.UsedSlot(ItemNumber(ref));
  if (info.IndexDepth != 0 || info.FileOffset == 0) return;
  sfl_ItemRec* rec = sfl_ItemHandle2Record(handle);
  struct Unlock {
    sfl_ItemRec* rec;
    int held;
    ~Unlock() {
      if (!held) return;
      try {
        sfl_UnLockItemHeader(rec);
      } catch (const er_Escape&) {
        er_Clear();
      }
    }
  } lock{rec, sfl_LockItemHeader(rec, SFL_LOCK_EXCL)};
  if (!AllZero(ReadRootBytes(ref, info.FileOffset))) return;
  std::string leaf(kIndexSize, '\0');
  PutLe32(&leaf, 0, kMagic);
  PutLe32(&leaf, 4, kIndexType);
  const uint32_t table = GetLe32(ReadRaw(ref, kTableOffsetField, 4), 0);
  PutLe32(&leaf, kParentField, table + ItemNumber(ref) * kItemHeaderSize);  // parent: the header
  const std::string path = RefPath(ContainerOf(ref));
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) throw Failure{path + ": " + std::strerror(errno)};
  ssize_t n = pwrite(fd, leaf.data(), leaf.size(), info.FileOffset);
  int err = errno;
  close(fd);
  if (n != static_cast<ssize_t>(leaf.size()))
    throw Failure{std::string("cannot write the item's index root: ") + std::strerror(err)};
}


struct BlockedItem {
  sfl_ItemRef ref;
  Container container;
  sfl_ItemInfo info;
  Item item;

  explicit BlockedItem(const sfl_ItemRef& r)
      : ref(r), container(r), info(container.UsedSlot(ItemNumber(r))), item(r) {
    if (!(info.Flags & BLOCKED_ITEM))
      throw Failure{"not a blocked item (use 'sfl get' for simple items)"};
  }
  void Close() {
    item.Close();
    container.Close();
  }
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
    if (node.depth != depth) throw Failure{"index record at offset " + std::to_string(off) + " has the wrong depth"};
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

// "N", "N-M", "N-" (to the last block) or "" (every block).
struct BlockRange {
  uint32_t first = 0;
  uint32_t last = UINT32_MAX;
  bool single = false;
};

BlockRange ParseRange(const std::string& text) {
  BlockRange r;
  if (text.empty()) return r;
  size_t dash = text.find('-');
  if (dash == std::string::npos) {
    r.first = r.last = static_cast<uint32_t>(ParseNumber(text, "block number", UINT32_MAX));
    r.single = true;
    return r;
  }
  r.first = static_cast<uint32_t>(ParseNumber(text.substr(0, dash), "block number", UINT32_MAX));
  if (dash + 1 < text.size())
    r.last = static_cast<uint32_t>(ParseNumber(text.substr(dash + 1), "block number", UINT32_MAX));
  if (r.last < r.first) throw UsageError{"empty block range '" + text + "'"};
  return r;
}

// Splits the input into blocks: lines (each with its newline) or chunks of
// a fixed size.
std::vector<std::string> SplitInput(const std::string& data, bool lines, size_t chunk) {
  std::vector<std::string> blocks;
  size_t pos = 0;
  while (pos < data.size()) {
    size_t end;
    if (lines) {
      size_t nl = data.find('\n', pos);
      end = nl == std::string::npos ? data.size() : nl + 1;
    } else {
      end = std::min(data.size(), pos + chunk);
    }
    blocks.push_back(data.substr(pos, end - pos));
    pos = end;
  }
  return blocks;
}

// ---- append -------------------------------------------------------------------------

int RunAppend(const Args& a) {
  sfl_ItemRef ref = ParseRef(a.positional[0]);
  const std::string path = a.positional.size() > 1 ? a.positional[1] : "-";
  const bool fromStdin = path == "-";
  if (a.Has("lines") && a.Has("chunk")) throw UsageError{"--lines and --chunk exclude each other"};
  const size_t chunk = a.Has("chunk")
                           ? static_cast<size_t>(ParseNumber(a.Get("chunk"), "chunk size", INT32_MAX))
                           : 8192;
  if (chunk == 0) throw UsageError{"the chunk size must be at least 1"};
  const bool lines = a.Has("lines") || (fromStdin && !a.Has("chunk"));

  std::string data;
  if (fromStdin) {
    data = ReadAll(0);
  } else {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw Failure{path + ": " + std::strerror(errno)};
    try {
      data = ReadAll(fd);
    } catch (...) {
      close(fd);
      throw;
    }
    close(fd);
  }
  const std::vector<std::string> blocks = SplitInput(data, lines, chunk);

  Container c(ref);
  sfl_ItemRef itemRef = ref;
  int32_t handle;
  if (ItemNumber(ref) == 0) {
    handle = sfl_CreateBlockedItem(c.handle(), &itemRef);
  } else {
    if (!(c.UsedSlot(ItemNumber(ref)).Flags & BLOCKED_ITEM))
      throw Failure{"not a blocked item; blocks go into a blocked item or a new one"};
    handle = sfl_OpenItem(&ref, 0);
  }
  Item item = Item::Adopt(handle);
  SetSubject(RefText(itemRef));
  PrepareBlankRoot(c, itemRef, handle);
  int64_t first = -1, last = -1;
  for (const std::string& b : blocks) {
    int32_t n = sfl_GetNewBlock(handle, static_cast<int32_t>(b.size()), /*append=*/1, b.data());
    if (n < 0) throw Failure{"no room for another block in the item's index"};
    if (first < 0) first = n;
    last = n;
  }
  item.Close();
  c.Close();
  std::printf("%s\n", RefText(itemRef).c_str());
  if (first >= 0)
    std::printf("blocks %lld-%lld (%zu appended)\n", static_cast<long long>(first),
                static_cast<long long>(last), blocks.size());
  return kExitOk;
}

// ---- read, list, free -------------------------------------------------------------------

int RunRead(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  const BlockRange range = ParseRange(a.positional.size() > 1 ? a.positional[1] : "");
  BlockedItem b(ref);
  Output out(a.Get("output"));
  if (range.single) {
    if (b.info.IndexDepth == 0 && AllZero(ReadRootBytes(ref, b.info.FileOffset)))
      throw Failure{"no block " + std::to_string(range.first) + ": the item holds no blocks yet"};
    const std::string data = ReadWholeBlock(b.item.handle(), range.first);
    out.Write(data.data(), data.size());
  } else {
    ForEachBlock(
        b.item.handle(), b.ref,
        [&](uint32_t, const std::string& data) { out.Write(data.data(), data.size()); },
        range.first, range.last);
  }
  b.Close();
  out.Finish();
  return kExitOk;
}

int RunList(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  BlockedItem b(ref);
  const std::vector<BlockEntry> blocks = ListBlocks(b.item.handle(), ref);
  b.Close();
  uint64_t total = 0;
  for (const BlockEntry& e : blocks) total += e.size;
  if (a.Has("json")) {
    std::string s = "{\"item\": " + JsonString(RefText(ref)) +
                    ", \"index_depth\": " + std::to_string(b.info.IndexDepth) +
                    ", \"count\": " + std::to_string(blocks.size()) +
                    ", \"bytes\": " + std::to_string(total) + ", \"blocks\": [";
    for (size_t i = 0; i < blocks.size(); ++i)
      s += std::string(i == 0 ? "" : ", ") + "{\"block\": " + std::to_string(blocks[i].number) +
           ", \"size\": " + std::to_string(blocks[i].size) + "}";
    std::printf("%s]}\n", s.c_str());
    return kExitOk;
  }
  std::printf("%8s %10s\n", "BLOCK", "SIZE");
  for (const BlockEntry& e : blocks) std::printf("%8u %10u\n", e.number, e.size);
  std::printf("%zu blocks, %llu bytes, index depth %u\n", blocks.size(),
              static_cast<unsigned long long>(total), b.info.IndexDepth);
  return kExitOk;
}

int RunFree(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  std::vector<uint32_t> numbers;
  for (size_t i = 1; i < a.positional.size(); ++i)
    numbers.push_back(static_cast<uint32_t>(ParseNumber(a.positional[i], "block number", UINT32_MAX)));
  BlockedItem b(ref);
  for (uint32_t n : numbers) sfl_FreeBlock(b.item.handle(), n, 0);
  b.Close();
  return kExitOk;
}

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
  // The library has no call that enumerates a tree's blocks (a read of every
  // possible number would be one failed read per empty number, a million for
  // a tree of depth 3). The tree is walked in the file instead, under the
  // item header's shared lock, which every change of the tree excludes.
  const std::string path = RefPath(ContainerOf(ref));
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Failure{path + ": " + std::strerror(errno)};
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};
  sfl_ItemRec* rec = sfl_ItemHandle2Record(item);
  struct Unlock {
    sfl_ItemRec* rec;
    int held;
    ~Unlock() {
      if (!held) return;
      try {
        sfl_UnLockItemHeader(rec);
      } catch (const er_Escape&) {
        er_Clear();
      }
    }
  } lock{rec, sfl_LockItemHeader(rec, SFL_LOCK_SHARED)};
  // The root and depth as they are now, under the lock.
  const uint32_t table = GetLe32(ReadRaw(ref, kTableOffsetField, 4), 0);
  const std::string header = ReadRaw(ref, table + ItemNumber(ref) * kItemHeaderSize, kItemHeaderSize);
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

const std::vector<Command>& BlockCommands() {
  static const std::vector<Command> kCommands = {
      {"blocks append", "<container|item> [file|-] [--lines | --chunk N]",
       "append blocks to a blocked item (a new one when given a container)",
       "Appends the input as blocks: a file in chunks (8192 bytes unless --chunk), standard\n"
       "input ('-' or absent) one line per block (with its newline) unless --chunk.\n"
       "Given a container, creates a new blocked item in it first. Prints the item's\n"
       "reference, then the numbers of the appended blocks.\n",
       {{"lines", 'l', false, "one block per line"},
        {"chunk", 'c', true, "blocks of this many bytes"}},
       1, 2, RunAppend},
      {"blocks read", "<item> [N | N-M | N-] [-o file]",
       "write a block, a range of blocks, or all blocks",
       "Writes the bytes of block N, or of the blocks N to M (N- : to the last), or of every\n"
       "block, in order. Freed blocks inside a range are skipped; a single freed block is\n"
       "an error.\n",
       {{"output", 'o', true, "write to this file instead of standard output"}}, 1, 2, RunRead},
      {"blocks list", "<item> [--json]", "list a blocked item's blocks and their sizes", "",
       {{"json", 0, false, "print one JSON object"}}, 1, 1, RunList},
      {"blocks free", "<item> <N>...", "free blocks of a blocked item",
       "Frees each block; its number stays unused until a first-free placement takes it.\n", {},
       2, -1, RunFree},
  };
  return kCommands;
}

}  // namespace cli
