// Diagnostic dumps: the exact text of the file-header, item-header, index
// entry and index-record dumps (records built byte by byte), the block
// listing of real blocked items (holes, missing branches, a missing block 0,
// escapes it passes on), and the dumps of this process's open-files,
// open-items and stream tables.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Runs `fn` with a memory stream and returns what it printed there.
std::string Printed(const std::function<void(FILE*)>& fn) {
  char* text = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&text, &len);
  EXPECT_NE(out, nullptr);
  try {
    fn(out);
  } catch (...) {
    std::fclose(out);
    std::free(text);
    throw;
  }
  std::fclose(out);
  std::string s(text, len);
  std::free(text);
  return s;
}

// `text` right-aligned in `width` characters, as a printf field would be.
std::string Pad(const std::string& text, size_t width) {
  return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}
std::string Pad(uint64_t v, size_t width) { return Pad(std::to_string(v), width); }

std::string Hex(uint32_t v, bool upper) {
  char buf[16];
  std::snprintf(buf, sizeof buf, upper ? "%X" : "%x", v);
  return buf;
}

// ---- records built byte by byte ----------------------------------------------------------

Bytes FileHeader(uint16_t usedItems, uint16_t maxItems, uint32_t flags, uint32_t dataOffset,
                 uint8_t inUse) {
  Bytes b(128, 0);
  sfl_PutU32(&b[0], 12345678);
  sfl_PutU32(&b[4], 16);
  sfl_PutU32(&b[8], 128);
  sfl_PutU32(&b[12], 2);
  sfl_PutU16(&b[16], usedItems);
  sfl_PutU16(&b[18], maxItems);
  sfl_PutU32(&b[20], flags);
  sfl_PutU32(&b[24], 128);
  sfl_PutU32(&b[28], dataOffset);
  b[32] = inUse;
  b[33] = 0xFF;  // reserved bytes are not shown
  return b;
}

Bytes ItemHeader(uint32_t accCount, uint32_t fileSize, uint32_t usedBlocks, uint32_t changeDate,
                 uint32_t fileOffset, uint32_t indexDepth, uint32_t flags) {
  Bytes b(64, 0);
  sfl_PutU32(&b[0], 12345678);
  sfl_PutU32(&b[4], 17);
  sfl_PutU32(&b[8], accCount);
  sfl_PutU32(&b[12], fileSize);
  sfl_PutU32(&b[16], usedBlocks);
  sfl_PutU32(&b[20], changeDate);
  sfl_PutU32(&b[24], fileOffset);
  sfl_PutU32(&b[28], indexDepth);
  sfl_PutU32(&b[32], flags);
  return b;
}

Bytes IndexRecord(uint32_t depth, uint32_t used, uint32_t everUsed, uint32_t baseBlock,
                  uint32_t parentOff, uint32_t freeMap) {
  Bytes b(384, 0);
  sfl_PutU32(&b[0], 12345678);
  sfl_PutU32(&b[4], 18);
  sfl_PutU32(&b[8], depth);
  sfl_PutU32(&b[12], used);
  sfl_PutU32(&b[16], everUsed);
  sfl_PutU32(&b[20], baseBlock);
  sfl_PutU32(&b[24], parentOff);
  sfl_PutU32(&b[28], freeMap);
  return b;
}

void SetEntry(Bytes& record, int entry, uint32_t offset, uint32_t size) {
  sfl_PutU32(&record[32 + 8 * entry], offset);
  sfl_PutU32(&record[32 + 8 * entry + 4], size);
}

// ---- the file header ---------------------------------------------------------------------

TEST(DumpHeader, WholeText) {
  const Bytes h = FileHeader(3, 8, SINGLE_FILE | ASYNCHRONOUS | ITEM_PEND_DEL, 640, 0x0D);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpHeader(f, h.data(), 0); }),
            "=HHHHHHHHHHHHHHHHHHHHHHHH=\n"
            "Location=0x00000000 (0)\n"
            "HeaderSize=128\n"
            "HeaderVersion=2\n"
            "UsedItems=3\n"
            "MaxItems=8\n"
            "Flags=0x0000000b\n"
            "SINGLE_FILE ASYNCHRONOUS ITEM_PEND_DEL \n"
            "TableOffset=0x00000080\n"
            "DataOffset=0x00000280\n"
            "InUseItms BitMap=10110000 \n");
}

