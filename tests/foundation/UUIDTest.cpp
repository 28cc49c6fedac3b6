#include <gtest/gtest.h>

#include "foundation/UUID.h"

namespace vpnctl {
namespace {

TEST(UUIDTest, NewOnesAreUpperCaseUUIDsAndDiffer) {
  const std::string first = newUUID();
  EXPECT_TRUE(isUUID(first)) << first;
  EXPECT_NE(newUUID(), first);
}

TEST(UUIDTest, OnlyTheWholeFormIsOne) {
  const std::string good = "0123ABCD-4567-4EF0-89AB-0123456789AB";
  EXPECT_TRUE(isUUID(good));
  EXPECT_FALSE(isUUID(""));
  EXPECT_FALSE(isUUID(good + "0"));
  EXPECT_FALSE(isUUID(good.substr(1)));
  EXPECT_FALSE(isUUID("0123abcd-4567-4EF0-89AB-0123456789AB"));
  EXPECT_FALSE(isUUID("0123ABCD04567-4EF0-89AB-0123456789AB"));
  EXPECT_FALSE(isUUID("../3ABCD-4567-4EF0-89AB-0123456789AB"));
}

}  // namespace
}  // namespace vpnctl
