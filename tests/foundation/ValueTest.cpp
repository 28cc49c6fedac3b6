#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "foundation/Value.h"

namespace vpnctl {
namespace {

using Type = Value::Type;
constexpr std::int64_t kMin64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax64 = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMaxUnsigned64 = std::numeric_limits<std::uint64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

static_assert(!std::constructible_from<Value, int *>, "a pointer must not become a boolean");

TEST(ValueTest, TypesFollowTheConstructors) {
  EXPECT_EQ(Value().type(), Type::null);
  EXPECT_EQ(Value(true).type(), Type::boolean);
  EXPECT_EQ(Value(1).type(), Type::signedInteger);
  EXPECT_EQ(Value(1L).type(), Type::signedInteger);
  EXPECT_EQ(Value(1U).type(), Type::unsignedInteger);
  EXPECT_EQ(Value(1.0).type(), Type::real);
  EXPECT_EQ(Value("text").type(), Type::string);
  EXPECT_EQ(Value(std::string("text")).type(), Type::string);
  EXPECT_EQ(Value(Value::Data{1}).type(), Type::data);
  EXPECT_EQ(Value(Value::Date{1}).type(), Type::date);
  EXPECT_EQ(Value(Value::Array{}).type(), Type::array);
  EXPECT_EQ(Value(Value::Dictionary{}).type(), Type::dictionary);
  EXPECT_TRUE(Value(true).isNumber() && Value(1).isNumber() && Value(1U).isNumber() && Value(1.0).isNumber());
  EXPECT_FALSE(Value().isNumber() || Value("1").isNumber() || Value(Value::Date{}).isNumber());
}

TEST(ValueTest, ViewsOfAnotherTypeAreEmpty) {
  const Value number(1);
  EXPECT_EQ(number.string(), "");
  EXPECT_TRUE(number.data().empty());
  EXPECT_TRUE(number.array().empty());
  EXPECT_TRUE(number.dictionary().empty());
  EXPECT_EQ(number.date(), Value::Date());
  EXPECT_EQ(number.find("a"), nullptr);
  EXPECT_TRUE(number["a"].isNull());
}

TEST(ValueTest, NumbersCompareByValue) {
  EXPECT_EQ(Value(true), Value(1));
  EXPECT_EQ(Value(1), Value(1U));
  EXPECT_EQ(Value(1U), Value(1.0));
  EXPECT_EQ(Value(1.0), Value(true));
  EXPECT_EQ(Value(0.0), Value(-0.0));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(-1), Value(kMaxUnsigned64));
  EXPECT_NE(Value(kMin64), Value(std::uint64_t{1} << 63));
  EXPECT_EQ(Value(kMin64), Value(-9223372036854775808.0));
  EXPECT_EQ(Value(std::uint64_t{1} << 63), Value(9223372036854775808.0));
  EXPECT_EQ(Value(std::nan("")), Value(std::nan("")));
}

TEST(ValueTest, OneAndTrueAreEqualAndStayWhatTheyAre) {
  Value array(Value::Array{1, true});
  array.append(1);
  array.append(true);
  Value dictionary;
  dictionary.set("k", 1);
  dictionary.set("k", true);
  EXPECT_EQ(dictionary["k"].type(), Type::boolean);
  dictionary.set("k", 1);
  EXPECT_EQ(dictionary["k"].type(), Type::signedInteger);
  std::vector<Type> types;
  for (const Value &element : array.array()) types.push_back(element.type());
  EXPECT_EQ(types, (std::vector<Type>{Type::signedInteger, Type::boolean, Type::signedInteger, Type::boolean}));
  EXPECT_EQ(Value(Value::Array{1}), Value(Value::Array{true}));
}

TEST(ValueTest, AnIntegerThatADoubleCannotHoldEqualsNone) {
  EXPECT_NE(Value(kMax64), Value(9223372036854775808.0));
  EXPECT_NE(Value(kMaxUnsigned64), Value(18446744073709551616.0));
  EXPECT_NE(Value((std::int64_t{1} << 53) + 1), Value(9007199254740992.0));
  EXPECT_EQ(Value(std::int64_t{1} << 53), Value(9007199254740992.0));
  EXPECT_NE(Value(kMax64), Value(kInfinity));
  EXPECT_NE(Value(0), Value(std::nan("")));
}

TEST(ValueTest, DifferentKindsAreNeverEqual) {
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value(), Value(0));
  EXPECT_NE(Value("a"), Value(Value::Data{'a'}));
  EXPECT_NE(Value(Value::Array{}), Value(Value::Dictionary{}));
  EXPECT_NE(Value(0.0), Value(Value::Date{0}));
  EXPECT_EQ(Value(), Value());
}

