// A store cut short (the storing process killed after taking an item slot,
// before the item's first header write) leaves a slot the repair frees.
//
// A container whose creation was cut short (the creating process killed
// after the file was made, before its structure was all written): open
// refuses it cleanly, the check reports it, the repair completes it as an
// empty container that then opens and takes items, and a file that merely
// looks short but held items is not taken for one. A process still
// creating the file (holding its header lock) is left to finish.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

// The first `length` bytes of a freshly created file (flags as for
// sfl_CreateSfl) under a new reference, as a creation killed after writing
// them leaves it.
sfl_ItemRef CutShort(size_t length, int32_t flags = 0) {
  static uint32_t next = 900000;
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, flags);
  const std::string made = sfltest::ItemPathOf(bh);
  std::vector<uint8_t> image = sfltest::FileBytes(made);
  // An empty container goes at its final close; its image is kept above.
  sfl_CloseFile(bh);
  EXPECT_GE(image.size(), length);
  image.resize(length);
  sfl_ItemRef ref{};
  ref.Domain = 2;
  ref.SubDomain = 3;
  ref.FileId = ++next;
  const std::string path = sfltest::ItemPath(ref);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0660);
  EXPECT_GE(fd, 0);
  if (!image.empty()) {
    EXPECT_EQ(static_cast<ssize_t>(image.size()), write(fd, image.data(), image.size()));
  }
  close(fd);
  return ref;
}

sfltest::Outcome Check(const sfl_ItemRef& ref, bool repair) {
  std::vector<std::string> args = {"check"};
  if (repair) args.push_back("--repair");
  args.push_back(sfltest::RefText(ref));
  return sfltest::Sfl(args);
}

bool Says(const sfltest::Outcome& o, const std::string& what) { return o.out.find(what) != std::string::npos; }

// The file cannot be used: open refuses it or, when only the free map is
// missing (header and table written), a store into it is refused because
// the map cannot be read, and the close removes the file like any container
// left without items. Either way no open-files entry is left behind.
void ExpectUnusable(const sfl_ItemRef& ref) {
  auto inUse = [] {
    int n = 0;
    for (size_t i = 0; i < sfl_OpenFiles().HighWater(); ++i) {
      const sfl_BaseRec* r = sfl_OpenFiles().At(i);
      n += r != nullptr && r->InUse == 1 && r->InColdStore == 0;
    }
    return n;
  };
  const std::string path = sfltest::ItemPath(ref);
  const std::vector<uint8_t> before = sfltest::FileBytes(path);
  const int entries = inUse();
  int32_t bh = -1;
  const sfltest::Escape open = sfltest::EscapeOf([&] { bh = sfl_OpenSfl(&ref, 0); });
  if (open.reason == 0) {
    EXPECT_EQ(640u, before.size()) << "only a file missing just its free map opens";
    sfl_ItemRef item{};
    const sfltest::Escape store = sfltest::EscapeOf([&] { sfl_StoreBasicItem(bh, nullptr, 100, &item, 0); });
    EXPECT_EQ(SFL_R_SHORT_MAP_READ, store.reason);
    EXPECT_EQ(before, sfltest::FileBytes(path));
    sfl_CloseFile(bh);
    EXPECT_FALSE(std::filesystem::exists(path));
  } else {
    EXPECT_EQ(before, sfltest::FileBytes(path));
  }
  EXPECT_EQ(entries, inUse());
}

