// Crash loop: a worker process stores, rewrites and deletes simple items,
// creates blocked items and writes and frees their blocks, and creates new
// containers, over several containers, opening and closing each container
// around every operation; it is killed with SIGKILL at a random moment.
// Then the `sfl check --repair --all` tool mends the store, and a second
// `sfl check --all` must find no fault in any container. Every operation
// the worker reported complete before the kill must read back exactly; the
// one it was in the middle of may have happened or not (and a write may be
// torn: each byte then holds its old or its new value), never anything
// else. The round repeats with a new worker on the same store.
//
// The worker reports through a pipe, in records small enough to be written
// whole: "begin" before an operation (with everything needed to know what
// it may have changed), "placed" once a new item or container has a
// reference, "done" after it. The worker and this process apply the same
// records to the same model, so the worker's copy (inherited at fork) stays
// what this process believes.
//
// A container whose creation was cut short is checked like any other: the
// check reports it, the repair completes it as an empty container, and it
// must then open; its first final close removes it, as for any container
// left with no items.
//
// SFL_CRASH_KILLS sets the number of rounds (100 here; make soak runs more).
// The same workload also runs with a power cut in place of the kill.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Data(size_t n, uint32_t seed) { return sfltest::PseudoRandomBytes(n, seed, 13); }

// What may be in a byte range: each byte equals the byte at its position in
// one of the candidates (all of one length).
struct Content {
  std::vector<Bytes> candidates;
  bool certain() const { return candidates.size() == 1; }
  bool Allows(const Bytes& got) const {
    for (size_t i = 0; i < got.size(); ++i) {
      bool ok = false;
      for (const Bytes& c : candidates) ok = ok || (c.size() == got.size() && c[i] == got[i]);
      if (!ok) return false;
    }
    for (const Bytes& c : candidates)
      if (c.size() == got.size()) return true;
    return false;
  }
};

struct Block {
  std::vector<Content> versions;  // one per possible length, usually one
  bool mayBeAbsent = false;
};

struct Item {
  sfl_ItemRef ref{};
  bool blocked = false;
  bool mayBeGone = false;       // an unfinished store or delete
  bool unknownContent = false;  // an unfinished store: its bytes were never promised
  Content simple;
  std::map<uint32_t, Block> blocks;
};

struct Container {
  sfl_ItemRef ref{};
  std::map<uint32_t, Item> items;  // by slot
};

using Model = std::vector<Container>;

enum Kind : uint32_t { kBegin = 1, kPlaced = 2, kDone = 3, kDropped = 4 };
enum Op : uint32_t {
  kStoreSimple = 1,
  kRewrite = 2,
  kDelete = 3,
  kCreateBlocked = 4,
  kWriteBlock = 5,
  kFreeBlock = 6,
  kCreateContainer = 7
};

// One report; 48 bytes, so that a write to the pipe is never torn.
struct Record {
  uint32_t kind = 0;
  uint32_t op = 0;
  uint32_t container = 0;
  uint32_t slot = 0;
  uint32_t seed = 0;
  uint32_t a = 0;  // size, position or block number
  uint32_t b = 0;  // length or block count
  uint32_t pad = 0;
  sfl_ItemRef ref{};  // placed: the new item or container
};
static_assert(sizeof(Record) <= PIPE_BUF);

constexpr uint32_t kMaxItemsKept = 5;
constexpr uint32_t kMaxContainers = 5;
constexpr uint32_t kBlockedAtCreate = 4;

uint32_t BlockLength(uint32_t seed) { return 40 + seed % 600; }

// The model's view of an operation: what `done` makes certain, and what an
// operation begun but not reported done may have done.
class Tracker {
 public:
  explicit Tracker(Model& m) : m_(m) {}

  void Apply(const Record& r) {
    if (r.kind == kDropped) {
      m_.erase(m_.begin() + r.container);
      return;
    }
    if (r.kind == kBegin) {
      pending_ = r;
      placed_ = false;
      return;
    }
    if (r.kind == kPlaced) {
      placedRef_ = r.ref;
      placed_ = true;
      return;
    }
    Settle(pending_, true);
    pending_ = Record{};
  }

