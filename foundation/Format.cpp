#include "foundation/Format.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "foundation/CLocale.h"
#include "foundation/FormatParser.h"
#include "foundation/Text.h"
#include "foundation/Value.h"

namespace vpnctl {

namespace {

// The numbers of one conversion, arguments looked up.
struct Layout {
  std::string flags;
  std::optional<int> width;
  std::optional<int> precision;
};

int lookUp(const FormatNumber &number, const std::vector<FormatArgument> &arguments) {
  if (!number.argument) return number.number;
  return static_cast<int>(std::clamp<std::int64_t>(std::get<std::int64_t>(arguments[*number.argument]),
                                                   -kFormatMaximumNumber, kFormatMaximumNumber));
}

Layout layoutOf(const FormatPiece &piece, const std::vector<FormatArgument> &arguments) {
  Layout layout;
  layout.flags = piece.flags;
  if (piece.width) {
    layout.width = lookUp(*piece.width, arguments);
    if (*layout.width < 0) {
      layout.flags += '-';
      layout.width = -*layout.width;
    }
  }
  if (piece.precision) {
    if (const int precision = lookUp(*piece.precision, arguments); precision >= 0) layout.precision = precision;
  }
  return layout;
}

// ARGUMENT by the C library, as LENGTH and CONVERSION say.
template <class T>
std::string printed(const Layout &layout, std::string_view length, char conversion, T argument) {
  std::string format = "%" + layout.flags;
  if (layout.width) format += std::to_string(*layout.width);
  if (layout.precision) format += "." + std::to_string(*layout.precision);
  format += length;
  format += conversion;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int size = std::snprintf(nullptr, 0, format.c_str(), argument);
  if (size <= 0) return {};
  std::string text(static_cast<std::size_t>(size), '\0');
  std::snprintf(text.data(), text.size() + 1, format.c_str(), argument);
#pragma GCC diagnostic pop
  return text;
}

std::string padded(const Layout &layout, std::string text) {
  const std::size_t width = layout.width ? static_cast<std::size_t>(*layout.width) : 0;
  if (text.size() >= width) return text;
  const bool left = layout.flags.find('-') != std::string::npos;
  text.insert(left ? text.size() : 0, width - text.size(), ' ');
  return text;
}

std::string cString(const Layout &layout, const char *text) {
  if (text == nullptr) text = "(null)";
  // Without a zero byte within the precision, nothing behind it may be read.
  const std::size_t length =
      layout.precision ? strnlen(text, static_cast<std::size_t>(*layout.precision)) : std::strlen(text);
  return padded(layout, std::string(text, length));
}

// Padded here, not by the C library: a locale's decimal sign may be longer than the point that takes its place.
template <class Real>
std::string real(const Layout &layout, std::string_view length, char conversion, Real number) {
  Layout bare = layout;
  bare.width.reset();
  std::string text = printed(bare, length, conversion, number);
  if (!std::isfinite(number)) return padded(layout, std::move(text));
  text = withDecimalPoint(text);
  const bool zeros = layout.flags.find('0') != std::string::npos && layout.flags.find('-') == std::string::npos;
  const std::size_t width = layout.width ? static_cast<std::size_t>(*layout.width) : 0;
  if (zeros && text.size() < width) {
    std::size_t start = text.find_first_of("0123456789");
    if (conversion == 'a' || conversion == 'A') start += 2;  // behind "0x"
    text.insert(start, width - text.size(), '0');
  }
  return padded(layout, std::move(text));
}

// Zero-terminated UTF-16; the precision counts units.
std::string utf16String(const Layout &layout, const char16_t *text) {
  if (text == nullptr) return cString(layout, nullptr);
  std::string result;
  for (int i = 0; (!layout.precision || i < *layout.precision) && text[i] != 0; ++i) {
    const bool room = !layout.precision || i + 1 < *layout.precision;
    const char32_t unit = text[i];
    if (unit >= 0xd800 && unit <= 0xdbff && room && text[i + 1] >= 0xdc00 && text[i + 1] <= 0xdfff)
      appendCharacter(&result, 0x10000 + ((unit - 0xd800) << 10) + (text[++i] - U'\xdc00'));
    else
      appendCharacter(&result, unit);
  }
  return padded(layout, std::move(result));
}

// Zero-terminated UTF-32, as wchar_t is here; the precision counts characters.
std::string wideString(const Layout &layout, const wchar_t *text) {
  if (text == nullptr) return cString(layout, nullptr);
  std::string result;
  for (int i = 0; (!layout.precision || i < *layout.precision) && text[i] != 0; ++i)
    appendCharacter(&result, static_cast<char32_t>(text[i]));
  return padded(layout, std::move(result));
}

std::string character(const Layout &layout, const FormatPiece &piece, std::int64_t code) {
  if (piece.conversion == 'c' && piece.length.empty()) return padded(layout, std::string(1, static_cast<char>(code)));
  std::string text;
  appendCharacter(&text, piece.length.empty() ? static_cast<char16_t>(code) : static_cast<char32_t>(code));
  return padded(layout, std::move(text));
}

std::string signedInteger(const Layout &layout, const FormatPiece &piece, std::int64_t number) {
  if (piece.length == "hh") number = static_cast<signed char>(number);
  if (piece.length == "h") number = static_cast<short>(number);
  if (piece.length.empty()) number = static_cast<int>(number);
  return printed(layout, "l", piece.conversion, static_cast<long>(number));
}

std::string unsignedInteger(const Layout &layout, const FormatPiece &piece, std::int64_t argument) {
  auto number = static_cast<std::uint64_t>(argument);
  if (piece.length == "hh") number = static_cast<unsigned char>(number);
  if (piece.length == "h") number = static_cast<unsigned short>(number);
  if (piece.length.empty()) number = static_cast<unsigned>(number);
  return printed(layout, "l", piece.conversion, static_cast<unsigned long>(number));
}

std::string pointer(Layout layout, const void *address) {
  layout.flags += '#';
  // The C library leaves "0x" off a zero.
  if (address == nullptr) return padded(layout, "0x0");
  return printed(layout, "l", 'x', reinterpret_cast<unsigned long>(address));
}

std::string string(const Layout &layout, const FormatPiece &piece, const void *text) {
  if (piece.length == "l") return wideString(layout, static_cast<const wchar_t *>(text));
  if (piece.conversion == 'S') return utf16String(layout, static_cast<const char16_t *>(text));
  return cString(layout, static_cast<const char *>(text));
}

std::string rendered(const FormatPiece &piece, const std::vector<FormatArgument> &arguments) {
  const FormatArgument &argument = arguments[piece.argument];
  const Layout layout = layoutOf(piece, arguments);
  switch (piece.conversion) {
    case 'd':
    case 'i':
      return signedInteger(layout, piece, std::get<std::int64_t>(argument));
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      return unsignedInteger(layout, piece, std::get<std::int64_t>(argument));
    case 'c':
    case 'C':
      return character(layout, piece, std::get<std::int64_t>(argument));
    case 's':
    case 'S':
      return string(layout, piece, std::get<const void *>(argument));
    case 'p':
      return pointer(layout, std::get<const void *>(argument));
    case '@': {
      // As in Foundation, width and precision do not apply to objects.
      const auto *object = static_cast<const Value *>(std::get<const void *>(argument));
      return object != nullptr ? object->description() : "(null)";
    }
    default:
      break;
  }
  if (piece.length == "L") return real(layout, "L", piece.conversion, std::get<long double>(argument));
  return real(layout, "", piece.conversion, std::get<double>(argument));
}

}  // namespace

std::string renderFormat(const ParsedFormat &format, const std::vector<FormatArgument> &arguments) {
  std::string text;
  for (const FormatPiece &piece : format.pieces)
    if (piece.conversion == 0)
      text += piece.source;
    else
      text += rendered(piece, arguments);
  return text;
}

std::string formatWithArguments(const char *format, std::va_list arguments) {
  const ParsedFormat parsed = parseFormat(format);
  std::vector<FormatArgument> values;
  values.reserve(parsed.arguments.size());
  for (const FormatArgumentType type : parsed.arguments) {
    switch (type) {
      case FormatArgumentType::integer:
        values.emplace_back(std::int64_t{va_arg(arguments, int)});
        break;
      case FormatArgumentType::longInteger:
        values.emplace_back(std::int64_t{va_arg(arguments, long long)});
        break;
      case FormatArgumentType::real:
        values.emplace_back(va_arg(arguments, double));
        break;
      case FormatArgumentType::longReal:
        values.emplace_back(va_arg(arguments, long double));
        break;
      case FormatArgumentType::pointer:
        values.emplace_back(static_cast<const void *>(va_arg(arguments, void *)));
        break;
    }
  }
  return renderFormat(parsed, values);
}

std::string format(const char *format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string text = formatWithArguments(format, arguments);
  va_end(arguments);
  return text;
}

}  // namespace vpnctl
