// Storing and mapping at their edges: wanted item numbers the file cannot
// give (negative, past the table, taken, in a single-item file), and the
// status, mapping and append calls failing underneath.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "im.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

constexpr long Os(int err) { return sfltest::EscapeCode(ER_GROUP_OS, err); }

TEST(StoreEdges, WantedItemNumbersTheFileCannotGiveReturnMinusOne) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  for (int32_t wanted : {-2, 0, 8, 9, 1000, INT32_MIN})
    EXPECT_EQ(sfl_StoreItemAtPosition(c.bh, nullptr, 10, &ref, 0, wanted), -1) << wanted;
  const int32_t h = sfl_StoreItemAtPosition(c.bh, nullptr, 10, &ref, 0, 5);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  EXPECT_EQ(sfl_ItemNumOf(ref), 5u);
  EXPECT_EQ(sfl_StoreItemAtPosition(c.bh, nullptr, 10, &ref, 0, 5), -1);
  EXPECT_EQ(sfltest::FileHeaderOf(c.bh).UsedItems, 1u);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

TEST(StoreEdges, ASingleItemFileGivesOnlyItemOneAndOnlyOnce) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
  sfl_ItemRef ref{};
  EXPECT_EQ(sfl_StoreItemAtPosition(bh, nullptr, 10, &ref, 0, 2), -1);
  const int32_t h = sfl_StoreItemAtPosition(bh, nullptr, 10, &ref, 0, 1);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  EXPECT_EQ(sfl_StoreBasicItem(bh, nullptr, 10, &ref, 0), -1);
  sfl_CloseItem(h);
  sfl_CloseFile(bh);
}

TEST(StoreEdges, MappingRaisesWhenTheStatusOrTheMappingFails) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 100, &ref, 0);
  sfl_ItemMap map{};
  os_FailNth(os_Op::Fstat, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_mapItem(h, &map); }), Os(EIO));
  os_FailNth(os_Op::Mmap, 1, ENOMEM);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_mapItem(h, &map); }), Os(ENOMEM));
  os_ClearFaults();
  ASSERT_NE(sfl_mapItem(h, &map), nullptr);
  EXPECT_EQ(map.Size, 100u);
  EXPECT_EQ(sfl_unMapItem(&map), 0);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

TEST(StoreEdges, AMappingThatCouldNotHoldTheWholeItemIsRefused) {
  // A file past what the mapping's 32-bit length can report (sparse: no
  // space is used).
  const std::string big = sfltest::TestDir() + "/big-sparse";
  const int fd = ::open(big.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, off_t{5} << 30), 0);
  sfl_ItemMap map{};
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_mapItem(fd, &map); }),
            sfltest::EscapeCode(ER_GROUP_SFL, SFL_R_RANGE));
  EXPECT_EQ(map.Base, nullptr);
  ::close(fd);
  ::unlink(big.c_str());

  // An item whose file was cut short under it: a mapping of the file
  // would end inside the item, and a read of its last bytes would fault.
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 1000, &ref, 0);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  const off_t cut = static_cast<off_t>(item->Offset + 10);
  ASSERT_EQ(::ftruncate(item->BaseRecord->FileDes, cut), 0);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_mapItem(h, &map); }),
            sfltest::EscapeCode(ER_GROUP_SFL, SFL_R_RANGE));
  EXPECT_EQ(map.Base, nullptr);
  struct stat st {};
  ASSERT_EQ(::fstat(item->BaseRecord->FileDes, &st), 0);
  EXPECT_EQ(st.st_size, cut);  // the refusal changed nothing
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

TEST(StoreEdges, AnAppendRaisesWhenTheStatusFailsAndChangesNothing) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 100, &ref, 0);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  const std::vector<uint8_t> more(10, 0x42);
  os_FailNth(os_Op::Fstat, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_AppendToSimpleItem(item, 10, more.data()); }), Os(EIO));
  os_ClearFaults();
  EXPECT_EQ(item->Size, 100u);
  EXPECT_EQ(sfltest::SlotOf(c.bh, 1).FileSize, 100u);
  sfl_AppendToSimpleItem(item, 10, more.data());
  EXPECT_EQ(item->Size, 110u);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// A store from a source whose size cannot be asked raises and gives back
// the slot it took.
TEST(StoreEdges, AStoreWhoseSourceSizeCannotBeAskedTakesNothing) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef source{};
  const int fd = im_GetNewDataItem(&source);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "abc", 3), 3);
  close(fd);
  sfl_ItemRef ref{};
  os_FailNth(os_Op::Fstat, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_StoreBasicItem(c.bh, &source, 0, &ref, 0); }),
            Os(EIO));
  os_ClearFaults();
  EXPECT_EQ(sfltest::FileHeaderOf(c.bh).UsedItems, 0u);
  EXPECT_EQ(sfltest::FileHeaderOf(c.bh).InUseItms, 1u);
  sfl_CloseFile(c.bh);
}

}  // namespace

namespace {

// A file header whose item table could not lie whole between the header
// and the data is not a file of ours: its sizes would drive slot offsets.
TEST(StoreEdges, AHeaderWhoseTableDoesNotFitIsRefusedOnOpen) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  sfl_CloseItem(sfl_StoreBasicItem(c.bh, nullptr, 10, &ref, 0));  // an empty file goes at close
  const std::string path = sfltest::ItemPath(c.ref);
  sfl_CloseFile(c.bh);
  for (uint16_t maxItems : {uint16_t{0}, uint16_t{9}, uint16_t{0xFFFF}}) {
    const int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const uint8_t raw[2] = {static_cast<uint8_t>(maxItems), static_cast<uint8_t>(maxItems >> 8)};
    ASSERT_EQ(pwrite(fd, raw, 2, sfl_fh::MaxItems), 2);
    ::close(fd);
    EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_OpenSfl(&c.ref, 1); }),
              sfltest::EscapeCode(ER_GROUP_SFL, SFL_R_BAD_FILE))
        << maxItems;
    EXPECT_EQ(sfltest::OpenRecordOf(c.ref), nullptr);
  }
}

}  // namespace
