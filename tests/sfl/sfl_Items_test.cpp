// Simple item data: storing, positional and serial transfers, seeking,
// truncating, appending, copying, details, mapping and the placement
// fallbacks.
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>
#include <vector>

#include "im.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::ReasonOf;

using Box = sfltest::OpenContainer;
constexpr auto NewBox = sfltest::NewContainer;

std::vector<uint8_t> Pattern(size_t n, uint32_t seed) { return sfltest::PseudoRandomBytes(n, seed, 1); }

// A data-item file holding `bytes`, usable as a source of a store.
sfl_ItemRef SourceFile(const std::vector<uint8_t>& bytes) {
  sfl_ItemRef ref{};
  int fd = im_GetNewDataItem(&ref);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  close(fd);
  return ref;
}

std::vector<uint8_t> ReadAll(int32_t h) {
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  std::vector<uint8_t> v(item->Size);
  if (!v.empty()) {
    EXPECT_EQ(sfl_ReadSimpleData(h, 0, item->Size, v.data()), static_cast<int32_t>(item->Size));
  }
  return v;
}

constexpr auto Slot = sfltest::SlotOf;
using sfltest::FileHeaderOf;

using sfltest::FreeMapOf;

off_t FileSizeOf(int32_t bh) {
  struct stat st;
  EXPECT_EQ(fstat(sfl_Handle2Record(bh)->FileDes, &st), 0);
  return st.st_size;
}

using sfltest::EditHeader;

// Deletes an item at once (this process alone, no owner left).
void DeleteNow(int32_t h) {
  sfl_DetachOpenItem(h);
  sfl_DeleteItem(h);
  sfl_CloseItem(h);
}

bool OpenHere(const sfl_ItemRef& fileRef) { return sfltest::OpenRecordOf(fileRef) != nullptr; }

// ---- storing ---------------------------------------------------------------------------

TEST(SimpleItems, StoreWritesAFullHeaderAndFillsTheReference) {
  Box b = NewBox();
  ASSERT_EQ(sfl_Handle2Record(b.bh)->NewlyCreated, 1u);
  sfl_ItemRef ref{};
  uint32_t before = static_cast<uint32_t>(time(nullptr));
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 300, &ref, 0);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  EXPECT_EQ(sfl_ItemNumOf(ref), 1u);
  sfl_ItemRef fileOfItem = ref;
  fileOfItem.Flags = static_cast<uint16_t>(fileOfItem.Flags & ~SFL_ITEM_NUM_MASK);
  EXPECT_TRUE(sfl_SameFile(fileOfItem, b.ref));
  EXPECT_EQ(fileOfItem.Flags, b.ref.Flags);

  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(item->OpenRefs, 1);
  EXPECT_EQ(item->ItemNum, 1u);
  EXPECT_EQ(item->RefFlags, ref.Flags);
  EXPECT_EQ(item->HeaderOff, SFL_TABLE_OFFSET + SFL_ITEM_HEADER_SIZE);
  EXPECT_EQ(item->Size, 300u);
  EXPECT_EQ(item->Flags, 0u);
  EXPECT_EQ(item->Offset, 896u);  // the first free block of a fresh container

  sfl_ItemInfo s = Slot(b.bh, 1);
  EXPECT_EQ(s.InUse, 1u);
  EXPECT_EQ(s.Valid, 1u);
  EXPECT_EQ(s.AccCount, 1u);
  EXPECT_EQ(s.FileSize, 300u);
  EXPECT_EQ(s.UsedBlocks, 3u);
  EXPECT_EQ(s.FileOffset, 896u);
  // Stored without a source: incomplete until the storing handle closes.
  EXPECT_EQ(s.Flags, static_cast<uint32_t>(INCOMPLETE));
  EXPECT_GE(s.ChangeDate, before);
  EXPECT_LE(s.ChangeDate, static_cast<uint32_t>(time(nullptr)));
  EXPECT_EQ(FileHeaderOf(b.bh).UsedItems, 1u);
  EXPECT_EQ(sfl_Handle2Record(b.bh)->NewlyCreated, 0u);
  EXPECT_EQ(ReadAll(h), std::vector<uint8_t>(300, 0));  // zero filled
  sfl_CloseItem(h);
  EXPECT_EQ(Slot(b.bh, 1).Flags, 0u);
  sfl_CloseFile(b.bh);
}