  // The worker was killed: what it was doing may or may not have happened.
  void Killed() {
    if (pending_.kind == kBegin) Settle(pending_, false);
    pending_ = Record{};
  }

 private:
  void Settle(const Record& r, bool done) {
    Container* c = r.op == kCreateContainer || r.container >= m_.size() ? nullptr : &m_[r.container];
    switch (r.op) {
      case kStoreSimple: {
        if (!placed_) return;  // no reference yet: nothing the model can name
        // A store cut short before its handle closed leaves, once repaired,
        // no item; one cut later, the whole item. Never the zeros it was
        // stored with, nor part of its data.
        Item it;
        it.ref = placedRef_;
        it.simple.candidates = {Data(r.a, r.seed)};
        it.mayBeGone = !done;
        ContainerOf(placedRef_).items[sfl_ItemNumOf(placedRef_)] = it;
        return;
      }
      case kRewrite: {
        Item& it = c->items.at(r.slot);
        Bytes next = it.simple.candidates.front();
        const Bytes part = Data(r.b, r.seed);
        std::copy(part.begin(), part.end(), next.begin() + r.a);
        if (done)
          it.simple.candidates = {next};
        else
          it.simple.candidates.push_back(next);
        return;
      }
      case kDelete:
        if (done)
          c->items.erase(r.slot);
        else
          c->items.at(r.slot).mayBeGone = true;
        return;
      case kCreateBlocked: {
        if (!placed_) return;
        Item it;
        it.ref = placedRef_;
        it.blocked = true;
        it.mayBeGone = !done;
        for (uint32_t b = 0; b < kBlockedAtCreate; ++b) {
          Block& blk = it.blocks[b];
          blk.versions.push_back(Content{{Data(BlockLength(r.seed + b), r.seed + b)}});
          blk.mayBeAbsent = !done;
        }
        ContainerOf(placedRef_).items[sfl_ItemNumOf(placedRef_)] = it;
        return;
      }
      case kWriteBlock: {
        Item& it = c->items.at(r.slot);
        const Bytes data = Data(BlockLength(r.seed), r.seed);
        auto found = it.blocks.find(r.a);
        Block next;
        if (found == it.blocks.end()) {
          next.versions = {Content{{data}}};
          next.mayBeAbsent = !done;
        } else {
          // A block keeps the length it was made with: a write replaces a
          // prefix of it (the whole block when the write is not shorter).
          for (const Content& v : found->second.versions) {
            Content nv;
            for (const Bytes& old : v.candidates) {
              Bytes b = old;
              std::copy_n(data.begin(), std::min(b.size(), data.size()), b.begin());
              nv.candidates.push_back(b);
              if (!done) nv.candidates.push_back(old);  // a torn write
            }
            next.versions.push_back(nv);
          }
          // A block that may not have been there is made whole by the write.
          if (found->second.mayBeAbsent) next.versions.push_back(Content{{data}});
          next.mayBeAbsent = found->second.mayBeAbsent && !done;
        }
        it.blocks[r.a] = next;
        return;
      }
      case kFreeBlock: {
        Item& it = c->items.at(r.slot);
        if (done)
          it.blocks.erase(r.a);
        else
          it.blocks.at(r.a).mayBeAbsent = true;
        return;
      }
      case kCreateContainer:
        // "placed" comes once the container has been created, its first
        // item stored and the container closed: from then on both exist.
        if (placed_) {
          Container nc;
          nc.ref = placedRef_;
          nc.ref.Flags = static_cast<uint16_t>(nc.ref.Flags & ~SFL_ITEM_NUM_MASK);
          Item it;
          it.ref = placedRef_;
          it.simple.candidates = {Data(r.a, r.seed)};
          nc.items[sfl_ItemNumOf(placedRef_)] = it;
          m_.push_back(nc);
        }
        return;
      default:
        return;
    }
  }

  // The container an item's reference names: a store into a full
  // container places the item in a new one.
  Container& ContainerOf(const sfl_ItemRef& item) {
    for (Container& c : m_)
      if (c.ref.Domain == item.Domain && c.ref.SubDomain == item.SubDomain && c.ref.FileId == item.FileId &&
          std::strncmp(c.ref.Name, item.Name, sizeof c.ref.Name) == 0)
        return c;
    Container nc;
    nc.ref = item;
    nc.ref.Flags = static_cast<uint16_t>(nc.ref.Flags & ~SFL_ITEM_NUM_MASK);
    m_.push_back(nc);
    return m_.back();
  }

