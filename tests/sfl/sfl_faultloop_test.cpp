// The I/O-fault loop: every public operation is run once to count its
// operating-system calls, then again and again from the same starting point
// with the Nth call failing (N = 1, 2, ...) until the operation completes
// without meeting the fault; then the same with the Nth transfer coming up
// short. After each run, with whatever the caller holds closed again:
//   - no byte-range lock is held, seen from another process, and no record
//     lock is on this process's books;
//   - no descriptor, open-files, open-items or stream record is left;
//   - the service holds no interest in the container;
//   - no file is left in the store besides those there before;
//   - every item the operation does not change reads back as it was;
//   - the container passes the integrity check.
// SFL_FAULT_SOAK=1 adds more errnos and short lengths.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "im.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

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
};

std::vector<uint8_t> Bytes(size_t n, uint32_t seed) { return sfltest::PseudoRandomBytes(n, seed, 7); }

std::vector<std::vector<uint8_t>> ReadSlot(const sfl_ItemRef& ref, uint32_t slot) {
  std::vector<std::vector<uint8_t>> out;
  const int32_t h = sfl_OpenItem(&ref, 0);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  if ((item->Flags & BLOCKED_ITEM) != 0) {
    for (uint32_t b = 0; b < kBlocksC; ++b) {
      std::vector<uint8_t> buf(4096);
      buf.resize(sfl_ReadBlockedData(h, b, 4096, buf.data()));
      out.push_back(buf);
    }
  } else {
    std::vector<uint8_t> buf(item->Size);
    if (!buf.empty()) sfl_ReadSimpleData(h, 0, item->Size, buf.data());
    out.push_back(buf);
  }
  (void)slot;
  sfl_CloseItem(h);
  return out;
}

World Build() {
  World w;
  w.bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_GetSerFileItem(w.bh, &w.file);
  w.path = sfltest::ItemPath(w.file);
  auto simple = [&](uint32_t size, uint32_t seed) {
    sfl_ItemRef ref{};
    const int32_t h = sfl_StoreBasicItem(w.bh, nullptr, size, &ref, 0);
    const std::vector<uint8_t> data = Bytes(size, seed);
    sfl_WriteSimpleData(h, 0, size, data.data());
    sfl_CloseItem(h);
    w.refs[sfl_ItemNumOf(ref)] = ref;
  };
  simple(kSizeA, 1);
  simple(kSizeB, 2);
  sfl_ItemRef cref{};
  const int32_t c = sfl_CreateBlockedItem(w.bh, &cref);
  sfl_FormatBlockedRoot(c);
  for (uint32_t b = 0; b < kBlocksC; ++b) {
    const std::vector<uint8_t> data = Bytes(300 + 100 * b, 10 + b);
    sfl_WriteBlockedData(c, b, static_cast<uint32_t>(data.size()), data.data());
  }
  sfl_CloseItem(c);
  w.refs[sfl_ItemNumOf(cref)] = cref;
  simple(kSizeP, 3);
  for (const auto& [slot, ref] : w.refs) w.content[slot] = ReadSlot(ref, slot);
  return w;
}

using sfltest::CloseColdFiles;

int OpenDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
  closedir(d);
  return n - 1;  // the directory's own
}

std::set<std::string> StoreFiles() {
  std::set<std::string> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::recursive_directory_iterator(sfltest::StoreRoot(), ec))
    if (e.is_regular_file()) out.insert(e.path().string());
  return out;
}

// The number of processes the service counts with an interest in `ref`.
uint32_t InterestHolders(const sfl_ItemRef& ref) {
  sfl_BaseRec probe;
  sfl_SetRef(probe, ref);
  sfl_CheckBaseInterest(&probe);
  return probe.ProcAccCount + probe.OtherInterest;
}

struct Op {
  const char* name;
  std::set<uint32_t> changes;                     // slots whose content may change
  std::function<void(World&)> prepare;            // fault-free set-up
  std::function<void(World&)> run;                // what runs under the fault
};

void Nothing(World&) {}

