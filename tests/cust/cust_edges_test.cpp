// Configuration lookup at its edges: SFL_CONFIG given empty, or naming a
// file that cannot be opened, reads no file, and a file read earlier is
// forgotten at the next reload.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "cust.h"
#include "test_env.h"
#include "test_util.h"

namespace {

TEST(CustEdges, AnEmptyOrUnreadableConfigurationNameReadsNoFile) {
  const std::string path = sfltest::WritePlainFile("edges.conf", "SFL_TEST_EDGE_KEY=from file\n");
  unsetenv("SFL_TEST_EDGE_KEY");
  setenv("SFL_CONFIG", path.c_str(), 1);
  cust_Reload();
  ASSERT_NE(cust_GetCustomiseInfo("SFL_TEST_EDGE_KEY"), nullptr);
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_EDGE_KEY"), "from file");

  for (const std::string& name : {std::string(), path + ".missing", sfltest::TestDir()}) {
    SCOPED_TRACE(name);
    setenv("SFL_CONFIG", name.c_str(), 1);
    cust_Reload();
    EXPECT_EQ(cust_GetCustomiseInfo("SFL_TEST_EDGE_KEY"), nullptr);
  }
  // The environment still answers.
  setenv("SFL_TEST_EDGE_KEY", "from env", 1);
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_EDGE_KEY"), "from env");
  unsetenv("SFL_TEST_EDGE_KEY");
  unsetenv("SFL_CONFIG");
  cust_Reload();
}

}  // namespace
