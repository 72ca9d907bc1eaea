// Fuzz target: a container image opened and read through the public
// interface. The image becomes a file of the store; it is opened, its item
// table listed, every item in use opened and read whole (a blocked item
// block by block, with its first block tried as the parent of an internal
// item), and everything closed again. Any escape is an answer; a crash, a
// hang, a sanitizer report or an outsized allocation is a defect.
#include <algorithm>
#include <vector>

#include "fuzz_env.h"

using sflfuzz::Quietly;

namespace {

constexpr uint32_t kMaxRead = 1u << 20;    // bytes of a simple item read
constexpr uint32_t kMaxBlocks = 64;        // blocks of a blocked item read
constexpr uint32_t kBlockBuffer = 1u << 16;

void ReadSimple(int32_t ih) {
  sfl_SimpleDetails d{};
  if (Quietly([&] { sfl_GetSimpleDetails(ih, &d); })) return;
  std::vector<uint8_t> buf(64 * 1024);
  const uint32_t end = std::min(d.Size, kMaxRead);
  for (uint32_t pos = 0; pos < end;) {
    const uint32_t n = std::min<uint32_t>(static_cast<uint32_t>(buf.size()), end - pos);
    if (Quietly([&] { sfl_ReadSimpleData(ih, pos, n, buf.data()); })) return;
    pos += n;
  }
  // One read at the very end of the item and one past it.
  Quietly([&] { sfl_ReadSimpleData(ih, d.Size, 1, buf.data()); });
}

void ReadBlocked(int32_t ih) {
  std::vector<sfl_BlockInfo> blocks(kMaxBlocks);
  uint32_t n = 0;
  if (Quietly([&] { n = sfl_ListBlocks(ih, 0, 0xFFFFFFFFu, blocks.data(), kMaxBlocks); })) return;
  std::vector<uint8_t> buf(kBlockBuffer);
  for (uint32_t i = 0; i < std::min(n, kMaxBlocks); ++i)
    Quietly([&] { sfl_ReadBlockedData(ih, blocks[i].Block, kBlockBuffer, buf.data()); });
  // Holes and numbers past the end are asked for too.
  Quietly([&] { sfl_ReadBlockedData(ih, 0, kBlockBuffer, buf.data()); });
  Quietly([&] { sfl_ReadBlockedData(ih, 33, kBlockBuffer, buf.data()); });
  int32_t internal = -1;
  if (!Quietly([&] { internal = sfl_OpenIntItem(ih, n > 0 ? blocks[0].Block : 0, 0); })) {
    Quietly([&] { ReadBlocked(internal); });
    Quietly([&] { sfl_CloseIntItem(internal); });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sflfuzz::Init();
  const sfl_ItemRef ref = sflfuzz::FreshRef(false);
  sflfuzz::WriteFile(ref, data, size);
  int32_t bh = -1;
  if (!Quietly([&] { bh = sfl_OpenSfl(&ref, 0); })) {
    sfl_ItemInfo info[8] = {};
    int32_t slots = 0;
    Quietly([&] { slots = sfl_ListItems(bh, info, 8); });
    for (int32_t i = 1; i < std::min(slots, 8); ++i) {
      if (!info[i].InUse) continue;
      sfl_ItemRef item = ref;
      item.Flags = static_cast<uint16_t>(i);
      int32_t ih = -1;
      if (Quietly([&] { ih = sfl_OpenItem(&item, 0); })) continue;
      if (info[i].Flags & BLOCKED_ITEM)
        ReadBlocked(ih);
      else
        ReadSimple(ih);
      Quietly([&] { sfl_CloseItem(ih); });
    }
    Quietly([&] { sfl_CloseFile(bh); });
  }
  sflfuzz::RemoveFile(ref);
  return 0;
}