int32_t OpenSlot(World& w, uint32_t slot) {
  const int32_t h = sfl_OpenItem(&w.refs[slot], 0);
  w.handles.push_back(h);
  return h;
}

// Whole-file work wants the container closed by this process.
void ReleaseContainer(World& w) {
  sfl_CloseFile(w.bh);
  w.bh = -1;
  CloseColdFiles();
}

std::vector<Op> Operations() {
  std::vector<Op> ops;
  ops.push_back({"create", {}, Nothing, [](World& w) {
                   const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
                   w.files.push_back(bh);
                 }});
  ops.push_back({"open", {},
                 [](World& w) {
                   sfl_CloseFile(w.bh);
                   w.bh = -1;
                   CloseColdFiles();
                 },
                 [](World& w) { w.bh = sfl_OpenSfl(&w.file, 0); }});
  ops.push_back({"close", {}, Nothing, [](World& w) {
                   sfl_CloseFile(w.bh);
                   w.bh = -1;
                 }});
  ops.push_back({"store", {}, Nothing, [](World& w) {
                   sfl_ItemRef ref{};
                   const int32_t h = sfl_StoreBasicItem(w.bh, nullptr, 5000, &ref, 0);
                   if (h >= 0) w.handles.push_back(h);
                 }});
  ops.push_back({"read", {}, [](World& w) { w.h = OpenSlot(w, kA); },
                 [](World& w) {
                   std::vector<uint8_t> buf(2000);
                   sfl_ReadSimpleData(w.h, 100, 2000, buf.data());
                 }});
  ops.push_back({"write", {kA}, [](World& w) { w.h = OpenSlot(w, kA); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(2000, 99);
                   sfl_WriteSimpleData(w.h, 500, 2000, data.data());
                 }});
  ops.push_back({"truncate", {kB}, [](World& w) { w.h = OpenSlot(w, kB); },
                 [](World& w) { sfl_TruncateSimItem(w.h, 50); }});
  ops.push_back({"copy", {}, Nothing, [](World& w) {
                   // Into the header of the free slot 7, as a rebuild does.
                   const int32_t h = sfl_CopySimpleItem(
                       w.bh, SFL_TABLE_OFFSET + 7 * SFL_ITEM_HEADER_SIZE, -1, 0, 700, 0);
                   w.handles.push_back(h);
                 }});
  ops.push_back({"attach", {}, Nothing, [](World& w) { sfl_AttachItem(&w.refs[kA]); }});
  ops.push_back({"detach", {}, [](World& w) { sfl_AttachItem(&w.refs[kA]); },
                 [](World& w) { sfl_DetachItem(&w.refs[kA]); }});
  ops.push_back({"delete", {kB}, [](World& w) { w.h = OpenSlot(w, kB); },
                 [](World& w) { sfl_DeleteItem(w.h); }});
  ops.push_back({"blocked-write-new", {}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(500, 77);
                   sfl_WriteBlockedData(w.h, 40, 500, data.data());
                 }});
  ops.push_back({"blocked-rewrite", {kC}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(300, 78);
                   sfl_WriteBlockedData(w.h, 1, 300, data.data());
                 }});
  ops.push_back({"blocked-read", {}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   std::vector<uint8_t> buf(1000);
                   sfl_ReadBlockedData(w.h, 2, 1000, buf.data());
                 }});
  ops.push_back({"blocked-free", {kC}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) { sfl_FreeBlock(w.h, 1, 0); }});
  ops.push_back({"blocked-new-block", {}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(260, 79);
                   sfl_GetNewBlock(w.h, 260, 0, data.data());
                 }});
  ops.push_back({"blocked-create", {}, Nothing, [](World& w) {
                   sfl_ItemRef ref{};
                   w.handles.push_back(sfl_CreateBlockedItem(w.bh, &ref));
                 }});
  ops.push_back({"internal-create", {kP}, [](World& w) { w.h = OpenSlot(w, kP); },
                 [](World& w) {
                   const int32_t ih = sfl_CreateIntBItem(w.h, 0, 128, 0);
                   w.handles.push_back(ih);
                   sfl_CloseIntItem(ih);
                 }});
  ops.push_back({"internal-open-remove", {kP},
                 [](World& w) {
                   w.h = OpenSlot(w, kP);
                   sfl_CloseIntItem(sfl_CreateIntBItem(w.h, 0, 128, 0));
                 },
                 [](World& w) {
                   const int32_t ih = sfl_OpenIntItem(w.h, 0, 128);
                   w.handles.push_back(ih);
                   sfl_RemoveIntItem(ih);
                 }});
  ops.push_back({"stream-write", {kA}, Nothing, [](World& w) {
                   const int32_t s = sfl_fOpenItem(&w.refs[kA], "rw");
                   const std::vector<uint8_t> data = Bytes(1500, 80);
                   sfl_fWrite(data.data(), 1, data.size(), s);
                   sfl_fClose(s);
                 }});
  ops.push_back({"stream-read", {}, Nothing, [](World& w) {
                   const int32_t s = sfl_fOpenItem(&w.refs[kA], "r");
                   std::vector<uint8_t> buf(kSizeA);
                   sfl_fRead(buf.data(), 1, buf.size(), s);
                   sfl_fClose(s);
                 }});
  ops.push_back({"compact-blocked", {kC},
                 [](World& w) {
                   w.h = OpenSlot(w, kC);
                   sfl_FreeBlock(w.h, 1, 0);  // a gap for the rebuild to close
                 },
                 [](World& w) { sfl_CompactBlockedItem(w.h); }});
  ops.push_back({"compact-container", {kB},
                 [](World& w) {
                   sfl_DetachItem(&w.refs[kB]);  // a hole for the rebuild to close
                   ReleaseContainer(w);
                 },
                 [](World& w) { sfl_CompactContainer(&w.file); }});
  ops.push_back({"check-repair", {}, ReleaseContainer,
                 [](World& w) { sfl_CheckSflIntegrity(&w.file, 1); }});
  return ops;
}

