// The power-cut loop. Every operation of the shared catalogue runs in a
// forked child from a new world, under each sync mode, with the power cut
// at each flush the operation makes (the flush is lost) and once more just
// after the operation returns; at each such point several draws of what the
// disk kept of the unflushed writes and directory changes. This process
// then runs `sfl check --repair --all` and `sfl check --all`, which must
// find no fault left, and reads every item back:
//   - an item the operation does not change reads as it did before;
//   - an item it changes reads as before or as after the operation, never
//     anything else (and never goes missing);
//   - an item it made is absent or whole;
//   - under "SFL_ALL_SYNC_IO", after the operation returned, every item
//     reads as after the operation and every file it made is there.
// The world the child builds before the switch is armed counts as on disk.
//
// What "after" means comes from a run of the operation without a cut. With
// the default policy the loop also learns which operations are durable when
// they return (every unflushed change dropped, and still the "after" state)
// and prints them.
//
// SFL_POWERCUT_DRAWS sets the number of random draws per cut point (3 here,
// beyond the two fixed ones: everything unflushed lost, everything kept),
// SFL_POWERCUT_GARBAGE_DRAWS those in which a sector not kept may hold
// garbage (1 here); make soak runs more.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "op_catalog.h"
#include "mdc.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

using namespace sfltest;
using Blocks = std::vector<std::vector<uint8_t>>;

enum class Mode { Sync, Default, Async };
const char* ModeName(Mode m) { return m == Mode::Sync ? "all-sync" : m == Mode::Default ? "default" : "all-async"; }

// What a slot holds: its data (or blocks), or nothing that opens.
struct SlotState {
  bool present = false;
  Blocks content;
  bool operator==(const SlotState& o) const { return present == o.present && content == o.content; }
};

std::optional<Blocks> TryRead(const sfl_ItemRef& ref, uint32_t slot) {
  Blocks out;
  const Escape e = EscapeOfThenClear([&] { out = ReadSlot(ref, slot); });
  if (e.group != 0) return std::nullopt;
  return out;
}

SlotState StateOf(const sfl_ItemRef& file, uint32_t slot) {
  sfl_ItemRef ref = file;
  ref.Flags = static_cast<uint16_t>(slot);
  SlotState s;
  if (std::optional<Blocks> b = TryRead(ref, slot)) {
    s.present = true;
    s.content = *b;
  }
  return s;
}

// The child's report: the world's container, then (from a run without a
// cut) the flushes the operation made and what each slot and the store held
// after it.
struct Report {
  sfl_ItemRef file{};
  uint32_t touched = 0;  // the slot of the item the operation works through, if any
  uint64_t flushes = 0;
  std::map<uint32_t, SlotState> after;  // slots 1 to 7
  size_t storeFiles = 0;
};

void SetMode(Mode m) {
  unsetenv("SFL_ALL_SYNC_IO");
  unsetenv("SFL_ALL_ASYNC_IO");
  if (m == Mode::Sync) setenv("SFL_ALL_SYNC_IO", "1", 1);
  if (m == Mode::Async) setenv("SFL_ALL_ASYNC_IO", "1", 1);
  sfl_ResetSyncConfig();
}

void WriteAll(int fd, const void* p, size_t n) {
  const char* c = static_cast<const char*>(p);
  while (n > 0) {
    const ssize_t w = ::write(fd, c, n);
    if (w <= 0) os_ExitNow(90);
    c += w;
    n -= static_cast<size_t>(w);
  }
}

