// Record routines: the checks of each read, short transfers, one positioned
// call per record, the frozen-handle caches, the current-index fields, and
// the free-map routines with their range checks.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "os.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Raised = sfltest::Escape;
constexpr auto RaisedBy = sfltest::EscapeOfThenClear;

class IoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    os_ClearFaults();
    path_ = sfltest::StoreRoot() + "/io.sfl";
    fd_ = os_open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd_, 0);
    rec_.FileDes = fd_;
    item_.BaseRecord = &rec_;
    item_.HeaderOff = 128 + 64;
  }
  void TearDown() override {
    os_ClearFaults();
    os_close(fd_);
  }
  void Fill(size_t len, uint8_t value) {
    std::vector<uint8_t> b(len, value);
    ASSERT_EQ(::pwrite(fd_, b.data(), len, 0), static_cast<ssize_t>(len));
  }
  std::vector<uint8_t> Bytes(size_t len, off_t off) { return sfltest::ReadExactly(fd_, off, len); }
  void PutRaw32(off_t off, uint32_t v) {
    uint8_t b[4];
    sfl_PutU32(b, v);
    ASSERT_EQ(::pwrite(fd_, b, 4, off), 4);
  }
  sfl_FileHeader GoodFileHeader() {
    sfl_FileHeader h;
    h.Magic = SFL_MAGIC;
    h.Type = SFL_TYPE_FILE_HEADER;
    h.HeaderSize = 128;
    h.HeaderVersion = 2;
    h.MaxItems = 8;
    h.TableOffset = 128;
    h.DataOffset = 640;
    h.InUseItms = 1;
    return h;
  }
  sfl_IndexRecord Index(uint32_t base, uint32_t depth) {
    sfl_IndexRecord r = sfl_NewIndexRecord();
    r.BaseBlockNum = base;
    r.Depth = depth;
    r.Used = 1;
    r.Entries[0] = {4096, 128};
    return r;
  }
  std::string path_;
  int fd_ = -1;
  sfl_BaseRec rec_;
  sfl_ItemRec item_;
};

// ---- file header ----------------------------------------------------------------

TEST_F(IoTest, FileHeaderReadChecksMagicAndType) {
  sfl_FileHeader h = GoodFileHeader();
  sfl_WriteFileHeader(&rec_, h);
  sfl_FileHeader out;
  sfl_ReadFileHeader(&rec_, &out);
  EXPECT_EQ(out.DataOffset, 640u);

  PutRaw32(0, 12345679);
  Raised r = RaisedBy([&] { sfl_ReadFileHeader(&rec_, &out); });
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_BAD_FILE_HEADER);

  PutRaw32(0, SFL_MAGIC);
  PutRaw32(4, SFL_TYPE_ITEM_HEADER);
  EXPECT_EQ(RaisedBy([&] { sfl_ReadFileHeader(&rec_, &out); }).reason, SFL_R_BAD_FILE_HEADER);
}

TEST_F(IoTest, VersionOneHeaderPassesTheRead) {
  sfl_FileHeader h = GoodFileHeader();
  h.HeaderVersion = 1;
  sfl_WriteFileHeader(&rec_, h);
  sfl_FileHeader out;
  EXPECT_EQ(RaisedBy([&] { sfl_ReadFileHeader(&rec_, &out); }).reason, 0);
  EXPECT_EQ(out.HeaderVersion, 1u);
}

TEST_F(IoTest, FileShorterThanHeaderFailsWithShortRead) {
  sfl_FileHeader h = GoodFileHeader();
  sfl_WriteFileHeader(&rec_, h);
  ASSERT_EQ(::ftruncate(fd_, 127), 0);
  sfl_FileHeader out;
  Raised r = RaisedBy([&] { sfl_ReadFileHeader(&rec_, &out); });
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_SHORT_READ);
}

