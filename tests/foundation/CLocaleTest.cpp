#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "foundation/CLocale.h"
#include "foundation/Format.h"
#include "foundation/Value.h"

namespace foundation {
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

TEST(CLocaleTest, TheScopePutsTheThreadsLocaleBack) {
  const locale_t before = uselocale(nullptr);
  {
    const CLocaleScope scope;
    EXPECT_NE(uselocale(nullptr), before);
  }
  EXPECT_EQ(uselocale(nullptr), before);
}

}  // namespace
}  // namespace foundation
