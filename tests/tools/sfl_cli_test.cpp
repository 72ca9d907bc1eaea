// Tests of the `sfl` command-line tool: each runs the built binary as a
// separate process in this test's own store root (and interest-service run
// directory) and checks exit statuses, output and the one-line errors; the
// last one runs the `make run` demo script against the build directory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "sfl.h"
#include "sfl_records.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

namespace fs = std::filesystem;

// ---- running the tool -----------------------------------------------------------

using sfltest::BinDir;
using sfltest::Exec;
using sfltest::Outcome;
using sfltest::Sfl;
using sfltest::SourceRoot;

std::string ReadFile(const std::string& path) { return sfltest::ReadWholeFile(path); }

void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
}

std::string Trim(const std::string& s) {
  size_t e = s.find_last_not_of("\n\r ");
  return e == std::string::npos ? std::string() : s.substr(0, e + 1);
}

std::vector<std::string> Lines(const std::string& s) {
  std::vector<std::string> lines;
  std::stringstream ss(s);
  std::string line;
  while (std::getline(ss, line)) lines.push_back(line);
  return lines;
}

size_t LineCount(const std::string& s) {
  size_t n = 0;
  for (char c : s) n += c == '\n' ? 1 : 0;
  return n;
}

// A failed command: the given status and exactly one line on standard error.
#define EXPECT_FAILS(run, code)                          \
  do {                                                   \
    const Outcome& r_ = (run);                           \
    EXPECT_EQ(r_.status, (code)) << r_.out << r_.err;    \
    EXPECT_EQ(LineCount(r_.err), 1u) << r_.err;          \
    EXPECT_EQ(r_.err.compare(0, 3, "sfl"), 0) << r_.err; \
  } while (0)

#define EXPECT_OK(run)                           \
  do {                                           \
    const Outcome& r_ = (run);                   \
    EXPECT_EQ(r_.status, 0) << r_.out << r_.err; \
    EXPECT_EQ(r_.err, "");                       \
  } while (0)

// Creates a container; returns its reference.
std::string NewContainer(const std::vector<std::string>& extra = {}) {
  std::vector<std::string> args = {"create"};
  args.insert(args.end(), extra.begin(), extra.end());
  Outcome r = Sfl(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return Lines(r.out).empty() ? std::string()
                              : Lines(r.out)[0].substr(0, Lines(r.out)[0].find(' '));
}

std::string Put(const std::string& container, const std::string& data) {
  Outcome r = Sfl({"put", container, "-"}, data);
  EXPECT_EQ(r.status, 0) << r.err;
  return Trim(r.out);
}

std::string AllBytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + i / 256) & 0xff);
  return s;
}

// ---- a small JSON reader for the listing commands ------------------------------------

struct Json {
  enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
  bool b = false;
  double num = 0;
  std::string str;
  std::vector<Json> items;
  std::map<std::string, Json> fields;

  const Json& operator[](const std::string& k) const {
    static const Json kNull;
    auto it = fields.find(k);
    return it == fields.end() ? kNull : it->second;
  }
  bool Has(const std::string& k) const { return fields.count(k) != 0; }
};

class JsonParser {
 public:
  explicit JsonParser(const std::string& s) : s_(s) {}
  bool Parse(Json* out) {
    if (!Value(out)) return false;
    Space();
    return p_ == s_.size();
  }

 private:
  void Space() {
    while (p_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[p_]))) ++p_;
  }
  bool Lit(const char* word) {
    size_t n = std::strlen(word);
    if (s_.compare(p_, n, word) != 0) return false;
    p_ += n;
    return true;
  }
  bool Str(std::string* out) {
    if (p_ >= s_.size() || s_[p_] != '"') return false;
    ++p_;
    while (p_ < s_.size() && s_[p_] != '"') {
      char c = s_[p_++];
      if (c == '\\') {
        if (p_ >= s_.size()) return false;
        char e = s_[p_++];
        switch (e) {
          case 'n':
            out->push_back('\n');
            break;
          case 't':
            out->push_back('\t');
            break;
          case 'r':
            out->push_back('\r');
            break;
          case 'u':
            if (p_ + 4 > s_.size()) return false;
            out->push_back(static_cast<char>(std::stoi(s_.substr(p_, 4), nullptr, 16)));
            p_ += 4;
            break;
          default:
            out->push_back(e);
        }
      } else if (static_cast<unsigned char>(c) < 0x20) {
        return false;  // raw control characters are not JSON
      } else {
        out->push_back(c);
      }
    }
    if (p_ >= s_.size()) return false;
    ++p_;
    return true;
  }
  bool Value(Json* v) {
    Space();
    if (p_ >= s_.size()) return false;
    char c = s_[p_];
    if (c == '{') {
      v->kind = Json::Object;
      ++p_;
      Space();
      if (p_ < s_.size() && s_[p_] == '}') return ++p_, true;
      for (;;) {
        Space();
        std::string key;
        if (!Str(&key)) return false;
        Space();
        if (p_ >= s_.size() || s_[p_++] != ':') return false;
        if (!Value(&v->fields[key])) return false;
        Space();
        if (p_ < s_.size() && s_[p_] == ',') {
          ++p_;
          continue;
        }
        if (p_ < s_.size() && s_[p_] == '}') return ++p_, true;
        return false;
      }
    }
    if (c == '[') {
      v->kind = Json::Array;
      ++p_;
      Space();
      if (p_ < s_.size() && s_[p_] == ']') return ++p_, true;
      for (;;) {
        v->items.emplace_back();
        if (!Value(&v->items.back())) return false;
        Space();
        if (p_ < s_.size() && s_[p_] == ',') {
          ++p_;
          continue;
        }
        if (p_ < s_.size() && s_[p_] == ']') return ++p_, true;
        return false;
      }
    }
    if (c == '"') {
      v->kind = Json::String;
      return Str(&v->str);
    }
    if (Lit("true")) {
      v->kind = Json::Bool;
      v->b = true;
      return true;
    }
    if (Lit("false")) {
      v->kind = Json::Bool;
      return true;
    }
    if (Lit("null")) return true;
    size_t start = p_;
    if (s_[p_] == '-') ++p_;
    while (p_ < s_.size() && (std::isdigit(static_cast<unsigned char>(s_[p_])) || s_[p_] == '.' ||
                              s_[p_] == 'e' || s_[p_] == 'E' || s_[p_] == '+' || s_[p_] == '-'))
      ++p_;
    if (p_ == start) return false;
    v->kind = Json::Number;
    v->num = std::stod(s_.substr(start, p_ - start));
    return true;
  }
  const std::string& s_;
  size_t p_ = 0;
};

Json ParseJson(const std::string& text) {
  Json j;
  EXPECT_TRUE(JsonParser(text).Parse(&j)) << "not JSON: " << text;
  return j;
}

// ---- help and usage ---------------------------------------------------------------------

