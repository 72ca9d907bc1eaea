// What a power cut leaves, case by case: each test makes a change in a
// forked child with the power-cut switch armed, cuts the power (losing
// every unflushed write and directory change unless it says otherwise),
// and looks at what is left from this process, as a restarted server would.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string Stash() {
  const std::string s = sfltest::TestDir() + "/durability-stash";
  std::filesystem::create_directories(s);
  return s;
}

// Runs `body` in a child under `syncKey` ("" for the default policy), armed
// with `seed`; the body ends with the cut. What the body wants to tell
// (a reference) goes through `out`.
template <class T>
int CutInChild(const char* syncKey, uint64_t seed, T* out, const std::function<T()>& body) {
  int fds[2];
  if (::pipe(fds) != 0) return -1;
  const int pid = sfltest::StartChild([&]() -> int {
    ::close(fds[0]);
    if (*syncKey != '\0') setenv(syncKey, "1", 1);
    sfl_ResetSyncConfig();
    os_PowerCutArm(sfltest::StoreRoot().c_str(), Stash().c_str(), seed);
    const T value = body();
    if (::write(fds[1], &value, sizeof value) != static_cast<ssize_t>(sizeof value)) return 2;
    os_PowerCutNow();
  });
  ::close(fds[1]);
  // A body cut short by a cut point of its own tells nothing.
  if (::read(fds[0], out, sizeof *out) != static_cast<ssize_t>(sizeof *out)) *out = T{};
  ::close(fds[0]);
  return sfltest::WaitChild(pid);
}

sfltest::Outcome Check(const sfl_ItemRef& ref, bool repair) {
  std::vector<std::string> args = {"check"};
  if (repair) args.push_back("--repair");
  args.push_back(sfltest::RefText(ref));
  return sfltest::Sfl(args);
}

bool Says(const sfltest::Outcome& o, const std::string& what) { return o.out.find(what) != std::string::npos; }

// A container created in a new SubDomain directory survives the cut once
// its creation returned under "SFL_ALL_SYNC_IO": its data and its names
// (the directories made for it and its own entry) were flushed.
TEST(Durability, ACreationThatReturnedUnderAllSyncSurvives) {
  sfl_ItemRef ref{};
  ASSERT_EQ(OS_POWER_CUT_EXIT, CutInChild<sfl_ItemRef>("SFL_ALL_SYNC_IO", 0, &ref, [] {
              const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
              sfl_ItemRef r{};
              sfl_GetSerFileItem(bh, &r);
              return r;
            }));
  ASSERT_TRUE(std::filesystem::exists(sfltest::ItemPath(ref)));
  const sfltest::Outcome check = Check(ref, false);
  EXPECT_EQ(0, check.status) << check.out << check.err;
}

// Under the default policy an item stored and closed is flushed by the
// close; the file's first flush flushes its directory entry too, so the
// item is found after the cut.
TEST(Durability, AStoredAndClosedItemIsFoundUnderTheDefaultPolicy) {
  sfl_ItemRef item{};
  const Bytes data = sfltest::PseudoRandomBytes(900, 5, 3);
  ASSERT_EQ(OS_POWER_CUT_EXIT, CutInChild<sfl_ItemRef>("", 0, &item, [&] {
              const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
              sfl_ItemRef r{};
              const int32_t h = sfl_StoreBasicItem(bh, nullptr, 900, &r, 0);
              sfl_WriteSimpleData(h, 0, 900, data.data());
              sfl_CloseItem(h);
              return r;
            }));
  Bytes got(900);
  const sfltest::Escape e = sfltest::EscapeOfThenClear([&] {
    const int32_t h = sfl_OpenItem(&item, 0);
    sfl_ReadSimpleData(h, 0, 900, got.data());
    sfl_CloseItem(h);
  });
  sfltest::CloseColdFiles();
  ASSERT_EQ(0, e.group) << "the item does not open after the cut";
  EXPECT_EQ(data, got);
}

