// Test support: the raw tree walk and the free-map comparison (tree_scan.h).
#include "tree_scan.h"

#include "test_util.h"

namespace sfltest {

namespace {

using Bytes = std::vector<uint8_t>;

uint64_t Pow32(uint32_t e) {
  uint64_t v = 1;
  while (e-- > 0) v *= 32;
  return v;
}

bool Empty(const sfl_IndexEntry& e) { return e.SectionOffSet == 0 && e.SectionSize == 0; }

// ---- raw views of the file ------------------------------------------------------

Bytes ReadRaw(int fd, uint64_t off, size_t len) { return ReadUpTo(fd, off, len); }

// Walks the record at `off`, which should have the given depth, parent and
// first block number; returns it decoded (magic 0 if unreadable).
sfl_IndexRecord WalkRecord(int fd, uint32_t off, uint32_t depth, uint32_t parent, bool isRoot,
                           uint32_t headerOff, uint64_t base, TreeScan& scan) {
  std::string at = "record at " + std::to_string(off) + ": ";
  Bytes b = ReadRaw(fd, off, SFL_INDEX_SIZE);
  if (b.size() != SFL_INDEX_SIZE) {
    scan.faults.push_back(at + "short read");
    return {};
  }
  sfl_IndexRecord r = sfl_DecodeIndex(std::span<const uint8_t, SFL_INDEX_SIZE>(b.data(), b.size()));
  if (r.Magic != SFL_MAGIC || r.Type != SFL_TYPE_INDEX) {
    scan.faults.push_back(at + "bad magic or type");
    r.Magic = 0;
    return r;
  }
  ++scan.records;
  scan.areas.push_back({off, static_cast<uint32_t>(SFL_INDEX_SIZE), "index record"});
  if (r.Depth != depth) scan.faults.push_back(at + "Depth " + std::to_string(r.Depth));
  // A root never replaced keeps the zero parent it was created with; a root
  // put above an old one points at the item header.
  if (isRoot ? (r.ParentOff != 0 && r.ParentOff != headerOff) : r.ParentOff != parent)
    scan.faults.push_back(at + "ParentOff " + std::to_string(r.ParentOff));
  if (r.BaseBlockNum != base) scan.faults.push_back(at + "BaseBlockNum " + std::to_string(r.BaseBlockNum));
  if (r.BaseBlockNum % Pow32(depth + 1) != 0)
    scan.faults.push_back(at + "BaseBlockNum not a multiple of the capacity");
  if (r.Used > 32 || r.EverUsed > 32) scan.faults.push_back(at + "Used or EverUsed above 32");
  uint32_t count = 0, top = 0;
  for (uint32_t i = 0; i < 32; ++i) {
    if (Empty(r.Entries[i])) continue;
    ++count;
    top = i + 1;
  }
  if (top > r.EverUsed) scan.faults.push_back(at + "entry in use at or above EverUsed");
  if (depth == 0) {
    if (r.Used != count) scan.faults.push_back(at + "leaf Used " + std::to_string(r.Used) +
                                               " but " + std::to_string(count) + " entries");
    if (r.FreeMap != 0) scan.faults.push_back(at + "leaf with FreeMap bits");
    for (uint32_t i = 0; i < 32; ++i) {
      const sfl_IndexEntry& e = r.Entries[i];
      if (Empty(e)) continue;
      if (e.SectionOffSet == 0) scan.faults.push_back(at + "entry with a size but no offset");
      scan.blocks[static_cast<uint32_t>(base + i)] = e;
      scan.areas.push_back({e.SectionOffSet, e.SectionSize, "block " + std::to_string(base + i)});
    }
    return r;
  }
  if (r.Used < count) scan.faults.push_back(at + "branch Used below its children");
  for (uint32_t i = 0; i < 32; ++i) {
    const sfl_IndexEntry& e = r.Entries[i];
    const bool bit = ((r.FreeMap >> i) & 1u) != 0;
    if (Empty(e)) {
      if (bit) scan.faults.push_back(at + "full mark on an empty entry");
      continue;
    }
    if (e.SectionSize != SFL_INDEX_SIZE) scan.faults.push_back(at + "child size not 384");
    sfl_IndexRecord child = WalkRecord(fd, e.SectionOffSet, depth - 1, off, false, headerOff,
                                       base + i * Pow32(depth), scan);
    // A set mark says the child's last entry has been taken (a full leaf,
    // or a branch whose last child is full); marks may lag behind, never
    // run ahead.
    if (bit && child.Magic != 0) {
      const bool lastTaken =
          child.EverUsed == 32 && (child.Depth == 0 || ((child.FreeMap >> 31) & 1u) != 0);
      if (!lastTaken) scan.faults.push_back(at + "full mark on child " + std::to_string(i));
    }
  }
  return r;
}

}  // namespace

sfl_ItemHeader RawItemHeader(int fd, uint32_t off) {
  Bytes b = ReadRaw(fd, off, SFL_ITEM_HEADER_SIZE);
  if (b.size() != SFL_ITEM_HEADER_SIZE) return {};
  return sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(b.data(), b.size()));
}

