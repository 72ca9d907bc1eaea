// `sfl import` and `sfl export`: the built tool stores a generated Maildir
// and a real tree of this machine's files, writes them out again, and
// `diff -r` finds the output identical to the input. An import killed at
// many points and run again stores every file exactly once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

extern char** environ;

namespace {

using sfltest::Outcome;
using sfltest::Sfl;

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

void Mkdirs(const std::string& path) { ASSERT_EQ(sfltest::Exec({"/bin/mkdir", "-p", path}).status, 0); }

// A Maildir of `n` messages: most in cur/ (with flags in their names), some
// in new/, a Sent folder, and an empty tmp/ in each.
std::string MakeMaildir(size_t n) {
  const std::string dir = sfltest::TestDir() + "/Maildir";
  for (const char* sub : {"/cur", "/new", "/tmp", "/.Sent/cur", "/.Sent/new", "/.Sent/tmp"}) Mkdirs(dir + sub);
  std::mt19937 rnd(42);
  for (size_t i = 0; i < n; ++i) {
    const char* where = i % 10 == 0 ? "/new/" : (i % 7 == 0 ? "/.Sent/cur/" : "/cur/");
    const std::string name = std::to_string(1700000000 + i) + ".M" + std::to_string(i) + "P77.host" +
                             (where[1] == 'n' ? "" : ":2,S");
    std::string msg = "From: a" + std::to_string(i) + "@example.org\nTo: b@example.org\nSubject: message " +
                      std::to_string(i) + "\n\n";
    const size_t body = 100 + rnd() % 6000;
    for (size_t k = 0; k < body; ++k) msg += static_cast<char>(k % 61 == 60 ? '\n' : 'a' + rnd() % 26);
    WriteFile(dir + where + name, msg);
  }
  return dir;
}

std::string Field(const std::string& json, const std::string& name) {
  const size_t at = json.find("\"" + name + "\": ");
  if (at == std::string::npos) return "";
  const size_t start = at + name.size() + 4;
  return json.substr(start, json.find_first_of(",}", start) - start);
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Imports `input`, exports everything by the mapping, and compares.
void RoundTrip(const std::string& input, size_t files) {
  const std::string map = sfltest::TestDir() + "/import.map";
  auto t0 = std::chrono::steady_clock::now();
  const Outcome imp = Sfl({"import", input, "--map", map, "--journal", sfltest::TestDir() + "/import.journal"});
  const double importSeconds = Seconds(t0);
  ASSERT_EQ(imp.status, 0) << imp.err;
  const Outcome stats = Sfl({"stats", "--json"});
  EXPECT_EQ(Field(stats.out, "items"), std::to_string(files)) << stats.out;
  const std::string out = sfltest::TestDir() + "/export";
  t0 = std::chrono::steady_clock::now();
  const Outcome exp = Sfl({"export", "--all", out, "--names", map, "--manifest", sfltest::TestDir() + "/export.manifest"});
  const double exportSeconds = Seconds(t0);
  ASSERT_EQ(exp.status, 0) << exp.err;
  const Outcome diff = sfltest::Exec({"/usr/bin/diff", "-r", input, out});
  EXPECT_EQ(diff.status, 0) << diff.out.substr(0, 2000) << diff.err;
  std::printf("%zu files: import %.2f s, export %.2f s, %s containers\n", files, importSeconds, exportSeconds,
              Field(stats.out, "containers").c_str());
}

size_t CountFiles(const std::string& dir) {
  const Outcome r = sfltest::Exec({"/usr/bin/find", dir, "-type", "f"});
  size_t n = 0;
  for (char c : r.out) n += c == '\n';
  return n;
}

}  // namespace

TEST(SflImportTool, AMaildirComesBackIdentical) {
  // The full run (10,000 messages) takes a while; make test uses fewer.
  const char* full = std::getenv("SFL_IMPORT_MESSAGES");
  const size_t n = full != nullptr ? std::strtoul(full, nullptr, 10) : 400;
  const std::string dir = MakeMaildir(n);
  RoundTrip(dir, n);
}

TEST(SflImportTool, ARealTreeOfThisMachineComesBackIdentical) {
  struct stat st;
  if (::stat("/usr/share/doc", &st) != 0) GTEST_SKIP() << "no /usr/share/doc";
  // Part of it, with links read through (a link to a directory would make
  // diff follow it where import leaves it out).
  const std::string input = sfltest::TestDir() + "/doc";
  Mkdirs(input);
  const Outcome list = sfltest::Exec({"/bin/sh", "-c", "ls /usr/share/doc | head -60"});
  std::vector<std::string> cp = {"/bin/cp", "-rL"};
  size_t start = 0;
  for (size_t end; (end = list.out.find('\n', start)) != std::string::npos; start = end + 1)
    cp.push_back("/usr/share/doc/" + list.out.substr(start, end - start));
  cp.push_back(input);
  sfltest::Exec(cp);  // dangling links are reported and left out
  const size_t files = CountFiles(input);
  ASSERT_GT(files, 30u);
  RoundTrip(input, files);
}

TEST(SflImportTool, AnImportKilledAtManyPointsStoresEveryFileOnce) {
  const std::string input = sfltest::TestDir() + "/in";
  Mkdirs(input + "/a");
  Mkdirs(input + "/msg1");
  std::mt19937 rnd(7);
  const size_t n = 60;
  for (size_t i = 0; i < n - 2; ++i)
    WriteFile(input + "/a/f" + std::to_string(i), std::string(1000 + rnd() % 300000, static_cast<char>('a' + i % 26)));
  WriteFile(input + "/msg1/header", "Subject: parts\n");
  WriteFile(input + "/msg1/body", "the body\n");
  const std::string journal = sfltest::TestDir() + "/j";
  const std::string map = sfltest::TestDir() + "/map";
  const std::string sfl = sfltest::BinDir() + "/bin/sfl";
  std::vector<std::string> args = {sfl, "import", input, "--journal", journal, "--map", map};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  const std::string errPath = sfltest::TestDir() + "/import.err";
  int kills = 0, midStore = 0, rounds = 0;
  for (; rounds < 400; ++rounds) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, sfl.c_str(), &fa, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    // Short at first, so that a whole import (a few hundred ms on an idle
    // machine) is cut several times, then longer each round, so that a slow
    // build (the sanitizers) still gets far enough to finish.
    usleep(static_cast<useconds_t>(rnd() % (15000 + 1000 * static_cast<uint64_t>(rounds))));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) {
      ASSERT_EQ(WEXITSTATUS(status), 0) << sfltest::ReadWholeFile(errPath);
      break;
    }
    ++kills;
    // Whether the kill came inside a store: the journal ends with an I line.
    const std::string j = sfltest::ReadWholeFile(journal);
    const size_t last = j.rfind('\n', j.size() >= 2 ? j.size() - 2 : 0);
    if (last != std::string::npos && j.compare(last + 1, 2, "I ") == 0) ++midStore;
  }
  ASSERT_LT(rounds, 400) << "the import never finished";
  EXPECT_GT(kills, 5);
  std::printf("%d kills (%d inside a store) before the import finished\n", kills, midStore);

  const Outcome stats = Sfl({"stats", "--json"});
  EXPECT_EQ(Field(stats.out, "items"), std::to_string(n)) << stats.out;
  // A kill inside the library's creation of a container (between making the
  // file and writing its header) leaves a file of 0 bytes that the import
  // never learnt the name of; the check names it, and nothing else.
  const Outcome check = Sfl({"check", "--all", "--quiet"});
  size_t faults = 0, unfinished = 0;
  for (size_t at = 0; (at = check.out.find(": SFL-204-", at)) != std::string::npos; ++at) {
    ++faults;
    unfinished += check.out.compare(at, 16, ": SFL-204-1045: ") == 0;
  }
  EXPECT_EQ(faults, unfinished) << check.out << check.err;
  std::printf("%zu unfinished empty containers left by kills inside a creation\n", unfinished);
  const std::string out = sfltest::TestDir() + "/out";
  const Outcome exp = Sfl({"export", "--names", map, out});
  ASSERT_EQ(exp.status, 0) << exp.err;
  EXPECT_EQ(sfltest::Exec({"/usr/bin/diff", "-r", input, out}).status, 0);
  // The parts of one message share a container.
  const std::string m = sfltest::ReadWholeFile(map);
  const size_t h = m.find(" msg1/header"), b = m.find(" msg1/body");
  ASSERT_NE(h, std::string::npos);
  ASSERT_NE(b, std::string::npos);
  const std::string hRef = m.substr(m.rfind('\n', h) + 1, h - m.rfind('\n', h) - 1);
  const std::string bRef = m.substr(m.rfind('\n', b) + 1, b - m.rfind('\n', b) - 1);
  EXPECT_EQ(hRef.substr(0, hRef.find(':')), bRef.substr(0, bRef.find(':')));
}

