// Internal items: creating them inside simple and blocked parents, opening
// them by position, closing, and removing them (releasing their space but
// not the parent's bytes), with the refusals of each step.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mdc.h"
#include "os.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

using sfltest::EscapeCodeOf;

constexpr long Sfl(int reason) { return sfltest::EscapeCode(ER_GROUP_SFL, reason); }
constexpr long Table(int reason) { return sfltest::EscapeCode(ER_GROUP_TABLE, reason); }

class IntItem : public sfltest::ParentItemTest {
 protected:
  bool Marked(uint32_t unit) {
    Bytes m = Map();
    return ((m[unit / 8] >> (unit % 8)) & 1) != 0;
  }
};

TEST_F(IntItem, ANewItemHasAnEmptyTreeSize384AndAttachCountZero) {
  sfl_SetItemUserNoSync(parent_, 1);
  const int32_t opensBefore = rec_->IntItemsOpen;
  const uint32_t now = mdc_time();
  const int32_t h = sfl_CreateIntBItem(parent_, 0, 128, HAS_INT_ITEM);
  sfl_ItemRec* item = Rec(h);
  sfl_ItemRec* parent = Rec(parent_);
  EXPECT_EQ(item->Size, 384u);
  EXPECT_EQ(item->HeaderOff, parent->Offset + 128);
  EXPECT_EQ(item->ItemNum, parent->ItemNum);
  EXPECT_EQ(item->BaseHandle, base_);
  EXPECT_EQ(item->OpenRefs, 1);
  EXPECT_EQ(item->Flags, static_cast<uint32_t>(BLOCKED_ITEM | INT_ITEM | HAS_INT_ITEM));
  EXPECT_EQ(item->LastIdxOff, item->Offset);
  EXPECT_EQ(item->LastIdxBase, 0u);
  EXPECT_EQ(item->ItemUserNoSync, 1u);
  EXPECT_EQ(item->FileId, 0u);  // no reference of its own
  EXPECT_EQ(rec_->IntItemsOpen, opensBefore);

  const sfl_ItemHeader hd = Header(item->HeaderOff);
  EXPECT_EQ(hd.Magic, SFL_MAGIC);
  EXPECT_EQ(hd.Type, SFL_TYPE_ITEM_HEADER);
  EXPECT_EQ(hd.AccCount, 0u);
  EXPECT_EQ(hd.FileSize, 384u);
  EXPECT_EQ(hd.UsedBlocks, 3u);
  EXPECT_GE(hd.ChangeDate, now);
  EXPECT_EQ(hd.FileOffset, item->Offset);
  EXPECT_EQ(hd.IndexDepth, 0u);
  EXPECT_EQ(hd.Flags, item->Flags);

  // The root is an empty record: magic and type, nothing else.
  const Bytes root = Raw(hd.FileOffset, SFL_INDEX_SIZE);
  sfl_IndexBytes want;
  sfl_EncodeIndex(sfl_NewIndexRecord(), want);
  EXPECT_EQ(root, Bytes(want.begin(), want.end()));
  for (uint32_t u = hd.FileOffset / 128; u < hd.FileOffset / 128 + 3; ++u) EXPECT_TRUE(Marked(u));

  // Usable at once.
  const uint8_t data[5] = {1, 2, 3, 4, 5};
  EXPECT_EQ(sfl_WriteBlockedData(h, 0, 5, data), 5);
  EXPECT_EQ(sfl_GetNewBlock(h, 5, 1, data), 1);
  sfl_CloseIntItem(h);
  EXPECT_EQ(rec_->IntItemsOpen, opensBefore);
}

