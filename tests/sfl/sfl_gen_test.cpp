// Record encoding: block arithmetic, and the exact bytes of file headers,
// item headers and index records as the record routines write them.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <vector>

#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

std::vector<uint8_t> FileBytes(int fd, size_t len, off_t off) { return sfltest::ReadExactly(fd, off, len); }

// Hand-computed little-endian image: the words at their tabled offsets.
void Put32(std::vector<uint8_t>& b, size_t off, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}

class GenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = sfltest::StoreRoot() + "/gen.sfl";
    fd_ = os_open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd_, 0);
    rec_.FileDes = fd_;
    item_.BaseRecord = &rec_;
  }
  void TearDown() override { os_close(fd_); }
  std::string path_;
  int fd_ = -1;
  sfl_BaseRec rec_;
  sfl_ItemRec item_;
};

TEST(CalculateBlocks, RoundsUpToWholeBlocks) {
  EXPECT_EQ(sfl_CalculateBlocks(0), 0u);
  EXPECT_EQ(sfl_CalculateBlocks(1), 1u);
  EXPECT_EQ(sfl_CalculateBlocks(127), 1u);
  EXPECT_EQ(sfl_CalculateBlocks(128), 1u);
  EXPECT_EQ(sfl_CalculateBlocks(129), 2u);
  EXPECT_EQ(sfl_CalculateBlocks(896), 7u);
  EXPECT_EQ(sfl_CalculateBlocks(0xFFFFFFFFu), 0x2000000u);
}

TEST_F(GenTest, ContainerFileHeaderBytesAreExact) {
  sfl_FileHeader h;
  h.Magic = SFL_MAGIC;
  h.Type = SFL_TYPE_FILE_HEADER;
  h.HeaderSize = 128;
  h.HeaderVersion = 2;
  h.UsedItems = 0x0102;
  h.MaxItems = 8;
  h.Flags = ASYNCHRONOUS | ITEM_PEND_DEL;
  h.TableOffset = 128;
  h.DataOffset = 640;
  h.InUseItms = 0x01;
  sfl_WriteFileHeader(&rec_, h);

  std::vector<uint8_t> want(128, 0);
  const uint8_t head[] = {0x4E, 0x61, 0xBC, 0x00,  // magic 12345678
                          0x10, 0x00, 0x00, 0x00,  // type 16
                          0x80, 0x00, 0x00, 0x00,  // HeaderSize 128
                          0x02, 0x00, 0x00, 0x00,  // HeaderVersion 2
                          0x02, 0x01,              // UsedItems (u16)
                          0x08, 0x00,              // MaxItems (u16)
                          0x0A, 0x00, 0x00, 0x00,  // Flags
                          0x80, 0x00, 0x00, 0x00,  // TableOffset 128
                          0x80, 0x02, 0x00, 0x00,  // DataOffset 640
                          0x01};                   // in-use map
  std::copy(std::begin(head), std::end(head), want.begin());
  EXPECT_EQ(FileBytes(fd_, 128, 0), want);

  sfl_FileHeader back;
  sfl_ReadFileHeader(&rec_, &back);
  EXPECT_EQ(back.UsedItems, 0x0102);
  EXPECT_EQ(back.MaxItems, 8);
  EXPECT_EQ(back.Flags, static_cast<uint32_t>(ASYNCHRONOUS | ITEM_PEND_DEL));
  EXPECT_EQ(back.DataOffset, 640u);
  EXPECT_EQ(back.InUseItms, 0x01);
}