const char* const kCommands[] = {"create", "put",      "get", "ls",    "stat",  "rm",     "attach",
                                 "detach", "truncate", "cat", "lines", "write", "service"};
const char* const kBlockCommands[] = {"append", "read", "list", "free", "compact", "move"};

TEST(SflCliHelp, OverviewDocumentsTheTextFormAndEveryCommand) {
  Outcome r = Sfl({"--help"});
  EXPECT_OK(r);
  EXPECT_NE(r.out.find("DOMAIN.SUBDOMAIN.FILEID[.NAME][:ITEM]"), std::string::npos);
  for (const char* c : kCommands)
    EXPECT_NE(r.out.find(std::string("  ") + c + " "), std::string::npos) << c;
  for (const char* c : kBlockCommands)
    EXPECT_NE(r.out.find(std::string("blocks ") + c), std::string::npos) << c;
  EXPECT_EQ(Sfl({"help"}).out, r.out);
}

TEST(SflCliHelp, EveryCommandHasHelp) {
  for (const char* c : kCommands) {
    Outcome r = Sfl({c, "--help"});
    EXPECT_OK(r);
    EXPECT_EQ(r.out.compare(0, 11 + std::strlen(c), std::string("usage: sfl ") + c), 0) << r.out;
    EXPECT_NE(r.out.find("exit status"), std::string::npos);
    EXPECT_EQ(Sfl({"help", c}).out, r.out) << c;
  }
  for (const char* c : kBlockCommands) {
    Outcome r = Sfl({"blocks", c, "-h"});
    EXPECT_OK(r);
    EXPECT_EQ(r.out.find(std::string("usage: sfl blocks ") + c), 0u) << r.out;
  }
  Outcome b = Sfl({"blocks", "--help"});
  EXPECT_OK(b);
  for (const char* c : kBlockCommands)
    EXPECT_NE(b.out.find(std::string("sfl blocks ") + c), std::string::npos);
}

TEST(SflCliUsage, BadCommandLinesExitWithTwoAndOneLine) {
  const std::string c = NewContainer({"-"});
  const std::vector<std::vector<std::string>> bad = {
      {},                                   // no command
      {"frobnicate"},                       // unknown command
      {"--bogus", "ls", c},                 // unknown global option
      {"ls", c, "extra"},                   // one operand too many
      {"ls", c, "--nope"},                  // unknown option
      {"get", c},                           // a container where an item is needed
      {"put", c + ":1"},                    // an item where a container is needed
      {"get", "not-a-reference"},           // neither text form nor path
      {"get", "1.2"},                       // text form cut short
      {"truncate", c + ":1", "-5"},         // not a size
      {"truncate", c + ":1", "12x"},        // not a size
      {"write", c + ":1", "99999999999"},   // offset out of range
      {"get", c + ":1", "-o"},              // option without its value
      {"blocks"},                           // no blocks command
      {"blocks", "shuffle", c + ":1"},      // unknown blocks command
      {"blocks", "read", c + ":1", "5-2"},  // empty range
      {"service", "restart"},               // unknown action
      {"service"},                          // missing action
      // Every other command, at least once:
      {"create", "--bogus"},
      {"put"},
      {"ls", c, "--limit", "1"},
      {"stat"},
      {"stat", c},
      {"rm"},
      {"rm", c},
      {"attach"},
      {"attach", c + ":1", "extra"},
      {"detach", c},
      {"truncate", c + ":1"},
      {"cat"},
      {"lines"},
      {"lines", c + ":1", c + ":1"},
      {"write", c + ":1"},
      {"blocks", "append"},
      {"blocks", "append", c, "-", "--lines", "--chunk", "3"},
      {"blocks", "append", c, "-", "--chunk", "0"},
      {"blocks", "list", c},
      {"blocks", "read", c},
      {"blocks", "free", c + ":1"},
      {"blocks", "free", c + ":1", "x"},
      {"service", "start", "--pairs", "0"},
      {"service", "start", "--pairs", "9"},
  };
  for (const auto& args : bad) {
    std::string shown;
    for (const auto& a : args) shown += a + " ";
    SCOPED_TRACE(shown);
    EXPECT_FAILS(Sfl(args), 2);
  }
}

// ---- create, put, get --------------------------------------------------------------------

TEST(SflCliCreate, PrintsReferenceAndPathOfAFileThatExists) {
  Outcome r = Sfl({"create"});
  EXPECT_OK(r);
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 1u);
  const std::string ref = lines[0].substr(0, lines[0].find(' '));
  const std::string path = lines[0].substr(lines[0].find(' ') + 1);
  EXPECT_EQ(ref.compare(0, 2, "2."), 0) << ref;  // a data item
  EXPECT_EQ(path.compare(0, sfltest::StoreRoot().size(), sfltest::StoreRoot()), 0) << path;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 896);  // header, item table and free map
  // The container is usable by name and by path from the next process.
  Outcome ls = Sfl({"ls", path, "--json"});
  EXPECT_OK(ls);
  EXPECT_EQ(ParseJson(ls.out)["container"].str, ref);
}

TEST(SflCliCreate, OptionsAndFilesGiven) {
  Outcome t = Sfl({"create", "--temp"});
  EXPECT_OK(t);
  EXPECT_EQ(t.out.compare(0, 2, "4."), 0) << t.out;  // temporary containers live in domain 4

  const std::string a = sfltest::TestDir() + "/a.txt";
  const std::string b = sfltest::TestDir() + "/b.bin";
  WriteFile(a, "first file\n");
  WriteFile(b, AllBytes(3000));
  Outcome r = Sfl({"create", a, b});
  EXPECT_OK(r);
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 3u) << r.out;
  const std::string c = lines[0].substr(0, lines[0].find(' '));
  EXPECT_EQ(lines[1], c + ":1");
  EXPECT_EQ(lines[2], c + ":2");
  EXPECT_EQ(Sfl({"get", lines[1]}).out, "first file\n");
  EXPECT_EQ(Sfl({"get", lines[2]}).out, AllBytes(3000));

  Outcome s = Sfl({"create", "--single", a});
  EXPECT_OK(s);
  const std::string single = Lines(s.out)[0].substr(0, Lines(s.out)[0].find(' '));
  Json j = ParseJson(Sfl({"ls", single, "--json"}).out);
  EXPECT_EQ(j["slots"].num, 2);  // a single-item file: the item and slot 0
  ASSERT_EQ(j["items"].items.size(), 1u);
  EXPECT_EQ(j["items"].items[0]["size"].num, 11);

  // --async marks the file ASYNCHRONOUS in its header (flags word at byte 20).
  Outcome as = Sfl({"create", "--async", a});
  EXPECT_OK(as);
  const std::string asyncPath = Lines(as.out)[0].substr(Lines(as.out)[0].find(' ') + 1);
  const std::string header = ReadFile(asyncPath).substr(0, 128);
  ASSERT_EQ(header.size(), 128u);
  EXPECT_EQ(static_cast<uint8_t>(header[20]) & ASYNCHRONOUS, ASYNCHRONOUS);
  EXPECT_EQ(static_cast<uint8_t>(header[20]) & SINGLE_FILE, 0);
  EXPECT_EQ(Sfl({"get", Lines(as.out)[1]}).out, "first file\n");

  // A missing input fails before anything is created.
  const size_t before = std::distance(fs::recursive_directory_iterator(sfltest::StoreRoot()),
                                      fs::recursive_directory_iterator());
  EXPECT_FAILS(Sfl({"create", sfltest::TestDir() + "/missing"}), 1);
  const size_t after = std::distance(fs::recursive_directory_iterator(sfltest::StoreRoot()),
                                     fs::recursive_directory_iterator());
  EXPECT_EQ(before, after);
}

