#include "cli/GBPrint.h"

#include <cstdarg>
#include <stdexcept>
#include <string>

#include "foundation/Format.h"

namespace {

const char *notNull(const char *format) {
  if (format == nullptr) throw std::invalid_argument("a format cannot be null");
  return format;
}

std::string withNewline(const char *format) { return std::string(notNull(format)) + "\n"; }

void gb_printf_worker(FILE *stream, const char *format, std::va_list arguments) {
  std::fputs(foundation::formatWithArguments(notNull(format), arguments).c_str(), stream);
}

}  // namespace

void gbprint(const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gb_printf_worker(stdout, format, arguments);
  va_end(arguments);
}

void gbprintln(const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gb_printf_worker(stdout, withNewline(format).c_str(), arguments);
  va_end(arguments);
}

void gbfprint(FILE *stream, const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gb_printf_worker(stream, format, arguments);
  va_end(arguments);
}

void gbfprintln(FILE *stream, const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  gb_printf_worker(stream, withNewline(format).c_str(), arguments);
  va_end(arguments);
}
