// Tests of what the `sfl` tool tells its user when things go wrong or are
// not what they seem: error lines that name the place and what to do,
// `check` on what it cannot read, deleted items, empty and overfull
// containers, and a container full of deleted items another process holds.
// Each runs the built tool as its own process (as another user where the
// test needs permissions to bite) and compares whole lines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_coding.h"
#include "sfl_records.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

namespace fs = std::filesystem;
using sfltest::Outcome;
using sfltest::Sfl;

std::vector<std::string> Lines(const std::string& s) {
  std::vector<std::string> lines;
  std::stringstream ss(s);
  std::string line;
  while (std::getline(ss, line)) lines.push_back(line);
  return lines;
}

std::string Tool() { return sfltest::BinDir() + "/bin/sfl"; }

// A directory anyone may write, made afresh for this test process and removed
// when it ends: where runs as the other user leave a coverage build's counts.
// A shared, lasting directory would hold counts of an earlier build, over
// which the runtime complains on standard error ("Merge mismatch").
struct OtherCounts {
  std::string dir;
  OtherCounts() {
    char tmpl[] = "/tmp/sfl-other-counts-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    dir = tmpl;
    ::chmod(dir.c_str(), 01777);
  }
  ~OtherCounts() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
};

const std::string& OtherCountsDir() {
  static const OtherCounts counts;
  return counts.dir;
}



// The first word of the first line: the reference `create` printed.
std::string FirstRef(const Outcome& r) {
  const std::vector<std::string> l = Lines(r.out);
  return l.empty() ? std::string() : l[0].substr(0, l[0].find(' '));
}

std::string NewContainer() {
  Outcome r = Sfl({"create"});
  EXPECT_EQ(r.status, 0) << r.err;
  return FirstRef(r);
}

std::string Put(const std::string& c, const std::string& data) {
  Outcome r = Sfl({"put", c, "-"}, data);
  EXPECT_EQ(r.status, 0) << r.err;
  return Lines(r.out).empty() ? std::string() : Lines(r.out)[0];
}

std::string PathOf(const std::string& ref) {
  sfl_ItemRef r{};
  EXPECT_EQ(im_FormItemRef(ref.c_str(), &r), 0);
  r.Flags = static_cast<uint16_t>(r.Flags & ~SFL_ITEM_NUM_MASK);
  char buf[4096];
  im_ItemRef2FName(&r, buf, sizeof buf);
  return buf;
}

// How a child is set up before the tool runs in it.
struct As {
  bool other = false;      // as the unprivileged user "nobody" when we are root
  bool terminal = false;   // standard error on a pseudo-terminal
  std::string stdinFile;   // standard input from this file instead of `input`
  rlim_t maxFile = 0;      // a file size limit, when not 0
  std::string cwd;         // working directory
  std::vector<std::string> unset;
};

// The peak resident memory of the last child RunAs ran, in KiB.
long g_lastRssKb = 0;

// Runs the tool like sfltest::Sfl, with the child set up as `as` says.
Outcome RunAs(const std::vector<std::string>& args, const As& as, const std::string& input = "") {
  static int seq = 0;
  const std::string base = sfltest::TestDir() + "/msg-run" + std::to_string(++seq);
  {
    std::ofstream in(base + ".in", std::ios::binary | std::ios::trunc);
    in << input;
  }
  int master = -1;
  std::string slave;
  if (as.terminal) {
    master = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_GE(master, 0);
    EXPECT_EQ(grantpt(master), 0);
    EXPECT_EQ(unlockpt(master), 0);
    slave = ptsname(master);
  }
  // Made here, not in the child, so that this process removes it.
  const std::string counts = as.other ? OtherCountsDir() : std::string();
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int in = open((as.stdinFile.empty() ? base + ".in" : as.stdinFile).c_str(), O_RDONLY);
    const int out = open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = as.terminal ? open(slave.c_str(), O_RDWR | O_NOCTTY)
                                : open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    if (!as.cwd.empty() && chdir(as.cwd.c_str()) != 0) _exit(126);
    for (const std::string& k : as.unset) unsetenv(k.c_str());
    if (as.maxFile != 0) {
      // Past the limit a write fails (EFBIG) instead of killing the process.
      std::signal(SIGXFSZ, SIG_IGN);
      struct rlimit rl = {as.maxFile, as.maxFile};
      if (setrlimit(RLIMIT_FSIZE, &rl) != 0) _exit(126);
    }
    if (as.other && geteuid() == 0) {
      // A coverage build writes its counts at exit beside the objects, which
      // the other user may not: send them where it may, so that nothing but
      // the tool speaks on standard error.
      setenv("GCOV_PREFIX", counts.c_str(), 1);
      if (setgid(65534) != 0 || setuid(65534) != 0) _exit(126);
    }
    std::vector<std::string> argv = {Tool()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargs;
    for (std::string& a : argv) cargs.push_back(a.data());
    cargs.push_back(nullptr);
    execv(cargs[0], cargs.data());
    _exit(127);
  }
  Outcome r;
  if (as.terminal) {
    // Read while the child runs, so that a full terminal cannot stall it.
    char buf[4096];
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;) r.err.append(buf, static_cast<size_t>(n));
    close(master);
  }
  int status = 0;
  struct rusage ru {};
  while (wait4(pid, &status, 0, &ru) < 0)
    if (errno != EINTR) return r;
  g_lastRssKb = ru.ru_maxrss;
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = sfltest::ReadWholeFile(base + ".out");
  if (!as.terminal) r.err = sfltest::ReadWholeFile(base + ".err");
  return r;
}

