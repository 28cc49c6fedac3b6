#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "companions/common/JSONLine.h"

using namespace companions;

namespace {

TEST(JSONLine, HasItsMembersInOrder) {
  EXPECT_EQ(JSONLine().line(), "{}\n");
  EXPECT_EQ(JSONLine().add("b", "x").add("a", -5).addIfAny("c", "").addIfAny("d", "y").line(),
            "{\"b\":\"x\",\"a\":-5,\"d\":\"y\"}\n");
}

TEST(JSONLine, EscapesWhatMustBe) {
  EXPECT_EQ(JSONLine().add("a", "\"\\/\n\t\x01\x7f").line(), "{\"a\":\"\\\"\\\\/\\u000a\\u0009\\u0001\\u007f\"}\n");
  EXPECT_EQ(JSONLine().add("a", "\xc3\xa9\xff\xf0\x9f\x98\x80").line(),
            "{\"a\":\"\xc3\xa9\xef\xbf\xbd\xf0\x9f\x98\x80\"}\n");
}

TEST(JSONLine, TimeIsInUTC) {
  EXPECT_TRUE(std::regex_match(timeStamp(), std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z")));
}

}  // namespace
