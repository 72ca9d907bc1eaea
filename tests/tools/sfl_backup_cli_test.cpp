// `sfl backup` and `sfl restore`: the built tool copies a store while eight
// processes store, read and delete items in it; every copy must check clean
// and hold, item for item, what the store held at the moment its manifest
// gives, which the test knows from the processes' logs of completed
// operations. Restore puts a verified backup in place, or beside, and
// refuses a store in use or a damaged backup without changing anything.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

using sfltest::Outcome;
using sfltest::Sfl;

int64_t Now() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

std::string Text(const sfl_ItemRef& ref) { return sfltest::RefText(ref); }

sfl_ItemRef ItemIn(const sfl_ItemRef& container, uint32_t n) {
  sfl_ItemRef r = container;
  r.Flags = static_cast<uint16_t>((r.Flags & ~SFL_ITEM_NUM_MASK) | n);
  return r;
}

std::string Data(uint32_t seed, uint32_t size) {
  const std::vector<uint8_t> b = sfltest::PseudoRandomBytes(size, seed, 11);
  return std::string(b.begin(), b.end());
}

// Containers that never empty (an anchor item each stays), so that none is
// removed by a last close while the workers use it.
std::vector<sfl_ItemRef> MakeContainers(int n) {
  std::vector<sfl_ItemRef> refs;
  for (int i = 0; i < n; ++i) {
    auto c = sfltest::NewContainer();
    const std::string anchor = Data(900000 + static_cast<uint32_t>(i), 500);
    const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 500, nullptr, 0);
    sfl_WriteSimpleData(h, 0, 500, anchor.data());
    sfl_CloseItem(h);
    sfl_CloseFile(c.bh);
    refs.push_back(c.ref);
  }
  sfltest::CloseColdFiles();
  return refs;
}

// One worker: stores, reads back and deletes items in the shared containers
// until `until`, logging each completed operation with the real time before
// its first change and after its last. A store writes its data under the
// item's own lock (sfl_flock), as a careful writer does.
int Worker(int id, const std::vector<sfl_ItemRef>& containers, int64_t until, const std::string& logPath) {
  FILE* log = std::fopen(logPath.c_str(), "w");
  if (log == nullptr) return 2;
  struct Mine {
    sfl_ItemRef ref;
    uint32_t seed, size;
  };
  std::vector<Mine> mine;
  uint32_t seq = 0;
  uint32_t rnd = 12345u + static_cast<uint32_t>(id) * 7919u;
  auto next = [&rnd] { return rnd = rnd * 1103515245u + 12345u, (rnd >> 8); };
  while (Now() < until) {
    const uint32_t pick = next() % 10;
    if (pick < 5 || mine.empty()) {
      const sfl_ItemRef c = containers[next() % containers.size()];
      const uint32_t seed = static_cast<uint32_t>(id) * 1000000u + ++seq;
      const uint32_t size = 200 + next() % 40000;
      const std::string data = Data(seed, size);
      const int64_t start = Now();
      const int32_t base = sfl_OpenSfl(&c, 0);
      sfl_ItemRef out{};
      const int32_t h = sfl_StoreBasicItem(base, nullptr, size, &out, 0);
      if (h < 0) {  // the container is full
        sfl_CloseFile(base);
        continue;
      }
      while (sfl_flock(h, 2) != 0) usleep(100);
      sfl_WriteSimpleData(h, 0, size, data.data());
      sfl_flock(h, 8);
      sfl_CloseItem(h);
      sfl_CloseFile(base);
      const int64_t end = Now();
      std::fprintf(log, "S %s %u %u %lld %lld\n", Text(out).c_str(), seed, size, static_cast<long long>(start),
                   static_cast<long long>(end));
      mine.push_back({out, seed, size});
    } else if (pick < 7) {
      const Mine& m = mine[next() % mine.size()];
      const int32_t h = sfl_OpenItem(&m.ref, 0);
      std::string got(m.size, '\0');
      sfl_ReadSimpleData(h, 0, m.size, got.data());
      sfl_CloseItem(h);
      if (got != Data(m.seed, m.size)) {
        std::fprintf(stderr, "worker %d: %s read back wrong\n", id, Text(m.ref).c_str());
        return 3;
      }
    } else {
      const size_t at = next() % mine.size();
      const Mine m = mine[at];
      mine.erase(mine.begin() + static_cast<long>(at));
      const int64_t start = Now();
      sfl_DetachItem(&m.ref);
      const int64_t end = Now();
      std::fprintf(log, "D %s %u %u %lld %lld\n", Text(m.ref).c_str(), m.seed, m.size,
                   static_cast<long long>(start), static_cast<long long>(end));
    }
    std::fflush(log);
  }
  std::fclose(log);
  return 0;
}

