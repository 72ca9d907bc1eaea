// Handing a rebuilt file to the service account at its edges: an account
// given empty keeps the owner, numbers too large for a user id are refused
// rather than cut to one, and a refused change of owner is reported.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "mdc.h"
#include "os.h"
#include "test_env.h"
#include "test_util.h"

namespace {

uid_t OwnerOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0);
  return st.st_uid;
}

TEST(OwnerEdges, AnEmptyAccountKeepsTheOwnerAndOversizedNumbersAreRefused) {
  const std::string path = sfltest::WritePlainFile("owned", "x");
  const uid_t owner = OwnerOf(path);
  setenv("SFL_SERVICE_USER", "", 1);
  os_ResetCallCounts();
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), 0);
  EXPECT_EQ(os_CallCount(os_Op::Chown), 0u);
  // uid_t's all-ones value means "leave as it is" to the system, and
  // larger numbers do not fit: neither is taken for an account.
  for (const char* n : {"4294967295", "4294967296", "99999999999999999999999999"}) {
    SCOPED_TRACE(n);
    setenv("SFL_SERVICE_USER", n, 1);
    EXPECT_EQ(ext_ChownToVessant(path.c_str()), -1);
    EXPECT_EQ(os_CallCount(os_Op::Chown), 0u);
    EXPECT_EQ(OwnerOf(path), owner);
  }
  // A change of owner the system refuses is reported.
  setenv("SFL_SERVICE_USER", std::to_string(owner).c_str(), 1);
  os_FailNth(os_Op::Chown, 1, EPERM);
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), -1);
  os_ClearFaults();
  EXPECT_EQ(ext_ChownToVessant(path.c_str()), 0);
  unsetenv("SFL_SERVICE_USER");
}

}  // namespace
