// Numbers as text in the "C" locale, whatever locale the process has set: what is printed and read here must not depend
// on the user's decimal comma.

#pragma once

#include <locale.h>

#include <string>
#include <string_view>

namespace foundation {

// Makes the "C" locale that of the calling thread for as long as it lives.
class CLocaleScope {
 public:
  CLocaleScope();
  CLocaleScope(const CLocaleScope &) = delete;
  CLocaleScope &operator=(const CLocaleScope &) = delete;
  ~CLocaleScope();

 private:
  locale_t previous_;
};

// NUMBER with %.*g; "nan" without a sign for every NaN.
std::string shortestReal(double number, int precision);

// The decimal number at the start of TEXT (sign, digits, point, exponent; no blanks, no hexadecimal, no "inf"), and in
// *LENGTH how much of TEXT it takes; 0 and length 0 when there is none. Too large a number is infinite, too small a one
// is 0.
double scanReal(std::string_view text, std::size_t *length);

}  // namespace foundation