TEST_F(GenTest, ItemHeaderBytesAreExactAtHeaderOffset) {
  item_.HeaderOff = 128 + 3 * 64;
  sfl_ItemHeader h = sfl_NewItemHeader();
  h.AccCount = 1;
  h.FileSize = 0x00012345;
  h.UsedBlocks = 0x247;
  h.ChangeDate = 0x5F5E1000;
  h.FileOffset = 0x00000A00;
  h.IndexDepth = 2;
  h.Flags = BLOCKED_ITEM | OTHER_LOCKS;
  sfl_WriteItemHeader(&item_, h);

  std::vector<uint8_t> want(64, 0);
  Put32(want, 0, 0x00BC614E);
  Put32(want, 4, 17);
  Put32(want, 8, 1);
  Put32(want, 12, 0x00012345);
  Put32(want, 16, 0x247);
  Put32(want, 20, 0x5F5E1000);
  Put32(want, 24, 0xA00);
  Put32(want, 28, 2);
  Put32(want, 32, 0x11);
  EXPECT_EQ(want[0], 0x4E);
  EXPECT_EQ(want[12], 0x45);
  EXPECT_EQ(want[14], 0x01);
  EXPECT_EQ(FileBytes(fd_, 64, item_.HeaderOff), want);
  // Nothing before the header was written.
  EXPECT_EQ(::lseek(fd_, 0, SEEK_END), static_cast<off_t>(item_.HeaderOff + 64));
  EXPECT_EQ(FileBytes(fd_, 64, item_.HeaderOff - 64), std::vector<uint8_t>(64, 0));
}

TEST_F(GenTest, IndexRecordBytesAreExact) {
  sfl_IndexRecord r = sfl_NewIndexRecord();
  r.Depth = 1;
  r.Used = 2;
  r.EverUsed = 3;
  r.BaseBlockNum = 32;
  r.ParentOff = 192;
  r.FreeMap = 0x80000001u;
  r.Entries[0] = {0x1000, 0x80};
  r.Entries[31] = {0x2000, 0x100};
  sfl_WriteAnIndex(&item_, 1024, r);

  std::vector<uint8_t> want(384, 0);
  Put32(want, 0, SFL_MAGIC);
  Put32(want, 4, 18);
  Put32(want, 8, 1);
  Put32(want, 12, 2);
  Put32(want, 16, 3);
  Put32(want, 20, 32);
  Put32(want, 24, 192);
  Put32(want, 28, 0x80000001u);
  Put32(want, 32, 0x1000);
  Put32(want, 36, 0x80);
  Put32(want, 32 + 31 * 8, 0x2000);
  Put32(want, 36 + 31 * 8, 0x100);
  EXPECT_EQ(FileBytes(fd_, 384, 1024), want);
}

TEST(Coding, ReservedBytesAreIgnoredOnReading) {
  sfl_ItemHeaderBytes bytes{};
  sfl_ItemHeader h = sfl_NewItemHeader();
  h.FileSize = 77;
  sfl_EncodeItemHeader(h, bytes);
  for (size_t i = 36; i < 64; ++i) bytes[i] = 0xEE;
  sfl_ItemHeader back = sfl_DecodeItemHeader(bytes);
  EXPECT_EQ(back.FileSize, 77u);
  EXPECT_EQ(back.Flags, 0u);
  sfl_ItemHeaderBytes again{};
  sfl_EncodeItemHeader(back, again);
  for (size_t i = 36; i < 64; ++i) EXPECT_EQ(again[i], 0) << i;
}

TEST(Coding, FileHeaderRoundTripsEveryField) {
  sfl_FileHeader h;
  h.Magic = 1;
  h.Type = 2;
  h.HeaderSize = 3;
  h.HeaderVersion = 4;
  h.UsedItems = 0xFFFE;
  h.MaxItems = 0x8001;
  h.Flags = 0xDEADBEEF;
  h.TableOffset = 7;
  h.DataOffset = 8;
  h.InUseItms = 0xA5;
  sfl_FileHeaderBytes b{};
  sfl_EncodeFileHeader(h, b);
  sfl_FileHeader d = sfl_DecodeFileHeader(b);
  EXPECT_EQ(d.Magic, 1u);
  EXPECT_EQ(d.Type, 2u);
  EXPECT_EQ(d.HeaderSize, 3u);
  EXPECT_EQ(d.HeaderVersion, 4u);
  EXPECT_EQ(d.UsedItems, 0xFFFE);
  EXPECT_EQ(d.MaxItems, 0x8001);
  EXPECT_EQ(d.Flags, 0xDEADBEEFu);
  EXPECT_EQ(d.TableOffset, 7u);
  EXPECT_EQ(d.DataOffset, 8u);
  EXPECT_EQ(d.InUseItms, 0xA5);
  EXPECT_EQ(b[20], 0xEF);
  EXPECT_EQ(b[23], 0xDE);
}

}  // namespace