// An item stored without a source and given up before its storer's close
// is deleted, not left unfinished: the close releases it, and the check
// finds nothing to report or mend.
TEST(SimpleItems, AnUnfinishedStoreDetachedToNoOwnerIsDeletedAtItsClose) {
  Box b = NewBox();
  sfl_ItemRef keep{};
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 10, &keep, 0));
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 300, &ref, 0);
  ASSERT_EQ(sfl_ItemNumOf(ref), 2u);
  EXPECT_EQ(Slot(b.bh, 2).Flags, static_cast<uint32_t>(INCOMPLETE));
  sfl_DetachOpenItem(h);
  sfl_CloseItem(h);
  EXPECT_EQ(Slot(b.bh, 2).InUse, 0u);
  EXPECT_EQ(FileHeaderOf(b.bh).UsedItems, 1u);
  sfl_CloseFile(b.bh);
  EXPECT_EQ(sfl_CheckSflIntegrity(&b.ref, 0), 0);
}

TEST(SimpleItems, StoreIntoAFullContainerReturnsMinusOneAndAllocatesNothing) {
  Box b = NewBox();
  for (int i = 0; i < 7; ++i) {
    sfl_ItemRef r{};
    sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 200, &r, 0));
  }
  sfl_ItemRef source = SourceFile(Pattern(100, 1));
  std::vector<uint8_t> map = FreeMapOf(b.bh);
  sfl_FileHeader fh = FileHeaderOf(b.bh);
  off_t size = FileSizeOf(b.bh);
  int items = sfl_OpenItems().InUseCount();
  uint64_t opens = os_CallCount(os_Op::Open);

  sfl_ItemRef out{};
  out.FileId = 4242;
  EXPECT_EQ(sfl_StoreBasicItem(b.bh, nullptr, 500, &out, 0), -1);
  EXPECT_EQ(sfl_StoreBasicItem(b.bh, &source, 0, &out, 0), -1);
  EXPECT_EQ(sfl_StoreItemAtPosition(b.bh, nullptr, 500, &out, 0, 3), -1);
  EXPECT_EQ(out.FileId, 4242u);
  EXPECT_EQ(FreeMapOf(b.bh), map);
  sfl_FileHeader after = FileHeaderOf(b.bh);
  EXPECT_EQ(after.UsedItems, fh.UsedItems);
  EXPECT_EQ(after.InUseItms, fh.InUseItms);
  EXPECT_EQ(FileSizeOf(b.bh), size);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  EXPECT_EQ(os_CallCount(os_Op::Open), opens);  // the source was not opened
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, StoreAtAWantedPosition) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreItemAtPosition(b.bh, nullptr, 10, &ref, 0, 5);
  EXPECT_EQ(sfl_ItemNumOf(ref), 5u);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->HeaderOff, SFL_TABLE_OFFSET + 5 * SFL_ITEM_HEADER_SIZE);
  EXPECT_EQ(Slot(b.bh, 5).Valid, 1u);
  sfl_ItemRef other{};
  EXPECT_EQ(sfl_StoreItemAtPosition(b.bh, nullptr, 10, &other, 0, 5), -1);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, SizeZeroWithASourceTakesTheSourceSize) {
  Box b = NewBox();
  std::vector<uint8_t> data = Pattern(5000, 2);
  sfl_ItemRef source = SourceFile(data);
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, &source, 0, &ref, 0);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->Size, 5000u);
  EXPECT_EQ(Slot(b.bh, 1).UsedBlocks, sfl_CalculateBlocks(5000));
  EXPECT_EQ(ReadAll(h), data);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, ShortSourceIsZeroFilledUnlessToldNot) {
  Box b = NewBox();
  sfl_ItemRef keep{};
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 10, &keep, 0));
  std::vector<uint8_t> old = Pattern(1000, 3);
  std::vector<uint8_t> head = Pattern(300, 4);
  sfl_ItemRef source = SourceFile(head);

  // Leave known bytes in a run, free it, then store over it.
  auto leaveOldBytes = [&] {
    sfl_ItemRef r{};
    int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 1000, &r, 0);
    EXPECT_EQ(sfl_WriteSimpleData(h, 0, 1000, old.data()), 1000);
    uint32_t offset = sfl_ItemHandle2Record(h)->Offset;
    DeleteNow(h);
    return offset;
  };

  uint32_t offset = leaveOldBytes();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, &source, 1000, &ref, 0);
  ASSERT_EQ(sfl_ItemHandle2Record(h)->Offset, offset);
  std::vector<uint8_t> want = head;
  want.resize(1000, 0);
  EXPECT_EQ(ReadAll(h), want);
  DeleteNow(h);

  offset = leaveOldBytes();
  h = sfl_StoreBasicItem(b.bh, &source, 1000, &ref, 1);
  ASSERT_EQ(sfl_ItemHandle2Record(h)->Offset, offset);
  want = head;
  want.insert(want.end(), old.begin() + 300, old.end());
  EXPECT_EQ(ReadAll(h), want);
  DeleteNow(h);

  // Without a source, no zero fill keeps every old byte.
  offset = leaveOldBytes();
  h = sfl_StoreBasicItem(b.bh, nullptr, 1000, &ref, 1);
  ASSERT_EQ(sfl_ItemHandle2Record(h)->Offset, offset);
  EXPECT_EQ(ReadAll(h), old);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, CopiesAndZeroFillsMoveData8192BytesAtATime) {
  Box b = NewBox();
  std::vector<uint8_t> data = Pattern(20000, 5);
  sfl_ItemRef source = SourceFile(data);
  sfl_ItemRef ref{};
  uint64_t reads = os_CallCount(os_Op::Read);
  int32_t h = sfl_StoreBasicItem(b.bh, &source, 0, &ref, 0);
  EXPECT_EQ(os_CallCount(os_Op::Read) - reads, 3u);  // 8192 + 8192 + 3616
  EXPECT_EQ(ReadAll(h), data);
  sfl_CloseItem(h);

  // Zero fill of 20000 bytes: three writes more than the same store without.
  uint64_t w0 = os_CallCount(os_Op::Pwrite);
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 20000, &ref, 1));
  uint64_t without = os_CallCount(os_Op::Pwrite) - w0;
  w0 = os_CallCount(os_Op::Pwrite);
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 20000, &ref, 0));
  EXPECT_EQ(os_CallCount(os_Op::Pwrite) - w0 - without, 3u);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, ShortWriteWhileFillingFailsWith28851AndLeaksNoRecord) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  // Measure the writes of one store; its last zero-fill write comes just
  // before the header write that ends the store.
  uint64_t w0 = os_CallCount(os_Op::Pwrite);
  const int32_t first = sfl_StoreBasicItem(b.bh, nullptr, 10000, &ref, 0);
  uint64_t writes = os_CallCount(os_Op::Pwrite) - w0;
  sfl_CloseItem(first);
  ASSERT_GE(writes, 3u);

  int items = sfl_OpenItems().InUseCount();
  int32_t open = sfl_Handle2Record(b.bh)->IntItemsOpen;
  std::vector<uint8_t> map = FreeMapOf(b.bh);
  sfl_FileHeader fh = FileHeaderOf(b.bh);
  os_ShortNth(os_Op::Pwrite, static_cast<unsigned>(writes - 1), 100);
  EXPECT_EQ(ReasonOf([&] { sfl_StoreBasicItem(b.bh, nullptr, 10000, &ref, 0); }),
            SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  EXPECT_EQ(sfl_Handle2Record(b.bh)->IntItemsOpen, open);
  // The slot and the run it had taken are given back.
  EXPECT_EQ(FreeMapOf(b.bh), map);
  EXPECT_EQ(FileHeaderOf(b.bh).UsedItems, fh.UsedItems);
  EXPECT_EQ(FileHeaderOf(b.bh).InUseItms, fh.InUseItms);

  // A short write while copying from a source fails the same way.
  sfl_ItemRef source = SourceFile(Pattern(10000, 6));
  w0 = os_CallCount(os_Op::Pwrite);
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, &source, 0, &ref, 0));
  writes = os_CallCount(os_Op::Pwrite) - w0;
  os_ShortNth(os_Op::Pwrite, static_cast<unsigned>(writes - 1), 100);
  EXPECT_EQ(ReasonOf([&] { sfl_StoreBasicItem(b.bh, &source, 0, &ref, 0); }), SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, StoreFromAMissingSourceLeavesTheFileAsItWas) {
  Box b = NewBox();
  sfl_ItemRef first{};
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 10, &first, 0));
  std::vector<uint8_t> map = FreeMapOf(b.bh);
  sfl_FileHeader fh = FileHeaderOf(b.bh);
  sfl_CloseFile(b.bh);

  sfl_ItemRef missing = SourceFile(Pattern(10, 1));
  char path[PATH_MAX];
  im_GetRealFileName(&missing, path, sizeof path);
  ASSERT_EQ(unlink(path), 0);
  sfl_ItemRef ref{};
  EXPECT_NE(ReasonOf([&] { sfl_AddItemToFile(&b.ref, 0, 0, &missing, 0, &ref); }), 0);
  EXPECT_FALSE(OpenHere(b.ref));  // the call opened the file and closed it again

  int32_t bh = sfl_OpenSfl(&b.ref, 0);
  EXPECT_EQ(FreeMapOf(bh), map);
  EXPECT_EQ(FileHeaderOf(bh).UsedItems, fh.UsedItems);
  EXPECT_EQ(FileHeaderOf(bh).InUseItms, fh.InUseItms);
  EXPECT_EQ(Slot(bh, 2).Valid, 0u);
  sfl_CloseFile(bh);
}

