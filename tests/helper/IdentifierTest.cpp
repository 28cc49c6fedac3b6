#include <gtest/gtest.h>

#include "helper/Identifier.h"

namespace helper {
namespace {

TEST(Identifier, NewOnesAreUpperCaseUUIDsAndDiffer) {
  const std::string first = newIdentifier();
  EXPECT_TRUE(isIdentifier(first)) << first;
  EXPECT_NE(newIdentifier(), first);
}

TEST(Identifier, OnlyTheWholeFormIsOne) {
  const std::string good = "0123ABCD-4567-4EF0-89AB-0123456789AB";
  EXPECT_TRUE(isIdentifier(good));
  EXPECT_FALSE(isIdentifier(""));
  EXPECT_FALSE(isIdentifier(good + "0"));
  EXPECT_FALSE(isIdentifier(good.substr(1)));
  EXPECT_FALSE(isIdentifier("0123abcd-4567-4EF0-89AB-0123456789AB"));
  EXPECT_FALSE(isIdentifier("0123ABCD04567-4EF0-89AB-0123456789AB"));
  EXPECT_FALSE(isIdentifier("../3ABCD-4567-4EF0-89AB-0123456789AB"));
}

}  // namespace
}  // namespace helper
