// The compiler's look at the format of a typed print call: whether each conversion has an argument, and one that it can
// print. How the format is rendered is GBPrint's; what is wrong here is only ever refused, never read.
//
// Thread rule: no state.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "foundation/Value.h"

namespace GB {

// What kinds of conversion an argument serves, a set of bits.
inline constexpr unsigned PrintKindInteger = 1;     // d i o u x X c C and *
inline constexpr unsigned PrintKindReal = 2;        // a e f g
inline constexpr unsigned PrintKindText = 4;        // s
inline constexpr unsigned PrintKindWideText = 8;    // ls
inline constexpr unsigned PrintKindUTF16Text = 16;  // S
inline constexpr unsigned PrintKindPointer = 32;    // p
inline constexpr unsigned PrintKindObject = 64;     // @

// Characters, read as UTF-8.
template <class T>
inline constexpr bool kIsByteCharacter = std::is_same_v<T, char> || std::is_same_v<T, signed char> ||
                                         std::is_same_v<T, unsigned char> || std::is_same_v<T, char8_t>;

template <class T>
constexpr unsigned printKindsOfPointer() {
  if constexpr (std::is_same_v<T, vpnctl::Value>) return PrintKindPointer | PrintKindObject;
  if constexpr (std::is_same_v<T, wchar_t>) return PrintKindPointer | PrintKindObject | PrintKindWideText;
  if constexpr (std::is_same_v<T, char16_t>) return PrintKindPointer | PrintKindObject | PrintKindUTF16Text;
  if constexpr (kIsByteCharacter<T>) return PrintKindPointer | PrintKindObject | PrintKindText;
  return PrintKindPointer;
}

// 0 for what cannot be printed at all.
template <class T>
constexpr unsigned printKinds() {
  constexpr unsigned kText = PrintKindText | PrintKindObject;
  if constexpr (std::is_null_pointer_v<T>)
    return kText | PrintKindWideText | PrintKindUTF16Text | PrintKindPointer;
  else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>)
    return PrintKindInteger | PrintKindObject;
  else if constexpr (std::is_floating_point_v<T>)
    return PrintKindReal | PrintKindObject;
  else if constexpr (std::is_array_v<T>)
    return printKindsOfPointer<std::remove_cv_t<std::remove_extent_t<T>>>();
  else if constexpr (std::is_pointer_v<T>)
    return printKindsOfPointer<std::remove_cv_t<std::remove_pointer_t<T>>>();
  else if constexpr (std::is_convertible_v<const T &, std::string_view> ||
                     std::is_same_v<T, std::optional<std::string>> || std::is_constructible_v<vpnctl::Value, T>)
    return kText;
  else
    return 0;
}

enum class PrintFormatFault { none, missingArgument, wrongArgument };

// Walks a format once. What it takes for a conversion is what the formatter takes for one; where the two differ
// (numbers past the formatter's limits) the formatter prints the conversion as it stands.
class PrintFormatCheck {
 public:
  constexpr PrintFormatCheck(std::string_view format, const unsigned *kinds, std::size_t count)
      : format_(format), kinds_(kinds), count_(count) {}

  constexpr PrintFormatFault run() {
    while (fault_ == PrintFormatFault::none) {
      next_ = format_.find('%', next_);
      if (next_ == std::string_view::npos) break;
      const std::size_t percent = next_++;
      const std::size_t unnumbered = unnumbered_;
      if (accept('%') || conversion()) continue;
      // What is no conversion takes nothing.
      next_ = percent + 1;
      unnumbered_ = unnumbered;
      fault_ = PrintFormatFault::none;
    }
    return fault_;
  }

 private:
  constexpr bool accept(char character) {
    if (next_ >= format_.size() || format_[next_] != character) return false;
    ++next_;
    return true;
  }

  constexpr bool acceptAny(std::string_view characters) {
    if (next_ >= format_.size() || characters.find(format_[next_]) == std::string_view::npos) return false;
    ++next_;
    return true;
  }

  constexpr std::size_t digits() {
    std::size_t number = 0;
    while (next_ < format_.size() && format_[next_] >= '0' && format_[next_] <= '9') {
      if (number < kLargest) number = number * 10 + static_cast<std::size_t>(format_[next_] - '0');
      ++next_;
    }
    return number;
  }

