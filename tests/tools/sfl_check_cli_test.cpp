// Tests of `sfl check`: the built tool run as a separate process in this
// test's own store root, on containers it made, damaged by hand: exit
// statuses, the fault lines under each path, --repair, --json, --dump,
// --all with its summary, and the progress line shown only on a terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "sfl_coding.h"
#include "sfl_records.h"
#include "test_env.h"
#include "test_util.h"

namespace {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

std::string Text(const std::string& path) {
  std::vector<uint8_t> b = sfltest::FileBytes(path);
  return std::string(b.begin(), b.end());
}

std::string Tool() {
  const char* d = std::getenv("SFL_TEST_BIN_DIR");
  return std::string(d != nullptr ? d : ".") + "/bin/sfl";
}

// Runs the tool with `args`. Standard error goes to a file, or to the
// terminal side of a pseudo-terminal when `terminal` is set (its output is
// then returned as err).
Outcome Sfl(const std::vector<std::string>& args, bool terminal = false) {
  static int seq = 0;
  const std::string base = sfltest::TestDir() + "/check-run" + std::to_string(++seq);
  int master = -1;
  std::string slave;
  if (terminal) {
    master = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_GE(master, 0);
    EXPECT_EQ(grantpt(master), 0);
    EXPECT_EQ(unlockpt(master), 0);
    slave = ptsname(master);
  }
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int out = open((base + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int err = terminal ? open(slave.c_str(), O_RDWR | O_NOCTTY)
                       : open((base + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int in = open("/dev/null", O_RDONLY);
    if (out < 0 || err < 0 || in < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    std::vector<std::string> argv = {Tool()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargs;
    for (std::string& a : argv) cargs.push_back(a.data());
    cargs.push_back(nullptr);
    execv(cargs[0], cargs.data());
    _exit(127);
  }
  Outcome r;
  if (terminal) {
    // Read while the child runs, so a full terminal buffer cannot stall it.
    char buf[4096];
    for (;;) {
      ssize_t n = read(master, buf, sizeof buf);
      if (n <= 0) break;  // EIO once the child has closed its side
      r.err.append(buf, static_cast<size_t>(n));
    }
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return r;
  }
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = Text(base + ".out");
  if (terminal)
    close(master);
  else
    r.err = Text(base + ".err");
  return r;
}

std::vector<std::string> Lines(const std::string& s) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < s.size()) {
    size_t end = s.find('\n', start);
    if (end == std::string::npos) end = s.size();
    lines.push_back(s.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// A container made by the tool with two small items: its reference and path.
struct Made {
  std::string ref;
  std::string path;
};
Made MakeContainer() {
  const std::string file = sfltest::WritePlainFile("check-item.txt", "some bytes to keep\n");
  Outcome r = Sfl({"create", file, file});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string first = Lines(r.out).at(0);
  const size_t space = first.find(' ');
  return {first.substr(0, space), first.substr(space + 1)};
}

// Clears the free-map bit of item 1's first block: space in use marked free.
void Damage(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  std::vector<uint8_t> slot0 = sfltest::ReadExactly(fd, SFL_TABLE_OFFSET, 64);
  std::vector<uint8_t> slot1 = sfltest::ReadExactly(fd, SFL_TABLE_OFFSET + 64, 64);
  const uint32_t map = sfl_GetU32(slot0.data() + 24);
  const uint32_t block = sfl_GetU32(slot1.data() + 24) / 128;
  std::vector<uint8_t> byte = sfltest::ReadExactly(fd, map + block / 8, 1);
  byte[0] = static_cast<uint8_t>(byte[0] & ~(1u << (block % 8)));
  ASSERT_EQ(pwrite(fd, byte.data(), 1, map + block / 8), 1);
  close(fd);
}

TEST(SflCheckCli, HelpDescribesTheCommand) {
  Outcome r = Sfl({"check", "--help"});
  EXPECT_EQ(r.status, 0);
  for (const char* word : {"--repair", "--json", "--dump", "--all", "Exit status"})
    EXPECT_NE(r.out.find(word), std::string::npos) << word << "\n" << r.out;
  EXPECT_NE(Sfl({"--help"}).out.find("check"), std::string::npos);
}

TEST(SflCheckCli, BadUsageExitsWithTwoAndOneLine) {
  const Made m = MakeContainer();
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"check"}, {"check", "--all", m.path}, {"check", "--bogus", m.path},
        {"check", m.ref + ":1"}, {"check", "not-a-container"}}) {
    Outcome r = Sfl(args);
    EXPECT_EQ(r.status, 2) << args.back() << "\n" << r.err;
    EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
    EXPECT_EQ(r.err.compare(0, 9, "sfl check"), 0) << r.err;
  }
}

TEST(SflCheckCli, CleanContainerByPathAndByReference) {
  const Made m = MakeContainer();
  for (const std::string& name : {m.path, m.ref}) {
    Outcome r = Sfl({"check", name});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, m.path + ": ok\n");
    EXPECT_EQ(r.err, "");
  }
}

TEST(SflCheckCli, FaultsAreShownAndRepaired) {
  const Made m = MakeContainer();
  Damage(m.path);
  Outcome r = Sfl({"check", m.path});
  EXPECT_EQ(r.status, 1);
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 2u) << r.out;
  EXPECT_EQ(lines[0].rfind(m.path + ": SFL-204-1036: free-map byte ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], m.path + ": faults found");

  r = Sfl({"check", "--repair", m.path});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("SFL-204-1036"), std::string::npos);
  r = Sfl({"check", m.path});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, m.path + ": ok\n");
}

TEST(SflCheckCli, JsonGivesOneObjectPerContainer) {
  const Made a = MakeContainer();
  const Made b = MakeContainer();
  Damage(b.path);
  Outcome r = Sfl({"check", "--json", a.path, b.path});
  EXPECT_EQ(r.status, 1);
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 2u) << r.out;
  EXPECT_EQ(lines[0], "{\"path\": \"" + a.path + "\", \"result\": 0, \"faults\": [], \"errors\": []}");
  EXPECT_EQ(lines[1].rfind("{\"path\": \"" + b.path + "\", \"result\": 1, \"faults\": [\"SFL-204-1036: ", 0), 0u)
      << lines[1];
  EXPECT_NE(lines[1].find("\"errors\": []}"), std::string::npos) << lines[1];
}

TEST(SflCheckCli, JsonCarriesTheErrorOfAFailedCheck) {
  const Made m = MakeContainer();
  ASSERT_EQ(truncate(m.path.c_str(), 100), 0);
  Outcome r = Sfl({"check", "--json", m.path});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "{\"path\": \"" + m.path + "\", \"result\": 1, \"faults\": [], \"errors\": [\"SFL-100-28862: " +
                       "not an SFL file, or wrong format version (file " + m.path + ")\"]}\n");
}