TEST(DumpHeader, BitFourShowsBothNamesInOrder) {
  const Bytes h = FileHeader(1, 8, 0x04, 640, 0x01);
  const std::string text = Printed([&](FILE* f) { sfl_DumpHeader(f, h.data(), 0); });
  EXPECT_NE(text.find("Flags=0x00000004\nBEEN_COMPACTED USER_ASYNC \nTableOffset="),
            std::string::npos)
      << text;
}

TEST(DumpHeader, EveryFlagInTableOrder) {
  const Bytes h = FileHeader(1, 8, 0x3F, 640, 0xFF);
  const std::string text = Printed([&](FILE* f) { sfl_DumpHeader(f, h.data(), 0); });
  EXPECT_NE(text.find("Flags=0x0000003f\n"
                      "SINGLE_FILE ASYNCHRONOUS BEEN_COMPACTED USER_ASYNC ITEM_PEND_DEL "
                      "NEED_COMPACTION HAS_BEEN_COMPACTED \n"
                      "TableOffset="),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("InUseItms BitMap=11111111 \n"), std::string::npos) << text;
}

TEST(DumpHeader, NoFlagsNoFlagLine) {
  const Bytes h = FileHeader(0, 2, 0, 256, 0x02);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpHeader(f, h.data(), 4096); }),
            "=HHHHHHHHHHHHHHHHHHHHHHHH=\n"
            "Location=0x00001000 (4096)\n"
            "HeaderSize=128\n"
            "HeaderVersion=2\n"
            "UsedItems=0\n"
            "MaxItems=2\n"
            "Flags=0x00000000\n"
            "TableOffset=0x00000080\n"
            "DataOffset=0x00000100\n"
            "InUseItms BitMap=01000000 \n");
}

// Flag bits that have no name are shown in the hexadecimal value only.
TEST(DumpHeader, UnnamedBitsGiveNoNames) {
  const Bytes h = FileHeader(0, 8, 0x80000040, 640, 0x01);
  const std::string text = Printed([&](FILE* f) { sfl_DumpHeader(f, h.data(), 0); });
  EXPECT_NE(text.find("Flags=0x80000040\nTableOffset="), std::string::npos) << text;
}

// The header of a container made by the library.
TEST(DumpHeader, RealContainer) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef item{};
  sfl_CloseItem(sfl_StoreBasicItem(c.bh, nullptr, 300, &item, 0));
  const Bytes raw = sfltest::ReadExactly(sfl_Handle2Record(c.bh)->FileDes, 0, 128);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpHeader(f, raw.data(), 0); }),
            "=HHHHHHHHHHHHHHHHHHHHHHHH=\n"
            "Location=0x00000000 (0)\n"
            "HeaderSize=128\n"
            "HeaderVersion=2\n"
            "UsedItems=1\n"
            "MaxItems=8\n"
            "Flags=0x00000000\n"
            "TableOffset=0x00000080\n"
            "DataOffset=0x00000280\n"
            "InUseItms BitMap=11000000 \n");
  sfl_CloseFile(c.bh);
}

// ---- the item header ---------------------------------------------------------------------

TEST(DumpItemHeader, WholeText) {
  // 2026-11-23 14:05:09 UTC.
  const Bytes h = ItemHeader(1, 1000, 8, 1795442709, 0x1000, 2,
                             BLOCKED_ITEM | HAS_INT_ITEM | DELETED);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpItemHeader(f, h.data(), 192); }),
            "=IIIIIIIIIIIIIIIIIIIIIIII=\n"
            "Location=0x000000c0 (192)\n"
            "AccCount=1\n"
            "FileSize=0x000003e8 (1000)\n"
            "UsedBlocks=8\n"
            "ChangeDate=2026-11-23 14:05:09\n"
            "FileOffset=0x00001000 (4096)\n"
            "IndexDepth=2\n"
            "Flags=0x0000000b\n"
            "BLOCKED_ITEM HAS_INT_ITEM DELETED \n");
}

TEST(DumpItemHeader, NoFlagsNoFlagLine) {
  const Bytes h = ItemHeader(0, 0, 0, 0, 0, 0, 0);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpItemHeader(f, h.data(), 128); }),
            "=IIIIIIIIIIIIIIIIIIIIIIII=\n"
            "Location=0x00000080 (128)\n"
            "AccCount=0\n"
            "FileSize=0x00000000 (0)\n"
            "UsedBlocks=0\n"
            "ChangeDate=1970-01-01 00:00:00\n"
            "FileOffset=0x00000000 (0)\n"
            "IndexDepth=0\n"
            "Flags=0x00000000\n");
}

