// The item-reference library at its edges: store roots given with trailing
// slashes, empty or as "/", and file creation whose open fails or meets a
// directory that went away.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "er.h"
#include "im.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

// Sets SFL_STORE_ROOT for the life of the object.
class RootAs {
 public:
  explicit RootAs(const std::string& root) : was_(std::getenv("SFL_STORE_ROOT")) {
    if (was_ != nullptr) previous_ = was_;
    setenv("SFL_STORE_ROOT", root.c_str(), 1);
  }
  ~RootAs() {
    if (was_ != nullptr) setenv("SFL_STORE_ROOT", previous_.c_str(), 1);
    else unsetenv("SFL_STORE_ROOT");
  }

 private:
  const char* was_;
  std::string previous_;
};

std::string NameOf(const sfl_ItemRef& ref) {
  char name[512];
  im_ItemRef2FName(&ref, name, sizeof name);
  return name;
}

TEST(ItemRefEdges, TrailingSlashesOfTheRootAreDropped) {
  sfl_ItemRef ref{};
  ref.Domain = 2;
  ref.SubDomain = 7;
  ref.FileId = 99;
  ref.Flags = 3;
  const std::string root = sfltest::StoreRoot();
  RootAs slashes(root + "///");
  EXPECT_EQ(NameOf(ref), root + "/2/7/99:3");
}

TEST(ItemRefEdges, AnEmptyRootMeansTheDefault) {
  sfl_ItemRef ref{};
  ref.Domain = 2;
  ref.SubDomain = 7;
  ref.FileId = 99;
  RootAs empty("");
  EXPECT_EQ(NameOf(ref), "./sfl-store/2/7/99");
}

TEST(ItemRefEdges, TheRootDirectoryItselfKeepsItsSlash) {
  RootAs slash("/");
  sfl_ItemRef ref{};
  ASSERT_EQ(im_FName2ItemRef("/2/7/99.ab:4", &ref), 0);
  EXPECT_EQ(ref.Domain, 2);
  EXPECT_EQ(ref.SubDomain, 7u);
  EXPECT_EQ(ref.FileId, 99u);
  EXPECT_STREQ(ref.Name, "ab");
  EXPECT_EQ(ref.Flags, 4);
  EXPECT_EQ(NameOf(ref), "/2/7/99.ab:4");
  EXPECT_EQ(sfltest::ReasonOf([&] { im_FName2ItemRef("2/7/99", &ref); }), IM_R_NOT_IN_STORE);
}

// A directory that went away between its creation and the open is worth
// another try; any other failure of the open is raised.
TEST(ItemRefEdges, ANewFileIsRetriedOnlyWhenItsDirectoryWentAway) {
  sfl_ItemRef ref{};
  // The first open after the directories are made.
  os_FailNth(os_Op::Open, 1, ENOENT);
  const int fd = im_GetNewDataItem(&ref);
  os_ClearFaults();
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(access(sfltest::ItemPath(ref).c_str(), F_OK), 0);

  os_FailNth(os_Op::Open, 1, EACCES);
  const sfltest::Escape e = sfltest::EscapeOf([&] { im_CrNewTempItem(&ref); });
  os_ClearFaults();
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, EACCES);
}

}  // namespace

namespace {

// Every FileId tried is taken: after its attempts the create gives up.
TEST(ItemRefEdges, ACreateThatFindsEveryNameTakenGivesUp) {
  sfl_ItemRef ref{};
  os_FailNth(os_Op::Open, 1, EEXIST, 1000);
  const sfltest::Escape e = sfltest::EscapeOf([&] { im_GetNewDataItem(&ref); });
  os_ClearFaults();
  EXPECT_EQ(e.group, ER_GROUP_CONFIG);
  EXPECT_EQ(e.reason, IM_R_NO_UNIQUE_ID);
}

}  // namespace

namespace {

// Opening a container by path: outside the store root the path is opened as
// given (still not through a final link); a store directory that is missing
// is reported by its path.
TEST(ImOpenContainer, PathsOutsideTheStoreAndMissingDirectories) {
  const std::string outside = sfltest::TestDir() + "/outside-container";
  {
    const int fd = open(outside.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
  }
  const int fd = im_OpenContainer(outside.c_str(), O_RDONLY);
  EXPECT_GE(fd, 0);
  close(fd);
  const std::string link = outside + ".link";
  ASSERT_EQ(0, symlink(outside.c_str(), link.c_str()));
  EXPECT_EQ(sfltest::EscapeCode(ER_GROUP_OS, ELOOP),
            sfltest::EscapeCodeOf([&] { im_OpenContainer(link.c_str(), O_RDONLY); }));
  const std::string missing = sfltest::StoreRoot() + "/77/88/99";
  EXPECT_EQ(sfltest::EscapeCode(ER_GROUP_OS, ENOENT),
            sfltest::EscapeCodeOf([&] { im_OpenContainer(missing.c_str(), O_RDONLY); }));
  unlink(link.c_str());
  unlink(outside.c_str());
}

// Below the store root one call opens the whole path (the root's own open
// and close besides). When that call fails, whatever the reason, the walk
// of one directory at a time opens it instead (or names the step that
// fails; the neighbour tests show those texts).
TEST(ImOpenContainer, BelowTheRootOneCallOpensThePathAndAFailedOneIsWalked) {
  sfl_ItemRef ref{};
  int fd = im_GetNewDataItem(&ref);
  ASSERT_GE(fd, 0);
  close(fd);
  os_ResetCallCounts();
  fd = im_OpenItem(&ref);
  EXPECT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(2u, os_CallCount(os_Op::Open));
  EXPECT_EQ(1u, os_CallCount(os_Op::Close));

  for (const int err : {ENOSYS, EAGAIN}) {
    os_ResetCallCounts();
    os_FailNth(os_Op::Open, 2, err);
    fd = im_OpenItem(&ref);
    os_ClearFaults();
    EXPECT_GE(fd, 0) << err;
    close(fd);
    // The root, the failed call, the domain and sub-domain directories and
    // the file.
    EXPECT_EQ(5u, os_CallCount(os_Op::Open)) << err;
  }
  im_UnlinkItem(&ref);
}

}  // namespace
