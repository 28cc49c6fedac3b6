#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "foundation/CLocale.h"
#include "foundation/Format.h"
#include "foundation/Value.h"

namespace vpnctl {
namespace {

TEST(CLocaleTest, ScansTheNumberAtTheStart) {
  const struct {
    std::string_view text;
    double number;
    std::size_t length;
  } rows[] = {{"", 0, 0},      {"x", 0, 0},        {"12", 12, 2},     {"-1.5x", -1.5, 4}, {"+.5", 0.5, 3},
              {"5.", 5, 2},    {".", 0, 0},        {"-", 0, 0},       {"1e3", 1000, 3},   {"1e", 1, 1},
              {"1e+", 1, 1},   {"1E-2!", 0.01, 4}, {"0x10", 0, 1},    {"inf", 0, 0},      {"nan", 0, 0},
              {" 1", 0, 0},    {"1,5", 1, 1},      {"1.2.3", 1.2, 3}, {"-.e1", 0, 0},     {"00012", 12, 5},
              {"1e-999", 0, 6}};
  for (const auto &row : rows) {
    std::size_t length = 99;
    EXPECT_EQ(scanReal(row.text, &length), row.number) << row.text;
    EXPECT_EQ(length, row.length) << row.text;
  }
  std::size_t length = 0;
  EXPECT_EQ(scanReal("-1e999", &length), -std::numeric_limits<double>::infinity());
}

TEST(CLocaleTest, NaNHasNoSign) {
  EXPECT_EQ(shortestReal(-std::nan(""), 16), "nan");
  EXPECT_EQ(shortestReal(-std::numeric_limits<double>::infinity(), 16), "-inf");
}

TEST(CLocaleTest, ADecimalCommaOfTheProcessChangesNothing) {
  ASSERT_EQ(setenv("LOCPATH", VPNCTL_TEST_LOCALES, 1), 0);
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
  ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  const Value oneAndAHalf(1.5);
  const std::string text = oneAndAHalf.description() + " " + format("%.1f %@", 1.5, &oneAndAHalf);
  const double number = Value("2.5").doubleValue();
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(text, "1.5 1.5 1.5");
  EXPECT_EQ(number, 2.5);
}

TEST(CLocaleTest, TheLargestNumberIsNotYetInfinite) {
  std::size_t length = 0;
  EXPECT_EQ(scanReal("1.7976931348623157e308", &length), std::numeric_limits<double>::max());
  EXPECT_EQ(scanReal("-1.7976931348623157e308", &length), std::numeric_limits<double>::lowest());
  EXPECT_EQ(scanReal("1.8e308", &length), std::numeric_limits<double>::infinity());
  EXPECT_EQ(scanReal("5e-324", &length), std::numeric_limits<double>::denorm_min());
}

TEST(CLocaleTest, ShortestRealPrintsAsTheCLibraryDoes) {
  for (const double number : {0.0, -0.0, 1.0, 0.1, -2.5, 1e15, 1e16, 1e17, 123456789012345678.0, 1e-4, 1e-5, 1e300,
                              5e-324, 1.0 / 3, std::numeric_limits<double>::infinity()}) {
    for (const int precision : {16, 17}) {
      char expected[64];
      std::snprintf(expected, sizeof expected, "%.*g", precision, number);
      EXPECT_EQ(shortestReal(number, precision), expected);
    }
  }
}

const std::vector<std::string> kRealFormats = [] {
  std::vector<std::string> formats;
  for (const char *flags : {"", "-", "+", " ", "0", "#", "+0", "-0", "#0", " 0"})
    for (const char *size : {"", "12", "12.3", ".0", "40.12"})
      for (const char *conversion : {"f", "e", "g", "a", "G", "A"})
        formats.push_back(std::string("%") + flags + size + conversion);
  return formats;
}();

// What every format makes of some numbers, one after the other.
std::string printedReals(const std::function<std::string(const char *format, double number)> &print) {
  std::string text;
  for (const std::string &real : kRealFormats)
    for (const double number : {1.5, -1234.5678, 0.0, 1e-7, -std::numeric_limits<double>::infinity()})
      text += real + " " + print(real.c_str(), number) + "\n";
  return text;
}

// One whose decimal sign takes two bytes, too.
TEST(CLocaleTest, EveryFlagOfARealPrintsAsInTheCLocaleWhereverTheProcessIs) {
  const std::string expected = printedReals([](const char *real, double number) {
    char buffer[128];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(buffer, sizeof buffer, real, number);
#pragma GCC diagnostic pop
    return std::string(buffer);
  });
  ASSERT_EQ(setenv("LOCPATH", VPNCTL_TEST_LOCALES, 1), 0);
  for (const auto &[locale, sign] :
       {std::pair("C", "."), std::pair("de_DE.UTF-8", ","), std::pair("ps_AF.UTF-8", "\xd9\xab")}) {
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, sign);
    const std::string text = printedReals([](const char *real, double number) { return format(real, number); });
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(text, expected) << locale;
  }
}

}  // namespace
}  // namespace vpnctl