TEST_F(IoTest, EachRecordTransferIsOnePositionedCall) {
  sfl_FileHeader h = GoodFileHeader();
  os_ResetCallCounts();
  sfl_WriteFileHeader(&rec_, h);
  sfl_FileHeader out;
  sfl_ReadFileHeader(&rec_, &out);
  sfl_WriteItemHeader(&item_, sfl_NewItemHeader());
  sfl_ItemHeader ih;
  sfl_ReadItemHeader(&item_, &ih);
  sfl_WriteAnIndex(&item_, 1024, Index(0, 0));
  sfl_IndexRecord ix;
  sfl_ReadAnIndex(&item_, 1024, &ix);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 3u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 3u);
  EXPECT_EQ(os_CallCount(os_Op::Lseek), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Read), 0u);
  EXPECT_EQ(os_CallCount(os_Op::Write), 0u);
}

TEST_F(IoTest, ShortWritesOfRecordsRaise28851) {
  sfl_FileHeader h = GoodFileHeader();
  os_ShortNth(os_Op::Pwrite, 1, 100);
  EXPECT_EQ(RaisedBy([&] { sfl_WriteFileHeader(&rec_, h); }).reason, SFL_R_SHORT_WRITE);
  os_ShortNth(os_Op::Pwrite, 1, 63);
  EXPECT_EQ(RaisedBy([&] { sfl_WriteItemHeader(&item_, sfl_NewItemHeader()); }).reason,
            SFL_R_SHORT_WRITE);
  os_ShortNth(os_Op::Pwrite, 1, 10);
  EXPECT_EQ(RaisedBy([&] { sfl_WriteInternalItemH(&item_, 2048, sfl_NewItemHeader()); }).reason,
            SFL_R_SHORT_WRITE);
  os_ShortNth(os_Op::Pwrite, 1, 383);
  EXPECT_EQ(RaisedBy([&] { sfl_WriteAnIndex(&item_, 1024, Index(0, 0)); }).reason,
            SFL_R_SHORT_WRITE);
  os_FailNth(os_Op::Pwrite, 1, EIO);
  EXPECT_EQ(RaisedBy([&] { sfl_WriteFileHeader(&rec_, h); }).reason, SFL_R_SHORT_WRITE);
}

TEST_F(IoTest, ShortReadsOfRecordsRaise28871) {
  sfl_WriteFileHeader(&rec_, GoodFileHeader());
  sfl_WriteItemHeader(&item_, sfl_NewItemHeader());
  sfl_WriteAnIndex(&item_, 1024, Index(0, 0));
  sfl_FileHeader fh;
  sfl_ItemHeader ih;
  sfl_IndexRecord ix;
  os_ShortNth(os_Op::Pread, 1, 127);
  EXPECT_EQ(RaisedBy([&] { sfl_ReadFileHeader(&rec_, &fh); }).reason, SFL_R_SHORT_READ);
  os_ShortNth(os_Op::Pread, 1, 63);
  EXPECT_EQ(RaisedBy([&] { sfl_ReadItemHeader(&item_, &ih); }).reason, SFL_R_SHORT_READ);
  os_ShortNth(os_Op::Pread, 1, 0);
  EXPECT_EQ(RaisedBy([&] { sfl_ReadInternalItemH(&item_, item_.HeaderOff, &ih); }).reason,
            SFL_R_SHORT_READ);
  os_FailNth(os_Op::Pread, 1, EIO);
  EXPECT_EQ(RaisedBy([&] { sfl_ReadAnIndex(&item_, 1024, &ix); }).reason, SFL_R_SHORT_READ);
  // An index record cut off by the end of the file.
  EXPECT_EQ(RaisedBy([&] { sfl_ReadAnIndex(&item_, 1024 + 128, &ix); }).reason,
            SFL_R_SHORT_READ);
}

// ---- item headers -----------------------------------------------------------------

TEST_F(IoTest, SlotTakenButNeverWrittenFailsWith28880) {
  // A freshly taken slot: zero but AccCount 1 and the time; no magic yet.
  sfl_ItemHeaderBytes raw{};
  sfl_PutU32(raw.data() + sfl_ih::AccCount, 1);
  sfl_PutU32(raw.data() + sfl_ih::ChangeDate, 1700000000);
  ASSERT_EQ(::pwrite(fd_, raw.data(), raw.size(), item_.HeaderOff), 64);
  sfl_ItemHeader out;
  Raised r = RaisedBy([&] { sfl_ReadItemHeader(&item_, &out); });
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_BAD_ITEM_HEADER);
  EXPECT_EQ(RaisedBy([&] { sfl_ReadInternalItemH(&item_, item_.HeaderOff, &out); }).reason,
            SFL_R_BAD_ITEM_HEADER);
}

