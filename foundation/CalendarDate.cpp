#include "foundation/CalendarDate.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace vpnctl {

namespace {

using std::chrono::days;
using std::chrono::floor;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year;

constexpr sys_days kEpoch = year{2001} / 1 / 1;
constexpr sys_days kFirst = year{0} / 1 / 1;
constexpr sys_days kEnd = year{10000} / 1 / 1;

// The number in COUNT digits of TEXT from START; -1 when one of them is no digit.
int digits(std::string_view text, std::size_t start, std::size_t count) {
  int number = 0;
  for (const char character : text.substr(start, count)) {
    if (character < '0' || character > '9') return -1;
    number = number * 10 + (character - '0');
  }
  return number;
}

}  // namespace

std::optional<CalendarDate> calendarDate(Value::Date date) {
  const double whole = std::floor(date.secondsSince2001);
  if (!(whole >= static_cast<double>(seconds(kFirst - kEpoch).count()) &&
        whole < static_cast<double>(seconds(kEnd - kEpoch).count())))
    return std::nullopt;
  const sys_seconds moment = kEpoch + seconds(static_cast<std::int64_t>(whole));
  const sys_days day = floor<days>(moment);
  const std::chrono::year_month_day calendar(day);
  const std::chrono::hh_mm_ss<seconds> time(moment - day);
  return CalendarDate{.year = static_cast<int>(calendar.year()),
                      .month = static_cast<int>(static_cast<unsigned>(calendar.month())),
                      .day = static_cast<int>(static_cast<unsigned>(calendar.day())),
                      .hour = static_cast<int>(time.hours().count()),
                      .minute = static_cast<int>(time.minutes().count()),
                      .second = static_cast<int>(time.seconds().count())};
}

std::optional<std::string> propertyListDateText(Value::Date date) {
  const std::optional<CalendarDate> calendar = calendarDate(date);
  if (!calendar) return std::nullopt;
  std::array<char, 80> buffer{};
  const int length = std::snprintf(buffer.data(), buffer.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", calendar->year,
                                   calendar->month, calendar->day, calendar->hour, calendar->minute, calendar->second);
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

std::optional<Value::Date> dateFromPropertyListText(std::string_view text) {
  constexpr std::string_view kPattern = "####-##-##T##:##:##Z";
  if (text.size() != kPattern.size()) return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i)
    if (kPattern[i] == '#' ? digits(text, i, 1) < 0 : text[i] != kPattern[i]) return std::nullopt;
  const int hour = digits(text, 11, 2);
  const int minute = digits(text, 14, 2);
  const int second = digits(text, 17, 2);
  const std::chrono::year_month_day calendar = year{digits(text, 0, 4)} / digits(text, 5, 2) / digits(text, 8, 2);
  if (!calendar.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const sys_seconds moment =
      sys_days(calendar) + std::chrono::hours(hour) + std::chrono::minutes(minute) + seconds(second);
  return Value::Date{static_cast<double>((moment - kEpoch).count())};
}

}  // namespace vpnctl
