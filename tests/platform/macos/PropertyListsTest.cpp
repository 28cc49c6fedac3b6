#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "platform/macos/PropertyLists.h"
#include "tests/platform/macos/frameworks/Frameworks.h"
#include "tests/platform/macos/frameworks/Objects.h"
#include "tests/platform/macos/frameworks/PropertyLists.h"

namespace platform::macos {
namespace {

using vpnctl::Value;
using Limits = std::numeric_limits<std::int64_t>;

const Value kNested = Value::Dictionary{
    {"array", Value::Array{1, "two", Value::Array{}, Value::Dictionary{{"deep", Value::Array{true, 2.5}}}}},
    {"empty", Value::Dictionary{}},
    {"text \xc3\xa4", "\xf0\x9f\x94\x91"},
};

class ConvertibleValue : public testing::TestWithParam<Value> {};

// Read by the frameworks, and back by us: each way for itself.
TEST_P(ConvertibleValue, IsTheSameThereAndBack) {
  const auto object = propertyListOf(GetParam());
  ASSERT_TRUE(object);
  const Value there = frameworks::valueIn(object.get());
  EXPECT_EQ(there, GetParam());
  EXPECT_EQ(there.type() == Value::Type::boolean, GetParam().type() == Value::Type::boolean);

  const auto theirs = CFObject<CFTypeRef>::owned(frameworks::newPropertyList(GetParam()));
  const Value back = valueOf(theirs.get());
  EXPECT_EQ(back, GetParam());
  EXPECT_EQ(back.type() == Value::Type::boolean, GetParam().type() == Value::Type::boolean);
  EXPECT_EQ(back.type() == Value::Type::real, GetParam().type() == Value::Type::real);
}
INSTANTIATE_TEST_SUITE_P(Kinds, ConvertibleValue,
                         testing::Values(true, false, 0, 1, -1, std::int64_t{Limits::min()},
                                         std::int64_t{Limits::max()}, std::uint64_t{7},
                                         static_cast<std::uint64_t>(Limits::max()), 0.0, -2.5, 1e300, "", "text",
                                         "\xc3\xa4\xe2\x82\xac\xf0\x9f\x94\x91", std::string("a\0b", 3), Value::Data{},
                                         Value::Data{0, 255}, Value::Date{0}, Value::Date{-12345.5}, Value::Array{},
                                         Value::Dictionary{}, kNested));

class InconvertibleValue : public testing::TestWithParam<Value> {};

// Nor does a part of it stay behind.
TEST_P(InconvertibleValue, IsNothingAlsoInsideOfAnother) {
  EXPECT_FALSE(propertyListOf(GetParam()));
  EXPECT_FALSE(dictionaryOf(GetParam()));
  if (GetParam().isNull()) return;
  EXPECT_FALSE(propertyListOf(Value::Array{1, "text", GetParam()}));
  const Value outer = Value::Dictionary{{"a", 1}, {"b", Value::Array{GetParam()}}, {"c", "text"}};
  EXPECT_FALSE(propertyListOf(outer));
  EXPECT_FALSE(dictionaryOf(outer));
}
INSTANTIATE_TEST_SUITE_P(Kinds, InconvertibleValue,
                         testing::Values(Value(), "\xff", static_cast<std::uint64_t>(Limits::max()) + 1,
                                         Value::Dictionary{{"\xc3", 1}}));

TEST(DictionaryOf, TakesNothingElse) {
  for (const Value &value : {Value("text"), Value(1), Value(Value::Array{})}) EXPECT_FALSE(dictionaryOf(value));
  const auto dictionary = dictionaryOf(kNested);
  EXPECT_EQ(frameworks::valueIn(dictionary.get()), kNested);
}

TEST(StringOf, IsNothingForWhatIsNotUTF8) {
  EXPECT_FALSE(stringOf("\xed\xa0\x80"));
  EXPECT_EQ(frameworks::textIn(stringOf("\xc3\xa4").get()), "\xc3\xa4");
}

TEST(TextOf, PutsAQuestionMarkForHalfACharacter) {
  const auto half = CFObject<CFStringRef>::owned(frameworks::newHalfCharacter());
  EXPECT_EQ(textOf(half.get()), "a?b");
  EXPECT_EQ(textOf(nullptr), std::nullopt);
}

TEST(ValueOf, ReadsAnIntegerPastTheRangeAsAReal) {
  const auto number = CFObject<CFNumberRef>::owned(frameworks::newNumberPastTheRange());
  EXPECT_EQ(valueOf(number.get()), Value(9223372036854775808.0));
}

TEST(ValueOf, LeavesOutWhatNoPropertyListHolds) {
  const auto other = CFObject<CFTypeRef>::owned(frameworks::newObjectOfNoPropertyList());
  EXPECT_TRUE(valueOf(other.get()).isNull());
  EXPECT_TRUE(valueOf(nullptr).isNull());

  const auto name = stringOf("name");
  const auto array = CFObject<CFMutableArrayRef>::owned(::CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
  ::CFArrayAppendValue(array.get(), other.get());
  ::CFArrayAppendValue(array.get(), name.get());
  EXPECT_EQ(valueOf(array.get()), Value(Value::Array{"name"}));

  const auto dictionary = CFObject<CFMutableDictionaryRef>::owned(
      ::CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  const auto second = stringOf("second");
  ::CFDictionarySetValue(dictionary.get(), name.get(), other.get());
  ::CFDictionarySetValue(dictionary.get(), second.get(), array.get());
  EXPECT_EQ(valueOf(dictionary.get()), Value(Value::Dictionary{{"second", Value::Array{"name"}}}));
}

TEST(CFObject, GivesItsCountBackOnce) {
  const CFStringRef string = frameworks::newString("text");
  {
    auto first = CFObject<CFStringRef>::owned(string);
    auto second = std::move(first);
    EXPECT_FALSE(first);  // NOLINT: that is what is asked
    const auto third = CFObject<CFStringRef>::retained(second.get());
    second = {};
    EXPECT_EQ(frameworks::textIn(third.get()), "text");
  }
  EXPECT_TRUE(frameworks::unbalanced(false).empty());
  EXPECT_FALSE(CFObject<CFStringRef>::retained(nullptr));
  EXPECT_FALSE(CFObject<CFStringRef>::owned(nullptr));
}

}  // namespace
}  // namespace platform::macos