TEST(SflCliPutGet, RoundTripAcrossInvocations) {
  const std::string c = NewContainer();
  const std::string data = AllBytes(20000);  // every byte value, over several 8 KiB chunks
  const std::string file = sfltest::TestDir() + "/data.bin";
  WriteFile(file, data);

  Outcome fromFile = Sfl({"put", c, file});
  EXPECT_OK(fromFile);
  EXPECT_EQ(Trim(fromFile.out), c + ":1");
  Outcome fromStdin = Sfl({"put", c}, data.substr(0, 8193));
  EXPECT_OK(fromStdin);
  EXPECT_EQ(Trim(fromStdin.out), c + ":2");
  EXPECT_EQ(Put(c, ""), c + ":3");  // an empty item

  Outcome g1 = Sfl({"get", c + ":1"});
  EXPECT_OK(g1);
  EXPECT_EQ(g1.out, data);
  EXPECT_EQ(Sfl({"get", c + ":2"}).out, data.substr(0, 8193));
  Outcome g3 = Sfl({"get", c + ":3"});
  EXPECT_OK(g3);
  EXPECT_EQ(g3.out, "");

  const std::string back = sfltest::TestDir() + "/back.bin";
  EXPECT_OK(Sfl({"get", c + ":1", "-o", back}));
  EXPECT_EQ(ReadFile(back), data);

  // By item name (container path and item number), relative or absolute.
  Outcome path = Sfl({"stat", c + ":1", "--json"});
  const std::string itemName = ParseJson(path.out)["path"].str;
  EXPECT_EQ(Sfl({"get", itemName}).out, data);
  ASSERT_EQ(itemName.compare(0, sfltest::StoreRoot().size() + 1, sfltest::StoreRoot() + "/"), 0);
  const std::string relative = itemName.substr(sfltest::StoreRoot().size() + 1);
  Outcome rel = Exec({BinDir() + "/bin/sfl", "get", "./" + relative}, "", sfltest::StoreRoot());
  EXPECT_OK(rel);
  EXPECT_EQ(rel.out, data);
}

TEST(SflCliPutGet, FailuresAreOneLineWithTheReason) {
  const std::string c = NewContainer({"-"});
  // A free slot, an item number past the table, a container that does not exist.
  Outcome free = Sfl({"get", c + ":5"});
  EXPECT_FAILS(free, 1);
  EXPECT_NE(free.err.find(c + ":5"), std::string::npos) << free.err;
  EXPECT_FAILS(Sfl({"get", "2.1.1:1"}), 1);
  Outcome missing = Sfl({"ls", "2.1.1"});
  EXPECT_FAILS(missing, 1);
  EXPECT_NE(missing.err.find("error 2/2"), std::string::npos) << missing.err;  // ENOENT
  // The output file of a failed get is not left behind.
  const std::string out = sfltest::TestDir() + "/never.bin";
  EXPECT_FAILS(Sfl({"get", c + ":5", "-o", out}), 1);
  EXPECT_FALSE(fs::exists(out));
}

TEST(SflCliPutGet, AFullContainerRefusesTheEighthItem) {
  const std::string c = NewContainer();
  for (int i = 1; i <= 7; ++i)
    EXPECT_EQ(Put(c, "item " + std::to_string(i)), c + ":" + std::to_string(i));
  Outcome r = Sfl({"put", c, "-"}, "one too many");
  EXPECT_FAILS(r, 1);
  EXPECT_NE(r.err.find("full"), std::string::npos) << r.err;
  for (int i = 1; i <= 7; ++i)
    EXPECT_EQ(Sfl({"get", c + ":" + std::to_string(i)}).out, "item " + std::to_string(i));
}

TEST(SflCliPutGet, GlobalStoreOptionChoosesTheRoot) {
  const std::string other = sfltest::TestDir() + "/other-store";
  fs::create_directories(other);
  Outcome r = Sfl({"--store", other, "create", "-"}, "elsewhere");
  EXPECT_OK(r);
  const std::string path = Lines(r.out)[0].substr(Lines(r.out)[0].find(' ') + 1);
  EXPECT_EQ(path.compare(0, other.size(), other), 0) << path;
  const std::string item = Lines(r.out)[1];
  EXPECT_EQ(Sfl({"--store", other, "get", item}).out, "elsewhere");
  EXPECT_FAILS(Sfl({"get", item}), 1);  // not in the default root
}

// ---- ls and stat ---------------------------------------------------------------------------