// A run stopped inside a store leaves its item saying it is incomplete (the
// data was still to come). Run again, the import does not write into that
// item and keep it: the repair deletes it, the journal gives it up with an
// X line, and the file is stored once, whole, in a later slot.
TEST(SflImportTool, AStoreThatNeverClosedIsGivenUpAndTheFileStoredOnceElsewhere) {
  const std::string input = sfltest::TestDir() + "/in";
  Mkdirs(input);
  const std::string first(9000, 'x');
  WriteFile(input + "/first", first);
  WriteFile(input + "/second", "the second file");
  // The stopped run: a container, and the store of "first" in its slot 1
  // with half its data written, never closed.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(fds[0]);
    auto c = sfltest::NewContainer();
    const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, static_cast<uint32_t>(first.size()), nullptr, 1);
    sfl_WriteSimpleData(h, 0, 4000, first.data());
    const std::string text = sfltest::RefText(c.ref);
    if (write(fds[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(2);
    _exit(0);
  }
  close(fds[1]);
  char buf[128];
  const ssize_t got = read(fds[0], buf, sizeof buf);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_GT(got, 0);
  const std::string container(buf, static_cast<size_t>(got));
  const std::string journal = sfltest::TestDir() + "/j";
  WriteFile(journal, "sfl-import 1 " + input + "\nC " + container + "\nI " + container + ":1 first\n");
  const Outcome before = Sfl({"check", "--quiet", container});
  EXPECT_NE(before.out.find("SFL-204-1050"), std::string::npos) << before.out << before.err;

  const std::string map = sfltest::TestDir() + "/map";
  const Outcome imp = Sfl({"import", input, "--journal", journal, "--map", map});
  ASSERT_EQ(imp.status, 0) << imp.err;
  EXPECT_NE(sfltest::ReadWholeFile(journal).find("\nX " + container + ":1 first\n"), std::string::npos)
      << sfltest::ReadWholeFile(journal);
  const Outcome check = Sfl({"check", "--all", "--quiet"});
  EXPECT_EQ(check.status, 0) << check.out << check.err;
  const Outcome stats = Sfl({"stats", "--json"});
  EXPECT_EQ(Field(stats.out, "items"), "2") << stats.out;
  const std::string out = sfltest::TestDir() + "/out";
  const Outcome exp = Sfl({"export", "--names", map, out});
  ASSERT_EQ(exp.status, 0) << exp.err;
  EXPECT_EQ(sfltest::Exec({"/usr/bin/diff", "-r", input, out}).status, 0);
}

TEST(SflImportTool, ExportOfNamedItemsWithoutAMappingUsesContainerAndNumber) {
  const std::string input = sfltest::TestDir() + "/in";
  Mkdirs(input);
  WriteFile(input + "/one", "first");
  WriteFile(input + "/two", "second");
  const Outcome imp = Sfl({"import", input, "--journal", sfltest::TestDir() + "/j"});
  ASSERT_EQ(imp.status, 0) << imp.err;
  const std::string two = imp.out.substr(imp.out.find('\n') + 1, imp.out.find(" two") - imp.out.find('\n') - 1);
  const std::string out = sfltest::TestDir() + "/out";
  const Outcome exp = Sfl({"export", two, out});
  ASSERT_EQ(exp.status, 0) << exp.err;
  const std::string container = two.substr(0, two.find(':'));
  EXPECT_EQ(sfltest::ReadWholeFile(out + "/" + container + "/2"), "second");
  EXPECT_NE(exp.out.find(two + " 6 "), std::string::npos) << exp.out;
  // Nothing is overwritten.
  EXPECT_EQ(Sfl({"export", two, out}).status, 1);
}
