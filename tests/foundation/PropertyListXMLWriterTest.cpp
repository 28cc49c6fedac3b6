#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/PropertyList.h"

namespace vpnctl {
namespace {

std::string document(const std::string &body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n" +
         body + "</plist>\n";
}

std::string written(const Value &value) {
  const Result<std::string> text = xmlPropertyList(value);
  return text ? *text : "error: " + text.error().message;
}

Value::Data bytes(std::size_t count) { return Value::Data(count, 0); }

Value nested(int levels) {
  Value value = "x";
  for (int i = 0; i < levels; ++i) value = Value::Array{value};
  return value;
}

TEST(PropertyListXMLWriterTest, Scalars) {
  const std::pair<Value, std::string> rows[] = {
      {true, "<true/>"},
      {false, "<false/>"},
      {-5, "<integer>-5</integer>"},
      {std::numeric_limits<std::uint64_t>::max(), "<integer>18446744073709551615</integer>"},
      {1.5, "<real>1.5</real>"},
      {1.0, "<real>1</real>"},
      {0.1, "<real>0.10000000000000001</real>"},
      {std::nan(""), "<real>nan</real>"},
      {std::numeric_limits<double>::infinity(), "<real>+infinity</real>"},
      {-std::numeric_limits<double>::infinity(), "<real>-infinity</real>"},
      {"", "<string></string>"},
      {"a <b> & \"c\" 'd'\n\t\xc3\xa9", "<string>a &lt;b&gt; &amp; \"c\" 'd'\n\t\xc3\xa9</string>"},
      {Value::Date{816949230.7}, "<date>2026-11-21T10:20:30Z</date>"},
      {Value::Array{}, "<array/>"},
      {Value::Dictionary{}, "<dict/>"},
      {Value::Data{1, 2, 3}, "<data>\nAQID\n</data>"},
      {Value::Data{}, "<data>\n</data>"}};
  for (const auto &[value, text] : rows) EXPECT_EQ(written(value), document(text + "\n"));
}

TEST(PropertyListXMLWriterTest, ContainersIndentByOneTabAndSortTheirKeys) {
  const Value value(Value::Dictionary{
      {"b", Value::Array{"x", Value::Dictionary{{"in", true}}, Value::Array{}}}, {"B", 1}, {"a&b", Value::Data{255}}});
  EXPECT_EQ(written(value), document("<dict>\n"
                                     "\t<key>B</key>\n"
                                     "\t<integer>1</integer>\n"
                                     "\t<key>a&amp;b</key>\n"
                                     "\t<data>\n"
                                     "\t/w==\n"
                                     "\t</data>\n"
                                     "\t<key>b</key>\n"
                                     "\t<array>\n"
                                     "\t\t<string>x</string>\n"
                                     "\t\t<dict>\n"
                                     "\t\t\t<key>in</key>\n"
                                     "\t\t\t<true/>\n"
                                     "\t\t</dict>\n"
                                     "\t\t<array/>\n"
                                     "\t</array>\n"
                                     "</dict>\n"));
}

TEST(PropertyListXMLWriterTest, Base64LinesAre76CharactersLessTheIndent) {
  const std::string line76(76, 'A');
  EXPECT_EQ(written(bytes(57)), document("<data>\n" + line76 + "\n</data>\n"));
  EXPECT_EQ(written(bytes(60)), document("<data>\n" + line76 + "\nAAAA\n</data>\n"));
  EXPECT_EQ(written(Value::Array{bytes(54)}),
            document("<array>\n\t<data>\n\t" + std::string(68, 'A') + "\n\tAAAA\n\t</data>\n</array>\n"));
  Value deep = bytes(12);
  for (int i = 0; i < 10; ++i) deep = Value::Array{deep};
  const std::string tabs(8, '\t');
  EXPECT_NE(written(deep).find("\n" + tabs + "AAAAAAAAAAAA\n" + tabs + "AAAA\n" + tabs + "\t\t</data>\n"),
            std::string::npos);
}

TEST(PropertyListXMLWriterTest, RefusesWhatXMLCannotCarry) {
  const std::string start = "error: write property list: ";
  EXPECT_EQ(written(Value()), start + "a null value cannot be written");
  EXPECT_EQ(written("\x01"), start + "text with control characters cannot be written");
  EXPECT_EQ(written("a\rb"), start + "text with control characters cannot be written");
  EXPECT_EQ(written(std::string(1, '\0')), start + "text with control characters cannot be written");
  EXPECT_EQ(written("\xef\xbf\xbf"), start + "text with control characters cannot be written");
  EXPECT_EQ(written("\xff"), start + "text that is not UTF-8 cannot be written");
  EXPECT_EQ(written(Value::Dictionary{{"\xff", 1}}), start + "text that is not UTF-8 cannot be written");
  EXPECT_EQ(written(Value::Date{1e300}), start + "a date outside the years 0 to 9999 cannot be written");
}

TEST(PropertyListXMLWriterTest, WritesNoDeeperThanTheReaderReads) {
  const Result<std::string> deepest = xmlPropertyList(nested(kPropertyListMaximumDepth));
  ASSERT_TRUE(deepest);
  EXPECT_TRUE(propertyListFromData(*deepest, "deepest"));
  EXPECT_EQ(written(nested(kPropertyListMaximumDepth + 1)),
            "error: write property list: a value nested more than 64 levels deep cannot be written");
  Value emptyInside = Value::Array{};
  for (int i = 0; i < kPropertyListMaximumDepth; ++i) emptyInside = Value::Array{emptyInside};
  EXPECT_FALSE(xmlPropertyList(emptyInside));
}

TEST(PropertyListXMLWriterTest, WritesNoMoreThanItMay) {
  const Value value = Value::Array{"a", Value::Dictionary{{"k", bytes(3)}}};
  const std::size_t size = written(value).size();
  EXPECT_EQ(xmlPropertyList(value, size)->size(), size);
  const auto refused = xmlPropertyList(value, size - 1);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().message,
            "write property list: what would have more than " + std::to_string(size - 1) + " bytes cannot be written");
  EXPECT_FALSE(xmlPropertyList(value, 0));
}

// A value that is small in memory: its halves are the same, and so are theirs. Written out it would have 2^40 lines.
TEST(PropertyListXMLWriterTest, StopsWhereSharedValuesUnfoldToTooMuch) {
  Value value = "x";
  for (int i = 0; i < 40; ++i) value = Value::Array{value, value};
  EXPECT_FALSE(xmlPropertyList(value, 10000));
  EXPECT_FALSE(xmlPropertyList(value));
}

TEST(PropertyListXMLWriterTest, WhatIsWrittenIsReadBack) {
  const Value value(Value::Dictionary{
      {"text", "<&>\n\xf0\x9f\x98\x80"},
      {"empty", ""},
      {"integers", Value::Array{0, -1, std::numeric_limits<std::int64_t>::min(),
                                std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::uint64_t>::max()}},
      {"reals", Value::Array{0.1, -1e300, 5e-324, std::nan(""), std::numeric_limits<double>::infinity()}},
      {"flags", Value::Array{true, false}},
      {"data", Value::Data{0, 1, 2, 255}},
      {"date", Value::Date{816949230}},
      {"", Value::Dictionary{{" ", Value::Array{}}}}});
  const Result<std::string> text = xmlPropertyList(value);
  ASSERT_TRUE(text);
  const Result<Value> back = propertyListFromData(*text, "round trip");
  ASSERT_TRUE(back) << back.error().message;
  EXPECT_EQ(*back, value);
  EXPECT_EQ((*back)["flags"].array()[0].type(), Value::Type::boolean);
  EXPECT_EQ((*back)["integers"].array()[3].type(), Value::Type::signedInteger);
  EXPECT_EQ((*back)["integers"].array()[4].type(), Value::Type::unsignedInteger);
  EXPECT_EQ((*back)["reals"].array()[0].type(), Value::Type::real);
}

}  // namespace
}  // namespace vpnctl
