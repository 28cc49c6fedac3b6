#include <gtest/gtest.h>

#include "foundation/OpenStepPropertyList.h"
#include "foundation/PropertyList.h"
#include "tests/support/TemporaryFolder.h"

using vpnctl::propertyListFromOpenStep;
using vpnctl::propertyListOfAnyForm;
using vpnctl::Value;

namespace {

Value read(std::string_view text) {
  const auto value = propertyListFromOpenStep(text, "file");
  if (!value) {
    ADD_FAILURE() << text << ": " << value.error().message;
    return {};
  }
  return *value;
}

std::string errorOf(std::string_view text) {
  const auto value = propertyListFromOpenStep(text, "file");
  return value ? "no error: " + value->description() : value.error().message;
}

}  // namespace

TEST(OpenStepPropertyList, ReadsEveryKindOfValue) {
  EXPECT_EQ(read("{ a = b; \"c d\" = (1, two, ); e = <0f Bd\n77>; f = { g; }; }"),
            Value(Value::Dictionary{{"a", "b"},
                                    {"c d", Value::Array{"1", "two"}},
                                    {"e", Value::Data{0x0f, 0xbd, 0x77}},
                                    {"f", Value::Dictionary{{"g", "g"}}}}));
  EXPECT_EQ(read("word_$/:.-9"), Value("word_$/:.-9"));
  EXPECT_EQ(read("()"), Value(Value::Array{}));
  EXPECT_EQ(read("{}"), Value(Value::Dictionary{}));
  EXPECT_EQ(read("<>"), Value(Value::Data{}));
  EXPECT_EQ(read("''"), Value(""));
}

TEST(OpenStepPropertyList, ReadsEntriesWithoutBracesAndComments) {
  EXPECT_EQ(read("/* heading = 1; */\n\"key\" = 'value'; // end\nbare;\n"),
            Value(Value::Dictionary{{"bare", "bare"}, {"key", "value"}}));
  EXPECT_EQ(read(" \n// nothing"), Value(Value::Dictionary{}));
}

TEST(OpenStepPropertyList, ReadsEscapes) {
  EXPECT_EQ(read(R"("\a\b\f\n\r\t\v\"\'\\\q")"), Value("\a\b\f\n\r\t\v\"'\\q"));
  EXPECT_EQ(read("\"a\\\nb\""), Value("a\nb"));
  EXPECT_EQ(read(R"("\U00e4\Ue\Ud83d\Ude00")"), Value("\u00e4\x0e\U0001f600"));
  // Octal digits name NeXTSTEP's characters, not Latin-1's.
  EXPECT_EQ(read(R"("\101\331\4012\256")"), Value("A\u00e4"
                                                  "\x01"
                                                  "2\ufb01"));
  EXPECT_EQ(read("\"it's\""), Value("it's"));
}

TEST(OpenStepPropertyList, AHalfPairOfSurrogatesIsAReplacementCharacter) {
  EXPECT_EQ(read(R"("\Ud83dx")"), Value("\ufffdx"));
  EXPECT_EQ(read(R"("\Ud83d\U0041")"), Value("\ufffdA"));
}

TEST(OpenStepPropertyList, ReadsUTF16AndByteOrderMarks) {
  EXPECT_EQ(read(std::string_view("\xfe\xff\0\"\0\xe4\xd8\x3d\xde\0\0\"", 12)), Value("\u00e4\U0001f600"));
  EXPECT_EQ(read(std::string_view("\xff\xfe\x61\0", 4)), Value("a"));
  EXPECT_EQ(read("\xef\xbb\xbf{ a = b; }"), Value(Value::Dictionary{{"a", "b"}}));
  EXPECT_EQ(errorOf(std::string_view("\xfe\xff\0", 3)), "file: line 1: the text is not in Unicode");
  EXPECT_EQ(errorOf("\"\xe4\""), "file: line 1: the text is not in Unicode");
}