TEST_F(IntItem, OpeningReadsTheHeaderAndGivesANewHandleEachTime) {
  const int32_t h = sfl_CreateIntBItem(parent_, 0, 64, 0);
  const uint8_t data[3] = {7, 8, 9};
  ASSERT_EQ(sfl_WriteBlockedData(h, 40, 3, data), 3);  // the root moves up a level
  const int32_t a = sfl_OpenIntItem(parent_, 0, 64);
  const int32_t b = sfl_OpenIntItem(parent_, 0, 64);
  EXPECT_NE(a, b);
  EXPECT_NE(a, h);
  const sfl_ItemHeader hd = Header(Rec(h)->HeaderOff);
  EXPECT_EQ(hd.IndexDepth, 1u);
  EXPECT_EQ(Rec(h)->Offset, hd.FileOffset);  // the creating handle follows the new root
  for (int32_t x : {a, b}) {
    sfl_ItemRec* r = Rec(x);
    EXPECT_EQ(r->OpenRefs, 1);
    EXPECT_EQ(r->Offset, hd.FileOffset);
    EXPECT_EQ(r->Size, hd.FileSize);
    EXPECT_EQ(r->Flags, hd.Flags);
    EXPECT_EQ(r->LastIdxOff, 0u);
    EXPECT_EQ(r->ItemUserNoSync, 0u);
    uint8_t got[3] = {0};
    EXPECT_EQ(sfl_ReadBlockedData(x, 40, 3, got), 3u);
    EXPECT_EQ(Bytes(got, got + 3), Bytes(data, data + 3));
  }
  EXPECT_TRUE(LockableElsewhere(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseIntItem(a);
  sfl_CloseIntItem(b);
  sfl_CloseIntItem(h);
}

TEST_F(IntItem, OpeningWhereNoHeaderLiesRaises28883) {
  const int32_t before = sfl_OpenItems().InUseCount();
  EXPECT_EQ(EscapeCodeOf([&] { sfl_OpenIntItem(parent_, 0, 256); }), Sfl(SFL_R_NOT_INT_ITEM));
  // Right magic and type but no tree.
  sfl_ItemHeader hd = sfl_NewItemHeader();
  hd.FileSize = 384;
  hd.Flags = BLOCKED_ITEM | INT_ITEM;
  sfl_ItemHeaderBytes b;
  sfl_EncodeItemHeader(hd, b);
  ASSERT_EQ(sfl_WriteSimpleData(parent_, 320, SFL_ITEM_HEADER_SIZE, b.data()),
            static_cast<int32_t>(SFL_ITEM_HEADER_SIZE));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_OpenIntItem(parent_, 0, 320); }), Sfl(SFL_R_NOT_INT_ITEM));
  // Another record type there.
  hd.Type = SFL_TYPE_INDEX;
  hd.FileOffset = 4096;
  sfl_EncodeItemHeader(hd, b);
  ASSERT_EQ(sfl_WriteSimpleData(parent_, 320, SFL_ITEM_HEADER_SIZE, b.data()),
            static_cast<int32_t>(SFL_ITEM_HEADER_SIZE));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_OpenIntItem(parent_, 0, 320); }), Sfl(SFL_R_NOT_INT_ITEM));
  EXPECT_EQ(sfl_OpenItems().InUseCount(), before);
  EXPECT_TRUE(LockableElsewhere(Rec(parent_)->Offset + 256, SFL_ITEM_HEADER_SIZE));
  EXPECT_TRUE(LockableElsewhere(Rec(parent_)->Offset + 320, SFL_ITEM_HEADER_SIZE));
}

TEST_F(IntItem, PositionsOutsideTheParentAreRefused) {
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CreateIntBItem(parent_, 1, 0, 0); }), Sfl(SFL_R_BLOCK_FOR_SIMPLE));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_OpenIntItem(parent_, 2, 0); }), Sfl(SFL_R_BLOCK_FOR_SIMPLE));
  const Bytes map = Map();
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CreateIntBItem(parent_, 0, 449, 0); }), Sfl(SFL_R_RANGE));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_OpenIntItem(parent_, 0, 449); }), Sfl(SFL_R_RANGE));
  EXPECT_EQ(Map(), map);
  // The last position that fits.
  const int32_t h = sfl_CreateIntBItem(parent_, 0, 448, 0);
  EXPECT_EQ(Rec(h)->HeaderOff, Rec(parent_)->Offset + 448);
  sfl_CloseIntItem(h);
}

