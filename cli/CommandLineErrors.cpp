#include "cli/CommandLineErrors.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <numeric>
#include <utility>

#include "foundation/Text.h"

namespace GB {

using vpnctl::Result;

namespace {

constexpr std::size_t kLongestSuggested = 64;  // what is longer than that is no slip of the finger

void appendByte(std::string *text, char byte) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(byte);
  *text += {'\\', 'x', kDigits[code >> 4], kDigits[code & 15]};
}

// Insertions, deletions, replacements and swaps of neighbours that make LEFT of RIGHT.
std::size_t editDistance(std::string_view left, std::string_view right) {
  std::vector<std::size_t> before;
  std::vector<std::size_t> above(right.size() + 1);
  std::iota(above.begin(), above.end(), std::size_t{0});
  for (std::size_t i = 1; i <= left.size(); ++i) {
    std::vector<std::size_t> row(right.size() + 1, i);
    for (std::size_t j = 1; j <= right.size(); ++j) {
      const std::size_t replaced = above[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1])
        row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before = std::exchange(above, std::move(row));
  }
  return above.back();
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

Suggestion::Suggestion(std::string_view typed)
    : typed_(typed), distance_(typed.size() > kLongestSuggested ? 0 : std::max<std::size_t>(1, typed.size() / 3) + 1) {}

void Suggestion::offer(std::string_view name) {
  if (distance_ == 0 || name.size() > kLongestSuggested) return;
  // The beginning of a name counts as the next best to a slip.
  const bool isBeginning = typed_.size() >= 2 && name.starts_with(typed_);
  const std::size_t distance = isBeginning ? 1 : editDistance(typed_, name);
  if (distance >= distance_ || distance >= name.size()) return;
  distance_ = distance;
  best_ = name;
}

std::string Suggestion::sentence(std::string_view prefix) const {
  if (best_.empty()) return {};
  return "; did you mean " + std::string(prefix) + std::string(best_) + "?";
}

}  // namespace GB