  Model& m_;
  Record pending_;
  sfl_ItemRef placedRef_{};
  bool placed_ = false;
};

// ---- the worker ------------------------------------------------------------------------

class Worker {
 public:
  Worker(Model& m, int fd, uint32_t seed) : m_(m), tracker_(m), fd_(fd), rng_(seed) {}

  [[noreturn]] void Run() {
    for (;;) Step();
  }

 private:
  void Report(const Record& r) {
    if (write(fd_, &r, sizeof r) != static_cast<ssize_t>(sizeof r)) _exit(3);
    tracker_.Apply(r);
  }
  uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

  // Items of a container the model is sure of (no unfinished operation).
  std::vector<uint32_t> SureItems(const Container& c, bool blocked) {
    std::vector<uint32_t> out;
    for (const auto& [slot, it] : c.items)
      if (it.blocked == blocked && !it.mayBeGone) out.push_back(slot);
    return out;
  }

  void Step() {
    // A container whose items were all deleted went at its last close.
    for (size_t i = m_.size(); i-- > 0;)
      if (m_[i].items.empty() && !std::filesystem::exists(sfltest::ItemPath(m_[i].ref)))
        Report(Record{kDropped, 0, static_cast<uint32_t>(i)});
    if (m_.empty()) return CreateContainer();
    if (m_.size() < kMaxContainers && Pick(12) == 0) return CreateContainer();
    const uint32_t ci = Pick(static_cast<uint32_t>(m_.size()));
    Container& c = m_[ci];
    const int32_t bh = sfl_OpenSfl(&c.ref, 0);
    const uint32_t choice = Pick(10);
    const auto simple = SureItems(c, false);
    const auto blocked = SureItems(c, true);
    const bool full = c.items.size() >= kMaxItemsKept;
    if (full && choice < 4) {
      std::vector<uint32_t> all = simple;
      all.insert(all.end(), blocked.begin(), blocked.end());
      if (!all.empty()) Delete(ci, all[Pick(static_cast<uint32_t>(all.size()))]);
    } else if (choice < 3 && !full) {
      StoreSimple(ci, bh);
    } else if (choice < 5 && !simple.empty()) {
      Rewrite(ci, simple[Pick(static_cast<uint32_t>(simple.size()))]);
    } else if (choice < 6 && !full) {
      CreateBlocked(ci, bh);
    } else if (choice < 8 && !blocked.empty()) {
      WriteBlock(ci, blocked[Pick(static_cast<uint32_t>(blocked.size()))]);
    } else if (choice < 9 && !blocked.empty()) {
      FreeBlock(ci, blocked[Pick(static_cast<uint32_t>(blocked.size()))]);
    } else if (!simple.empty() || !blocked.empty()) {
      std::vector<uint32_t> all = simple;
      all.insert(all.end(), blocked.begin(), blocked.end());
      Delete(ci, all[Pick(static_cast<uint32_t>(all.size()))]);
    }
    sfl_CloseFile(bh);
  }

  // Every slot of the container is taken, though the model knows fewer
  // items: the repair marks an item it cannot trust deleted and its slot
  // stays taken (it is never released), so a container can fill up. The
  // store took nothing; the model has nothing to add.
  void NoSlot() { Report(Record{kDone}); }

  int32_t OpenSlot(uint32_t ci, uint32_t slot) { return sfl_OpenItem(&m_[ci].items.at(slot).ref, 0); }

  void StoreSimple(uint32_t ci, int32_t bh) {
    Record r{kBegin, kStoreSimple, ci, 0, Pick(1u << 30), Pick(6000)};
    Report(r);
    Record placed{kPlaced};
    const int32_t h = sfl_StoreBasicItem(bh, nullptr, r.a, &placed.ref, 0);
    if (h < 0) return NoSlot();
    Report(placed);
    const Bytes data = Data(r.a, r.seed);
    if (r.a > 0) sfl_WriteSimpleData(h, 0, r.a, data.data());
    sfl_CloseItem(h);
    Report(Record{kDone});
  }