TEST(DumpItemHeader, EveryFlagInTableOrder) {
  const Bytes h = ItemHeader(1, 0, 0, 0, 0, 0, 0x3F);
  const std::string text = Printed([&](FILE* f) { sfl_DumpItemHeader(f, h.data(), 128); });
  const std::string tail = "Flags=0x0000003f\n"
                           "BLOCKED_ITEM HAS_INT_ITEM INT_ITEM DELETED OTHER_LOCKS MEM_FREEMAP \n";
  ASSERT_GE(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
}

// %d conversions show the 32-bit values as signed numbers; the dates of
// the whole unsigned range are shown.
TEST(DumpItemHeader, LargeValues) {
  const Bytes h = ItemHeader(1, 0x80000000u, 3, UINT32_MAX, 0xFFFFFF80u, 0, INT_ITEM);
  const std::string text = Printed([&](FILE* f) { sfl_DumpItemHeader(f, h.data(), 0x80000040u); });
  EXPECT_NE(text.find("Location=0x80000040 (-2147483584)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("FileSize=0x80000000 (-2147483648)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("ChangeDate=2106-02-07 06:28:15\n"), std::string::npos) << text;
  EXPECT_NE(text.find("FileOffset=0xffffff80 (-128)\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Flags=0x00000004\nINT_ITEM \n"), std::string::npos) << text;
}

// ---- index entries and records -------------------------------------------------------------

TEST(DumpIndexRecord, EmptyEntryPrintsNothing) {
  const Bytes entry(8, 0);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpIndexRecord(f, entry.data(), 3); }), "");
}

TEST(DumpIndexRecord, EntryWithOneWordSet) {
  Bytes entry(8, 0);
  sfl_PutU32(&entry[4], 5);  // a size without an offset is still shown
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpIndexRecord(f, entry.data(), 7); }),
            " 7:SectionOffSet=0x00000000 (0)\n"
            " 7:SectionSize  =0x00000005 (5)\n");
  Bytes other(8, 0);
  sfl_PutU32(&other[0], 0x2000);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpIndexRecord(f, other.data(), 12); }),
            "12:SectionOffSet=0x00002000 (8192)\n"
            "12:SectionSize  =0x00000000 (0)\n");
}

TEST(DumpBlockedIndex, WholeText) {
  Bytes r = IndexRecord(1, 2, 3, 32, 0x180, 0x80000005u);
  SetEntry(r, 0, 0x1000, 384);
  SetEntry(r, 2, 0x1200, 384);
  SetEntry(r, 31, 0, 7);
  r[300] = 0xAB;  // reserved bytes are not shown
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpBlockedIndex(f, r.data(), 0x0E00); }),
            "=XXXXXXXXXXXXXXXXXXXXXXXX=\n"
            "Location=0x00000e00 (3584)\n"
            "Depth=1\n"
            "Used=2\n"
            "EverUsed=3\n"
            "BaseBlockNum=32\n"
            "ParentOff=0x00000180 (384)\n"
            "FreeMap=10100000 00000000 00000000 00000001 \n"
            " 0:SectionOffSet=0x00001000 (4096)\n"
            " 0:SectionSize  =0x00000180 (384)\n"
            " 2:SectionOffSet=0x00001200 (4608)\n"
            " 2:SectionSize  =0x00000180 (384)\n"
            "31:SectionOffSet=0x00000000 (0)\n"
            "31:SectionSize  =0x00000007 (7)\n");
}

TEST(DumpBlockedIndex, AllEntriesEmptyGivesFixedLinesOnly) {
  const Bytes r = IndexRecord(0, 0, 0, 0, 0x100, 0);
  EXPECT_EQ(Printed([&](FILE* f) { sfl_DumpBlockedIndex(f, r.data(), 640); }),
            "=XXXXXXXXXXXXXXXXXXXXXXXX=\n"
            "Location=0x00000280 (640)\n"
            "Depth=0\n"
            "Used=0\n"
            "EverUsed=0\n"
            "BaseBlockNum=0\n"
            "ParentOff=0x00000100 (256)\n"
            "FreeMap=00000000 00000000 00000000 00000000 \n");
}

// ---- listing the blocks of a blocked item ----------------------------------------------------