TEST_F(IoTest, ItemHeaderWithWrongTypeFails) {
  sfl_WriteItemHeader(&item_, sfl_NewItemHeader());
  PutRaw32(item_.HeaderOff + 4, SFL_TYPE_INDEX);
  sfl_ItemHeader out;
  EXPECT_EQ(RaisedBy([&] { sfl_ReadItemHeader(&item_, &out); }).reason, SFL_R_BAD_ITEM_HEADER);
}

TEST_F(IoTest, InternalHeaderGoesToTheGivenOffset) {
  sfl_ItemHeader h = sfl_NewItemHeader();
  h.FileSize = 99;
  h.Flags = INT_ITEM;
  sfl_WriteInternalItemH(&item_, 4096, h);
  EXPECT_EQ(sfl_GetU32(Bytes(64, 4096).data() + sfl_ih::FileSize), 99u);
  sfl_ItemHeader out;
  sfl_ReadInternalItemH(&item_, 4096, &out);
  EXPECT_EQ(out.FileSize, 99u);
  EXPECT_EQ(out.Flags, static_cast<uint32_t>(INT_ITEM));
  // The handle's own header slot was not touched.
  EXPECT_EQ(Bytes(64, 0).size(), 64u);
  EXPECT_EQ(sfl_GetU32(Bytes(4, item_.HeaderOff).data()), 0u);
}

TEST_F(IoTest, UnfrozenHandleAlwaysReadsTheFile) {
  sfl_ItemHeader h = sfl_NewItemHeader();
  h.FileSize = 10;
  sfl_WriteItemHeader(&item_, h);
  PutRaw32(item_.HeaderOff + sfl_ih::FileSize, 20);
  sfl_ItemHeader out;
  os_ResetCallCounts();
  sfl_ReadItemHeader(&item_, &out);
  EXPECT_EQ(out.FileSize, 20u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 1u);
  EXPECT_EQ(item_.HeaderCacheValid, 0u);
}

TEST_F(IoTest, FrozenHandleServesTheHeaderFromItsCopy) {
  item_.Frozen = 1;
  sfl_ItemHeader h = sfl_NewItemHeader();
  h.FileSize = 10;
  sfl_WriteItemHeader(&item_, h);
  ASSERT_EQ(item_.HeaderCacheValid, 1u);
  PutRaw32(item_.HeaderOff + sfl_ih::FileSize, 20);  // another process's change
  sfl_ItemHeader out;
  os_ResetCallCounts();
  sfl_ReadItemHeader(&item_, &out);
  EXPECT_EQ(out.FileSize, 10u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 0u);

  // Once the copy is no longer valid the file is read and the copy refilled.
  item_.HeaderCacheValid = 0;
  sfl_ReadItemHeader(&item_, &out);
  EXPECT_EQ(out.FileSize, 20u);
  EXPECT_EQ(item_.HeaderCacheValid, 1u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 1u);
}

TEST_F(IoTest, FailedReadLeavesTheHeaderCopyUnchanged) {
  item_.Frozen = 1;
  sfl_ItemHeader h = sfl_NewItemHeader();
  h.FileSize = 10;
  sfl_WriteItemHeader(&item_, h);
  sfl_ItemHeaderBytes before = *item_.HeaderCache;
  item_.HeaderCacheValid = 0;
  PutRaw32(item_.HeaderOff, 0);  // magic gone
  sfl_ItemHeader out;
  EXPECT_EQ(RaisedBy([&] { sfl_ReadItemHeader(&item_, &out); }).reason, SFL_R_BAD_ITEM_HEADER);
  EXPECT_EQ(item_.HeaderCacheValid, 0u);
  EXPECT_EQ(*item_.HeaderCache, before);
}

TEST_F(IoTest, InternalHeadersAreNeverCached) {
  item_.Frozen = 1;
  sfl_WriteInternalItemH(&item_, 4096, sfl_NewItemHeader());
  EXPECT_EQ(item_.HeaderCacheValid, 0u);
  sfl_ItemHeader out;
  os_ResetCallCounts();
  sfl_ReadInternalItemH(&item_, 4096, &out);
  sfl_ReadInternalItemH(&item_, 4096, &out);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 2u);
  EXPECT_EQ(item_.HeaderCacheValid, 0u);
}