TEST(SflCliLs, TextAndJsonListings) {
  const uint32_t before = static_cast<uint32_t>(time(nullptr));
  const std::string c = NewContainer();
  Put(c, std::string(200, 'x'));
  Put(c, "short");
  const uint32_t after = static_cast<uint32_t>(time(nullptr));

  Outcome text = Sfl({"ls", c});
  EXPECT_OK(text);
  std::vector<std::string> lines = Lines(text.out);
  ASSERT_EQ(lines.size(), 4u) << text.out;
  EXPECT_NE(lines[0].find("2 of 7 item slots used"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("ATTACH"), std::string::npos);
  std::istringstream row(lines[2]);
  std::string num, size, blocks, attach, changed, flags;
  row >> num >> size >> blocks >> attach >> changed >> flags;
  EXPECT_EQ(num, "1");
  EXPECT_EQ(size, "200");
  EXPECT_EQ(blocks, "2");
  EXPECT_EQ(attach, "1");
  EXPECT_EQ(flags, "-");

  Outcome js = Sfl({"ls", c, "--json"});
  EXPECT_OK(js);
  Json j = ParseJson(js.out);
  EXPECT_EQ(j["container"].str, c);
  EXPECT_EQ(j["slots"].num, 8);
  EXPECT_EQ(j["used"].num, 2);
  ASSERT_EQ(j["items"].kind, Json::Array);
  ASSERT_EQ(j["items"].items.size(), 2u);
  const Json& first = j["items"].items[0];
  EXPECT_EQ(first["item"].num, 1);
  EXPECT_EQ(first["reference"].str, c + ":1");
  EXPECT_EQ(first["size"].num, 200);
  EXPECT_EQ(first["blocks"].num, 2);
  EXPECT_EQ(first["attach"].num, 1);
  EXPECT_TRUE(first["valid"].b);
  EXPECT_EQ(first["flags"].kind, Json::Array);
  EXPECT_TRUE(first["flags"].items.empty());
  EXPECT_GE(first["changed_epoch"].num, before);
  EXPECT_LE(first["changed_epoch"].num, after);
  EXPECT_EQ(first["changed"].str.size(), 20u);  // 2026-01-02T03:04:05Z
  EXPECT_EQ(j["items"].items[1]["size"].num, 5);

  Json all = ParseJson(Sfl({"ls", c, "--json", "--all"}).out);
  ASSERT_EQ(all["items"].items.size(), 8u);
  EXPECT_EQ(all["items"].items[0]["item"].num, 0);  // the free map
  EXPECT_TRUE(all["items"].items[0]["in_use"].b);
  EXPECT_FALSE(all["items"].items[7]["in_use"].b);
}

TEST(SflCliStat, TextAndJson) {
  const std::string c = NewContainer();
  const std::string item = Put(c, std::string(300, 'y'));
  Outcome text = Sfl({"stat", item});
  EXPECT_OK(text);
  EXPECT_NE(text.out.find("reference    " + item + "\n"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("kind         simple\n"), std::string::npos);
  EXPECT_NE(text.out.find("size         300\n"), std::string::npos);
  EXPECT_NE(text.out.find("blocks       3 "), std::string::npos);
  EXPECT_NE(text.out.find("attach       1\n"), std::string::npos);

  Json j = ParseJson(Sfl({"stat", item, "--json"}).out);
  EXPECT_EQ(j["reference"].str, item);
  EXPECT_EQ(j["kind"].str, "simple");
  EXPECT_EQ(j["size"].num, 300);
  EXPECT_EQ(j["blocks"].num, 3);
  EXPECT_EQ(j["attach"].num, 1);
  EXPECT_TRUE(j["flags"].items.empty());
  EXPECT_GT(j["offset"].num, 0);
  EXPECT_EQ(j["path"].str.substr(j["path"].str.rfind(':')), ":1");
  EXPECT_FAILS(Sfl({"stat", c + ":2"}), 1);
}

// ---- rm, attach, detach, truncate ---------------------------------------------------------------

TEST(SflCliRm, DeletesAndTheLastItemTakesTheContainer) {
  Outcome r = Sfl({"create", "-"}, "one");
  const std::string c = Lines(r.out)[0].substr(0, Lines(r.out)[0].find(' '));
  const std::string path = Lines(r.out)[0].substr(Lines(r.out)[0].find(' ') + 1);
  const std::string two = Put(c, "two");
  EXPECT_OK(Sfl({"rm", c + ":1"}));
  EXPECT_FAILS(Sfl({"get", c + ":1"}), 1);
  EXPECT_EQ(Sfl({"get", two}).out, "two");
  Json j = ParseJson(Sfl({"ls", c, "--json"}).out);
  ASSERT_EQ(j["items"].items.size(), 1u);
  EXPECT_EQ(j["items"].items[0]["item"].num, 2);
  Outcome again = Sfl({"rm", c + ":1"});  // already gone: a note, no failure
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.err, "sfl rm: " + c + ":1: already deleted\n");
  EXPECT_TRUE(fs::exists(path));
  EXPECT_OK(Sfl({"rm", two}));
  EXPECT_FALSE(fs::exists(path));
}

TEST(SflCliRm, WhileAnotherProcessHoldsTheContainerTheItemWaitsForItsClose) {
  Outcome r = Sfl({"create", "-", "-"}, "");
  const std::string c = Lines(r.out)[0].substr(0, Lines(r.out)[0].find(' '));
  // Hold the container open in this (test) process while the tool deletes.
  sfl_ItemRef ref{};
  ASSERT_EQ(im_FormItemRef(c.c_str(), &ref), 0);
  int32_t base = sfl_OpenSfl(&ref, 0);
  EXPECT_OK(Sfl({"rm", c + ":1"}));
  Json held = ParseJson(Sfl({"ls", c, "--json"}).out);
  ASSERT_EQ(held["items"].items.size(), 2u);  // still in its slot, marked deleted
  ASSERT_EQ(held["items"].items[0]["flags"].items.size(), 1u);
  EXPECT_EQ(held["items"].items[0]["flags"].items[0].str, "DELETED");
  EXPECT_FAILS(Sfl({"get", c + ":1"}), 1);  // a deleted item no longer opens
  // This process's close is now the last one, with no other holder: it
  // releases the item.
  sfl_CloseFile(base);
  Json after = ParseJson(Sfl({"ls", c, "--json"}).out);
  ASSERT_EQ(after["items"].items.size(), 1u);
  EXPECT_EQ(after["items"].items[0]["item"].num, 2);
}

TEST(SflCliAttach, CountsAndTheLastDetachDeletes) {
  const std::string c = NewContainer();
  const std::string keep = Put(c, "kept");
  const std::string item = Put(c, "owned");
  Outcome a = Sfl({"attach", item});
  EXPECT_OK(a);
  EXPECT_EQ(a.out, "2\n");
  EXPECT_EQ(ParseJson(Sfl({"stat", item, "--json"}).out)["attach"].num, 2);
  EXPECT_EQ(Sfl({"detach", item}).out, "1\n");
  EXPECT_EQ(Sfl({"get", item}).out, "owned");
  EXPECT_EQ(Sfl({"detach", item}).out, "0\n");
  EXPECT_FAILS(Sfl({"get", item}), 1);
  EXPECT_EQ(ParseJson(Sfl({"ls", c, "--json"}).out)["items"].items.size(), 1u);
  EXPECT_EQ(Sfl({"get", keep}).out, "kept");
  EXPECT_FAILS(Sfl({"attach", c + ":6"}), 1);
}

TEST(SflCliAttach, LibraryWarningsOnlyWithVerbose) {
  // A blocked item starts with attach count 0: detaching it makes the library
  // log a warning (28859) to standard error when no log file is set.
  const std::string c = NewContainer({"-"});
  const std::string quiet = Lines(Sfl({"blocks", "append", c}, "q\n").out)[0];
  const std::string loud = Lines(Sfl({"blocks", "append", c}, "l\n").out)[0];
  const std::string bin = BinDir() + "/bin/sfl";
  Outcome q = Exec({bin, "detach", quiet}, "", "", {}, {"SFL_LOG_FILE", "SFL_LOG_LEVEL"});
  EXPECT_OK(q);
  EXPECT_EQ(q.out, "0\n");
  Outcome l = Exec({bin, "-v", "detach", loud}, "", "", {}, {"SFL_LOG_FILE", "SFL_LOG_LEVEL"});
  EXPECT_EQ(l.status, 0);
  EXPECT_EQ(l.out, "0\n");
  EXPECT_NE(l.err.find("28859"), std::string::npos) << l.err;
  // A log level the user configured is respected.
  const std::string set = Lines(Sfl({"blocks", "append", c}, "s\n").out)[0];
  Outcome e = Exec({bin, "detach", set}, "", "", {{"SFL_LOG_LEVEL", "5"}}, {"SFL_LOG_FILE"});
  EXPECT_NE(e.err.find("28859"), std::string::npos) << e.err;
}

TEST(SflCliTruncate, WithinTheReservedBlocksOnly) {
  const std::string c = NewContainer();
  const std::string item = Put(c, std::string(200, 'z'));  // two 128-byte blocks reserved
  EXPECT_OK(Sfl({"truncate", item, "5"}));
  EXPECT_EQ(Sfl({"get", item}).out, "zzzzz");
  EXPECT_OK(Sfl({"truncate", item, "256"}));
  EXPECT_EQ(ParseJson(Sfl({"stat", item, "--json"}).out)["size"].num, 256);
  Outcome over = Sfl({"truncate", item, "257"});
  EXPECT_FAILS(over, 1);
  EXPECT_NE(over.err.find("error 100/28890: size beyond the reserved space"), std::string::npos)
      << over.err;
  EXPECT_EQ(ParseJson(Sfl({"stat", item, "--json"}).out)["size"].num, 256);
}

// ---- streams: write, cat, lines
// ------------------------------------------------------------------

TEST(SflCliWrite, OverwritesInsideTheItemAndNeverGrowsIt) {
  const std::string c = NewContainer();
  const std::string item = Put(c, "hello world");
  EXPECT_OK(Sfl({"write", item, "6"}, "WORLD"));
  EXPECT_EQ(Sfl({"get", item}).out, "hello WORLD");
  EXPECT_OK(Sfl({"write", item, "0"}, ""));
  Outcome past = Sfl({"write", item, "7"}, "12345");
  EXPECT_FAILS(past, 1);
  EXPECT_NE(past.err.find("error 100/28874"), std::string::npos) << past.err;
  EXPECT_EQ(Sfl({"get", item}).out, "hello WORLD");  // nothing of the refused write landed
  EXPECT_EQ(ParseJson(Sfl({"stat", item, "--json"}).out)["size"].num, 11);
}

TEST(SflCliCat, ItemsAndPlainFiles) {
  const std::string c = NewContainer();
  const std::string a = Put(c, "alpha\n");
  const std::string b = Put(c, AllBytes(10000));
  const std::string plain = sfltest::TestDir() + "/plain.txt";
  WriteFile(plain, "plain file\n");
  Outcome r = Sfl({"cat", a, plain, b});
  EXPECT_OK(r);
  EXPECT_EQ(r.out, "alpha\nplain file\n" + AllBytes(10000));
  EXPECT_FAILS(Sfl({"cat", sfltest::TestDir() + "/no-such-file"}), 1);
}

TEST(SflCliLines, NumberedLinesStopAtTheItemsEnd) {
  const std::string c = NewContainer();
  std::string text;
  for (int i = 1; i <= 40; ++i)
    text += std::string(static_cast<size_t>(i * 5), 'a' + i % 26) + "\n";
  const std::string long1 = std::string(9000, 'L') + "\n";  // longer than one read
  const std::string item = Put(c, text + long1 + "last, without newline");
  Put(c, "NEXT ITEM\nMORE\n");  // stored right behind it
  Outcome r = Sfl({"lines", item});
  EXPECT_OK(r);
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 42u) << r.out.substr(0, 300);
  EXPECT_EQ(lines[0], "     1\t" + std::string(5, 'b'));
  EXPECT_EQ(lines[40], "    41\t" + std::string(9000, 'L'));
  EXPECT_EQ(lines[41], "    42\tlast, without newline");
  EXPECT_EQ(r.out.find("NEXT"), std::string::npos);
  EXPECT_EQ(Sfl({"lines", "--count", item}).out, "42\n");

  const std::string plain = sfltest::TestDir() + "/p.txt";
  WriteFile(plain, "x\ny\n");
  EXPECT_EQ(Sfl({"lines", plain}).out, "     1\tx\n     2\ty\n");
}

