// Operations that need a container to themselves, raced by real processes:
// an open against the removal of the emptied file, a repairing check
// against a store, and a last close against a rebuild by another process.
// Each race is held at its worst moment with gates, locks and a dump stream
// that stops the check where it stands.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "cl.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

// Whether some process waits for a record lock on the file with inode
// `ino` (a blocked request shows in /proc/locks as a line with "->").
bool SomeoneWaitsForALockOn(ino_t ino) {
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    if (line.find("->") == std::string::npos) continue;
    std::istringstream fields(line);
    std::string f;
    while (fields >> f) {
      // The file is named MAJOR:MINOR:INODE.
      const size_t first = f.find(':');
      const size_t last = f.rfind(':');
      if (first == std::string::npos || first == last || first == 0) continue;
      if (std::strtoull(f.c_str() + last + 1, nullptr, 10) == ino) return true;
    }
  }
  return false;
}

ino_t InodeOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0);
  return st.st_ino;
}

bool Exists(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0;
}

// Stores a simple item holding `text` in the open container; returns its
// reference (the handle is closed).
sfl_ItemRef StoreText(int32_t bh, const std::string& text) {
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, static_cast<uint32_t>(text.size()), &ref, 0);
  sfl_WriteSimpleData(h, 0, static_cast<uint32_t>(text.size()), text.data());
  sfl_CloseItem(h);
  return ref;
}

// The text an item holds, read through its reference; "" when it cannot
// be opened.
std::string ReadText(const sfl_ItemRef& ref) {
  std::string text;
  const sfltest::Escape e = sfltest::EscapeOf([&] {
    const int32_t h = sfl_OpenItem(&ref, 0);
    sfl_SimpleDetails d{};
    sfl_GetSimpleDetails(h, &d);
    text.assign(d.Size, '\0');
    sfl_ReadSimpleData(h, 0, d.Size, text.data());
    sfl_CloseItem(h);
  });
  return e.group == 0 ? text : "";
}

// A child's exit codes in the race of an open with the removal.
constexpr int kOpenRefused = 10;   // the open found no file: nothing stored
constexpr int kStoredAndKept = 20; // stored, and the reference leads to it
constexpr int kStoredAndLost = 30; // stored, and the reference leads nowhere
constexpr int kOtherFailure = 40;

TEST(ExclusiveUse, AnOpenThatLosesTheRaceWithTheRemovalOfTheEmptiedFileStoresNothing) {
  sfltest::OpenContainer a = sfltest::NewContainer();
  const sfl_ItemRef only = StoreText(a.bh, "first");
  const int32_t item = sfl_OpenItem(&only, 0);
  sfl_DeleteItem(item);  // alone: carried out at once, the file holds no item now
  sfl_CloseItem(item);
  const std::string path = sfltest::ItemPath(a.ref);
  const ino_t ino = InodeOf(path);

  // The last close will wait for the header lock held here, through the
  // same descriptor: the other process's open has its descriptor by then
  // and waits for the lock too.
  sfl_BaseRec* rec = sfl_Handle2Record(a.bh);
  ASSERT_EQ(os_TryLockPart(rec->FileDes, OS_LOCK_EXCL, SEEK_SET, 0, 0, SFL_FILE_HEADER_SIZE, 0), 1);
  const int opener = sfltest::StartChild([&] {
    int32_t bh = -1;
    const sfltest::Escape e = sfltest::EscapeOf([&] { bh = sfl_OpenSfl(&a.ref, 0); });
    if (e.group == ER_GROUP_OS && e.reason == ENOENT) return kOpenRefused;
    if (e.group != 0) return kOtherFailure;
    // What `sfl put` does next: store, close, hand out the reference.
    const sfl_ItemRef stored = StoreText(bh, "second");
    sfl_CloseFile(bh);
    return ReadText(stored) == "second" ? kStoredAndKept : kStoredAndLost;
  });
  ASSERT_TRUE(sfltest::Eventually([&] { return SomeoneWaitsForALockOn(ino); }));

  // The last close removes the emptied file (releasing the lock taken above
  // with its own).
  sfl_CloseFile(a.bh);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(sfltest::WaitChild(opener), kOpenRefused);
}