  // "N$" as an index; otherwise the next argument's.
  constexpr std::size_t argument() {
    const std::size_t start = next_;
    if (const std::size_t number = digits(); number > 0 && accept('$')) return number - 1;
    next_ = start;
    return count_ + kLargest;
  }

  constexpr void take(std::size_t numbered, unsigned kind) {
    const std::size_t index = numbered >= count_ + kLargest ? unnumbered_++ : numbered;
    if (fault_ != PrintFormatFault::none) return;
    if (index >= count_)
      fault_ = PrintFormatFault::missingArgument;
    else if ((kinds_[index] & kind) == 0)
      fault_ = PrintFormatFault::wrongArgument;
  }

  constexpr void number() {
    if (accept('*'))
      take(argument(), PrintKindInteger);
    else
      digits();
  }

  // Of the length modifier and the character behind it; 0 where they are no conversion.
  constexpr unsigned kind() {
    const std::size_t start = next_;
    if (accept('h'))
      accept('h');
    else if (accept('l'))
      accept('l');
    else
      acceptAny("qjztL");
    const std::string_view length = format_.substr(start, next_ - start);
    if (acceptAny("dioxXu")) return length == "L" ? 0 : PrintKindInteger;
    const bool isLong = length == "l";
    if (acceptAny("aAeEfFgG")) return length.empty() || isLong || length == "L" ? PrintKindReal : 0;
    if (!length.empty() && !isLong) return 0;
    if (acceptAny("cC")) return PrintKindInteger;
    if (isLong) return acceptAny("sS") ? PrintKindWideText : 0;
    if (accept('s')) return PrintKindText;
    if (accept('S')) return PrintKindUTF16Text;
    if (accept('p')) return PrintKindPointer;
    return accept('@') ? PrintKindObject : 0;
  }

  constexpr bool conversion() {
    const std::size_t numbered = argument();
    while (acceptAny("-+ #0'")) {
    }
    number();
    if (accept('.')) number();
    const unsigned taken = kind();
    if (taken == 0) return false;
    take(numbered, taken);
    return true;
  }

  static constexpr std::size_t kLargest = 1 << 20;  // more than any format numbers

  std::string_view format_;
  const unsigned *kinds_;
  std::size_t count_;
  std::size_t next_ = 0;
  std::size_t unnumbered_ = 0;
  PrintFormatFault fault_ = PrintFormatFault::none;
};

// What is wrong with FORMAT for these arguments.
template <class... Arguments>
constexpr PrintFormatFault printFormatFault(std::string_view format) {
  const unsigned kinds[] = {printKinds<Arguments>()..., 0};
  return PrintFormatCheck(format, kinds, sizeof...(Arguments)).run();
}

// A format that is known only when the program runs. What does not fit is printed as well as it can be, and nothing but
// the arguments is read.
class RuntimeFormat {
 public:
  explicit RuntimeFormat(const char *text) : text_(text) {}
  const char *text() const { return text_; }

 private:
  const char *text_;
};

// Their names are what the compiler says: a constant expression cannot call them.
inline void theFormatHasMoreConversionsThanArguments() {}
inline void theFormatHasAConversionThatDoesNotTakeItsArgument() {}

template <class... Arguments>
class CheckedFormatFor {
 public:
  consteval CheckedFormatFor(const char *text) : text_(text) {
    static_assert(((printKinds<Arguments>() != 0) && ...), "an argument of this type cannot be printed");
    const PrintFormatFault fault = printFormatFault<Arguments...>(text);
    if (fault == PrintFormatFault::missingArgument) theFormatHasMoreConversionsThanArguments();
    if (fault == PrintFormatFault::wrongArgument) theFormatHasAConversionThatDoesNotTakeItsArgument();
  }
  CheckedFormatFor(RuntimeFormat format) : text_(format.text()) {}

  const char *text() const { return text_; }

 private:
  const char *text_;
};

// The arguments' types come from the arguments.
template <class... Arguments>
using CheckedFormat = CheckedFormatFor<std::type_identity_t<Arguments>...>;

}  // namespace GB