// ---- blocked items
// ----------------------------------------------------------------------------------

TEST(SflCliBlocks, AppendListReadFree) {
  const std::string c = NewContainer();
  Outcome ap = Sfl({"blocks", "append", c}, "first\nsecond line\nthird\n");
  EXPECT_OK(ap);
  std::vector<std::string> out = Lines(ap.out);
  ASSERT_EQ(out.size(), 2u) << ap.out;
  const std::string item = out[0];
  EXPECT_EQ(item, c + ":1");
  EXPECT_EQ(out[1], "blocks 0-2 (3 appended)");

  Json j = ParseJson(Sfl({"blocks", "list", item, "--json"}).out);
  EXPECT_EQ(j["item"].str, item);
  EXPECT_EQ(j["count"].num, 3);
  EXPECT_EQ(j["bytes"].num, 6 + 12 + 6);
  ASSERT_EQ(j["blocks"].items.size(), 3u);
  EXPECT_EQ(j["blocks"].items[1]["block"].num, 1);
  EXPECT_EQ(j["blocks"].items[1]["size"].num, 12);

  EXPECT_EQ(Sfl({"blocks", "read", item, "1"}).out, "second line\n");
  EXPECT_EQ(Sfl({"blocks", "read", item, "1-2"}).out, "second line\nthird\n");
  EXPECT_EQ(Sfl({"blocks", "read", item}).out, "first\nsecond line\nthird\n");
  EXPECT_EQ(Sfl({"get", item}).out, "first\nsecond line\nthird\n");
  EXPECT_EQ(ParseJson(Sfl({"stat", item, "--json"}).out)["kind"].str, "blocked");

  EXPECT_OK(Sfl({"blocks", "free", item, "1"}));
  Outcome gone = Sfl({"blocks", "read", item, "1"});
  EXPECT_FAILS(gone, 1);
  EXPECT_NE(gone.err.find("error 100/28875"), std::string::npos) << gone.err;
  EXPECT_EQ(Sfl({"blocks", "read", item, "0-"}).out, "first\nthird\n");
  Json after = ParseJson(Sfl({"blocks", "list", item, "--json"}).out);
  ASSERT_EQ(after["blocks"].items.size(), 2u);
  EXPECT_EQ(after["blocks"].items[1]["block"].num, 2);

  // Appending never reuses the freed number.
  Outcome more = Sfl({"blocks", "append", item}, "fourth\n");
  EXPECT_OK(more);
  EXPECT_EQ(Lines(more.out)[1], "blocks 3-3 (1 appended)");

  Outcome text = Sfl({"blocks", "list", item});
  EXPECT_OK(text);
  EXPECT_NE(text.out.find("3 blocks, 19 bytes, index depth 0"), std::string::npos) << text.out;
}

