// A format taken apart, and put together again with arguments in hand. Format.h is what callers use; this is the part
// of it that needs no va_list.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vpnctl {

// Widths and precisions past this are no layout but an accident or an attack on memory: in the format they make the
// conversion plain text, as arguments they are cut to it.
inline constexpr int kFormatMaximumNumber = 1 << 16;

// What a conversion takes from the argument list, after C's promotions.
enum class FormatArgumentType { integer, longInteger, real, longReal, pointer };

// integer: the int, sign-extended; longInteger: any 64-bit integer.
using FormatArgument = std::variant<std::int64_t, double, long double, const void *>;

// A width or a precision: a number in the format, or the position (from 0) of an int argument.
struct FormatNumber {
  int number = 0;
  std::optional<std::size_t> argument = {};
};

// A stretch of text, or one conversion.
struct FormatPiece {
  std::string_view source;  // as it stands in the format
  char conversion = 0;      // 0: SOURCE is text
  std::string flags = {};   // of "-+ #0"
  std::optional<FormatNumber> width = {};
  std::optional<FormatNumber> precision = {};
  std::string length = {};  // "hh", "h", "l", "ll" (also for q and j and z and t), "L" or ""
  std::size_t argument = 0;
};

struct ParsedFormat {
  std::vector<FormatPiece> pieces;
  std::vector<FormatArgumentType> arguments;  // those to take, in order
};

// The pieces view FORMAT. Never fails: what is no conversion is text.
ParsedFormat parseFormat(std::string_view format);

// ARGUMENTS has one entry, of the right type, for each of FORMAT.arguments.
std::string renderFormat(const ParsedFormat &format, const std::vector<FormatArgument> &arguments);

}  // namespace vpnctl
