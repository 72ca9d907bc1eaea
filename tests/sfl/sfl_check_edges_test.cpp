// The integrity check at its edges: a free-map slot whose in-use bit is
// clear is still compared and its damage reported (never repaired), a root
// record of the wrong type, a failed write while holding a branch to its
// EverUsed, a file that cannot be opened for writing, and short files whose
// header differs from a new file's in one field, which are damage rather
// than a creation cut short.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ---- running the check in this process ----------------------------------------------------

struct CheckRun {
  int32_t result = -1;
  std::string out, err;
  std::vector<int> numbers;  // message numbers printed, in order, extra used bits (1037) left out
  bool Saw(int n) const { return std::find(numbers.begin(), numbers.end(), n) != numbers.end(); }
};

CheckRun Check(const sfl_ItemRef& ref, int32_t repair) {
  CheckRun r;
  sfltest::CapturedOutput out(1), err(2);
  r.result = sfl_CheckSflIntegrity2(&ref, repair, nullptr);
  r.err = err.Stop();
  r.out = out.Stop();
  static const std::regex line("SFL-204-([0-9]+): ");
  for (std::sregex_iterator i(r.out.begin(), r.out.end(), line), end; i != end; ++i) {
    const int n = std::stoi((*i)[1]);
    if (n != 1037) r.numbers.push_back(n);
  }
  return r;
}

std::string Describe(const CheckRun& r) {
  return "result " + std::to_string(r.result) + "\nout:\n" + r.out + "err:\n" + r.err;
}

// ---- raw bytes of a file --------------------------------------------------------------------

void PutU32At(const std::string& path, uint64_t off, uint32_t v) {
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0) << path;
  uint8_t b[4];
  sfl_PutU32(b, v);
  ASSERT_EQ(::pwrite(fd, b, 4, static_cast<off_t>(off)), 4);
  ::close(fd);
}

void PutU8At(const std::string& path, uint64_t off, uint8_t v) {
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::pwrite(fd, &v, 1, static_cast<off_t>(off)), 1);
  ::close(fd);
}

uint32_t U32At(const std::string& path, uint64_t off) {
  const Bytes b = sfltest::FileBytes(path);
  EXPECT_GE(b.size(), off + 4);
  return b.size() >= off + 4 ? sfl_GetU32(b.data() + off) : 0;
}

void WriteWhole(const std::string& path, const Bytes& bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}

uint64_t SlotAt(uint32_t n) { return SFL_TABLE_OFFSET + uint64_t{SFL_ITEM_HEADER_SIZE} * n; }

// A closed container holding one simple item of 1000 bytes (slot 1) and
// one blocked item of `blocks` blocks (slot 2); its reference and path.
struct Stored {
  sfl_ItemRef ref{};
  std::string path;
};
Stored StoreTwoItems(uint32_t blocks = 3) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef item{};
  const int32_t s = sfl_StoreBasicItem(c.bh, nullptr, 1000, &item, 0);
  const Bytes data = sfltest::PseudoRandomBytes(1000, 1, 2);
  EXPECT_EQ(sfl_WriteSimpleData(s, 0, 1000, data.data()), 1000);
  sfl_CloseItem(s);
  const int32_t b = sfl_CreateBlockedItem(c.bh, &item);
  sfl_FormatBlockedRoot(b);
  for (uint32_t i = 0; i < blocks; ++i) {
    const Bytes d = sfltest::PseudoRandomBytes(40, i, 3);
    sfl_GetNewBlock(b, 40, 0, d.data());
  }
  sfl_CloseItem(b);
  sfl_CloseFile(c.bh);
  return {c.ref, sfltest::ItemPath(c.ref)};
}

// ---- the free-map slot when its in-use bit is clear --------------------------------------------

struct MapDamage {
  const char* what;
  uint64_t at;      // where the word goes; kMapOffset and kMapSize are relative to slot 0
  uint32_t value;
  int number;       // the message the check prints
};

