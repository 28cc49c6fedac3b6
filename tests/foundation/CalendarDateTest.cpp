#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/CalendarDate.h"

namespace vpnctl {
namespace {

TEST(CalendarDateTest, TextAndSecondsSince2001) {
  const std::pair<std::string_view, double> dates[] = {
      {"2001-01-01T00:00:00Z", 0},           {"2000-12-31T23:59:59Z", -1},
      {"2026-11-21T10:20:30Z", 816949230},   {"1970-01-01T00:00:00Z", -978307200},
      {"2000-02-29T12:00:00Z", -26481600},   {"0000-01-01T00:00:00Z", -63145526400},
      {"9999-12-31T23:59:59Z", 252423993599}};
  for (const auto &[text, seconds] : dates) {
    EXPECT_EQ(propertyListDateText({seconds}), text);
    EXPECT_EQ(dateFromPropertyListText(text), Value::Date{seconds});
  }
}

TEST(CalendarDateTest, AFractionBelongsToTheSecondItLiesIn) {
  EXPECT_EQ(propertyListDateText({0.999}), "2001-01-01T00:00:00Z");
  EXPECT_EQ(propertyListDateText({-0.001}), "2000-12-31T23:59:59Z");
}

TEST(CalendarDateTest, RefusesOtherForms) {
  for (const std::string_view text : {"",
                                      "2001-01-01",
                                      "2001-01-01T00:00:00",
                                      "2001-01-01 00:00:00Z",
                                      "2001-01-01T00:00:00z",
                                      "2001-01-01T00:00:00+00:00",
                                      "2001-1-01T00:00:00Z",
                                      " 2001-01-01T00:00:00Z",
                                      "2001-01-01T00:00:00Z ",
                                      "2001-13-01T00:00:00Z",
                                      "2001-00-01T00:00:00Z",
                                      "2001-01-32T00:00:00Z",
                                      "2001-02-29T00:00:00Z",
                                      "1900-02-29T00:00:00Z",
                                      "2001-01-01T24:00:00Z",
                                      "2001-01-01T00:60:00Z",
                                      "2001-01-01T00:00:60Z",
                                      "-001-01-01T00:00:00Z",
                                      "2001-01-01T00:00:0xZ",
                                      "2001-01-01T00:00:00.5Z"})
    EXPECT_EQ(dateFromPropertyListText(text), std::nullopt) << text;
}

TEST(CalendarDateTest, OutsideTheFourDigitYearsThereIsNoText) {
  EXPECT_EQ(propertyListDateText({252423993600}), std::nullopt);
  EXPECT_EQ(propertyListDateText({-63145526400.5}), std::nullopt);
  EXPECT_EQ(propertyListDateText({1e300}), std::nullopt);
  EXPECT_EQ(propertyListDateText({std::nan("")}), std::nullopt);
  EXPECT_EQ(propertyListDateText({-std::numeric_limits<double>::infinity()}), std::nullopt);
}

}  // namespace
}  // namespace vpnctl