// The whole cycle for a file cut at `length` bytes.
void ReportRepairUse(size_t length, int32_t flags) {
  SCOPED_TRACE("cut at " + std::to_string(length) + " bytes, flags " + std::to_string(flags));
  ExpectUnusable(CutShort(length, flags));
  const sfl_ItemRef ref = CutShort(length, flags);
  const std::string path = sfltest::ItemPath(ref);

  const sfltest::Outcome report = Check(ref, false);
  EXPECT_EQ(1, report.status) << report.out << report.err;
  EXPECT_TRUE(Says(report, "SFL-204-1045: the file of " + std::to_string(length) + " bytes")) << report.out;
  EXPECT_EQ(length, sfltest::FileBytes(path).size()) << "a check without --repair changes nothing";

  const sfltest::Outcome repair = Check(ref, true);
  EXPECT_EQ(1, repair.status) << repair.out << repair.err;
  EXPECT_TRUE(Says(repair, "SFL-204-1047")) << repair.out;

  const sfltest::Outcome again = Check(ref, false);
  EXPECT_EQ(0, again.status) << again.out << again.err;

  // Now an ordinary empty container: it opens, takes an item, and reads
  // it back.
  const int32_t bh = sfl_OpenSfl(&ref, 0);
  const sfl_FileHeader fh = sfltest::FileHeaderOf(bh);
  EXPECT_EQ(static_cast<uint32_t>(flags), fh.Flags);
  EXPECT_EQ(0, fh.UsedItems);
  sfl_ItemRef item{};
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, 300, &item, 0);
  const std::vector<uint8_t> data = sfltest::PseudoRandomBytes(300, 5, 6);
  sfl_WriteSimpleData(h, 0, 300, data.data());
  std::vector<uint8_t> back(300);
  sfl_ReadSimpleData(h, 0, 300, back.data());
  EXPECT_EQ(data, back);
  sfl_CloseItem(h);
  sfl_CloseFile(bh);
  EXPECT_EQ(0, Check(ref, false).status);
}

TEST(UnfinishedCreation, EmptyFileIsReportedCompletedAndUsable) { ReportRepairUse(0, 0); }

TEST(UnfinishedCreation, HeaderOnlyIsReportedCompletedAndUsable) { ReportRepairUse(128, 0); }

TEST(UnfinishedCreation, HeaderAndTableIsReportedCompletedAndUsable) { ReportRepairUse(640, 0); }

TEST(UnfinishedCreation, AsynchronousFlagIsKept) { ReportRepairUse(640, ASYNCHRONOUS); }

TEST(UnfinishedCreation, SingleItemFileHeaderOnly) {
  // Completed with its own shape: two slots, no free map.
  const sfl_ItemRef ref = CutShort(128, SINGLE_FILE);
  const sfltest::Outcome repair = Check(ref, true);
  EXPECT_TRUE(Says(repair, "SFL-204-1047")) << repair.out;
  const std::vector<uint8_t> bytes = sfltest::FileBytes(sfltest::ItemPath(ref));
  ASSERT_EQ(256u, bytes.size());
  const sfl_FileHeader fh =
      sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE>(bytes.data(), SFL_FILE_HEADER_SIZE));
  EXPECT_EQ(2, fh.MaxItems);
  EXPECT_EQ(static_cast<uint32_t>(SINGLE_FILE), fh.Flags);
}

TEST(UnfinishedCreation, CompletedEmptyContainerGoesAtItsFinalClose) {
  const sfl_ItemRef ref = CutShort(0);
  EXPECT_EQ(1, Check(ref, true).status);
  sfl_CloseFile(sfl_OpenSfl(&ref, 0));
  EXPECT_FALSE(std::filesystem::exists(sfltest::ItemPath(ref)));
}

TEST(UnfinishedCreation, ACreatorHoldingTheHeaderLockIsLeftToFinish) {
  const sfl_ItemRef ref = CutShort(128);
  const std::string path = sfltest::ItemPath(ref);
  const int fd = open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 128;
  ASSERT_EQ(0, fcntl(fd, F_OFD_SETLK, &fl));
  const sfltest::Outcome repair = Check(ref, true);
  EXPECT_EQ(1, repair.status);
  EXPECT_TRUE(Says(repair, "SFL-204-1046")) << repair.out;
  EXPECT_FALSE(Says(repair, "SFL-204-1047")) << repair.out;
  EXPECT_EQ(128u, sfltest::FileBytes(path).size());
  close(fd);
}

TEST(UnfinishedCreation, ShortFileThatHeldItemsIsNotTakenForOne) {
  // The header of a container with an item in use, cut at 640 bytes: not
  // a creation cut short, so the check does not rebuild it.
  const sfl_ItemRef ref = CutShort(640);
  const std::string path = sfltest::ItemPath(ref);
  {
    const int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    uint8_t header[128];
    ASSERT_EQ(128, pread(fd, header, 128, 0));
    header[16] = 1;     // UsedItems
    header[32] = 0x03;  // slots 0 and 1 in use
    ASSERT_EQ(128, pwrite(fd, header, 128, 0));
    close(fd);
  }
  const sfltest::Outcome repair = Check(ref, true);
  EXPECT_EQ(1, repair.status);
  EXPECT_FALSE(Says(repair, "SFL-204-1045")) << repair.out;
  EXPECT_FALSE(Says(repair, "SFL-204-1047")) << repair.out;
  EXPECT_EQ(640u, sfltest::FileBytes(path).size());
}

