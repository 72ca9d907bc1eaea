// Item handles at their edges: an item whose header puts its data past
// 32-bit offsets is refused at open (and so does not exist), and a status
// call whose system status fails raises it; neither leaves an open-items or
// open-files entry behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

template <typename Table>
int InUse(const Table& t) {
  int n = 0;
  for (size_t i = 0; i < t.HighWater(); ++i) n += t.At(i) != nullptr && t.At(i)->InUse == 1;
  return n;
}

int FilesOpenNotCold() {
  int n = 0;
  const sfl_FilesTable& t = sfl_OpenFiles();
  for (size_t i = 0; i < t.HighWater(); ++i)
    n += t.At(i) != nullptr && t.At(i)->InUse == 1 && t.At(i)->InColdStore == 0;
  return n;
}

// A closed container holding one simple item of 200 bytes; the item's
// reference.
sfl_ItemRef StoredItem() {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef item{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 200, &item, 0);
  const std::vector<uint8_t> data = sfltest::PseudoRandomBytes(200, 3, 3);
  EXPECT_EQ(sfl_WriteSimpleData(h, 0, 200, data.data()), 200);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
  return item;
}

TEST(ItemEdges, AnItemWhoseDataRunsPast32BitOffsetsIsRefusedAtOpen) {
  const sfl_ItemRef item = StoredItem();
  sfltest::CloseColdFiles();
  const std::string path = sfltest::ItemPath([&] {
    sfl_ItemRef f = item;
    f.Flags = static_cast<uint16_t>(f.Flags & ~SFL_ITEM_NUM_MASK);
    return f;
  }());
  const uint64_t size = SFL_TABLE_OFFSET + uint64_t{SFL_ITEM_HEADER_SIZE} * sfl_ItemNumOf(item) + sfl_ih::FileSize;
  {
    const int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    uint8_t b[4];
    sfl_PutU32(b, 0xFFFFFF00u);  // offset + size passes 2^32
    ASSERT_EQ(::pwrite(fd, b, 4, static_cast<off_t>(size)), 4);
    ::close(fd);
  }
  const std::vector<uint8_t> before = sfltest::FileBytes(path);
  // Cold files keep their free-map item open: none is left, so every
  // entry counted below is the call's own.
  auto settle = [] {
    sfltest::CloseColdFiles();
    return InUse(sfl_OpenItems());
  };
  const int items = settle();
  const int files = FilesOpenNotCold();
  EXPECT_EQ(sfltest::ReasonOf([&] { sfl_OpenItem(&item, 0); }), SFL_R_BAD_ITEM_HEADER);
  EXPECT_EQ(FilesOpenNotCold(), files);
  EXPECT_EQ(settle(), items);
  EXPECT_EQ(FilesOpenNotCold(), files);
  EXPECT_EQ(sfl_ItemExists(&item), 0);
  struct stat st {};
  EXPECT_EQ(sfltest::ReasonOf([&] { sfl_StatItem(&item, &st); }), SFL_R_BAD_ITEM_HEADER);
  EXPECT_EQ(FilesOpenNotCold(), files);
  EXPECT_EQ(settle(), items);
  EXPECT_EQ(sfltest::FileBytes(path), before);
}

TEST(ItemEdges, AStatusCallWhoseSystemStatusFailsRaisesIt) {
  const sfl_ItemRef item = StoredItem();
  sfltest::CloseColdFiles();
  const int items = InUse(sfl_OpenItems());
  const int files = FilesOpenNotCold();
  struct stat st {};
  // The status of the file is the last one the call asks for (opening the
  // file on the way may ask too).
  os_ResetCallCounts();
  sfl_StatItem(&item, &st);
  const unsigned last = static_cast<unsigned>(os_CallCount(os_Op::Fstat));
  ASSERT_GE(last, 1u);
  sfltest::CloseColdFiles();
  os_FailNth(os_Op::Fstat, last, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_StatItem(&item, &st); }), sfltest::EscapeCode(ER_GROUP_OS, EIO));
  os_ClearFaults();
  EXPECT_EQ(FilesOpenNotCold(), files);
  sfltest::CloseColdFiles();
  EXPECT_EQ(InUse(sfl_OpenItems()), items);
  st = {};
  sfl_StatItem(&item, &st);
  EXPECT_EQ(st.st_size, 200);
  EXPECT_EQ(st.st_nlink, 1u);
}

}  // namespace
