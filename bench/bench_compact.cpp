// C1, the rebuild of a blocked item (sfl only): a blocked item of
// `blocks` blocks (W2's sizes and payloads) with one block in ten freed at
// random is renumbered by sfl_CompactBlockedItem. Only the rebuild is
// timed; every block is read back and checked under its new number after.
// Figures: blocks per second, the index records of the new tree and the
// library's system calls during the rebuild (os_<kind>).
#include <algorithm>
#include <numeric>
#include <vector>

#include "bench.h"
#include "os.h"
#include "sfl.h"
#include "sfl_int.h"

namespace bench {

Figures RunSflRebuild(Durability d, const std::string& dir, const Sizes& s) {
  PrepareSfl(dir, d);
  const int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  const int32_t item = sfl_CreateBlockedItem(base, nullptr);
  sfl_FormatBlockedRoot(item);
  std::vector<uint8_t> buf(kMaxBlock);
  for (int i = 0; i < s.blocks; ++i) {
    const uint32_t size = BlockSize(i);
    FillPayload(buf.data(), size, i, 0xC0);
    if (sfl_GetNewBlock(item, static_cast<int32_t>(size), 1, buf.data()) != i) Fail("append %d", i);
  }
  std::vector<uint32_t> order(s.blocks);
  std::iota(order.begin(), order.end(), 0u);
  Rng rng(5);
  const int frees = s.blocks / 10;
  for (int k = 0; k < frees; ++k) {
    std::swap(order[k], order[k + rng.Below(s.blocks - k)]);
    sfl_FreeBlock(item, order[k], 0);
  }
  std::vector<uint32_t> live(order.begin() + frees, order.end());
  std::sort(live.begin(), live.end());

  Figures f;
  const std::vector<uint64_t> kinds0 = SflCallSnapshot();
  const double t0 = Now();
  const uint32_t last = sfl_CompactBlockedItem(item);
  const double t1 = Now();
  AddSflCallFigures(f, kinds0);
  if (last + 1 != live.size()) Fail("rebuild gave last block %u for %zu blocks", last, live.size());

  sfl_ItemRec* rec = sfl_ItemHandle2Record(item);
  sfl_ItemInfo info[8];
  sfl_ListItems(base, info, 8);
  double records = 0;
  sfl_WalkIndexTree(rec->BaseRecord, info[rec->ItemNum].FileOffset,
                    [&](uint32_t, const sfl_IndexRecord&, uint64_t) {
                      ++records;
                      return true;
                    });
  for (size_t n = 0; n < live.size(); ++n) {
    const uint32_t size = BlockSize(live[n]);
    if (sfl_ReadBlockedData(item, static_cast<uint32_t>(n), size, buf.data()) != size ||
        !CheckPayload(buf.data(), size, live[n], 0xC0))
      Fail("block %zu (was %u) differs after the rebuild", n, live[n]);
  }
  sfl_CloseItem(item);
  sfl_CloseFile(base);
  f["seconds"] = t1 - t0;
  f["ops"] = static_cast<double>(live.size());
  f["index_records"] = records;
  return f;
}

}  // namespace bench