// A dump stream whose first item-header dump stops the writer until `go`
// opens, once `reached` has told so.
struct DumpHold {
  sfltest::Gate* reached;
  sfltest::Gate* go;
  bool held = false;
};

ssize_t HoldingWrite(void* cookie, const char* buf, size_t n) {
  auto* hold = static_cast<DumpHold*>(cookie);
  if (!hold->held && std::string_view(buf, n).find("=IIII") != std::string_view::npos) {
    hold->held = true;
    hold->reached->Open();
    hold->go->Wait();
  }
  return static_cast<ssize_t>(n);
}

TEST(ExclusiveUse, AStoreBesideARepairingCheckKeepsItsItem) {
  // A container with one item and a fault the repair mends by rewriting
  // the file header: slot 3 is marked in use but its header is all zero.
  sfltest::OpenContainer c = sfltest::NewContainer();
  const sfl_ItemRef first = StoreText(c.bh, "first");
  sfl_CloseFile(c.bh);
  sfltest::CloseColdFiles();
  const std::string path = sfltest::ItemPath(c.ref);
  {
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    uint8_t inUse = 0;
    f.seekg(sfl_fh::InUseItms);
    f.read(reinterpret_cast<char*>(&inUse), 1);
    inUse = static_cast<uint8_t>(inUse | (1u << 3));
    f.seekp(sfl_fh::InUseItms);
    f.write(reinterpret_cast<const char*>(&inUse), 1);
    const uint16_t used = 2;
    f.seekp(sfl_fh::UsedItems);
    f.write(reinterpret_cast<const char*>(&used), sizeof used);
  }
  const ino_t ino = InodeOf(path);

  sfltest::Gate reached, go;
  const int checker = sfltest::StartChild([&] {
    DumpHold hold{&reached, &go};
    FILE* dump = fopencookie(&hold, "w", cookie_io_functions_t{nullptr, HoldingWrite, nullptr, nullptr});
    if (dump == nullptr) return 2;
    setvbuf(dump, nullptr, _IONBF, 0);
    const int32_t result = sfl_CheckSflIntegrity2(&c.ref, 1, dump);
    std::fclose(dump);
    return static_cast<int>(result);
  });
  reached.Wait();  // the check has read the header and is going through the items

  // Another process stores an item meanwhile (or waits for the check).
  const int storer = sfltest::StartChild([&] {
    const int32_t bh = sfl_OpenSfl(&c.ref, 0);
    const sfl_ItemRef stored = StoreText(bh, "second");
    sfl_CloseFile(bh);
    return static_cast<int>(sfl_ItemNumOf(stored));
  });
  int storerStatus = -1;
  ASSERT_TRUE(sfltest::Eventually([&] {
    if (SomeoneWaitsForALockOn(ino)) return true;
    storerStatus = sfltest::ExitWithin(storer, 0);
    return storerStatus != -1;
  }));
  go.Open();
  EXPECT_EQ(sfltest::WaitChild(checker), 1);  // the fault was found
  if (storerStatus == -1) storerStatus = sfltest::WaitChild(storer);
  ASSERT_GE(storerStatus, 1);
  ASSERT_LE(storerStatus, 7);
  sfl_ItemRef second = c.ref;
  second.Flags = static_cast<uint16_t>(second.Flags | storerStatus);

  // The stored item keeps its slot: the next store takes another one.
  const int32_t bh = sfl_OpenSfl(&c.ref, 0);
  EXPECT_NE(sfltest::FileHeaderOf(bh).InUseItms & (1u << storerStatus), 0u);
  const sfl_ItemRef third = StoreText(bh, "third item");
  sfl_CloseFile(bh);
  EXPECT_NE(sfl_ItemNumOf(third), sfl_ItemNumOf(second));
  EXPECT_EQ(ReadText(first), "first");
  EXPECT_EQ(ReadText(second), "second");
  EXPECT_EQ(ReadText(third), "third item");
}

