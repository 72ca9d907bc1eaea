// The power-cut switch: each test arms it in a forked child, makes a few
// changes under a directory of its own, cuts the power, and this process
// looks at what the cut left.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Scene {
  std::string root, stash;
  explicit Scene(const std::string& name) {
    root = sfltest::TestDir() + "/pc-" + name;
    stash = sfltest::TestDir() + "/pc-" + name + "-stash";
    std::filesystem::create_directories(root);
    std::filesystem::create_directories(stash);
  }
  std::string At(const std::string& leaf) const { return root + "/" + leaf; }
};

void PutFile(const std::string& path, const Bytes& data) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(static_cast<ssize_t>(data.size()), ::write(fd, data.data(), data.size()));
  ::fsync(fd);
  ::close(fd);
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

Bytes Fill(size_t n, uint8_t v) { return Bytes(n, v); }

// Runs `body` in a child armed with `seed`; the child must end by a cut.
void CutInChild(const Scene& s, uint64_t seed, const std::function<void()>& body) {
  const int status = sfltest::RunInChild([&] {
    os_PowerCutArm(s.root.c_str(), s.stash.c_str(), seed);
    body();
    return 1;  // no cut: a failure
  });
  ASSERT_EQ(OS_POWER_CUT_EXIT, status);
}

void Overwrite(const std::string& path, const Bytes& data, off_t off, bool flush) {
  const int fd = os_open(path.c_str(), O_RDWR);
  os_pwrite(fd, data.data(), data.size(), off);
  if (flush) os_fdatasync(fd);
  os_close(fd);
}

TEST(OsPowerCut, UnflushedWriteIsLostWhenEverythingIsDropped) {
  Scene s("drop");
  PutFile(s.At("f"), Fill(1000, 'a'));
  CutInChild(s, 0, [&] {
    Overwrite(s.At("f"), Fill(600, 'b'), 200, false);
    Overwrite(s.At("f"), Fill(500, 'c'), 900, false);  // grows the file
    os_PowerCutNow();
  });
  EXPECT_EQ(Fill(1000, 'a'), sfltest::FileBytes(s.At("f")));
}

TEST(OsPowerCut, UnflushedWritesAllStayWhenEverythingIsKept) {
  Scene s("keep");
  PutFile(s.At("f"), Fill(1000, 'a'));
  CutInChild(s, 1, [&] {
    Overwrite(s.At("f"), Fill(600, 'b'), 200, false);
    Overwrite(s.At("f"), Fill(500, 'c'), 900, false);
    os_PowerCutNow();
  });
  Bytes want = Fill(1400, 'a');
  std::fill(want.begin() + 200, want.begin() + 800, 'b');
  std::fill(want.begin() + 900, want.end(), 'c');
  EXPECT_EQ(want, sfltest::FileBytes(s.At("f")));
}

TEST(OsPowerCut, FlushedWriteSurvivesAndLaterOnesDoNot) {
  Scene s("flushed");
  PutFile(s.At("f"), Fill(1000, 'a'));
  CutInChild(s, 0, [&] {
    Overwrite(s.At("f"), Fill(100, 'b'), 0, true);
    Overwrite(s.At("f"), Fill(100, 'c'), 50, false);
    const int fd = os_open(s.At("f").c_str(), O_RDWR);
    os_ftruncate(fd, 10);  // unflushed too
    os_PowerCutNow();
  });
  Bytes want = Fill(1000, 'a');
  std::fill(want.begin(), want.begin() + 100, 'b');
  EXPECT_EQ(want, sfltest::FileBytes(s.At("f")));
}

