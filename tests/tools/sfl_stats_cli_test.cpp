// `sfl stats`: the built tool summarises a store this test builds with the
// library: counts, bytes, holes and the containers over the compaction
// thresholds.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"
#include "tool_run.h"

namespace {

using sfltest::Outcome;
using sfltest::Sfl;

uint64_t SizeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

int32_t Store(int32_t bh, uint32_t size) {
  const std::vector<uint8_t> data = sfltest::PseudoRandomBytes(size, size, 7);
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, size, nullptr, 0);
  sfl_WriteSimpleData(h, 0, size, data.data());
  return h;
}

struct Store2 {
  sfl_ItemRef tidy{}, holey{};
};

// Two containers: one with two items and no hole, one with an item of
// 3000 bytes and a hole of 200 KiB that a deleted item left. This process's
// closes never compact (their limit is set far above).
Store2 MakeStore() {
  setenv("SFL_HOLES_SIZE_LIMIT", "1000000", 1);
  sfl_ResetCompactionSettings();
  Store2 s;
  auto a = sfltest::NewContainer();
  sfl_CloseItem(Store(a.bh, 100));
  sfl_CloseItem(Store(a.bh, 5000));
  sfl_CloseFile(a.bh);
  s.tidy = a.ref;
  auto b = sfltest::NewContainer();
  sfl_CloseItem(Store(b.bh, 3000));
  const int32_t h = Store(b.bh, 200 * 1024);
  sfl_DetachOpenItem(h);
  sfl_DeleteItem(h);
  sfl_CloseItem(h);
  sfl_CloseFile(b.bh);
  s.holey = b.ref;
  sfltest::CloseColdFiles();
  unsetenv("SFL_HOLES_SIZE_LIMIT");
  return s;
}

std::string Field(const std::string& json, const std::string& name) {
  const size_t at = json.find("\"" + name + "\": ");
  if (at == std::string::npos) return "";
  const size_t start = at + name.size() + 4;
  size_t end = start;
  if (json[start] == '[') {
    end = json.find(']', start) + 1;
  } else {
    while (end < json.size() && json[end] != ',' && json[end] != '}') ++end;
  }
  return json.substr(start, end - start);
}

}  // namespace

TEST(SflStatsTool, CountsItemsBytesAndHolesAndNamesContainersOverTheThresholds) {
  const Store2 s = MakeStore();
  const std::string tidy = sfltest::ItemPath(s.tidy), holey = sfltest::ItemPath(s.holey);
  const uint64_t onDisk = SizeOf(tidy) + SizeOf(holey);

  const Outcome r = Sfl({"stats", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Field(r.out, "containers"), "2") << r.out;
  EXPECT_EQ(Field(r.out, "items"), "3") << r.out;
  EXPECT_EQ(Field(r.out, "bytes_stored"), std::to_string(100 + 5000 + 3000)) << r.out;
  EXPECT_EQ(Field(r.out, "bytes_on_disk"), std::to_string(onDisk)) << r.out;
  EXPECT_GE(std::stoull(Field(r.out, "holes")), 200u * 1024) << r.out;
  const std::string over = Field(r.out, "over_compaction_threshold");
  EXPECT_NE(over.find(holey), std::string::npos) << r.out;
  EXPECT_EQ(over.find(tidy), std::string::npos) << r.out;
  // Looking changed nothing: the hole is still there.
  EXPECT_EQ(SizeOf(tidy) + SizeOf(holey), onDisk);

  const Outcome text = Sfl({"stats"});
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("containers             2\n"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("over compaction limits 1\n  " + holey + "\n"), std::string::npos) << text.out;
}

TEST(SflStatsTool, TheThresholdIsTheLibrarysOwnSetting) {
  MakeStore();
  // With the limit above the hole, the library would not rebuild it, and
  // stats says so.
  const Outcome r = sfltest::Exec({sfltest::BinDir() + "/bin/sfl", "stats", "--json"}, "", "",
                                  {{"SFL_HOLES_SIZE_LIMIT", "1000"}});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Field(r.out, "over_compaction_threshold"), "[]") << r.out;
  EXPECT_NE(r.out.find("\"holes\": "), std::string::npos);
}

TEST(SflStatsTool, AFileThatIsNoContainerIsNamedAndGivesStatus3) {
  MakeStore();
  sfl_ItemRef bogus{};
  bogus.Domain = 2;
  bogus.SubDomain = 9;
  bogus.FileId = 77;
  const std::string path = sfltest::ItemPath(bogus);
  ::mkdir((sfltest::StoreRoot() + "/2").c_str(), 0755);
  ::mkdir((sfltest::StoreRoot() + "/2/9").c_str(), 0755);
  sfltest::WritePlainFile("junk", std::string(300, 'x'));
  ASSERT_EQ(std::rename((sfltest::TestDir() + "/junk").c_str(), path.c_str()), 0) << path;

  const Outcome r = Sfl({"stats"});
  EXPECT_EQ(r.status, 3) << r.out << r.err;
  EXPECT_NE(r.err.find(path + ": error "), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("containers             2\n"), std::string::npos) << r.out;
}