// A container whose final close removed it stays removed.
TEST(Durability, AContainerRemovedByItsFinalCloseStaysRemoved) {
  sfl_ItemRef ref{};
  ASSERT_EQ(OS_POWER_CUT_EXIT, CutInChild<sfl_ItemRef>("", 0, &ref, [] {
              const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
              sfl_ItemRef item{};
              sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 100, &item, 0));
              // The container's name is on disk before its removal.
              const std::string path = sfltest::ItemPathOf(bh);
              os_FsyncDir(std::filesystem::path(path).parent_path().c_str());
              sfl_DetachItem(&item);
              sfl_ItemRef r{};
              sfl_GetSerFileItem(bh, &r);
              sfl_CloseFile(bh);
              sfltest::CloseColdFiles();
              return r;
            }));
  EXPECT_FALSE(std::filesystem::exists(sfltest::ItemPath(ref)));
}

// A creation cut at any point of its writes (here: the header lost, the
// table and the free map kept, the file at its full length) is a creation
// cut short: the repair completes it.
TEST(Durability, ACreationWhoseHeaderWasLostIsCompletedByTheRepair) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{};
  sfl_GetSerFileItem(bh, &ref);
  const std::string path = sfltest::ItemPath(ref);
  Bytes image = sfltest::FileBytes(path);
  sfl_CloseFile(bh);  // empty: removed
  sfltest::CloseColdFiles();
  ASSERT_EQ(896u, image.size());
  for (const size_t lost : {size_t{0}, size_t{1}, size_t{2}}) {
    Bytes cut = image;
    const size_t from = lost == 0 ? 0 : lost == 1 ? SFL_TABLE_OFFSET : SFL_CONTAINER_DATA_OFFSET;
    const size_t to = lost == 0 ? SFL_TABLE_OFFSET : lost == 1 ? SFL_CONTAINER_DATA_OFFSET : cut.size();
    std::fill(cut.begin() + from, cut.begin() + to, 0);
    {
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0660);
      ASSERT_GE(fd, 0);
      ASSERT_EQ(static_cast<ssize_t>(cut.size()), ::write(fd, cut.data(), cut.size()));
      ::close(fd);
    }
    const sfltest::Outcome look = Check(ref, false);
    EXPECT_EQ(1, look.status) << "part " << lost << ": " << look.out;
    EXPECT_TRUE(Says(look, "creation never finished")) << "part " << lost << ": " << look.out;
    const sfltest::Outcome repair = Check(ref, true);
    EXPECT_TRUE(Says(repair, "now an empty container")) << "part " << lost << ": " << repair.out;
    const sfltest::Outcome after = Check(ref, false);
    EXPECT_EQ(0, after.status) << "part " << lost << ": " << after.out;
  }
  // A sound empty container is not taken for one.
  {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0660);
    ASSERT_EQ(static_cast<ssize_t>(image.size()), ::write(fd, image.data(), image.size()));
    ::close(fd);
  }
  EXPECT_EQ(0, Check(ref, false).status);
  std::filesystem::remove(path);
}