struct Op {
  char kind;
  std::string ref;
  uint32_t seed, size;
  int64_t start, end;
};

std::vector<Op> ReadLogs(const std::vector<std::string>& paths) {
  std::vector<Op> ops;
  for (const std::string& p : paths) {
    std::ifstream in(p);
    Op o{};
    while (in >> o.kind >> o.ref >> o.seed >> o.size >> o.start >> o.end) ops.push_back(o);
  }
  return ops;
}

struct ManifestLine {
  std::string ref, rel;
  uint64_t size = 0;
  int64_t moment = 0;
};

std::vector<ManifestLine> Containers(const std::string& manifest) {
  std::vector<ManifestLine> out;
  std::istringstream in(manifest);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 10, "container ") != 0) continue;
    std::istringstream f(line.substr(10));
    ManifestLine m;
    std::string sum;
    f >> m.ref >> m.rel >> m.size >> sum >> m.moment;
    out.push_back(m);
  }
  return out;
}

std::string ManifestOf(const std::string& dir) { return sfltest::ReadWholeFile(dir + "/MANIFEST"); }

// What an item of the copy holds, through the tool: the bytes, or nothing
// when the slot is free or its item deleted.
bool ItemOfCopy(const std::string& root, const std::string& ref, std::string* data) {
  const Outcome r = Sfl({"--store", root, "get", ref});
  if (r.status != 0) return false;
  *data = r.out;
  return true;
}

// What every worker did to `ref`, in microseconds from the copy's moment,
// and which store's data the copy holds: for a failure to be read.
std::string History(const std::vector<Op>& ops, const std::string& ref, int64_t moment, const std::string& got) {
  std::string out = "\n  the copy holds " + std::to_string(got.size()) + " bytes";
  for (const Op& o : ops)
    if (o.kind == 'S' && o.ref == ref && got == Data(o.seed, o.size)) out += ", the data of store " + std::to_string(o.seed);
  for (const Op& o : ops) {
    if (o.ref != ref) continue;
    out += "\n  " + std::string(1, o.kind) + " seed " + std::to_string(o.seed) + " size " + std::to_string(o.size) +
           " from " + std::to_string((o.start - moment) / 1000) + " to " + std::to_string((o.end - moment) / 1000) + " us";
  }
  return out;
}

}  // namespace

