#include <gtest/gtest.h>

#include "foundation/Assertion.h"

namespace vpnctl {
namespace {

TEST(AssertionTest, PrintsOneLineAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(assertionFailed("connection != NULL", "Callback", "File", 26), testing::KilledBySignal(SIGABRT),
              "^Assertion failed: \\(connection != NULL\\), function Callback, file File, line 26\\.\n$");
}

TEST(AssertionTest, TheMacroNamesExpressionAndPlace) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const int one = 1;
  EXPECT_EXIT(FOUNDATION_ASSERT(one == 2), testing::KilledBySignal(SIGABRT),
              "^Assertion failed: \\(one == 2\\), function TestBody, file .*AssertionTest\\.cpp, line [0-9]+\\.\n$");
}

TEST(AssertionTest, ATrueExpressionIsEvaluatedOnce) {
  int evaluations = 0;
  FOUNDATION_ASSERT(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);
}

}  // namespace
}  // namespace vpnctl