// Closes whatever the run left open, as its caller would; none of it may
// fail once no fault is pending.
void CloseWhatIsHeld(World& w) {
  sfl_StreamsTable& streams = sfl_Streams();
  for (size_t i = 0; i < streams.HighWater(); ++i) {
    sfl_StreamRec* r = streams.At(i);
    if (r != nullptr && r->InUse == 1) sfl_fClose(sfl_StreamsTable::kFirst + static_cast<int32_t>(i));
  }
  sfl_ItemsTable& items = sfl_OpenItems();
  for (auto it = w.handles.rbegin(); it != w.handles.rend(); ++it) {
    const int32_t h = *it;
    const size_t i = static_cast<size_t>(h - sfl_ItemsTable::kFirst);
    sfl_ItemRec* r = items.At(i);
    if (r == nullptr || r->InUse != 1) continue;
    if ((r->Flags & INT_ITEM) != 0) {
      sfl_CloseIntItem(h);
      continue;
    }
    // A new blocked item's root is laid down as zeros; its creator formats
    // it before anything else (a no-op once formatted).
    if ((r->Flags & BLOCKED_ITEM) != 0) sfl_FormatBlockedRoot(h);
    sfl_CloseItem(h);
  }
  for (int32_t bh : w.files) {
    sfl_BaseRec* r = sfl_OpenFiles().At(static_cast<size_t>(bh - sfl_FilesTable::kFirst));
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 0) sfl_CloseFile(bh);
  }
  if (w.bh >= 0) {
    sfl_BaseRec* r = sfl_OpenFiles().At(static_cast<size_t>(w.bh - sfl_FilesTable::kFirst));
    // A close that escaped left the file open: it is closed again.
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 0) sfl_CloseFile(w.bh);
  }
  // A file the operation opened implicitly and could not close stays open
  // until its next close: close it through its handle.
  sfl_FilesTable& files = sfl_OpenFiles();
  for (size_t i = 0; i < files.HighWater(); ++i) {
    sfl_BaseRec* r = files.At(i);
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 0)
      sfl_CloseFile(sfl_FilesTable::kFirst + static_cast<int32_t>(i));
  }
  CloseColdFiles();
}