TEST_F(IntItem, InABlockedParentTheHeaderLiesInsideTheBlock) {
  const int32_t outer = sfl_CreateIntBItem(parent_, 0, 0, 0);
  Bytes block(256, 0);
  ASSERT_EQ(sfl_WriteBlockedData(outer, 3, 256, block.data()), 256);
  const int32_t inner = sfl_CreateIntBItem(outer, 3, 64, 0);
  sfl_IndexRecord root;
  sfl_FindBlock(Rec(outer), 3, &root);
  const uint32_t blockOff = root.Entries[3].SectionOffSet;
  EXPECT_EQ(Rec(inner)->HeaderOff, blockOff + 64);
  EXPECT_EQ(Rec(inner)->ItemNum, Rec(outer)->ItemNum);

  const uint8_t data[4] = {4, 3, 2, 1};
  ASSERT_EQ(sfl_WriteBlockedData(inner, 0, 4, data), 4);
  // The header shows through the outer item's block.
  Bytes seen(256);
  ASSERT_EQ(sfl_ReadBlockedData(outer, 3, 256, seen.data()), 256u);
  const sfl_ItemHeader hd =
      sfl_DecodeItemHeader(std::span<const uint8_t, SFL_ITEM_HEADER_SIZE>(seen.data() + 64, SFL_ITEM_HEADER_SIZE));
  EXPECT_EQ(hd.Magic, SFL_MAGIC);
  EXPECT_EQ(hd.Flags, static_cast<uint32_t>(BLOCKED_ITEM | INT_ITEM));

  const int32_t again = sfl_OpenIntItem(outer, 3, 64);
  uint8_t got[4] = {0};
  EXPECT_EQ(sfl_ReadBlockedData(again, 0, 4, got), 4u);
  EXPECT_EQ(Bytes(got, got + 4), Bytes(data, data + 4));
  // 64 bytes from position 193 would pass the block's end.
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CreateIntBItem(outer, 3, 193, 0); }), Sfl(SFL_R_RANGE));
  sfl_CloseIntItem(again);
  sfl_CloseIntItem(inner);
  sfl_CloseIntItem(outer);
}

TEST_F(IntItem, RemovingReleasesTheTreeAndWipesTheHeaderOnly) {
  const Bytes before = Map();
  const Bytes parentBefore = Raw(Rec(parent_)->Offset, 512);
  const int32_t h = sfl_CreateIntBItem(parent_, 0, 192, 0);
  for (uint32_t b = 0; b < 50; ++b) {
    Bytes d(100 + b, static_cast<uint8_t>(b));
    ASSERT_GE(sfl_GetNewBlock(h, static_cast<int32_t>(d.size()), 1, d.data()), 0);
  }
  Bytes far(30, 9);
  ASSERT_EQ(sfl_WriteBlockedData(h, 2000, 30, far.data()), 30);
  ASSERT_NE(Map(), before);
  const uint32_t headerOff = Rec(h)->HeaderOff;

  sfl_RemoveIntItem(h);
  EXPECT_EQ(Map(), before);
  EXPECT_EQ(Raw(headerOff, SFL_ITEM_HEADER_SIZE), Bytes(SFL_ITEM_HEADER_SIZE, 0));
  // The rest of the parent is as it was (its header bytes were zero before).
  EXPECT_EQ(Raw(Rec(parent_)->Offset, 512), parentBefore);
  EXPECT_EQ(Header(Rec(parent_)->HeaderOff).Flags & HAS_INT_ITEM, 0u);
  // The handle stays open until it is closed.
  EXPECT_EQ(Rec(h)->OpenRefs, 1);
  EXPECT_TRUE(LockableElsewhere(headerOff, SFL_ITEM_HEADER_SIZE));
  sfl_CloseIntItem(h);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_OpenIntItem(parent_, 0, 192); }), Sfl(SFL_R_NOT_INT_ITEM));
}