class ListTree : public ::testing::Test {
 protected:
  void SetUp() override {
    c_ = sfltest::NewContainer();
    h_ = sfl_CreateBlockedItem(c_.bh, &ref_);
    ASSERT_GE(h_, SFL_ITEM_HANDLE_FIRST);
  }
  void TearDown() override {
    sfl_CloseItem(h_);
    sfl_CloseFile(c_.bh);
  }
  void Format() { ASSERT_EQ(sfl_FormatBlockedRoot(h_), 1); }
  // Writes block n with `len` bytes.
  void Put(uint32_t n, uint32_t len) {
    const Bytes data = sfltest::PseudoRandomBytes(len, n, 1);
    ASSERT_EQ(sfl_WriteBlockedData(h_, n, len, data.data()), static_cast<int32_t>(len));
  }
  std::string List() { return Printed([&](FILE* f) { sfl_ListIndexTree(f, h_); }); }
  uint32_t Depth() { return sfltest::SlotOf(c_.bh, sfl_ItemNumOf(ref_)).IndexDepth; }

  static std::string Base(uint32_t n) { return "------> BaseBlock=" + std::to_string(n) + "\n"; }
  static std::string Block(uint32_t n, uint32_t len) {
    return "Record " + Pad(n, 5) + " is " + Pad(len, 5) + " Bytes\n";
  }
  static std::string Unused(uint32_t n) { return "Record " + Pad(n, 5) + " is UNUSED\n"; }

  sfltest::OpenContainer c_;
  sfl_ItemRef ref_{};
  int32_t h_ = -1;
};

TEST_F(ListTree, MissingBlockZero) {
  Format();
  Put(0, 100);
  Put(1, 200);
  Put(2, 300);
  sfl_FreeBlock(h_, 0, 0);
  EXPECT_EQ(List(),
            "------> BaseBlock=0\n"
            "Record     0 is UNUSED\n"
            "Record     1 is   200 Bytes\n"
            "Record     2 is   300 Bytes\n");
}

TEST_F(ListTree, EmptyLeafListsOnlyTheFirstBaseLine) {
  Format();
  EXPECT_EQ(List(), "------> BaseBlock=0\n");
}

// A tree of depth 1 with holes: a freed block in each leaf, a block never
// written below the highest one of its leaf. The listing ends at the first
// number past the last leaf's highest entry.
TEST_F(ListTree, DepthOneWithHoles) {
  Format();
  auto len = [](uint32_t n) { return 50 + 37 * n; };
  for (uint32_t n = 0; n < 40; ++n)
    if (n != 36) Put(n, len(n));
  ASSERT_EQ(Depth(), 1u);
  sfl_FreeBlock(h_, 5, 0);
  sfl_FreeBlock(h_, 33, 0);
  std::string want;
  for (uint32_t n = 0; n < 40; ++n) {
    if (n % 32 == 0) want += Base(n);
    want += (n == 5 || n == 33 || n == 36) ? Unused(n) : Block(n, len(n));
  }
  EXPECT_EQ(List(), want);
}

// Blocks written past a gap leave empty leaves for the numbers skipped; the
// listing ends at the first of them. A block longer than the listing's
// buffer is reported with the buffer's length.
TEST_F(ListTree, EndsAtAnEmptyLeaf) {
  Format();
  for (uint32_t n = 0; n < 32; ++n) Put(n, n == 7 ? 12000 : 64);
  Put(64, 10);
  Put(65, 20);
  ASSERT_EQ(Depth(), 1u);
  std::string want = Base(0);
  for (uint32_t n = 0; n < 32; ++n) want += Block(n, n == 7 ? 10000 : 64);
  want += Base(32);
  EXPECT_EQ(List(), want);
}

// An empty branch entry is a hole of a whole leaf's blocks, each listed as
// unused, and the listing goes on past it.
TEST_F(ListTree, EmptyBranchEntry) {
  Format();
  for (uint32_t n = 0; n < 32; ++n) Put(n, 64);
  Put(64, 10);
  Put(65, 20);
  ASSERT_EQ(Depth(), 1u);
  // Empty the root's entry for blocks 32 to 63.
  const uint32_t root = sfltest::SlotOf(c_.bh, sfl_ItemNumOf(ref_)).FileOffset;
  const uint8_t zeros[8] = {};
  ASSERT_EQ(::pwrite(sfl_Handle2Record(c_.bh)->FileDes, zeros, 8, root + 32 + 8), 8);
  std::string want;
  for (uint32_t n = 0; n < 66; ++n) {
    if (n % 32 == 0) want += Base(n);
    if (n < 32)
      want += Block(n, 64);
    else if (n < 64)
      want += Unused(n);
    else
      want += Block(n, n == 64 ? 10 : 20);
  }
  EXPECT_EQ(List(), want);
}

