// Fuzz target: the diagnostic dumps. The record dumps get the image's
// bytes as a file header, item headers and index records; then the image
// is opened as a container and dumped whole (every slot, every index
// record of a blocked item), and each blocked item's blocks are listed.
#include <algorithm>
#include <cstring>

#include "fuzz_env.h"

using sflfuzz::Quietly;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sflfuzz::Init();
  FILE* out = sflfuzz::Sink();
  uint8_t record[384] = {};
  std::memcpy(record, data, std::min(size, sizeof record));
  sfl_DumpHeader(out, record, 0);
  sfl_DumpItemHeader(out, record, 128);
  sfl_DumpIndexRecord(out, record + 32, 0);
  sfl_DumpBlockedIndex(out, record, 896);

  const sfl_ItemRef ref = sflfuzz::FreshRef(true);
  sflfuzz::WriteFile(ref, data, size);
  int32_t bh = -1;
  if (!Quietly([&] { bh = sfl_OpenSfl(&ref, 0); })) {
    Quietly([&] { sfl_DumpContainer(out, bh, -1); });
    sfl_ItemInfo info[8] = {};
    int32_t slots = 0;
    Quietly([&] { slots = sfl_ListItems(bh, info, 8); });
    for (int32_t i = 1; i < std::min(slots, 8); ++i) {
      Quietly([&] { sfl_DumpContainer(out, bh, i); });
      if (!info[i].InUse || (info[i].Flags & BLOCKED_ITEM) == 0) continue;
      sfl_ItemRef item = ref;
      item.Flags = static_cast<uint16_t>(i);
      int32_t ih = -1;
      if (Quietly([&] { ih = sfl_OpenItem(&item, 0); })) continue;
      Quietly([&] { sfl_ListIndexTree(out, ih); });
      Quietly([&] { sfl_CloseItem(ih); });
    }
    Quietly([&] { sfl_CloseFile(bh); });
  }
  sflfuzz::RemoveFile(ref);
  return 0;
}