TEST(SflCliBlocks, TheFirstAppendLeavesAWellFormedLeafRoot) {
  const std::string c = NewContainer({"-"});
  const std::string item = Lines(Sfl({"blocks", "append", c}, "0123456789\n").out)[0];
  EXPECT_EQ(item, c + ":2");
  Json st = ParseJson(Sfl({"stat", item, "--json"}).out);
  const std::string path = st["path"].str.substr(0, st["path"].str.rfind(':'));
  const std::string file = ReadFile(path);
  const size_t off = static_cast<size_t>(st["offset"].num);
  ASSERT_GE(file.size(), off + SFL_INDEX_SIZE);
  sfl_IndexBytes raw{};
  std::memcpy(raw.data(), file.data() + off, raw.size());
  const sfl_IndexRecord root = sfl_DecodeIndex(raw);
  EXPECT_EQ(root.Magic, SFL_MAGIC);
  EXPECT_EQ(root.Type, SFL_TYPE_INDEX);
  EXPECT_EQ(root.Depth, 0u);
  EXPECT_EQ(root.ParentOff, SFL_TABLE_OFFSET + 2 * SFL_ITEM_HEADER_SIZE);  // item 2's header
  EXPECT_EQ(root.Used, 1u);
  EXPECT_EQ(root.EverUsed, 1u);
  EXPECT_EQ(root.BaseBlockNum, 0u);
  EXPECT_EQ(root.Entries[0].SectionSize, 11u);
  EXPECT_EQ(file.substr(root.Entries[0].SectionOffSet, 11), "0123456789\n");
  EXPECT_EQ(root.Entries[1].SectionOffSet, 0u);
}

TEST(SflCliBlocks, ChunksOfAFileGrowTheTree) {
  const std::string c = NewContainer();
  const std::string data = AllBytes(50 * 100 + 37);
  const std::string file = sfltest::TestDir() + "/chunks.bin";
  WriteFile(file, data);
  Outcome ap = Sfl({"blocks", "append", c, file, "--chunk", "100"});
  EXPECT_OK(ap);
  const std::string item = Lines(ap.out)[0];
  EXPECT_EQ(Lines(ap.out)[1], "blocks 0-50 (51 appended)");
  Json j = ParseJson(Sfl({"blocks", "list", item, "--json"}).out);
  EXPECT_EQ(j["count"].num, 51);
  EXPECT_EQ(j["index_depth"].num, 1);  // more than 32 blocks: a level above the leaves
  EXPECT_EQ(j["blocks"].items[50]["size"].num, 37);
  EXPECT_EQ(Sfl({"blocks", "read", item}).out, data);
  EXPECT_EQ(Sfl({"blocks", "read", item, "40"}).out, data.substr(4000, 100));
  EXPECT_EQ(Sfl({"blocks", "read", item, "30-33"}).out, data.substr(3000, 400));
  const std::string back = sfltest::TestDir() + "/chunks.back";
  EXPECT_OK(Sfl({"get", item, "-o", back}));
  EXPECT_EQ(ReadFile(back), data);
}

TEST(SflCliBlocks, ADeeperTreeListsAndReadsInOrder) {
  const std::string c = NewContainer();
  std::string input;
  for (int i = 1; i <= 1100; ++i) input += std::to_string(i) + "\n";  // block n holds n+1
  Outcome ap = Sfl({"blocks", "append", c}, input);
  EXPECT_OK(ap);
  const std::string item = Lines(ap.out)[0];
  EXPECT_EQ(Lines(ap.out)[1], "blocks 0-1099 (1100 appended)");
  EXPECT_OK(Sfl({"blocks", "free", item, "0", "500", "1099"}));

  Json j = ParseJson(Sfl({"blocks", "list", item, "--json"}).out);
  EXPECT_EQ(j["index_depth"].num, 2);  // more than 32 x 32 blocks
  ASSERT_EQ(j["count"].num, 1097);
  ASSERT_EQ(j["blocks"].items.size(), 1097u);
  std::vector<int> numbers;
  for (const Json& b : j["blocks"].items) numbers.push_back(static_cast<int>(b["block"].num));
  EXPECT_EQ(numbers.front(), 1);
  EXPECT_EQ(numbers.back(), 1098);
  EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
  EXPECT_EQ(std::count(numbers.begin(), numbers.end(), 500), 0);
  EXPECT_EQ(j["blocks"].items[0]["size"].num, 2);     // "2\n"
  EXPECT_EQ(j["blocks"].items[1096]["size"].num, 5);  // "1099\n"

  EXPECT_EQ(Sfl({"blocks", "read", item, "498-502"}).out, "499\n500\n502\n503\n");
  EXPECT_EQ(Sfl({"blocks", "read", item, "1023-1025"}).out, "1024\n1025\n1026\n");
  EXPECT_EQ(Sfl({"blocks", "read", item, "1050"}).out, "1051\n");
  EXPECT_FAILS(Sfl({"blocks", "read", item, "500"}), 1);
  std::string expected;
  for (int i = 1; i <= 1100; ++i)
    if (i != 1 && i != 501 && i != 1100) expected += std::to_string(i) + "\n";
  EXPECT_EQ(Sfl({"get", item}).out, expected);
}

TEST(SflCliBlocks, RefusedOnSimpleItemsAndForSimpleCommands) {
  const std::string c = NewContainer();
  const std::string simple = Put(c, "plain data");
  EXPECT_FAILS(Sfl({"blocks", "list", simple}), 1);
  EXPECT_FAILS(Sfl({"blocks", "append", simple}, "x\n"), 1);
  EXPECT_EQ(Sfl({"get", simple}).out, "plain data");
  const std::string blocked = Lines(Sfl({"blocks", "append", c}, "b\n").out)[0];
  EXPECT_FAILS(Sfl({"write", blocked, "0"}, "x"), 1);
  EXPECT_FAILS(Sfl({"cat", blocked}), 1);
  Outcome t = Sfl({"truncate", blocked, "1"});
  EXPECT_FAILS(t, 1);
  EXPECT_NE(t.err.find("error 100/28889"), std::string::npos) << t.err;
  Json j = ParseJson(Sfl({"blocks", "list", blocked, "--json"}).out);
  EXPECT_EQ(j["count"].num, 1);
}

// ---- dump
// ------------------------------------------------------------------------------------------

