#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "foundation/PropertyList.h"
#include "foundation/PropertyListBinaryReader.h"

namespace vpnctl {
namespace {

std::string bigEndian(std::uint64_t number, int size) {
  std::string bytes;
  for (int i = size - 1; i >= 0; --i) bytes += static_cast<char>(number >> (8 * i) & 0xff);
  return bytes;
}

// A literal with zero bytes in it.
template <std::size_t size>
std::string raw(const char (&literal)[size]) {
  return std::string(literal, size - 1);
}

// A file whose objects are given as bytes; the trailer's fields can be bent before it is put together.
struct File {
  std::vector<std::string> objects;
  int offsetSize = 1;
  int referenceSize = 1;
  std::uint64_t top = 0;
  std::uint64_t extraCount = 0;
  std::uint64_t tableShift = 0;

  std::string bytes() const {
    std::string result = "bplist00";
    std::string table;
    for (const std::string &object : objects) {
      table += bigEndian(result.size(), offsetSize);
      result += object;
    }
    const std::uint64_t tableStart = result.size() + tableShift;
    result += table + std::string(6, '\0') + bigEndian(static_cast<std::uint64_t>(offsetSize), 1) +
              bigEndian(static_cast<std::uint64_t>(referenceSize), 1) + bigEndian(objects.size() + extraCount, 8) +
              bigEndian(top, 8) + bigEndian(tableStart, 8);
    return result;
  }
};

Result<Value> read(const File &file) { return propertyListFromData(file.bytes(), "x"); }
std::string errorOf(const Result<Value> &result) {
  return result ? "no error: " + result->description() : result.error().message;
}

TEST(PropertyListBinaryReaderTest, Scalars) {
  const std::pair<std::string, Value> rows[] = {
      {raw("\x08"), false},
      {raw("\x09"), true},
      {raw("\x10\x05"), 5},
      {raw("\x10\xff"), 255},
      {raw("\x11\x01\x00"), 256},
      {raw("\x12\xff\xff\xff\xff"), 4294967295LL},
      {raw("\x13\xff\xff\xff\xff\xff\xff\xff\xfb"), -5},
      {raw("\x13\x7f\xff\xff\xff\xff\xff\xff\xff"), std::numeric_limits<std::int64_t>::max()},
      {raw("\x14\0\0\0\0\0\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff"), std::numeric_limits<std::uint64_t>::max()},
      {raw("\x14\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x07"), 7},
      {raw("\x22\x3f\xc0\0\0"), 1.5},
      {raw("\x23\x3f\xf8\0\0\0\0\0\0"), 1.5},
      {raw("\x23\x7f\xf8\0\0\0\0\0\0"), std::nan("")},
      {raw("\x33\xc0\0\0\0\0\0\0\0"), Value::Date{-2}},
      {raw("\x40"), Value::Data{}},
      {raw("\x42\x00\xff"), Value::Data{0, 255}},
      {raw("\x50"), ""},
      {raw("\x53"
           "abc"),
       "abc"},
      {raw("\x5f\x10\x03"
           "abc"),
       "abc"},
      {raw("\x5f\x11\x00\x01"
           "a"),
       "a"},
      {raw("\x5f\x13\0\0\0\0\0\0\0\x01"
           "a"),
       "a"},
      {raw("\x61\x00\xe9"), "\xc3\xa9"},
      {raw("\x62\xd8\x3d\xde\x00"), "\xf0\x9f\x98\x80"},
      {raw("\xa0"), Value::Array{}},
      {raw("\xd0"), Value::Dictionary{}}};
  for (const auto &[object, value] : rows) {
    const Result<Value> result = read({.objects = {object}});
    ASSERT_TRUE(result) << value.description() << ": " << result.error().message;
    EXPECT_EQ(*result, value);
    EXPECT_EQ(result->type(), value.type()) << value.description();
  }
}

TEST(PropertyListBinaryReaderTest, MinusFiveIsNotALargeNumber) {
  EXPECT_EQ(read({.objects = {raw("\x13\xff\xff\xff\xff\xff\xff\xff\xfb")}})->description(), "-5");
  EXPECT_EQ(read({.objects = {raw("\x14\0\0\0\0\0\0\0\0\xff\xff\xff\xff\xff\xff\xff\xfb")}})->description(),
            "18446744073709551611");
}

TEST(PropertyListBinaryReaderTest, ContainersInAnyWidthOfNumbers) {
  const Value expected(Value::Dictionary{{"a", Value::Array{1, "a"}}});
  for (int size = 1; size <= 8; ++size) {
    const auto reference = [&](std::uint64_t number) { return bigEndian(number, size); };
    const File file{.objects = {"\xd1" + reference(1) + reference(2),
                                raw("\x51"
                                    "a"),
                                "\xa2" + reference(3) + reference(1), raw("\x10\x01")},
                    .offsetSize = 9 - size,
                    .referenceSize = size};
    const Result<Value> result = read(file);
    ASSERT_TRUE(result) << size << ": " << result.error().message;
    EXPECT_EQ(*result, expected);
  }
}

TEST(PropertyListBinaryReaderTest, TheTopMayBeAnyObject) {
  EXPECT_EQ(read({.objects = {raw("\x10\x01"), raw("\x10\x02")}, .top = 1})->integerValue(), 2);
}

TEST(PropertyListBinaryReaderTest, MalformedObjects) {
  const std::pair<std::string, std::string> rows[] = {
      {raw("\x00"), "8: unknown kind of object"},          // null
      {raw("\x0f"), "8: unknown kind of object"},          // fill
      {raw("\x21\0\0"), "8: unknown kind of object"},      // a real of two bytes
      {raw("\x32\0\0\0\0"), "8: unknown kind of object"},  // a date of four bytes
      {raw("\x80\x01"), "8: unknown kind of object"},      // UID
      {raw("\xc0"), "8: unknown kind of object"},          // set
      {raw("\x71"
           "a"),
       "8: unknown kind of object"},  // UTF-8 text of a later version
      {raw("\xe0"), "8: unknown kind of object"},
      {raw("\x15"), "9: an integer of more than 16 bytes"},
      {raw("\x13\0"), "9: an integer is cut off"},
      {raw("\x14\0\0\0\0\0\0\0\x01\0\0\0\0\0\0\0\0"), "9: an integer out of range"},
      {raw("\x14\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xfb"), "9: an integer out of range"},
      {raw("\x23\0\0\0\0"), "9: a number is cut off"},
      {raw("\x33\x7f\xf8\0\0\0\0\0\0"), "9: a date that is no number"},
      {raw("\x52"
           "a"),
       "9: an object is cut off"},
      {raw("\x42\0"), "9: an object is cut off"},
      {raw("\x61\0"), "9: an object is cut off"},
      {raw("\x5f"), "9: an object is cut off"},
      {raw("\x5f\x20"
           "a"),
       "9: not a valid count"},
      {raw("\x5f\x14"
           "a"),
       "9: not a valid count"},
      {raw("\x5f\x11\0"), "9: not a valid count"},
      {raw("\x5f\x13\xff\xff\xff\xff\xff\xff\xff\xff"), "9: an object is cut off"},
      {raw("\x6f\x13\x80\0\0\0\0\0\0\0\0\0"), "9: an object is cut off"},
      {raw("\xaf\x13\xff\xff\xff\xff\xff\xff\xff\xff"), "9: an object is cut off"},
      {raw("\xdf\x13\x80\0\0\0\0\0\0\x01\0\0"), "9: an object is cut off"},
      {raw("\x51\x80"), "9: text that is not ASCII"},
      {raw("\x61\xd8\x3d"), "9: half of a surrogate pair"},
      {raw("\x61\xde\x00"), "9: half of a surrogate pair"},
      {raw("\x62\xd8\x3d\x00"
           "a"),
       "9: half of a surrogate pair"},
      {raw("\xa1\x05"), "9: a reference to an object that does not exist"},
      {raw("\xa1\x00"), "8: an object contains itself"},
      {raw("\xd1\x00\x00"), "8: an object contains itself"}};
  for (const auto &[object, message] : rows) EXPECT_EQ(errorOf(read({.objects = {object}})), "x: byte " + message);
}

TEST(PropertyListBinaryReaderTest, KeysAreTextAndDifferent) {
  EXPECT_EQ(errorOf(read({.objects = {raw("\xd1\x01\x01"), raw("\x10\x01")}})), "x: byte 9: a key that is not text");
  EXPECT_EQ(errorOf(read({.objects = {raw("\xd2\x01\x02\x03\x03"),
                                      raw("\x51"
                                          "a"),
                                      raw("\x61\0"
                                          "a"),
                                      raw("\x09")}})),
            "x: byte 10: duplicate key \"a\"");
}

TEST(PropertyListBinaryReaderTest, ACycleThroughSeveralObjects) {
  EXPECT_EQ(errorOf(read({.objects = {raw("\xa1\x01"), raw("\xa1\x02"), raw("\xa1\x01")}})),
            "x: byte 10: an object contains itself");
}

TEST(PropertyListBinaryReaderTest, MalformedTrailers) {
  const std::vector<std::string> one{raw("\x10\x01")};
  EXPECT_EQ(errorOf(read({.objects = one, .extraCount = ~std::uint64_t{0}})),
            "x: byte 19: the number of objects must be 1 to 1048576");
  EXPECT_EQ(errorOf(read({.objects = one, .extraCount = std::uint64_t{1} << 63})),
            "x: byte 19: the number of objects must be 1 to 1048576");
  EXPECT_EQ(errorOf(read({.objects = one, .top = 1})), "x: byte 27: the top object does not exist");
  const std::string table = ": the offset table does not fill the space before the trailer";
  EXPECT_EQ(errorOf(read({.objects = one, .extraCount = 1})), "x: byte 35" + table);
  EXPECT_EQ(errorOf(read({.objects = one, .tableShift = 1})), "x: byte 35" + table);
  EXPECT_EQ(errorOf(read({.objects = one, .tableShift = 1000})), "x: byte 35" + table);
  EXPECT_EQ(errorOf(read({.objects = one, .tableShift = ~std::uint64_t{0}})), "x: byte 35" + table);
  for (const char *width : {"\x00\x01", "\x09\x01", "\x01\x00", "\x01\x09"}) {
    std::string bytes = File{.objects = one}.bytes();
    bytes.replace(bytes.size() - 26, 2, width, 2);
    EXPECT_EQ(errorOf(propertyListFromData(bytes, "x")),
              "x: byte 17: offsets and references must be 1 to 8 bytes wide");
  }
  EXPECT_EQ(errorOf(propertyListFromData("bplist00" + std::string(33, '\0'), "x")),
            "x: byte 41: too short for a binary property list");
}

TEST(PropertyListBinaryReaderTest, OffsetsStayInsideTheObjects) {
  std::string bytes = File{.objects = {raw("\x10\x01")}}.bytes();
  for (const char offset : {'\x00', '\x07', '\x0a', '\xff'}) {
    bytes[10] = offset;
    EXPECT_EQ(errorOf(propertyListFromData(bytes, "x")), "x: byte 10: an offset points outside the objects");
  }
}

TEST(PropertyListBinaryReaderTest, NestingHasALimit) {
  // Arrays of one element, each in the one before; the last is empty.
  const auto chain = [](int levels) {
    File file;
    for (int i = 1; i < levels; ++i) file.objects.push_back("\xa1" + bigEndian(static_cast<std::uint64_t>(i), 1));
    file.objects.push_back("\xa0");
    return file;
  };
  EXPECT_TRUE(read(chain(kPropertyListMaximumDepth)));
  EXPECT_EQ(errorOf(read(chain(kPropertyListMaximumDepth + 1))), "x: byte 137: nested more than 64 levels deep");
  EXPECT_FALSE(read(chain(120)));
}

TEST(PropertyListBinaryReaderTest, DepthCountsForObjectsMetBeforeAtALesserDepth) {
  // The chain is read first, from the top; then again from the end of another chain, where it goes too deep.
  File file;
  file.objects.push_back("\xa2\x01\x28");
  for (int i = 1; i < 39; ++i) file.objects.push_back("\xa1" + bigEndian(static_cast<std::uint64_t>(i) + 1, 1));
  file.objects.push_back("\xa0");
  for (int i = 40; i < 70; ++i)
    file.objects.push_back("\xa1" + bigEndian(i == 69 ? 1 : static_cast<std::uint64_t>(i) + 1, 1));
  const Result<Value> result = read(file);
  ASSERT_FALSE(result);
  EXPECT_TRUE(result.error().message.ends_with("nested more than 64 levels deep")) << result.error().message;
}

TEST(PropertyListBinaryReaderTest, SharedObjectsMayNotUnfoldWithoutEnd) {
  // Each array holds the next one twice: 2^40 elements in 150 bytes.
  File doubling;
  for (int i = 1; i < 40; ++i)
    doubling.objects.push_back("\xa2" + bigEndian(static_cast<std::uint64_t>(i), 1) +
                               bigEndian(static_cast<std::uint64_t>(i), 1));
  doubling.objects.push_back("\x09");
  EXPECT_NE(errorOf(read(doubling)).find("shared objects unfold to too large a value"), std::string::npos);

  // A long text many times.
  File text{
      .objects = {"\xaf\x11\xff\xff" + std::string(0xffff, '\x01'), "\x5f\x11\xff\xff" + std::string(0xffff, 'a')},
      .offsetSize = 4};
  EXPECT_EQ(errorOf(read(text)), "x: byte 8: shared objects unfold to too large a value");
}

TEST(PropertyListBinaryReaderTest, SharingWithinReasonIsFine) {
  const Result<Value> result = read({.objects = {raw("\xa3\x01\x01\x01"), raw("\xa2\x02\x02"),
                                                 raw("\x51"
                                                     "a")}});
  ASSERT_TRUE(result);
  const Value pair(Value::Array{"a", "a"});
  EXPECT_EQ(*result, Value(Value::Array{pair, pair, pair}));
}

TEST(PropertyListBinaryReaderTest, EveryBeginningOfAFileIsAnErrorAndNothingWorse) {
  const std::string bytes = File{.objects = {raw("\xd1\x01\x02"),
                                             raw("\x51"
                                                 "a"),
                                             raw("\xa2\x03\x04"), raw("\x10\x01"), raw("\x61\0\xe9")}}
                                .bytes();
  ASSERT_TRUE(propertyListFromData(bytes, "x"));
  for (std::size_t length = 8; length < bytes.size(); ++length)
    EXPECT_FALSE(propertyListFromData(bytes.substr(0, length), "x")) << length;
  EXPECT_FALSE(propertyListFromData(bytes + "x", "x"));
}

// Each limit holds for what is unfolded, in which the same two objects stand four times.
TEST(PropertyListBinaryReaderTest, LimitsCanBeNarrower) {
  const File file{.objects = {raw("\xa2\x01\x01"), raw("\xa2\x02\x02"),
                              raw("\x53"
                                  "abc")}};
  const auto errorWith = [&](const PropertyListLimits &limits) {
    return errorOf(propertyListFromData(file.bytes(), "x", limits));
  };
  EXPECT_TRUE(propertyListFromData(file.bytes(), "x", {.depth = 2, .elements = 7}));
  EXPECT_EQ(errorWith({.bytes = file.bytes().size() - 1}),
            "x: larger than " + std::to_string(file.bytes().size() - 1) + " bytes");
  EXPECT_NE(errorWith({.depth = 1}).find("nested more than 1 levels deep"), std::string::npos);
  EXPECT_NE(errorWith({.elements = 6}).find("shared objects unfold to too large a value"), std::string::npos);
  EXPECT_NE(errorWith({.elements = 2}).find("the number of objects must be 1 to 2"), std::string::npos);
}

}  // namespace
}  // namespace vpnctl