TEST(SimpleItems, CopySimpleItemPlacesDataUnderAGivenHeader) {
  Box b = NewBox();
  sfl_BaseRec* rec = sfl_Handle2Record(b.bh);
  int32_t slot = sfl_GetFreeItemSlot(rec, 0, -1);
  ASSERT_EQ(slot, 1);
  std::vector<uint8_t> data = Pattern(1000, 7);
  sfl_ItemRef source = SourceFile(data);
  int fd = im_OpenItem(&source);
  uint32_t headerOff = rec->ITableOff + static_cast<uint32_t>(slot) * SFL_ITEM_HEADER_SIZE;
  int32_t open = rec->IntItemsOpen;
  int32_t h = sfl_CopySimpleItem(b.bh, headerOff, fd, 100, 500, 0);
  close(fd);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(item->HeaderOff, headerOff);
  EXPECT_EQ(item->ItemNum, 0u);
  EXPECT_EQ(item->FileId, 0u);
  EXPECT_EQ(item->Size, 500u);
  EXPECT_EQ(item->OpenRefs, 1);
  EXPECT_EQ(rec->IntItemsOpen, open + 1);
  EXPECT_EQ(rec->NewlyCreated, 0u);
  EXPECT_EQ(ReadAll(h), std::vector<uint8_t>(data.begin() + 100, data.begin() + 600));
  sfl_ItemInfo s = Slot(b.bh, slot);
  EXPECT_EQ(s.Valid, 1u);
  EXPECT_EQ(s.AccCount, 1u);
  EXPECT_EQ(s.FileSize, 500u);
  EXPECT_EQ(s.UsedBlocks, 4u);
  EXPECT_EQ(s.FileOffset, item->Offset);

  // Without a source the run is zero filled; past the end of the source
  // the copy stops and the rest is zeros.
  int32_t slot2 = sfl_GetFreeItemSlot(rec, 0, -1);
  fd = im_OpenItem(&source);
  int32_t h2 = sfl_CopySimpleItem(b.bh, rec->ITableOff + static_cast<uint32_t>(slot2) * 64, fd,
                                  900, 300, 0);
  close(fd);
  std::vector<uint8_t> want(data.begin() + 900, data.end());
  want.resize(300, 0);
  EXPECT_EQ(ReadAll(h2), want);

  // A copy that fails gives its run back.
  std::vector<uint8_t> map = FreeMapOf(b.bh);
  int items = sfl_OpenItems().InUseCount();
  os_ShortNth(os_Op::Pwrite, 2, 10);  // after the map update, the first data write
  EXPECT_EQ(ReasonOf([&] { sfl_CopySimpleItem(b.bh, headerOff, -1, 0, 5000, 0); }),
            SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(FreeMapOf(b.bh), map);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items);
  sfl_CloseItem(h);
  sfl_CloseItem(h2);
  sfl_CloseFile(b.bh);
}

