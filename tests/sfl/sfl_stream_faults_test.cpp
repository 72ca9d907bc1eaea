// Item streams whose underlying stream calls fail: a seek before a write, a
// flush before a read or a line read, the position asked before and after a
// line read, and the flush and close of sfl_fClose. Each failure raises
// with its errno, and a failed close still gives back its stream record
// and its item. Every call sfl_fClose makes is failed in turn: whichever
// fails, the stream, the item handle, the container's descriptor and the
// interest in it are all given back by that one close.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "op_catalog.h"
#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

constexpr long Os(int err) { return sfltest::EscapeCode(ER_GROUP_OS, err); }

class StreamFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    c_ = sfltest::NewContainer();
    const int32_t h = sfl_StoreBasicItem(c_.bh, nullptr, 256, &ref_, 0);
    const std::string text = "first line\nsecond line\n";
    sfl_WriteSimpleData(h, 0, static_cast<uint32_t>(text.size()), text.data());
    sfl_CloseItem(h);
    s_ = sfl_fOpenItem(&ref_, "rw");
  }
  void TearDown() override {
    os_ClearFaults();
    sfltest::EscapeOfThenClear([&] {
      if (s_ >= 0) sfl_fClose(s_);
      sfl_CloseFile(c_.bh);
    });
  }
  sfltest::OpenContainer c_;
  sfl_ItemRef ref_{};
  int32_t s_ = -1;
};

TEST_F(StreamFaults, AWriteAfterAReadSeeksFirstAndRaisesWhenItCannot) {
  char buf[4];
  ASSERT_EQ(sfl_fRead(buf, 1, 4, s_), 4u);
  os_FailNth(os_Op::Fseek, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_fWrite("xy", 1, 2, s_); }), Os(EIO));
  os_ClearFaults();
  EXPECT_EQ(sfl_fWrite("xy", 1, 2, s_), 2u);
}

TEST_F(StreamFaults, AReadAfterAWriteFlushesFirstAndRaisesWhenItCannot) {
  ASSERT_EQ(sfl_fWrite("ab", 1, 2, s_), 2u);
  char buf[4];
  os_FailNth(os_Op::Fflush, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_fRead(buf, 1, 4, s_); }), Os(EIO));
  os_ClearFaults();
  ASSERT_EQ(sfl_fWrite("cd", 1, 2, s_), 2u);
  char line[64];
  os_FailNth(os_Op::Fflush, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_fgets(line, sizeof line, s_); }), Os(EIO));
}

TEST_F(StreamFaults, ALineReadRaisesWhenThePositionCannotBeAsked) {
  char line[64];
  os_FailNth(os_Op::Ftell, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_fgets(line, sizeof line, s_); }), Os(EIO));
  // The position after the read.
  os_FailNth(os_Op::Ftell, 2, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_fgets(line, sizeof line, s_); }), Os(EIO));
  os_ClearFaults();
  EXPECT_EQ(sfl_fSeek(s_, 0, SEEK_SET), 0);
  ASSERT_NE(sfl_fgets(line, sizeof line, s_), nullptr);
  EXPECT_STREQ(line, "first line\n");
}

TEST_F(StreamFaults, AnUnknownWhenceIsTheStreamsToRefuse) {
  EXPECT_NE(sfl_fSeek(s_, 0, 7), 0);
  EXPECT_EQ(sfl_fTell(s_), 0);
}

TEST_F(StreamFaults, ACloseWhoseFlushOrCloseFailsStillGivesEverythingBack) {
  const int streams = sfl_Streams().InUseCount();
  const int items = sfl_OpenItems().InUseCount();
  ASSERT_EQ(sfl_fWrite("ab", 1, 2, s_), 2u);
  os_FailNth(os_Op::Fflush, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_fClose(s_); }), Os(EIO));
  os_ClearFaults();
  s_ = -1;
  EXPECT_EQ(sfl_Streams().InUseCount(), streams - 1);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items - 1);

  s_ = sfl_fOpenItem(&ref_, "r");
  os_FailNth(os_Op::Fclose, 1, EIO);
  EXPECT_EQ(sfltest::EscapeCodeOf([&] { sfl_fClose(s_); }), Os(EIO));
  os_ClearFaults();
  s_ = -1;
  EXPECT_EQ(sfl_Streams().InUseCount(), streams - 1);
  EXPECT_EQ(sfl_OpenItems().InUseCount(), items - 1);
}

// The close of the last stream over a container also closes the item and the
// file the stream opened implicitly, so it makes every kind of call the
// close path has: flush, item close, sync, interest withdrawal, cold store.
TEST(StreamCloseFaults, EveryFailingCallOfACloseStillGivesEverythingBack) {
  sfl_SetAllAsync(0);
  sfl_ItemRef ref{};
  {
    auto c = sfltest::NewContainer();
    const int32_t h = sfl_StoreBasicItem(c.bh, nullptr, 256, &ref, 0);
    sfl_CloseItem(h);
    sfl_CloseFile(c.bh);
  }
  sfltest::CloseColdFiles();
  sfl_ItemRef file = ref;
  file.Flags = static_cast<uint16_t>(file.Flags & ~SFL_ITEM_NUM_MASK);
  const int descriptors = sfltest::OpenDescriptors();

  auto openAndWrite = [&] {
    const int32_t s = sfl_fOpenItem(&ref, "rw");
    EXPECT_EQ(sfl_fWrite("written", 1, 7, s), 7u);
    return s;
  };
  // Calls of a close without a fault.
  int32_t s = openAndWrite();
  const uint64_t before = os_TotalCalls();
  sfl_fClose(s);
  const uint64_t calls = os_TotalCalls() - before;
  ASSERT_GT(calls, 3u);
  sfltest::CloseColdFiles();

  uint64_t met = 0;
  for (uint64_t n = 1; n <= calls + 1; ++n) {
    SCOPED_TRACE("failing call " + std::to_string(n) + " of the close");
    s = openAndWrite();
    os_FailNthCall(n, EIO);
    const long code = sfltest::EscapeCodeOf([&] { sfl_fClose(s); });
    const bool hit = os_FaultMet();
    os_ClearFaults();
    if (hit) ++met;
    if (!hit) {
      EXPECT_EQ(code, 0);
    }
    EXPECT_EQ(sfl_Streams().InUseCount(), 0);
    // Nothing is left open but what the cold store keeps.
    const sfl_FilesTable& files = sfl_OpenFiles();
    for (size_t i = 0; i < files.HighWater(); ++i) {
      const sfl_BaseRec* r = files.At(i);
      EXPECT_FALSE(r != nullptr && r->InUse == 1 && r->InColdStore == 0) << "file record " << i;
    }
    EXPECT_EQ(sfltest::InterestHolders(file), 0u);
    // A file in the cold store keeps its free-map item open.
    sfltest::CloseColdFiles();
    EXPECT_EQ(sfl_OpenItems().InUseCount(), 0) << sfltest::OpenItemsText();
    EXPECT_EQ(sfltest::OpenDescriptors(), descriptors);
    if (HasFailure()) break;
  }
  EXPECT_GE(met, calls);
}

}  // namespace
