// Model-based test of one blocked item: seeded random sequences of append
// and first-free placement, writes (new and existing blocks, 0 to 64 KiB),
// reads and frees, each checked against an in-memory map from block number
// to bytes. Every so often, and after each sequence, the tree is walked from
// the raw file bytes: every index record must be well formed and the free
// map must mark exactly the records and blocks in use (plus the file's own
// structures and the parent item). Removing the item must leave none of them
// marked.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tree_scan.h"

namespace {

using Bytes = std::vector<uint8_t>;

using sfltest::EscapeCodeOf;

constexpr long Sfl(int reason) { return sfltest::EscapeCode(ER_GROUP_SFL, reason); }

using sfltest::Area;
using sfltest::CheckMap;
using sfltest::Join;
using sfltest::TreeScan;
using sfltest::WalkTree;

Bytes ReadRaw(int fd, uint64_t off, size_t len) { return sfltest::ReadUpTo(fd, off, len); }

// ---- the model run ------------------------------------------------------------------

class BlockedModel : public ::testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    base_ = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    parent_ = sfl_StoreBasicItem(base_, nullptr, 256, &parentRef_, 0);
    ASSERT_GE(parent_, SFL_ITEM_HANDLE_FIRST);
    item_ = sfl_CreateIntBItem(parent_, 0, 0, 0);
    fd_ = sfl_Handle2Record(base_)->FileDes;
    headerOff_ = sfl_ItemHandle2Record(item_)->HeaderOff;
    sfl_ItemRec* p = sfl_ItemHandle2Record(parent_);
    parentArea_ = {p->Offset, p->Size, "parent item"};
  }

  Bytes RandomBytes(uint32_t n) {
    Bytes b(n);
    for (auto& c : b) c = static_cast<uint8_t>(rng_());
    return b;
  }

  // Block lengths: mostly small, some of a few KiB, a few up to 64 KiB.
  uint32_t RandomLength(bool allowZero) {
    const uint32_t pick = rng_() % 100;
    uint32_t n;
    if (pick < 70) n = rng_() % 300;
    else if (pick < 95) n = 300 + rng_() % 3800;
    else n = 4096 + rng_() % (65536 - 4096 + 1);
    if (n == 0 && !allowZero) n = 1;
    return n;
  }

  uint32_t AnyKnownBlock() {
    auto it = model_.begin();
    std::advance(it, rng_() % model_.size());
    return it->first;
  }

  void Place(int mode) {
    Bytes data = RandomBytes(RandomLength(false));
    const int32_t b = sfl_GetNewBlock(item_, static_cast<int32_t>(data.size()), mode, data.data());
    ASSERT_GE(b, 0);
    ASSERT_EQ(model_.count(static_cast<uint32_t>(b)), 0u) << "block " << b << " handed out twice";
    model_[static_cast<uint32_t>(b)] = std::move(data);
  }

  void WriteNew() {
    uint32_t limit = model_.empty() ? 64 : model_.rbegin()->first + 64;
    uint32_t n = rng_() % limit;
    if (rng_() % 300 == 0) n = 33000 + rng_() % 4000;  // beyond a depth-2 tree: a third level
    if (model_.count(n)) return Rewrite(n);
    Bytes data = RandomBytes(RandomLength(true));
    const int32_t got = sfl_WriteBlockedData(item_, n, static_cast<uint32_t>(data.size()), data.data());
    ASSERT_EQ(got, static_cast<int32_t>(data.size()));
    // A block written with no bytes gets no space and its entry stays empty.
    if (!data.empty()) model_[n] = std::move(data);
  }

  void Rewrite(uint32_t n) {
    Bytes& old = model_[n];
    Bytes data = RandomBytes(RandomLength(true));
    const uint32_t expect = std::min<uint32_t>(static_cast<uint32_t>(old.size()),
                                               static_cast<uint32_t>(data.size()));
    const int32_t got = sfl_WriteBlockedData(item_, n, static_cast<uint32_t>(data.size()), data.data());
    ASSERT_EQ(got, static_cast<int32_t>(expect)) << "rewrite of block " << n;
    std::copy(data.begin(), data.begin() + expect, old.begin());
  }

  void ReadKnown(uint32_t n) {
    const Bytes& want = model_[n];
    const uint32_t len = static_cast<uint32_t>(rng_() % (want.size() + 100));
    Bytes buf(len + 1, 0xEE);
    const uint32_t got = sfl_ReadBlockedData(item_, n, len, buf.data());
    const uint32_t expect = std::min<uint32_t>(len, static_cast<uint32_t>(want.size()));
    ASSERT_EQ(got, expect) << "read of block " << n;
    ASSERT_TRUE(std::equal(want.begin(), want.begin() + expect, buf.begin())) << "block " << n;
    ASSERT_EQ(buf[len], 0xEE);  // nothing written past the length asked for
  }

  void ReadAbsent() {
    uint32_t limit = model_.empty() ? 64 : model_.rbegin()->first + 64;
    uint32_t n = rng_() % limit;
    if (model_.count(n)) return;
    uint8_t buf[16];
    const int r = EscapeCodeOf([&] { sfl_ReadBlockedData(item_, n, sizeof buf, buf); });
    ASSERT_TRUE(r == Sfl(SFL_R_EMPTY_ENTRY) || r == Sfl(SFL_R_BAD_SLOT))
        << "absent block " << n << " gave " << r;
  }

  void Free(uint32_t n) {
    sfl_FreeBlock(item_, n, 0);
    model_.erase(n);
    uint8_t buf[16];
    const int r = EscapeCodeOf([&] { sfl_ReadBlockedData(item_, n, sizeof buf, buf); });
    ASSERT_TRUE(r == Sfl(SFL_R_EMPTY_ENTRY) || r == Sfl(SFL_R_BAD_SLOT)) << "freed block " << n;
  }

  void CheckStructure() {
    TreeScan scan = WalkTree(fd_, headerOff_);
    ASSERT_TRUE(scan.faults.empty()) << Join(scan.faults);
    ASSERT_EQ(scan.blocks.size(), model_.size());
    for (const auto& [n, bytes] : model_) {
      auto it = scan.blocks.find(n);
      ASSERT_NE(it, scan.blocks.end()) << "block " << n << " missing from the tree";
      ASSERT_EQ(it->second.SectionSize, bytes.size()) << "block " << n;
    }
    std::vector<Area> areas = scan.areas;
    areas.push_back(parentArea_);
    std::vector<std::string> mapFaults = CheckMap(fd_, areas);
    ASSERT_TRUE(mapFaults.empty()) << Join(mapFaults);
    maxDepth_ = std::max(maxDepth_, scan.rootDepth);
  }

  void Step() {
    const uint32_t pick = rng_() % 100;
    if (pick < 22) return Place(1);
    if (pick < 40) return Place(0);
    if (pick < 55) return WriteNew();
    if (model_.empty()) return Place(1);
    if (pick < 65) return Rewrite(AnyKnownBlock());
    if (pick < 82) return ReadKnown(AnyKnownBlock());
    if (pick < 87) return ReadAbsent();
    return Free(AnyKnownBlock());
  }

  int32_t base_ = -1, parent_ = -1, item_ = -1;
  int fd_ = -1;
  uint32_t headerOff_ = 0;
  uint32_t maxDepth_ = 0;
  sfl_ItemRef parentRef_{};
  Area parentArea_{0, 0, ""};
  std::mt19937 rng_;
  std::map<uint32_t, Bytes> model_;
};

