#include <gtest/gtest.h>

#include <initializer_list>

#include "cli/Suggestion.h"

namespace {

std::string_view meant(std::string_view typed, std::initializer_list<std::string_view> names) {
  GB::Suggestion suggestion(typed);
  for (const std::string_view name : names) suggestion.offer(name);
  return suggestion.name();
}

TEST(Suggestion, IsTheNameThatDiffersLeast) {
  EXPECT_EQ(meant("pasword", {"protocol", "password", "ip"}), "password");
  EXPECT_EQ(meant("usrename", {"username", "user"}), "username");
  EXPECT_EQ(meant("prot", {"port", "protocol"}), "port");
  EXPECT_EQ(meant("shared", {"ip", "shared_secret"}), "shared_secret");
}

TEST(Suggestion, IsNothingWhereNothingIsAlike) {
  EXPECT_EQ(meant("colour", {"protocol", "password", "ip"}), "");
  EXPECT_EQ(meant("x", {"y"}), "") << "every letter of it is another";
  EXPECT_EQ(meant("password", {}), "");
  const std::string lengthy(65, 'a');
  EXPECT_EQ(meant(lengthy, {std::string_view(lengthy).substr(1)}), "");
}

TEST(Suggestion, IsASentence) {
  GB::Suggestion suggestion("verbos");
  EXPECT_EQ(suggestion.sentence("--"), "");
  suggestion.offer("verbose");
  EXPECT_EQ(suggestion.sentence("--"), "; did you mean --verbose?");
}

}  // namespace