TEST(OsPowerCut, TheCutComesAtTheChosenFlushWhichIsNotMade) {
  Scene s("atflush");
  PutFile(s.At("f"), Fill(100, 'a'));
  PutFile(s.At("outside-root-is-not-counted"), Fill(1, 'x'));
  CutInChild(s, 0, [&] {
    os_PowerCutAtFlush(2);
    const int fd = os_open(s.At("f").c_str(), O_RDWR);
    os_pwrite(fd, "b", 1, 0);
    os_fdatasync(fd);  // flush 1: made
    if (os_PowerCutFlushes() != 1) os_ExitNow(2);
    os_pwrite(fd, "c", 1, 1);
    os_fdatasync(fd);  // flush 2: the cut
    os_ExitNow(3);
  });
  const Bytes got = sfltest::FileBytes(s.At("f"));
  ASSERT_EQ(100u, got.size());
  EXPECT_EQ('b', got[0]);
  EXPECT_EQ('a', got[1]);
}

TEST(OsPowerCut, TheCutCanComeBeforeTheNthCall) {
  Scene s("atcall");
  PutFile(s.At("f"), Fill(10, 'a'));
  CutInChild(s, 1, [&] {
    os_PowerCutAtCall(3);
    const int fd = os_open(s.At("f").c_str(), O_RDWR);  // 1
    os_pwrite(fd, "b", 1, 0);                           // 2
    os_pwrite(fd, "c", 1, 1);                           // 3: not made
    os_ExitNow(3);
  });
  EXPECT_EQ(Bytes({'b', 'a', 'a', 'a', 'a', 'a', 'a', 'a', 'a', 'a'}), sfltest::FileBytes(s.At("f")));
}

TEST(OsPowerCut, ASkippedFlushLeavesTheWriteUnflushed) {
  Scene s("skip");
  PutFile(s.At("f"), Fill(10, 'a'));
  CutInChild(s, 0, [&] {
    os_PowerCutSkipFlush(1);
    Overwrite(s.At("f"), Fill(10, 'b'), 0, true);
    os_PowerCutNow();
  });
  EXPECT_EQ(Fill(10, 'a'), sfltest::FileBytes(s.At("f")));
}

TEST(OsPowerCut, EntriesNotFlushedAreUndoneAndFlushedOnesStay) {
  Scene s("entries");
  PutFile(s.At("gone"), Fill(300, 'g'));
  PutFile(s.At("old"), Fill(20, 'o'));
  PutFile(s.At("target"), Fill(30, 't'));
  CutInChild(s, 0, [&] {
    os_mkdir(s.At("d").c_str(), 0700);
    const int fd = os_open(s.At("d/new").c_str(), O_RDWR | O_CREAT, 0600);
    os_pwrite(fd, "n", 1, 0);
    os_fdatasync(fd);  // the file's data, not its name
    os_close(fd);
    os_unlink(s.At("gone").c_str());
    os_rename(s.At("old").c_str(), s.At("target").c_str());
    const int kept = os_open(s.At("kept").c_str(), O_RDWR | O_CREAT, 0600);
    os_close(kept);
    os_mkdir(s.At("e").c_str(), 0700);
    if (os_FsyncDir(s.root.c_str()) != 0) os_ExitNow(2);  // "kept" and "e" hold
    const int lost = os_open(s.At("e/lost").c_str(), O_RDWR | O_CREAT, 0600);
    os_close(lost);
    os_PowerCutNow();
  });
  EXPECT_TRUE(Exists(s.At("kept")));
  EXPECT_TRUE(Exists(s.At("e")));
  EXPECT_FALSE(Exists(s.At("e/lost")));
  // Flushed with the root: the unlink and the rename before the flush hold.
  EXPECT_FALSE(Exists(s.At("gone")));
  EXPECT_FALSE(Exists(s.At("old")));
  EXPECT_EQ(Fill(20, 'o'), sfltest::FileBytes(s.At("target")));
  EXPECT_TRUE(Exists(s.At("d")));
}