// Other escapes are passed on: a root never formatted is no index record.
TEST_F(ListTree, OtherEscapesPassOn) {
  std::string partial;
  const auto e = sfltest::EscapeOf([&] { partial = List(); });
  EXPECT_EQ(e.group, ER_GROUP_SFL);
  EXPECT_EQ(e.reason, SFL_R_BAD_INDEX);
  EXPECT_EQ(sfltest::ReasonOf([&] { sfl_ListIndexTree(stdout, 8999); }), SFL_R_BAD_HANDLE);
}

// ---- a whole container ---------------------------------------------------------------------

// A slot the file does not have is refused; an unformatted blocked root is
// shown as the zeros it is; no lock is left behind.
TEST(DumpContainer, SlotsRootsAndLocks) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(c.bh, &ref);
  EXPECT_EQ(sfltest::ReasonOf([&] { sfl_DumpContainer(stdout, c.bh, 8); }), SFL_R_NO_ITEM);
  EXPECT_EQ(sfltest::ReasonOf([&] { sfl_DumpContainer(stdout, c.bh, -2); }), SFL_R_NO_ITEM);

  const std::string text = Printed([&](FILE* f) { sfl_DumpContainer(f, c.bh, 1); });
  const uint32_t root = sfltest::SlotOf(c.bh, 1).FileOffset;
  const Bytes header = sfltest::ReadExactly(sfl_Handle2Record(c.bh)->FileDes, 192, 64);
  const Bytes zeros(384, 0);
  EXPECT_EQ(text, Printed([&](FILE* f) {
              sfl_DumpItemHeader(f, header.data(), 192);
              sfl_DumpBlockedIndex(f, zeros.data(), root);
            }));
  EXPECT_NE(text.find("Depth=0\nUsed=0\nEverUsed=0\nBaseBlockNum=0\nParentOff=0x00000000 (0)\n"),
            std::string::npos)
      << text;

  // A free slot asked for by number is shown as it lies (all zeros).
  const std::string free = Printed([&](FILE* f) { sfl_DumpContainer(f, c.bh, 5); });
  EXPECT_EQ(free.find("=IIIIIIIIIIIIIIIIIIIIIIII=\nLocation=0x000001c0 (448)\nAccCount=0\n"), 0u)
      << free;

  const std::string path = sfltest::ItemPath(c.ref);
  FILE* sink = std::tmpfile();
  ASSERT_NE(sink, nullptr);
  sfl_DumpContainer(sink, c.bh, -1);
  std::fclose(sink);
  EXPECT_TRUE(sfltest::LockableElsewhere(path, 0, 128));
  EXPECT_TRUE(sfltest::LockableElsewhere(path, 192, 64));
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// ---- the per-process tables -------------------------------------------------------------------

TEST(DumpTables, OpenFiles) {
  sfltest::OpenContainer a = sfltest::NewContainer();
  sfltest::OpenContainer b = sfltest::NewContainer();
  int32_t mark = -1;
  const std::string text = sfltest::WrittenTo(2, [&] { mark = sfl_DumpBaseItems(); });
  EXPECT_EQ(mark, static_cast<int32_t>(sfl_OpenFiles().HighWater()));
  for (const auto& c : {a, b}) {
    const sfl_BaseRec* rec = sfl_Handle2Record(c.bh);
    const std::string want =
        "Entry Number: " + Pad(c.bh, 5) + " : FileName " + sfltest::ItemPath(c.ref) + "\n" +
        "Domain " + Pad(c.ref.Domain, 13) + ", SubDomain " + Pad(c.ref.SubDomain, 10) +
        ", Flags " + Pad(c.ref.Flags, 4) + ", FileId " + Pad(c.ref.FileId, 10) + "\n" +
        "FileDes " + Pad(static_cast<uint32_t>(rec->FileDes), 12) + ", IntItemsOpen " +
        Pad(static_cast<uint32_t>(rec->IntItemsOpen), 7) + ", ExternalOpens " +
        Pad(static_cast<uint32_t>(rec->ExternalOpens), 5) + "\n" + "ITableOff " +
        Pad("80", 10) + ", DataOff " + Pad("280", 12) + ", ProcAccCount " +
        Pad(rec->ProcAccCount, 5) + "\n\n";
    EXPECT_NE(text.find(want), std::string::npos) << text << "\nwanted:\n" << want;
  }
  // One entry per record in use, no more.
  size_t entries = 0;
  for (size_t at = text.find("Entry Number:"); at != std::string::npos;
       at = text.find("Entry Number:", at + 1))
    ++entries;
  EXPECT_EQ(entries, static_cast<size_t>(sfl_OpenFiles().InUseCount()));
  sfl_CloseFile(b.bh);
  sfl_CloseFile(a.bh);
}

