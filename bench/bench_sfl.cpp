// The sfl side: one container per message with one item per part, the
// container opened and closed per message as a server does; W2 keeps one
// blocked item and appends, reads and frees its blocks.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "bench.h"
#include "os.h"
#include "sfl.h"

namespace bench {
namespace {

// System calls the library made through its os_ layer. Allocation and
// buffered stdio calls are not system calls and are left out.
int64_t SflCallCount() {
  int64_t n = 0;
  for (int i = 0; i < os_OpCount; ++i) {
    auto op = static_cast<os_Op>(i);
    switch (op) {
      case os_Op::Malloc: case os_Op::Fread: case os_Op::Fwrite: case os_Op::Fseek:
      case os_Op::Ftell: case os_Op::Fgets:
        break;
      default:
        n += static_cast<int64_t>(os_CallCount(op));
    }
  }
  return n;
}

struct MessageRefs {
  sfl_ItemRef file{};
  sfl_ItemRef parts[kPartsPerMessage]{};
};

class SflStore : public MessageStore {
 public:
  SflStore(const std::string& dir, bool create) : refsPath_(dir + "/sfl-refs.bin") {
    // W5's processes open a store another process built, to add to it.
    if (!create || access(refsPath_.c_str(), F_OK) == 0) LoadRefs();
  }

  void Store(int msg, const uint8_t* const parts[kPartsPerMessage]) override {
    if (static_cast<size_t>(msg) >= refs_.size()) refs_.resize(msg + 1);
    MessageRefs& m = refs_[msg];
    int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_GetSerFileItem(base, &m.file);
    for (int p = 0; p < kPartsPerMessage; ++p) {
      int32_t h = sfl_StoreBasicItem(base, nullptr, kPartSizes[p], &m.parts[p], 1);
      if (h < 0) Fail("container full at message %d part %d", msg, p);
      int32_t n = sfl_WriteSimpleData(h, 0, kPartSizes[p], parts[p]);
      if (n != static_cast<int32_t>(kPartSizes[p])) Fail("short item write");
      sfl_CloseItem(h);
    }
    sfl_CloseFile(base);
  }

  void Read(int msg, uint8_t* const bufs[kPartsPerMessage]) override {
    MessageRefs& m = refs_[msg];
    int32_t base = sfl_OpenSfl(&m.file, 0);
    for (int p = 0; p < kPartsPerMessage; ++p) {
      int32_t h = sfl_OpenItem(&m.parts[p], 0);
      sfl_ReadSimpleData(h, 0, kPartSizes[p], bufs[p]);
      sfl_CloseItem(h);
    }
    sfl_CloseFile(base);
  }

  // A part read on its own, by reference: the item open brings the
  // container in (from the cold store when it is there) and takes it out.
  uint32_t ReadPart(int msg, int part, uint8_t* buf) override {
    int32_t h = sfl_OpenItem(&refs_[msg].parts[part], 0);
    int32_t n = sfl_ReadSimpleData(h, 0, kPartSizes[part], buf);
    sfl_CloseItem(h);
    return n < 0 ? 0 : static_cast<uint32_t>(n);
  }

  // Deleting a message drops the one owner of each part; the last close of
  // a part then releases its space, and the container goes with its last
  // item.
  void Delete(int msg) override {
    MessageRefs& m = refs_[msg];
    int32_t base = sfl_OpenSfl(&m.file, 0);
    for (int p = 0; p < kPartsPerMessage; ++p) {
      int32_t h = sfl_OpenItem(&m.parts[p], 0);
      sfl_DetachOpenItem(h);
      sfl_CloseItem(h);
    }
    sfl_CloseFile(base);
  }

  // Stripping parts: their items go at once (this process alone holds the
  // container), and the container's close rebuilds it without their space
  // when the holes are large enough.
  void DeleteParts(int msg, const std::vector<int>& parts) override {
    MessageRefs& m = refs_[msg];
    int32_t base = sfl_OpenSfl(&m.file, 0);
    for (int p : parts) {
      int32_t h = sfl_OpenItem(&m.parts[p], 0);
      sfl_DetachOpenItem(h);
      sfl_CloseItem(h);
    }
    sfl_CloseFile(base);
  }

  void Finish() override {
    FILE* f = std::fopen(refsPath_.c_str(), "wb");
    if (f == nullptr) Fail("cannot write %s", refsPath_.c_str());
    if (!refs_.empty()) std::fwrite(refs_.data(), sizeof(MessageRefs), refs_.size(), f);
    std::fclose(f);
  }

  int64_t OwnCallCount() override { return SflCallCount(); }

