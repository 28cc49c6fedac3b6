/* Formatted printing for programs whose values are objects: printf's conversions with their flags, widths, precisions
 * and length modifiers, and %@ for a pointer to a vpnctl::Value (its description; a null pointer is "(null)").
 *
 * Usual call: gbfprintln(stderr, "%@ has %d entries", &value, 3). As printf, these four believe their format: an
 * argument that is missing or of another type is undefined behaviour. From C++ take the overloads in namespace GB,
 * which know their arguments' types and take values and strings as they are: GB::gbfprintln(stderr, "%@ has %d
 * entries", value, 3).
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

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "cli/PrintFormat.h"
#include "foundation/Value.h"

namespace GB {

// One argument of a typed call. It views what it was made of, and lives as long as the call.
class PrintArgument {
 public:
  struct Signed {
    std::int64_t number;
    std::size_t size;  // of its type, in bytes
  };
  // Text behind a pointer ends at a zero byte, and LIMIT characters at the latest.
  template <class Character>
  struct Text {
    const Character *start;
    std::size_t limit;
  };
  using Held = std::variant<std::monostate, Signed, std::uint64_t, double, long double, Text<char>, Text<wchar_t>,
                            Text<char16_t>, const void *, const vpnctl::Value *, vpnctl::Value>;

  template <class T>
  PrintArgument(const T &argument) : held_(held(argument)) {}

  const Held &held() const { return held_; }

 private:
  static constexpr std::size_t kNoLimit = static_cast<std::size_t>(-1);

  template <class T>
  static Held held(const T &argument) {
    if constexpr (std::is_null_pointer_v<T>)
      return {};
    else if constexpr (std::is_enum_v<T>)
      return held(static_cast<std::underlying_type_t<T>>(argument));
    else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>)
      return Signed{argument, sizeof argument};
    else if constexpr (std::is_integral_v<T>)
      return std::uint64_t{argument};
    else if constexpr (std::is_same_v<T, long double>)
      return argument;
    else if constexpr (std::is_floating_point_v<T>)
      return double{argument};
    else if constexpr (std::is_array_v<T> && std::rank_v<T> == 1)
      return pointed(&argument[0], std::extent_v<T>);
    else if constexpr (std::is_pointer_v<T>)
      return pointed(argument, kNoLimit);
    else if constexpr (std::is_convertible_v<const T &, std::string_view>)
      return text(argument);
    else
      return object(argument);
  }

  static Held text(std::string_view text) { return Text<char>{text.empty() ? "" : text.data(), text.size()}; }
  static Held object(const std::optional<std::string> &text) { return text ? PrintArgument::text(*text) : Held(); }
  static Held object(const vpnctl::Value &value) { return &value; }
  template <class T>
  static Held object(const T &other) {
    return vpnctl::Value(other);
  }

  template <class T>
  static Held pointed(const T *pointer, std::size_t limit) {
    if (pointer == nullptr) return {};
    if constexpr (kIsByteCharacter<T>)
      return Text<char>{reinterpret_cast<const char *>(pointer), limit};
    else if constexpr (std::is_same_v<T, wchar_t> || std::is_same_v<T, char16_t>)
      return Text<T>{pointer, limit};
    else
      return pointer;
  }
  static Held pointed(const void *pointer, std::size_t) { return pointer; }

  Held held_;
};

// FORMAT with its conversions replaced by the arguments, each as its own type says: lengths ("l") need not fit it.
// Reads nothing but the arguments: a conversion without one stays as it is, and an argument that is not of the
// conversion's kind is printed as %@ has it.
std::string formatWithTypedArguments(std::string_view format, const PrintArgument *arguments, std::size_t count);

// Prints it, with a newline in the format or not.
enum class PrintEnd { none, newline };
void printTypedArguments(FILE *stream, const char *format, PrintEnd end, const PrintArgument *arguments,
                         std::size_t count);

// The typed calls. A format that does not fit the arguments does not compile: one with more conversions, or with a
// conversion that takes something else. One that is made at run time is given as RuntimeFormat(text).

template <class... Arguments>
void gbfprint(FILE *stream, CheckedFormat<Arguments...> format, const Arguments &...arguments) {
  // One more than there are: an array is not empty.
  const PrintArgument held[] = {PrintArgument(arguments)..., PrintArgument(nullptr)};
  printTypedArguments(stream, format.text(), PrintEnd::none, held, sizeof...(arguments));
}

template <class... Arguments>
void gbfprintln(FILE *stream, CheckedFormat<Arguments...> format, const Arguments &...arguments) {
  const PrintArgument held[] = {PrintArgument(arguments)..., PrintArgument(nullptr)};
  printTypedArguments(stream, format.text(), PrintEnd::newline, held, sizeof...(arguments));
}

template <class... Arguments>
void gbprint(CheckedFormat<Arguments...> format, const Arguments &...arguments) {
  GB::gbfprint<Arguments...>(stdout, format, arguments...);
}

template <class... Arguments>
void gbprintln(CheckedFormat<Arguments...> format, const Arguments &...arguments) {
  GB::gbfprintln<Arguments...>(stdout, format, arguments...);
}

}  // namespace GB
#endif

#endif