// ---- positional access --------------------------------------------------------------------

TEST(SimpleItems, PositionalTransfersStayInsideTheItem) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 200, &ref, 0);
  std::vector<uint8_t> data = Pattern(200, 8);
  EXPECT_EQ(sfl_WriteSimpleData(h, 0, 200, data.data()), 200);
  std::vector<uint8_t> buf(300);
  EXPECT_EQ(sfl_ReadSimpleData(h, 150, 50, buf.data()), 50);
  EXPECT_EQ(std::memcmp(buf.data(), data.data() + 150, 50), 0);
  EXPECT_EQ(ReasonOf([&] { sfl_ReadSimpleData(h, 150, 51, buf.data()); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_WriteSimpleData(h, 201, 0, buf.data()); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_WriteSimpleData(h, 0, 201, buf.data()); }), SFL_R_RANGE);
  EXPECT_EQ(sfl_ReadSimpleData(h, 200, 0, buf.data()), 0);
  // The item after it is untouched by a refused write.
  EXPECT_EQ(ReadAll(h), data);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, PositionalTransfersReturnTheSystemsCountUnchanged) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 200, &ref, 0);
  std::vector<uint8_t> data = Pattern(200, 9);
  uint64_t w0 = os_CallCount(os_Op::Pwrite);
  os_ShortNth(os_Op::Pwrite, 1, 30);
  EXPECT_EQ(sfl_WriteSimpleData(h, 0, 200, data.data()), 30);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite) - w0, 1u);  // one call, no retry
  os_ShortNth(os_Op::Pread, 1, 7);
  std::vector<uint8_t> buf(200);
  EXPECT_EQ(sfl_ReadSimpleData(h, 0, 200, buf.data()), 7);
  os_FailNth(os_Op::Pread, 1, EIO);
  EXPECT_EQ(sfl_ReadSimpleData(h, 0, 200, buf.data()), -1);
  os_ClearFaults();
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, SimpleWriteMarksDataUnsyncedWithoutFlushing) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0));
  sfl_CloseFile(b.bh);
  int32_t h = sfl_OpenItem(&ref, 0);
  sfl_BaseRec* rec = sfl_ItemHandle2Record(h)->BaseRecord;
  rec->DataUnsynced = 0;
  uint64_t flushes = os_CallCount(os_Op::Fdatasync);
  char c = 'x';
  EXPECT_EQ(sfl_WriteSimpleData(h, 5, 1, &c), 1);
  EXPECT_EQ(rec->DataUnsynced, 1u);
  EXPECT_EQ(os_CallCount(os_Op::Fdatasync), flushes);
  sfl_CloseItem(h);
}