 private:
  void LoadRefs() {
    FILE* f = std::fopen(refsPath_.c_str(), "rb");
    if (f == nullptr) Fail("cannot read %s", refsPath_.c_str());
    MessageRefs m;
    while (std::fread(&m, sizeof m, 1, f) == 1) refs_.push_back(m);
    std::fclose(f);
  }

  std::string refsPath_;
  std::vector<MessageRefs> refs_;
};

class SflLog : public BlockLog {
 public:
  SflLog() {
    base_ = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    item_ = sfl_CreateBlockedItem(base_, &ref_);
    // The new root is laid down as zeros, which index reads refuse: it
    // becomes an empty leaf before the first block.
    sfl_FormatBlockedRoot(item_);
  }
  ~SflLog() override {
    sfl_CloseItem(item_);
    sfl_CloseFile(base_);
  }

  int64_t Append(const uint8_t* data, uint32_t size) override {
    int32_t b = sfl_GetNewBlock(item_, static_cast<int32_t>(size), 1, data);
    if (b < 0) Fail("no block placed");
    return b;
  }
  uint32_t Read(int64_t id, uint8_t* buf, uint32_t size) override {
    return sfl_ReadBlockedData(item_, static_cast<uint32_t>(id), size, buf);
  }
  void Free(int64_t id) override { sfl_FreeBlock(item_, static_cast<uint32_t>(id), 0); }
  int64_t OwnCallCount() override { return SflCallCount(); }

 private:
  int32_t base_ = -1;
  int32_t item_ = -1;
  sfl_ItemRef ref_{};
};

// W6: items go, in the order they are made, into containers of seven
// (a container's most: its item table has eight slots, one of them its
// own free map), as messages into mailbox files; the process keeps
// every container open while it holds items, as a server keeps the
// mailboxes it serves open, and closes it, which removes it, when its last
// item goes. An item is made with room for the largest size (its blocks
// reserved, its size then cut to what was written), so an append stays in
// place.
class SflPool : public ItemPool {
 public:
  explicit SflPool(Durability d) : sync_(d == Durability::Sync) {}
  ~SflPool() override {
    for (Box& b : boxes_)
      if (b.base >= 0) sfl_CloseFile(b.base);
  }

  void Create(uint32_t id, const uint8_t* data, uint32_t size) override {
    if (id >= items_.size()) items_.resize(id + 1);
    if (boxes_.empty() || boxes_.back().used == kSlots) {
      Box b;
      b.base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
      if (b.base < 0) Fail("no container for item %u", id);
      boxes_.push_back(b);
    }
    Box& b = boxes_.back();
    Item& it = items_[id];
    it.box = static_cast<int32_t>(boxes_.size() - 1);
    int32_t h = sfl_StoreBasicItem(b.base, nullptr, kW6MaxSize, &it.ref, 1);
    if (h < 0) Fail("container full at item %u", id);
    if (sfl_WriteSimpleData(h, 0, size, data) != static_cast<int32_t>(size)) Fail("short item write");
    sfl_TruncateSimItem(h, size);
    sfl_CloseItem(h);
    ++b.used;
    ++b.live;
  }

  void Read(uint32_t id, uint8_t* buf, uint32_t size) override {
    int32_t h = sfl_OpenItem(&items_[id].ref, 0);
    if (sfl_ReadSimpleData(h, 0, size, buf) != static_cast<int32_t>(size)) Fail("short read of item %u", id);
    sfl_CloseItem(h);
  }

  // The append does not count as a flushing event of its own: the
  // flushing runs flush the item's data after it, as the files do.
  void Append(uint32_t id, uint32_t, const uint8_t* data, uint32_t n) override {
    int32_t h = sfl_OpenItem(&items_[id].ref, 0);
    sfl_AppendToSimpleItem(sfl_ItemHandle2Record(h), n, data);
    if (sync_) sfl_SyncData(h);
    sfl_CloseItem(h);
  }

  void Delete(uint32_t id) override {
    Item& it = items_[id];
    int32_t h = sfl_OpenItem(&it.ref, 0);
    sfl_DetachOpenItem(h);
    sfl_CloseItem(h);
    Box& b = boxes_[it.box];
    if (--b.live == 0 && b.used == kSlots) {
      sfl_CloseFile(b.base);
      b.base = -1;
    }
  }

  int64_t OwnCallCount() override { return SflCallCount(); }

