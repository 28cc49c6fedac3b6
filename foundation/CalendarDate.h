// Dates between their three forms: seconds since 2001 (Value::Date), calendar fields, text. All in UTC, Gregorian
// throughout.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/Value.h"

namespace vpnctl {

struct CalendarDate {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// The fields of the second that DATE lies in; none outside the years 0 to 9999 or for what is no number.
std::optional<CalendarDate> calendarDate(Value::Date date);

// "YYYY-MM-DDTHH:MM:SSZ", as property lists write it; none where calendarDate() gives none.
std::optional<std::string> propertyListDateText(Value::Date date);
// The same read back, to the character; none when it is anything else or no date of the calendar.
std::optional<Value::Date> dateFromPropertyListText(std::string_view text);

}  // namespace vpnctl