TEST(CheckEdges, AFreeMapSlotNotMarkedInUseIsStillComparedAndNeverRepaired) {
  constexpr uint64_t kMapSlot = SFL_TABLE_OFFSET;
  const std::vector<MapDamage> cases = {
      {"wrong magic", kMapSlot + sfl_ih::Magic, 7, 1020},
      {"wrong type", kMapSlot + sfl_ih::Type, SFL_TYPE_INDEX, 1021},
      {"data past the end", kMapSlot + sfl_ih::FileOffset, 0x00F00000, 1022},
      {"data running past the end", kMapSlot + sfl_ih::FileSize, 0x00F00000, 1023},
      {"map shorter than the space in use", kMapSlot + sfl_ih::FileSize, 1, 1034},
  };
  for (const MapDamage& d : cases) {
    SCOPED_TRACE(d.what);
    const Stored s = StoreTwoItems();
    const Bytes sound = sfltest::FileBytes(s.path);
    // Slot 0's in-use bit cleared: the slot is not checked as an item, but
    // the free map it describes is still compared.
    PutU8At(s.path, sfl_fh::InUseItms, static_cast<uint8_t>(sound[sfl_fh::InUseItms] & ~1u));
    CheckRun r = Check(s.ref, 0);
    EXPECT_EQ(r.result, 0) << Describe(r);
    EXPECT_TRUE(r.numbers.empty()) << Describe(r);

    PutU32At(s.path, d.at, d.value);
    const Bytes damaged = sfltest::FileBytes(s.path);
    r = Check(s.ref, 1);
    EXPECT_EQ(r.result, 1) << Describe(r);
    EXPECT_EQ(r.numbers, std::vector<int>{d.number}) << Describe(r);
    EXPECT_EQ(sfltest::FileBytes(s.path), damaged) << "the free map's slot is never repaired";
  }
}

TEST(CheckEdges, AFreeMapSlotPastTheEndIsReportedWhereverTheTableLies) {
  const Stored s = StoreTwoItems();
  const uint64_t size = sfltest::FileBytes(s.path).size();
  // Only slot 0 in use, so only the free map's header is looked for at the
  // table offset; first past the end, then with its last bytes past it.
  PutU8At(s.path, sfl_fh::InUseItms, 0);
  for (const auto& [table, number] : {std::pair<uint64_t, int>{size + 64, 1017}, {size - 32, 1018}}) {
    SCOPED_TRACE(number);
    PutU32At(s.path, sfl_fh::TableOffset, static_cast<uint32_t>(table));
    const Bytes damaged = sfltest::FileBytes(s.path);
    const CheckRun r = Check(s.ref, 1);
    EXPECT_EQ(r.result, 1) << Describe(r);
    EXPECT_EQ(r.numbers, std::vector<int>{number}) << Describe(r);
    EXPECT_EQ(sfltest::FileBytes(s.path), damaged);
  }
}

// ---- blocked items -----------------------------------------------------------------------