TEST_P(BlockedModel, RandomSequenceAgreesWithModel) {
  rng_.seed(GetParam());
  // Grow past one full depth-1 tree (1,024 blocks) so that a second level
  // of branches is in play, then run a mixed sequence.
  for (uint32_t i = 0; model_.size() < 1100 && i < 3000; ++i) {
    SCOPED_TRACE("growth step " + std::to_string(i));
    if (rng_() % 4 == 0) Place(0);
    else Place(1);
    if (HasFatalFailure()) return;
    if (i % 400 == 0) CheckStructure();
    if (HasFatalFailure()) return;
  }
  for (uint32_t i = 0; i < 700; ++i) {
    SCOPED_TRACE("mixed step " + std::to_string(i));
    Step();
    if (HasFatalFailure()) return;
    if (i % 100 == 0) CheckStructure();
    if (HasFatalFailure()) return;
  }
  CheckStructure();
  if (HasFatalFailure()) return;
  EXPECT_GE(maxDepth_, 2u);
  // Every block reads back whole.
  for (const auto& [n, bytes] : model_) {
    Bytes buf(bytes.size());
    ASSERT_EQ(sfl_ReadBlockedData(item_, n, static_cast<uint32_t>(buf.size()), buf.data()),
              bytes.size());
    ASSERT_EQ(buf, bytes) << "block " << n;
  }

  // Removing the item gives back every record and block of its tree.
  sfl_RemoveIntItem(item_);
  sfl_CloseIntItem(item_);
  std::vector<std::string> mapFaults = CheckMap(fd_, {parentArea_});
  EXPECT_TRUE(mapFaults.empty()) << Join(mapFaults);
  Bytes header = ReadRaw(fd_, headerOff_, SFL_ITEM_HEADER_SIZE);
  EXPECT_EQ(header, Bytes(SFL_ITEM_HEADER_SIZE, 0));
  sfl_CloseItem(parent_);
}

INSTANTIATE_TEST_SUITE_P(Seeds, BlockedModel, ::testing::Values(1u, 20261122u, 77u));

}  // namespace