 private:
  static constexpr int kSlots = 7;
  struct Box {
    int32_t base = -1;
    int used = 0;
    int live = 0;
  };
  struct Item {
    sfl_ItemRef ref{};
    int32_t box = -1;
  };
  bool sync_;
  std::vector<Box> boxes_;
  std::vector<Item> items_;
};

}  // namespace

std::vector<uint64_t> SflCallSnapshot() {
  std::vector<uint64_t> v(os_OpCount);
  for (int i = 0; i < os_OpCount; ++i) v[i] = os_CallCount(static_cast<os_Op>(i));
  return v;
}

void AddSflCallFigures(Figures& f, const std::vector<uint64_t>& before) {
  for (int i = 0; i < os_OpCount; ++i) {
    uint64_t n = os_CallCount(static_cast<os_Op>(i)) - before[i];
    if (n != 0) f[std::string("os_") + os_OpName(static_cast<os_Op>(i))] = static_cast<double>(n);
  }
}

// The driver gives every sfl run one shared run directory, so one interest
// service serves them all; a run started on its own gets its own.
void PrepareSfl(const std::string& dir, Durability d) {
  MakeDirs(dir + "/store");
  setenv("SFL_STORE_ROOT", (dir + "/store").c_str(), 1);
  if (std::getenv("SFL_RUN_DIR") == nullptr) {
    MakeDirs(dir + "/run");
    setenv("SFL_RUN_DIR", (dir + "/run").c_str(), 1);
  }
  if (std::getenv("SFL_LOG_FILE") == nullptr) setenv("SFL_LOG_FILE", (dir + "/sfl.log").c_str(), 1);
  unsetenv("SFL_ALL_ASYNC_IO");
  unsetenv("SFL_ALL_SYNC_IO");
  setenv(d == Durability::Sync ? "SFL_ALL_SYNC_IO" : "SFL_ALL_ASYNC_IO", "1", 1);
}

// System calls of one 4 KiB read in four situations (untimed): on an open
// item handle; open, read and close of an item whose container is open; by
// reference with the container in the cold store; by reference with it
// closed (pushed out of the cold store by newer containers).
void AddSflReadProbe(Figures& f) {
  std::vector<uint8_t> buf(4096);
  FillPayload(buf.data(), 4096, 1, 1);
  sfl_ItemRef file{}, part{};
  int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_GetSerFileItem(base, &file);
  int32_t h = sfl_StoreBasicItem(base, nullptr, 4096, &part, 1);
  sfl_WriteSimpleData(h, 0, 4096, buf.data());
  sfl_CloseItem(h);
  sfl_CloseFile(base);
  auto count = [](auto fn) {
    int64_t before = SflCallCount();
    fn();
    return static_cast<double>(SflCallCount() - before);
  };
  auto byReference = [&] {
    int32_t item = sfl_OpenItem(&part, 0);
    if (sfl_ReadSimpleData(item, 0, 4096, buf.data()) != 4096) Fail("probe read");
    sfl_CloseItem(item);
  };
  f["probe_read_cold"] = count(byReference);
  base = sfl_OpenSfl(&file, 0);
  f["probe_read_open_container"] = count(byReference);
  h = sfl_OpenItem(&part, 0);
  f["probe_read_handle"] = count([&] { sfl_ReadSimpleData(h, 0, 4096, buf.data()); });
  sfl_CloseItem(h);
  sfl_CloseFile(base);
  // Newer containers push this one out of a cold store of the default size.
  for (int i = 0; i < 8; ++i) sfl_CloseFile(sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0));
  f["probe_read_closed"] = count(byReference);
  if (!CheckPayload(buf.data(), 4096, 1, 1)) Fail("probe read differs");
}

void TuneColdStore() {
  setenv("SFL_COLD_STORE_SIZE", kTunedColdStore, 1);
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < 2048) {
    lim.rlim_cur = lim.rlim_max < 2048 ? lim.rlim_max : 2048;
    setrlimit(RLIMIT_NOFILE, &lim);
  }
}

std::unique_ptr<MessageStore> NewSflStore(const std::string& dir, Durability d, bool create) {
  PrepareSfl(dir, d);
  return std::make_unique<SflStore>(dir, create);
}

std::unique_ptr<ItemPool> NewSflPool(const std::string& dir, Durability d) {
  PrepareSfl(dir, d);
  // One descriptor per open container.
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < lim.rlim_max) {
    lim.rlim_cur = lim.rlim_max;
    setrlimit(RLIMIT_NOFILE, &lim);
  }
  return std::make_unique<SflPool>(d);
}

std::unique_ptr<BlockLog> NewSflLog(const std::string& dir, Durability d) {
  PrepareSfl(dir, d);
  return std::make_unique<SflLog>();
}

}  // namespace bench
