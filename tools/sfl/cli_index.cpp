// Blocked items seen as a whole: their blocks read in order.
#include <cstdint>

#include "cli.h"

namespace cli {

void ForEachBlock(const sfl::BlockedItem& item,
                  const std::function<void(uint32_t, const std::string&)>& fn, uint32_t first,
                  uint32_t last) {
  for (const sfl::Block& b : item.Blocks(first, last)) {
    std::string data(b.size, '\0');
    const size_t n = item.Read(b.number, std::as_writable_bytes(std::span<char>(data)));
    if (n != b.size)
      throw Failure{"block " + std::to_string(b.number) + " read short (" + std::to_string(n) +
                    " of " + std::to_string(b.size) + " bytes)"};
    fn(b.number, data);
  }
}

}  // namespace cli