TEST(CheckEdges, ARootOfTheWrongTypeDeletesTheItemOnRepair) {
  const Stored s = StoreTwoItems();
  const uint64_t slot = SlotAt(2);
  const uint32_t root = U32At(s.path, slot + sfl_ih::FileOffset);
  PutU32At(s.path, root + sfl_ix::Type, SFL_TYPE_ITEM_HEADER);
  const Bytes damaged = sfltest::FileBytes(s.path);

  CheckRun r = Check(s.ref, 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(r.numbers, std::vector<int>{1004}) << Describe(r);
  EXPECT_NE(r.out.find("SFL-204-1004: index record of type 17, not 18"), std::string::npos);
  EXPECT_EQ(sfltest::FileBytes(s.path), damaged) << "a check without repair writes nothing";

  r = Check(s.ref, 1);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(U32At(s.path, slot + sfl_ih::Flags), static_cast<uint32_t>(DELETED));
  EXPECT_EQ(U32At(s.path, slot + sfl_ih::FileOffset), 0u);
  EXPECT_EQ(U32At(s.path, slot + sfl_ih::FileSize), 0u);
  // The deleted item's space now shows as in use but unowned; nothing else
  // is a fault, and the simple item still reads back.
  r = Check(s.ref, 0);
  EXPECT_EQ(r.result, 0) << Describe(r);
  EXPECT_TRUE(r.numbers.empty()) << Describe(r);
}

TEST(CheckEdges, AFailedWriteOfABranchHeldToItsEverUsedIsReported) {
  const Stored s = StoreTwoItems(40);  // a root of depth 1 over two leaves
  const uint32_t root = U32At(s.path, SlotAt(2) + sfl_ih::FileOffset);
  ASSERT_EQ(U32At(s.path, root + sfl_ix::EverUsed), 2u);
  PutU32At(s.path, root + sfl_ix::EverUsed, 1);
  const Bytes damaged = sfltest::FileBytes(s.path);

  os_FailNth(os_Op::Pwrite, 1, EIO);
  CheckRun r = Check(s.ref, 1);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(r.numbers, (std::vector<int>{1040, 1011})) << Describe(r);
  EXPECT_EQ(sfltest::FileBytes(s.path), damaged);

  // Without the fault the same repair is written and holds.
  r = Check(s.ref, 1);
  EXPECT_EQ(r.numbers, std::vector<int>{1040}) << Describe(r);
  EXPECT_EQ(U32At(s.path, root + sfl_ix::EverUsed), 2u);
  r = Check(s.ref, 0);
  EXPECT_EQ(r.result, 0) << Describe(r);
}

// ---- a file that cannot be opened for writing --------------------------------------------------

TEST(CheckEdges, AFileThatCannotBeWrittenIsCheckedReadOnlyButNotRepaired) {
  const Stored s = StoreTwoItems();
  const Bytes before = sfltest::FileBytes(s.path);
  for (int err : {EACCES, EROFS}) {
    SCOPED_TRACE(err);
    // The read-write open is refused; a check that only looks opens the
    // file read-only and finds it sound.
    os_FailNth(os_Op::Open, 1, err);
    CheckRun r = Check(s.ref, 0);
    os_ClearFaults();
    EXPECT_EQ(r.result, 0) << Describe(r);
    EXPECT_TRUE(r.numbers.empty()) << Describe(r);
    EXPECT_EQ(r.err, "");

    // A repair needs to write: the refusal is the check's error.
    os_FailNth(os_Op::Open, 1, err);
    r = Check(s.ref, 1);
    os_ClearFaults();
    EXPECT_EQ(r.result, 1) << Describe(r);
    EXPECT_NE(r.err.find("SFL-2-" + std::to_string(err) + ":"), std::string::npos) << Describe(r);
  }
  // Other failures of the open are not retried read-only.
  os_FailNth(os_Op::Open, 1, EIO);
  const CheckRun r = Check(s.ref, 0);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_NE(r.err.find("SFL-2-" + std::to_string(EIO) + ":"), std::string::npos) << Describe(r);
  EXPECT_EQ(sfltest::FileBytes(s.path), before);
}

// ---- slots that are not a store cut short ------------------------------------------------------

TEST(CheckEdges, ASlotWithAnyFieldBeyondAFreshOnesIsAWrongMagicNotAnUnwrittenSlot) {
  // A freshly taken slot holds zeros but for the attach count, the date and
  // the blocked flag; any other field set makes it damage, which the repair
  // leaves alone.
  struct Extra {
    const char* what;
    size_t at;
    uint32_t value;
  };
  const std::vector<Extra> extras = {
      {"type", sfl_ih::Type, SFL_TYPE_ITEM_HEADER},
      {"used blocks", sfl_ih::UsedBlocks, 2},
      {"data offset", sfl_ih::FileOffset, 1024},
      {"index depth", sfl_ih::IndexDepth, 1},
      {"another flag", sfl_ih::Flags, static_cast<uint32_t>(BLOCKED_ITEM | DELETED)},
      {"reserved bytes", 40, 7},
  };
  for (const Extra& e : extras) {
    SCOPED_TRACE(e.what);
    const Stored s = StoreTwoItems();
    const uint64_t slot = SlotAt(1);
    Bytes fresh(SFL_ITEM_HEADER_SIZE, 0);
    sfl_PutU32(fresh.data() + sfl_ih::AccCount, 1);
    sfl_PutU32(fresh.data() + sfl_ih::ChangeDate, 1700000000u);
    Bytes all = sfltest::FileBytes(s.path);
    std::copy(fresh.begin(), fresh.end(), all.begin() + static_cast<long>(slot));
    sfl_PutU32(all.data() + slot + e.at, e.value);
    WriteWhole(s.path, all);
    const CheckRun r = Check(s.ref, 1);
    EXPECT_EQ(r.result, 1) << Describe(r);
    EXPECT_TRUE(r.Saw(1020)) << Describe(r);
    EXPECT_FALSE(r.Saw(1048)) << Describe(r);
    EXPECT_EQ(sfltest::FileBytes(s.path), all);
  }
}

TEST(CheckEdges, ASingleItemFileClaimingNoSlotsIsCheckedAsOne) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
  sfl_ItemRef file{}, item{};
  sfl_GetSerFileItem(bh, &file);
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, 300, &item, 0);
  sfl_CloseItem(h);
  sfl_CloseFile(bh);
  const std::string path = sfltest::ItemPath(file);
  // As made, the file gives two slots and is held to one.
  const CheckRun asMade = Check(file, 0);
  ASSERT_FALSE(asMade.numbers.empty()) << Describe(asMade);
  EXPECT_EQ(asMade.numbers[0], 1030);
  Bytes all = sfltest::FileBytes(path);
  sfl_PutU16(all.data() + sfl_fh::MaxItems, 0);
  WriteWhole(path, all);
  // Giving none, it is held to one slot all the same: the same findings.
  const CheckRun r = Check(file, 0);
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(r.numbers, asMade.numbers) << Describe(r);
  EXPECT_NE(r.out.find("SFL-204-1030: the file header gives 0 item slots"), std::string::npos) << Describe(r);
}

