// Commands on blocked items: `sfl blocks append|read|list|free|compact|move`.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli.h"

namespace cli {
namespace {

struct BlockedItem {
  sfl_ItemRef ref;
  Container container;
  sfl_ItemInfo info;
  sfl::BlockedItem item;

  explicit BlockedItem(const sfl_ItemRef& r,
                       const char* refusal = "not a blocked item (use 'sfl get' for simple items)")
      : ref(r), container(r), info(container.UsedSlot(ItemNumber(r))), item(OpenBlockedItem(r)) {
    if (!(info.Flags & BLOCKED_ITEM)) throw Failure{refusal};
  }
  void Close() {
    CloseOnce(item);
    container.Close();
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
  const size_t chunk =
      a.Has("chunk") ? static_cast<size_t>(ParseNumber(a.Get("chunk"), "chunk size", INT32_MAX))
                     : 8192;
  if (chunk == 0) throw UsageError{"the chunk size must be at least 1"};
  const bool lines = a.Has("lines") || (fromStdin && !a.Has("chunk"));

  std::string data;
  if (fromStdin) {
    data = ReadAll(0);
  } else {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw SystemFailure{errno, path, "opening"};
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
  sfl::BlockedItem item;
  if (ItemNumber(ref) == 0) {
    // A new blocked item's root is laid down blank and becomes an empty
    // leaf before the first block goes in.
    item = c.NewBlockedItem();
  } else {
    if (!(c.UsedSlot(ItemNumber(ref)).Flags & BLOCKED_ITEM))
      throw Failure{"not a blocked item; blocks go into a blocked item or a new one"};
    item = OpenBlockedItem(ref);
    // An existing root is left as it is.
    sfl_FormatBlockedRoot(item.Handle());
  }
  const sfl_ItemRef itemRef = item.Reference().Raw();
  SetSubjectRef(itemRef);
  int64_t first = -1, last = -1;
  for (const std::string& b : blocks) {
    const std::optional<uint32_t> n = item.AppendBlock(b);
    if (!n) throw Failure{"no room for another block in the item's index"};
    if (first < 0) first = *n;
    last = *n;
  }
  CloseOnce(item);
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
    if (b.item.Empty())
      throw Failure{"no block " + std::to_string(range.first) + ": the item holds no blocks yet"};
    const sfl::Bytes data = b.item.ReadBlock(range.first);
    out.Write(data.data(), data.size());
  } else {
    ForEachBlock(
        b.item,
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
  const std::vector<sfl::Block> blocks = b.item.Blocks();
  b.Close();
  uint64_t total = 0;
  for (const sfl::Block& e : blocks) total += e.size;
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
  for (const sfl::Block& e : blocks) std::printf("%8u %10u\n", e.number, e.size);
  std::printf("%zu blocks, %llu bytes, index depth %u\n", blocks.size(),
              static_cast<unsigned long long>(total), b.info.IndexDepth);
  return kExitOk;
}

int RunFree(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  std::vector<uint32_t> numbers;
  for (size_t i = 1; i < a.positional.size(); ++i)
    numbers.push_back(
        static_cast<uint32_t>(ParseNumber(a.positional[i], "block number", UINT32_MAX)));
  BlockedItem b(ref);
  for (uint32_t n : numbers) b.item.FreeBlock(n);
  b.Close();
  return kExitOk;
}

// ---- compact, move ------------------------------------------------------------------------

// The highest block number in use, or "none".
std::string LastBlockText(const sfl::BlockedItem& item) {
  const std::vector<sfl::Block> blocks = item.Blocks();
  return blocks.empty() ? "none" : std::to_string(blocks.back().number);
}

int RunCompact(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  BlockedItem b(ref, "not a blocked item: a simple item has no blocks to renumber");
  const std::string before = LastBlockText(b.item);
  b.item.Compact();
  // The result is 0 for an item without blocks as well as for one block:
  // the listing tells them apart.
  const std::string after = LastBlockText(b.item);
  b.Close();
  std::printf("last block before: %s\nlast block after: %s\n", before.c_str(), after.c_str());
  return kExitOk;
}

int RunMove(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  const uint32_t from =
      static_cast<uint32_t>(ParseNumber(a.positional[1], "block number", UINT32_MAX));
  const uint32_t to = static_cast<uint32_t>(ParseNumber(a.positional[2], "block number", UINT32_MAX));
  BlockedItem b(ref, "not a blocked item: a simple item has no blocks to move");
  b.item.Reorder(from, to);
  b.Close();
  return kExitOk;
}

}  // namespace

const std::vector<Command>& BlockCommands() {
  static const std::vector<Command> kCommands = {
      {"blocks append",
       "<container|item> [file|-] [--lines | --chunk N]",
       "append blocks to a blocked item (a new one when given a container)",
       "Appends the input as blocks: a file in chunks (8192 bytes unless --chunk), standard\n"
       "input ('-' or absent) one line per block (with its newline) unless --chunk.\n"
       "Given a container, creates a new blocked item in it first. Prints the item's\n"
       "reference, then the numbers of the appended blocks.\n",
       {{"lines", 'l', false, "one block per line"},
        {"chunk", 'c', true, "blocks of this many bytes"}},
       1,
       2,
       RunAppend},
      {"blocks read",
       "<item> [N | N-M | N-] [-o file]",
       "write a block, a range of blocks, or all blocks",
       "Writes the bytes of block N, or of the blocks N to M (N- : to the last), or of every\n"
       "block, in order. Freed blocks inside a range are skipped; a single freed block is\n"
       "an error.\n",
       {{"output", 'o', true, "write to this file instead of standard output"}},
       1,
       2,
       RunRead},
      {"blocks list",
       "<item> [--json]",
       "list a blocked item's blocks and their sizes",
       "",
       {{"json", 0, false, "print one JSON object"}},
       1,
       1,
       RunList},
      {"blocks free",
       "<item> <N>...",
       "free blocks of a blocked item",
       "Frees each block; its number stays unused until a first-free placement takes it.\n",
       {},
       2,
       -1,
       RunFree},
      {"blocks compact",
       "<item>",
       "renumber a blocked item's blocks from 0 without gaps",
       "Renumbers the blocks from 0 in their order, closing the gaps that freed blocks\n"
       "left, by building a new index; no block data is moved. Prints the last block\n"
       "number before and after ('none' for an item without blocks).\n",
       {},
       1,
       1,
       RunCompact},
      {"blocks move",
       "<item> <from> <to>",
       "move one block to another place, shifting those in between",
       "Moves block <from> to position <to>; the blocks in between shift by one place.\n"
       "Only the index changes. Across leaves of the index (32 blocks each) a target on\n"
       "the last place of a leaf with blocks after it (moving up), or on the first place\n"
       "of a leaf after the first (moving down), is refused (error 100/28884) and\n"
       "nothing changes; so is a target past the last block (100/28876).\n",
       {},
       3,
       3,
       RunMove},
  };
  return kCommands;
}

}  // namespace cli