// The name of the user the "other" runs are made as.
std::string OtherUser() { return geteuid() == 0 ? "nobody" : ""; }

// ---- errors name the place and what to do ---------------------------------------------

TEST(SflMessages, AReferenceUsedAwayFromItsStoreSaysWhereItLooked) {
  const std::string c = NewContainer();
  const std::string item = Put(c, "kept");
  const std::string away = sfltest::TestDir() + "/away";
  fs::create_directories(away);
  As as;
  as.cwd = away;
  as.unset = {"SFL_STORE_ROOT"};
  sfl_ItemRef r{};
  ASSERT_EQ(im_FormItemRef(c.c_str(), &r), 0);
  const std::string rel = "./sfl-store/" + std::to_string(r.Domain) + "/" +
                          std::to_string(r.SubDomain) + "/" + std::to_string(r.FileId);
  Outcome g = RunAs({"get", item}, as);
  EXPECT_EQ(g.status, 1);
  EXPECT_EQ(g.err, "sfl get: " + item + ": error 2/2: No such file or directory: " + rel +
                       " (store root ./sfl-store in " + away +
                       "); the store root does not exist: run sfl where the store is, or give "
                       "--store DIR or SFL_STORE_ROOT\n");

  // Within the store, a container that is not there is said to be missing.
  Outcome m = Sfl({"ls", "2.1.1"});
  EXPECT_EQ(m.status, 1);
  EXPECT_EQ(m.err, "sfl ls: 2.1.1: error 2/2: No such file or directory: " + sfltest::StoreRoot() +
                       "/2/1/1 (store root " + sfltest::StoreRoot() +
                       "); no container file there: check the reference, or list the store "
                       "with 'sfl ls'\n");
}

TEST(SflMessages, AFileWhereTheStoreShouldBeIsNamed) {
  const std::string c = NewContainer();
  const std::string item = Put(c, "kept");
  const std::string file = sfltest::WritePlainFile("not-a-store", "x");
  sfl_ItemRef r{};
  ASSERT_EQ(im_FormItemRef(c.c_str(), &r), 0);
  Outcome g = Sfl({"--store", file, "get", item});
  EXPECT_EQ(g.status, 1);
  EXPECT_EQ(g.err, "sfl get: " + item + ": error 2/20: Not a directory: " + file + "/" +
                       std::to_string(r.Domain) + "/" + std::to_string(r.SubDomain) + "/" +
                       std::to_string(r.FileId) + " (store root " + file + "); " + file +
                       " is a file where a directory should be\n");
}

TEST(SflMessages, PermissionDeniedNamesTheDirectoryAndItsOwner) {
  if (OtherUser().empty()) GTEST_SKIP() << "needs root to run the tool as another user";
  const std::string c = NewContainer();
  const std::string item = Put(c, "kept");
  // The test directory is private (0700, root's): nobody may not pass it.
  ASSERT_EQ(chmod(sfltest::TestDir().c_str(), 0700), 0);
  As as;
  as.other = true;
  Outcome g = RunAs({"get", item}, as);
  EXPECT_EQ(g.status, 1);
  EXPECT_EQ(g.err, "sfl get: " + item + ": error 2/13: Permission denied: " + PathOf(c) +
                       " (store root " + sfltest::StoreRoot() + "); " + sfltest::TestDir() +
                       " (owner root, mode 0700) does not let nobody through: ask its owner for "
                       "access, or run sfl as that user\n");
}

TEST(SflMessages, AWriteThatFailsGivesTheSystemsText) {
  const std::string c = NewContainer();
  Put(c, "first");
  const std::string big = sfltest::WritePlainFile("big.bin", std::string(1 << 20, 'b'));
  As as;
  as.maxFile = 64 * 1024;  // the container may not grow past 64 KiB
  Outcome p = RunAs({"put", c, big}, as);
  EXPECT_EQ(p.status, 1);
  EXPECT_EQ(p.err, "sfl put: " + c + ": writing into " + PathOf(c) + " (store root " +
                       sfltest::StoreRoot() +
                       "): File too large; the file would pass the size limit of this process "
                       "or file system\n");
  // Nothing of the failed item is left.
  Outcome ls = Sfl({"ls", c, "--json"});
  EXPECT_NE(ls.out.find("\"used\": 1,"), std::string::npos) << ls.out;
}

