// References in text and file names cut off or with the wrong separator
// after each number, and the directories of a new file when the store
// root lies under a plain file or a directory cannot be made.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "er.h"
#include "im.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::EscapeCode;
using sfltest::EscapeCodeOf;

TEST(ItemRefTextEdges, EveryNumberMustBeFollowedByItsSeparator) {
  const char* bad[] = {"1", "1x2.3", "1.2x3", "1:2.3", "1.2:3"};
  for (const char* t : bad) {
    sfl_ItemRef r{};
    r.FileId = 99;
    EXPECT_EQ(EscapeCodeOf([&] { im_FormItemRef(t, &r); }), EscapeCode(ER_GROUP_CONFIG, IM_R_BAD_TEXT))
        << "'" << t << "'";
    EXPECT_EQ(r.FileId, 99u) << "nothing is written on a refusal";
  }
  sfl_ItemRef r{};
  ASSERT_EQ(im_FormItemRef("1.2.3", &r), 0);
  EXPECT_EQ(r.Domain, 1u);
  EXPECT_EQ(r.SubDomain, 2u);
  EXPECT_EQ(r.FileId, 3u);
}

TEST(ItemRefTextEdges, FileNamesCutAfterAnyNumberOrWithOtherSeparatorsAreNotInTheStore) {
  const std::string root = sfltest::StoreRoot();
  const std::string bad[] = {root + "/2", root + "/2x17/5", root + "/2/17", root + "/2/17x5",
                             root + "/2.17/5"};
  for (const std::string& n : bad) {
    sfl_ItemRef r{};
    r.FileId = 99;
    EXPECT_EQ(EscapeCodeOf([&] { im_FName2ItemRef(n.c_str(), &r); }),
              EscapeCode(ER_GROUP_CONFIG, IM_R_NOT_IN_STORE))
        << n;
    EXPECT_EQ(r.FileId, 99u);
  }
  sfl_ItemRef r{};
  ASSERT_EQ(im_FName2ItemRef((root + "/2/17/5").c_str(), &r), 0);
  EXPECT_EQ(r.FileId, 5u);
}

// Sets SFL_STORE_ROOT for the life of the object.
class RootAs {
 public:
  explicit RootAs(const std::string& root) { setenv("SFL_STORE_ROOT", root.c_str(), 1); }
  ~RootAs() { setenv("SFL_STORE_ROOT", sfltest::StoreRoot().c_str(), 1); }
};

TEST(ItemRefFileEdges, AStoreRootUnderAPlainFileIsRefusedWithItsReason) {
  const std::string file = sfltest::WritePlainFile("not-a-directory", "x");
  RootAs root(file + "/store");
  sfl_ItemRef r{};
  EXPECT_EQ(EscapeCodeOf([&] { im_GetNewDataItem(&r); }), EscapeCode(ER_GROUP_OS, ENOTDIR));
  EXPECT_EQ(sfltest::FileBytes(file), std::vector<uint8_t>{'x'});
}

TEST(ItemRefFileEdges, ADirectoryThatCannotBeMadeAfterItsParentIsRefused) {
  const std::string root = sfltest::TestDir() + "/deny-store";
  RootAs as(root);
  // The file's directory, its parent and the store root are found missing
  // in turn (three calls); the root and the parent are made, and then the
  // file's own directory is refused.
  os_ResetCallCounts();
  os_FailNth(os_Op::Mkdir, 5, EACCES);
  sfl_ItemRef r{};
  EXPECT_EQ(EscapeCodeOf([&] { im_GetNewDataItem(&r); }), EscapeCode(ER_GROUP_OS, EACCES));
  os_ClearFaults();
  EXPECT_EQ(os_CallCount(os_Op::Mkdir), 5u);
  EXPECT_TRUE(std::filesystem::is_directory(root));
  // No file was made anywhere under the root.
  for (const auto& e : std::filesystem::recursive_directory_iterator(root))
    EXPECT_TRUE(e.is_directory()) << e.path();
  // Without the fault the same store takes a new file.
  const int fd = im_GetNewDataItem(&r);
  ASSERT_GE(fd, 0);
  ::close(fd);
  EXPECT_TRUE(std::filesystem::exists(root + "/" + std::to_string(r.Domain) + "/" +
                                      std::to_string(r.SubDomain) + "/" + std::to_string(r.FileId)));
}

}  // namespace
