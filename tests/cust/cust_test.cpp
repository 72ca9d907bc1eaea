// Configuration lookup: the environment first, then the SFL_CONFIG file;
// absent keys give null.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "cust.h"
#include "test_env.h"

namespace {

class CustTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = sfltest::TestDir() + "/sfl.conf";
    std::ofstream out(path_);
    out << "# comment line\n"
           "\n"
           "SFL_TEST_FILE_ONLY = from file \n"
           "SFL_TEST_BOTH=file value\n"
           "no equals sign here\n"
           "SFL_TEST_EMPTY=\n"
           "SFL_TEST_LAST=tail";  // no final newline
    out.close();
    setenv("SFL_CONFIG", path_.c_str(), 1);
    unsetenv("SFL_TEST_BOTH");
    cust_Reload();
  }
  void TearDown() override {
    unsetenv("SFL_CONFIG");
    unsetenv("SFL_TEST_BOTH");
    cust_Reload();
  }
  std::string path_;
};

// A bounded number: within the bounds (both included) as given, anything
// else the fallback.
TEST_F(CustTest, BoundedNumbersFallBackOutsideTheirBoundsAndOnAnythingElse) {
  const char* key = "SFL_TEST_BOUNDED";
  unsetenv(key);
  EXPECT_EQ(7, cust_GetBoundedLong(key, 7, 1, 10));
  const std::pair<const char*, long> cases[] = {
      {"1", 1}, {"10", 10}, {"5", 5}, {"0", 7}, {"11", 7}, {"-3", 7}, {"", 7}, {"5x", 7},
      {"x5", 7}, {"99999999999999999999999", 7}};
  for (const auto& [text, want] : cases) {
    setenv(key, text, 1);
    EXPECT_EQ(want, cust_GetBoundedLong(key, 7, 1, 10)) << '"' << text << '"';
  }
  setenv(key, "-3", 1);
  EXPECT_EQ(-3, cust_GetBoundedLong(key, 0, -5, 5));
  unsetenv(key);
  // From the file too; an empty value there is the fallback.
  EXPECT_EQ(4, cust_GetBoundedLong("SFL_TEST_EMPTY", 4, 0, 9));
}

TEST_F(CustTest, FileValuesAreTrimmed) {
  const char* v = cust_GetCustomiseInfo("SFL_TEST_FILE_ONLY");
  ASSERT_NE(v, nullptr);
  EXPECT_STREQ(v, "from file");
  ASSERT_NE(cust_GetCustomiseInfo("SFL_TEST_LAST"), nullptr);
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_LAST"), "tail");
}

TEST_F(CustTest, EnvironmentComesFirst) {
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_BOTH"), "file value");
  setenv("SFL_TEST_BOTH", "env value", 1);
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_BOTH"), "env value");
  unsetenv("SFL_TEST_BOTH");
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_BOTH"), "file value");
}

TEST_F(CustTest, PresentButEmptyIsNotAbsent) {
  const char* v = cust_GetCustomiseInfo("SFL_TEST_EMPTY");
  ASSERT_NE(v, nullptr);
  EXPECT_STREQ(v, "");
  setenv("SFL_TEST_ENV_EMPTY", "", 1);
  ASSERT_NE(cust_GetCustomiseInfo("SFL_TEST_ENV_EMPTY"), nullptr);
  unsetenv("SFL_TEST_ENV_EMPTY");
}

TEST_F(CustTest, AbsentKeysGiveNull) {
  EXPECT_EQ(cust_GetCustomiseInfo("SFL_TEST_NOT_THERE"), nullptr);
  EXPECT_EQ(cust_GetCustomiseInfo("no equals sign here"), nullptr);
  EXPECT_EQ(cust_GetCustomiseInfo("# comment line"), nullptr);
  EXPECT_EQ(cust_GetCustomiseInfo(nullptr), nullptr);
}

TEST_F(CustTest, ReturnedEnvironmentValueOutlivesTheVariable) {
  setenv("SFL_TEST_BOTH", "kept", 1);
  const char* v = cust_GetCustomiseInfo("SFL_TEST_BOTH");
  setenv("SFL_TEST_BOTH", "changed later", 1);
  EXPECT_STREQ(v, "kept");
}

TEST_F(CustTest, ReloadRereadsTheFile) {
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_LAST"), "tail");
  std::ofstream(path_) << "SFL_TEST_LAST=new\n";
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_LAST"), "tail");  // read once
  cust_Reload();
  EXPECT_STREQ(cust_GetCustomiseInfo("SFL_TEST_LAST"), "new");
  EXPECT_EQ(cust_GetCustomiseInfo("SFL_TEST_FILE_ONLY"), nullptr);
}

TEST_F(CustTest, NoFileMeansEnvironmentOnly) {
  unsetenv("SFL_CONFIG");
  cust_Reload();
  EXPECT_EQ(cust_GetCustomiseInfo("SFL_TEST_FILE_ONLY"), nullptr);
  setenv("SFL_CONFIG", (path_ + ".missing").c_str(), 1);
  cust_Reload();
  EXPECT_EQ(cust_GetCustomiseInfo("SFL_TEST_FILE_ONLY"), nullptr);
}

}  // namespace
