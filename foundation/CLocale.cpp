#include "foundation/CLocale.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <locale>
#include <sstream>

namespace vpnctl {

namespace {

std::size_t digitsAt(std::string_view text, std::size_t start) {
  std::size_t end = start;
  while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
  return end - start;
}

bool isSign(std::string_view text, std::size_t index) {
  return index < text.size() && (text[index] == '+' || text[index] == '-');
}

}  // namespace

// Not by std::to_chars: the C++ library of macOS has it for real numbers only since 13.3.
std::string shortestReal(double number, int precision) {
  if (std::isnan(number)) return "nan";
  if (std::isinf(number)) return number < 0 ? "-inf" : "inf";
  std::array<char, 64> buffer{};
  const int length = std::snprintf(buffer.data(), buffer.size(), "%.*g", precision, number);
  return withDecimalPoint({buffer.data(), static_cast<std::size_t>(length)});
}

std::string withDecimalPoint(std::string_view printed) {
  constexpr std::string_view kOthers = "0123456789abcdefpxABCDEFPX+- ";
  const std::size_t start = printed.find_first_not_of(kOthers);
  if (start == std::string_view::npos) return std::string(printed);
  const std::size_t end = std::min(printed.find_first_of(kOthers, start), printed.size());
  return std::string(printed.substr(0, start)) + "." + std::string(printed.substr(end));
}

double scanReal(std::string_view text, std::size_t *length) {
  std::size_t end = isSign(text, 0) ? 1 : 0;
  std::size_t digits = digitsAt(text, end);
  end += digits;
  if (end < text.size() && text[end] == '.') {
    const std::size_t fraction = digitsAt(text, end + 1);
    if (digits + fraction > 0) end += 1 + fraction;
    digits += fraction;
  }
  *length = 0;
  if (digits == 0) return 0;
  if (end < text.size() && (text[end] == 'e' || text[end] == 'E')) {
    const std::size_t exponent = end + 1 + (isSign(text, end + 1) ? 1 : 0);
    if (const std::size_t count = digitsAt(text, exponent); count > 0) end = exponent + count;
  }
  *length = end;
  std::istringstream stream{std::string(text.substr(0, end))};
  stream.imbue(std::locale::classic());
  double number = 0;
  stream >> number;
  // What is stored of too large a number, infinity or the largest one, is the library's choice.
  if (stream.fail() && std::abs(number) > 1) return std::copysign(std::numeric_limits<double>::infinity(), number);
  return number;
}

}  // namespace vpnctl