TEST(ExclusiveUse, ALastCloseAfterARebuildLeavesTheNewFileUnderTheName) {
  sfltest::OpenContainer h = sfltest::NewContainer();
  const sfl_ItemRef held = StoreText(h.bh, "held");
  const int32_t item = sfl_OpenItem(&held, 0);
  const std::string path = sfltest::ItemPath(h.ref);
  // The service loses this process's interest, as one restarted without its
  // records would.
  sfl_ReleaseBaseInterest(sfl_Handle2Record(h.bh));

  // Another process rebuilds the container, finding nobody else holds it,
  // and a third stores an item in the rebuilt file.
  ASSERT_EQ(sfltest::RunInChild([&] { return sfl_CompactContainer(&h.ref) == SFL_COMPACT_DONE ? 0 : 1; }), 0);
  const int slot = sfltest::RunInChild([&] {
    const int32_t bh = sfl_OpenSfl(&h.ref, 0);
    const sfl_ItemRef stored = StoreText(bh, "stored after the rebuild");
    sfl_CloseFile(bh);
    return static_cast<int>(sfl_ItemNumOf(stored));
  });
  ASSERT_GE(slot, 1);
  ASSERT_LE(slot, 7);
  sfl_ItemRef after = h.ref;
  after.Flags = static_cast<uint16_t>(after.Flags | slot);

  // The holder deletes its item in the file it holds and closes it: that
  // file is empty now, but the name is the rebuilt file's.
  sfl_DeleteItem(item);
  sfl_CloseItem(item);
  sfl_CloseFile(h.bh);
  EXPECT_TRUE(Exists(path));
  EXPECT_EQ(ReadText(after), "stored after the rebuild");
}

// ---- a name that does not lead to the file held ----------------------------------------------
// A name found missing when its status is asked stands for a name that
// moved on: each operation takes its cautious way.

TEST(FileIdentity, AnOpenTriesTheNameAgainAndGivesUpAfterEightMoves) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  const sfl_ItemRef kept = StoreText(c.bh, "kept");
  sfl_CloseFile(c.bh);
  sfltest::CloseColdFiles();
  const std::string path = sfltest::ItemPath(c.ref);

  os_FailNth(os_Op::Stat, 1, ENOENT, 1);
  int32_t bh = sfl_OpenSfl(&c.ref, 0);  // the second try finds its file
  os_ClearFaults();
  EXPECT_NE(sfltest::OpenRecordOf(c.ref), nullptr);
  sfl_CloseFile(bh);
  sfltest::CloseColdFiles();

  os_FailNth(os_Op::Stat, 1, ENOENT, 8);
  const sfltest::Escape e = sfltest::EscapeOf([&] { bh = sfl_OpenSfl(&c.ref, 0); });
  os_ClearFaults();
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, ESTALE);
  EXPECT_EQ(sfltest::OpenRecordOf(c.ref), nullptr);
  EXPECT_TRUE(sfltest::LockableElsewhere(path, 0, SFL_FILE_HEADER_SIZE));
  EXPECT_EQ(ReadText(kept), "kept");

  // A status that cannot be read, of the name or of the file held, is an
  // error, not a name that moved on.
  for (const os_Op op : {os_Op::Stat, os_Op::Fstat}) {
    os_FailNth(op, 1, EIO, 1);
    const sfltest::Escape failed = sfltest::EscapeOf([&] { bh = sfl_OpenSfl(&c.ref, 0); });
    os_ClearFaults();
    EXPECT_EQ(failed.group, ER_GROUP_OS) << os_OpName(op);
    EXPECT_EQ(failed.reason, EIO) << os_OpName(op);
    EXPECT_EQ(sfltest::OpenRecordOf(c.ref), nullptr);
    EXPECT_TRUE(sfltest::LockableElsewhere(path, 0, SFL_FILE_HEADER_SIZE));
  }
}