bool ReadAll(int fd, void* p, size_t n) {
  char* c = static_cast<char*>(p);
  while (n > 0) {
    const ssize_t r = ::read(fd, c, n);
    if (r <= 0) return false;
    c += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

void SendBlocks(int fd, const Blocks& b) {
  const uint32_t n = static_cast<uint32_t>(b.size());
  WriteAll(fd, &n, sizeof n);
  for (const auto& v : b) {
    const uint32_t len = static_cast<uint32_t>(v.size());
    WriteAll(fd, &len, sizeof len);
    WriteAll(fd, v.data(), v.size());
  }
}

bool ReceiveBlocks(int fd, Blocks* b) {
  uint32_t n = 0;
  if (!ReadAll(fd, &n, sizeof n)) return false;
  b->resize(n);
  for (auto& v : *b) {
    uint32_t len = 0;
    if (!ReadAll(fd, &len, sizeof len)) return false;
    v.resize(len);
    if (!ReadAll(fd, v.data(), len)) return false;
  }
  return true;
}

std::string StashDir() { return TestDir() + "/powercut-stash"; }

// One run in a child. cutAt: 0 runs without a cut and reports what the
// operation left; N cuts at the operation's Nth flush; kAfterReturn cuts
// once it has returned. Returns the child's report (the container, always;
// the rest for a run without a cut) and its exit status.
constexpr uint64_t kAfterReturn = ~uint64_t{0};
// The child's status when the cut point was never reached: a run may make
// fewer flushes than the one without a cut (a directory it needs may be
// there already).
constexpr int kNotReached = 4;

struct ChildRun {
  int status = -1;
  Report report;
};

ChildRun RunChild(const Op& op, Mode mode, uint64_t cutAt, uint64_t seed,
                 const std::function<void()>& extra = {}) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  const int pid = StartChild([&]() -> int {
    ::close(fds[0]);
    SetMode(mode);
    // Every run writes the same dates, so that runs compare byte for byte.
    mdc_FixTime(1800000000);
    World w = Build();
    op.prepare(w);
    WriteAll(fds[1], &w.file, sizeof w.file);
    const uint32_t touched = w.h >= 0 ? sfl_ItemHandle2Record(w.h)->ItemNum : 0;
    WriteAll(fds[1], &touched, sizeof touched);
    os_PowerCutArm(StoreRoot().c_str(), StashDir().c_str(), seed);
    if (extra) extra();
    if (cutAt != 0 && cutAt != kAfterReturn) os_PowerCutAtFlush(cutAt);
    // The operation is complete once its caller has closed what it holds:
    // an item stored without a source, say, is whole only then.
    try {
      op.run(w);
      CloseWhatIsHeld(w);
    } catch (const er_Escape& e) {
      std::fprintf(stderr, "%s escaped: %s\n", op.name, e.what());
      return 3;
    }
    if (cutAt == kAfterReturn) os_PowerCutNow();
    const uint64_t flushes = os_PowerCutFlushes();
    os_PowerCutDisarm();
    if (cutAt != 0) return kNotReached;
    WriteAll(fds[1], &flushes, sizeof flushes);
    const uint64_t files = StoreFiles().size();
    for (uint32_t slot = 1; slot < 8; ++slot) {
      const SlotState s = StateOf(w.file, slot);
      const uint32_t present = s.present ? 1 : 0;
      WriteAll(fds[1], &present, sizeof present);
      SendBlocks(fds[1], s.content);
    }
    WriteAll(fds[1], &files, sizeof files);
    return 0;
  });
  ::close(fds[1]);
  ChildRun out;
  ReadAll(fds[0], &out.report.file, sizeof out.report.file);
  ReadAll(fds[0], &out.report.touched, sizeof out.report.touched);
  if (cutAt == 0 && ReadAll(fds[0], &out.report.flushes, sizeof out.report.flushes)) {
    for (uint32_t slot = 1; slot < 8; ++slot) {
      uint32_t present = 0;
      SlotState s;
      if (!ReadAll(fds[0], &present, sizeof present) || !ReceiveBlocks(fds[0], &s.content)) break;
      s.present = present != 0;
      out.report.after[slot] = s;
    }
    uint64_t files = 0;
    ReadAll(fds[0], &files, sizeof files);
    out.report.storeFiles = files;
  }
  ::close(fds[0]);
  out.status = WaitChild(pid);
  return out;
}

// Removes what a run left in the store and the stash.
void ClearStore() {
  CloseColdFiles();
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(StoreRoot(), ec)) std::filesystem::remove_all(e.path(), ec);
  std::filesystem::remove_all(StashDir(), ec);
  std::filesystem::create_directories(StashDir(), ec);
}