TEST(SimpleItems, FindOffsetChecksTheRange) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 200, &ref, 0);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(sfl_FindOffsetChkSize(item, 20, 180), item->Offset + 20);
  EXPECT_EQ(ReasonOf([&] { sfl_FindOffsetChkSize(item, 20, 181); }), SFL_R_RANGE);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, BlockOffsetComesFromTheBlocksSection) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_CreateBlockedItem(b.bh, &ref);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  // Two blocks of a one-leaf tree, laid down by hand.
  std::vector<uint8_t> first = Pattern(300, 10), second = Pattern(200, 17);
  uint32_t units = 0;
  uint32_t off0 = sfl_GetFreeSpaceNew(item->BaseRecord, 300, &units);
  uint32_t off1 = sfl_GetFreeSpaceNew(item->BaseRecord, 200, &units);
  ASSERT_EQ(pwrite(item->BaseRecord->FileDes, first.data(), 300, off0), 300);
  ASSERT_EQ(pwrite(item->BaseRecord->FileDes, second.data(), 200, off1), 200);
  sfl_IndexRecord root = sfl_NewIndexRecord();
  root.Used = 2;
  root.EverUsed = 2;
  root.ParentOff = item->HeaderOff;
  root.Entries[0] = {off0, 300};
  root.Entries[1] = {off1, 200};
  sfl_WriteAnIndex(item, item->Offset, root);

  EXPECT_EQ(sfl_BlckFindOffsetChkSize(item, 0, 10, 290), off0 + 10);
  uint32_t at = sfl_BlckFindOffsetChkSize(item, 1, 50, 150);
  EXPECT_EQ(at, off1 + 50);
  std::vector<uint8_t> buf(150);
  ASSERT_EQ(pread(item->BaseRecord->FileDes, buf.data(), 150, at), 150);
  EXPECT_EQ(buf, std::vector<uint8_t>(second.begin() + 50, second.end()));
  // The range is checked against the block's own section.
  EXPECT_EQ(ReasonOf([&] { sfl_BlckFindOffsetChkSize(item, 1, 50, 151); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_BlckFindOffsetChkSize(item, 0, 0, 301); }), SFL_R_RANGE);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

// ---- serial access ---------------------------------------------------------------------------