TEST(SflMessages, AnUnusableRunDirectorySaysWhoOwnsIt) {
  if (OtherUser().empty()) GTEST_SKIP() << "needs root to run the tool as another user";
  // A store nobody may use, beside a run directory that is root's.
  const std::string store = sfltest::TestDir() + "/shared-store";
  fs::create_directories(store);
  ASSERT_EQ(chmod(sfltest::TestDir().c_str(), 0711), 0);
  ASSERT_EQ(chmod(store.c_str(), 0777), 0);
  Outcome made = Sfl({"--store", store, "create", "-"}, "shared");
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string c = FirstRef(made);
  for (fs::path p = Lines(made.out)[0].substr(c.size() + 1); p != store; p = p.parent_path())
    ASSERT_EQ(chmod(p.c_str(), fs::is_directory(p) ? 0777 : 0666), 0) << p;
  As as;
  as.other = true;
  Outcome l = RunAs({"--store", store, "ls", c}, as);
  EXPECT_EQ(l.status, 1);
  EXPECT_EQ(l.err, "sfl ls: " + c + ": error 116/380: interest service not available: run directory " +
                       sfltest::RunDir() +
                       " belongs to root, not nobody: use a run directory of your own "
                       "(SFL_RUN_DIR) or run sfl as root\n");
}

// ---- check: what it cannot read --------------------------------------------------------

// A container of two small items: reference and path.
struct Made {
  std::string ref;
  std::string path;
};
Made MakeContainer() {
  const std::string file = sfltest::WritePlainFile("msg-item.txt", "some bytes to keep\n");
  Outcome r = Sfl({"create", file, file});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string first = Lines(r.out).at(0);
  return {first.substr(0, first.find(' ')), first.substr(first.find(' ') + 1)};
}

// The free map's offset in the container and item 1's first block.
void MapAndBlock(const std::string& path, uint32_t* map, uint32_t* block) {
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  std::vector<uint8_t> slot0 = sfltest::ReadExactly(fd, SFL_TABLE_OFFSET, 64);
  std::vector<uint8_t> slot1 = sfltest::ReadExactly(fd, SFL_TABLE_OFFSET + 64, 64);
  close(fd);
  *map = sfl_GetU32(slot0.data() + 24);
  *block = sfl_GetU32(slot1.data() + 24) / 128;
}

void PokeByte(const std::string& path, uint64_t at, uint8_t value) {
  int fd = open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, &value, 1, static_cast<off_t>(at)), 1);
  close(fd);
}

uint8_t ByteAt(const std::string& path, uint64_t at) {
  int fd = open(path.c_str(), O_RDONLY);
  std::vector<uint8_t> b = sfltest::ReadExactly(fd, at, 1);
  close(fd);
  return b[0];
}

TEST(SflMessagesCheck, MissingAndDirectoryAreNotCheckedButSaidUnreadable) {
  const Made sound = MakeContainer();
  const Made gone = MakeContainer();
  const Made dir = MakeContainer();
  ASSERT_EQ(unlink(gone.path.c_str()), 0);
  ASSERT_EQ(unlink(dir.path.c_str()), 0);
  fs::create_directories(dir.path);
  Outcome r = Sfl({"check", sound.ref, gone.ref, dir.ref});
  EXPECT_EQ(r.status, 3) << r.out << r.err;
  EXPECT_EQ(r.out, sound.path + ": ok\n" + gone.path +
                       ": cannot be read: No such file or directory; no container file there: "
                       "check the reference, or list the store with 'sfl ls'\n" +
                       dir.path + ": cannot be read: a directory, not a container file\n" +
                       "1 container checked, 0 with faults, 2 could not be read\n");
  EXPECT_EQ(r.err, "");
}

TEST(SflMessagesCheck, AStoreThatCannotBeListedIsNotAnEmptyOne) {
  if (OtherUser().empty()) GTEST_SKIP() << "needs root to run the tool as another user";
  MakeContainer();
  ASSERT_EQ(chmod(sfltest::TestDir().c_str(), 0711), 0);
  ASSERT_EQ(chmod(sfltest::StoreRoot().c_str(), 0711), 0);  // may be passed, not listed
  As as;
  as.other = true;
  Outcome r = RunAs({"check", "--all"}, as);
  EXPECT_EQ(r.status, 3) << r.out << r.err;
  EXPECT_EQ(r.out, sfltest::StoreRoot() +
                       ": cannot be read: its containers cannot be listed: Permission denied; " +
                       sfltest::StoreRoot() +
                       " (owner root, mode 0711) does not let nobody list it: ask its owner for "
                       "access, or run sfl as that user\n"
                       "0 containers checked, 0 with faults, 1 could not be read\n");
}

TEST(SflMessagesCheck, QuietShowsOnlyFaultsAndTheSummary) {
  const Made a = MakeContainer();
  const Made b = MakeContainer();
  uint32_t map = 0, block = 0;
  MapAndBlock(b.path, &map, &block);
  const uint8_t was = ByteAt(b.path, map + block / 8);
  PokeByte(b.path, map + block / 8, static_cast<uint8_t>(was & ~(1u << (block % 8))));
  Outcome r = Sfl({"check", "--quiet", a.ref, b.ref});
  EXPECT_EQ(r.status, 1);
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 3u) << r.out;
  EXPECT_EQ(lines[0].rfind(b.path + ": SFL-204-1036: free-map byte ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], b.path + ": faults found");
  EXPECT_EQ(lines[2], "2 containers checked, 1 with faults");
}

TEST(SflMessagesCheck, RepairListsWhatItChanged) {
  const Made m = MakeContainer();
  uint32_t map = 0, block = 0;
  MapAndBlock(m.path, &map, &block);
  const uint8_t was = ByteAt(m.path, map + block / 8);
  const uint8_t damaged = static_cast<uint8_t>(was & ~(1u << (block % 8)));
  PokeByte(m.path, map + block / 8, damaged);
  char fault[160];
  std::snprintf(fault, sizeof fault,
                "SFL-204-1036: free-map byte %u is 0x%02x but the space in use needs 0x%02x: "
                "blocks in use are marked free",
                block / 8, damaged, was);
  Outcome r = Sfl({"check", "--repair", m.ref});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, m.path + ": " + fault + "\n" + m.path + ": faults found\n" + m.path +
                       ": repaired: " + fault + "\n");
  EXPECT_EQ(Sfl({"check", m.ref}).out, m.path + ": ok\n");
}