TEST(FileIdentity, ACheckTriesTheNameAgainAndGivesUpAfterEightMoves) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  StoreText(c.bh, "kept");
  sfl_CloseFile(c.bh);
  sfltest::CloseColdFiles();

  os_FailNth(os_Op::Stat, 1, ENOENT, 1);
  EXPECT_EQ(sfl_CheckSflIntegrity(&c.ref, 1), 0);
  os_FailNth(os_Op::Stat, 1, ENOENT, 8);
  int32_t result = 0;
  const std::string shown = sfltest::WrittenTo(2, [&] { result = sfl_CheckSflIntegrity(&c.ref, 0); });
  os_ClearFaults();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(shown, cl_ErrorLine(ER_GROUP_OS, ESTALE, sfltest::ItemPath(c.ref).c_str()) + "\n");
}

TEST(FileIdentity, ARebuildOfANameThatMovedOnLeavesEverythingAsItWas) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  StoreText(c.bh, "kept");
  sfl_CloseFile(c.bh);
  sfltest::CloseColdFiles();
  const std::string path = sfltest::ItemPath(c.ref);
  const std::vector<uint8_t> before = sfltest::FileBytes(path);

  os_FailNth(os_Op::Stat, 1, ENOENT, 1);
  EXPECT_EQ(sfl_CompactContainer(&c.ref), SFL_COMPACT_REPLACED);
  os_ClearFaults();
  EXPECT_EQ(sfltest::FileBytes(path), before);
  EXPECT_FALSE(Exists(path + "#.new"));
}

TEST(FileIdentity, ARebuildFromACloseLeavesAFileThatCloseDoesNotHold) {
  sfltest::OpenContainer a = sfltest::NewContainer();
  sfltest::OpenContainer b = sfltest::NewContainer();
  StoreText(a.bh, "in a");
  StoreText(b.bh, "in b");
  const std::string path = sfltest::ItemPath(a.ref);
  const std::vector<uint8_t> before = sfltest::FileBytes(path);

  // A close holding b's file asks for a rebuild of a's name.
  sfl_BaseRec closing;
  sfl_SetRef(closing, a.ref);
  closing.FileDes = sfl_Handle2Record(b.bh)->FileDes;
  sfl_CloseFile(a.bh);
  EXPECT_EQ(sfl_CompactSflFile(&closing), 0u);  // nothing to do: not the file held
  EXPECT_EQ(sfltest::FileBytes(path), before);
  EXPECT_FALSE(Exists(path + "#.new"));
  sfl_CloseFile(b.bh);
}

// ---- a check beside processes that use the file --------------------------------------------

TEST(CheckBesideUsers, AStoreUnderWayIsNoFaultWhileItsProcessHoldsTheFile) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  const sfl_ItemRef first = StoreText(c.bh, "first");
  sfl_CloseFile(c.bh);
  sfltest::CloseColdFiles();

  sfltest::Gate claimed, finish;
  const int storer = sfltest::StartChild([&] {
    const int32_t bh = sfl_OpenSfl(&c.ref, 0);
    // A store's first step: its slot, taken and not written yet.
    const int32_t slot = sfl_GetFreeItemSlot(sfl_Handle2Record(bh), 0, -1);
    claimed.Open();
    finish.Wait();
    sfl_CloseFile(bh);  // and the store goes no further
    return static_cast<int>(slot);
  });
  claimed.Wait();
  int32_t result = -1;
  std::string shown = sfltest::WrittenTo(1, [&] { result = sfl_CheckSflIntegrity(&c.ref, 0); });
  EXPECT_EQ(result, 0) << shown;
  EXPECT_EQ(shown, "");
  finish.Open();
  const int slot = sfltest::WaitChild(storer);
  ASSERT_GE(slot, 2);
  ASSERT_LE(slot, 7);

  // With nobody else holding the file the same slot is a store cut short.
  shown = sfltest::WrittenTo(1, [&] { result = sfl_CheckSflIntegrity(&c.ref, 0); });
  EXPECT_EQ(result, 1);
  const uint64_t loc = SFL_TABLE_OFFSET + uint64_t{SFL_ITEM_HEADER_SIZE} * static_cast<uint64_t>(slot);
  EXPECT_NE(shown.find(std::to_string(loc)), std::string::npos) << shown;
  EXPECT_EQ(ReadText(first), "first");
}

}  // namespace
