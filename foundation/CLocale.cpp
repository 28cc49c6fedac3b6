#include "foundation/CLocale.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace foundation {

namespace {

// Made once and never freed: threads may print while the process ends.
locale_t cLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
  return locale;
}

std::size_t digitsAt(std::string_view text, std::size_t start) {
  std::size_t end = start;
  while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
  return end - start;
}

bool isSign(std::string_view text, std::size_t index) {
  return index < text.size() && (text[index] == '+' || text[index] == '-');
}

}  // namespace

CLocaleScope::CLocaleScope() : previous_(uselocale(cLocale())) {}

CLocaleScope::~CLocaleScope() { uselocale(previous_); }

std::string shortestReal(double number, int precision) {
  if (std::isnan(number)) return "nan";
  std::array<char, 64> buffer{};
  const CLocaleScope scope;
  const int length = std::snprintf(buffer.data(), buffer.size(), "%.*g", precision, number);
  return {buffer.data(), static_cast<std::size_t>(length)};
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
  return strtod_l(std::string(text.substr(0, end)).c_str(), nullptr, cLocale());
}

}  // namespace foundation