TEST(SflBackupTool, ACopyTakenWhileEightProcessesWorkHoldsTheStoreAtEachContainersMoment) {
  const std::vector<sfl_ItemRef> containers = MakeContainers(6);
  const int64_t until = Now() + 3'000'000'000LL;
  std::vector<int> pids;
  std::vector<std::string> logs;
  for (int i = 0; i < 8; ++i) {
    logs.push_back(sfltest::TestDir() + "/worker" + std::to_string(i) + ".log");
    const std::string log = logs.back();
    pids.push_back(sfltest::StartChild([=] { return Worker(i, containers, until, log); }));
  }
  usleep(600'000);
  const std::string dest = sfltest::TestDir() + "/backup";
  // Read slowly (1 MiB/s), so that each copy spans many of the workers.
  // operations.
  const Outcome b = Sfl({"backup", dest, "--json", "--limit-rate", "1024"});
  for (int pid : pids) EXPECT_EQ(sfltest::WaitChild(pid), 0);
  ASSERT_EQ(b.status, 0) << b.out << b.err;
  std::printf("backup: %s", b.out.c_str());

  // Every copy checks clean.
  const Outcome check = Sfl({"--store", dest, "check", "--all", "--quiet"});
  EXPECT_EQ(check.status, 0) << check.out << check.err;

  const std::vector<ManifestLine> copied = Containers(ManifestOf(dest));
  ASSERT_EQ(copied.size(), containers.size());
  std::vector<Op> ops = ReadLogs(logs);
  std::sort(ops.begin(), ops.end(), [](const Op& x, const Op& y) { return x.start < y.start; });
  size_t stores = 0, checkedItems = 0, inFlight = 0;
  for (const Op& o : ops) stores += o.kind == 'S';
  ASSERT_GT(stores, 40u) << "the workers did too little for the test to mean much";

  for (const ManifestLine& m : copied) {
    // The content at the moment: completed stores not deleted by a completed
    // delete; an operation in flight at the moment may be seen either way.
    struct Expect {
      bool present = false;  // surely there
      bool maybe = false;    // there or not (an operation in flight)
      bool zerosAllowed = false;
      uint32_t seed = 0, size = 0;
    };
    std::map<std::string, Expect> bySlot;  // item reference -> what it must hold
    for (const Op& o : ops) {
      if (o.ref.compare(0, m.ref.size() + 1, m.ref + ":") != 0) continue;
      if (o.start > m.moment) continue;  // after the moment: not seen
      Expect& e = bySlot[o.ref];
      const bool done = o.end < m.moment;
      if (o.kind == 'S') {
        e = Expect{done, !done, !done, o.seed, o.size};
      } else if (o.seed == e.seed) {
        if (done) e = Expect{};
        else e.maybe = true, e.present = false;
      }
    }
    for (uint32_t n = 1; n <= 7; ++n) {
      const std::string ref = m.ref + ":" + std::to_string(n);
      std::string got;
      const bool there = ItemOfCopy(dest, ref, &got);
      auto it = bySlot.find(ref);
      if (it == bySlot.end()) {
        // Never touched by a worker before the moment: the anchor, or free.
        if (there && got.size() != 500) ADD_FAILURE() << ref << " holds an item no operation explains";
        continue;
      }
      const Expect& e = it->second;
      if (e.maybe) ++inFlight;
      if (!there) {
        EXPECT_FALSE(e.present) << ref << " is missing from the copy";
        continue;
      }
      ++checkedItems;
      const bool exact = got == Data(e.seed, e.size);
      const bool zeros = e.zerosAllowed && got == std::string(e.size, '\0');
      EXPECT_TRUE(e.present || e.maybe) << ref << " was deleted before the moment but is in the copy"
                                        << History(ops, ref, m.moment, got);
      EXPECT_TRUE(exact || zeros) << ref << ": the copy holds neither the stored data nor (in flight) zeros"
                                  << History(ops, ref, m.moment, got);
    }
  }
  EXPECT_GT(checkedItems, 10u);
  std::printf("%zu operations, %zu items compared, %zu in flight at a moment\n", ops.size(), checkedItems,
              inFlight);
}

TEST(SflBackupTool, SinceCopiesOnlyTheContainersChangedAfterTheEarlierStamp) {
  const std::vector<sfl_ItemRef> containers = MakeContainers(3);
  // A change within the stamp's clock tick counts as a change after it (so
  // that none is missed): let the tick of the containers' making pass.
  usleep(50000);
  const std::string first = sfltest::TestDir() + "/b1";
  ASSERT_EQ(Sfl({"backup", first}).status, 0);
  std::string stamp;
  std::istringstream in(ManifestOf(first));
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, 6, "stamp ") == 0) stamp = line.substr(6);
  ASSERT_FALSE(stamp.empty());

  const Outcome put = Sfl({"put", Text(containers[1])}, "changed");
  ASSERT_EQ(put.status, 0) << put.err;
  const std::string second = sfltest::TestDir() + "/b2";
  const Outcome b = Sfl({"backup", second, "--since", stamp, "--json"});
  ASSERT_EQ(b.status, 0) << b.err;
  EXPECT_NE(b.out.find("\"copied\": 1, \"unchanged\": 2"), std::string::npos) << b.out;
  const std::vector<ManifestLine> copied = Containers(ManifestOf(second));
  ASSERT_EQ(copied.size(), 1u);
  EXPECT_EQ(copied[0].ref, Text(containers[1]));
  std::string got;
  EXPECT_TRUE(ItemOfCopy(second, Text(ItemIn(containers[1], 2)), &got));
  EXPECT_EQ(got, "changed");
}