TEST(SflMessagesCheck, UnusedMarksAreOneLinePerRun) {
  const Made m = MakeContainer();
  // A big item, deleted again: its blocks are free and the file keeps its
  // length while another item is left.
  Outcome big = Sfl({"put", m.ref, "-"}, std::string(64 * 1024, 'z'));
  ASSERT_EQ(big.status, 0) << big.err;
  uint32_t map = 0, block = 0;
  MapAndBlock(m.path, &map, &block);
  Outcome st = Sfl({"stat", Lines(big.out)[0], "--json"});
  const size_t at = st.out.find("\"offset\": ");
  ASSERT_NE(at, std::string::npos) << st.out;
  const uint32_t first = static_cast<uint32_t>(std::stoul(st.out.substr(at + 10))) / 128;
  ASSERT_EQ(Sfl({"rm", Lines(big.out)[0]}).status, 0);
  ASSERT_GT(fs::file_size(m.path), uint64_t{first} * 128 + 64 * 1024 - 1) << "file shrank";
  // Mark eight whole bytes of the freed run in use again.
  const uint32_t byte0 = (first + 7) / 8;
  for (uint32_t i = 0; i < 8; ++i) PokeByte(m.path, map + byte0 + i, 0xff);
  Outcome r = Sfl({"check", m.ref});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, m.path + ": SFL-204-1037: free-map bytes " + std::to_string(byte0) + " to " +
                       std::to_string(byte0 + 7) + " mark 64 blocks (128 bytes each, from block " +
                       std::to_string(byte0 * 8) + ") in use that nothing uses\n" + m.path +
                       ": ok\n");
}

// ---- deleted items ---------------------------------------------------------------------

TEST(SflMessagesDeleted, EveryCommandSaysTheItemIsDeleted) {
  const std::string c = NewContainer();
  Put(c, "one");
  const std::string two = Put(c, "two");
  ASSERT_EQ(Sfl({"rm", two}).status, 0);
  const std::string gone = ": " + two + ": no item 2: it was deleted, or never stored (slot 2 is free)\n";
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"stat", two}, {"get", two}, {"attach", two}, {"detach", two},
        {"truncate", two, "1"}, {"cat", two}, {"blocks", "list", two}}) {
    Outcome r = Sfl(args);
    EXPECT_EQ(r.status, 1) << args[0];
    const std::string name = args[0] == "blocks" ? "blocks list" : args[0];
    EXPECT_EQ(r.err, "sfl " + name + gone);
  }
  // Deleting it again is no failure: it is gone either way.
  Outcome again = Sfl({"rm", two});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.out, "");
  EXPECT_EQ(again.err, "sfl rm: " + two + ": already deleted\n");
}

TEST(SflMessagesDeleted, AnItemWaitingForAnotherProcesssCloseSaysSo) {
  const std::string c = NewContainer();
  const std::string one = Put(c, "one");
  Put(c, "two");
  sfl_ItemRef ref{};
  ASSERT_EQ(im_FormItemRef(c.c_str(), &ref), 0);
  const int32_t base = sfl_OpenSfl(&ref, 0);  // held by this process
  ASSERT_EQ(Sfl({"rm", one}).status, 0);
  const std::string waits = "item 1 is deleted; its space is freed when the last process holding "
                            "the container closes it";
  Outcome st = Sfl({"stat", one});
  EXPECT_EQ(st.status, 1);
  EXPECT_EQ(st.err, "sfl stat: " + one + ": " + waits + "\n");
  Outcome again = Sfl({"rm", one});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.err, "sfl rm: " + one + ": already deleted; its space is freed when the last "
                       "process holding the container closes it\n");
  sfl_CloseFile(base);
}

// ---- create ----------------------------------------------------------------------------

TEST(SflMessagesCreate, AnEmptyContainerSurvivesBeingLookedAt) {
  const std::string c = NewContainer();
  for (int i = 0; i < 2; ++i) {
    Outcome l = Sfl({"ls", c});
    EXPECT_EQ(l.status, 0) << l.err;
    EXPECT_EQ(Lines(l.out).at(0).find(" 0 of 7 item slots used"), c.size() + 2 + PathOf(c).size() + 1)
        << l.out;
  }
  EXPECT_EQ(Sfl({"stat", c + ":1"}).status, 1);
  Outcome p = Sfl({"put", c, "-"}, "after all");
  EXPECT_EQ(p.status, 0) << p.err;
  EXPECT_EQ(p.out, c + ":1\n");
}