  void Rewrite(uint32_t ci, uint32_t slot) {
    const uint32_t size = static_cast<uint32_t>(m_[ci].items.at(slot).simple.candidates.front().size());
    if (size == 0) return;
    const uint32_t pos = Pick(size);
    const uint32_t len = 1 + Pick(size - pos);
    Record r{kBegin, kRewrite, ci, slot, Pick(1u << 30), pos, len};
    Report(r);
    const int32_t h = OpenSlot(ci, slot);
    const Bytes data = Data(len, r.seed);
    sfl_WriteSimpleData(h, pos, len, data.data());
    sfl_CloseItem(h);
    Report(Record{kDone});
  }

  void Delete(uint32_t ci, uint32_t slot) {
    Report(Record{kBegin, kDelete, ci, slot});
    const int32_t h = OpenSlot(ci, slot);
    sfl_DetachOpenItem(h);  // the last owner goes: the close deletes it
    sfl_CloseItem(h);
    Report(Record{kDone});
  }

  void CreateBlocked(uint32_t ci, int32_t bh) {
    Record r{kBegin, kCreateBlocked, ci, 0, Pick(1u << 30)};
    Report(r);
    Record placed{kPlaced};
    int32_t h = -1;
    const sfltest::Escape e = sfltest::EscapeOf([&] { h = sfl_CreateBlockedItem(bh, &placed.ref); });
    if (e.group == ER_GROUP_SFL && e.reason == SFL_R_NO_BLOCKED_SLOT) return NoSlot();
    if (e.group != 0) {
      std::fprintf(stderr, "worker: creating a blocked item escaped %d/%d\n", e.group, e.reason);
      _exit(1);
    }
    Report(placed);
    sfl_FormatBlockedRoot(h);
    for (uint32_t b = 0; b < kBlockedAtCreate; ++b) {
      const Bytes data = Data(BlockLength(r.seed + b), r.seed + b);
      sfl_WriteBlockedData(h, b, static_cast<uint32_t>(data.size()), data.data());
    }
    sfl_CloseItem(h);
    Report(Record{kDone});
  }

  void WriteBlock(uint32_t ci, uint32_t slot) {
    // Mostly the blocks there are or the next ones; now and then far out,
    // so that the index grows a level.
    const uint32_t block = Pick(8) == 0 ? 32 + Pick(64) : Pick(12);
    Record r{kBegin, kWriteBlock, ci, slot, Pick(1u << 30), block};
    Report(r);
    const int32_t h = OpenSlot(ci, slot);
    const Bytes data = Data(BlockLength(r.seed), r.seed);
    sfl_WriteBlockedData(h, block, static_cast<uint32_t>(data.size()), data.data());
    sfl_CloseItem(h);
    Report(Record{kDone});
  }

  void FreeBlock(uint32_t ci, uint32_t slot) {
    const Item& it = m_[ci].items.at(slot);
    std::vector<uint32_t> sure;
    for (const auto& [b, blk] : it.blocks)
      if (!blk.mayBeAbsent) sure.push_back(b);
    if (sure.empty()) return;
    const uint32_t block = sure[Pick(static_cast<uint32_t>(sure.size()))];
    Report(Record{kBegin, kFreeBlock, ci, slot, 0, block});
    const int32_t h = OpenSlot(ci, slot);
    sfl_FreeBlock(h, block, 0);
    sfl_CloseItem(h);
    Report(Record{kDone});
  }

  void CreateContainer() {
    Record r{kBegin, kCreateContainer, 0, 0, Pick(1u << 30), Pick(3000)};
    Report(r);
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    Record placed{kPlaced};
    const int32_t h = sfl_StoreBasicItem(bh, nullptr, r.a, &placed.ref, 0);
    const Bytes data = Data(r.a, r.seed);
    if (r.a > 0) sfl_WriteSimpleData(h, 0, r.a, data.data());
    sfl_CloseItem(h);
    sfl_CloseFile(bh);
    Report(placed);
    Report(Record{kDone});
  }

  Model& m_;
  Tracker tracker_;
  int fd_;
  std::mt19937 rng_;
};

// ---- this process: checking what the store holds ---------------------------------------

using sfltest::CloseColdFiles;