TEST_F(IntItem, RemovingAnItemOpenTwiceRaises28878AndChangesNothing) {
  const int32_t h = sfl_CreateIntBItem(parent_, 0, 0, 0);
  const uint8_t d[10] = {1};
  ASSERT_EQ(sfl_WriteBlockedData(h, 0, 10, d), 10);
  // A second open sharing the record.
  ++Rec(h)->OpenRefs;
  const Bytes map = Map();
  const Bytes header = Raw(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_RemoveIntItem(h); }), Sfl(SFL_R_INT_OPEN_TWICE));
  EXPECT_EQ(Map(), map);
  EXPECT_EQ(Raw(Rec(h)->HeaderOff, SFL_ITEM_HEADER_SIZE), header);

  // The first close only lowers the count; then removal goes through.
  sfl_CloseIntItem(h);
  EXPECT_EQ(Rec(h)->OpenRefs, 1);
  sfl_RemoveIntItem(h);
  sfl_CloseIntItem(h);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_ItemHandle2Record(h); }), Table(SFL_R_BAD_HANDLE));
}

TEST_F(IntItem, RemovingAnItemWithoutATreeFreesItsRun) {
  uint32_t units = 0;
  const uint32_t run = sfl_GetFreeSpaceNew(rec_, 256, &units);
  ASSERT_EQ(units, 2u);
  sfl_ItemHeader hd = sfl_NewItemHeader();
  hd.FileOffset = run;
  hd.FileSize = 256;
  hd.UsedBlocks = units;
  hd.Flags = INT_ITEM;
  sfl_ItemHeaderBytes b;
  sfl_EncodeItemHeader(hd, b);
  ASSERT_EQ(sfl_WriteSimpleData(parent_, 0, SFL_ITEM_HEADER_SIZE, b.data()),
            static_cast<int32_t>(SFL_ITEM_HEADER_SIZE));
  const int32_t h = sfl_OpenIntItem(parent_, 0, 0);
  EXPECT_EQ(Rec(h)->Flags, static_cast<uint32_t>(INT_ITEM));
  EXPECT_TRUE(Marked(run / 128));
  sfl_RemoveIntItem(h);
  EXPECT_FALSE(Marked(run / 128));
  EXPECT_FALSE(Marked(run / 128 + 1));
  sfl_CloseIntItem(h);
}

TEST_F(IntItem, SingleItemFilesRefuseBeforeTakingAnySpace) {
  const int32_t single = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
  sfl_ItemRef ref{};
  const int32_t p = sfl_StoreBasicItem(single, nullptr, 512, &ref, 0);
  ASSERT_GE(p, SFL_ITEM_HANDLE_FIRST);
  struct stat before;
  ASSERT_EQ(::fstat(sfl_Handle2Record(single)->FileDes, &before), 0);
  const uint64_t writes = os_CallCount(os_Op::Pwrite);
  const uint64_t locks = os_CallCount(os_Op::Lock);
  const int32_t records = sfl_OpenItems().InUseCount();
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CreateIntBItem(p, 0, 0, 0); }), Sfl(SFL_R_SINGLE_FILE));
  EXPECT_EQ(EscapeCodeOf([&] { sfl_GenCreateIntBItem(Rec(p), Rec(p)->Offset, 0); }),
            Sfl(SFL_R_SINGLE_FILE));
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), writes);
  EXPECT_EQ(os_CallCount(os_Op::Lock), locks);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), records);
  struct stat after;
  ASSERT_EQ(::fstat(sfl_Handle2Record(single)->FileDes, &after), 0);
  EXPECT_EQ(after.st_size, before.st_size);
  sfl_CloseItem(p);
}