TEST(SimpleItems, SerialTransfersMoveThePosition) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);
  std::vector<uint8_t> data = Pattern(100, 11);
  EXPECT_EQ(sfl_WriteSerialData(h, data.data(), 60), 60);
  EXPECT_EQ(sfl_WriteSerialData(h, data.data() + 60, 40), 40);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->CurrPos, 100u);
  sfl_seek(h, 0, SEEK_SET);
  std::vector<uint8_t> buf(150);
  EXPECT_EQ(sfl_ReadSerialData(h, buf.data(), 30), 30);
  // A read past the end is cut to what is left.
  EXPECT_EQ(sfl_ReadSerialData(h, buf.data() + 30, 120), 70);
  buf.resize(100);
  EXPECT_EQ(buf, data);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, SerialReadAtTheEndReturnsZeroAndWritePastItFails) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);
  std::vector<uint8_t> buf(100, 0x5a);
  EXPECT_EQ(sfl_seek(h, 0, SEEK_END), 100);
  EXPECT_EQ(sfl_ReadSerialData(h, buf.data(), 10), 0);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->CurrPos, 100u);

  sfl_seek(h, 90, SEEK_SET);
  uint64_t w0 = os_CallCount(os_Op::Pwrite);
  EXPECT_EQ(ReasonOf([&] { sfl_WriteSerialData(h, buf.data(), 11); }), SFL_R_RANGE);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), w0);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->CurrPos, 90u);
  EXPECT_EQ(ReadAll(h), std::vector<uint8_t>(100, 0));
  EXPECT_EQ(sfl_WriteSerialData(h, buf.data(), 10), 10);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, SeekRules) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);
  EXPECT_EQ(sfl_seek(h, 30, SEEK_SET), 30);
  // A relative seek back to exactly 0 is refused; an absolute one is not.
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, -30, SEEK_CUR); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, -31, SEEK_CUR); }), SFL_R_RANGE);
  EXPECT_EQ(sfl_seek(h, -29, SEEK_CUR), 1);
  EXPECT_EQ(sfl_seek(h, 0, SEEK_SET), 0);
  EXPECT_EQ(sfl_seek(h, 0, SEEK_CUR), 0);
  EXPECT_EQ(sfl_seek(h, 100, SEEK_CUR), 100);
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, 1, SEEK_CUR); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, 101, SEEK_SET); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, -1, SEEK_SET); }), SFL_R_RANGE);
  EXPECT_EQ(sfl_seek(h, 100, SEEK_SET), 100);
  sfl_seek(h, 10, SEEK_SET);
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, 1, SEEK_END); }), SFL_R_RANGE);
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, -1, SEEK_END); }), SFL_R_RANGE);
  EXPECT_EQ(sfl_seek(h, 0, SEEK_END), 100);
  sfl_seek(h, 10, SEEK_SET);
  EXPECT_EQ(sfl_seek(h, 55, 7), 10);  // an unknown whence changes nothing
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, DetailsGiveDescriptorOffsetSizeAndPosition) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);
  sfl_seek(h, 12, SEEK_SET);
  sfl_SimpleDetails d{};
  sfl_GetSimpleDetails(h, &d);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(d.FileDes, item->BaseRecord->FileDes);
  EXPECT_EQ(d.Offset, item->Offset);
  EXPECT_EQ(d.Size, 100u);
  EXPECT_EQ(d.CurrPos, 12u);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, SerialOperationsRefuseBlockedItems) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  item->Flags |= BLOCKED_ITEM;
  char buf[10] = {};
  sfl_SimpleDetails d{};
  EXPECT_EQ(ReasonOf([&] { sfl_ReadSerialData(h, buf, 10); }), SFL_R_BLOCKED);
  EXPECT_EQ(ReasonOf([&] { sfl_WriteSerialData(h, buf, 10); }), SFL_R_BLOCKED);
  EXPECT_EQ(ReasonOf([&] { sfl_seek(h, 0, SEEK_SET); }), SFL_R_BLOCKED);
  EXPECT_EQ(ReasonOf([&] { sfl_GetSimpleDetails(h, &d); }), SFL_R_BLOCKED);
  item->Flags &= ~static_cast<uint32_t>(BLOCKED_ITEM);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

// ---- size changes --------------------------------------------------------------------------