TEST(ValueTest, ContainersCompareByTheirElements) {
  const Value first(Value::Dictionary{{"a", Value::Array{1, "x"}}});
  const Value second(Value::Dictionary{{"a", Value::Array{1.0, "x"}}});
  EXPECT_EQ(first, second);
  EXPECT_NE(first, Value(Value::Dictionary{{"a", Value::Array{2, "x"}}}));
  EXPECT_NE(first, Value(Value::Dictionary{{"b", Value::Array{1, "x"}}}));
  EXPECT_EQ(Value::mutableArray({1}), Value(Value::Array{1}));
  EXPECT_EQ(Value(Value::Data{1, 2}), Value(Value::Data{1, 2}));
  EXPECT_NE(Value(Value::Data{1, 2}), Value(Value::Data{1, 3}));
  EXPECT_EQ(Value("x"), Value(std::string("x")));
}

TEST(ValueTest, TextAsBoolean) {
  for (const char *text : {"Y",  "y",   "yes",    "T",     "true", "tomato", " Y", "\t\n\v\f\r t", "1",   "9",     "-1",
                           "+2", "007", "-0001x", " 5abc", "10",   "-Y",     "+t", "0yes",         "00t", " -00Tx"})
    EXPECT_TRUE(Value(text).boolValue()) << text;
  for (const char *text : {"",    " ",   "N",   "no",  "false", "0",   "000", "0x1", "-",  "+",  "--1",
                           "+-1", "--Y", "- 1", "- y", "0 1",   "0-1", "0-Y", "x1",  ".5", "on", "0n"})
    EXPECT_FALSE(Value(text).boolValue()) << text;
}

TEST(ValueTest, OtherThingsAsBoolean) {
  EXPECT_TRUE(Value(true).boolValue() && Value(-1).boolValue() && Value(2U).boolValue() && Value(0.5).boolValue());
  EXPECT_FALSE(Value(false).boolValue() || Value(0).boolValue() || Value(0U).boolValue() || Value(0.0).boolValue());
  EXPECT_FALSE(Value().boolValue() || Value(Value::Array{1}).boolValue() || Value(Value::Data{1}).boolValue());
  EXPECT_FALSE(Value(Value::Date{1}).boolValue() || Value(Value::Dictionary{{"a", 1}}).boolValue());
}

TEST(ValueTest, TextAsInteger) {
  const std::pair<const char *, std::int64_t> rows[] = {{"", 0},
                                                        {" 12abc", 12},
                                                        {"-7", -7},
                                                        {"+7", 7},
                                                        {"0x1", 0},
                                                        {"1.9", 1},
                                                        {"1e3", 1},
                                                        {"--1", 0},
                                                        {"- 1", 0},
                                                        {"abc", 0},
                                                        {"\t\n 3", 3},
                                                        {"9223372036854775807", kMax64},
                                                        {"9223372036854775808", kMax64},
                                                        {"-9223372036854775808", kMin64},
                                                        {"-9223372036854775809", kMin64},
                                                        {"99999999999999999999999", kMax64},
                                                        {"-99999999999999999999999", kMin64}};
  for (const auto &[text, integer] : rows) EXPECT_EQ(Value(text).integerValue(), integer) << text;
}

TEST(ValueTest, NumbersAsInteger) {
  EXPECT_EQ(Value(true).integerValue(), 1);
  EXPECT_EQ(Value(-5).integerValue(), -5);
  EXPECT_EQ(Value(kMaxUnsigned64).integerValue(), -1);
  EXPECT_EQ(Value(1.99).integerValue(), 1);
  EXPECT_EQ(Value(-1.99).integerValue(), -1);
  EXPECT_EQ(Value(1e300).integerValue(), kMax64);
  EXPECT_EQ(Value(-kInfinity).integerValue(), kMin64);
  EXPECT_EQ(Value(9223372036854775808.0).integerValue(), kMax64);
  EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
  EXPECT_EQ(Value().integerValue(), 0);
  EXPECT_EQ(Value(Value::Array{1}).integerValue(), 0);
}

