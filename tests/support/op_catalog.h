// Test support: the catalogue of public operations that the I/O-fault loop
// and the interleaving loop both run, over one starting point (the world):
// a container with two simple items, a blocked item and a parent item. Each
// operation has a fault-free set-up and the part that runs under test, and
// names the items whose content it may change.
#ifndef SFL_TEST_OP_CATALOG_H
#define SFL_TEST_OP_CATALOG_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "sfl_int.h"

namespace sfltest {

constexpr uint32_t kA = 1, kB = 2, kC = 3, kP = 4;  // the world's slots
constexpr uint32_t kSizeA = 3000, kSizeB = 200, kSizeP = 1024;
constexpr uint32_t kBlocksC = 3;

// The starting point of every run: one container with two simple items
// (A, B), a blocked item (C) with three blocks and a parent item (P), the
// container open, nothing else.
struct World {
  sfl_ItemRef file{};
  std::string path;
  int32_t bh = -1;
  std::map<uint32_t, sfl_ItemRef> refs;
  std::map<uint32_t, std::vector<std::vector<uint8_t>>> content;  // per slot: data or blocks
  std::vector<int32_t> handles;  // item handles to close after the run
  std::vector<int32_t> files;    // base handles to close after the run
  int32_t h = -1;                // the operation's item handle, if it uses one
  sfl_ItemRef placed{};          // an item the operation made, if any
  bool hasPlaced = false;
  int32_t newBlock = -1;         // a block the operation added, if any
};

// The bytes the world and the operations write: `n` bytes from `seed`.
std::vector<uint8_t> Bytes(size_t n, uint32_t seed);
// An item's data (one element) or its first kBlocksC blocks.
std::vector<std::vector<uint8_t>> ReadSlot(const sfl_ItemRef& ref, uint32_t slot);
// A new world in the store, its container open in this process.
World Build();
// Descriptors open in this process.
int OpenDescriptors();
// Regular files under the store root, but for the emptied containers kept
// for reuse and those on their way in or out ("#pool.N", "#retire.<pid>",
// "#take.<pid>"): names no reference maps to.
std::set<std::string> StoreFiles();
// The number of processes the service counts with an interest in `ref`.
uint32_t InterestHolders(const sfl_ItemRef& ref);

struct Op {
  const char* name;
  std::set<uint32_t> changes;           // slots whose content may change
  std::function<void(World&)> prepare;  // fault-free set-up
  std::function<void(World&)> run;      // what runs under test
};

// Every operation, in a fixed order.
std::vector<Op> Operations();
// Closes whatever a run left open, as its caller would.
void CloseWhatIsHeld(World& w);
// This process's open items, as text for a failure message.
std::string OpenItemsText();

}  // namespace sfltest

#endif  // SFL_TEST_OP_CATALOG_H