std::string OpenItemsText() {
  std::string out;
  sfl_ItemsTable& items = sfl_OpenItems();
  for (size_t i = 0; i < items.HighWater(); ++i) {
    sfl_ItemRec* r = items.At(i);
    if (r == nullptr || r->InUse != 1) continue;
    out += " [" + std::to_string(sfl_ItemsTable::kFirst + static_cast<int32_t>(i)) + " item " +
           std::to_string(r->ItemNum) + " flags " + std::to_string(r->Flags) + " refs " +
           std::to_string(r->OpenRefs) + "]";
  }
  return out;
}

struct Baseline {
  int descriptors;
  std::set<std::string> files;
};

// Runs `op` from a new world with the fault armed by `arm`; returns whether
// the fault was met. Every finding is a test failure naming the run.
bool RunOnce(const Op& op, const Baseline& base, const std::function<void()>& arm,
             const std::string& what) {
  World w = Build();
  op.prepare(w);
  arm();
  std::string escape = "completed";
  try {
    op.run(w);
  } catch (const er_Escape& e) {
    escape = e.what();
    er_Clear();
  }
  const bool met = os_FaultMet();
  SCOPED_TRACE(what + " (" + os_FaultMetKind() + "): " + escape);
  os_ClearFaults();

  CloseWhatIsHeld(w);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), 0) << OpenItemsText();
  EXPECT_EQ(sfl_OpenFiles().InUseCount(), 0);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(sfl_RecordLocksHeld(), 0);
  EXPECT_EQ(OpenDescriptors(), base.descriptors);
  EXPECT_EQ(InterestHolders(w.file), 0u);
  const bool exists = ::access(w.path.c_str(), F_OK) == 0;
  if (exists) {
    EXPECT_EQ(sfltest::LockStateElsewhere(w.path, 0, 0), 0);
    // Every item the operation does not change reads back as it was.
    for (const auto& [slot, content] : w.content) {
      if (op.changes.count(slot) != 0) continue;
      try {
        EXPECT_EQ(ReadSlot(w.refs[slot], slot), content) << "slot " << slot;
      } catch (const er_Escape& e) {
        ADD_FAILURE() << "slot " << slot << " no longer reads: " << e.what();
        er_Clear();
        CloseWhatIsHeld(w);
      }
    }
    CloseColdFiles();
    // The container passes the integrity check (its findings go to the
    // test's output).
    std::fflush(stdout);
    EXPECT_EQ(sfl_CheckSflIntegrity(&w.file, 0), 0) << "integrity check";
    CloseColdFiles();
    const sfl_ItemRef ref = w.file;
    im_UnlinkItem(&ref);
  }
  EXPECT_EQ(StoreFiles(), base.files);
  // Whatever a successful run created (another container) goes too.
  for (const std::string& f : StoreFiles())
    if (base.files.count(f) == 0) ::unlink(f.c_str());
  return met;
}

int64_t Limit() {
  const char* v = std::getenv("SFL_FAULT_POINTS");
  return v != nullptr ? std::atoll(v) : 100000;
}

bool Soak() { return std::getenv("SFL_FAULT_SOAK") != nullptr; }

// The store's files and this process's descriptors once the service runs,
// and the number of calls and transfers `op` makes without a fault.
struct Start {
  Baseline base;
  uint64_t calls = 0;
  uint64_t transfers = 0;
};

Start Prepare(const Op& op) {
  sfl_SetAllAsync(0);
  er_LogMsg(1, "fault loop: %s", op.name);  // the log stays open from here on
  Start s;
  // The first world starts the service; its descriptors are not the run's.
  {
    World w = Build();
    CloseWhatIsHeld(w);
    im_UnlinkItem(&w.file);
  }
  s.base.descriptors = OpenDescriptors();
  s.base.files = StoreFiles();
  World w = Build();
  op.prepare(w);
  const uint64_t c0 = os_TotalCalls(), t0 = os_TransferCalls();
  op.run(w);
  s.calls = os_TotalCalls() - c0;
  s.transfers = os_TransferCalls() - t0;
  CloseWhatIsHeld(w);
  im_UnlinkItem(&w.file);
  for (const std::string& f : StoreFiles())
    if (s.base.files.count(f) == 0) ::unlink(f.c_str());
  return s;
}