TEST(DumpTables, OpenItems) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 1000, &ref, 0);
  const Bytes data(10, 'x');
  ASSERT_EQ(sfl_WriteSerialData(h, data.data(), 10), 10);
  const sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  int32_t mark = -1;
  const std::string text = sfltest::WrittenTo(2, [&] { mark = sfl_DumpOpenItems(); });
  EXPECT_EQ(mark, static_cast<int32_t>(sfl_OpenItems().HighWater()));
  const std::string want =
      "Entry Number: " + Pad(h, 5) + "------------------------------\n" + "BaseHandle " +
      Pad(c.bh, 12) + ", ItemNum " + Pad(item->ItemNum, 13) + ", HeaderOff " +
      Pad(Hex(item->HeaderOff, false), 10) + "\n" + "OpenRefs " + Pad(1, 14) + ", Offset " +
      Pad(Hex(item->Offset, true), 14) + ", Size " + Pad(1000, 15) + "\n" + "LastIdxBlock " +
      Pad(item->LastIdxBlock, 10) + ", LastIdxOff " + Pad(Hex(item->LastIdxOff, true), 10) +
      ", CurrPos " + Pad("A", 10) + "\n" + "Domain " + Pad(ref.Domain, 16) + ", SubDomain " +
      Pad(ref.SubDomain, 11) + ", Flags " + Pad(ref.Flags, 4) + ", FileId " +
      Pad(ref.FileId, 10) + "\n" + "Flags " + Pad(Hex(item->Flags, true), 8) + "\n";
  EXPECT_NE(text.find(want), std::string::npos) << text << "\nwanted:\n" << want;
  EXPECT_EQ(item->ItemNum, 1u);
  EXPECT_EQ(item->HeaderOff, 192u);
  size_t entries = 0;
  for (size_t at = text.find("Entry Number:"); at != std::string::npos;
       at = text.find("Entry Number:", at + 1))
    ++entries;
  EXPECT_EQ(entries, static_cast<size_t>(sfl_OpenItems().InUseCount()));
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
}

// Streams are numbered 1,000 below their handles: stream 9000 shows as 8000.
TEST(DumpTables, StreamsNumberedFromEightThousand) {
  const std::string p1 = sfltest::WritePlainFile("s1", "one");
  const std::string p2 = sfltest::WritePlainFile("s2", "two");
  const int32_t s1 = sfl_fOpen(p1.c_str(), "r");
  ASSERT_EQ(s1, SFL_STREAM_HANDLE_FIRST);
  int32_t mark = -1;
  std::string text = sfltest::WrittenTo(1, [&] { mark = sfl_DumpOpenL3Items(); });
  EXPECT_EQ(text, "Entry Number:  8000------------------------------\n");
  EXPECT_EQ(mark, 1);

  const int32_t s2 = sfl_fOpen(p2.c_str(), "r");
  ASSERT_EQ(s2, SFL_STREAM_HANDLE_FIRST + 1);
  sfl_fClose(s1);
  text = sfltest::WrittenTo(1, [&] { mark = sfl_DumpOpenL3Items(); });
  EXPECT_EQ(text, "Entry Number:  8001------------------------------\n");
  EXPECT_EQ(mark, 2);
  sfl_fClose(s2);
  text = sfltest::WrittenTo(1, [&] { mark = sfl_DumpOpenL3Items(); });
  EXPECT_EQ(text, "");
  EXPECT_EQ(mark, 2);
}

// The table dumps print nothing on the other standard stream.
TEST(DumpTables, EachOnItsOwnStream) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  std::string out = sfltest::WrittenTo(1, [&] {
    sfl_DumpBaseItems();
    sfl_DumpOpenItems();
  });
  EXPECT_EQ(out, "");
  const std::string p = sfltest::WritePlainFile("s", "x");
  const int32_t s = sfl_fOpen(p.c_str(), "r");
  std::string err = sfltest::WrittenTo(2, [&] { sfl_DumpOpenL3Items(); });
  EXPECT_EQ(err, "");
  sfl_fClose(s);
  sfl_CloseFile(c.bh);
}

}  // namespace
