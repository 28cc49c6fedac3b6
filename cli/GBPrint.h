/* Formatted printing for programs whose values are objects: printf's conversions with their flags, widths, precisions
 * and length modifiers, and %@ for a pointer to a foundation::Value (its description; a null pointer is "(null)").
 *
 * Usual call: gbfprintln(stderr, "%@ has %d entries", &value, 3). From C++ the overloads in namespace GB take values
 * and strings as they are: GB::gbfprintln(stderr, "%@ has %d entries", value, 3).
 *
 * Nothing is put in front, and nothing is flushed: what goes to standard output waits in its buffer. Text is UTF-8 and
 * ends at a zero byte. Errors of the stream are the stream's own affair (ferror). FORMAT is not null; a null one ends
 * the process. Thread rule: as stdio's; one call writes its text by one fputs.
 */

#ifndef CLI_GBPRINT_H
#define CLI_GBPRINT_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

void gbprint(const char *format, ...);
/* The newline is part of the format: it is appended before formatting. */
void gbprintln(const char *format, ...);
void gbfprint(FILE *stream, const char *format, ...);
void gbfprintln(FILE *stream, const char *format, ...);

#ifdef __cplusplus
}

#include <optional>
#include <string>
#include <type_traits>

#include "foundation/Value.h"

namespace GB {

// One argument on its way into C's variable arguments: numbers and pointers as they are, everything else (a Value,
// text) as a pointer to a Value, for %@.
template <class T>
class PrintArgument {
 public:
  static constexpr bool kIsPlain =
      std::is_arithmetic_v<T> || std::is_enum_v<T> || std::is_pointer_v<T> || std::is_null_pointer_v<T>;

  explicit PrintArgument(const T &argument) : held_(argument) {}

  auto get() const {
    if constexpr (kIsPlain)
      return held_;
    else
      return &held_;
  }

 private:
  std::conditional_t<kIsPlain, T, foundation::Value> held_;
};

// A literal stays a C string, for %s.
template <std::size_t Size>
class PrintArgument<char[Size]> {
 public:
  explicit PrintArgument(const char (&text)[Size]) : text_(text) {}
  const char *get() const { return text_; }

 private:
  const char *text_;
};

// None is the null object.
template <>
class PrintArgument<std::optional<std::string>> {
 public:
  explicit PrintArgument(const std::optional<std::string> &text) {
    if (text) held_ = *text;
  }
  const foundation::Value *get() const { return held_.isNull() ? nullptr : &held_; }

 private:
  foundation::Value held_;
};

template <class... Arguments>
void gbprint(const char *format, const Arguments &...arguments) {
  ::gbprint(format, PrintArgument<Arguments>(arguments).get()...);
}

template <class... Arguments>
void gbprintln(const char *format, const Arguments &...arguments) {
  ::gbprintln(format, PrintArgument<Arguments>(arguments).get()...);
}

template <class... Arguments>
void gbfprint(FILE *stream, const char *format, const Arguments &...arguments) {
  ::gbfprint(stream, format, PrintArgument<Arguments>(arguments).get()...);
}

template <class... Arguments>
void gbfprintln(FILE *stream, const char *format, const Arguments &...arguments) {
  ::gbfprintln(stream, format, PrintArgument<Arguments>(arguments).get()...);
}

}  // namespace GB
#endif

#endif
