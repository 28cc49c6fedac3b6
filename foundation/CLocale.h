// Numbers as text in the "C" locale, whatever locale the process has set: what is printed and read here must not depend
// on the user's decimal comma.
//
// Thread rule: any thread.

#pragma once

#include <string>
#include <string_view>

namespace vpnctl {

// NUMBER with %.*g; "nan" without a sign for every NaN. PRECISION is at most 17.
std::string shortestReal(double number, int precision);

// The decimal number at the start of TEXT (sign, digits, point, exponent; no blanks, no hexadecimal, no "inf"), and in
// *LENGTH how much of TEXT it takes; 0 and length 0 when there is none. Too large a number is infinite, too small a one
// is 0.
double scanReal(std::string_view text, std::size_t *length);

// What the C library has printed of a finite number, with a point in place of its locale's decimal sign.
std::string withDecimalPoint(std::string_view printed);

}  // namespace vpnctl