TEST(SflBackupTool, RestoreBesidePutsTheSameBytesInANewRoot) {
  const std::vector<sfl_ItemRef> containers = MakeContainers(2);
  const std::string dest = sfltest::TestDir() + "/b";
  ASSERT_EQ(Sfl({"backup", dest}).status, 0);
  const std::string beside = sfltest::TestDir() + "/restored";
  const Outcome r = Sfl({"restore", dest, "--beside", beside});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const sfl_ItemRef& c : containers) {
    const std::string live = sfltest::ItemPath(c);
    const std::string rel = live.substr(sfltest::StoreRoot().size());
    EXPECT_EQ(sfltest::FileBytes(beside + rel), sfltest::FileBytes(live)) << rel;
  }
}

TEST(SflBackupTool, RestoreInPlaceBringsBackTheBackedUpContent) {
  const std::vector<sfl_ItemRef> containers = MakeContainers(1);
  const std::string dest = sfltest::TestDir() + "/b";
  ASSERT_EQ(Sfl({"backup", dest}).status, 0);
  const std::vector<uint8_t> before = sfltest::FileBytes(sfltest::ItemPath(containers[0]));
  ASSERT_EQ(Sfl({"put", Text(containers[0])}, "later").status, 0);
  ASSERT_NE(sfltest::FileBytes(sfltest::ItemPath(containers[0])), before);
  const Outcome r = Sfl({"restore", dest});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sfltest::FileBytes(sfltest::ItemPath(containers[0])), before);
}

TEST(SflBackupTool, RestoreRefusesAStoreAProcessHoldsAndChangesNothing) {
  const std::vector<sfl_ItemRef> containers = MakeContainers(1);
  const std::string dest = sfltest::TestDir() + "/b";
  ASSERT_EQ(Sfl({"backup", dest}).status, 0);
  ASSERT_EQ(Sfl({"put", Text(containers[0])}, "later").status, 0);
  const std::vector<uint8_t> now = sfltest::FileBytes(sfltest::ItemPath(containers[0]));
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const sfl_ItemRef c = containers[0];
  const int holder = sfltest::StartChild([&] {
    const int32_t base = sfl_OpenSfl(&c, 0);
    (void)base;
    (void)!write(ready[1], "x", 1);
    usleep(5'000'000);
    return 0;
  });
  char x;
  ASSERT_EQ(read(ready[0], &x, 1), 1);
  const Outcome r = Sfl({"restore", dest});
  kill(holder, SIGKILL);
  sfltest::WaitChild(holder);
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_NE(r.err.find("the store is in use"), std::string::npos) << r.err;
  EXPECT_EQ(sfltest::FileBytes(sfltest::ItemPath(containers[0])), now);
}

