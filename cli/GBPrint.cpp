#include "cli/GBPrint.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "foundation/Format.h"
#include "foundation/FormatParser.h"

namespace {

const char *notNull(const char *format) {
  if (format == nullptr) throw std::invalid_argument("a format cannot be null");
  return format;
}

std::string withNewline(const char *format) { return std::string(notNull(format)) + "\n"; }

void gb_printf_worker(FILE *stream, const char *format, std::va_list arguments) {
  std::fputs(vpnctl::formatWithArguments(notNull(format), arguments).c_str(), stream);
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

namespace GB {

namespace {

using vpnctl::FormatArgument;
using vpnctl::FormatPiece;
using Held = PrintArgument::Held;

template <class... Alternatives>
struct Overloaded : Alternatives... {
  using Alternatives::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;  // clang 16 does not find it by itself

// A copy that ends at a zero byte, like the text itself.
template <class Character>
std::basic_string<Character> copied(const PrintArgument::Text<Character> &text) {
  std::basic_string<Character> copy;
  for (std::size_t i = 0; i < text.limit && text.start[i] != 0; ++i) copy += text.start[i];
  return copy;
}

template <class Character>
std::string narrow(const PrintArgument::Text<Character> &text) {
  const char *format = std::is_same_v<Character, wchar_t> ? "%ls" : "%S";
  const std::basic_string<Character> copy = copied(text);
  return vpnctl::renderFormat(vpnctl::parseFormat(format), {static_cast<const void *>(copy.c_str())});
}

// As %@ has it.
std::string description(const Held &argument) {
  return std::visit(
      Overloaded{[](std::monostate) { return std::string("(null)"); },
                 [](const PrintArgument::Signed &number) { return vpnctl::Value(number.number).description(); },
                 [](const PrintArgument::Text<char> &text) { return copied(text); },
                 [](const void *pointer) {
                   return vpnctl::renderFormat(vpnctl::parseFormat("%p"), {FormatArgument(pointer)});
                 },
                 [](const vpnctl::Value *value) { return value->description(); },
                 [](const vpnctl::Value &value) { return value.description(); },
                 [](long double number) { return vpnctl::Value(static_cast<double>(number)).description(); },
                 []<class Character>(const PrintArgument::Text<Character> &text) { return narrow(text); },
                 [](auto number) { return vpnctl::Value(number).description(); }},
      argument);
}

// One conversion and what it takes, on the way to the formatter, which wants C's types.
class Conversion {
 public:
  Conversion(const FormatPiece &piece, const PrintArgument *arguments, std::size_t count)
      : piece_(piece), arguments_(arguments), count_(count) {}

  std::string rendered() {
    if (piece_.argument >= count_ || !number(&piece_.width) || !number(&piece_.precision))
      return std::string(piece_.source);
    const Held &argument = arguments_[piece_.argument].held();
    if (!take(argument)) return description(argument);
    piece_.argument = values_.size() - 1;
    vpnctl::ParsedFormat format;
    format.pieces.push_back(piece_);
    return vpnctl::renderFormat(format, values_);
  }

 private:
  // A width or a precision that is an argument.
  bool number(std::optional<vpnctl::FormatNumber> *number) {
    if (!*number || !(*number)->argument) return true;
    if (*(*number)->argument >= count_) return false;
    const Held &argument = arguments_[*(*number)->argument].held();
    if (const auto *integer = std::get_if<PrintArgument::Signed>(&argument))
      values_.emplace_back(integer->number);
    else if (const auto *natural = std::get_if<std::uint64_t>(&argument))
      values_.emplace_back(static_cast<std::int64_t>(std::min<std::uint64_t>(*natural, vpnctl::kFormatMaximumNumber)));
    else
      return false;
    (*number)->argument = values_.size() - 1;
    return true;
  }

  bool isOneOf(std::string_view conversions) const {
    return conversions.find(piece_.conversion) != std::string_view::npos;
  }

  // Puts ARGUMENT into values_ for this conversion, if it is one for it.
  bool take(const Held &argument) {
    if (isOneOf("diouxX")) return takeInteger(argument);
    if (isOneOf("cC")) return takeCharacter(argument);
    if (isOneOf("sS")) return takeText(argument);
    if (isOneOf("p")) return takePointer(argument);
    return !isOneOf("@") && takeReal(argument);
  }

  bool takeInteger(const Held &argument) {
    const bool isNarrowed = piece_.length.starts_with('h');
    if (!isNarrowed) piece_.length = "ll";
    if (const auto *number = std::get_if<PrintArgument::Signed>(&argument)) {
      auto bits = static_cast<std::uint64_t>(number->number);
      // As many digits as the argument's own type has.
      if (!isOneOf("di") && number->size < sizeof bits) bits &= (std::uint64_t{1} << (8 * number->size)) - 1;
      values_.emplace_back(static_cast<std::int64_t>(bits));
      return true;
    }
    const auto *number = std::get_if<std::uint64_t>(&argument);
    if (number == nullptr) return false;
    if (!isNarrowed && isOneOf("di") && std::cmp_greater(*number, INT64_MAX)) piece_.conversion = 'u';
    values_.emplace_back(static_cast<std::int64_t>(*number));
    return true;
  }

  bool takeCharacter(const Held &argument) {
    if (const auto *number = std::get_if<PrintArgument::Signed>(&argument))
      values_.emplace_back(number->number);
    else if (const auto *code = std::get_if<std::uint64_t>(&argument))
      values_.emplace_back(static_cast<std::int64_t>(*code));
    else
      return false;
    return true;
  }

  bool takeReal(const Held &argument) {
    if (const auto *number = std::get_if<double>(&argument)) {
      piece_.length.clear();
      values_.emplace_back(*number);
    } else if (const auto *precise = std::get_if<long double>(&argument)) {
      piece_.length = "L";
      values_.emplace_back(*precise);
    } else {
      return false;
    }
    return true;
  }

  bool takePointer(const Held &argument) {
    return std::visit(Overloaded{[this](std::monostate) { return takePointer(nullptr); },
                                 [this](const void *pointer) { return takePointer(pointer); },
                                 [this](const vpnctl::Value *pointer) { return takePointer(pointer); },
                                 [this]<class Character>(const PrintArgument::Text<Character> &text) {
                                   return takePointer(static_cast<const void *>(text.start));
                                 },
                                 [](const auto &) { return false; }},
                      argument);
  }

  bool takePointer(const void *pointer) {
    values_.emplace_back(pointer);
    return true;
  }

  bool takeText(const Held &argument) {
    if (std::holds_alternative<std::monostate>(argument)) return takePointer(nullptr);
    // Wide text is read where it is, by a precision's measure only.
    if (const auto *wide = std::get_if<PrintArgument::Text<wchar_t>>(&argument)) {
      piece_.conversion = 's';
      piece_.length = "l";
      wide_ = copied(limited(*wide));
      return takePointer(wide_.c_str());
    }
    if (const auto *utf16 = std::get_if<PrintArgument::Text<char16_t>>(&argument)) {
      piece_.conversion = 'S';
      piece_.length.clear();
      utf16_ = copied(limited(*utf16));
      return takePointer(utf16_.c_str());
    }
    piece_.conversion = 's';
    piece_.length.clear();
    const auto *text = std::get_if<PrintArgument::Text<char>>(&argument);
    text_ = text != nullptr ? copied(limited(*text)) : description(argument);
    return takePointer(text_.c_str());
  }

  // TEXT without what the precision leaves out: it may not be there.
  template <class Character>
  PrintArgument::Text<Character> limited(PrintArgument::Text<Character> text) const {
    if (!piece_.precision) return text;
    const std::int64_t precision = piece_.precision->argument
                                       ? std::get<std::int64_t>(values_[*piece_.precision->argument])
                                       : piece_.precision->number;
    if (precision >= 0) text.limit = std::min(text.limit, static_cast<std::size_t>(precision));
    return text;
  }

  FormatPiece piece_;
  const PrintArgument *arguments_;
  std::size_t count_;
  std::vector<FormatArgument> values_;
  std::string text_;
  std::wstring wide_;
  std::u16string utf16_;
};

}  // namespace

std::string formatWithTypedArguments(std::string_view format, const PrintArgument *arguments, std::size_t count) {
  std::string text;
  for (const FormatPiece &piece : vpnctl::parseFormat(format).pieces)
    if (piece.conversion == 0)
      text += piece.source;
    else
      text += Conversion(piece, arguments, count).rendered();
  return text;
}

void printTypedArguments(FILE *stream, const char *format, PrintEnd end, const PrintArgument *arguments,
                         std::size_t count) {
  const std::string whole = end == PrintEnd::newline ? withNewline(format) : notNull(format);
  std::fputs(formatWithTypedArguments(whole, arguments, count).c_str(), stream);
}

}  // namespace GB
