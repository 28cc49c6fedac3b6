#include "cli/CommandLineErrors.h"

#include <charconv>
#include <limits>
#include <utility>

#include "foundation/Text.h"

namespace GB {

using vpnctl::Result;

namespace {

void appendByte(std::string *text, char byte) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(byte);
  *text += {'\\', 'x', kDigits[code >> 4], kDigits[code & 15]};
}

std::string namedOption(const Option &option) { return "option --" + std::string(option.name); }

}  // namespace

vpnctl::Error commandLineError(CommandLineFault fault, std::string message) {
  return {
      .domain = std::string(kCommandLineErrorDomain), .code = static_cast<int>(fault), .message = std::move(message)};
}

std::string inQuotes(std::string_view bytes) {
  std::string text = "\"";
  for (std::size_t index = 0; index < bytes.size();) {
    const std::size_t start = index;
    const std::optional<char32_t> character = vpnctl::nextCharacter(bytes, &index);
    const bool isControl = character && (*character < 0x20 || (*character >= 0x7f && *character < 0xa0));
    if (character && !isControl) {
      text += bytes.substr(start, index - start);
      continue;
    }
    index = start + 1;
    appendByte(&text, bytes[start]);
  }
  return text + "\"";
}

Result<std::int64_t> wholeNumber(const Option &option, std::string_view value, std::int64_t minimum,
                                 std::int64_t maximum) {
  std::int64_t number = 0;
  const std::string_view digits = value.starts_with('+') && !value.starts_with("+-") ? value.substr(1) : value;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error == std::errc::invalid_argument || end != digits.data() + digits.size())
    return commandLineError(CommandLineFault::badValue,
                            namedOption(option) + ": " + inQuotes(value) + " is not a whole number");
  if (error == std::errc() && number >= minimum && number <= maximum) return number;
  std::string limits;
  if (maximum == std::numeric_limits<std::int64_t>::max() && error == std::errc())
    limits = "less than " + std::to_string(minimum);
  else if (minimum == std::numeric_limits<std::int64_t>::min() && error == std::errc())
    limits = "more than " + std::to_string(maximum);
  else
    limits = "not from " + std::to_string(minimum) + " to " + std::to_string(maximum);
  return commandLineError(CommandLineFault::badValue,
                          namedOption(option) + ": " + std::string(value) + " is " + limits);
}

Result<std::size_t> chosen(const Option &option, std::string_view value) {
  std::size_t index = 0;
  std::size_t found = kAnyNumber;
  std::string names;
  forEachChoice(option.choices, [&](std::string_view choice) {
    if (choice == value) found = index;
    if (index++ > 0) names += ", ";
    names += choice;
  });
  if (found != kAnyNumber) return found;
  return commandLineError(CommandLineFault::badValue,
                          namedOption(option) + ": " + inQuotes(value) + " is none of " + names);
}

}  // namespace GB