TEST(SflMessagesCreate, MoreFilesThanSlotsAreRefusedBeforeAnythingIsStored) {
  const std::string store = sfltest::TestDir() + "/store-of-eight";
  fs::create_directories(store);
  std::vector<std::string> args = {"--store", store, "create"};
  for (int i = 0; i < 8; ++i)
    args.push_back(sfltest::WritePlainFile("f" + std::to_string(i), std::string(1000, 'a')));
  Outcome r = Sfl(args);
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "sfl create: 8 files do not fit in one container (7 item slots); nothing was stored: "
            "create it with fewer, then 'sfl put --new-container-if-full <container> <file>...' "
            "for the rest\n");
  size_t files = 0;
  for (const auto& e : fs::recursive_directory_iterator(store))
    files += e.is_regular_file() ? 1 : 0;
  EXPECT_EQ(files, 0u);
}

// ---- a full container ------------------------------------------------------------------

TEST(SflMessagesFull, SlotsWaitingForAnotherProcesssCloseAreNamedAndThereIsAWayOut) {
  const std::string c = NewContainer();
  std::vector<std::string> items;
  for (int i = 1; i <= 7; ++i) items.push_back(Put(c, "item " + std::to_string(i)));
  sfl_ItemRef ref{};
  ASSERT_EQ(im_FormItemRef(c.c_str(), &ref), 0);
  const int32_t base = sfl_OpenSfl(&ref, 0);
  ASSERT_EQ(Sfl({"rm", items[0], items[1]}).status, 0);
  Outcome r = Sfl({"put", c, "-"}, "eighth");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "sfl put: " + c +
                       ": the container is full: all 7 item slots are in use, 2 of them by deleted "
                       "items that wait for another process to close the container (they are "
                       "freed then); store into a new container with 'sfl put "
                       "--new-container-if-full'\n");
  const std::string a = sfltest::WritePlainFile("a.txt", "aaa");
  const std::string b = sfltest::WritePlainFile("b.txt", "bbb");
  Outcome n = Sfl({"put", "--new-container-if-full", c, a, b});
  EXPECT_EQ(n.status, 0) << n.err;
  const std::vector<std::string> lines = Lines(n.out);
  ASSERT_EQ(lines.size(), 2u) << n.out;
  const std::string other = lines[0].substr(0, lines[0].find(':'));
  EXPECT_NE(other, c);
  EXPECT_EQ(lines[0], other + ":1 " + a);
  EXPECT_EQ(lines[1], other + ":2 " + b);
  EXPECT_EQ(Sfl({"get", other + ":2"}).out, "bbb");
  sfl_CloseFile(base);
}

}  // namespace

// ---- a first session, as README walks through it ----------------------------------------

// Replaces every `from` in `s` with `to`.
std::string Swap(std::string s, const std::string& from, const std::string& to) {
  for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
  return s;
}

// The repository's README.md: this file lives in <root>/tests/tools/.
std::string Readme() {
  return sfltest::ReadWholeFile(sfltest::SourceRoot() + "/README.md");
}

// Change times as README shows them (the run's own differ).
std::string FixedTimes(std::string s) {
  for (size_t at = s.find("Z  "); at != std::string::npos; at = s.find("Z  ", at + 1))
    if (at >= 19 && s[at - 9] == 'T' && s[at - 12] == '-') s.replace(at - 19, 20, "2026-11-24T10:42:27Z");
  return s;
}