TreeScan WalkTree(int fd, uint32_t headerOff) {
  TreeScan scan;
  sfl_ItemHeader h = RawItemHeader(fd, headerOff);
  if (h.Magic != SFL_MAGIC || h.Type != SFL_TYPE_ITEM_HEADER) {
    scan.faults.push_back("item header unreadable");
    return scan;
  }
  scan.rootDepth = h.IndexDepth;
  WalkRecord(fd, h.FileOffset, h.IndexDepth, 0, true, headerOff, 0, scan);
  return scan;
}

namespace {

// The free map as it is on disk (item 0's data) and where it lies.
struct MapView {
  Bytes bits;
  uint32_t off = 0;
  uint32_t blocks = 0;
};

MapView ReadMap(int fd) {
  MapView v;
  sfl_ItemHeader fm = RawItemHeader(fd, SFL_TABLE_OFFSET);
  v.off = fm.FileOffset;
  v.blocks = fm.UsedBlocks;
  v.bits = ReadRaw(fd, fm.FileOffset, fm.FileSize);
  return v;
}

}  // namespace

std::vector<std::string> CheckMap(int fd, std::vector<Area> areas, std::vector<uint32_t>* unowned) {
  std::vector<std::string> faults;
  MapView map = ReadMap(fd);
  areas.push_back({0, SFL_CONTAINER_DATA_OFFSET, "header and item table"});
  areas.push_back({map.off, map.blocks * static_cast<uint32_t>(SFL_BLOCK_SIZE), "free map"});
  const size_t bits = map.bits.size() * 8;
  std::vector<uint8_t> owned(bits, 0);
  for (const Area& a : areas) {
    const uint32_t first = a.off / SFL_BLOCK_SIZE;
    const uint32_t n = sfl_CalculateBlocks(a.size);
    for (uint32_t u = first; u < first + n; ++u) {
      if (u >= bits) {
        faults.push_back(a.what + " lies beyond the map");
        break;
      }
      if (owned[u]) faults.push_back(a.what + " overlaps another area at block " + std::to_string(u));
      owned[u] = 1;
    }
  }
  size_t wrong = 0;
  std::string first;
  for (size_t u = 0; u < bits; ++u) {
    const bool set = ((map.bits[u / 8] >> (u % 8)) & 1) != 0;
    if (set && !owned[u] && unowned != nullptr) {
      unowned->push_back(static_cast<uint32_t>(u));
      continue;
    }
    if (set != (owned[u] != 0)) {
      if (wrong++ == 0)
        first = "block " + std::to_string(u) + (set ? " marked but unowned" : " owned but free");
    }
  }
  if (wrong > 0) faults.push_back(std::to_string(wrong) + " map bits wrong, first: " + first);
  return faults;
}

std::string Join(const std::vector<std::string>& v) {
  std::string s;
  for (size_t i = 0; i < v.size() && i < 10; ++i) s += v[i] + "\n";
  return s;
}

}  // namespace sfltest