// A deleted item whose file does not say a release is pending (the file
// header's flag lost in a cut, the item's kept) is found by the check; the
// repair marks the file and the next final close releases the slot.
TEST(Durability, ADeletedItemInAFileThatDoesNotSaySoIsRepaired) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{}, keep{}, gone{};
  sfl_GetSerFileItem(bh, &ref);
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 100, &keep, 0));
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, 300, &gone, 0);
  sfl_CloseItem(h);
  // Marked deleted with the file's flag left off, as the cut leaves it.
  const int32_t g = sfl_OpenItem(&gone, 0);
  sfltest::EditHeader(g, [](sfl_ItemHeader& hd) {
    hd.Flags |= DELETED;
    hd.AccCount = 0;
  });
  sfl_CloseItem(g);
  sfl_CloseFile(bh);
  sfltest::CloseColdFiles();

  const sfltest::Outcome look = Check(ref, false);
  EXPECT_EQ(1, look.status) << look.out;
  EXPECT_TRUE(Says(look, "does not say a release is pending")) << look.out;
  Check(ref, true);
  EXPECT_EQ(0, Check(ref, false).status);
  // The next final close releases the slot.
  const int32_t again = sfl_OpenSfl(&ref, 0);
  sfl_CloseFile(again);
  sfltest::CloseColdFiles();
  const int32_t seen = sfl_OpenSfl(&ref, 0);
  const sfl_ItemInfo slot = sfltest::SlotOf(seen, sfl_ItemNumOf(gone));
  EXPECT_EQ(0u, slot.InUse);
  sfl_CloseFile(seen);
  sfltest::CloseColdFiles();
}

// An item stored, written and closed under the default policy is whole
// after a cut that loses everything unflushed: the close flushed it, and
// the first flush of the new container flushed its name too.
TEST(Durability, AStoreWhoseHandleClosedKeepsTheWholeItem) {
  struct Refs {
    sfl_ItemRef file, item;
  } refs{};
  const Bytes data = sfltest::PseudoRandomBytes(3000, 10, 1);
  ASSERT_EQ(OS_POWER_CUT_EXIT, CutInChild<Refs>("", 0, &refs, [&] {
              const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
              Refs r{};
              sfl_GetSerFileItem(bh, &r.file);
              const int32_t h = sfl_StoreBasicItem(bh, nullptr, 3000, &r.item, 0);
              sfl_WriteSimpleData(h, 0, 3000, data.data());
              sfl_CloseItem(h);
              return r;
            }));
  EXPECT_EQ(0, Check(refs.file, false).status);
  Bytes got(3000);
  const int32_t h = sfl_OpenItem(&refs.item, 0);
  sfl_ReadSimpleData(h, 0, 3000, got.data());
  sfl_CloseItem(h);
  sfltest::CloseColdFiles();
  EXPECT_EQ(data, got);
}

// An item stored without a source and then written by its caller (as
// `sfl put` does) is whole only once its handle closes. A cut before then,
// after the store or part way through the writes, whatever the disk kept,
// leaves once repaired no item or the whole one: never one that reads back
// the zeros it was stored with, or half its data, as if complete.
TEST(Durability, AStoreWithoutASourceCutBeforeItsCloseLeavesNoItemOrTheWholeOne) {
  const Bytes data = sfltest::PseudoRandomBytes(3000, 11, 2);
  for (const char* mode : {"SFL_ALL_SYNC_IO", ""}) {
    for (const uint32_t written : {0u, 1500u}) {
      for (const uint64_t seed : {uint64_t{0}, uint64_t{1}, uint64_t{5}, uint64_t{6}, uint64_t{7}}) {
        const std::string what = std::string(*mode ? mode : "default") + ", " + std::to_string(written) +
                                 " bytes written, draw " + std::to_string(seed);
        struct Refs {
          sfl_ItemRef file, keep, item;
        } refs{};
        ASSERT_EQ(OS_POWER_CUT_EXIT, CutInChild<Refs>(mode, seed, &refs, [&] {
                    Refs r{};
                    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
                    sfl_GetSerFileItem(bh, &r.file);
                    // An item stored and closed before: it must never suffer.
                    const int32_t k = sfl_StoreBasicItem(bh, nullptr, 500, &r.keep, 0);
                    sfl_WriteSimpleData(k, 0, 500, data.data());
                    sfl_CloseItem(k);
                    sfl_SyncBaseFile(bh);
                    const int32_t h = sfl_StoreBasicItem(bh, nullptr, 3000, &r.item, 0);
                    if (written > 0) sfl_WriteSimpleData(h, 0, written, data.data());
                    return r;
                  }))
            << what;
        const sfltest::Outcome repair = Check(refs.file, true);
        const sfltest::Outcome after = Check(refs.file, false);
        EXPECT_EQ(0, after.status) << what << ": " << after.out << "\nrepair said:\n" << repair.out;
        Bytes got(3000);
        const sfltest::Escape e = sfltest::EscapeOfThenClear([&] {
          const int32_t h = sfl_OpenItem(&refs.item, 0);
          sfl_ReadSimpleData(h, 0, 3000, got.data());
          sfl_CloseItem(h);
        });
        if (e.group == 0) {
          EXPECT_EQ(data, got) << what << ": an item cut short reads back as if whole";
        }
        Bytes kept(500);
        const int32_t k = sfl_OpenItem(&refs.keep, 0);
        sfl_ReadSimpleData(k, 0, 500, kept.data());
        sfl_CloseItem(k);
        EXPECT_EQ(Bytes(data.begin(), data.begin() + 500), kept) << what;
        sfltest::CloseColdFiles();
        std::filesystem::remove(sfltest::ItemPath(refs.file));
      }
    }
  }
}

