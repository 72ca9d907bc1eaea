// Test support: a walk of a blocked item's index tree straight from the
// file's bytes, checking every record on the way, and a comparison of the
// free map with the areas the walk (and the caller) found in use.
#ifndef SFL_TREE_SCAN_H
#define SFL_TREE_SCAN_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sfl_int.h"

namespace sfltest {

// One area of the file that something owns: [off, off + size).
struct Area {
  uint32_t off;
  uint32_t size;
  std::string what;
};

// What a walk of the tree found.
struct TreeScan {
  std::vector<std::string> faults;
  std::vector<Area> areas;                    // index records and blocks
  std::map<uint32_t, sfl_IndexEntry> blocks;  // block number -> leaf entry
  uint32_t rootDepth = 0;
  uint32_t records = 0;
};

// Walks the tree of the item whose header lies at `headerOff`. Every record
// must be well formed: magic and type, the depth, parent and first block
// its place gives it, Used and EverUsed within 32 and covering its entries,
// a leaf's Used equal to its entries, full marks only where the child's
// last entry is taken.
TreeScan WalkTree(int fd, uint32_t headerOff);

// The item header at `off`, decoded (all zero when it cannot be read).
sfl_ItemHeader RawItemHeader(int fd, uint32_t off);

// Compares the on-disk free map with `areas` plus the file's header, item
// table and the map itself; returns the faults (overlaps, bits wrong).
// With `unowned`, blocks marked in use that nothing owns are listed there
// instead of counted as faults.
std::vector<std::string> CheckMap(int fd, std::vector<Area> areas,
                                  std::vector<uint32_t>* unowned = nullptr);

// The first ten faults, one a line.
std::string Join(const std::vector<std::string>& v);

}  // namespace sfltest

#endif  // SFL_TREE_SCAN_H