TEST_F(IntItem, AHeaderPlaceOnTheFileHeaderTheMapsSlotOrAcrossSlotsIsRefusedBeforeAnythingIsTaken) {
  sfl_ItemRec* parent = Rec(parent_);
  const uint32_t table = rec_->ITableOff;
  const uint32_t places[] = {
      3,                                    // inside the file header
      table,                                // the free map's own slot
      static_cast<uint32_t>(table + SFL_ITEM_HEADER_SIZE + 5),  // across two user slots
      rec_->DataOff - 1,                    // the last slot and the data area
  };
  const std::vector<uint8_t> head = Raw(0, rec_->DataOff);
  const std::vector<uint8_t> mapBefore = Map();
  const int32_t records = sfl_OpenItems().InUseCount();
  const uint64_t writes = os_CallCount(os_Op::Pwrite);
  for (uint32_t at : places)
    EXPECT_EQ(EscapeCodeOf([&] { sfl_GenCreateIntBItem(parent, at, 0); }), Sfl(SFL_R_RANGE)) << at;
  EXPECT_EQ(os_CallCount(os_Op::Pwrite), writes);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), records);
  EXPECT_EQ(Raw(0, rec_->DataOff), head);
  EXPECT_EQ(Map(), mapBefore);

  // A free user slot and a place inside the parent's data are the caller's.
  const int32_t inSlot = sfl_GenCreateIntBItem(parent, table + 6 * SFL_ITEM_HEADER_SIZE, 0);
  EXPECT_EQ(Header(table + 6 * SFL_ITEM_HEADER_SIZE).FileSize, 384u);
  const int32_t inData = sfl_GenCreateIntBItem(parent, parent->Offset + 64, 0);
  EXPECT_EQ(Header(parent->Offset + 64).FileSize, 384u);
  sfl_CloseIntItem(inSlot);
  sfl_CloseIntItem(inData);
}

TEST_F(IntItem, AnEmptyRecordThatCannotBeWrittenRaises28851AndTakesNoRecord) {
  const int32_t records = sfl_OpenItems().InUseCount();
  os_ShortNth(os_Op::Pwrite, 2, 100);  // the first write is the map's, the second the record
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CreateIntBItem(parent_, 0, 0, 0); }), Sfl(SFL_R_SHORT_WRITE));
  os_ClearFaults();
  EXPECT_EQ(sfl_OpenItems().InUseCount(), records);
  EXPECT_EQ(Header(Rec(parent_)->Offset).Magic, 0u);  // no header was written
}

TEST_F(IntItem, ClosingTheLastOpenFreesTheRecordAndLeavesTheFile) {
  const int32_t h = sfl_CreateIntBItem(parent_, 0, 0, 0);
  const int32_t opens = rec_->IntItemsOpen;
  const int32_t external = rec_->ExternalOpens;
  sfl_CloseIntItem(h);
  EXPECT_EQ(EscapeCodeOf([&] { sfl_CloseIntItem(h); }), Table(SFL_R_BAD_HANDLE));
  EXPECT_EQ(rec_->IntItemsOpen, opens);
  EXPECT_EQ(rec_->ExternalOpens, external);
  EXPECT_EQ(rec_->InUse, 1u);
  // The item itself is still there.
  const int32_t again = sfl_OpenIntItem(parent_, 0, 0);
  EXPECT_EQ(Rec(again)->Size, 384u);
  sfl_CloseIntItem(again);
}

TEST_F(IntItem, ClosingAContainerClosesItsFreeMapItem) {
  sfl_CloseItem(parent_);
  const int32_t before = sfl_OpenItems().InUseCount();
  ASSERT_NE(rec_->FreeMapItem, nullptr);
  // A file kept in the cold store keeps its free-map item; one evicted from
  // it gives the record back.
  sfl_CloseFile(base_);
  const int32_t kept = sfl_OpenItems().InUseCount();
  EXPECT_EQ(kept, before);
  sfl_BaseRec* rec = nullptr;
  int32_t handle = -1;
  EXPECT_EQ(sfl_CheckFileAccessed(&fileRef_, &rec, &handle, 0, nullptr), 0);  // closed for good
  EXPECT_EQ(sfl_OpenItems().InUseCount(), before - 1);
}

}  // namespace
