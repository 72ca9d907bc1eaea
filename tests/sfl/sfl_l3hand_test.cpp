// The stream table: handle numbering, the full table, the handle check with
// its inclusive one-past bound, and freeing records.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

constexpr auto EscapeOf = sfltest::EscapeCodeOf;

constexpr long kBadHandle = sfltest::EscapeCode(ER_GROUP_TABLE, 28867);
constexpr long kStreamsFull = sfltest::EscapeCode(ER_GROUP_TABLE, 28888);

int OpenDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

constexpr auto MakePlainFile = sfltest::WritePlainFile;

TEST(StreamTable, HandlesRunFrom9000AndTheSeventeenthFails) {
  std::vector<int32_t> handles;
  for (int i = 0; i < 16; ++i) {
    int32_t h = -1;
    sfl_StreamRec* r = sfl_GetNewL3Entry(&h);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(h, 9000 + i);
    EXPECT_EQ(r->InUse, 1u);
    EXPECT_EQ(sfl_L3Handle2Record(h), r);
    handles.push_back(h);
  }
  EXPECT_EQ(sfl_Streams().InUseCount(), 16);
  int32_t h = -1;
  EXPECT_EQ(EscapeOf([&] { sfl_GetNewL3Entry(&h); }), kStreamsFull);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(sfl_Streams().InUseCount(), 16);

  // Freeing one makes exactly that index the next one handed out.
  sfl_DeleteOL3Item(sfl_L3Handle2Record(9005));
  EXPECT_EQ(sfl_Streams().InUseCount(), 15);
  sfl_GetNewL3Entry(&h);
  EXPECT_EQ(h, 9005);
}

TEST(StreamTable, HandleCheckBounds) {
  EXPECT_EQ(EscapeOf([] { sfl_L3Handle2Record(9000); }), kBadHandle);  // empty table
  int32_t a = 0, b = 0;
  sfl_GetNewL3Entry(&a);
  sfl_GetNewL3Entry(&b);
  ASSERT_EQ(b, 9001);
  EXPECT_EQ(EscapeOf([] { sfl_L3Handle2Record(8999); }), kBadHandle);
  EXPECT_EQ(EscapeOf([] { sfl_L3Handle2Record(-1); }), kBadHandle);
  // One past the high-water mark passes the range check and must then read
  // as a free record (never as a missing one); two past fails the range.
  EXPECT_EQ(EscapeOf([] { sfl_L3Handle2Record(9002); }), kBadHandle);
  EXPECT_EQ(EscapeOf([] { sfl_L3Handle2Record(9003); }), kBadHandle);
  EXPECT_EQ(EscapeOf([] { sfl_L3Handle2Record(9016); }), kBadHandle);

  // Free both: the high-water mark stays, the records are allocated, and
  // the one-past slot (index 2) is now an allocated-but-never-used record.
  sfl_DeleteOL3Item(sfl_L3Handle2Record(a));
  sfl_DeleteOL3Item(sfl_L3Handle2Record(b));
  EXPECT_EQ(sfl_Streams().HighWater(), 2u);
  EXPECT_EQ(EscapeOf([&] { sfl_L3Handle2Record(a); }), kBadHandle);
  EXPECT_EQ(EscapeOf([&] { sfl_L3Handle2Record(b); }), kBadHandle);
  EXPECT_EQ(EscapeOf([] { sfl_L3Handle2Record(9002); }), kBadHandle);
}

TEST(StreamTable, DeleteIgnoresNullRefusesFreeAndClearsWhole) {
  EXPECT_EQ(EscapeOf([] { sfl_DeleteOL3Item(nullptr); }), 0);
  int32_t h = 0;
  sfl_StreamRec* r = sfl_GetNewL3Entry(&h);
  r->IsItem = 1;
  r->ReadOnly = 1;
  r->ItemHandle = 8123;
  r->Position = 77;
  r->Stream = stdout;  // never used, only stored
  EXPECT_EQ(sfl_Streams().InUseCount(), 1);
  sfl_DeleteOL3Item(r);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(r->InUse, 0u);
  EXPECT_EQ(r->IsItem, 0u);
  EXPECT_EQ(r->ReadOnly, 0u);
  EXPECT_EQ(r->ItemHandle, 0);
  EXPECT_EQ(r->Position, 0u);
  EXPECT_EQ(r->Stream, nullptr);
  EXPECT_EQ(EscapeOf([&] { sfl_DeleteOL3Item(r); }), kBadHandle);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);

  // The same record comes back, zeroed, for the next user.
  int32_t again = 0;
  EXPECT_EQ(sfl_GetNewL3Entry(&again), r);
  EXPECT_EQ(again, h);
  EXPECT_EQ(r->IsItem, 0u);
}

// Through the public open: the seventeenth stream fails with 28888 and
// leaves no descriptor behind; the sixteen work and close cleanly.
TEST(StreamTable, SeventeenthOpenStreamFails) {
  std::string path = MakePlainFile("plain.txt", "some text\n");
  int fdsBefore = OpenDescriptors();
  std::vector<int32_t> handles;
  for (int i = 0; i < 16; ++i) {
    int32_t h = sfl_fOpen(path.c_str(), "r");
    EXPECT_EQ(h, 9000 + i);
    handles.push_back(h);
  }
  EXPECT_EQ(OpenDescriptors(), fdsBefore + 16);
  EXPECT_EQ(EscapeOf([&] { sfl_fOpen(path.c_str(), "r"); }), kStreamsFull);
  EXPECT_EQ(OpenDescriptors(), fdsBefore + 16);
  EXPECT_EQ(sfl_Streams().InUseCount(), 16);
  for (int32_t h : handles) sfl_fClose(h);
  EXPECT_EQ(sfl_Streams().InUseCount(), 0);
  EXPECT_EQ(OpenDescriptors(), fdsBefore);
  EXPECT_EQ(EscapeOf([&] { sfl_fClose(handles[0]); }), kBadHandle);
}

}  // namespace
