// Whole-file compaction at its edges: a file too short to hold a header is
// refused and left as it was, and the directory is flushed after the rename
// unless the file or the process's settings say it never flushes (the new
// file itself is flushed whatever they say), and the new file is a plain
// container whatever the old one's flags were.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "os.h"
#include "sfl.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

// A closed container of `flags` holding one simple item of 100 bytes.
sfl_ItemRef ContainerWithAnItem(int32_t flags = 0) {
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, flags);
  sfl_ItemRef file{}, item{};
  sfl_GetSerFileItem(bh, &file);
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, 100, &item, 0);
  const std::vector<uint8_t> data = sfltest::PseudoRandomBytes(100, 4, 5);
  EXPECT_EQ(sfl_WriteSimpleData(h, 0, 100, data.data()), 100);
  sfl_CloseItem(h);
  sfl_CloseFile(bh);
  return file;
}

TEST(FileCompactionEdges, AFileNoLongerThanAHeaderIsRefusedAndLeftAsItWas) {
  const sfl_ItemRef ref = ContainerWithAnItem();
  const std::string path = sfltest::ItemPath(ref);
  for (off_t length : {off_t{0}, off_t{100}, off_t{SFL_FILE_HEADER_SIZE}}) {
    SCOPED_TRACE(length);
    ASSERT_EQ(::truncate(path.c_str(), length), 0);
    const std::vector<uint8_t> before = sfltest::FileBytes(path);
    sfltest::LogCapture log;
    os_ResetCallCounts();
    EXPECT_EQ(sfl_CompactContainer(&ref), SFL_COMPACT_FAILED);
    EXPECT_TRUE(log.SawReason(SFL_R_BAD_FILE));
    EXPECT_EQ(sfltest::FileBytes(path), before);
    EXPECT_FALSE(std::filesystem::exists(path + "#.new"));
    EXPECT_EQ(os_CallCount(os_Op::Rename), 0u);
  }
}

// Flushes made by one rebuild of `ref`, which must succeed.
uint64_t FlushesOfARebuild(const sfl_ItemRef& ref) {
  os_ResetCallCounts();
  EXPECT_EQ(sfl_CompactContainer(&ref), SFL_COMPACT_DONE);
  return os_CallCount(os_Op::Fsync);
}

TEST(FileCompactionEdges, TheDirectoryIsFlushedUnlessTheProcessIsToldNeverToFlush) {
  const sfl_ItemRef ref = ContainerWithAnItem();
  unsetenv("SFL_ALL_ASYNC_IO");
  unsetenv("SFL_ALL_SYNC_IO");
  EXPECT_EQ(FlushesOfARebuild(ref), 2u);  // the new file, then the directory
  // The key alone: the process never flushes, so only the new file is.
  setenv("SFL_ALL_ASYNC_IO", "1", 1);
  EXPECT_EQ(FlushesOfARebuild(ref), 1u);
  // Both keys: the synchronous one wins, and the directory is flushed again.
  setenv("SFL_ALL_SYNC_IO", "1", 1);
  EXPECT_EQ(FlushesOfARebuild(ref), 2u);
  unsetenv("SFL_ALL_ASYNC_IO");
  unsetenv("SFL_ALL_SYNC_IO");
  // The item survived every rebuild.
  const int32_t bh = sfl_OpenSfl(&ref, 0);
  EXPECT_EQ(sfltest::SlotOf(bh, 1).FileSize, 100u);
  sfl_CloseFile(bh);
}

TEST(FileCompactionEdges, AnAsynchronousFileHasItsNewCopyFlushedButNotItsDirectory) {
  const sfl_ItemRef ref = ContainerWithAnItem(ASYNCHRONOUS);
  EXPECT_EQ(FlushesOfARebuild(ref), 1u);
  // The new file is made as a plain container: the old header's flags are
  // not carried over, so the next rebuild flushes the directory too.
  const int32_t bh = sfl_OpenSfl(&ref, 0);
  EXPECT_EQ(sfltest::FileHeaderOf(bh).Flags & ASYNCHRONOUS, 0u);
  EXPECT_EQ(sfltest::SlotOf(bh, 1).FileSize, 100u);
  sfl_CloseFile(bh);
  EXPECT_EQ(FlushesOfARebuild(ref), 2u);
}

}  // namespace
