// `sfl blocks compact` and `sfl blocks move`: the built tool runs as its own
// process over blocked items this test builds with the library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

using sfltest::Outcome;
using sfltest::Sfl;

std::string Text(const sfl_ItemRef& ref) { return sfltest::RefText(ref); }

// A container with a blocked item whose blocks `numbers` hold "b<N>\n",
// and a simple item; both closed. Returns the blocked item's reference and
// the simple one's in *simple.
sfl_ItemRef BlockedItem(const std::vector<uint32_t>& numbers, sfl_ItemRef* simple) {
  auto c = sfltest::NewContainer();
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(c.bh, &ref);
  sfl_FormatBlockedRoot(h);
  for (uint32_t n : numbers) {
    const std::string d = "b" + std::to_string(n) + "\n";
    sfl_WriteBlockedData(h, n, static_cast<uint32_t>(d.size()), d.data());
  }
  sfl_CloseItem(h);
  const int32_t s = sfl_StoreBasicItem(c.bh, nullptr, 10, simple, 0);
  sfl_CloseItem(s);
  sfl_CloseFile(c.bh);
  return ref;
}

}  // namespace

TEST(SflBlocksTool, CompactPrintsTheLastBlockBeforeAndAfter) {
  sfl_ItemRef simple{};
  const sfl_ItemRef ref = BlockedItem({0, 5, 40, 700}, &simple);
  const Outcome r = Sfl({"blocks", "compact", Text(ref)});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "last block before: 700\nlast block after: 3\n");
  const Outcome read = Sfl({"blocks", "read", Text(ref)});
  EXPECT_EQ(read.out, "b0\nb5\nb40\nb700\n");
  EXPECT_EQ(Sfl({"blocks", "read", Text(ref), "2"}).out, "b40\n");
  // Compacting again changes nothing.
  EXPECT_EQ(Sfl({"blocks", "compact", Text(ref)}).out, "last block before: 3\nlast block after: 3\n");
}

TEST(SflBlocksTool, CompactOfAnItemWithoutBlocksSaysNone) {
  sfl_ItemRef simple{};
  const sfl_ItemRef ref = BlockedItem({}, &simple);
  const Outcome r = Sfl({"blocks", "compact", Text(ref)});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "last block before: none\nlast block after: none\n");
}

TEST(SflBlocksTool, MoveShiftsTheBlocksInBetween) {
  sfl_ItemRef simple{};
  std::vector<uint32_t> numbers;
  for (uint32_t n = 0; n < 100; ++n) numbers.push_back(n);
  const sfl_ItemRef ref = BlockedItem(numbers, &simple);
  const Outcome r = Sfl({"blocks", "move", Text(ref), "3", "40"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(Sfl({"blocks", "read", Text(ref), "3"}).out, "b4\n");
  EXPECT_EQ(Sfl({"blocks", "read", Text(ref), "39"}).out, "b40\n");
  EXPECT_EQ(Sfl({"blocks", "read", Text(ref), "40"}).out, "b3\n");
  EXPECT_EQ(Sfl({"blocks", "read", Text(ref), "41"}).out, "b41\n");

  // A refused move says why and changes nothing.
  const std::string all = Sfl({"blocks", "read", Text(ref)}).out;
  const Outcome refused = Sfl({"blocks", "move", Text(ref), "5", "63"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("error 100/28884"), std::string::npos) << refused.err;
  EXPECT_EQ(Sfl({"blocks", "read", Text(ref)}).out, all);
  const Outcome past = Sfl({"blocks", "move", Text(ref), "0", "160"});
  EXPECT_EQ(past.status, 1);
  EXPECT_NE(past.err.find("error 100/28876"), std::string::npos) << past.err;
  EXPECT_EQ(Sfl({"blocks", "read", Text(ref)}).out, all);
}

TEST(SflBlocksTool, ASimpleItemIsRefusedWithAClearMessage) {
  sfl_ItemRef simple{};
  BlockedItem({1}, &simple);
  const Outcome c = Sfl({"blocks", "compact", Text(simple)});
  EXPECT_EQ(c.status, 1);
  EXPECT_NE(c.err.find("not a blocked item: a simple item has no blocks to renumber"),
            std::string::npos)
      << c.err;
  const Outcome m = Sfl({"blocks", "move", Text(simple), "0", "1"});
  EXPECT_EQ(m.status, 1);
  EXPECT_NE(m.err.find("not a blocked item: a simple item has no blocks to move"), std::string::npos)
      << m.err;
}

TEST(SflBlocksTool, UsageAndHelp) {
  sfl_ItemRef simple{};
  const std::string item = Text(BlockedItem({0, 1}, &simple));
  std::string container = item.substr(0, item.find(':'));
  const std::vector<std::vector<std::string>> bad = {
      {"blocks", "compact"},                          // no item
      {"blocks", "compact", item, "extra"},           // one too many
      {"blocks", "compact", container},               // a container, not an item
      {"blocks", "move", item},                       // no numbers
      {"blocks", "move", item, "1"},                  // one number
      {"blocks", "move", item, "1", "2", "3"},        // one too many
      {"blocks", "move", item, "x", "2"},             // not a number
      {"blocks", "move", item, "1", "-2"},            // not a number
      {"blocks", "move", item, "1", "99999999999"},   // beyond 32 bits
  };
  for (const auto& args : bad) {
    std::string shown;
    for (const auto& a : args) shown += a + " ";
    SCOPED_TRACE(shown);
    const Outcome r = Sfl(args);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(r.err.find("sfl blocks "), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
  }
  const Outcome ch = Sfl({"blocks", "compact", "--help"});
  EXPECT_EQ(ch.status, 0);
  EXPECT_EQ(ch.out.find("usage: sfl blocks compact <item>"), 0u) << ch.out;
  EXPECT_NE(ch.out.find("no block data is moved"), std::string::npos);
  const Outcome mh = Sfl({"blocks", "move", "-h"});
  EXPECT_EQ(mh.status, 0);
  EXPECT_EQ(mh.out.find("usage: sfl blocks move <item> <from> <to>"), 0u) << mh.out;
  const Outcome list = Sfl({"blocks", "--help"});
  EXPECT_NE(list.out.find("sfl blocks compact <item>"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find("sfl blocks move <item> <from> <to>"), std::string::npos) << list.out;
}
