// Reading up to a length: only the end of the file ends a read early. A
// transfer that moves nothing before it is a failure, never the end.
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "os.h"
#include "sfl_int.h"
#include "test_env.h"

namespace {

class ReadUpTo : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string path = sfltest::TestDir() + "/readupto";
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd_, 0);
    std::vector<uint8_t> data(1000, 0x5A);
    ASSERT_EQ(::pwrite(fd_, data.data(), data.size(), 0), 1000);
  }
  void TearDown() override {
    os_ClearFaults();
    ::close(fd_);
  }
  int fd_ = -1;
};

// Raises and returns the errno the escape carries, or 0 when nothing raised.
int ErrnoOf(int fd, std::vector<uint8_t>* buf, uint64_t offset) {
  try {
    sfl_PReadUpTo(fd, buf->data(), buf->size(), offset);
  } catch (const er_Escape& e) {
    er_Clear();
    return e.group() == ER_GROUP_OS ? e.reason() : -1;
  }
  return 0;
}

TEST_F(ReadUpTo, StopsAtTheEndOfTheFile) {
  std::vector<uint8_t> buf(300, 0);
  EXPECT_EQ(sfl_PReadUpTo(fd_, buf.data(), buf.size(), 900), 100u);
  EXPECT_EQ(buf[99], 0x5A);
  EXPECT_EQ(sfl_PReadUpTo(fd_, buf.data(), buf.size(), 1000), 0u);
}

TEST_F(ReadUpTo, ContinuesATransferThatCameUpShort) {
  std::vector<uint8_t> buf(300, 0);
  os_ShortNth(os_Op::Pread, 1, 10);
  EXPECT_EQ(sfl_PReadUpTo(fd_, buf.data(), buf.size(), 0), 300u);
  EXPECT_EQ(buf[299], 0x5A);
}

TEST_F(ReadUpTo, AnEmptyTransferBeforeTheEndIsAnError) {
  std::vector<uint8_t> buf(300, 0);
  os_ShortNth(os_Op::Pread, 1, 0);
  EXPECT_EQ(ErrnoOf(fd_, &buf, 0), EIO);
  // After a first part, the rest moves nothing.
  os_ShortNth(os_Op::Pread, 1, 50);
  os_ShortNthTransfer(2, 1000000);
  EXPECT_EQ(ErrnoOf(fd_, &buf, 0), EIO);
}

TEST_F(ReadUpTo, AFailedStatusAfterAnEmptyTransferIsRaised) {
  std::vector<uint8_t> buf(300, 0);
  os_ShortNth(os_Op::Pread, 1, 0);
  os_FailNth(os_Op::Fstat, 1, EACCES);
  EXPECT_EQ(ErrnoOf(fd_, &buf, 0), EACCES);
}

}  // namespace