// ---- index records ---------------------------------------------------------------------

TEST_F(IoTest, IndexReadChecksMagicAndType) {
  sfl_WriteAnIndex(&item_, 1024, Index(0, 0));
  PutRaw32(1024 + 4, SFL_TYPE_ITEM_HEADER);
  sfl_IndexRecord out;
  Raised r = RaisedBy([&] { sfl_ReadAnIndex(&item_, 1024, &out); });
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_BAD_INDEX);
  PutRaw32(1024 + 4, SFL_TYPE_INDEX);
  PutRaw32(1024, 0);
  EXPECT_EQ(RaisedBy([&] { sfl_ReadAnIndex(&item_, 1024, &out); }).reason, SFL_R_BAD_INDEX);
}

TEST_F(IoTest, ReadAndWriteSetTheCurrentIndex) {
  sfl_WriteAnIndex(&item_, 1024, Index(32, 1));
  EXPECT_EQ(item_.LastIdxOff, 1024u);
  EXPECT_EQ(item_.LastIdxBase, 32u);
  EXPECT_EQ(item_.LastIdxDepth, 1u);
  sfl_WriteAnIndex(&item_, 2048, Index(64, 0));
  EXPECT_EQ(item_.LastIdxOff, 2048u);
  sfl_IndexRecord out;
  sfl_ReadAnIndex(&item_, 1024, &out);
  EXPECT_EQ(item_.LastIdxOff, 1024u);
  EXPECT_EQ(item_.LastIdxBase, 32u);
  EXPECT_EQ(item_.LastIdxDepth, 1u);
  EXPECT_EQ(out.Entries[0].SectionOffSet, 4096u);
}

TEST_F(IoTest, FailedIndexReadKeepsCurrentIndexAndCopy) {
  item_.Frozen = 1;
  sfl_WriteAnIndex(&item_, 1024, Index(32, 1));
  sfl_IndexBytes before = *item_.IndexCache;
  PutRaw32(2048, SFL_MAGIC);  // a record cut off by the end of the file
  sfl_IndexRecord out;
  EXPECT_EQ(RaisedBy([&] { sfl_ReadAnIndex(&item_, 2048, &out); }).reason, SFL_R_SHORT_READ);
  EXPECT_EQ(item_.LastIdxOff, 1024u);
  EXPECT_EQ(item_.LastIdxBase, 32u);
  EXPECT_EQ(item_.IndexCacheValid, 1u);
  EXPECT_EQ(*item_.IndexCache, before);
}

TEST_F(IoTest, FrozenHandleServesTheLastIndexFromItsCopy) {
  item_.Frozen = 1;
  sfl_WriteAnIndex(&item_, 1024, Index(32, 1));
  sfl_WriteAnIndex(&item_, 2048, Index(64, 0));
  PutRaw32(2048 + sfl_ix::Used, 7);  // changed behind the handle's back
  PutRaw32(1024 + sfl_ix::Used, 9);
  sfl_IndexRecord out;
  os_ResetCallCounts();
  sfl_ReadAnIndex(&item_, 2048, &out);  // the last record: from the copy
  EXPECT_EQ(out.Used, 1u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 0u);
  sfl_ReadAnIndex(&item_, 1024, &out);  // another offset: from the file
  EXPECT_EQ(out.Used, 9u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 1u);
  EXPECT_EQ(item_.LastIdxOff, 1024u);
  sfl_ReadAnIndex(&item_, 1024, &out);  // now cached
  EXPECT_EQ(os_CallCount(os_Op::Pread), 1u);
  EXPECT_EQ(item_.LastIdxBase, 32u);
  EXPECT_EQ(item_.LastIdxDepth, 1u);
}

TEST_F(IoTest, UnfrozenIndexReadsAlwaysGoToTheFile) {
  sfl_WriteAnIndex(&item_, 1024, Index(32, 1));
  sfl_IndexRecord out;
  os_ResetCallCounts();
  sfl_ReadAnIndex(&item_, 1024, &out);
  sfl_ReadAnIndex(&item_, 1024, &out);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 2u);
  EXPECT_EQ(item_.IndexCacheValid, 0u);
}