TEST(SflBackupTool, ADamagedBackupIsRefusedBeforeAnythingIsRestored) {
  const std::vector<sfl_ItemRef> containers = MakeContainers(2);
  const std::string dest = sfltest::TestDir() + "/b";
  ASSERT_EQ(Sfl({"backup", dest}).status, 0);
  const std::string live = sfltest::ItemPath(containers[1]);
  const std::string copy = dest + live.substr(sfltest::StoreRoot().size());
  std::vector<uint8_t> bytes = sfltest::FileBytes(copy);
  ASSERT_GT(bytes.size(), 600u);
  bytes[600] ^= 0x5a;
  {
    std::ofstream out(copy, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  const std::string beside = sfltest::TestDir() + "/restored";
  const Outcome r = Sfl({"restore", dest, "--beside", beside});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("does not match the manifest"), std::string::npos) << r.err;
  struct stat st;
  EXPECT_NE(::stat(beside.c_str(), &st), 0) << "something was restored";
}

// Stores one small item into `c` in a child process; returns the real
// times before and after, through a file.
int StoreLater(const sfl_ItemRef& c, const std::string& timesPath) {
  return sfltest::StartChild([=] {
    const int64_t start = Now();
    const int32_t base = sfl_OpenSfl(&c, 0);
    const int32_t h = sfl_StoreBasicItem(base, nullptr, 100, nullptr, 0);
    sfl_CloseItem(h);
    sfl_CloseFile(base);
    const int64_t end = Now();
    std::ofstream(timesPath) << start << " " << end << "\n";
    return h >= 0 ? 0 : 1;
  });
}

TEST(SflBackupTool, AWriterWaitsForTheCopyOfItsContainerAndNoLonger) {
  std::vector<sfl_ItemRef> containers = MakeContainers(2);
  const sfl_ItemRef big = containers[0], small = containers[1];
  {
    const int32_t base = sfl_OpenSfl(&big, 0);
    const int32_t h = sfl_StoreBasicItem(base, nullptr, 2 << 20, nullptr, 0);
    sfl_CloseItem(h);
    sfl_CloseFile(base);
    sfltest::CloseColdFiles();
  }
  const std::string dest = sfltest::TestDir() + "/b";
  const std::string bigPath = sfltest::ItemPath(big);
  const std::string bigRel = bigPath.substr(sfltest::StoreRoot().size());
  const std::string out = sfltest::TestDir() + "/backup.out";
  // The big container first, read at 2 MiB/s: its copy takes about a second.
  const int backup = sfltest::StartChild([&] {
    const Outcome r = Sfl({"backup", dest, "--limit-rate", "2048", Text(big), Text(small)});
    std::ofstream(out) << r.out << r.err;
    return r.status;
  });
  struct stat st;
  for (int i = 0; i < 5000 && ::stat((dest + bigRel + ".part").c_str(), &st) != 0; ++i) usleep(1000);
  ASSERT_EQ(::stat((dest + bigRel + ".part").c_str(), &st), 0) << "the copy did not start";
  const std::string bigTimes = sfltest::TestDir() + "/big.times", smallTimes = sfltest::TestDir() + "/small.times";
  const int w1 = StoreLater(big, bigTimes);
  const int w2 = StoreLater(small, smallTimes);
  EXPECT_EQ(sfltest::WaitChild(w1), 0);
  EXPECT_EQ(sfltest::WaitChild(w2), 0);
  EXPECT_EQ(sfltest::WaitChild(backup), 0) << sfltest::ReadWholeFile(out);

  int64_t bigStart = 0, bigEnd = 0, smallStart = 0, smallEnd = 0;
  std::ifstream(bigTimes) >> bigStart >> bigEnd;
  std::ifstream(smallTimes) >> smallStart >> smallEnd;
  const std::string manifest = ManifestOf(dest);
  int64_t held = 0, heldBig = 0;
  for (std::istringstream in(manifest); !in.eof();) {
    std::string word, ref, rel, sum;
    uint64_t size;
    int64_t moment, heldUs;
    in >> word;
    if (word != "container") continue;
    in >> ref >> rel >> size >> sum >> moment >> heldUs;
    if (ref == Text(big)) held = moment + heldUs * 1000, heldBig = heldUs;
  }
  ASSERT_GT(held, 0) << manifest;
  // The writer of the container being copied finished only after the copy
  // let it go; the other one did not wait for it.
  EXPECT_GE(bigEnd, held - 2'000'000) << "the store finished while the container was being copied";
  EXPECT_LT(smallEnd, held) << "the other container's writer waited";
  std::printf("writer of the container being copied waited %.1f ms (copy held %.1f ms)\n",
              static_cast<double>(bigEnd - bigStart) / 1e6, static_cast<double>(heldBig) / 1e3);
  // The copy holds the container as it was before that store.
  std::string got;
  EXPECT_FALSE(ItemOfCopy(dest, Text(ItemIn(big, 3)), &got));
  EXPECT_TRUE(ItemOfCopy(dest, Text(ItemIn(small, 2)), &got));
  // The lock is gone with the copy.
  EXPECT_TRUE(sfltest::LockableElsewhere(bigPath, 0, 128));
}

TEST(SflBackupTool, NeitherABackupNorARestoreBesideGoesInsideTheStoreRoot) {
  MakeContainers(1);
  const Outcome in = Sfl({"backup", sfltest::StoreRoot() + "/copy"});
  EXPECT_EQ(in.status, 2);
  EXPECT_NE(in.err.find("cannot go inside the store root"), std::string::npos) << in.err;
  struct stat st;
  EXPECT_NE(::stat((sfltest::StoreRoot() + "/copy").c_str(), &st), 0);
  const std::string dest = sfltest::TestDir() + "/b";
  ASSERT_EQ(Sfl({"backup", dest}).status, 0);
  EXPECT_EQ(Sfl({"restore", dest, "--beside", sfltest::StoreRoot()}).status, 2);
  // A second backup into the same directory is refused: its manifest is there.
  const Outcome again = Sfl({"backup", dest});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("holds a backup already"), std::string::npos) << again.err;
}
