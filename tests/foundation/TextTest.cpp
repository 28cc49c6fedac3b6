#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/Text.h"

namespace vpnctl {
namespace {

constexpr std::string_view kInvalid[] = {"\x80",
                                         "\xbf",
                                         "\xc3",
                                         "\xc0\x80",
                                         "\xc1\xbf",
                                         "\xe0\x80\x80",
                                         "\xe0\x9f\xbf",
                                         "\xe2\x82",
                                         "\xed\xa0\x80",
                                         "\xed\xbf\xbf",
                                         "\xf0\x80\x80\x80",
                                         "\xf4\x90\x80\x80",
                                         "\xf5\x80\x80\x80",
                                         "\xff",
                                         "a\xfe",
                                         "\xc3(",
                                         "\xe2(\xa1",
                                         "\xf0\x9f\x98"};

TEST(TextTest, KnowsWellFormedUTF8) {
  for (const std::string_view text : {"", "plain", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf",
                                      "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf"})
    EXPECT_TRUE(isValidUTF8(text)) << text;
  EXPECT_TRUE(isValidUTF8(std::string_view("\0", 1)));
  for (const std::string_view text : kInvalid) EXPECT_FALSE(isValidUTF8(text)) << text;
}

TEST(TextTest, CountsUTF16Units) {
  EXPECT_EQ(utf16Length(""), 0U);
  EXPECT_EQ(utf16Length("abc"), 3U);
  EXPECT_EQ(utf16Length("\xc3\xa9\xe2\x82\xac"), 2U);
  EXPECT_EQ(utf16Length("\xf0\x9f\x98\x80"), 2U);
  EXPECT_EQ(utf16Length("a\xff\xc3"), 3U);
}

TEST(TextTest, CharactersGoThereAndBack) {
  for (const char32_t character :
       {U'\0', U'a', U'\x7f', U'\x80', U'\x7ff', U'\x800', U'\xd7ff', U'\xe000', U'\xffff', U'\x10000', U'\x10ffff'}) {
    std::string text;
    appendCharacter(&text, character);
    std::size_t index = 0;
    EXPECT_EQ(nextCharacter(text, &index), character);
    EXPECT_EQ(index, text.size());
  }
}

TEST(TextTest, WhatIsNoCharacterIsReplacedOrRefused) {
  for (const char32_t character : {char32_t{0xd800}, char32_t{0xdfff}, char32_t{0x110000}, char32_t{0xffffffff}}) {
    std::string text;
    appendCharacter(&text, character);
    EXPECT_EQ(text, "\xef\xbf\xbd");
  }
  std::size_t index = 0;
  EXPECT_EQ(nextCharacter("\xc3", &index), std::nullopt);
  EXPECT_EQ(index, 0U);
}

TEST(TextTest, StringWithUTF8String) {
  EXPECT_EQ(stringWithUTF8String("caf\xc3\xa9"), "caf\xc3\xa9");
  EXPECT_EQ(stringWithUTF8String(""), "");
  EXPECT_EQ(stringWithUTF8String("\xff"), std::nullopt);
  EXPECT_THROW(stringWithUTF8String(nullptr), std::invalid_argument);
}

TEST(TextTest, SecretWithUTF8String) {
  EXPECT_EQ(secretWithUTF8String("geheim"), Secret("geheim"));
  EXPECT_EQ(secretWithUTF8String("\xff"), std::nullopt);
  EXPECT_THROW(secretWithUTF8String(nullptr), std::invalid_argument);
}

TEST(TextTest, ANullElementIsAnException) {
  EXPECT_EQ(element("x"), "x");
  EXPECT_THROW(element(std::nullopt), std::invalid_argument);
}

}  // namespace
}  // namespace vpnctl
