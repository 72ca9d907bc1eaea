// The container pool: an emptied container's file is kept under a pool name
// and handed to the next new file under a fresh reference. What must hold:
// the old name is gone at once and no reference ever leads to a pooled
// file; a reused file comes back empty under a name nobody else has; the
// pool is bounded; processes racing for one pool never share a file; a
// failure or a power cut at any step leaves every container name leading
// to what it led to, or to nothing.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "er.h"
#include "im.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

// The pool is off unless asked for; these tests ask, four files per
// directory, unless a test says otherwise.
[[maybe_unused]] const bool kPoolOn = (::setenv("SFL_CONTAINER_POOL", "4", 1), true);

namespace fs = std::filesystem;
using sfltest::StoreRoot;
using sfltest::TestDir;

std::string PathOf(const sfl_ItemRef& ref) {
  char buf[4096];
  im_GetRealFileName(&ref, buf, sizeof buf);
  return buf;
}

std::string DirOf(const sfl_ItemRef& ref) { return fs::path(PathOf(ref)).parent_path().string(); }

ino_t InodeOf(int fd) {
  struct stat st {};
  EXPECT_EQ(::fstat(fd, &st), 0);
  return st.st_ino;
}

// The inode a name leads to, 0 when there is none.
ino_t InodeAt(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

off_t SizeOf(int fd) {
  struct stat st {};
  EXPECT_EQ(::fstat(fd, &st), 0);
  return st.st_size;
}

// Names in a directory that start with '#' (the pool's and the private
// ones), sorted.
std::vector<std::string> HashNames(const std::string& dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(dir, ec))
    if (e.path().filename().string()[0] == '#') out.push_back(e.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

// Creates a container file in a chosen directory, holding `text`.
int MakeFileAt(uint32_t sub, uint32_t salt, const std::string& text, sfl_ItemRef* ref) {
  *ref = sfl_ItemRef{};
  ref->Domain = SFL_TYPE_DATA_ITEM;
  ref->FileId = (salt << 8) | sub;
  ref->SubDomain = sub;
  fs::create_directories(DirOf(*ref));
  const int fd = ::open(PathOf(*ref).c_str(), O_RDWR | O_CREAT | O_EXCL, 0660);
  EXPECT_GE(fd, 0) << PathOf(*ref);
  EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  return fd;
}

TEST(ContainerPool, AnEmptiedFileComesBackEmptyUnderAFreshName) {
  sfl_ItemRef old{};
  const int fd = im_GetNewDataItem(&old);
  ASSERT_EQ(::write(fd, "old bytes", 9), 9);
  const ino_t ino = InodeOf(fd);
  ASSERT_EQ(im_RetireItem(&old, fd, false), 0);
  ::close(fd);
  EXPECT_EQ(InodeAt(PathOf(old)), 0u) << "the old name must be gone at once";
  EXPECT_EQ(HashNames(DirOf(old)), std::vector<std::string>{"#pool.0"});
  // Emptied on its way in, so that the take need not truncate it (on ext4
  // a truncation makes the next close write the file back).
  EXPECT_EQ(InodeAt(DirOf(old) + "/#pool.0"), ino);
  EXPECT_EQ(sfltest::FileBytes(DirOf(old) + "/#pool.0").size(), 0u) << "a pooled file is empty";
  // A pool name is no reference: the listing and the check never see it.
  sfl_ItemRef parsed{};
  EXPECT_NE(sfltest::EscapeCodeOf([&] { im_FName2ItemRef((DirOf(old) + "/#pool.0").c_str(), &parsed); }),
            0);

  sfl_ItemRef fresh{};
  os_ResetCallCounts();
  const int again = im_GetNewDataItem(&fresh);
  EXPECT_EQ(os_CallCount(os_Op::Ftruncate), 0u) << "an empty pooled file is taken as it is";
  EXPECT_EQ(InodeOf(again), ino) << "the pooled file is reused";
  EXPECT_NE(fresh.FileId, old.FileId);
  EXPECT_EQ(fresh.SubDomain, fresh.FileId % 256);
  EXPECT_EQ(fresh.Domain, SFL_TYPE_DATA_ITEM);
  EXPECT_EQ(SizeOf(again), 0) << "nothing of the old container comes along";
  EXPECT_EQ(InodeAt(PathOf(fresh)), ino) << "the new name leads to the descriptor's file";
  EXPECT_EQ(InodeAt(PathOf(old)), 0u);
  EXPECT_TRUE(HashNames(DirOf(old)).empty());
  ::close(again);
}

TEST(ContainerPool, ATakerEmptiesAPooledFileThatIsNotEmpty) {
  // As a power cut may leave one: the truncation undone, the rename kept.
  sfl_ItemRef old{};
  const int fd = im_GetNewDataItem(&old);
  ASSERT_EQ(im_RetireItem(&old, fd, false), 0);
  ASSERT_EQ(::pwrite(fd, "old bytes", 9, 0), 9);
  const ino_t ino = InodeOf(fd);
  ::close(fd);
  sfl_ItemRef fresh{};
  const int again = im_GetNewDataItem(&fresh);
  EXPECT_EQ(InodeOf(again), ino);
  EXPECT_EQ(SizeOf(again), 0) << "nothing of the old container comes along";
  ::close(again);
}

TEST(ContainerPool, AFlushedRemovalIsFlushedBeforeTheFileEntersThePool) {
  sfl_ItemRef old{};
  const int fd = im_GetNewDataItem(&old);
  // The directory flush fails: the name is removed all the same, but the
  // file, whose removal may not last, is not kept.
  os_FailNth(os_Op::Fsync, 1, EIO);
  EXPECT_EQ(im_RetireItem(&old, fd, true), EIO);
  os_ClearFaults();
  EXPECT_EQ(InodeAt(PathOf(old)), 0u);
  EXPECT_TRUE(HashNames(DirOf(old)).empty());
  ::close(fd);

  // With the flush made it is kept, and the flush came first.
  sfl_ItemRef next{};
  const int fd2 = im_GetNewDataItem(&next);
  os_ResetCallCounts();
  EXPECT_EQ(im_RetireItem(&next, fd2, true), 0);
  EXPECT_EQ(os_CallCount(os_Op::Fsync), 1u);
  EXPECT_EQ(HashNames(DirOf(next)), std::vector<std::string>{"#pool.0"});
  ::close(fd2);
}

TEST(ContainerPool, IsBoundedPerDirectory) {
  ::setenv("SFL_CONTAINER_POOL", "2", 1);
  std::vector<sfl_ItemRef> refs(4);
  for (uint32_t i = 0; i < refs.size(); ++i) {
    const int fd = MakeFileAt(7, i + 1, "x", &refs[i]);
    EXPECT_EQ(im_RetireItem(&refs[i], fd, false), 0);
    ::close(fd);
  }
  for (const sfl_ItemRef& r : refs) EXPECT_EQ(InodeAt(PathOf(r)), 0u);
  EXPECT_EQ(HashNames(DirOf(refs[0])), (std::vector<std::string>{"#pool.0", "#pool.1"}));
  ::setenv("SFL_CONTAINER_POOL", "4", 1);
}

TEST(ContainerPool, TheSettingIsClampedToItsRange) {
  ::setenv("SFL_CONTAINER_POOL", "100", 1);
  for (uint32_t i = 0; i < 66; ++i) {
    sfl_ItemRef r{};
    const int fd = MakeFileAt(21, i + 1, "x", &r);
    EXPECT_EQ(im_RetireItem(&r, fd, false), 0);
    ::close(fd);
  }
  sfl_ItemRef probe{};
  probe.Domain = SFL_TYPE_DATA_ITEM;
  probe.SubDomain = 21;
  EXPECT_EQ(HashNames(DirOf(probe)).size(), 64u) << "at most 64 slots";
  ::setenv("SFL_CONTAINER_POOL", "-3", 1);
  sfl_ItemRef r{};
  const int fd = MakeFileAt(22, 1, "x", &r);
  EXPECT_EQ(im_RetireItem(&r, fd, false), 0);
  ::close(fd);
  EXPECT_TRUE(HashNames(DirOf(r)).empty()) << "below 0 is off";
  ::setenv("SFL_CONTAINER_POOL", "4", 1);
}

TEST(ContainerPool, APoolFilledByThisProcessIsFoundAgainAmongManyDirectories) {
  // Twenty directories, one of them twice: the process remembers the
  // sixteen it filled last (the one filled again counts as filled last),
  // and finds their files first.
  std::set<ino_t> pooled;
  for (uint32_t i = 0; i < 21; ++i) {
    sfl_ItemRef r{};
    const int fd = MakeFileAt(100 + (i == 20 ? 10 : i), i + 1, "x", &r);
    pooled.insert(InodeOf(fd));
    EXPECT_EQ(im_RetireItem(&r, fd, false), 0);
    ::close(fd);
  }
  int reused = 0;
  for (int i = 0; i < 16; ++i) {
    sfl_ItemRef fresh{};
    const int fd = im_GetNewDataItem(&fresh);
    if (pooled.count(InodeOf(fd))) ++reused;
    ::close(fd);
  }
  EXPECT_EQ(reused, 16);
}

TEST(ContainerPool, OffOrTooLargeMeansRemoved) {
  ::setenv("SFL_CONTAINER_POOL", "0", 1);
  sfl_ItemRef a{};
  int fd = MakeFileAt(9, 1, "x", &a);
  EXPECT_EQ(im_RetireItem(&a, fd, false), 0);
  ::close(fd);
  EXPECT_EQ(InodeAt(PathOf(a)), 0u);
  EXPECT_TRUE(HashNames(DirOf(a)).empty());
  ::setenv("SFL_CONTAINER_POOL", "4", 1);

  sfl_ItemRef big{};
  fd = MakeFileAt(9, 2, "x", &big);
  ASSERT_EQ(::ftruncate(fd, (1 << 20) + 1), 0);
  EXPECT_EQ(im_RetireItem(&big, fd, false), 0);
  ::close(fd);
  EXPECT_EQ(InodeAt(PathOf(big)), 0u);
  EXPECT_TRUE(HashNames(DirOf(big)).empty());

  // A name that is already gone is the failure of a removal, as before.
  EXPECT_EQ(sfltest::GroupAndReasonOf([&] { im_RetireItem(&big, -1, false); }),
            std::make_pair(int(ER_GROUP_OS), ENOENT));
}

TEST(ContainerPool, ProcessesRacingForOnePoolNeverShareAFile) {
  constexpr int kPooled = 4;
  constexpr int kTakers = 8;
  std::set<ino_t> pooled;
  sfl_ItemRef first{};
  for (uint32_t i = 0; i < kPooled; ++i) {
    sfl_ItemRef r{};
    const int fd = MakeFileAt(11, i + 1, "x", &r);
    pooled.insert(InodeOf(fd));
    ASSERT_EQ(im_RetireItem(&r, fd, false), 0);
    ::close(fd);
    first = r;
  }
  ASSERT_EQ(HashNames(DirOf(first)).size(), size_t{kPooled});

  // Every taker waits at a gate, then takes a file and reports its inode and
  // whether its new name leads to it and it came back empty.
  int gate[2], report[2];
  ASSERT_EQ(::pipe(gate), 0);
  ASSERT_EQ(::pipe(report), 0);
  std::vector<int> pids;
  for (int t = 0; t < kTakers; ++t) {
    pids.push_back(sfltest::StartChild([&] {
      ::close(gate[1]);
      char c;
      if (::read(gate[0], &c, 1) != 0) return 2;
      sfl_ItemRef ref{};
      const int fd = im_GetNewDataItem(&ref);
      struct {
        ino_t ino;
        int named;
        int empty;
      } r{InodeOf(fd), InodeAt(PathOf(ref)) == InodeOf(fd), SizeOf(fd) == 0};
      return ::write(report[1], &r, sizeof r) == sizeof r ? 0 : 3;
    }));
  }
  ::close(gate[0]);
  ::close(gate[1]);  // opens the gate for all at once
  for (int pid : pids) EXPECT_EQ(sfltest::WaitChild(pid), 0);
  ::close(report[1]);
  std::set<ino_t> seen;
  int reused = 0;
  struct {
    ino_t ino;
    int named;
    int empty;
  } r{};
  int got = 0;
  while (::read(report[0], &r, sizeof r) == sizeof r) {
    ++got;
    EXPECT_TRUE(seen.insert(r.ino).second) << "two processes were handed one file";
    EXPECT_EQ(r.named, 1);
    EXPECT_EQ(r.empty, 1);
    if (pooled.count(r.ino)) ++reused;
  }
  ::close(report[0]);
  EXPECT_EQ(got, kTakers);
  EXPECT_EQ(reused, kPooled) << "every pooled file went to exactly one taker";
  EXPECT_TRUE(HashNames(DirOf(first)).empty());
}

// Every call of a retirement and a take, failed in turn: the old name is
// either still there with its bytes (the retirement raised) or gone for
// good; a take hands out a file only under its new name, empty; no file is
// left under a container name it was not given.
TEST(ContainerPool, AFailureAtAnyStepLeavesEveryNameRight) {
  for (int mode = 0; mode < 2; ++mode) {
    const bool flush = mode == 1;
    for (uint64_t n = 1;; ++n) {
      sfl_ItemRef old{};
      const int fd = MakeFileAt(13, static_cast<uint32_t>(n * 2 + mode), "old bytes", &old);
      const ino_t ino = InodeOf(fd);
      const std::string dir = DirOf(old);
      os_FailNthCall(n, EIO);
      bool raised = false;
      try {
        im_RetireItem(&old, fd, flush);
      } catch (const er_Escape&) {
        raised = true;
        er_Accept(5);
      }
      sfl_ItemRef fresh{};
      int taken = -1;
      try {
        taken = im_GetNewDataItem(&fresh);
      } catch (const er_Escape&) {
        er_Accept(5);
      }
      const bool met = os_FaultMet();
      os_ClearFaults();
      ::close(fd);

      const ino_t atOld = InodeAt(PathOf(old));
      if (raised) {
        EXPECT_EQ(atOld, ino) << "call " << n;
        EXPECT_EQ(sfltest::FileBytes(PathOf(old)).size(), 9u) << "call " << n;
      } else {
        EXPECT_EQ(atOld, 0u) << "call " << n;
      }
      if (taken >= 0) {
        EXPECT_EQ(InodeAt(PathOf(fresh)), InodeOf(taken)) << "call " << n;
        EXPECT_EQ(SizeOf(taken), 0) << "call " << n;
        ::close(taken);
        ::unlink(PathOf(fresh).c_str());
      }
      // Only pool names may remain beside what was there: never a private
      // name of this process holding a file, never a second container name.
      for (const std::string& name : HashNames(dir))
        EXPECT_EQ(name.rfind("#pool.", 0), 0u) << "call " << n << ": " << name;
      for (const auto& e : fs::directory_iterator(dir)) {
        const std::string name = e.path().filename().string();
        if (name[0] == '#') {
          ::unlink(e.path().c_str());
          continue;
        }
        if (raised && e.path().string() == PathOf(old)) {
          ::unlink(e.path().c_str());
          continue;
        }
        ADD_FAILURE() << "call " << n << ": stray " << name;
        ::unlink(e.path().c_str());
      }
      if (!met) break;
      ASSERT_LT(n, 200u);
    }
  }
}

// A power cut at every call of a flushed retirement followed by a take and
// a write to the new file: when the old name comes back it leads to its own
// old bytes, never to the file in its new use.
TEST(ContainerPool, APowerCutNeverBringsAnOldNameBackOnAReusedFile) {
  const std::string stash = TestDir() + "/pool-stash";
  fs::create_directories(stash);
  for (uint64_t seed : {0u, 1u, 2u, 3u}) {
    for (uint64_t n = 1;; ++n) {
      sfl_ItemRef old{};
      const int fd = MakeFileAt(17, static_cast<uint32_t>(n * 8 + seed), "old bytes", &old);
      ASSERT_EQ(::fsync(fd), 0);
      ASSERT_EQ(os_FsyncDir(DirOf(old).c_str()), 0);
      const std::string oldPath = PathOf(old);
      const std::string reached = TestDir() + "/pool-reached";
      const int code = sfltest::RunInChild([&] {
        os_PowerCutArm(StoreRoot().c_str(), stash.c_str(), seed);
        os_PowerCutAtCall(n);
        im_RetireItem(&old, fd, true);
        sfl_ItemRef fresh{};
        const int nfd = im_GetNewDataItem(&fresh);
        if (os_pwrite(nfd, "NEW DATA!", 9, 0) != 9) return 3;
        if (os_fdatasync(nfd) != 0) return 4;
        // Every call was made: the loop ends after this round.
        ::close(::open(reached.c_str(), O_WRONLY | O_CREAT, 0600));
        os_PowerCutNow();
      });
      ASSERT_EQ(code, OS_POWER_CUT_EXIT) << "seed " << seed << " call " << n;
      ::close(fd);
      if (InodeAt(oldPath) != 0) {
        const std::vector<uint8_t> bytes = sfltest::FileBytes(oldPath);
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "old bytes") << "seed " << seed << " call " << n;
      }
      for (const auto& e : fs::directory_iterator(DirOf(old))) ::unlink(e.path().c_str());
      if (::unlink(reached.c_str()) == 0) break;
      ASSERT_LT(n, 40u);
    }
  }
}

}  // namespace