// A state each byte of which is the byte before or the byte after, the
// shape (presence, blocks, lengths) being one of the two: a data write in
// flight or not yet flushed, torn at sector boundaries.
bool TornBetween(const SlotState& got, const SlotState& was, const SlotState& now) {
  if (got == was || got == now) return true;
  if (!got.present || !was.present || !now.present) return false;
  if (got.content.size() != was.content.size() || got.content.size() != now.content.size()) return false;
  for (size_t b = 0; b < got.content.size(); ++b) {
    const auto &g = got.content[b], &w = was.content[b], &n = now.content[b];
    if (g.size() != w.size() && g.size() != n.size()) return false;
    for (size_t i = 0; i < g.size(); ++i) {
      const bool fromWas = i < w.size() && g[i] == w[i];
      const bool fromNow = i < n.size() && g[i] == n[i];
      if (!fromWas && !fromNow) return false;
    }
  }
  return true;
}

std::string Describe(const SlotState& s) {
  if (!s.present) return "absent";
  std::string out = "present:";
  for (const auto& b : s.content) out += " " + std::to_string(b.size()) + "B";
  return out;
}

// The state one cut left, against what was before and what came after.
// Returns the faults found (empty when none).
std::vector<std::string> Verify(const Op& op, Mode mode, bool returned, const Report& cut,
                                const std::map<uint32_t, SlotState>& before, const Report& dry,
                                bool garbage = false) {
  std::vector<std::string> faults;
  const sfltest::Outcome repair = Sfl({"check", "--repair", "--all"});
  if (repair.status > 1) faults.push_back("repair failed: " + repair.out + repair.err);
  const sfltest::Outcome check = Sfl({"check", "--all"});
  if (check.status != 0) faults.push_back("faults after the repair:\n" + check.out + check.err + "\nrepair said:\n" + repair.out);
  const bool strict = returned && mode == Mode::Sync;
  for (uint32_t slot = 1; slot < 8; ++slot) {
    const SlotState got = StateOf(cut.file, slot);
    auto b = before.find(slot);
    const SlotState was = b != before.end() ? b->second : SlotState{};
    const SlotState& now = dry.after.at(slot);
    const bool changed = op.changes.count(slot) != 0;
    // With no flush at all, an item the operation made, changed or worked
    // through may hold bytes never written to it, or be one the repair
    // could not trust and deleted (its index tree torn, say). The check
    // still has to pass, and every other item must read as before.
    // Garbage in a sector the operation was writing is the damage of the
    // item it was writing, and of no other.
    const bool anything = (mode == Mode::Async || garbage) && (changed || !was.present || slot == cut.touched);
    const bool ok = strict ? got == now
                    : anything ? true
                    : changed  ? TornBetween(got, was, now)
                               : (got == was || got == now);
    if (!ok)
      faults.push_back("slot " + std::to_string(slot) + ": " + Describe(got) + " (before: " + Describe(was) +
                       ", after: " + Describe(now) + ")");
  }
  CloseColdFiles();
  if (strict && StoreFiles().size() != dry.storeFiles)
    faults.push_back("the store holds " + std::to_string(StoreFiles().size()) + " files, " +
                     std::to_string(dry.storeFiles) + " after the operation");
  return faults;
}

uint64_t Draws() {
  const char* v = std::getenv("SFL_POWERCUT_DRAWS");
  const long n = v != nullptr ? std::atol(v) : 3;
  return n >= 0 ? static_cast<uint64_t>(n) : 3;
}

// Draws per cut point in which a sector of a torn write past the file
// header and item table may hold garbage (SFL_POWERCUT_GARBAGE_DRAWS).
uint64_t GarbageDraws() {
  const char* v = std::getenv("SFL_POWERCUT_GARBAGE_DRAWS");
  const long n = v != nullptr ? std::atol(v) : 1;
  return n >= 0 ? static_cast<uint64_t>(n) : 1;
}
// Where garbage may fall: the first sector past the file header and item
// table (which a drive writes with nothing else on the sector).
constexpr uint64_t kGarbageFrom = 1024;