// The dump routines' text for raw records, printed in this process.
std::string DumpedWith(const std::function<void(FILE*)>& fn) {
  char* text = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&text, &len);
  fn(f);
  std::fclose(f);
  std::string s(text, len);
  std::free(text);
  return s;
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// A container with a simple item (1) and a blocked item (2) of 40 one-line
// blocks, block n holding the line "n+1": a tree of a root and two leaves.
struct DumpFixture {
  std::string c, simple, blocked, path;
  DumpFixture() {
    c = NewContainer();
    simple = Put(c, "hello");
    std::string lines;
    for (int i = 1; i <= 40; ++i) lines += std::to_string(i) + "\n";
    blocked = Lines(Sfl({"blocks", "append", c}, lines).out)[0];
    Json st = ParseJson(Sfl({"stat", simple, "--json"}).out);
    path = st["path"].str.substr(0, st["path"].str.rfind(':'));
  }
  std::string Raw(size_t off, size_t len) const { return ReadFile(path).substr(off, len); }
  const uint8_t* Bytes(const std::string& s) const {
    return reinterpret_cast<const uint8_t*>(s.data());
  }
};

TEST(SflCliDump, WholeContainerInFileOrder) {
  DumpFixture f;
  Outcome r = Sfl({"dump", f.c});
  EXPECT_OK(r);
  // The expected text: the file header, slots 0 to 2, then item 2's tree
  // (its root, then the leaves in entry order), read from the file here.
  const std::string header = f.Raw(0, 128);
  std::string want = DumpedWith([&](FILE* o) { sfl_DumpHeader(o, f.Bytes(header), 0); });
  for (uint32_t slot = 0; slot < 3; ++slot) {
    const uint32_t at = 128 + 64 * slot;
    const std::string h = f.Raw(at, 64);
    want += DumpedWith([&](FILE* o) { sfl_DumpItemHeader(o, f.Bytes(h), at); });
  }
  const sfl_ItemHeaderBytes item2 = [&] {
    sfl_ItemHeaderBytes b{};
    const std::string s = f.Raw(256, 64);
    std::memcpy(b.data(), s.data(), b.size());
    return b;
  }();
  const sfl_ItemHeader h2 = sfl_DecodeItemHeader(item2);
  ASSERT_EQ(h2.IndexDepth, 1u);
  const std::string rootBytes = f.Raw(h2.FileOffset, 384);
  sfl_IndexBytes rb{};
  std::memcpy(rb.data(), rootBytes.data(), rb.size());
  const sfl_IndexRecord root = sfl_DecodeIndex(rb);
  want += DumpedWith([&](FILE* o) { sfl_DumpBlockedIndex(o, f.Bytes(rootBytes), h2.FileOffset); });
  for (int e = 0; e < 2; ++e) {
    const uint32_t off = root.Entries[e].SectionOffSet;
    const std::string leaf = f.Raw(off, 384);
    want += DumpedWith([&](FILE* o) { sfl_DumpBlockedIndex(o, f.Bytes(leaf), off); });
  }
  EXPECT_EQ(r.out, want);
  // And what that text says about this file.
  EXPECT_EQ(r.out.compare(0, 51, "=HHHHHHHHHHHHHHHHHHHHHHHH=\nLocation=0x00000000 (0)\n"), 0);
  EXPECT_NE(r.out.find("UsedItems=2\nMaxItems=8\n"), std::string::npos);
  EXPECT_NE(r.out.find("InUseItms BitMap=11100000 \n"), std::string::npos);
  EXPECT_EQ(Count(r.out, "=IIIIIIIIIIIIIIIIIIIIIIII=\n"), 3u);
  EXPECT_EQ(Count(r.out, "=XXXXXXXXXXXXXXXXXXXXXXXX=\n"), 3u);
  EXPECT_NE(r.out.find("Location=0x00000100 (256)\n"), std::string::npos);
  EXPECT_NE(r.out.find("IndexDepth=1\nFlags=0x00000001\nBLOCKED_ITEM \n"), std::string::npos);
  EXPECT_NE(r.out.find("Depth=0\nUsed=8\nEverUsed=8\nBaseBlockNum=32\n"), std::string::npos);
  EXPECT_NE(r.out.find(" 7:SectionSize  =0x00000003 (3)\n"), std::string::npos);  // "40\n"
}

TEST(SflCliDump, OneItem) {
  DumpFixture f;
  Outcome simple = Sfl({"dump", f.c, "--item", "1"});
  EXPECT_OK(simple);
  const std::string h1 = f.Raw(192, 64);
  EXPECT_EQ(simple.out, DumpedWith([&](FILE* o) { sfl_DumpItemHeader(o, f.Bytes(h1), 192); }));
  EXPECT_NE(simple.out.find("FileSize=0x00000005 (5)\n"), std::string::npos) << simple.out;

  Outcome blocked = Sfl({"dump", f.c, "--item=2"});
  EXPECT_OK(blocked);
  EXPECT_EQ(blocked.out.find("=IIIIIIIIIIIIIIIIIIIIIIII=\nLocation=0x00000100 (256)\n"), 0u);
  EXPECT_EQ(Count(blocked.out, "=IIII"), 1u);
  EXPECT_EQ(Count(blocked.out, "=XXXX"), 3u);
  EXPECT_EQ(Count(blocked.out, "=HHHH"), 0u);

  Outcome map = Sfl({"dump", f.c, "--item", "0"});
  EXPECT_OK(map);
  EXPECT_NE(map.out.find("Location=0x00000080 (128)\nAccCount=1\nFileSize=0x00000100 (256)\n"),
            std::string::npos)
      << map.out;
}

TEST(SflCliDump, TreeListsBlocksAndHoles) {
  DumpFixture f;
  EXPECT_OK(Sfl({"blocks", "free", f.blocked, "3", "33"}));
  Outcome r = Sfl({"dump", f.c, "--tree", "2"});
  EXPECT_OK(r);
  std::string want;
  char line[64];
  for (int n = 0; n < 40; ++n) {
    if (n % 32 == 0) want += "------> BaseBlock=" + std::to_string(n) + "\n";
    const int len = static_cast<int>(std::to_string(n + 1).size()) + 1;
    if (n == 3 || n == 33)
      std::snprintf(line, sizeof line, "Record %5d is UNUSED\n", n);
    else
      std::snprintf(line, sizeof line, "Record %5d is %5d Bytes\n", n, len);
    want += line;
  }
  EXPECT_EQ(r.out, want);
  EXPECT_NE(r.out.find("Record     3 is UNUSED\nRecord     4 is     2 Bytes\n"), std::string::npos);
}