// A store under way is no store cut short: a repairing check run from the
// storing process, or from another while the storer holds the file,
// leaves the item alone, and it is whole once closed.
TEST(Durability, AStoreUnderWayIsLeftAloneByTheCheck) {
  const Bytes data = sfltest::PseudoRandomBytes(900, 13, 2);
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{}, item{};
  sfl_GetSerFileItem(bh, &ref);
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, 900, &item, 0);
  EXPECT_EQ(0, sfl_CheckSflIntegrity(&ref, 1));
  const sfltest::Outcome other = Check(ref, true);
  EXPECT_EQ(0, other.status) << other.out;
  sfl_WriteSimpleData(h, 0, 900, data.data());
  sfl_CloseItem(h);
  EXPECT_EQ(0, Check(ref, false).status);
  Bytes got(900);
  const int32_t r = sfl_OpenItem(&item, 0);
  sfl_ReadSimpleData(r, 0, 900, got.data());
  sfl_CloseItem(r);
  EXPECT_EQ(data, got);
  sfl_CloseFile(bh);
  sfltest::CloseColdFiles();
}

// Garbage in an index record's reserved bytes (a torn write of the record
// whose sector the drive never finished) is read by the check's walk as a
// 33rd entry; leading past the end of the file it is that item's fault
// (1002), which the repair mends by zeroing the reserved bytes: the item
// keeps every block and no other item is touched.
TEST(Durability, GarbageInAnIndexRecordsReservedBytesIsRepaired) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{}, item{}, other{};
  sfl_GetSerFileItem(bh, &ref);
  const Bytes data = sfltest::PseudoRandomBytes(300, 8, 8);
  const int32_t o = sfl_StoreBasicItem(bh, nullptr, 300, &other, 0);
  sfl_WriteSimpleData(o, 0, 300, data.data());
  sfl_CloseItem(o);
  const int32_t h = sfl_CreateBlockedItem(bh, &item);
  sfl_FormatBlockedRoot(h);
  // Block 40 makes the root a branch.
  for (const uint32_t b : {0u, 40u}) sfl_WriteBlockedData(h, b, 300, data.data());
  sfl_CloseItem(h);
  sfl_CloseFile(bh);
  sfltest::CloseColdFiles();
  const std::string path = sfltest::ItemPath(ref);
  Bytes image = sfltest::FileBytes(path);
  const size_t slot = SFL_TABLE_OFFSET + SFL_ITEM_HEADER_SIZE * sfl_ItemNumOf(item);
  const uint32_t root = sfl_GetU32(image.data() + slot + sfl_ih::FileOffset);
  ASSERT_NE(0u, sfl_GetU32(image.data() + root + sfl_ix::Depth)) << "the root is a branch";
  const size_t reserved = root + sfl_ix::Entries + sfl_ix::EntrySize * SFL_INDEX_ENTRIES;
  for (size_t i = reserved; i < root + SFL_INDEX_SIZE; ++i) image[i] = static_cast<uint8_t>(0xA5 + i);
  sfl_PutU32(image.data() + reserved, 0x7FFFFF00u);  // past the end
  {
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_EQ(static_cast<ssize_t>(image.size()), ::write(fd, image.data(), image.size()));
    ::close(fd);
  }
  const sfltest::Outcome look = Check(ref, false);
  EXPECT_EQ(1, look.status) << look.out;
  EXPECT_TRUE(Says(look, "SFL-204-1002")) << look.out;
  const sfltest::Outcome repair = Check(ref, true);
  const sfltest::Outcome after = Check(ref, false);
  EXPECT_EQ(0, after.status) << after.out << "\nrepair said:\n" << repair.out;
  const int32_t c = sfl_OpenItem(&item, 0);
  for (const uint32_t b : {0u, 40u}) {
    Bytes got(300);
    got.resize(sfl_ReadBlockedData(c, b, 300, got.data()));
    EXPECT_EQ(data, got) << "block " << b;
  }
  sfl_CloseItem(c);
  const int32_t k = sfl_OpenItem(&other, 0);
  Bytes kept(300);
  sfl_ReadSimpleData(k, 0, 300, kept.data());
  sfl_CloseItem(k);
  EXPECT_EQ(data, kept);
  sfltest::CloseColdFiles();
}