// ---- short files that are not a creation cut short ---------------------------------------------------

TEST(CheckEdges, AShortFileWhoseHeaderDiffersFromANewOneInAnyFieldIsNotCompleted) {
  sfl_FileHeader fresh;
  Bytes table, map;
  sfl_NewFileImage(0, &fresh, &table, &map);
  struct Field {
    const char* name;
    size_t at;
    uint32_t value;
    int width;  // bytes
  };
  const std::vector<Field> fields = {
      {"header size", sfl_fh::HeaderSize, fresh.HeaderSize + 1, 4},
      {"header version", sfl_fh::HeaderVersion, fresh.HeaderVersion + 1, 4},
      {"used items", sfl_fh::UsedItems, 1, 2},
      {"max items", sfl_fh::MaxItems, 3, 2},
      {"other flags", sfl_fh::Flags, static_cast<uint32_t>(BLOCKED_ITEM), 4},
      {"table offset", sfl_fh::TableOffset, fresh.TableOffset + 64, 4},
      {"data offset", sfl_fh::DataOffset, fresh.DataOffset + 128, 4},
      {"in-use map", sfl_fh::InUseItms, 0x03, 1},
  };
  for (const Field& f : fields) {
    SCOPED_TRACE(f.name);
    const Stored s = StoreTwoItems();
    // The first 640 bytes of a new file: header and table, no free map yet.
    sfl_FileHeaderBytes head{};
    sfl_EncodeFileHeader(fresh, head);
    Bytes image(head.begin(), head.end());
    image.insert(image.end(), table.begin(), table.end());
    ASSERT_EQ(image.size(), SFL_CONTAINER_DATA_OFFSET);
    if (f.width == 1)
      image[f.at] = static_cast<uint8_t>(f.value);
    else if (f.width == 2)
      sfl_PutU16(image.data() + f.at, static_cast<uint16_t>(f.value));
    else
      sfl_PutU32(image.data() + f.at, f.value);
    WriteWhole(s.path, image);

    const CheckRun r = Check(s.ref, 1);
    EXPECT_EQ(r.result, 1) << Describe(r);
    EXPECT_FALSE(r.Saw(1045)) << Describe(r);
    EXPECT_FALSE(r.Saw(1047)) << Describe(r);
    Bytes expected = image;
    if (f.at == sfl_fh::InUseItms) {
      // The slot marked in use holds zeros: the repair frees it, and
      // nothing else.
      EXPECT_TRUE(r.Saw(1041)) << Describe(r);
      expected[f.at] = fresh.InUseItms;
    }
    EXPECT_EQ(sfltest::FileBytes(s.path), expected) << "damage is not rebuilt as a new file";
  }
  // The unchanged image is a creation cut short, which the repair completes.
  const Stored s = StoreTwoItems();
  sfl_FileHeaderBytes head{};
  sfl_EncodeFileHeader(fresh, head);
  Bytes image(head.begin(), head.end());
  image.insert(image.end(), table.begin(), table.end());
  WriteWhole(s.path, image);
  const CheckRun r = Check(s.ref, 1);
  EXPECT_EQ(r.numbers, (std::vector<int>{1045, 1047})) << Describe(r);
  EXPECT_EQ(sfltest::FileBytes(s.path).size(), SFL_CONTAINER_DATA_OFFSET + map.size());
}