TEST(OsPowerCut, RemovalsAndRenamesNotFlushedComeBackWhole) {
  Scene s("undo");
  PutFile(s.At("gone"), Fill(300, 'g'));
  PutFile(s.At("old"), Fill(20, 'o'));
  PutFile(s.At("target"), Fill(30, 't'));
  CutInChild(s, 0, [&] {
    os_mkdir(s.At("d").c_str(), 0700);
    const int fd = os_open(s.At("d/new").c_str(), O_RDWR | O_CREAT, 0600);
    os_close(fd);
    os_unlink(s.At("gone").c_str());
    os_rename(s.At("old").c_str(), s.At("target").c_str());
    os_PowerCutNow();
  });
  EXPECT_FALSE(Exists(s.At("d")));
  EXPECT_EQ(Fill(300, 'g'), sfltest::FileBytes(s.At("gone")));
  EXPECT_EQ(Fill(20, 'o'), sfltest::FileBytes(s.At("old")));
  EXPECT_EQ(Fill(30, 't'), sfltest::FileBytes(s.At("target")));
}

// Over many draws, a 4-sector write lands whole, not at all, and torn; a
// sector is always all old or all new.
TEST(OsPowerCut, DrawsKeepDropAndTearAtSectorBoundaries) {
  Scene s("tear");
  bool whole = false, none = false, torn = false;
  for (uint64_t seed = 2; seed < 40; ++seed) {
    PutFile(s.At("f"), Fill(2048, 'a'));
    CutInChild(s, seed, [&] {
      Overwrite(s.At("f"), Fill(2048, 'b'), 0, false);
      os_PowerCutNow();
    });
    const Bytes got = sfltest::FileBytes(s.At("f"));
    ASSERT_EQ(2048u, got.size());
    int news = 0;
    for (size_t sector = 0; sector < 4; ++sector) {
      const Bytes part(got.begin() + sector * 512, got.begin() + (sector + 1) * 512);
      const bool isNew = part == Fill(512, 'b');
      ASSERT_TRUE(isNew || part == Fill(512, 'a')) << "seed " << seed << " sector " << sector;
      news += isNew ? 1 : 0;
    }
    whole = whole || news == 4;
    none = none || news == 0;
    torn = torn || (news > 0 && news < 4);
  }
  EXPECT_TRUE(whole);
  EXPECT_TRUE(none);
  EXPECT_TRUE(torn);
}

// Past the old end a sector not kept reads as zeros, or, when asked, may
// hold garbage.
TEST(OsPowerCut, SectorsNotKeptPastTheEndAreZerosOrWhenAskedGarbage) {
  Scene s("garbage");
  for (const bool garbage : {false, true}) {
    bool sawGarbage = false;
    for (uint64_t seed = 2; seed < 40; ++seed) {
      PutFile(s.At("f"), Bytes{});
      CutInChild(s, seed, [&] {
        os_PowerCutGarbage(garbage);
        Overwrite(s.At("f"), Fill(2048, 'b'), 0, false);
        os_PowerCutNow();
      });
      const Bytes got = sfltest::FileBytes(s.At("f"));
      for (size_t at = 0; at + 512 <= got.size(); at += 512) {
        const Bytes part(got.begin() + at, got.begin() + at + 512);
        sawGarbage = sawGarbage || (part != Fill(512, 'b') && part != Fill(512, 0));
      }
    }
    EXPECT_EQ(garbage, sawGarbage);
  }
}

// Over old bytes, a sector not kept keeps them; when asked, from a given
// offset on it may hold garbage instead (neither old nor new), and never
// before that offset.
TEST(OsPowerCut, SectorsNotKeptOverOldBytesHoldGarbageOnlyPastTheGivenOffset) {
  Scene s("garbage-over");
  for (const uint64_t from : {uint64_t{0}, uint64_t{1024}}) {
    bool sawGarbage = false;
    for (uint64_t seed = 2; seed < 40; ++seed) {
      PutFile(s.At("f"), Fill(2048, 'a'));
      CutInChild(s, seed, [&] {
        os_PowerCutGarbageFrom(from);
        Overwrite(s.At("f"), Fill(2048, 'b'), 0, false);
        os_PowerCutNow();
      });
      const Bytes got = sfltest::FileBytes(s.At("f"));
      ASSERT_EQ(2048u, got.size());
      for (size_t at = 0; at < got.size(); at += 512) {
        const Bytes part(got.begin() + at, got.begin() + at + 512);
        const bool garbage = part != Fill(512, 'a') && part != Fill(512, 'b');
        if (at < 1024 || from == 0) {
          ASSERT_FALSE(garbage) << "seed " << seed << " at " << at;
        }
        sawGarbage = sawGarbage || garbage;
      }
    }
    EXPECT_EQ(from != 0, sawGarbage);
  }
}

