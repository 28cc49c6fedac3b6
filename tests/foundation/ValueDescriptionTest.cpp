#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/Value.h"

namespace vpnctl {
namespace {

TEST(ValueDescriptionTest, Scalars) {
  const std::pair<Value, std::string> rows[] = {{Value(), "(null)"},
                                                {true, "1"},
                                                {false, "0"},
                                                {-5, "-5"},
                                                {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
                                                {1.0, "1"},
                                                {0.1, "0.1"},
                                                {1.0 / 3, "0.3333333333333333"},
                                                {1e20, "1e+20"},
                                                {-2.5, "-2.5"},
                                                {std::nan(""), "nan"},
                                                {-std::numeric_limits<double>::infinity(), "-inf"},
                                                {"", ""},
                                                {"as it \"is\"\n", "as it \"is\"\n"},
                                                {Value::Date{816949230.5}, "2026-11-21 10:20:30 +0000"},
                                                {Value::Date{1e300}, "1e+300"}};
  for (const auto &[value, text] : rows) EXPECT_EQ(value.description(), text);
}

TEST(ValueDescriptionTest, DataShowsItsLengthAndBytes) {
  EXPECT_EQ(Value(Value::Data{}).description(), "{length = 0, bytes = 0x}");
  EXPECT_EQ(Value(Value::Data{0x01, 0xab, 0x00}).description(), "{length = 3, bytes = 0x01ab00}");
  Value::Data data;
  for (int i = 0; i < 25; ++i) data.push_back(static_cast<std::uint8_t>(i));
  EXPECT_EQ(Value(data).description(),
            "{length = 25, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f ... 11121314 15161718 }");
}

TEST(ValueDescriptionTest, EmptyContainers) {
  EXPECT_EQ(Value(Value::Array{}).description(), "(\n)");
  EXPECT_EQ(Value(Value::Dictionary{}).description(), "{\n}");
}

TEST(ValueDescriptionTest, OneElementPerLine) {
  EXPECT_EQ(Value(Value::Array{"a", 2, true}).description(), "(\n    a,\n    2,\n    1\n)");
  EXPECT_EQ(Value(Value::Dictionary{{"b", 2}, {"a", "x"}, {"C", "y"}}).description(),
            "{\n    C = y;\n    a = x;\n    b = 2;\n}");
}

TEST(ValueDescriptionTest, EachLevelIsIndentedByFour) {
  const Value nested(Value::Dictionary{{"list", Value::Array{"a", Value::Array{}, Value::Dictionary{{"k", 1}}}}});
  EXPECT_EQ(nested.description(),
            "{\n"
            "    list = (\n"
            "        a,\n"
            "        (\n"
            "        ),\n"
            "        {\n"
            "            k = 1;\n"
            "        }\n"
            "    );\n"
            "}");
}

TEST(ValueDescriptionTest, InsideAContainerOnlyLettersAndDigitsAreBare) {
  const std::pair<Value, std::string> rows[] = {{"abcXYZ019", "abcXYZ019"},
                                                {"", "\"\""},
                                                {"two words", "\"two words\""},
                                                {"a-b", "\"a-b\""},
                                                {"a_b", "\"a_b\""},
                                                {"say \"x\" \\", "\"say \\\"x\\\" \\\\\""},
                                                {"line\nfeed\ttab\r", "\"line\\nfeed\\ttab\\r\""},
                                                {"\x01", "\"\\U0001\""},
                                                {"caf\xc3\xa9", "\"caf\\U00e9\""},
                                                {"\xe2\x82\xac", "\"\\U20ac\""},
                                                {"\xf0\x9f\x98\x80", "\"\\Ud83d\\Ude00\""},
                                                {"\xff", "\"\\Ufffd\""},
                                                {42, "42"},
                                                {-1, "\"-1\""},
                                                {1.5, "\"1.5\""},
                                                {Value::Data{1}, "\"{length = 1, bytes = 0x01}\""},
                                                {Value::Date{0}, "\"2001-01-01 00:00:00 +0000\""}};
  for (const auto &[value, text] : rows) {
    EXPECT_EQ(Value(Value::Array{value}).description(), "(\n    " + text + "\n)");
    EXPECT_EQ(Value(Value::Dictionary{{"k", value}}).description(), "{\n    k = " + text + ";\n}");
  }
  EXPECT_EQ(Value(Value::Dictionary{{"a key", 1}}).description(), "{\n    \"a key\" = 1;\n}");
}

}  // namespace
}  // namespace vpnctl
