#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "companions/common/JSONLine.h"

using namespace companions;

namespace {

TEST(JSONLine, HasItsMembersInOrder) {
  EXPECT_EQ(JSONLine().line(), "{}\n");
  EXPECT_EQ(JSONLine().add("b", "x").add("a", -5).addIfAny("c", "").addIfAny("d", "y").line(),
            "{\"b\":\"x\",\"a\":-5,\"d\":\"y\"}\n");
}

TEST(JSONLine, HasListsAndTruthValues) {
  EXPECT_EQ(JSONLine().add("a", std::vector<std::string>{}).addTruth("b", true).addTruth("c", false).line(),
            "{\"a\":[],\"b\":true,\"c\":false}\n");
  EXPECT_EQ(JSONLine().add("a", std::vector<std::string>{"x\"", "y"}).line(), "{\"a\":[\"x\\\"\",\"y\"]}\n");
}

TEST(JSONLine, EscapesWhatMustBe) {
  EXPECT_EQ(JSONLine().add("a", "\"\\/\n\t\x01\x7f").line(), "{\"a\":\"\\\"\\\\/\\u000a\\u0009\\u0001\\u007f\"}\n");
  EXPECT_EQ(JSONLine().add("a", "\xc3\xa9\xff\xf0\x9f\x98\x80").line(),
            "{\"a\":\"\xc3\xa9\xef\xbf\xbd\xf0\x9f\x98\x80\"}\n");
}

TEST(JSONLine, TimeIsInUTC) {
  EXPECT_TRUE(std::regex_match(timeStamp(), std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z")));
  using std::chrono::milliseconds;
  using std::chrono::system_clock;
  EXPECT_EQ(timeStamp(system_clock::time_point(milliseconds(1700000000012))), "2023-11-14T22:13:20.012Z");
  EXPECT_EQ(timeStamp(system_clock::time_point(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
}

}  // namespace