// The seeds of one cut point: everything unflushed lost, everything kept,
// then the random draws.
struct Draw {
  uint64_t seed;
  bool garbage;
};
std::vector<Draw> Seeds(const std::string& name, uint64_t point) {
  std::vector<Draw> seeds = {{0, false}, {1, false}};
  uint64_t h = std::hash<std::string>{}(name) ^ (point * 0x9E3779B97F4A7C15ull);
  const uint64_t n = Draws() + GarbageDraws();
  for (uint64_t i = 0; i < n; ++i) seeds.push_back({2 + (h + i * 7919) % 1000000007ull, i >= Draws()});
  return seeds;
}

struct Figures {
  uint64_t points = 0, states = 0;
};

// The world before the operation: its slots as Build leaves them.
std::map<uint32_t, SlotState> Before(const Op& op, Mode mode) {
  std::map<uint32_t, SlotState> out;
  // A run of the preparation alone, read back in this process.
  Op prepareOnly = op;
  prepareOnly.run = [](World&) {};
  const ChildRun o = RunChild(prepareOnly, mode, 0, 1);
  out = o.report.after;
  ClearStore();
  return out;
}

Figures LoopOne(const Op& op, Mode mode, bool* durableAtReturn) {
  Figures f;
  ClearStore();
  const std::map<uint32_t, SlotState> before = Before(op, mode);
  const ChildRun dry = RunChild(op, mode, 0, 1);
  EXPECT_EQ(0, dry.status) << op.name << " " << ModeName(mode) << ": the run without a cut failed";
  if (dry.status != 0) return f;
  ClearStore();
  *durableAtReturn = true;
  std::vector<uint64_t> points;
  for (uint64_t n = 1; n <= dry.report.flushes; ++n) points.push_back(n);
  points.push_back(kAfterReturn);
  for (uint64_t point : points) {
    ++f.points;
    for (const Draw& d : Seeds(std::string(op.name) + ModeName(mode), point)) {
      const uint64_t seed = d.seed;
      const ChildRun cut = RunChild(op, mode, point, seed, [&] {
        if (d.garbage) os_PowerCutGarbageFrom(kGarbageFrom);
      });
      const std::string what = std::string(op.name) + ", " + ModeName(mode) + ", cut " +
                               (point == kAfterReturn ? std::string("after return") : "at flush " + std::to_string(point)) +
                               ", draw " + std::to_string(seed) + (d.garbage ? " with garbage" : "");
      if (cut.status == kNotReached && point != kAfterReturn) {
        ClearStore();
        continue;
      }
      EXPECT_EQ(OS_POWER_CUT_EXIT, cut.status) << what;
      if (cut.status != OS_POWER_CUT_EXIT) return f;
      ++f.states;
      const std::vector<std::string> faults =
          Verify(op, mode, point == kAfterReturn, cut.report, before, dry.report, d.garbage);
      std::string text;
      for (const std::string& s : faults) text += "  " + s + "\n";
      EXPECT_TRUE(faults.empty()) << what << ":\n" << text;
      if (point == kAfterReturn && seed == 0) {
        for (uint32_t slot = 1; slot < 8; ++slot)
          *durableAtReturn = *durableAtReturn && StateOf(cut.report.file, slot) == dry.report.after.at(slot);
        CloseColdFiles();
        *durableAtReturn = *durableAtReturn && StoreFiles().size() == dry.report.storeFiles;
      }
      ClearStore();
      if (!faults.empty()) return f;
    }
  }
  return f;
}

