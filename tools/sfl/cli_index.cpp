// Blocked items seen as a whole: listing a tree's blocks (through
// sfl_ListBlocks) and reading them in order.
#include <cstdint>

#include "cli.h"

namespace cli {

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

std::vector<BlockEntry> ListBlocks(int32_t item, uint32_t first, uint32_t last) {
  // Ask for the count first; blocks placed between the two calls by another
  // process are picked up by asking again with the larger count.
  std::vector<sfl_BlockInfo> infos;
  uint32_t count = sfl_ListBlocks(item, first, last, nullptr, 0);
  for (;;) {
    infos.resize(count);
    const uint32_t now = sfl_ListBlocks(item, first, last, infos.data(), count);
    if (now <= count) {
      infos.resize(now);
      break;
    }
    count = now;
  }
  std::vector<BlockEntry> blocks;
  blocks.reserve(infos.size());
  for (const sfl_BlockInfo& b : infos) blocks.push_back({b.Block, b.Size});
  return blocks;
}

bool HoldsNoBlocks(int32_t item) { return sfl_ListBlocks(item, 0, UINT32_MAX, nullptr, 0) == 0; }

void ForEachBlock(int32_t item, const std::function<void(uint32_t, const std::string&)>& fn,
                  uint32_t first, uint32_t last) {
  for (const BlockEntry& b : ListBlocks(item, first, last)) {
    std::string data(b.size, '\0');
    uint32_t n = sfl_ReadBlockedData(item, b.number, b.size, data.data());
    if (n != b.size)
      throw Failure{"block " + std::to_string(b.number) + " read short (" + std::to_string(n) +
                    " of " + std::to_string(b.size) + " bytes)"};
    fn(b.number, data);
  }
}

}  // namespace cli