TEST(SflWalkthrough, StoreADirectoryFindItAgainCheckAndCompact) {
  const std::string home = sfltest::TestDir() + "/walk";
  fs::create_directories(home + "/notes");
  std::ofstream(home + "/notes/alpha.txt") << "alpha\n";
  std::ofstream(home + "/notes/beta.txt") << "beta beta\n";
  std::ofstream(home + "/notes/gamma.txt") << std::string(3000, 'g');
  As here;
  here.cwd = home;
  here.unset = {"SFL_STORE_ROOT"};  // the default store, ./sfl-store
  Outcome made = RunAs({"create"}, here);
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string c = FirstRef(made);
  // The README shows the container as 2.17.4113; this run's is another.
  auto shown = [&](const std::string& s) {
    std::string t = Swap(s, c, "2.17.4113");
    const std::string dir = "./sfl-store/" + Swap(c, ".", "/");
    return Swap(t, dir, "./sfl-store/2/17/4113");
  };
  // Each command as README shows it, then what it printed, indented.
  std::string transcript = "    $ sfl create\n    " + shown(made.out);
  auto run = [&](const std::string& line, const std::vector<std::string>& args) {
    Outcome r = RunAs(args, here);
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string out = shown(r.out) + shown(r.err);
    transcript += "    $ " + line + "\n";
    for (const std::string& l : Lines(out)) transcript += "    " + l + "\n";
    return out;
  };
  EXPECT_EQ(shown(made.out), "2.17.4113 ./sfl-store/2/17/4113\n");
  EXPECT_EQ(run("sfl put 2.17.4113 notes/alpha.txt notes/beta.txt notes/gamma.txt | tee stored.txt",
                {"put", c, "notes/alpha.txt", "notes/beta.txt", "notes/gamma.txt"}),
            "2.17.4113:1 notes/alpha.txt\n"
            "2.17.4113:2 notes/beta.txt\n"
            "2.17.4113:3 notes/gamma.txt\n");
  const std::string stored = transcript;
  transcript.clear();
  EXPECT_EQ(run("sfl ls", {"ls"}),
            "ITEMS        BYTES      HOLES  CONTAINER PATH\n"
            "    3         4152          0  2.17.4113 ./sfl-store/2/17/4113\n"
            "1 container\n");
  const std::vector<std::string> il = Lines(run("sfl ls 2.17.4113", {"ls", c}));
  ASSERT_EQ(il.size(), 5u);
  EXPECT_EQ(il[0], "2.17.4113  ./sfl-store/2/17/4113  3 of 7 item slots used  file flags: -");
  EXPECT_EQ(il[1], "ITEM         SIZE   BLOCKS ATTACH  CHANGED               FLAGS");
  EXPECT_EQ(il[2].substr(0, 33), "   1            6        1      1");
  EXPECT_EQ(il[3].substr(0, 33), "   2           10        1      1");
  EXPECT_EQ(il[4].substr(0, 33), "   3         3000       24      1");
  EXPECT_EQ(run("sfl get 2.17.4113:2", {"get", c + ":2"}), "beta beta\n");
  EXPECT_EQ(run("sfl rm 2.17.4113:1", {"rm", c + ":1"}), "");
  EXPECT_EQ(run("sfl rm 2.17.4113:1", {"rm", c + ":1"}), "sfl rm: 2.17.4113:1: already deleted\n");
  EXPECT_EQ(run("sfl check --all", {"check", "--all"}),
            "./sfl-store/2/17/4113: ok\n"
            "1 container checked, 0 with faults\n");
  EXPECT_EQ(run("sfl ls", {"ls"}),
            "ITEMS        BYTES      HOLES  CONTAINER PATH\n"
            "    2         4152         56  2.17.4113 ./sfl-store/2/17/4113\n"
            "1 container\n");
  EXPECT_EQ(run("sfl compact 2.17.4113", {"compact", c}), "2.17.4113  4152 -> 4096 bytes (56 freed)\n");
  EXPECT_EQ(run("sfl check --all --quiet", {"check", "--all", "--quiet"}),
            "1 container checked, 0 with faults\n");
  // README shows the same session, word for word.
  const std::string readme = Readme();
  ASSERT_FALSE(readme.empty());
  EXPECT_NE(readme.find(stored), std::string::npos) << stored;
  EXPECT_NE(readme.find(FixedTimes(transcript)), std::string::npos) << FixedTimes(transcript);
}

// ---- listing the store ------------------------------------------------------------------

TEST(SflMessagesList, TheStoreIsListedAPageAtATime) {
  const std::string store = sfltest::TestDir() + "/listed";
  fs::create_directories(store);
  std::vector<std::string> refs;
  for (int i = 0; i < 3; ++i) {
    Outcome r = Sfl({"--store", store, "create", "-"}, std::string(200 * (i + 1), 'x'));
    ASSERT_EQ(r.status, 0) << r.err;
    refs.push_back(FirstRef(r));
  }
  std::vector<std::pair<std::string, std::string>> byPath;
  for (const std::string& c : refs) {
    sfl_ItemRef r{};
    ASSERT_EQ(im_FormItemRef(c.c_str(), &r), 0);
    byPath.emplace_back(store + "/" + std::to_string(r.Domain) + "/" + std::to_string(r.SubDomain) +
                            "/" + std::to_string(r.FileId),
                        c);
  }
  std::sort(byPath.begin(), byPath.end());
  auto row = [&](size_t i) {
    const std::string ref = byPath[i].second;
    const size_t n = std::find(refs.begin(), refs.end(), ref) - refs.begin();
    char buf[64];
    std::snprintf(buf, sizeof buf, "%5d %12llu %10d  ", 1,
                  static_cast<unsigned long long>(fs::file_size(byPath[i].first)), 0);
    (void)n;
    return std::string(buf) + ref + " " + byPath[i].first + "\n";
  };
  const std::string head = "ITEMS        BYTES      HOLES  CONTAINER PATH\n";
  Outcome all = Sfl({"--store", store, "ls"});
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(all.out, head + row(0) + row(1) + row(2) + "3 containers\n");
  Outcome first = Sfl({"--store", store, "ls", "--limit", "2"});
  EXPECT_EQ(first.out, head + row(0) + row(1) + "2 of 3 containers shown; --skip 2 for the next\n");
  Outcome next = Sfl({"--store", store, "ls", "--limit", "2", "--skip", "2"});
  EXPECT_EQ(next.out, head + row(2) + "1 of 3 containers shown\n");
  Outcome bad = Sfl({"--store", store, "ls", refs[0], "--limit", "1"});
  EXPECT_EQ(bad.status, 2);
}

// ---- standard input and progress -------------------------------------------------------