std::string RefText(const sfl_ItemRef& ref) { return sfltest::RefText(ref); }

std::string EscapeText(const sfltest::Escape& e) {
  return std::to_string(e.group) + "/" + std::to_string(e.reason);
}

// Reads one item back against the model, and puts what is there into the
// model (an unfinished operation is settled by what it left).
void VerifyItem(Item& it, std::vector<std::string>& faults) {
  const std::string name = RefText(it.ref);
  int32_t h = -1;
  const sfltest::Escape open = sfltest::EscapeOf([&] { h = sfl_OpenItem(&it.ref, 0); });
  if (open.group != 0) {
    if (!it.mayBeGone) faults.push_back(name + ": does not open (" + EscapeText(open) + ")");
    it.mayBeGone = true;  // gone: the caller drops it
    return;
  }
  const sfltest::Escape read = sfltest::EscapeOf([&] {
    if (!it.blocked) {
      sfl_SimpleDetails d{};
      sfl_GetSimpleDetails(h, &d);
      Bytes got(d.Size);
      if (d.Size > 0) sfl_ReadSimpleData(h, 0, d.Size, got.data());
      if (!it.unknownContent && !it.simple.Allows(got))
        faults.push_back(name + ": " + std::to_string(d.Size) + " bytes read differ from what was stored");
      it.simple.candidates = {got};
      return;
    }
    const uint32_t n = sfl_ListBlocks(h, 0, 0xFFFFFFFFu, nullptr, 0);
    std::vector<sfl_BlockInfo> present(n);
    if (n > 0) sfl_ListBlocks(h, 0, 0xFFFFFFFFu, present.data(), n);
    std::set<uint32_t> seen;
    for (const sfl_BlockInfo& b : present) {
      seen.insert(b.Block);
      auto found = it.blocks.find(b.Block);
      if (found == it.blocks.end()) {
        faults.push_back(name + ": block " + std::to_string(b.Block) + " is there but was never written");
        continue;
      }
      Bytes got(b.Size);
      got.resize(sfl_ReadBlockedData(h, b.Block, b.Size, got.data()));
      bool ok = it.unknownContent;
      for (const Content& v : found->second.versions) ok = ok || v.Allows(got);
      if (!ok) {
        std::string lengths;
        for (const Content& v : found->second.versions)
          for (const Bytes& c : v.candidates) lengths += " " + std::to_string(c.size());
        faults.push_back(name + ": block " + std::to_string(b.Block) + " differs from what was written (" +
                         std::to_string(got.size()) + " bytes read at offset " + std::to_string(b.Offset) +
                         "; lengths written:" + lengths + ")");
      }
      found->second.versions = {Content{{got}}};
      found->second.mayBeAbsent = false;
    }
    for (auto b = it.blocks.begin(); b != it.blocks.end();) {
      if (seen.count(b->first) != 0) {
        ++b;
        continue;
      }
      if (!b->second.mayBeAbsent) faults.push_back(name + ": block " + std::to_string(b->first) + " is missing");
      b = it.blocks.erase(b);
    }
  });
  if (read.group != 0) faults.push_back(name + ": read failed (" + EscapeText(read) + ")");
  it.mayBeGone = false;
  it.unknownContent = false;
  const sfltest::Escape close = sfltest::EscapeOf([&] { sfl_CloseItem(h); });
  if (close.group != 0) faults.push_back(name + ": close failed (" + EscapeText(close) + ")");
}

// Deletes items in use that the model does not know: a store cut short
// before its reference was reported.
void DeleteStrays(Container& c, int32_t bh) {
  sfl_ItemInfo info[8] = {};
  const int32_t slots = std::min(sfl_ListItems(bh, info, 8), 8);
  for (int32_t i = 1; i < slots; ++i) {
    if (!info[i].InUse || !info[i].Valid || (info[i].Flags & DELETED) != 0) continue;
    if (c.items.count(static_cast<uint32_t>(i)) != 0) continue;
    sfl_ItemRef ref = c.ref;
    ref.Flags = static_cast<uint16_t>(i);
    sfltest::EscapeOfThenClear([&] {
      const int32_t h = sfl_OpenItem(&ref, 0);
      sfl_DetachOpenItem(h);
      sfl_CloseItem(h);
    });
  }
}

