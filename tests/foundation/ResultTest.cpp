#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "foundation/Result.h"

namespace vpnctl {
namespace {

TEST(ResultTest, AStatusIsSuccessUnlessItHoldsAnError) {
  EXPECT_TRUE(Status());
  const Status failed = Error{.domain = "Domain", .code = 3, .message = "open x: no"};
  EXPECT_FALSE(failed);
  EXPECT_EQ(failed.error(), (Error{.domain = "Domain", .code = 3, .message = "open x: no"}));
}

TEST(ResultTest, AResultHoldsAValueOrAnError) {
  Result<std::unique_ptr<int>> good = std::make_unique<int>(5);
  ASSERT_TRUE(good);
  EXPECT_EQ(**good, 5);
  const Result<std::string> bad = Error{.domain = "Domain", .code = 1, .message = "m"};
  ASSERT_FALSE(bad);
  EXPECT_EQ(bad.error().code, 1);
  EXPECT_THROW(bad.value(), std::bad_variant_access);
}

TEST(ResultTest, ErrnoErrorsAreOperationObjectReason) {
  EXPECT_EQ(errnoError(ENOENT, "open /x"),
            (Error{.domain = "POSIX", .code = ENOENT, .message = "open /x: No such file or directory"}));
  EXPECT_EQ(errnoError(99999, "read").message, "read: Unknown error 99999");
}

}  // namespace
}  // namespace vpnctl