TEST(SflMessagesStream, StandardInputIsStoredInBoundedMemory) {
  const std::string c = NewContainer();
  std::string data(48 << 20, '\0');
  for (size_t i = 0; i < data.size(); i += 4096) data[i] = static_cast<char>(i >> 12);
  As as;
  as.stdinFile = sfltest::WritePlainFile("stdin.bin", data);
  const size_t size = data.size();
  // Not held here while the child runs: its fork would count it as its own.
  std::string().swap(data);
  // The tool's own footprint (much larger under the sanitizers) from a small
  // input, so that what is measured is what the input adds.
  As small;
  small.stdinFile = sfltest::WritePlainFile("stdin-small.bin", std::string(4096, 's'));
  ASSERT_EQ(RunAs({"put", c, "-"}, small).status, 0);
  const long baseKb = g_lastRssKb;
  Outcome p = RunAs({"put", c, "-"}, as);
  ASSERT_EQ(p.status, 0) << p.err;
  EXPECT_LT(g_lastRssKb - baseKb, 16 * 1024)
      << "the tool held standard input in memory (" << baseKb << " KiB for 4 KiB of input, "
      << g_lastRssKb << " KiB for 48 MiB)";
  const std::string item = Lines(p.out).at(0);
  Outcome g = Sfl({"get", item});
  EXPECT_EQ(g.out.size(), size);
  EXPECT_TRUE(g.out == sfltest::ReadWholeFile(as.stdinFile));
}

TEST(SflMessagesStream, ALargeTransferShowsProgressOnATerminal) {
  const std::string c = NewContainer();
  const std::string big = sfltest::WritePlainFile("progress.bin", std::string(6 << 20, 'p'));
  As tty;
  tty.terminal = true;
  Outcome p = RunAs({"put", c, big}, tty);
  ASSERT_EQ(p.status, 0) << p.err;
  EXPECT_EQ(p.err.rfind("\r\033[Kstoring 0 of 6 MiB\r\033[Kstoring 1 of 6 MiB", 0), 0u) << p.err;
  EXPECT_NE(p.err.find("\r\033[Kstoring 5 of 6 MiB\r\033[K"), std::string::npos) << p.err;
  Outcome g = RunAs({"get", Lines(p.out).at(0), "-o", sfltest::TestDir() + "/back.bin"}, tty);
  ASSERT_EQ(g.status, 0) << g.err;
  EXPECT_NE(g.err.find("\r\033[Kreading 5 of 6 MiB\r\033[K"), std::string::npos) << g.err;
  // Off a terminal, or for a small item, nothing is shown.
  As plain;
  EXPECT_EQ(RunAs({"put", c, big}, plain).err, "");
  EXPECT_EQ(RunAs({"put", c, "-"}, tty, "small").err, "");
}

// ---- the service's status ---------------------------------------------------------------

std::string ModeOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0);
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04o", static_cast<unsigned>(st.st_mode & 07777));
  return buf;
}

TEST(SflMessagesService, StatusNamesTheRunDirectoryItsOwnerAndTheLog) {
  const std::string run = sfltest::RunDir();
  const std::string owner = geteuid() == 0 ? "root" : "";
  if (owner.empty()) GTEST_SKIP() << "the expected owner name is root's";
  Outcome down = Sfl({"service", "status"});
  EXPECT_EQ(down.status, 1);
  EXPECT_EQ(down.out, "not running\nrun directory  " + run + " (owner root, mode " + ModeOf(run) +
                          ")\nlog file       " + run + "/sfl-monitor.log\nmetrics file   " + run +
                          "/sfl-monitor.prom\n");
  const int pid = sfltest::StartService();
  ASSERT_GT(pid, 0);
  // The counts come from the file the service refreshes; its first is
  // written a moment after the start.
  ASSERT_TRUE(sfltest::Eventually([&] { return access((run + "/sfl-monitor.prom").c_str(), F_OK) == 0; }));
  Outcome up = Sfl({"service", "status"});
  EXPECT_EQ(up.status, 0);
  const std::vector<std::string> lines = Lines(up.out);
  ASSERT_EQ(lines.size(), 6u) << up.out;
  EXPECT_EQ(lines[0], "running: pid " + std::to_string(pid) + ", 1 queue pair");
  EXPECT_EQ(lines[1], "held           0 interest entries by 0 processes");
  EXPECT_EQ(lines[2], "answered       0 requests (record 0, withdraw 0, check 0)");
  EXPECT_EQ(lines[3], "run directory  " + run + " (owner root, mode " + ModeOf(run) + ")");
  EXPECT_EQ(lines[4], "log file       " + run + "/sfl-monitor.log");
  EXPECT_EQ(lines[5].rfind("metrics file   " + run + "/sfl-monitor.prom (written ", 0), 0u) << lines[5];
  Outcome json = Sfl({"service", "status", "--json"});
  const std::string head = "{\"running\": true, \"pid\": " + std::to_string(pid) +
                           ", \"pairs\": 1, \"run_dir\": \"" + run + "\", \"run_dir_owner\": \"owner root, mode " +
                           ModeOf(run) + "\", \"log\": \"" + run +
                           "/sfl-monitor.log\", \"usable\": true, \"problem\": \"\", \"metrics\": \"" + run +
                           "/sfl-monitor.prom\", \"entries\": 0, \"processes\": 0, \"requests\": {\"record\": 0, "
                           "\"withdraw\": 0, \"check\": 0}, \"requests_answered\": 0, \"counts_age_seconds\": ";
  EXPECT_EQ(json.out.substr(0, head.size()), head) << json.out;
  // Another user does not get "not running" for a service that runs.
  ASSERT_EQ(chmod(sfltest::TestDir().c_str(), 0711), 0);
  As as;
  as.other = true;
  Outcome other = RunAs({"service", "status"}, as);
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(Lines(other.out).at(0),
            "not usable: run directory " + run +
                " belongs to root, not nobody: use a run directory of your own (SFL_RUN_DIR) or "
                "run sfl as root");
  sfltest::StopService();
}

