// Item compaction over index records that fail their checks: counts above
// 32, a depth past the deepest tree, a child not one level below its
// parent, an empty first child. Each is refused with its reason before the
// item moves to a new tree, so the item keeps its tree, the space the
// rebuild took is given back, and once put right every block reads back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

void PutU32At(const std::string& path, uint64_t off, uint32_t v) {
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  uint8_t b[4];
  sfl_PutU32(b, v);
  ASSERT_EQ(::pwrite(fd, b, 4, static_cast<off_t>(off)), 4);
  ::close(fd);
}

uint32_t U32At(const std::string& path, uint64_t off) {
  const Bytes b = sfltest::FileBytes(path);
  return b.size() >= off + 4 ? sfl_GetU32(b.data() + off) : 0;
}

// The bytes a failed rebuild must leave as they were: the file header and
// item table, the free map, and the item's root and first leaf.
Bytes Kept(const std::string& path, uint32_t root, uint32_t leaf) {
  const Bytes all = sfltest::FileBytes(path);
  Bytes kept(all.begin(), all.begin() + SFL_CONTAINER_DATA_OFFSET);
  const uint32_t mapAt = sfl_GetU32(all.data() + SFL_TABLE_OFFSET + sfl_ih::FileOffset);
  const uint32_t mapLen = sfl_GetU32(all.data() + SFL_TABLE_OFFSET + sfl_ih::FileSize);
  for (const auto& [at, len] : {std::pair<uint32_t, uint32_t>{mapAt, mapLen}, {root, SFL_INDEX_SIZE},
                                {leaf, SFL_INDEX_SIZE}}) {
    EXPECT_LE(uint64_t{at} + len, all.size());
    if (uint64_t{at} + len <= all.size()) kept.insert(kept.end(), all.begin() + at, all.begin() + at + len);
  }
  return kept;
}

Bytes BlockData(uint32_t n) { return sfltest::PseudoRandomBytes(30 + n % 50, n, 17); }

struct Damage {
  const char* what;
  bool inLeaf;   // in the first leaf rather than in the root
  size_t field;  // offset in the record
  uint32_t value;
  int reason;
};

TEST(CompactEdges, RecordsFailingTheirChecksStopTheRebuildAndTheItemKeepsItsTree) {
  const std::vector<Damage> cases = {
      {"root ever used past 32", false, sfl_ix::EverUsed, 40, SFL_R_BAD_INDEX},
      {"root used past 32", false, sfl_ix::Used, 33, SFL_R_BAD_INDEX},
      {"root deeper than any tree", false, sfl_ix::Depth, 7, SFL_R_BAD_INDEX},
      {"leaf not one level below its root", true, sfl_ix::Depth, 1, SFL_R_BAD_INDEX},
      {"leaf ever used past 32", true, sfl_ix::EverUsed, 33, SFL_R_BAD_INDEX},
      {"empty first child", false, sfl_ix::Entries, 0, SFL_R_EMPTY_FIRST_CHILD},
  };
  constexpr uint32_t kBlocks = 40;  // a root of depth 1 over two leaves
  for (const Damage& d : cases) {
    SCOPED_TRACE(d.what);
    sfltest::OpenContainer c = sfltest::NewContainer();
    sfl_ItemRef ref{};
    const int32_t h = sfl_CreateBlockedItem(c.bh, &ref);
    sfl_FormatBlockedRoot(h);
    for (uint32_t i = 0; i < kBlocks; ++i) {
      const Bytes b = BlockData(i);
      ASSERT_EQ(sfl_GetNewBlock(h, static_cast<int32_t>(b.size()), 0, b.data()), static_cast<int32_t>(i));
    }
    sfl_FreeBlock(h, 3, 0);  // a hole, so that a rebuild has work to do
    sfl_CloseItem(h);
    sfl_CloseFile(c.bh);
    sfltest::CloseColdFiles();

    const std::string path = sfltest::ItemPath(c.ref);
    const uint64_t slot = SFL_TABLE_OFFSET + uint64_t{SFL_ITEM_HEADER_SIZE} * sfl_ItemNumOf(ref);
    const uint32_t root = U32At(path, slot + sfl_ih::FileOffset);
    ASSERT_EQ(U32At(path, slot + sfl_ih::IndexDepth), 1u);
    const uint32_t leaf = U32At(path, root + sfl_ix::Entries);
    const uint32_t at = (d.inLeaf ? leaf : root) + static_cast<uint32_t>(d.field);
    const uint32_t original = U32At(path, at);
    PutU32At(path, at, d.value);
    if (d.field == sfl_ix::Entries) PutU32At(path, at + 4, 0);  // offset and size both 0
    const Bytes damaged = Kept(path, root, leaf);

    const int32_t again = sfl_OpenItem(&ref, 0);
    EXPECT_EQ(sfltest::ReasonOf([&] { sfl_CompactBlockedItem(again); }), d.reason);
    // The header still names the old root, the old tree is untouched, and
    // the space the rebuild took is given back (what it wrote there is
    // free space now).
    EXPECT_EQ(sfltest::SlotOf(sfl_ItemHandle2Record(again)->BaseHandle, sfl_ItemNumOf(ref)).FileOffset, root);
    EXPECT_EQ(Kept(path, root, leaf), damaged);
    sfl_CloseItem(again);
    sfltest::CloseColdFiles();
    EXPECT_TRUE(sfltest::LockableElsewhere(path, 0, 0));

    // Put right, the same item compacts and every block reads back.
    PutU32At(path, at, original);
    if (d.field == sfl_ix::Entries) PutU32At(path, at + 4, SFL_INDEX_SIZE);
    const int32_t fixed = sfl_OpenItem(&ref, 0);
    EXPECT_EQ(sfl_CompactBlockedItem(fixed), kBlocks - 2);
    for (uint32_t n = 0; n + 1 < kBlocks; ++n) {
      const uint32_t was = n < 3 ? n : n + 1;  // block 3 was the hole
      const Bytes want = BlockData(was);
      Bytes got(200);
      EXPECT_EQ(sfl_ReadBlockedData(fixed, n, static_cast<int32_t>(got.size()), got.data()),
                static_cast<uint32_t>(want.size()))
          << n;
      got.resize(want.size());
      EXPECT_EQ(got, want) << n;
    }
    sfl_CloseItem(fixed);
    sfltest::CloseColdFiles();
  }
}

}  // namespace