TEST(UnfinishedCreation, ShortFileOfOtherBytesIsNotAContainer) {
  // Bytes that are not a new file's header: refused as before.
  const std::string path = sfltest::WritePlainFile("not-a-container", "hello");
  sfl_ItemRef ref = CutShort(0);
  std::filesystem::copy_file(path, sfltest::ItemPath(ref), std::filesystem::copy_options::overwrite_existing);
  const sfltest::Outcome repair = Check(ref, true);
  EXPECT_EQ(1, repair.status);
  EXPECT_FALSE(Says(repair, "SFL-204-1045")) << repair.out;
  EXPECT_EQ(5u, sfltest::FileBytes(sfltest::ItemPath(ref)).size());
}

TEST(UnfinishedStore, SlotTakenButNeverWrittenIsFreedByTheRepair) {
  for (const uint32_t flags : {0u, static_cast<uint32_t>(BLOCKED_ITEM)}) {
    SCOPED_TRACE(flags);
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_ItemRef file{}, keep{}, cut{};
    sfl_GetSerFileItem(bh, &file);
    sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 200, &keep, 0));
    sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 300, &cut, 0));
    const uint32_t slot = sfl_ItemNumOf(cut);
    sfl_CloseFile(bh);
    // The slot as a freshly taken one lies: zeros, an attach count of 1, a
    // date and the blocked flag asked for.
    const std::string path = sfltest::ItemPath(file);
    {
      const int fd = open(path.c_str(), O_RDWR);
      ASSERT_GE(fd, 0);
      uint8_t h[64] = {};
      sfl_PutU32(h + 8, 1);
      sfl_PutU32(h + 20, 1700000000u);
      sfl_PutU32(h + 32, flags);
      ASSERT_EQ(64, pwrite(fd, h, 64, 128 + 64 * slot));
      close(fd);
    }
    const sfltest::Outcome report = Check(file, false);
    EXPECT_EQ(1, report.status);
    EXPECT_TRUE(Says(report, "SFL-204-1048: the item header at file offset " + std::to_string(128 + 64 * slot)))
        << report.out;
    const sfltest::Outcome repair = Check(file, true);
    EXPECT_EQ(1, repair.status);
    const sfltest::Outcome again = Check(file, false);
    EXPECT_EQ(0, again.status) << again.out;
    // The slot is free again and the other item reads back.
    const int32_t bh2 = sfl_OpenSfl(&file, 0);
    EXPECT_EQ(0, (sfltest::FileHeaderOf(bh2).InUseItms >> slot) & 1);
    const int32_t h = sfl_OpenItem(&keep, 0);
    sfl_SimpleDetails d{};
    sfl_GetSimpleDetails(h, &d);
    EXPECT_EQ(200u, d.Size);
    sfl_CloseItem(h);
    sfl_CloseFile(bh2);
  }
}

TEST(UnfinishedStore, AHeaderWithOtherFieldsIsStillAWrongMagic) {
  // Only the fresh-slot pattern is freed: a header with a size or an offset
  // but no magic is damage, reported as before.
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef file{}, item{};
  sfl_GetSerFileItem(bh, &file);
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 300, &item, 0));
  sfl_CloseFile(bh);
  const std::string path = sfltest::ItemPath(file);
  const int fd = open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  const uint32_t at = 128 + 64 * sfl_ItemNumOf(item);
  uint8_t h[64];
  ASSERT_EQ(64, pread(fd, h, 64, at));
  sfl_PutU32(h, 0);  // magic gone, size and offset kept
  ASSERT_EQ(64, pwrite(fd, h, 64, at));
  close(fd);
  const sfltest::Outcome report = Check(file, true);
  EXPECT_TRUE(Says(report, "SFL-204-1020")) << report.out;
  EXPECT_FALSE(Says(report, "SFL-204-1048")) << report.out;
}

}  // namespace