// ---- what a failure part way leaves named ---------------------------------------------

TEST(SflMessagesCreate, AFailurePartWayStillNamesWhatWasStored) {
  const std::string small = sfltest::WritePlainFile("small.txt", "small");
  const std::string big = sfltest::WritePlainFile("big2.bin", std::string(1 << 20, 'b'));
  As as;
  as.maxFile = 64 * 1024;  // the second file does not fit under the limit
  Outcome r = RunAs({"create", small, big}, as);
  EXPECT_EQ(r.status, 1);
  const std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 2u) << r.out << r.err;
  const std::string c = lines[0].substr(0, lines[0].find(' '));
  EXPECT_EQ(lines[0], c + " " + PathOf(c));
  EXPECT_EQ(lines[1], c + ":1");
  EXPECT_EQ(r.err, "sfl create: " + c + ": writing into " + PathOf(c) + " (store root " +
                       sfltest::StoreRoot() +
                       "): File too large; the file would pass the size limit of this process "
                       "or file system\n");
  EXPECT_EQ(Sfl({"get", c + ":1"}).out, "small");
  EXPECT_EQ(Sfl({"stat", c + ":2"}).status, 1);  // the half-written item was taken back
}

TEST(SflMessagesFull, AMissingFileAmongSeveralStoresNothing) {
  const std::string c = NewContainer();
  const std::string a = sfltest::WritePlainFile("present.txt", "here");
  const std::string missing = sfltest::TestDir() + "/absent.txt";
  Outcome r = Sfl({"put", c, a, missing});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "sfl put: " + c + ": opening " + missing + ": No such file or directory\n");
  EXPECT_EQ(Sfl({"stat", c + ":1"}).status, 1);
}

TEST(SflMessagesCheck, JsonSaysWhatCouldNotBeRead) {
  const Made m = MakeContainer();
  ASSERT_EQ(unlink(m.path.c_str()), 0);
  Outcome r = Sfl({"check", "--json", m.ref});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, "{\"path\": \"" + m.path +
                       "\", \"result\": 3, \"unreadable\": \"No such file or directory; no container "
                       "file there: check the reference, or list the store with 'sfl ls'\"}\n");
}

TEST(SflMessagesList, ADirectoryThatCannotBeReadIsSaidSo) {
  if (OtherUser().empty()) GTEST_SKIP() << "needs root to run the tool as another user";
  const std::string store = sfltest::TestDir() + "/half-readable";
  fs::create_directories(store + "/2/locked");
  ASSERT_EQ(chmod(sfltest::TestDir().c_str(), 0711), 0);
  ASSERT_EQ(chmod(store.c_str(), 0755), 0);
  ASSERT_EQ(chmod((store + "/2").c_str(), 0755), 0);
  ASSERT_EQ(chmod((store + "/2/locked").c_str(), 0700), 0);
  As as;
  as.other = true;
  Outcome r = RunAs({"--store", store, "ls"}, as);
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, "ITEMS        BYTES      HOLES  CONTAINER PATH\n0 containers\n");
  EXPECT_EQ(r.err, "sfl ls: " + store + "/2/locked: cannot be read: its containers cannot be listed: "
                       "Permission denied; " + store +
                       "/2/locked (owner root, mode 0700) does not let nobody list it: ask its "
                       "owner for access, or run sfl as that user\n");
}

TEST(SflMessagesList, AFileThatIsNoContainerIsSaidSoAndTheRestListed) {
  const std::string store = sfltest::TestDir() + "/with-junk";
  fs::create_directories(store + "/2/1");
  Outcome made = Sfl({"--store", store, "create", "-"}, "kept");
  ASSERT_EQ(made.status, 0) << made.err;
  const std::string c = FirstRef(made);
  const std::string path = Lines(made.out)[0].substr(c.size() + 1);
  std::ofstream(store + "/2/1/1") << std::string(4096, 'j');  // a container's name, not its content
  Outcome r = Sfl({"--store", store, "ls"});
  EXPECT_EQ(r.status, 3);
  char row[64];
  std::snprintf(row, sizeof row, "%5d %12llu %10d  ", 1,
                static_cast<unsigned long long>(fs::file_size(path)), 0);
  EXPECT_EQ(r.out, "ITEMS        BYTES      HOLES  CONTAINER PATH\n" + std::string(row) + c + " " +
                       path + "\n1 container\n");
  EXPECT_EQ(r.err, "sfl ls: " + store +
                       "/2/1/1: cannot be read: error 100/28881: bad file header\n");
}
