#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/PropertyList.h"
#include "foundation/PropertyListXMLReader.h"

namespace vpnctl {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// The value of BODY inside <plist>, or the error's message as text in an array nobody else makes.
Result<Value> readDocument(std::string_view text) { return propertyListFromData(text, "x"); }
Result<Value> readBody(const std::string &body) { return readDocument("<plist version=\"1.0\">" + body + "</plist>"); }

std::string errorOf(const Result<Value> &result) {
  return result ? "no error: " + result->description() : result.error().message;
}

std::string arrays(int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += "<array>";
  for (int i = 0; i < levels; ++i) text += "</array>";
  return text;
}

TEST(PropertyListXMLReaderTest, Scalars) {
  const std::pair<std::string, Value> rows[] = {
      {"<true/>", true},
      {"<false></false>", false},
      {"<integer>42</integer>", 42},
      {"<integer>-0</integer>", 0},
      {"<integer> +7\n</integer>", 7},
      {"<integer>007</integer>", 7},
      {"<integer>0x1F</integer>", 31},
      {"<integer>-0Xff</integer>", -255},
      {"<integer>-9223372036854775808</integer>", std::numeric_limits<std::int64_t>::min()},
      {"<integer>18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
      {"<integer>0xffffffffffffffff</integer>", std::numeric_limits<std::uint64_t>::max()},
      {"<real>1.5</real>", 1.5},
      {"<real>-1e-3</real>", -0.001},
      {"<real> 2 </real>", 2.0},
      {"<real>nan</real>", std::nan("")},
      {"<real>NaN</real>", std::nan("")},
      {"<real>inf</real>", kInfinity},
      {"<real>+Infinity</real>", kInfinity},
      {"<real>-infinity</real>", -kInfinity},
      {"<string/>", ""},
      {"<string> a &lt;&amp;&gt; &quot;&apos; \xc3\xa9 &#xe9;&#233; </string>",
       " a <&> \"' \xc3\xa9 \xc3\xa9\xc3\xa9 "},
      {"<string>a<![CDATA[<b>]]>c</string>", "a<b>c"},
      {"<string>a<!-- not text -->b</string>", "ab"},
      {"<string>a\r\nb</string>", "a\nb"},
      {"<data>\n\tAQ\n\tID\n</data>", Value::Data{1, 2, 3}},
      {"<data/>", Value::Data{}},
      {"<date>2026-11-21T10:20:30Z</date>", Value::Date{816949230}},
      {"<array/>", Value::Array{}},
      {"<dict/>", Value::Dictionary{}}};
  for (const auto &[body, value] : rows) {
    const Result<Value> read = readBody(body);
    ASSERT_TRUE(read) << body << ": " << read.error().message;
    EXPECT_EQ(*read, value) << body;
    EXPECT_EQ(read->type(), value.type()) << body;
  }
}

TEST(PropertyListXMLReaderTest, IntegersAreSignedWhereThatIsEnough) {
  EXPECT_EQ(readBody("<integer>9223372036854775807</integer>")->type(), Value::Type::signedInteger);
  EXPECT_EQ(readBody("<integer>9223372036854775808</integer>")->type(), Value::Type::unsignedInteger);
}

TEST(PropertyListXMLReaderTest, Containers) {
  const Result<Value> read = readBody(
      "\n<dict>\n\t<key>a</key>\n\t<array> <integer>1</integer> <dict/> "
      "</array><key></key><string>e</string>\n</dict>\n");
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, Value(Value::Dictionary{{"a", Value::Array{1, Value::Dictionary{}}}, {"", "e"}}));
}

TEST(PropertyListXMLReaderTest, HeadersOfAllKinds) {
  const std::string body = "<plist version='1.0'><string>\xc3\xa9</string></plist>";
  const std::string documents[] = {
      body,
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n" +
          body + "\n",
      "<!DOCTYPE plist SYSTEM \"file://localhost/System/Library/DTDs/PropertyList.dtd\">" + body,
      "\xef\xbb\xbf" + body,
      "<!-- first --><?processing instruction?>" + body + "<!-- last -->\n",
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><string>\xe9</string></plist>"};
  for (const std::string &document : documents) {
    const Result<Value> read = readDocument(document);
    ASSERT_TRUE(read) << document << ": " << read.error().message;
    EXPECT_EQ(read->string(), "\xc3\xa9") << document;
  }
}

TEST(PropertyListXMLReaderTest, UTF16) {
  std::string document = "\xff\xfe";
  for (const char character : std::string_view("<plist><string>hi</string></plist>")) {
    document += character;
    document += '\0';
  }
  const Result<Value> read = readDocument(document);
  ASSERT_TRUE(read) << read.error().message;
  EXPECT_EQ(read->string(), "hi");
}

TEST(PropertyListXMLReaderTest, NestingHasALimit) {
  EXPECT_TRUE(readBody(arrays(kPropertyListMaximumDepth)));
  EXPECT_EQ(errorOf(readBody(arrays(kPropertyListMaximumDepth + 1))), "x: line 1: nested more than 64 levels deep");
  EXPECT_FALSE(readBody(arrays(100000)));
}

TEST(PropertyListXMLReaderTest, MalformedBodies) {
  const std::pair<std::string, std::string> rows[] = {
      {"", "no value"},
      {"<string>a</string><string>b</string>", "more than one value"},
      {"<key>a</key>", "<key> outside a <dict>"},
      {"<array><key>a</key></array>", "<key> inside an <array>"},
      {"<dict><string>a</string></dict>", "<string> where a <key> is expected"},
      {"<dict><dict/></dict>", "<dict> where a <key> is expected"},
      {"<dict><key>a</key></dict>", "the key \"a\" has no value"},
      {"<dict><key>a</key><key>b</key></dict>", "the key \"a\" has no value"},
      {"<dict><key>a</key><true/><key>a</key><true/></dict>", "duplicate key \"a\""},
      {"<dict><key>a</key><true/>text</dict>", "text between elements"},
      {"text", "text between elements"},
      {"<array>text</array>", "text between elements"},
      {"<plist/>", "unknown element <plist>"},
      {"<set/>", "unknown element <set>"},
      {"<String/>", "unknown element <String>"},
      {"<string><b/></string>", "<b> inside <string>"},
      {"<integer><integer/></integer>", "<integer> inside <integer>"},
      {"<string lang=\"en\">a</string>", "unexpected attribute \"lang\""},
      {"<true>yes</true>", "text inside <true>"},
      {"<false> </false>", "text inside <false>"},
      {"<integer/>", "not a valid <integer>: \"\""},
      {"<integer>zz</integer>", "not a valid <integer>: \"zz\""},
      {"<integer>1 2</integer>", "not a valid <integer>: \"1 2\""},
      {"<integer>1.0</integer>", "not a valid <integer>: \"1.0\""},
      {"<integer>+-1</integer>", "not a valid <integer>: \"+-1\""},
      {"<integer>--1</integer>", "not a valid <integer>: \"--1\""},
      {"<integer>-</integer>", "not a valid <integer>: \"-\""},
      {"<integer>0x</integer>", "not a valid <integer>: \"0x\""},
      {"<integer>0x-1</integer>", "not a valid <integer>: \"0x-1\""},
      {"<integer>18446744073709551616</integer>", "not a valid <integer>: \"18446744073709551616\""},
      {"<integer>-9223372036854775809</integer>", "not a valid <integer>: \"-9223372036854775809\""},
      {"<real/>", "not a valid <real>: \"\""},
      {"<real>1.5x</real>", "not a valid <real>: \"1.5x\""},
      {"<real>1,5</real>", "not a valid <real>: \"1,5\""},
      {"<real>0x1p3</real>", "not a valid <real>: \"0x1p3\""},
      {"<real>1e999</real>", "not a valid <real>: \"1e999\""},
      {"<real>infinite</real>", "not a valid <real>: \"infinite\""},
      {"<date>2026-11-21</date>", "not a valid <date>: \"2026-11-21\""},
      {"<date> 2026-11-21T10:20:30Z</date>", "not a valid <date>: \" 2026-11-21T10:20:30Z\""},
      {"<data>A</data>", "not a valid <data>: \"A\""},
      {"<data>A*==</data>", "not a valid <data>: \"A*==\""},
      {"<string>&unknown;</string>", "unknown entity \"unknown\""},
      {"<string>\x01</string>", "not well-formed (invalid token)"},
      {"<string>\xff</string>", "not well-formed (invalid token)"},
      {"<string>&#0;</string>", "reference to invalid character number"},
      {"<string>", "mismatched tag"}};
  const std::string header =
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">";
  for (const auto &[body, reason] : rows) {
    EXPECT_EQ(errorOf(readDocument(header + "<plist version=\"1.0\">" + body + "</plist>")), "x: line 1: " + reason)
        << body;
  }
}

TEST(PropertyListXMLReaderTest, MalformedDocuments) {
  const std::pair<std::string, std::string> rows[] = {
      {"", "line 1: no element found"},
      {"{ a = 1; }", "line 1: not well-formed (invalid token)"},
      {"<dict/>", "line 1: <dict> where <plist> is expected"},
      {"<plist version=\"2.0\"><true/></plist>", "line 1: unknown version \"2.0\""},
      {"<plist name=\"a\"><true/></plist>", "line 1: unexpected attribute \"name\""},
      {"<plist><true/></plist>x", "line 1: junk after document element"},
      {"<plist><true/></plist>\n<plist><true/></plist>", "line 2: junk after document element"},
      {"<plist>\n<true/>\n", "line 3: no element found"},
      {"<plist>\n<array>\n<nothing/>\n</array>\n</plist>", "line 3: unknown element <nothing>"},
      {"<plist>\n<dict>\n<key>a</key>\n</dict>\n</plist>", "line 4: the key \"a\" has no value"},
      {"<?xml version=\"1.0\" encoding=\"nonsense\"?><plist><true/></plist>", "line 1: unknown encoding"}};
  for (const auto &[document, message] : rows) EXPECT_EQ(errorOf(readDocument(document)), "x: " + message) << document;
}

TEST(PropertyListXMLReaderTest, DeclarationsOfItsOwnAreRefused) {
  const std::string documents[] = {
      "<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;\">]><plist><string>&b;</string></plist>",
      "<!DOCTYPE plist [<!ENTITY a SYSTEM \"file:///etc/passwd\">]><plist><string>&a;</string></plist>",
      "<!DOCTYPE plist []><plist><true/></plist>"};
  for (const std::string &document : documents)
    EXPECT_EQ(errorOf(readDocument(document)), "x: line 1: a DOCTYPE with declarations is not accepted") << document;
}

TEST(PropertyListXMLReaderTest, EveryBeginningOfADocumentIsAnErrorAndNothingWorse) {
  const std::string document = *xmlPropertyList(
      Value::Dictionary{{"a", Value::Array{1, 1.5, "\xc3\xa9", Value::Data{1}, Value::Date{0}, true}}});
  // Without the last line feed the document is whole.
  for (std::size_t length = 0; length + 1 < document.size(); ++length)
    EXPECT_FALSE(readDocument(document.substr(0, length))) << length;
}

TEST(PropertyListXMLReaderTest, AnErrorQuotesNoMoreThanItNeeds) {
  const std::string message = errorOf(readBody("<integer>" + std::string(100000, 'x') + "</integer>"));
  EXPECT_LT(message.size(), 200U);
}

TEST(PropertyListXMLReaderTest, LimitsCanBeNarrower) {
  const std::string bytes = "<plist version=\"1.0\"><dict><key>a</key><array><true/></array></dict></plist>";
  const auto errorWith = [&](const PropertyListLimits &limits) {
    return errorOf(propertyListFromData(bytes, "x", limits));
  };
  EXPECT_TRUE(propertyListFromData(bytes, "x", {.bytes = bytes.size(), .depth = 2, .elements = 4}));
  EXPECT_EQ(errorWith({.bytes = bytes.size() - 1}), "x: larger than " + std::to_string(bytes.size() - 1) + " bytes");
  EXPECT_EQ(errorWith({.depth = 1}), "x: line 1: nested more than 1 levels deep");
  EXPECT_EQ(errorWith({.elements = 3}), "x: line 1: more than 3 elements");
}

}  // namespace
}  // namespace vpnctl