// The first 640 bytes of a new container (header and item table), as a
// creation killed before the free map leaves them, in place of the file
// of a stored container; its reference.
sfl_ItemRef CutShortCreation(Bytes* image) {
  const Stored s = StoreTwoItems();
  sfl_FileHeader fresh;
  Bytes table, map;
  sfl_NewFileImage(0, &fresh, &table, &map);
  sfl_FileHeaderBytes head{};
  sfl_EncodeFileHeader(fresh, head);
  image->assign(head.begin(), head.end());
  image->insert(image->end(), table.begin(), table.end());
  WriteWhole(s.path, *image);
  return s.ref;
}

TEST(CheckEdges, AShortTransferDoesNotHideACreationCutShort) {
  Bytes image;
  const sfl_ItemRef ref = CutShortCreation(&image);
  // The check's first read is of the whole short file; it comes up short
  // and is continued.
  os_ShortNth(os_Op::Pread, 1, 10);
  const CheckRun r = Check(ref, 0);
  os_ClearFaults();
  EXPECT_EQ(r.result, 1) << Describe(r);
  EXPECT_EQ(r.numbers, std::vector<int>{1045}) << Describe(r);
  EXPECT_EQ(sfltest::FileBytes(sfltest::ItemPath(ref)), image);
  // A read that fails is the check's error, not a finding.
  os_FailNth(os_Op::Pread, 1, EIO);
  const CheckRun failed = Check(ref, 1);
  os_ClearFaults();
  EXPECT_EQ(failed.result, 1) << Describe(failed);
  EXPECT_TRUE(failed.numbers.empty()) << Describe(failed);
  EXPECT_NE(failed.err.find("SFL-2-" + std::to_string(EIO) + ":"), std::string::npos) << Describe(failed);
  EXPECT_EQ(sfltest::FileBytes(sfltest::ItemPath(ref)), image);
}

TEST(CheckEdges, ACompletionWhoseWriteFailsIsTheChecksErrorAtEachOfItsWrites) {
  // Completing a creation writes the header, the table and the free map.
  for (unsigned nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(nth);
    Bytes image;
    const sfl_ItemRef ref = CutShortCreation(&image);
    os_FailNth(os_Op::Pwrite, nth, EIO);
    const CheckRun r = Check(ref, 1);
    os_ClearFaults();
    EXPECT_EQ(r.result, 1) << Describe(r);
    EXPECT_EQ(r.numbers, std::vector<int>{1045}) << Describe(r);
    EXPECT_NE(r.err.find("SFL-204-1042:"), std::string::npos) << Describe(r);
    // What was written before the failure is what creation writes; the
    // next repair completes the file.
    const CheckRun again = Check(ref, 1);
    EXPECT_EQ(again.numbers, (std::vector<int>{1045, 1047})) << Describe(again);
    EXPECT_EQ(Check(ref, 0).result, 0);
  }
}

}  // namespace
