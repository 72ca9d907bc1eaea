// Low-level helpers: time, close, status, sleep, and the deletion service's
// status and overwrite.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "mdc.h"
#include "os.h"
#include "test_env.h"

namespace {

TEST(Mdc, TimeIsSecondsSince1970) {
  const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
  const uint32_t now = mdc_time();
  const uint32_t after = static_cast<uint32_t>(std::time(nullptr));
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST(Mdc, CloseAndStatus) {
  const std::string path = sfltest::StoreRoot() + "/mdc";
  int fd = os_open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  ASSERT_EQ(os_pwrite(fd, "abc", 3, 0), 3);
  struct stat st;
  ASSERT_EQ(mdc_fstat(fd, &st), 0);
  EXPECT_EQ(st.st_size, 3);
  EXPECT_EQ(st.st_nlink, 1u);
  EXPECT_EQ(mdc_close(fd), 0);
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

TEST(Mdc, SleepGoesThroughTheOsLayer) {
  os_ResetCallCounts();
  mdc_MicroSleep(0);
  mdc_MicroSleep(1);
  EXPECT_EQ(os_CallCount(os_Op::Sleep), 2u);
}

TEST(Mdc, DeletionStatusFromConfiguration) {
  unsetenv("SFL_SECURE_DELETE");
  EXPECT_EQ(mdc_DDSGetDelStatus(), 0);
  setenv("SFL_SECURE_DELETE", "0", 1);
  EXPECT_EQ(mdc_DDSGetDelStatus(), 0);
  setenv("SFL_SECURE_DELETE", "1", 1);
  EXPECT_EQ(mdc_DDSGetDelStatus(), 1);
  setenv("SFL_SECURE_DELETE", "yes", 1);
  EXPECT_EQ(mdc_DDSGetDelStatus(), 1);
  unsetenv("SFL_SECURE_DELETE");
}

TEST(Mdc, DeletionOverwritesExactlyTheRange) {
  const std::string path = sfltest::StoreRoot() + "/dds";
  int fd = os_open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  std::vector<uint8_t> ones(20000, 0xFF);
  ASSERT_EQ(os_pwrite(fd, ones.data(), ones.size(), 0), 20000);
  EXPECT_EQ(mdc_DDSDelFileByDes(fd, 100, 10000), 0);
  std::vector<uint8_t> back(20000);
  ASSERT_EQ(os_pread(fd, back.data(), back.size(), 0), 20000);
  for (size_t i = 0; i < back.size(); ++i) {
    const uint8_t want = (i >= 100 && i < 10100) ? 0x00 : 0xFF;
    ASSERT_EQ(back[i], want) << "byte " << i;
  }
  os_FailNth(os_Op::Pwrite, 2, EIO);  // the second chunk fails
  EXPECT_EQ(mdc_DDSDelFileByDes(fd, 0, 20000), -1);
  os_ClearFaults();
  EXPECT_EQ(mdc_DDSDelFileByDes(fd, 0, 0), 0);
  os_close(fd);
}

}  // namespace
