// Error display: one line on standard error with the escape's group,
// reason, text and the file's path.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "cl.h"
#include "test_env.h"
#include "test_util.h"

namespace {

std::string StderrOf(void (*fn)()) { return sfltest::WrittenTo(2, fn); }

TEST(ClDisplayError, OneLineWithGroupReasonTextAndPath) {
  EXPECT_EQ(StderrOf([] { cl_DisplayError(100, 28862, "/store/2/17/4113"); }),
            "SFL-100-28862: not an SFL file, or wrong format version (file /store/2/17/4113)\n");
  EXPECT_EQ(StderrOf([] { cl_DisplayError(204, 1033, "/x"); }),
            "SFL-204-1033: the free-map item (slot 0) is marked as a blocked item (file /x)\n");
}

TEST(ClDisplayError, NoPathUnknownReasonAndNewlinesInThePath) {
  EXPECT_EQ(cl_ErrorLine(204, 1026, nullptr), "SFL-204-1026: short read of the file header");
  EXPECT_EQ(cl_ErrorLine(204, 1026, ""), "SFL-204-1026: short read of the file header");
  EXPECT_EQ(cl_ErrorLine(7, 5, "/p"), "SFL-7-5: no text for message 7/5 (file /p)");
  EXPECT_EQ(cl_ErrorLine(2, 2, "/a\nb").find('\n'), std::string::npos);
}

}  // namespace
