// Opening a file whose header fails its checks in one field: the open is
// refused with the file's own reason, and it leaves no open-files entry, no
// header lock and no changed byte behind; the same file with the field put
// back opens and reads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

int FilesInUse() {
  int n = 0;
  for (size_t i = 0; i < sfl_OpenFiles().HighWater(); ++i) {
    const sfl_BaseRec* r = sfl_OpenFiles().At(i);
    n += r != nullptr && r->InUse == 1;
  }
  return n;
}

void PutAt(const std::string& path, size_t at, uint32_t value, int width) {
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  uint8_t b[4];
  if (width == 2)
    sfl_PutU16(b, static_cast<uint16_t>(value));
  else
    sfl_PutU32(b, value);
  ASSERT_EQ(::pwrite(fd, b, static_cast<size_t>(width), static_cast<off_t>(at)), width);
  ::close(fd);
}

TEST(OpenEdges, AHeaderFailingItsChecksInAnyFieldIsRefusedAndLeavesNothingBehind) {
  // A container with one item, closed for good.
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_ItemRef item{};
  const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 64, &item, 0);
  const std::vector<uint8_t> data = sfltest::PseudoRandomBytes(64, 9, 9);
  ASSERT_EQ(sfl_WriteSimpleData(h, 0, 64, data.data()), 64);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
  sfltest::CloseColdFiles();
  const std::string path = sfltest::ItemPath(c.ref);
  const sfl_FileHeader good = [&] {
    const std::vector<uint8_t> b = sfltest::FileBytes(path);
    return sfl_DecodeFileHeader(std::span<const uint8_t, SFL_FILE_HEADER_SIZE>(b.data(), SFL_FILE_HEADER_SIZE));
  }();

  struct Bent {
    const char* what;
    size_t at;
    uint32_t value, original;
    int width;
    int reason = SFL_R_BAD_FILE;
  };
  const std::vector<Bent> cases = {
      // The header read itself refuses a record of another type.
      {"type", sfl_fh::Type, SFL_TYPE_ITEM_HEADER, good.Type, 4, SFL_R_BAD_FILE_HEADER},
      {"header version", sfl_fh::HeaderVersion, good.HeaderVersion + 1, good.HeaderVersion, 4},
      {"no slots", sfl_fh::MaxItems, 0, good.MaxItems, 2},
      {"more than eight slots", sfl_fh::MaxItems, 9, good.MaxItems, 2},
      {"table inside the file header", sfl_fh::TableOffset, SFL_FILE_HEADER_SIZE - 64, good.TableOffset, 4},
      {"table running into the data", sfl_fh::DataOffset,
       static_cast<uint32_t>(good.TableOffset + 7 * SFL_ITEM_HEADER_SIZE),
       good.DataOffset, 4},
  };
  for (const Bent& b : cases) {
    SCOPED_TRACE(b.what);
    PutAt(path, b.at, b.value, b.width);
    const std::vector<uint8_t> before = sfltest::FileBytes(path);
    const int entries = FilesInUse();
    int32_t bh = -1;
    EXPECT_EQ(sfltest::ReasonOf([&] { bh = sfl_OpenSfl(&c.ref, 0); }), b.reason);
    EXPECT_EQ(bh, -1);
    EXPECT_EQ(FilesInUse(), entries);
    EXPECT_EQ(sfltest::FileBytes(path), before);
    EXPECT_TRUE(sfltest::LockableElsewhere(path, 0, SFL_FILE_HEADER_SIZE));
    // An item of the file cannot be opened through it either.
    EXPECT_EQ(sfltest::ReasonOf([&] { sfl_OpenItem(&item, 0); }), b.reason);
    EXPECT_EQ(FilesInUse(), entries);

    PutAt(path, b.at, b.original, b.width);
    const int32_t ih = sfl_OpenItem(&item, 0);
    std::vector<uint8_t> back(64);
    EXPECT_EQ(sfl_ReadSimpleData(ih, 0, 64, back.data()), 64);
    EXPECT_EQ(back, data);
    sfl_CloseItem(ih);
    sfltest::CloseColdFiles();
  }
}

}  // namespace
