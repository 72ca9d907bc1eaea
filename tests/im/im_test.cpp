// Item references: the path layout under the store root, the text form,
// refusal of unsafe name tags, and creation of unique files across processes.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "er.h"
#include "im.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

constexpr auto EscapeOf = sfltest::GroupAndReasonOf;

sfl_ItemRef Ref(uint16_t domain, uint32_t sub, uint32_t id, const char* name, uint16_t item = 0) {
  sfl_ItemRef r{};
  r.Domain = domain;
  r.SubDomain = sub;
  r.FileId = id;
  std::strncpy(r.Name, name, sizeof r.Name);
  r.Flags = item;
  return r;
}

bool SameRef(const sfl_ItemRef& a, const sfl_ItemRef& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

std::string TextOf(const sfl_ItemRef& r) {
  char buf[64];
  im_ItemRef2Text(&r, buf, sizeof buf);
  return buf;
}

constexpr auto FNameOf = sfltest::ItemPath;

const std::pair<int, int> kUnsafe{ER_GROUP_CONFIG, IM_R_UNSAFE_NAME};
const std::pair<int, int> kBadText{ER_GROUP_CONFIG, IM_R_BAD_TEXT};
const std::pair<int, int> kNotInStore{ER_GROUP_CONFIG, IM_R_NOT_IN_STORE};

TEST(ImText, FormsOfKnownReferences) {
  EXPECT_EQ(TextOf(Ref(2, 17, 4113, "abc", 3)), "2.17.4113.abc:3");
  EXPECT_EQ(TextOf(Ref(4, 0, 9, "")), "4.0.9");
  EXPECT_EQ(TextOf(Ref(65535, 4294967295u, 4294967295u, "a-_")), "65535.4294967295.4294967295.a-_");
}

TEST(ImText, RoundTrip) {
  const sfl_ItemRef refs[] = {Ref(2, 17, 4113, "abc", 3), Ref(4, 0, 9, ""), Ref(0, 0, 0, "x", 7),
                              Ref(65535, 4294967295u, 1, "Z9", 1), Ref(5, 12, 99, "new")};
  for (const sfl_ItemRef& r : refs) {
    sfl_ItemRef back;
    std::memset(&back, 0x5A, sizeof back);
    ASSERT_EQ(im_FormItemRef(TextOf(r).c_str(), &back), 0) << TextOf(r);
    EXPECT_TRUE(SameRef(r, back)) << TextOf(r);
  }
}

TEST(ImText, ParsesFields) {
  sfl_ItemRef r;
  ASSERT_EQ(im_FormItemRef("7.300.123456.q_1:5", &r), 0);
  EXPECT_EQ(r.Domain, 7);
  EXPECT_EQ(r.SubDomain, 300u);
  EXPECT_EQ(r.FileId, 123456u);
  EXPECT_STREQ(r.Name, "q_1");
  EXPECT_EQ(r.Flags, 5);
}

TEST(ImText, MalformedTextRefused) {
  const char* bad[] = {"",          "1.2",        "1.2.",        "1.2.3.",     "1.2.3.abcd",
                       "70000.1.1", "1.2.3:8",    "1.2.3:0",     "1.2.3:12",   "a.b.c",
                       "1.2.3.:1",  "1.2.3.ab:",  "-1.2.3",      "1.2.4294967296",
                       "1.2.3 ",    "1..3"};
  for (const char* t : bad) {
    sfl_ItemRef r{};
    EXPECT_EQ(EscapeOf([&] { im_FormItemRef(t, &r); }), kBadText) << "'" << t << "'";
  }
}

TEST(ImText, UnsafeNameInTextRefused) {
  const char* bad[] = {"1.2.3...", "1.2.3.a/b", "1.2.3../", "1.2.3.a b", "1.2.3.é"};
  for (const char* t : bad) {
    sfl_ItemRef r{};
    auto e = EscapeOf([&] { im_FormItemRef(t, &r); });
    EXPECT_EQ(e.first, ER_GROUP_CONFIG) << t;
    EXPECT_TRUE(e.second == IM_R_UNSAFE_NAME || e.second == IM_R_BAD_TEXT) << t;
  }
  sfl_ItemRef r{};
  EXPECT_EQ(EscapeOf([&] { im_FormItemRef("1.2.3...", &r); }), kUnsafe);
  EXPECT_EQ(EscapeOf([&] { im_FormItemRef("1.2.3.a/b", &r); }), kUnsafe);
}

TEST(ImNames, UnsafeNameTagsRefusedEverywhere) {
  sfl_ItemRef dots = Ref(2, 1, 5, "..");
  sfl_ItemRef slash = Ref(2, 1, 5, "a/");
  sfl_ItemRef space = Ref(2, 1, 5, "a b");
  sfl_ItemRef unterminated{};
  unterminated.Domain = 2;
  std::memcpy(unterminated.Name, "abcd", 4);
  char buf[4096];
  for (const sfl_ItemRef& r : {dots, slash, space, unterminated}) {
    EXPECT_EQ(EscapeOf([&] { im_ItemRef2FName(&r, buf, sizeof buf); }), kUnsafe);
    EXPECT_EQ(EscapeOf([&] { im_ItemRef2Text(&r, buf, sizeof buf); }), kUnsafe);
    EXPECT_EQ(EscapeOf([&] { im_GetRealFileName(&r, buf, sizeof buf); }), kUnsafe);
    EXPECT_EQ(EscapeOf([&] { im_OpenItem(&r); }), kUnsafe);
    EXPECT_EQ(EscapeOf([&] { im_UnlinkItem(&r); }), kUnsafe);
  }
  // Nothing was created outside the store root by any of these.
  EXPECT_FALSE(std::filesystem::exists(sfltest::StoreRoot() + "/2/1/5.."));
}

TEST(ImNames, PathLayout) {
  const std::string root = sfltest::StoreRoot();
  EXPECT_EQ(FNameOf(Ref(2, 17, 4113, "abc")), root + "/2/17/4113.abc");
  EXPECT_EQ(FNameOf(Ref(2, 17, 4113, "abc", 3)), root + "/2/17/4113.abc:3");
  EXPECT_EQ(FNameOf(Ref(4, 0, 9, "")), root + "/4/0/9");
  // Flag bits above the item number do not change the name.
  EXPECT_EQ(FNameOf(Ref(4, 0, 9, "", 0x42)), root + "/4/0/9:2");
}

TEST(ImNames, GetRealFileNameGivesContainerAndItemNumber) {
  char buf[4096];
  sfl_ItemRef r = Ref(2, 3, 44, "x", 6);
  EXPECT_EQ(im_GetRealFileName(&r, buf, sizeof buf), 6);
  EXPECT_EQ(std::string(buf), sfltest::StoreRoot() + "/2/3/44.x");
  r.Flags = 0;
  EXPECT_EQ(im_GetRealFileName(&r, buf, sizeof buf), 0);
}

TEST(ImNames, FileNameRoundTrip) {
  const sfl_ItemRef refs[] = {Ref(2, 17, 4113, "abc", 3), Ref(4, 0, 9, ""), Ref(9, 1, 2, "n-_"),
                              Ref(1, 2, 3, "", 7)};
  for (const sfl_ItemRef& r : refs) {
    sfl_ItemRef back;
    std::memset(&back, 0x5A, sizeof back);
    ASSERT_EQ(im_FName2ItemRef(FNameOf(r).c_str(), &back), 0) << FNameOf(r);
    EXPECT_TRUE(SameRef(r, back)) << FNameOf(r);
  }
}

TEST(ImNames, NamesOutsideTheLayoutRefused) {
  const std::string root = sfltest::StoreRoot();
  const std::string bad[] = {"/etc/passwd",          root + "/2/17",        root + "/2/17/x",
                             root + "/../store/2/1/3", root + "/2/17/5.abcd", root + "/2/17/5:9",
                             root + "/2/17/5/6",       root + "2/17/5",       root + "/2/17/5.a.new"};
  for (const std::string& n : bad) {
    sfl_ItemRef r{};
    auto e = EscapeOf([&] { im_FName2ItemRef(n.c_str(), &r); });
    EXPECT_EQ(e.first, ER_GROUP_CONFIG) << n;
    EXPECT_NE(e.second, 0) << n;
  }
  sfl_ItemRef r{};
  EXPECT_EQ(EscapeOf([&] { im_FName2ItemRef((root + "/2/17/x").c_str(), &r); }), kNotInStore);
  EXPECT_EQ(EscapeOf([&] { im_FName2ItemRef((root + "/2/17/5...").c_str(), &r); }), kUnsafe);
}

TEST(ImNames, SmallBufferRefused) {
  char buf[6];
  sfl_ItemRef r = Ref(2, 17, 4113, "abc", 3);
  EXPECT_EQ(EscapeOf([&] { im_ItemRef2Text(&r, buf, sizeof buf); }),
            std::make_pair(int(ER_GROUP_CONFIG), int(IM_R_BUFFER)));
  EXPECT_EQ(EscapeOf([&] { im_ItemRef2FName(&r, buf, sizeof buf); }),
            std::make_pair(int(ER_GROUP_CONFIG), int(IM_R_BUFFER)));
  sfl_ItemRef small = Ref(1, 2, 3, "");  // "1.2.3" needs exactly 6 bytes
  EXPECT_EQ(im_ItemRef2Text(&small, buf, sizeof buf), 5);
  EXPECT_STREQ(buf, "1.2.3");
}

TEST(ImFiles, NewDataItemIs0660ReadWriteAndCloseOnExec) {
  umask(022);  // a common umask must not take the group's write bit away
  sfl_ItemRef r{};
  int fd = im_GetNewDataItem(&r);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(r.Domain, SFL_TYPE_DATA_ITEM);
  EXPECT_NE(r.FileId, 0u);
  EXPECT_EQ(r.Flags, 0);
  EXPECT_EQ(r.SubDomain, r.FileId % 256);
  struct stat st;
  ASSERT_EQ(stat(FNameOf(r).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0660u);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_EQ(write(fd, "abc", 3), 3);
  char back[3] = {};
  ASSERT_EQ(pread(fd, back, 3, 0), 3);
  EXPECT_EQ(std::memcmp(back, "abc", 3), 0);
  close(fd);
}

// Directories are made when missing, deepest first, and not asked for again
// once they exist.
TEST(ImFiles, DirectoriesAreMadeOnlyWhenMissing) {
  const std::string root = sfltest::TestDir() + "/fresh-store/a/b";
  setenv("SFL_STORE_ROOT", root.c_str(), 1);
  os_ResetCallCounts();
  sfl_ItemRef r{};
  int fd = im_GetNewDataItem(&r);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_TRUE(std::filesystem::exists(FNameOf(r)));
  EXPECT_GE(os_CallCount(os_Op::Mkdir), 4u);  // store root, a, b, and below
  std::set<uint32_t> subDomains{r.SubDomain};
  uint64_t mkdirs = 0, opens = 0;
  for (int i = 0; i < 20; ++i) {
    os_ResetCallCounts();
    sfl_ItemRef again{};
    fd = im_GetNewDataItem(&again);
    ASSERT_GE(fd, 0);
    close(fd);
    const bool newDir = subDomains.insert(again.SubDomain).second;
    // A directory already there costs nothing; a new one under the
    // existing store costs one mkdir, a second open and the flush of its
    // parent (an open of the parent and an fsync).
    mkdirs += os_CallCount(os_Op::Mkdir);
    opens += os_CallCount(os_Op::Open);
    EXPECT_EQ(newDir ? 1u : 0u, os_CallCount(os_Op::Mkdir)) << again.SubDomain;
    EXPECT_EQ(newDir ? 1u : 0u, os_CallCount(os_Op::Fsync)) << again.SubDomain;
  }
  EXPECT_EQ(20u + 2 * mkdirs, opens);
  setenv("SFL_STORE_ROOT", sfltest::StoreRoot().c_str(), 1);
}

TEST(ImFiles, TempItemUsesDomain4) {
  sfl_ItemRef r{};
  int fd = im_CrNewTempItem(&r);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(r.Domain, 4);
  struct stat st;
  ASSERT_EQ(stat(FNameOf(r).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0660u);
  close(fd);
}

TEST(ImFiles, OpenAndUnlinkByReference) {
  sfl_ItemRef r{};
  int fd = im_GetNewDataItem(&r);
  ASSERT_EQ(write(fd, "xyz", 3), 3);
  close(fd);
  sfl_ItemRef item = r;
  item.Flags = 4;  // the item-number bits name the same container file
  int fd2 = im_OpenItem(&item);
  char back[3] = {};
  ASSERT_EQ(pread(fd2, back, 3, 0), 3);
  EXPECT_EQ(std::memcmp(back, "xyz", 3), 0);
  EXPECT_NE(fcntl(fd2, F_GETFD) & FD_CLOEXEC, 0);
  close(fd2);
  im_UnlinkItem(&r);
  EXPECT_FALSE(std::filesystem::exists(FNameOf(r)));
  EXPECT_EQ(EscapeOf([&] { im_OpenItem(&r); }), std::make_pair(int(ER_GROUP_OS), ENOENT));
  EXPECT_EQ(EscapeOf([&] { im_UnlinkItem(&r); }), std::make_pair(int(ER_GROUP_OS), ENOENT));
}

TEST(ImFiles, UniqueAcrossProcesses) {
  constexpr int kChildren = 4;
  constexpr int kEach = 40;
  std::vector<int> pids;
  for (int c = 0; c < kChildren; ++c) {
    pids.push_back(sfltest::StartChild([c] {
      std::ofstream out(sfltest::TestDir() + "/ids-" + std::to_string(c));
      for (int i = 0; i < kEach; ++i) {
        sfl_ItemRef r{};
        int fd = im_GetNewDataItem(&r);
        if (fd < 0) return 1;
        // Each file carries its creator's mark: a file handed to two
        // processes would show only one of them.
        std::string mark = std::to_string(c) + ":" + std::to_string(i);
        if (write(fd, mark.data(), mark.size()) != static_cast<ssize_t>(mark.size())) return 2;
        close(fd);
        out << r.FileId << " " << mark << "\n";
      }
      return 0;
    }));
  }
  for (int pid : pids) ASSERT_EQ(sfltest::WaitChild(pid), 0);

  std::set<uint32_t> ids;
  int total = 0;
  for (int c = 0; c < kChildren; ++c) {
    std::ifstream in(sfltest::TestDir() + "/ids-" + std::to_string(c));
    uint32_t id;
    std::string mark;
    while (in >> id >> mark) {
      ++total;
      ids.insert(id);
      sfl_ItemRef r = Ref(SFL_TYPE_DATA_ITEM, id % 256, id, "");
      std::ifstream f(FNameOf(r));
      std::string content;
      std::getline(f, content);
      EXPECT_EQ(content, mark) << "file " << id << " was written by another creator";
    }
  }
  EXPECT_EQ(total, kChildren * kEach);
  EXPECT_EQ(ids.size(), static_cast<size_t>(kChildren * kEach));
}

}  // namespace