TEST(ValueTest, IntIsCutForIntegersAndSaturatesForTheRest) {
  EXPECT_EQ(Value((std::int64_t{1} << 32) + 5).intValue(), 5);
  EXPECT_EQ(Value(std::int64_t{0x80000000}).intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Value(kMaxUnsigned64).intValue(), -1);
  EXPECT_EQ(Value("4294967296").intValue(), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(Value("-4294967296").intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Value("-12x").intValue(), -12);
  EXPECT_EQ(Value(3e9).intValue(), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(Value(-3e9).intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Value(true).intValue(), 1);
}

TEST(ValueTest, AsUnsignedInteger) {
  EXPECT_EQ(Value(kMaxUnsigned64).unsignedIntegerValue(), kMaxUnsigned64);
  EXPECT_EQ(Value(-1).unsignedIntegerValue(), kMaxUnsigned64);
  EXPECT_EQ(Value(1e300).unsignedIntegerValue(), kMaxUnsigned64);
  EXPECT_EQ(Value(1e19).unsignedIntegerValue(), 10000000000000000000U);
  EXPECT_EQ(Value(-1.5).unsignedIntegerValue(), kMaxUnsigned64);
  EXPECT_EQ(Value("18446744073709551615").unsignedIntegerValue(), kMaxUnsigned64);
  EXPECT_EQ(Value("18446744073709551616").unsignedIntegerValue(), kMaxUnsigned64);
  EXPECT_EQ(Value("-1").unsignedIntegerValue(), kMaxUnsigned64);
  EXPECT_EQ(Value(std::nan("")).unsignedIntegerValue(), 0U);
}

TEST(ValueTest, AsDouble) {
  const std::pair<const char *, double> rows[] = {
      {"1.5", 1.5}, {" -2.5e3xyz", -2500}, {"0x1", 0}, {"abc", 0}, {"", 0}, {".5", .5}, {"1,5", 1}, {"inf", 0},
      {"+7.", 7},   {"1e999", kInfinity}};
  for (const auto &[text, number] : rows) EXPECT_EQ(Value(text).doubleValue(), number) << text;
  EXPECT_EQ(Value(true).doubleValue(), 1);
  EXPECT_EQ(Value(-3).doubleValue(), -3);
  EXPECT_EQ(Value(kMaxUnsigned64).doubleValue(), 18446744073709551616.0);
  EXPECT_EQ(Value(Value::Date{5}).doubleValue(), 0);
}

TEST(ValueTest, ChangingACopyLeavesTheOtherAlone) {
  Value first(Value::Dictionary{{"a", 1}});
  Value second = first;
  second.set("a", 2);
  second.set("b", "x");
  EXPECT_EQ(first, Value(Value::Dictionary{{"a", 1}}));
  EXPECT_EQ(second, Value(Value::Dictionary{{"a", 2}, {"b", "x"}}));
  second.remove("a");
  second.remove("absent");
  EXPECT_EQ(second, Value(Value::Dictionary{{"b", "x"}}));

  Value array(Value::Array{1});
  Value longer = array;
  longer.append(2);
  EXPECT_EQ(array.array().size(), 1U);
  EXPECT_EQ(longer, Value(Value::Array{1, 2}));
}

TEST(ValueTest, SetMakesADictionaryAndAppendAnArray) {
  Value value("text");
  value.set("a", 1);
  EXPECT_EQ(value, Value(Value::Dictionary{{"a", 1}}));
  Value array;
  array.append("x");
  EXPECT_EQ(array, Value(Value::Array{"x"}));
  EXPECT_THROW(value.append(1), std::invalid_argument);
}

TEST(ValueTest, AnElementMayBeSetIntoItsOwnContainer) {
  Value value(Value::Dictionary{{"a", 1}});
  value.set("self", value);
  EXPECT_EQ(value["self"], Value(Value::Dictionary{{"a", 1}}));
}

TEST(ValueTest, AMutableArrayStaysOne) {
  Value array = Value::mutableArray({1});
  EXPECT_TRUE(array.isMutableArray());
  array.append(2);
  EXPECT_TRUE(array.isMutableArray());
  EXPECT_FALSE(Value(Value::Array{1}).isMutableArray());
  EXPECT_FALSE(Value(1).isMutableArray());
}

TEST(ValueTest, AContainerHoldsNoNull) {
  Value dictionary(Value::Dictionary{});
  EXPECT_THROW(dictionary.set("a", Value()), std::invalid_argument);
  EXPECT_EQ(dictionary, Value(Value::Dictionary{}));
  Value array(Value::Array{});
  EXPECT_THROW(array.append(Value()), std::invalid_argument);
  EXPECT_THROW(Value(Value::Array{Value()}), std::invalid_argument);
  EXPECT_THROW(Value(Value::Dictionary{{"a", Value()}}), std::invalid_argument);
  EXPECT_THROW(Value::mutableArray({Value()}), std::invalid_argument);
}

}  // namespace
}  // namespace vpnctl