// Runs `op` with the Nth call failing with `err`, N = 1, 2, ... until a run
// no longer meets the fault or a run fails; returns the fault points met.
uint64_t FailEachCall(const Op& op, const Baseline& base, int err) {
  uint64_t points = 0;
  for (int64_t n = 1; n <= Limit(); ++n) {
    const std::string what = std::string(op.name) + " failing call " + std::to_string(n) +
                             " with errno " + std::to_string(err);
    if (!RunOnce(op, base, [&] { os_FailNthCall(static_cast<uint64_t>(n), err); }, what)) break;
    ++points;
    if (::testing::Test::HasFailure()) break;
  }
  return points;
}

// The same with the Nth transfer moving only 1/`divisor` of its bytes (none
// at all for a divisor larger than the transfer).
uint64_t ShortenEachTransfer(const Op& op, const Baseline& base, size_t divisor) {
  uint64_t points = 0;
  for (int64_t n = 1; n <= Limit(); ++n) {
    const std::string what = std::string(op.name) + " short transfer " + std::to_string(n) +
                             " (1/" + std::to_string(divisor) + ")";
    if (!RunOnce(op, base, [&] { os_ShortNthTransfer(static_cast<uint64_t>(n), divisor); }, what))
      break;
    ++points;
    if (::testing::Test::HasFailure()) break;
  }
  return points;
}

// A transfer that moves nothing at all; the soak's widest short transfer.
constexpr size_t kNothingMoves = 1000000;

class FaultLoop : public ::testing::TestWithParam<size_t> {};

TEST_P(FaultLoop, EveryFaultPointLeavesNothingBehind) {
  const Op op = Operations()[GetParam()];
  const Start start = Prepare(op);
  ASSERT_GT(start.calls, 0u);

  std::vector<int> errnos = {EIO};
  std::vector<size_t> divisors = {2};
  if (Soak()) {
    errnos = {EIO, ENOSPC, EINTR, EACCES};
    divisors = {2, kNothingMoves};
  }
  uint64_t points = 0;
  for (int err : errnos) {
    points += FailEachCall(op, start.base, err);
    if (HasFailure()) return;
  }
  for (size_t d : divisors) {
    points += ShortenEachTransfer(op, start.base, d);
    if (HasFailure()) return;
  }
  std::printf("fault loop: %-22s %4llu calls, %4llu transfers, %5llu fault points\n", op.name,
              static_cast<unsigned long long>(start.calls),
              static_cast<unsigned long long>(start.transfers),
              static_cast<unsigned long long>(points));
  EXPECT_GE(points, start.calls);
}

// A read that moved nothing before the end of the file was taken for the
// file's end: the rebuild then left out the item whose header it was
// reading (and every item after it) and still replaced the old file, and a
// repairing check took sound records for records cut short. Both operations
// meet such a transfer at every point here, in every run of the suite.
class EmptyTransfer : public ::testing::TestWithParam<const char*> {};

TEST_P(EmptyTransfer, RebuildAndRepairLoseNothing) {
  Op op{};
  for (const Op& o : Operations())
    if (std::string(o.name) == GetParam()) op = o;
  ASSERT_NE(op.name, nullptr);
  const Start start = Prepare(op);
  const uint64_t points = ShortenEachTransfer(op, start.base, kNothingMoves);
  EXPECT_GE(points, start.transfers);
}

INSTANTIATE_TEST_SUITE_P(WholeFile, EmptyTransfer,
                         ::testing::Values("compact-container", "check-repair"),
                         [](const ::testing::TestParamInfo<const char*>& param) {
                           std::string n = param.param;
                           for (char& c : n)
                             if (c == '-') c = '_';
                           return n;
                         });

std::string OpName(const ::testing::TestParamInfo<size_t>& info) {
  std::string n = Operations()[info.param].name;
  for (char& c : n)
    if (c == '-') c = '_';
  return n;
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultLoop, ::testing::Range<size_t>(0, Operations().size()),
                         OpName);

}  // namespace