// Every container of the store not in the model: a creation cut short.
// Each must open; its final close removes it when it holds no item, and
// whatever is left is removed by hand.
void OpenUnknownContainers(const Model& m, std::vector<std::string>& faults, int& unknown) {
  std::set<std::string> known;
  for (const Container& c : m) known.insert(sfltest::ItemPath(c.ref));
  std::error_code ec;
  std::vector<std::string> files;
  for (const auto& e : std::filesystem::recursive_directory_iterator(sfltest::StoreRoot(), ec))
    if (e.is_regular_file()) files.push_back(e.path().string());
  for (const std::string& path : files) {
    if (known.count(path) != 0) continue;
    sfl_ItemRef ref{};
    if (sfltest::EscapeOfThenClear([&] { im_FName2ItemRef(path.c_str(), &ref); }).group != 0) continue;
    ++unknown;
    const sfltest::Escape e = sfltest::EscapeOf([&] { sfl_CloseFile(sfl_OpenSfl(&ref, 0)); });
    if (e.group != 0) faults.push_back(path + ": left by a creation cut short, does not open (" + EscapeText(e) + ")");
    CloseColdFiles();
    std::filesystem::remove(path, ec);
  }
}

std::vector<std::string> Verify(Model& m, int& unknown) {
  std::vector<std::string> faults;
  for (Container& c : m) {
    int32_t bh = -1;
    const sfltest::Escape e = sfltest::EscapeOf([&] { bh = sfl_OpenSfl(&c.ref, 0); });
    if (e.group != 0) {
      faults.push_back(RefText(c.ref) + ": container does not open (" + EscapeText(e) + ")");
      continue;
    }
    for (auto it = c.items.begin(); it != c.items.end();) {
      VerifyItem(it->second, faults);
      it = it->second.mayBeGone ? c.items.erase(it) : std::next(it);
    }
    DeleteStrays(c, bh);
    const sfltest::Escape close = sfltest::EscapeOf([&] { sfl_CloseFile(bh); });
    if (close.group != 0) faults.push_back(RefText(c.ref) + ": close failed (" + EscapeText(close) + ")");
  }
  OpenUnknownContainers(m, faults, unknown);
  CloseColdFiles();
  return faults;
}

// Containers emptied by deletions are removed at their final close; the
// model lets them go too.
void DropRemovedContainers(Model& m) {
  m.erase(std::remove_if(m.begin(), m.end(),
                         [](const Container& c) {
                           return c.items.empty() && !std::filesystem::exists(sfltest::ItemPath(c.ref));
                         }),
          m.end());
}

int Rounds(const char* var, int fallback) {
  const char* v = std::getenv(var);
  const int n = v != nullptr ? std::atoi(v) : fallback;
  return n > 0 ? n : fallback;
}

// How a worker stops: killed at a random moment, or by a power cut at a
// random flush (under "SFL_ALL_SYNC_IO", so that every operation it reported
// done was flushed before it said so).
enum class Stop { Kill, PowerCut };