TEST(SimpleItems, TruncateStaysWithinTheReservedRun) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 200, &ref, 0);  // 2 units
  sfl_TruncateSimItem(h, 256);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->Size, 256u);
  EXPECT_EQ(Slot(b.bh, 1).FileSize, 256u);
  EXPECT_EQ(ReasonOf([&] { sfl_TruncateSimItem(h, 257); }), SFL_R_BEYOND_RESERVED);
  EXPECT_EQ(Slot(b.bh, 1).FileSize, 256u);

  sfl_seek(h, 150, SEEK_SET);
  sfl_TruncateSimItem(h, 50);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->CurrPos, 50u);
  EXPECT_EQ(Slot(b.bh, 1).FileSize, 50u);
  EXPECT_EQ(Slot(b.bh, 1).UsedBlocks, 2u);  // no space is freed
  sfl_seek(h, 20, SEEK_SET);
  sfl_TruncateSimItem(h, 100);
  EXPECT_EQ(sfl_ItemHandle2Record(h)->CurrPos, 20u);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, TruncateAndAppendRefuseBlockedItems) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);
  EditHeader(h, [](sfl_ItemHeader& hd) { hd.Flags |= BLOCKED_ITEM; });
  EXPECT_EQ(ReasonOf([&] { sfl_TruncateSimItem(h, 50); }), SFL_R_TRUNC_BLOCKED);
  char c = 0;
  EXPECT_EQ(ReasonOf([&] { sfl_AppendToSimpleItem(sfl_ItemHandle2Record(h), 1, &c); }),
            SFL_R_TRUNC_BLOCKED);
  EXPECT_EQ(Slot(b.bh, 1).FileSize, 100u);
  EditHeader(h, [](sfl_ItemHeader& hd) { hd.Flags &= ~static_cast<uint32_t>(BLOCKED_ITEM); });
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, TruncateTracesUnderTheSerialReadersName) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);
  int saved = er_SubSystemLoggingLevel;
  er_SubSystemLoggingLevel = 10;
  sfl_TruncateSimItem(h, 10);
  er_SubSystemLoggingLevel = saved;
  std::ifstream log(sfltest::TestDir() + "/sfl.log");
  std::stringstream text;
  text << log.rdbuf();
  EXPECT_NE(text.str().find("enter sfl_ReadSerialData"), std::string::npos);
  EXPECT_NE(text.str().find("exit  sfl_ReadSerialData"), std::string::npos);
  EXPECT_EQ(text.str().find("Truncate"), std::string::npos);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

TEST(SimpleItems, AppendWritesAtTheEndAndGrowsWithinTheRun) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 100, &ref, 0);  // 1 unit
  sfl_ItemRef after{};
  int32_t next = sfl_StoreBasicItem(b.bh, nullptr, 128, &after, 0);
  std::vector<uint8_t> first = Pattern(100, 12);
  sfl_WriteSimpleData(h, 0, 100, first.data());
  std::vector<uint8_t> more = Pattern(28, 13);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  sfl_AppendToSimpleItem(item, 28, more.data());
  EXPECT_EQ(item->Size, 128u);
  EXPECT_EQ(Slot(b.bh, 1).FileSize, 128u);
  std::vector<uint8_t> want = first;
  want.insert(want.end(), more.begin(), more.end());
  EXPECT_EQ(ReadAll(h), want);

  // One byte more than the run holds is refused and writes nothing.
  uint64_t w0 = os_CallCount(os_Op::Pwrite);
  EXPECT_EQ(ReasonOf([&] { sfl_AppendToSimpleItem(item, 1, more.data()); }), SFL_R_BEYOND_RESERVED);
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), w0);
  EXPECT_EQ(item->Size, 128u);
  EXPECT_EQ(ReadAll(next), std::vector<uint8_t>(128, 0));

  // A short write of the data fails with 28851.
  sfl_TruncateSimItem(h, 100);
  os_ShortNth(os_Op::Pwrite, 1, 3);
  EXPECT_EQ(ReasonOf([&] { sfl_AppendToSimpleItem(item, 28, more.data()); }), SFL_R_SHORT_WRITE);
  os_ClearFaults();
  EXPECT_EQ(Slot(b.bh, 1).FileSize, 100u);
  sfl_CloseItem(h);
  sfl_CloseItem(next);
  sfl_CloseFile(b.bh);
}

// ---- mapping ------------------------------------------------------------------------------------

TEST(SimpleItems, MapAnItemOrAPlainFile) {
  Box b = NewBox();
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 500, &ref, 0);
  std::vector<uint8_t> data = Pattern(500, 14);
  sfl_WriteSimpleData(h, 0, 500, data.data());
  sfl_ItemMap map{};
  EXPECT_EQ(sfl_mapItem(h, &map), &map);
  EXPECT_EQ(map.MappedLength, static_cast<uint32_t>(FileSizeOf(b.bh)));
  EXPECT_EQ(map.Size, 500u);
  EXPECT_EQ(static_cast<uint8_t*>(map.Data) - static_cast<uint8_t*>(map.Base),
            static_cast<ptrdiff_t>(sfl_ItemHandle2Record(h)->Offset));
  EXPECT_EQ(std::memcmp(map.Data, data.data(), 500), 0);
  EXPECT_EQ(sfl_unMapItem(&map), 0);

  std::vector<uint8_t> plain = Pattern(3000, 15);
  sfl_ItemRef source = SourceFile(plain);
  int fd = im_OpenItem(&source);
  sfl_ItemMap fmap{};
  sfl_mapItem(fd, &fmap);
  EXPECT_EQ(fmap.Data, fmap.Base);
  EXPECT_EQ(fmap.Size, 3000u);
  EXPECT_EQ(fmap.MappedLength, 3000u);
  EXPECT_EQ(std::memcmp(fmap.Data, plain.data(), 3000), 0);
  EXPECT_EQ(sfl_unMapItem(&fmap), 0);
  close(fd);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