TEST(SflCliDump, Refusals) {
  DumpFixture f;
  const std::vector<std::vector<std::string>> usage = {
      {"dump"},
      {"dump", f.c, f.c},
      {"dump", f.simple},
      {"dump", f.c, "--item"},
      {"dump", f.c, "--item", "8"},
      {"dump", f.c, "--item", "x"},
      {"dump", f.c, "--tree", "0"},
      {"dump", f.c, "--tree", "-1"},
      {"dump", f.c, "--item", "1", "--tree", "2"},
      {"dump", f.c, "--json"},
  };
  for (const auto& args : usage) {
    SCOPED_TRACE(args.size() > 2 ? args[2] : "");
    EXPECT_FAILS(Sfl(args), 2);
  }
  Outcome free = Sfl({"dump", f.c, "--item", "5"});
  EXPECT_FAILS(free, 1);
  EXPECT_NE(free.err.find("slot 5 is free"), std::string::npos) << free.err;
  Outcome simple = Sfl({"dump", f.c, "--tree", "1"});
  EXPECT_FAILS(simple, 1);
  EXPECT_NE(simple.err.find("not a blocked item"), std::string::npos) << simple.err;
  EXPECT_FAILS(Sfl({"dump", "9.9.999999"}), 1);
  EXPECT_EQ(Sfl({"dump", f.c, "--tree", "3"}).status, 1);
}

// A damaged index record: what lies before it is printed, then the read
// fails with one error line.
TEST(SflCliDump, DamagedLeafEndsTheDumpWithAnError) {
  DumpFixture f;
  const std::string s = f.Raw(256, 64);
  sfl_ItemHeaderBytes hb{};
  std::memcpy(hb.data(), s.data(), hb.size());
  const uint32_t rootOff = sfl_DecodeItemHeader(hb).FileOffset;
  const std::string rootBytes = f.Raw(rootOff, 384);
  sfl_IndexBytes rb{};
  std::memcpy(rb.data(), rootBytes.data(), rb.size());
  const uint32_t leaf1 = sfl_DecodeIndex(rb).Entries[1].SectionOffSet;
  {
    std::fstream io(f.path, std::ios::binary | std::ios::in | std::ios::out);
    io.seekp(leaf1);
    io.write("\0\0\0\0", 4);  // the magic number
  }
  Outcome r = Sfl({"dump", f.c});
  EXPECT_FAILS(r, 1);
  EXPECT_NE(r.err.find("error 100/28879"), std::string::npos) << r.err;
  EXPECT_EQ(Count(r.out, "=IIII"), 3u);
  EXPECT_EQ(Count(r.out, "=XXXX"), 2u);  // the root and the first leaf
}

TEST(SflCliDump, Help) {
  Outcome r = Sfl({"dump", "--help"});
  EXPECT_OK(r);
  EXPECT_EQ(r.out.find("usage: sfl dump <container> [--item N | --tree N]"), 0u) << r.out;
  EXPECT_NE(r.out.find("--tree"), std::string::npos);
  EXPECT_NE(r.out.find("exit status"), std::string::npos);
  EXPECT_EQ(Sfl({"help", "dump"}).out, r.out);
  EXPECT_NE(Sfl({"--help"}).out.find("  dump "), std::string::npos);
}

// ---- the interest service
// ---------------------------------------------------------------------------

TEST(SflCliService, StartStatusStop) {
  Outcome none = Sfl({"service", "status"});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(Lines(none.out).at(0), "not running");
  EXPECT_OK(Sfl({"service", "stop"}));  // stopping nothing is fine

  Outcome start = Sfl({"service", "start", "--pairs", "2"});
  EXPECT_OK(start);
  EXPECT_EQ(start.out.compare(0, 13, "started: pid "), 0) << start.out;
  EXPECT_NE(start.out.find("2 queue pairs"), std::string::npos);
  const int pid = std::atoi(start.out.c_str() + 13);
  ASSERT_GT(pid, 0);
  EXPECT_EQ(kill(pid, 0), 0);

  Outcome status = Sfl({"service", "status"});
  EXPECT_OK(status);
  EXPECT_EQ(Lines(status.out).at(0), "running: pid " + std::to_string(pid) + ", 2 queue pairs");
  Outcome again = Sfl({"service", "start"});
  EXPECT_OK(again);
  EXPECT_EQ(again.out.compare(0, 16, "already running:"), 0) << again.out;

  // The library uses the running service.
  const std::string c = NewContainer();
  EXPECT_EQ(Sfl({"get", Put(c, "via service")}).out, "via service");

  Outcome stop = Sfl({"service", "stop"});
  EXPECT_OK(stop);
  EXPECT_EQ(stop.out, "stopped: pid " + std::to_string(pid) + "\n");
  EXPECT_NE(kill(pid, 0), 0);
  EXPECT_EQ(Sfl({"service", "status"}).status, 1);
  EXPECT_FAILS(Sfl({"service", "status", "--pairs", "2"}), 2);
}

TEST(SflCliService, StopIsRefusedWhileInterestsAreHeldUnlessForced) {
  EXPECT_OK(Sfl({"service", "start"}));
  sfltest::Gate recorded, go;
  const int holder = sfltest::StartChild([&] {
    sfl_BaseRec rec;
    sfl_ItemRef ref{};
    ref.Domain = 2;
    ref.SubDomain = 3;
    ref.FileId = 4;
    sfl_SetRef(rec, ref);
    sfl_RecordBaseInterest(&rec);
    recorded.Open();
    go.Wait();
    return 0;
  });
  recorded.Wait();
  Outcome refused = Sfl({"service", "stop"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "");
  EXPECT_NE(refused.err.find("not stopped: 1 interest(s) held by 1 live process(es) (pid " +
                             std::to_string(holder) + ")"),
            std::string::npos)
      << refused.err;
  EXPECT_OK(Sfl({"service", "status"}));
  EXPECT_FAILS(Sfl({"service", "status", "--force"}), 2);
  Outcome forced = Sfl({"service", "stop", "--force"});
  EXPECT_OK(forced);
  EXPECT_EQ(forced.out.compare(0, 13, "stopped: pid "), 0) << forced.out;
  EXPECT_EQ(Sfl({"service", "status"}).status, 1);
  go.Open();
  EXPECT_EQ(sfltest::WaitChild(holder), 0);
  EXPECT_NE(Sfl({"service", "--help"}).out.find("--force"), std::string::npos);
}

// ---- the demo
// -----------------------------------------------------------------------------------------

TEST(SflDemo, RunsCleanlyOnTheDefaultStore) {
  const std::string cwd = sfltest::TestDir() + "/demo";
  fs::create_directories(cwd);
  Outcome r =
      Exec({"/bin/sh", SourceRoot() + "/tools/demo.sh", BinDir()}, "", cwd, {}, {"SFL_STORE_ROOT"});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("demo: success"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("matches random.bin (200000 bytes)"), std::string::npos) << r.out;
  EXPECT_TRUE(
      fs::is_directory(cwd + "/sfl-store"));  // the default store, under the current directory
  EXPECT_EQ(r.err, "");
}

TEST(SflDemo, FailsWithoutTheTool) {
  Outcome r = Exec({"/bin/sh", SourceRoot() + "/tools/demo.sh", sfltest::TestDir() + "/no-build"});
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("not found"), std::string::npos) << r.err;
}

}  // namespace
