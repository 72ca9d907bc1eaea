// The block listing of a blocked item when the system fails under it: the
// file's size cannot be learnt, or a block cannot be read. Such failures are
// passed on, after whatever was listed before them, and the item
// stays as it was.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

class ListTreeFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    c_ = sfltest::NewContainer();
    h_ = sfl_CreateBlockedItem(c_.bh, &ref_);
    ASSERT_GE(h_, SFL_ITEM_HANDLE_FIRST);
    ASSERT_EQ(sfl_FormatBlockedRoot(h_), 1);
    for (uint32_t n = 0; n < 3; ++n) {
      const Bytes data = sfltest::PseudoRandomBytes(100 + n, n, 1);
      ASSERT_EQ(sfl_WriteBlockedData(h_, n, 100 + n, data.data()), static_cast<int32_t>(100 + n));
    }
  }
  void TearDown() override {
    os_ClearFaults();
    sfl_CloseItem(h_);
    sfl_CloseFile(c_.bh);
  }
  // Lists the tree; returns the escape it ended with and keeps what it
  // printed before in `printed`.
  sfltest::Escape List(std::string* printed) {
    char* text = nullptr;
    size_t len = 0;
    FILE* out = open_memstream(&text, &len);
    EXPECT_NE(out, nullptr);
    const sfltest::Escape e = sfltest::EscapeOf([&] { sfl_ListIndexTree(out, h_); });
    std::fclose(out);
    printed->assign(text, len);
    std::free(text);
    return e;
  }
  // Every block still reads back as written.
  void ExpectBlocksIntact() {
    for (uint32_t n = 0; n < 3; ++n) {
      Bytes got(200);
      ASSERT_EQ(sfl_ReadBlockedData(h_, n, 200, got.data()), 100 + n);
      got.resize(100 + n);
      EXPECT_EQ(got, sfltest::PseudoRandomBytes(100 + n, n, 1)) << "block " << n;
    }
  }

  sfltest::OpenContainer c_;
  sfl_ItemRef ref_{};
  int32_t h_ = -1;
};

TEST_F(ListTreeFaults, TheSizeOfTheFileCannotBeLearnt) {
  os_FailNth(os_Op::Fstat, 1, EIO);
  std::string printed = "unset";
  const sfltest::Escape e = List(&printed);
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, EIO);
  EXPECT_EQ(printed, "");
  os_ClearFaults();
  ExpectBlocksIntact();
}

// A read failing under the listing is no hole and no end of the tree: the
// read's own escape (a record it could not read whole) is passed on.
TEST_F(ListTreeFaults, AFailedReadIsPassedOn) {
  os_FailNth(os_Op::Pread, 1, EIO, 1000);
  std::string printed;
  const sfltest::Escape e = List(&printed);
  EXPECT_EQ(e.group, ER_GROUP_SFL);
  EXPECT_EQ(e.reason, SFL_R_SHORT_READ);
  EXPECT_EQ(printed.rfind("------> BaseBlock=0\n", 0), 0u) << printed;
  EXPECT_EQ(printed.find("UNUSED"), std::string::npos) << printed;
  os_ClearFaults();
  ExpectBlocksIntact();
  // Listed again without the fault, every block is there.
  const sfltest::Escape again = List(&printed);
  EXPECT_EQ(again.reason, 0);
  EXPECT_NE(printed.find("Record     2 is   102 Bytes\n"), std::string::npos) << printed;
}

}  // namespace