// The catalogue, and a store without a source whose data its caller
// writes before closing it (as `sfl put` does): a cut anywhere in it must
// leave no item or the whole one, never the zeros it was stored with.
std::vector<Op> CutOperations() {
  std::vector<Op> ops = Operations();
  ops.push_back({"store-then-write", {}, [](World&) {}, [](World& w) {
                   sfl_ItemRef ref{};
                   const int32_t h = sfl_StoreBasicItem(w.bh, nullptr, 5000, &ref, 0);
                   w.handles.push_back(h);
                   w.placed = ref;
                   w.hasPlaced = true;
                   const std::vector<uint8_t> data = Bytes(5000, 81);
                   sfl_WriteSimpleData(h, 0, 2500, data.data());
                   sfl_WriteSimpleData(h, 2500, 2500, data.data() + 2500);
                 }});
  return ops;
}

class PowerCutLoop : public ::testing::TestWithParam<size_t> {};

TEST_P(PowerCutLoop, EveryCutLeavesARepairableStoreAndKeepsWhatWasPromised) {
  const Op op = CutOperations()[GetParam()];
  const auto start = std::chrono::steady_clock::now();
  for (Mode mode : {Mode::Sync, Mode::Default, Mode::Async}) {
    bool durable = false;
    const Figures f = LoopOne(op, mode, &durable);
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("power-cut loop: %-22s %-9s %3llu cut points, %4llu states, durable at return: %s (%.1f s)\n",
                op.name, ModeName(mode), static_cast<unsigned long long>(f.points),
                static_cast<unsigned long long>(f.states), durable ? "yes" : "no", secs);
    if (HasFailure()) return;
    if (mode == Mode::Sync) {
      EXPECT_TRUE(durable) << op.name << " is not durable at return under all-sync";
    }
    if (mode == Mode::Default) {
      // What README promises for the default policy: these wait for the
      // next sfl_SyncData (or a structural flush); everything else is
      // durable when it returns.
      static const std::set<std::string> kNotDurable = {"write",          "truncate",
                                                        "copy",           "blocked-rewrite",
                                                        "blocked-free",   "internal-open-remove",
                                                        "stream-write"};
      EXPECT_EQ(kNotDurable.count(op.name) == 0, durable)
          << op.name << ": durable at return under the default policy differs from what README says";
    }
  }
}

std::string OpName(const ::testing::TestParamInfo<size_t>& info) {
  std::string n = CutOperations()[info.param].name;
  for (char& c : n)
    if (c == '-') c = '_';
  return n;
}

INSTANTIATE_TEST_SUITE_P(Operations, PowerCutLoop, ::testing::Range<size_t>(0, CutOperations().size()), OpName);

// The loop bites: with the flush that follows a data write left out (the
// switch reports it made), a write that returned under "SFL_ALL_SYNC_IO"
// is lost when the power goes, and the loop says so.
TEST(PowerCutBites, AWriteWhoseFlushIsLeftOutIsReportedLost) {
  Op write{};
  for (const Op& o : Operations())
    if (std::string(o.name) == "write") write = o;
  ASSERT_NE(write.name, nullptr);
  ClearStore();
  const std::map<uint32_t, SlotState> before = Before(write, Mode::Sync);
  const ChildRun dry = RunChild(write, Mode::Sync, 0, 1);
  ASSERT_EQ(0, dry.status);
  ASSERT_EQ(1u, dry.report.flushes) << "the write flushes once under all-sync";
  ClearStore();
  // As made, the write survives the cut that drops everything unflushed.
  const ChildRun kept = RunChild(write, Mode::Sync, kAfterReturn, 0);
  ASSERT_EQ(OS_POWER_CUT_EXIT, kept.status);
  EXPECT_TRUE(Verify(write, Mode::Sync, true, kept.report, before, dry.report).empty());
  ClearStore();
  // Without its flush it does not.
  const ChildRun lost = RunChild(write, Mode::Sync, kAfterReturn, 0, [] { os_PowerCutSkipFlush(1); });
  ASSERT_EQ(OS_POWER_CUT_EXIT, lost.status);
  const std::vector<std::string> faults = Verify(write, Mode::Sync, true, lost.report, before, dry.report);
  ASSERT_EQ(1u, faults.size());
  EXPECT_EQ(0u, faults[0].find("slot 1:")) << faults[0];
  ClearStore();
}

}  // namespace
