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
#include "ml.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "op_catalog.h"

namespace {

using namespace sfltest;
using sfltest::CloseColdFiles;

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
  // Every check of a process is a full one, so that an operation makes the
  // same calls however fast the machine runs it.
  ml_SetPidCheckWindow(0);
  // Every SubDomain directory is there before the first run: a container
  // created in a new one costs a mkdir and the flush of its parent, so runs
  // whose random FileIds meet new directories or not would make different
  // numbers of calls.
  for (uint32_t sub = 0; sub < 256; ++sub)
    std::filesystem::create_directories(StoreRoot() + "/" + std::to_string(SFL_TYPE_DATA_ITEM) + "/" + std::to_string(sub));
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