// ---- free map ------------------------------------------------------------------------------

sfl_ItemHeader MapHeader(uint32_t offset, uint32_t size) {
  sfl_ItemHeader fm = sfl_NewItemHeader();
  fm.FileOffset = offset;
  fm.FileSize = size;
  fm.UsedBlocks = sfl_CalculateBlocks(size);
  return fm;
}

TEST_F(IoTest, FreeMapRoundTrip) {
  std::vector<uint8_t> map(256, 0);
  map[0] = 0x7F;
  map[255] = 0x80;
  sfl_ItemHeader fm = MapHeader(640, 256);
  sfl_WriteFreeMap(&rec_, map, fm);
  std::vector<uint8_t> back;
  EXPECT_EQ(sfl_ReadFreeMap(&rec_, &back, fm), 256u);
  EXPECT_EQ(back, map);
  EXPECT_EQ(Bytes(1, 640)[0], 0x7F);
}

TEST_F(IoTest, FreeMapWithoutPlaceIsRefused) {
  std::vector<uint8_t> map(256, 0);
  sfl_ItemHeader fm = MapHeader(0, 256);
  std::vector<uint8_t> back;
  EXPECT_EQ(RaisedBy([&] { sfl_ReadFreeMap(&rec_, &back, fm); }).reason, SFL_R_BAD_MAP);
  EXPECT_EQ(RaisedBy([&] { sfl_WriteFreeMap(&rec_, map, fm); }).reason, SFL_R_BAD_MAP);
  EXPECT_EQ(RaisedBy([&] { sfl_WritePartialFreeMap(&rec_, map, 0, 8, fm); }).reason,
            SFL_R_BAD_MAP);
}

TEST_F(IoTest, FreeMapSizesFromDamageAreRefusedBeforeAnyAllocationOrRead) {
  std::vector<uint8_t> back(3, 0xAB);
  // Larger than any map a file of 32-bit offsets needs.
  EXPECT_EQ(RaisedBy([&] { sfl_ReadFreeMap(&rec_, &back, MapHeader(640, 64u << 20)); }).reason,
            SFL_R_BAD_MAP);
  // A place whose end lies past what 32-bit offsets reach.
  EXPECT_EQ(RaisedBy([&] { sfl_ReadFreeMap(&rec_, &back, MapHeader(0xFFFFFF00u, 512)); }).reason,
            SFL_R_BAD_MAP);
  EXPECT_EQ(back, std::vector<uint8_t>(3, 0xAB));  // the caller's buffer is left as it was
}

TEST_F(IoTest, APartialMapWriteOfBytesTheBufferDoesNotHoldWritesNothing) {
  std::vector<uint8_t> map(256, 0x11);
  sfl_ItemHeader fm = MapHeader(640, 256);
  sfl_WriteFreeMap(&rec_, map, fm);
  // Bits of the byte one past the map (the range check lets it through),
  // with a buffer that ends before it: nothing to write.
  const std::vector<uint8_t> shortBuffer(8, 0x22);
  sfl_WritePartialFreeMap(&rec_, shortBuffer, 256 * 8, 8, fm);
  EXPECT_EQ(Bytes(256, 640), map);
  struct stat st {};
  ASSERT_EQ(::fstat(fd_, &st), 0);
  EXPECT_EQ(st.st_size, 640 + 256);  // nothing written past the map
}

TEST_F(IoTest, ShortFreeMapTransfers) {
  Fill(700, 0);
  sfl_ItemHeader fm = MapHeader(640, 256);
  std::vector<uint8_t> back;
  Raised r = RaisedBy([&] { sfl_ReadFreeMap(&rec_, &back, fm); });  // only 60 bytes there
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_SHORT_MAP_READ);
  std::vector<uint8_t> map(256, 0xFF);
  os_ShortNth(os_Op::Pwrite, 1, 255);
  EXPECT_EQ(RaisedBy([&] { sfl_WriteFreeMap(&rec_, map, fm); }).reason, SFL_R_SHORT_MAP_WRITE);
  os_ShortNth(os_Op::Pwrite, 1, 1);
  EXPECT_EQ(RaisedBy([&] { sfl_WritePartialFreeMap(&rec_, map, 0, 16, fm); }).reason,
            SFL_R_SHORT_MAP_WRITE);
}