// ---- storing by file reference and beside an open item ----------------------------------------

TEST(SimpleItems, AddItemToFileOpensTheFileForTheItem) {
  Box b = NewBox();
  sfl_ItemRef first{};
  sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 10, &first, 0));  // an empty file goes at close
  sfl_CloseFile(b.bh);
  ASSERT_FALSE(OpenHere(b.ref));
  sfl_ItemRef named = b.ref;
  named.Flags |= 3;  // the item-number bits are ignored
  sfl_ItemRef ref{};
  int32_t h = sfl_AddItemToFile(&named, 100, 0, nullptr, 0, &ref);
  EXPECT_TRUE(OpenHere(b.ref));
  sfl_ItemRef file = ref;
  file.Flags = static_cast<uint16_t>(file.Flags & ~SFL_ITEM_NUM_MASK);
  EXPECT_TRUE(sfl_SameFile(file, b.ref));
  sfl_CloseItem(h);
  EXPECT_FALSE(OpenHere(b.ref));  // the item's close closed the file
  EXPECT_EQ(sfl_ItemExists(&ref), 1);
}

TEST(SimpleItems, AddItemToAFullFileFallsBackToANewContainer) {
  Box b = NewBox();
  for (int i = 0; i < 7; ++i) {
    sfl_ItemRef r{};
    sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 10, &r, 0));
  }
  sfl_CloseFile(b.bh);
  std::vector<uint8_t> data = Pattern(700, 16);
  sfl_ItemRef source = SourceFile(data);
  sfl_ItemRef ref{};
  int32_t h = sfl_AddItemToFile(&b.ref, 0, 0, &source, 0, &ref);
  ASSERT_GE(h, SFL_ITEM_HANDLE_FIRST);
  EXPECT_FALSE(OpenHere(b.ref));  // the full file was closed again
  sfl_ItemRef file = ref;
  file.Flags = static_cast<uint16_t>(file.Flags & ~SFL_ITEM_NUM_MASK);
  EXPECT_FALSE(sfl_SameFile(file, b.ref));
  EXPECT_EQ(sfl_ItemNumOf(ref), 1u);
  EXPECT_EQ(ReadAll(h), data);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  EXPECT_EQ(item->RefFlags, ref.Flags);
  EXPECT_EQ(item->BaseRecord->OpenMode, 1u);
  sfl_CloseItem(h);
  EXPECT_FALSE(OpenHere(file));  // the new container goes with its item
  int32_t again = sfl_OpenItem(&ref, 0);
  EXPECT_EQ(ReadAll(again), data);
  sfl_CloseItem(again);
}

TEST(SimpleItems, StoreBesideAnOpenItemUsesItsFileOrFallsBack) {
  Box b = NewBox();
  sfl_ItemRef first{};
  int32_t h = sfl_StoreBasicItem(b.bh, nullptr, 10, &first, 0);
  sfl_ItemRef ref{};
  int32_t beside = sfl_StoreItemWithOpenItem(h, 20, 0, nullptr, 0, &ref, 0);
  EXPECT_EQ(sfl_ItemHandle2Record(beside)->BaseHandle, b.bh);
  EXPECT_EQ(sfl_ItemNumOf(ref), 2u);
  sfl_CloseItem(beside);
  for (int i = 0; i < 5; ++i) {
    sfl_ItemRef r{};
    sfl_CloseItem(sfl_StoreBasicItem(b.bh, nullptr, 10, &r, 0));
  }
  int32_t placed = sfl_StoreItemWithOpenItem(h, 300, 0, nullptr, 0, &ref, 0);
  ASSERT_GE(placed, SFL_ITEM_HANDLE_FIRST);
  sfl_ItemRec* item = sfl_ItemHandle2Record(placed);
  EXPECT_NE(item->BaseHandle, b.bh);
  EXPECT_EQ(item->Size, 300u);
  EXPECT_EQ(ReadAll(placed), std::vector<uint8_t>(300, 0));
  sfl_ItemRef file = ref;
  file.Flags = static_cast<uint16_t>(file.Flags & ~SFL_ITEM_NUM_MASK);
  EXPECT_FALSE(sfl_SameFile(file, b.ref));
  sfl_CloseItem(placed);
  EXPECT_FALSE(OpenHere(file));
  EXPECT_EQ(sfl_ItemExists(&ref), 1);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
}

}  // namespace