TEST(OpenStepPropertyList, TellsWhatIsWrongAndWhere) {
  EXPECT_EQ(errorOf(""), "file: line 1: no property list in an empty file");
  EXPECT_EQ(errorOf("{\n a = b\n}"), "file: line 3: \";\" is missing");
  EXPECT_EQ(errorOf("{ a = 1;\n a = 2; }"), "file: line 2: duplicate key \"a\"");
  EXPECT_EQ(errorOf("{ a = b; }\n\nx"), "file: line 3: something follows the value");
  EXPECT_EQ(errorOf("(a b)"), "file: line 1: \",\" or \")\" is missing");
  EXPECT_EQ(errorOf("\n(a,"), "file: line 2: an array that does not end");
  EXPECT_EQ(errorOf("\n{ a = b;"), "file: line 2: a dictionary that does not end");
  EXPECT_EQ(errorOf("{ a = "), "file: line 1: a value is missing");
  EXPECT_EQ(errorOf("\"abc"), "file: line 1: a string that does not end");
  EXPECT_EQ(errorOf("\"abc\\"), "file: line 1: a string that does not end");
  EXPECT_EQ(errorOf("a /* b"), "file: line 1: a comment that does not end");
  EXPECT_EQ(errorOf("<0f b>"), "file: line 1: data with half a byte");
  EXPECT_EQ(errorOf("<0g>"), "file: line 1: a character in data that is no hexadecimal digit");
  EXPECT_EQ(errorOf("<0f"), "file: line 1: data that does not end");
  EXPECT_EQ(errorOf("(\xc3\xa4)"), "file: line 1: a character that starts no value");
  EXPECT_EQ(errorOf("a b"), "file: line 1: \";\" is missing");
}

TEST(OpenStepPropertyList, NestingHasALimit) {
  EXPECT_TRUE(read(std::string(64, '(') + std::string(64, ')')).isArray());
  EXPECT_EQ(errorOf(std::string(65, '(') + std::string(65, ')')), "file: line 1: nested more than 64 levels deep");
  EXPECT_EQ(errorOf(std::string(1000000, '(')), "file: line 1: nested more than 64 levels deep");
}

TEST(OpenStepPropertyList, TheThreeFormsAreToldApart) {
  const std::string xml = " <plist version=\"1.0\"><string>x</string></plist>";
  EXPECT_EQ(*propertyListOfAnyForm(xml, "file"), Value("x"));
  EXPECT_EQ(*propertyListOfAnyForm("\xef\xbb\xbf<?xml version=\"1.0\"?>" + xml.substr(1), "file"), Value("x"));
  EXPECT_EQ(*propertyListOfAnyForm(
                "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><string>\xe4</string></plist>", "file"),
            Value("\u00e4"));
  EXPECT_EQ(*propertyListOfAnyForm("<ad da>", "file"), Value(Value::Data{0xad, 0xda}));
  EXPECT_EQ(*propertyListOfAnyForm("{ a = b; }", "file"), Value(Value::Dictionary{{"a", "b"}}));
  EXPECT_NE(propertyListOfAnyForm("<dict/>", "file").error().message.find("<plist> is expected"), std::string::npos);
  EXPECT_NE(propertyListOfAnyForm("bplist00", "file").error().message.find("binary"), std::string::npos);
}

TEST(OpenStepPropertyList, WhoDoesNotAskForTheTextFormDoesNotGetIt) {
  EXPECT_FALSE(vpnctl::propertyListFromData("{ a = b; }", "file"));
  const support::TemporaryFolder folder;
  const std::string path = folder.write("a.plist", "{ a = b; }");
  EXPECT_FALSE(vpnctl::propertyListFromFile(path));
  EXPECT_EQ(*vpnctl::propertyListOfAnyFormFromFile(path), Value(Value::Dictionary{{"a", "b"}}));
  EXPECT_EQ(vpnctl::propertyListOfAnyFormFromFile(folder.path("none")).error().code, ENOENT);
}

TEST(OpenStepPropertyList, EveryPrefixIsReadOrRefused) {
  const std::string text = "{ \"\\Ud83d\\Ude00\\101\" = (a, 'b', <0f>, { c; }, ); /* d */ } // e";
  const std::size_t end = text.find('}', text.find("d */")) + 1;
  for (std::size_t size = 0; size <= text.size(); ++size) {
    EXPECT_EQ(static_cast<bool>(propertyListFromOpenStep(std::string_view(text).substr(0, size), "file")),
              size >= end && size != end + 2)
        << size;
  }
}