TEST(SflCheckCli, DumpShowsTheHeadersBeforeTheVerdict) {
  const Made m = MakeContainer();
  Outcome r = Sfl({"check", "--dump", m.path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("=HHHHHHHHHHHHHHHHHHHHHHHH=\nLocation=0x00000000 (0)\n", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("=IIIIIIIIIIIIIIIIIIIIIIII=\nLocation=0x000000c0 (192)\n"), std::string::npos);
  EXPECT_EQ(Lines(r.out).back(), m.path + ": ok");

  r = Sfl({"check", "--dump", "--json", m.path});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("\"dump\": \"=HHHHHHHHHHHHHHHHHHHHHHHH=\\nLocation"), std::string::npos) << r.out;
}

TEST(SflCheckCli, MissingFileIsNotCheckedButSaidUnreadable) {
  const Made m = MakeContainer();
  ASSERT_EQ(unlink(m.path.c_str()), 0);
  Outcome r = Sfl({"check", m.ref});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, m.path + ": cannot be read: No such file or directory; no container file " +
                       "there: check the reference, or list the store with 'sfl ls'\n");
  EXPECT_EQ(r.err, "");
}

TEST(SflCheckCli, AllChecksEveryContainerOfTheStore) {
  const Made a = MakeContainer();
  const Made b = MakeContainer();
  const Made c = MakeContainer();
  Damage(b.path);
  // Not a container name: left alone.
  {
    const std::string stray = sfltest::StoreRoot() + "/stray.txt";
    int fd = open(stray.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "not a container", 15), 15);
    close(fd);
  }
  // A rebuild's leftover (here a whole copy of a sound container) is not a
  // container of the store: no reference names it. It is reported, with
  // what to do about it, and not checked.
  const std::string leftover = a.path + "#.new";
  {
    const std::vector<uint8_t> bytes = sfltest::FileBytes(a.path);
    int fd = open(leftover.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
  }
  Outcome r = Sfl({"check", "--all"});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.out.find(leftover + ": leftover of a rebuild of " + a.path + " that did not finish: `sfl compact`"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find(leftover + ": ok"), std::string::npos) << r.out;
  for (const Made* m : {&a, &c}) EXPECT_NE(r.out.find(m->path + ": ok\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(b.path + ": SFL-204-1036: "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(b.path + ": faults found\n"), std::string::npos) << r.out;
  EXPECT_EQ(Lines(r.out).back(), "3 containers checked, 1 with faults");
  EXPECT_EQ(r.err.find('\r'), std::string::npos);  // no progress line off a terminal

  r = Sfl({"check", "--all", "--repair"});
  EXPECT_EQ(r.status, 1);
  // The repair leaves it to the operator, and says so again.
  EXPECT_NE(r.out.find(leftover + ": leftover of a rebuild"), std::string::npos) << r.out;
  r = Sfl({"check", "--all", "--json"});
  EXPECT_EQ(r.status, 0) << r.out;
  ASSERT_EQ(Lines(r.out).size(), 4u) << r.out;
  EXPECT_EQ(Lines(r.out).back().find("{\"path\": \"" + leftover + "\", \"leftover_of\": "), 0u) << r.out;
  // Named, the container's own leftover is reported too; once the next
  // rebuild has run, it is gone.
  r = Sfl({"check", a.ref});
  EXPECT_NE(r.out.find(leftover + ": leftover of a rebuild"), std::string::npos) << r.out;
  r = Sfl({"compact", a.ref});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_FALSE(std::filesystem::exists(leftover));
  r = Sfl({"check", "--all"});
  EXPECT_EQ(r.out.find("leftover"), std::string::npos) << r.out;
}

TEST(SflCheckCli, ProgressLineOnATerminal) {
  MakeContainer();
  MakeContainer();
  Outcome r = Sfl({"check", "--all"}, true);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.err.find("\r\033[Kchecked 0 of 2 containers, 0 with faults"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("checked 2 of 2 containers, 0 with faults"), std::string::npos) << r.err;
  EXPECT_EQ(Lines(r.out).back(), "2 containers checked, 0 with faults");
}

}  // namespace
