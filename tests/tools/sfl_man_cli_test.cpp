// Tests of the `sfl` manual pages: one page per command, written by the
// tool from the tables its --help prints, with the usual sections, and set
// within 80 columns.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "test_env.h"
#include "tool_run.h"

namespace {

using sfltest::Outcome;
using sfltest::Sfl;

std::vector<std::string> Lines(const std::string& s) {
  std::vector<std::string> lines;
  std::stringstream ss(s);
  std::string line;
  while (std::getline(ss, line)) lines.push_back(line);
  return lines;
}

// The command names `sfl --help` lists.
std::vector<std::string> Commands() {
  std::vector<std::string> names;
  bool in = false;
  for (const std::string& l : Lines(Sfl({"--help"}).out)) {
    if (l == "commands:") {
      in = true;
      continue;
    }
    if (!in) continue;
    if (l.empty()) break;
    // "  blocks append   appends ..." : the name is the words before the
    // run of spaces that starts the summary.
    const std::string rest = l.substr(2);
    names.push_back(rest.substr(0, rest.find("  ")));
  }
  return names;
}

std::string PageFile(const std::string& dir, std::string name) {
  for (char& c : name)
    if (c == ' ') c = '-';
  return dir + "/sfl-" + name + ".1";
}

// A command's name as its page's name is written in roff ("blocks append"
// gives "blocks\-append").
std::string RoffName(const std::string& name) {
  std::string r;
  for (char ch : name) r += ch == ' ' || ch == '-' ? std::string("\\-") : std::string(1, ch);
  return r;
}

std::string MakePages() {
  const std::string dir = sfltest::TestDir() + "/man";
  Outcome r = Sfl({"--man-pages", dir});
  EXPECT_EQ(r.status, 0) << r.err;
  return dir;
}

TEST(SflManPages, EveryCommandHasAPageWithTheUsualSections) {
  const std::string dir = MakePages();
  const std::vector<std::string> commands = Commands();
  ASSERT_GE(commands.size(), 20u);
  for (const std::string& c : commands) {
    const std::string page = sfltest::ReadWholeFile(PageFile(dir, c));
    ASSERT_FALSE(page.empty()) << c;
    for (const char* section : {".SH NAME\n", ".SH SYNOPSIS\n", ".SH DESCRIPTION\n", ".SH OPTIONS\n",
                                ".SH EXIT STATUS\n", ".SH ENVIRONMENT\n", ".SH FILES\n",
                                ".SH EXAMPLES\n", ".SH SEE ALSO\n"})
      EXPECT_NE(page.find(section), std::string::npos) << c << " lacks " << section;
    // Every option --help shows is on the page.
    for (const std::string& l : Lines(Sfl(std::vector<std::string>{"help", c}).out)) {
      const size_t at = l.find("--");
      if (l.compare(0, 2, "  ") != 0 || at == std::string::npos || at > 8) continue;
      std::string opt = l.substr(at, l.find_first_of(" ,", at) - at);
      std::string roff;
      for (char ch : opt) roff += ch == '-' ? std::string("\\-") : std::string(1, ch);
      EXPECT_NE(page.find(roff), std::string::npos) << c << ": " << opt;
    }
  }
  const std::string top = sfltest::ReadWholeFile(dir + "/sfl.1");
  EXPECT_EQ(top.rfind(".TH SFL 1 ", 0), 0u);
  for (const std::string& c : commands)
    EXPECT_NE(top.find(".BR sfl\\-" + RoffName(c) + " (1)"), std::string::npos) << c;
}

TEST(SflManPages, PagesAreSetWithinEightyColumns) {
  if (access("/usr/bin/groff", X_OK) != 0) GTEST_SKIP() << "groff is not installed";
  const std::string dir = MakePages();
  std::vector<std::string> pages = {dir + "/sfl.1"};
  for (const std::string& c : Commands()) pages.push_back(PageFile(dir, c));
  for (const std::string& p : pages) {
    Outcome r = sfltest::Exec({"/usr/bin/groff", "-man", "-Tascii", "-P-cbou", p});
    ASSERT_EQ(r.status, 0) << p << r.err;
    EXPECT_GT(Lines(r.out).size(), 20u) << p;
    for (const std::string& l : Lines(r.out)) EXPECT_LE(l.size(), 80u) << p << ": " << l;
  }
}

TEST(SflManPages, HelpShowsTheSameExamplesAndExitStatus) {
  const std::string help = Sfl({"check", "--help"}).out;
  EXPECT_NE(help.find("\nexit status: 0 no container has a fault, 1 one has or a check failed, 2 bad "
                      "usage, 3 a container could not be read\n"),
            std::string::npos)
      << help;
  EXPECT_NE(help.find("\nexamples:\n  $ sfl check --all --quiet\n  1 container checked, 0 with "
                      "faults\n"),
            std::string::npos)
      << help;
  const std::string page = sfltest::ReadWholeFile(MakePages() + "/sfl-check.1");
  EXPECT_NE(page.find("$ sfl check \\-\\-all \\-\\-quiet\n1 container checked, 0 with faults\n"),
            std::string::npos);
}

}  // namespace
