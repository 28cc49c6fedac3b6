#include <gtest/gtest.h>

#include <algorithm>
#include <concepts>
#include <ostream>
#include <string>
#include <utility>

#include "foundation/Secret.h"
#include "foundation/Value.h"

namespace vpnctl {
namespace {

template <class T>
concept Printable = requires(std::ostream &out, const T &value) {
  out << value;
};

static_assert(!Printable<Secret>);
static_assert(!std::convertible_to<Secret, std::string> && !std::convertible_to<Secret, std::string_view>);
static_assert(!std::constructible_from<Value, Secret>);

TEST(SecretTest, HoldsBytesOfAnyValue) {
  const Secret secret(std::string_view("a\0\xff", 3));
  EXPECT_EQ(secret.size(), 3U);
  EXPECT_FALSE(secret.empty());
  EXPECT_EQ(secret.text(), std::string_view("a\0\xff", 3));
  EXPECT_EQ(secret.bytes()[2], 0xff);
}

TEST(SecretTest, AnEmptyOneIsEmptyHoweverMade) {
  EXPECT_TRUE(Secret().empty());
  EXPECT_TRUE(Secret("").empty());
  EXPECT_TRUE(Secret::ofSize(0).empty());
  EXPECT_EQ(Secret().text(), "");
  EXPECT_TRUE(Secret() == Secret(""));
}

TEST(SecretTest, ComparesBytesAndLength) {
  EXPECT_TRUE(Secret("abc") == Secret("abc"));
  EXPECT_FALSE(Secret("abc") == Secret("abd"));
  EXPECT_FALSE(Secret("abc") == Secret("ab"));
  EXPECT_FALSE(Secret("abc") == Secret());
}

TEST(SecretTest, CopiesAreApart) {
  Secret first("abc");
  Secret copy(first);
  first.mutableBytes()[0] = 'x';
  EXPECT_EQ(copy.text(), "abc");
  copy = first;
  EXPECT_EQ(copy.text(), "xbc");
  const Secret &itself = copy;
  copy = itself;
  EXPECT_EQ(copy.text(), "xbc");
}

TEST(SecretTest, MovingLeavesNothingBehind) {
  Secret first("abc");
  const std::uint8_t *const bytes = first.bytes().data();
  Secret second(std::move(first));
  EXPECT_TRUE(first.empty());
  EXPECT_EQ(second.bytes().data(), bytes);
  Secret third("other");
  third = std::move(second);
  EXPECT_TRUE(second.empty());
  EXPECT_EQ(third.text(), "abc");
  Secret &itself = third;
  third = std::move(itself);
  EXPECT_EQ(third.text(), "abc");
}

TEST(SecretTest, OneOfASizeStartsAsZeros) {
  Secret secret = Secret::ofSize(4);
  EXPECT_TRUE(std::ranges::all_of(secret.bytes(), [](std::uint8_t byte) { return byte == 0; }));
  secret.mutableBytes()[3] = 'z';
  EXPECT_EQ(secret.text(), std::string_view("\0\0\0z", 4));
}

[[gnu::noinline]] const volatile std::uint8_t *leaveOnStack() {
  volatile std::uint8_t left[1000];
  for (volatile std::uint8_t &byte : left) byte = 0x5a;
  const volatile std::uint8_t *const volatile address = left;  // hidden from a compiler that would warn
  return address;
}

// Looks at memory that is nobody's any more.
TEST(SecretTest, WipingTheDeadStackOverwritesWhatCallsLeft) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer forbids the look";
#endif
  const volatile std::uint8_t *const left = leaveOnStack();
  const std::uint8_t before = left[0];
  wipeDeadStack();
  const std::uint8_t after = left[0];
  EXPECT_EQ(before, 0x5a);
  EXPECT_EQ(after, 0);
}

TEST(SecretTest, WipingOverwrites) {
  std::string bytes = "secret";
  wipeMemory(bytes.data(), bytes.size());
  EXPECT_EQ(bytes, std::string(6, '\0'));
  wipeMemory(nullptr, 0);
}

}  // namespace
}  // namespace vpnctl
