// `sfl compact` and the compaction marks `sfl ls` shows: the built tool runs
// as its own process over containers this test builds with the library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

uint64_t SizeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// A container with a 200 KiB hole: the closes of this process never compact
// (their limit is set far above), so the tool finds the hole still there.
sfl_ItemRef ContainerWithAHole(std::vector<uint8_t>* kept) {
  setenv("SFL_HOLES_SIZE_LIMIT", "1000000", 1);
  sfl_ResetCompactionSettings();
  auto c = sfltest::NewContainer();
  *kept = sfltest::PseudoRandomBytes(3000, 1, 1);
  sfl_ItemRef ref{};
  int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 3000, &ref, 0);
  sfl_WriteSimpleData(h, 0, 3000, kept->data());
  sfl_CloseItem(h);
  h = sfl_StoreBasicItem(c.bh, nullptr, 200 * 1024, nullptr, 0);
  sfl_DetachOpenItem(h);
  sfl_DeleteItem(h);
  sfl_CloseItem(h);
  sfl_CloseFile(c.bh);
  return c.ref;
}

}  // namespace

TEST(SflCompactTool, RebuildsAndReportsTheSizesBeforeAndAfter) {
  std::vector<uint8_t> kept;
  const sfl_ItemRef ref = ContainerWithAHole(&kept);
  const std::string path = sfltest::ItemPath(ref);
  const uint64_t before = SizeOf(path);
  ASSERT_GT(before, 200u * 1024);

  const Outcome r = Sfl({"compact", Text(ref)});
  EXPECT_EQ(r.status, 0) << r.err;
  const uint64_t after = SizeOf(path);
  EXPECT_LT(after, 8192u);
  EXPECT_NE(r.out.find(std::to_string(before) + " -> " + std::to_string(after) + " bytes"),
            std::string::npos)
      << r.out;

  sfl_ItemRef item = ref;
  item.Flags = static_cast<uint16_t>(item.Flags | 1);
  const Outcome get = Sfl({"get", Text(item)});
  EXPECT_EQ(get.status, 0);
  EXPECT_EQ(get.out, std::string(kept.begin(), kept.end()));
}

TEST(SflCompactTool, AContainerAnotherProcessHoldsIsMarkedAndReported) {
  std::vector<uint8_t> kept;
  const sfl_ItemRef ref = ContainerWithAHole(&kept);
  const std::string path = sfltest::ItemPath(ref);
  const uint64_t before = SizeOf(path);

  sfltest::Gate ready, go;
  const int child = sfltest::StartChild([&] {
    const int32_t bh = sfl_OpenSfl(&ref, 0);
    ready.Open();
    go.Wait();
    sfl_CloseFile(bh);
    return 0;
  });
  ready.Wait();
  const Outcome r = Sfl({"compact", Text(ref)});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("another process holds the file"), std::string::npos) << r.err;
  EXPECT_EQ(SizeOf(path), before);

  const Outcome ls = Sfl({"ls", Text(ref)});
  EXPECT_EQ(ls.status, 0);
  EXPECT_NE(ls.out.find("file flags: NEED_COMPACTION"), std::string::npos) << ls.out;
  const Outcome json = Sfl({"ls", "--json", Text(ref)});
  EXPECT_NE(json.out.find("\"file_flags\": [\"NEED_COMPACTION\"]"), std::string::npos) << json.out;

  // The holder's last close compacts the marked file.
  go.Open();
  EXPECT_EQ(sfltest::WaitChild(child), 0);
  EXPECT_LT(SizeOf(path), 8192u);
  const Outcome lsAfter = Sfl({"ls", Text(ref)});
  EXPECT_NE(lsAfter.out.find("file flags: -"), std::string::npos) << lsAfter.out;
}

TEST(SflCompactTool, ReportsEachContainerAndFailsForOneThatIsMissing) {
  std::vector<uint8_t> kept;
  const sfl_ItemRef ref = ContainerWithAHole(&kept);
  const Outcome r = Sfl({"compact", "2.1.999999", Text(ref)});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("2.1.999999"), std::string::npos) << r.err;
  const Outcome help = Sfl({"compact", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("NEED_COMPACTION"), std::string::npos);
  EXPECT_EQ(Sfl({"compact"}).status, 2);
}
