#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <limits>

#include "foundation/Format.h"
#include "foundation/FormatParser.h"
#include "foundation/Value.h"

namespace vpnctl {
namespace {

// What vpnctl::format and the C library print must be the same wherever the C library knows the conversion.
#define EXPECT_AS_IN_C(...)                                   \
  do {                                                        \
    char expected[512];                                       \
    std::snprintf(expected, sizeof expected, __VA_ARGS__);    \
    EXPECT_EQ(format(__VA_ARGS__), expected) << #__VA_ARGS__; \
  } while (false)

TEST(FormatTest, TextStandsAsItIs) {
  EXPECT_EQ(format(""), "");
  EXPECT_EQ(format("plain \xc3\xa9"), "plain \xc3\xa9");
  EXPECT_EQ(format("100%%, %%d"), "100%, %d");
}

TEST(FormatTest, IntegersAsInC) {
  EXPECT_AS_IN_C("%d|%i|%u|%o|%x|%X", -5, 5, 5U, 8U, 255U, 255U);
  EXPECT_AS_IN_C("%5d|%-5d|%05d|%+d|% d|%+05d|%-+5d|", 42, 42, 42, 42, 42, 42, 42);
  EXPECT_AS_IN_C("%.3d|%8.3d|%-8.3d|%.0d|", 7, 7, 7, 0);
  EXPECT_AS_IN_C("%#x|%#o|%#X|%#06x", 255U, 8U, 255U, 255U);
  EXPECT_AS_IN_C("%d|%d|%u", std::numeric_limits<int>::min(), std::numeric_limits<int>::max(),
                 std::numeric_limits<unsigned>::max());
}

TEST(FormatTest, LengthModifiersAsInC) {
  // Not by way of snprintf: compilers refuse a literal that does not fit.
  EXPECT_EQ(format("%hhd|%hhu|%hd|%hu", 200, 456, 40000, 105536), "-56|200|-25536|40000");
  EXPECT_AS_IN_C("%ld|%lu|%lx", std::numeric_limits<long>::min(), std::numeric_limits<unsigned long>::max(), 1UL << 40);
  EXPECT_AS_IN_C("%lld|%llu|%llo", std::numeric_limits<long long>::min(),
                 std::numeric_limits<unsigned long long>::max(), 1ULL << 50);
  EXPECT_AS_IN_C("%jd|%ju|%zu|%zd|%td", std::intmax_t{-1}, std::uintmax_t{1} << 60, sizeof(int), ssize_t{-1},
                 std::ptrdiff_t{-2});
  EXPECT_EQ(format("%qd|%qu|%qx", -1LL, 1ULL << 40, 255ULL), "-1|1099511627776|ff");
}

TEST(FormatTest, RealsAsInC) {
  EXPECT_AS_IN_C("%f|%e|%g|%a|%F|%E|%G|%A", 1.5, 1.5, 1.5, 1.5, 1.5, 1.5, 1.5, 1.5);
  EXPECT_AS_IN_C("%.2f|%8.2f|%-8.2f|%08.2f|%+.1f|% .1f|%#.0f", 3.14159, 3.14159, 3.14159, -3.14159, 1.0, 1.0, 1.0);
  EXPECT_AS_IN_C("%lf|%Lf|%.3Lg", 2.5, 2.5L, 1.0L / 3);
  EXPECT_AS_IN_C("%f|%g|%.17g|%.60f", 1e300, 1e-300, 0.1, 0.1);
  EXPECT_AS_IN_C("%f|%g", std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity());
}

TEST(FormatTest, CharactersAndStringsAsInC) {
  EXPECT_AS_IN_C("%c|%3c|%-3c|", 'a', 'b', 'c');
  EXPECT_AS_IN_C("%s|%5s|%-5s|%.2s|%5.1s|%.0s|", "abc", "abc", "abc", "abc", "abc", "abc");
  const char unterminated[2] = {'a', 'b'};
  EXPECT_EQ(format("%.2s", unterminated), "ab");
  EXPECT_EQ(format("%s", static_cast<const char *>(nullptr)), "(null)");
  EXPECT_EQ(format("%c", 0), std::string(1, '\0'));
}

TEST(FormatTest, WideCharactersAndStrings) {
  EXPECT_EQ(format("%C|%3C|", 0xe9, 'x'), "\xc3\xa9|  x|");
  EXPECT_EQ(format("%lc", 0x1f600), "\xf0\x9f\x98\x80");
  EXPECT_EQ(format("%C", 0xd800), "\xef\xbf\xbd");
  EXPECT_EQ(format("%S|%.1S|%.2S", u"\u00e9x", u"\u00e9x", u"a\U0001f600"), "\xc3\xa9x|\xc3\xa9|a\xef\xbf\xbd");
  EXPECT_EQ(format("%S", u"\U0001f600"), "\xf0\x9f\x98\x80");
  EXPECT_EQ(format("%ls|%.1ls", L"\u00e9x", L"ab"), "\xc3\xa9x|a");
  EXPECT_EQ(format("%S|%ls", static_cast<const char16_t *>(nullptr), static_cast<const wchar_t *>(nullptr)),
            "(null)|(null)");
}

TEST(FormatTest, Pointers) {
  const auto *address = reinterpret_cast<const void *>(std::uintptr_t{0x1234});
  EXPECT_EQ(format("%p|%10p|%-10p|", address, address, address), "0x1234|    0x1234|0x1234    |");
  EXPECT_EQ(format("%p", static_cast<const void *>(nullptr)), "0x0");
}

TEST(FormatTest, WidthAndPrecisionFromTheArguments) {
  EXPECT_AS_IN_C("%*d|%-*d|%.*f|%*.*f|", 6, 42, 6, 42, 1, 2.55, 8, 2, 2.5);
  EXPECT_AS_IN_C("%*d|%.*s|", -6, 42, -1, "whole");
  EXPECT_EQ(format("%*d", std::numeric_limits<int>::min(), 1).size(), static_cast<std::size_t>(kFormatMaximumNumber));
}

TEST(FormatTest, ObjectsPrintTheirDescription) {
  const Value text("text");
  const Value array(Value::Array{1, true});
  EXPECT_EQ(format("%@ and %d", &text, 5), "text and 5");
  EXPECT_EQ(format("%@", &array), "(\n    1,\n    1\n)");
  EXPECT_EQ(format("%@", static_cast<const Value *>(nullptr)), "(null)");
}

TEST(FormatTest, WidthAndPrecisionDoNotApplyToObjects) {
  const Value text("text");
  EXPECT_EQ(format("%10@|%-10@|%.2@|", &text, &text, &text), "text|text|text|");
}

TEST(FormatTest, NumberedArguments) {
  const Value object("o");
  EXPECT_EQ(format("%2$s %1$s", "world", "hello"), "hello world");
  EXPECT_EQ(format("%1$d %1$x %1$d", 255), "255 ff 255");
  EXPECT_EQ(format("%2$*1$d|%2$.*1$d", 4, 7), "   7|0007");
  EXPECT_EQ(format("%3$@ %1$d %2$.1f", 1, 2.0, &object), "o 1 2.0");
  EXPECT_EQ(format("%2$d", 1, 2), "2");
}

TEST(FormatTest, AnArgumentCannotBeTwoThings) { EXPECT_EQ(format("%1$d %1$s", 7), "7 %1$s"); }

TEST(FormatTest, WhatIsNoConversionIsCopied) {
  EXPECT_EQ(format("%y %d", 1), "%y 1");
  EXPECT_EQ(format("%"), "%");
  EXPECT_EQ(format("abc%"), "abc%");
  EXPECT_EQ(format("%-5.3"), "%-5.3");
  EXPECT_EQ(format("%Ld|%hs|%l@|%hf", 1), "%Ld|%hs|%l@|%hf");
  EXPECT_EQ(format("%99999999d|%.99999999f"), "%99999999d|%.99999999f");
  EXPECT_EQ(format("%0$d|%999999$d"), "%0$d|%999999$d");
}

TEST(FormatTest, AFormatNeverWrites) {
  int written = -1;
  EXPECT_EQ(format("abc%n|%hhn|%1$n", &written), "abc%n|%hhn|%1$n");
  EXPECT_EQ(written, -1);
}

TEST(FormatTest, GroupingIsThatOfTheCLocale) { EXPECT_EQ(format("%'d", 1234567), "1234567"); }

}  // namespace
}  // namespace vpnctl
