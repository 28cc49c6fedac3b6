// printf with %@: the C conversions with their flags, widths, precisions and length modifiers, and %@ for a pointer to
// a Value
// (`const vpnctl::Value *`; null prints "(null)").

#pragma once

#include <cstdarg>
#include <string>

namespace vpnctl {

// The formatted text. FORMAT is not null. An unknown conversion is copied as it stands. %n is refused (copied as it
// stands): a format never writes. Positional arguments (%1$d) are supported for all conversions alike.
std::string formatWithArguments(const char *format, std::va_list arguments);
std::string format(const char *format, ...);

}  // namespace vpnctl