void RunRounds(Stop stop, int rounds) {
  Model m;
  for (uint32_t i = 0; i < 3; ++i) {
    Container c;
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_GetSerFileItem(bh, &c.ref);
    Item it;
    const int32_t h = sfl_StoreBasicItem(bh, nullptr, 700, &it.ref, 0);
    const Bytes data = Data(700, 1000 + i);
    sfl_WriteSimpleData(h, 0, 700, data.data());
    sfl_CloseItem(h);
    sfl_CloseFile(bh);
    it.simple.candidates = {data};
    c.items[sfl_ItemNumOf(it.ref)] = it;
    m.push_back(c);
  }
  CloseColdFiles();
  const std::string stash = sfltest::TestDir() + "/powercut-stash";
  std::filesystem::create_directories(stash);

  std::mt19937 rng(stop == Stop::Kill ? 20261123 : 20261124);
  int kills = 0, killedMidOp = 0, unknown = 0, workerOps = 0;
  for (int round = 0; round < rounds; ++round) {
    if (m.empty()) {
      // Every container was emptied and removed: start a new one.
      Container c;
      const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
      sfl_GetSerFileItem(bh, &c.ref);
      Item it;
      sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 10, &it.ref, 0));
      sfl_CloseFile(bh);
      CloseColdFiles();
      it.simple.candidates = {Bytes(10, 0)};
      c.items[sfl_ItemNumOf(it.ref)] = it;
      m.push_back(c);
    }
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const uint32_t seed = rng();
    const uint64_t cutAt = std::uniform_int_distribution<uint64_t>(1, 400)(rng);
    const uint64_t draw = rng() % 4 == 0 ? 0 : rng();
    const int pid = sfltest::StartChild([&]() -> int {
      close(fds[0]);
      if (stop == Stop::PowerCut) {
        setenv("SFL_ALL_SYNC_IO", "1", 1);
        sfl_ResetSyncConfig();
        os_PowerCutArm(sfltest::StoreRoot().c_str(), stash.c_str(), draw);
        os_PowerCutAtFlush(cutAt);
      }
      Worker w(m, fds[1], seed);
      try {
        w.Run();
      } catch (const er_Escape& e) {
        std::fprintf(stderr, "worker: escape %d/%d at %s:%d\n", e.group(), e.reason(), e.file(), e.line());
      }
      return 1;
    });
    close(fds[1]);
    if (stop == Stop::Kill) {
      const int delayUs = std::uniform_int_distribution<int>(0, 40000)(rng);
      std::this_thread::sleep_for(std::chrono::microseconds(delayUs));
      kill(pid, SIGKILL);
    }
    const int status = sfltest::WaitChild(pid);
    ASSERT_EQ(stop == Stop::Kill ? 128 + SIGKILL : OS_POWER_CUT_EXIT, status)
        << "the worker stopped by itself in round " << round;
    ++kills;

    Tracker t(m);
    Record r;
    while (read(fds[0], &r, sizeof r) == static_cast<ssize_t>(sizeof r)) {
      t.Apply(r);
      if (r.kind == kDone) ++workerOps;
    }
    close(fds[0]);
    if (r.kind != kDone) ++killedMidOp;
    if (std::getenv("SFL_CRASH_TRACE") != nullptr)
      std::printf("round %d: last record kind %u op %u container %u slot %u a %u\n", round, r.kind, r.op,
                  r.container, r.slot, r.a);
    t.Killed();
    DropRemovedContainers(m);

    const sfltest::Outcome repair = sfltest::Sfl({"check", "--repair", "--all"});
    ASSERT_LE(repair.status, 1) << repair.out << repair.err;
    const sfltest::Outcome check = sfltest::Sfl({"check", "--all"});
    ASSERT_EQ(0, check.status) << "round " << round << ": faults after the repair\n"
                               << check.out << check.err << "\nrepair said:\n" << repair.out;
    const std::vector<std::string> faults = Verify(m, unknown);
    std::string text;
    for (const std::string& f : faults) text += f + "\n";
    ASSERT_TRUE(faults.empty()) << "round " << round << " (cut at flush " << cutAt << ", draw " << draw
                                << "):\n" << text << "repair said:\n" << repair.out;
    std::error_code ec;
    std::filesystem::remove_all(stash, ec);
    std::filesystem::create_directories(stash, ec);
  }
  std::printf("%s: %d %s (%d in the middle of an operation), %d operations completed, "
              "%d containers left by a creation cut short\n",
              stop == Stop::Kill ? "crash loop" : "power-cut workload", kills,
              stop == Stop::Kill ? "kills" : "power cuts", killedMidOp, workerOps, unknown);
  EXPECT_EQ(rounds, kills);
  EXPECT_GT(workerOps, 0);
}

TEST(CrashLoop, KilledWorkersLeaveRepairableContainersAndEveryCompletedStore) {
  RunRounds(Stop::Kill, Rounds("SFL_CRASH_KILLS", 100));
}

// The same workload with the power cut instead of the kill: what the disk
// kept of the unflushed writes and directory changes is drawn at random
// (or all of it lost). SFL_POWERCUT_ROUNDS sets the number of rounds.
TEST(CrashLoop, PowerCutsUnderAllSyncKeepEveryCompletedOperation) {
  RunRounds(Stop::PowerCut, Rounds("SFL_POWERCUT_ROUNDS", 60));
}

}  // namespace
