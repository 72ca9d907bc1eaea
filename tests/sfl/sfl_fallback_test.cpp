// The placement fallbacks: an item that does not fit in a full container
// goes to a new container of its own. When that store fails, nothing of the
// new container may stay behind: no file, no open-files record, no item
// record, no descriptor, no lock.
#include <cstdlib>
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "im.h"
#include "os.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"


namespace {

// Container files: an emptied container kept in the pool for reuse
// ("#pool.N") is none.
std::set<std::string> StoreFileNames() {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::recursive_directory_iterator(sfltest::StoreRoot()))
    if (e.is_regular_file() && e.path().filename().string()[0] != '#') names.insert(e.path().string());
  return names;
}

std::set<int> OpenDescriptors() {
  std::set<int> fds;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return fds;
  const int own = dirfd(d);
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') fds.insert(std::stoi(e->d_name));
  closedir(d);
  fds.erase(own);
  return fds;
}

struct Held {
  int files, items, locks;
  std::set<int> fds;
  bool operator==(const Held&) const = default;
};

Held HeldNow() {
  return {sfl_OpenFiles().InUseCount(), sfl_OpenItems().InUseCount(), sfl_RecordLocksHeld(),
          OpenDescriptors()};
}

// A container whose seven item slots are all taken, closed again so that
// only the fallback's own work is open during the call.
sfl_ItemRef FullContainer() {
  sfltest::OpenContainer c = sfltest::NewContainer();
  for (int i = 0; i < 7; ++i) {
    sfl_ItemRef ref{};
    const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 16, &ref, 0);
    EXPECT_GE(h, SFL_ITEM_HANDLE_FIRST);
    sfl_CloseItem(h);
  }
  sfl_ItemRef none{};
  EXPECT_EQ(sfl_StoreBasicItem(c.bh, nullptr, 16, &none, 0), -1);
  sfl_CloseFile(c.bh);
  return c.ref;
}

// The reference of a data item that was made and removed again: a store
// from it cannot open its source.
sfl_ItemRef MissingSource() {
  sfl_ItemRef missing{};
  const int fd = im_GetNewDataItem(&missing);
  EXPECT_GE(fd, 0);
  if (fd >= 0) close(fd);
  im_UnlinkItem(&missing);
  return missing;
}

TEST(Fallback, AFullContainerSendsTheItemToANewOne) {
  const sfl_ItemRef full = FullContainer();
  const auto namesBefore = StoreFileNames();
  sfl_ItemRef out{};
  const int32_t h = sfl_AddItemToFile(&full, 300, 0, nullptr, 0, &out);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  EXPECT_FALSE(sfl_SameFile(out, full));
  EXPECT_EQ(sfl_ItemHandle2Record(h)->Size, 300u);
  EXPECT_EQ(StoreFileNames().size(), namesBefore.size() + 1);
  // The new container goes with its item: closing the item closes it.
  sfl_CloseItem(h);
  EXPECT_EQ(sfltest::OpenRecordOf(out), nullptr);
  EXPECT_EQ(sfl_ItemExists(&out), 1);
}

// The source of the store cannot be opened: the new container is removed
// again and its record given back.
TEST(Fallback, AFailedStoreInTheNewContainerLeavesNothingBehind) {
  const sfl_ItemRef full = FullContainer();
  const sfl_ItemRef missing = MissingSource();

  const auto namesBefore = StoreFileNames();
  const Held before = HeldNow();
  sfl_ItemRef out{};
  const sfltest::Escape e =
      sfltest::EscapeOf([&] { sfl_AddItemToFile(&full, 0, 0, &missing, 0, &out); });
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, ENOENT);
  EXPECT_EQ(StoreFileNames(), namesBefore);
  EXPECT_EQ(HeldNow(), before);
}

// Every call the fallback makes fails once in turn: each run either places
// the item (one new file, its item open) or leaves the store and this
// process as they were.
TEST(Fallback, AFaultAtAnyCallOfTheFallbackLeavesNothingBehind) {
  const sfl_ItemRef full = FullContainer();
  const std::vector<uint8_t> data = sfltest::PseudoRandomBytes(5000, 3, 1);
  sfl_ItemRef source{};
  const int fd = im_GetNewDataItem(&source);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  close(fd);

  int faults = 0;
  for (uint64_t n = 1; n < 2000; ++n) {
    const auto namesBefore = StoreFileNames();
    const Held before = HeldNow();
    sfl_ItemRef out{};
    int32_t h = -1;
    os_FailNthCall(n, EIO);
    const sfltest::Escape e =
        sfltest::EscapeOf([&] { h = sfl_AddItemToFile(&full, 0, 0, &source, 0, &out); });
    const bool met = os_FaultMet();
    os_ClearFaults();
    if (e.reason != 0) {
      ++faults;
      EXPECT_TRUE(met) << "call " << n;
      EXPECT_EQ(StoreFileNames(), namesBefore) << "call " << n;
      EXPECT_EQ(HeldNow(), before) << "call " << n;
      continue;
    }
    // The item was placed (the fault, if met, was absorbed on the way).
    ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST) << "call " << n;
    std::vector<uint8_t> back(data.size());
    EXPECT_EQ(sfl_ReadSimpleData(h, 0, static_cast<uint32_t>(back.size()), back.data()),
              static_cast<int32_t>(back.size()));
    EXPECT_EQ(back, data) << "call " << n;
    sfl_DetachOpenItem(h);
    sfl_DeleteItem(h);
    sfl_CloseItem(h);
    if (!met) break;
  }
  EXPECT_GT(faults, 10);
}

}  // namespace

// The store in the new container fails, and so does the close that follows
// it (the empty file cannot be removed the first time): the store's escape
// is the one that passes on, and the new container's record, descriptor and
// file do not stay behind.
TEST(Fallback, ACloseThatFailsAfterAFailedStoreStillGivesTheRecordBack) {
  // The removal is an unlink here: the container pool, which would rename
  // the file away instead, is off.
  ::setenv("SFL_CONTAINER_POOL", "0", 1);
  const sfl_ItemRef full = FullContainer();
  const sfl_ItemRef missing = MissingSource();

  // The log file is opened by the first message logged; it is opened here,
  // so that a message logged on the way does not count as a descriptor left
  // behind.
  er_LogMsg(9, "log opened before the count of descriptors");
  const auto namesBefore = StoreFileNames();
  const Held before = HeldNow();
  const uint64_t unlinksBefore = os_CallCount(os_Op::Unlink);
  sfl_ItemRef out{};
  os_FailNth(os_Op::Unlink, 1, EIO);
  const sfltest::Escape e =
      sfltest::EscapeOf([&] { sfl_AddItemToFile(&full, 0, 0, &missing, 0, &out); });
  os_ClearFaults();
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, ENOENT);
  EXPECT_EQ(os_CallCount(os_Op::Unlink), unlinksBefore + 2);  // failed once, then removed
  EXPECT_EQ(StoreFileNames(), namesBefore);
  EXPECT_EQ(HeldNow(), before);
}