// A block written far out grows the index tree by a level: new records,
// then the header pointing at the new root. Under the default policy
// nothing is flushed between the two, so a cut could keep the header and
// lose the records, and the repair then deleted the whole item. Whatever a
// cut at the write's first flush keeps, the blocks written before read
// back.
TEST(Durability, AGrowingIndexTreeNeverLosesTheBlocksItHad) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef ref{}, item{};
  sfl_GetSerFileItem(bh, &ref);
  const int32_t h = sfl_CreateBlockedItem(bh, &item);
  sfl_FormatBlockedRoot(h);
  const Bytes data = sfltest::PseudoRandomBytes(300, 6, 6);
  for (uint32_t b = 0; b < 3; ++b) sfl_WriteBlockedData(h, b, 300, data.data());
  sfl_CloseItem(h);
  sfl_SyncBaseFile(bh);
  sfl_CloseFile(bh);
  sfltest::CloseColdFiles();
  const std::string path = sfltest::ItemPath(ref);
  const Bytes image = sfltest::FileBytes(path);
  for (uint64_t seed = 2; seed < 40; ++seed) {
    {
      const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
      ASSERT_EQ(static_cast<ssize_t>(image.size()), ::write(fd, image.data(), image.size()));
      ::close(fd);
    }
    int unused = 0;
    ASSERT_EQ(OS_POWER_CUT_EXIT, CutInChild<int>("", seed, &unused, [&] {
                const int32_t c = sfl_OpenItem(&item, 0);
                const Bytes more = sfltest::PseudoRandomBytes(200, 7, 7);
                os_PowerCutAtFlush(1);  // the write's first flush does not happen
                sfl_WriteBlockedData(c, 40, 200, more.data());
                return 0;
              }));
    Check(ref, true);
    ASSERT_EQ(0, Check(ref, false).status) << "draw " << seed;
    const sfltest::Escape e = sfltest::EscapeOfThenClear([&] {
      const int32_t c = sfl_OpenItem(&item, 0);
      for (uint32_t b = 0; b < 3; ++b) {
        Bytes got(300);
        got.resize(sfl_ReadBlockedData(c, b, 300, got.data()));
        EXPECT_EQ(data, got) << "draw " << seed << " block " << b;
      }
      sfl_CloseItem(c);
    });
    sfltest::CloseColdFiles();
    ASSERT_EQ(0, e.group) << "draw " << seed << ": the item is gone";
  }
}

}  // namespace
