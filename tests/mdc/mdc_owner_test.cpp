// The hand-over of a newly built file to the service account: nothing to do
// without the key, a user name or a decimal uid, and the failures (unknown
// account, a change of owner refused).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <string>
#include <unistd.h>

#include "mdc.h"
#include "os.h"
#include "test_env.h"

namespace {

TEST(ServiceAccount, AbsentKeyDoesNothing) {
  unsetenv("SFL_SERVICE_USER");
  os_ResetCallCounts();
  EXPECT_EQ(ext_ChownToVessant("/nonexistent/file"), 0);
  EXPECT_EQ(os_CallCount(os_Op::Chown), 0u);
}

TEST(ServiceAccount, GivesTheFileToTheNamedAccount) {
  const std::string path = sfltest::StoreRoot() + "/owned";
  int fd = os_open(path.c_str(), O_RDWR | O_CREAT, 0600);
  os_close(fd);
  struct passwd* me = getpwuid(getuid());
  ASSERT_NE(me, nullptr);
  setenv("SFL_SERVICE_USER", me->pw_name, 1);
  os_ResetCallCounts();
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), 0);
  EXPECT_EQ(os_CallCount(os_Op::Chown), 1u);
  os_FailNth(os_Op::Chown, 1, EPERM);
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), -1);
  setenv("SFL_SERVICE_USER", "no-such-account-anywhere", 1);
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), -1);
  unsetenv("SFL_SERVICE_USER");
}

TEST(ServiceAccount, AcceptsANumericUid) {
  const std::string path = sfltest::StoreRoot() + "/by-uid";
  int fd = os_open(path.c_str(), O_RDWR | O_CREAT, 0600);
  os_close(fd);
  setenv("SFL_SERVICE_USER", std::to_string(getuid()).c_str(), 1);
  os_ResetCallCounts();
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), 0);
  EXPECT_EQ(os_CallCount(os_Op::Chown), 1u);
  setenv("SFL_SERVICE_USER", "12x", 1);  // neither a name that exists nor a number
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), -1);
  unsetenv("SFL_SERVICE_USER");
}

TEST(ServiceAccount, AChangeTheProcessMayNotMakeIsAnError) {
  // An unprivileged process giving its own file to another user.
  const int rc = sfltest::RunInChild([] {
    if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 10;
    char tmpl[] = "/tmp/sfl-chown-XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0) return 11;
    close(fd);
    setenv("SFL_SERVICE_USER", std::to_string(getuid() == 4321 ? 4322 : 4321).c_str(), 1);
    const int result = ext_ChownToVessant(tmpl);
    unlink(tmpl);
    return result == -1 ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
}

}  // namespace