class PartialMapTest : public IoTest {
 protected:
  void SetUp() override {
    IoTest::SetUp();
    Fill(1024, 0xAA);
    for (size_t i = 0; i < map_.size(); ++i) map_[i] = static_cast<uint8_t>(i + 1);
  }
  // Which map bytes a partial write changed in the file.
  std::vector<size_t> Changed() {
    std::vector<uint8_t> now = Bytes(fm_.FileSize + 1, fm_.FileOffset);
    std::vector<size_t> out;
    for (size_t i = 0; i < now.size(); ++i)
      if (now[i] != 0xAA) out.push_back(i);
    return out;
  }
  sfl_ItemHeader fm_ = MapHeader(640, 256);
  std::vector<uint8_t> map_ = std::vector<uint8_t>(256);
};

TEST_F(PartialMapTest, BitsEightToFifteenWriteExactlyByteOne) {
  os_ResetCallCounts();
  sfl_WritePartialFreeMap(&rec_, map_, 8, 8, fm_);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 1u);
  EXPECT_EQ(Changed(), std::vector<size_t>({1}));
  EXPECT_EQ(Bytes(1, 641)[0], map_[1]);
}

TEST_F(PartialMapTest, BitsSevenToEightWriteBytesZeroAndOne) {
  sfl_WritePartialFreeMap(&rec_, map_, 7, 2, fm_);
  EXPECT_EQ(Changed(), std::vector<size_t>({0, 1}));
}

TEST_F(PartialMapTest, LastByteEqualToMapSizeIsLetThrough) {
  // Bits 2040..2048: the last byte (256) lies one past the 256-byte map.
  std::vector<uint8_t> longer(map_);
  longer.push_back(0x5A);
  EXPECT_EQ(RaisedBy([&] { sfl_WritePartialFreeMap(&rec_, longer, 2040, 9, fm_); }).reason, 0);
  EXPECT_EQ(Changed(), std::vector<size_t>({255, 256}));
  // With a buffer of exactly the map's size only the bytes it holds go out.
  Fill(1024, 0xAA);
  EXPECT_EQ(RaisedBy([&] { sfl_WritePartialFreeMap(&rec_, map_, 2040, 9, fm_); }).reason, 0);
  EXPECT_EQ(Changed(), std::vector<size_t>({255}));
}

TEST_F(PartialMapTest, RangesOutsideTheMapAreRefused) {
  // Last byte 257 > FileSize 256.
  Raised r = RaisedBy([&] { sfl_WritePartialFreeMap(&rec_, map_, 2048, 9, fm_); });
  EXPECT_EQ(r.group, ER_GROUP_SFL);
  EXPECT_EQ(r.reason, SFL_R_BAD_MAP);
  // A first byte below zero.
  EXPECT_EQ(RaisedBy([&] { sfl_WritePartialFreeMap(&rec_, map_, -8, 16, fm_); }).reason,
            SFL_R_BAD_MAP);
  EXPECT_EQ(Changed(), std::vector<size_t>());
  // -1 / 8 is 0 in integer division: not negative, so let through.
  EXPECT_EQ(RaisedBy([&] { sfl_WritePartialFreeMap(&rec_, map_, -1, 2, fm_); }).reason, 0);
  EXPECT_EQ(Changed(), std::vector<size_t>({0}));
}

// ---- raw transfers --------------------------------------------------------------------------

TEST_F(IoTest, RawTransfersAreSinglePositionedCalls) {
  const char text[] = "item data";
  os_ResetCallCounts();
  EXPECT_EQ(sfl_PWrite(&rec_, text, sizeof text, 5000), static_cast<ssize_t>(sizeof text));
  char back[sizeof text] = {};
  EXPECT_EQ(sfl_PRead(&rec_, back, sizeof back, 5000), static_cast<ssize_t>(sizeof text));
  EXPECT_STREQ(back, text);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), 1u);
  EXPECT_EQ(os_CallCount(os_Op::Pread), 1u);
  os_ShortNth(os_Op::Pwrite, 1, 4);
  EXPECT_EQ(sfl_PWrite(&rec_, text, sizeof text, 5000), 4);
}

}  // namespace