// The other calls that change a directory or a file: a link, a removed
// directory, a stream that creates its file, a write at the descriptor's
// position, a rename into another directory.
TEST(OsPowerCut, EveryKindOfChangeIsTakenBack) {
  Scene s("kinds");
  PutFile(s.At("f"), Fill(10, 'a'));
  std::filesystem::create_directories(s.At("empty"));
  std::filesystem::create_directories(s.At("other"));
  CutInChild(s, 0, [&] {
    os_link(s.At("f").c_str(), s.At("f2").c_str());
    os_rmdir(s.At("empty").c_str());
    FILE* made = os_fopen(s.At("stream").c_str(), "w");
    os_fwrite("x", 1, 1, made);
    os_fclose(made);
    const int fd = os_open(s.At("f").c_str(), O_RDWR);
    os_lseek(fd, 4, SEEK_SET);
    os_write(fd, "zz", 2);
    os_close(fd);
    os_rename(s.At("f").c_str(), s.At("other/f").c_str());
    os_PowerCutNow();
  });
  EXPECT_FALSE(Exists(s.At("f2")));
  EXPECT_TRUE(Exists(s.At("empty")));
  EXPECT_FALSE(Exists(s.At("stream")));
  EXPECT_FALSE(Exists(s.At("other/f")));
  EXPECT_EQ(Fill(10, 'a'), sfltest::FileBytes(s.At("f")));
}

// Failed calls change nothing and are not journaled; calls outside the
// root are not either.
TEST(OsPowerCut, FailedCallsAndCallsOutsideTheRootAreNotJournaled) {
  Scene s("failed");
  const std::string outside = sfltest::TestDir() + "/pc-outside";
  PutFile(outside, Fill(4, 'o'));
  CutInChild(s, 0, [&] {
    os_unlink(s.At("missing").c_str());
    os_rename(s.At("missing").c_str(), s.At("also-missing").c_str());
    os_rmdir(s.At("missing").c_str());
    const int fd = os_open(outside.c_str(), O_RDWR);
    os_pwrite(fd, "xxxx", 4, 0);
    os_fdatasync(fd);
    os_close(fd);
    if (os_PowerCutUnflushed() != 0 || os_PowerCutFlushes() != 0) os_ExitNow(2);
    os_PowerCutNow();
  });
  EXPECT_EQ(Fill(4, 'x'), sfltest::FileBytes(outside));
}

TEST(OsPowerCut, StreamWritesAreJournaledLikeAnyOther) {
  Scene s("stream");
  PutFile(s.At("f"), Fill(100, 'a'));
  CutInChild(s, 0, [&] {
    FILE* f = os_fopen(s.At("f").c_str(), "rb+");
    os_fseek(f, 10, SEEK_SET);
    os_fwrite("bbbb", 1, 4, f);
    os_PowerCutNow();
  });
  EXPECT_EQ(Fill(100, 'a'), sfltest::FileBytes(s.At("f")));
}

TEST(OsPowerCut, AChildForkedWhileArmedStartsDisarmed) {
  Scene s("fork");
  PutFile(s.At("f"), Fill(10, 'a'));
  const int status = sfltest::RunInChild([&] {
    os_PowerCutArm(s.root.c_str(), s.stash.c_str(), 0);
    const int inner = sfltest::RunInChild([&] {
      Overwrite(s.At("f"), Fill(10, 'b'), 0, false);
      return os_PowerCutUnflushed() == 0 ? 0 : 1;
    });
    return inner;
  });
  EXPECT_EQ(0, status);
  EXPECT_EQ(Fill(10, 'b'), sfltest::FileBytes(s.At("f")));
}

}  // namespace
