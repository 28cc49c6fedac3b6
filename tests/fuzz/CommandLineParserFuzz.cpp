// The command-line parser with random registrations and a random argument list. The input is lines: those up to the
// first empty one register ("o2name", shortcut, requirement, name; "+group"; "-"), those behind it are the arguments.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/GBCommandLineParser.h"
#include "foundation/Assertion.h"

namespace {

using vpnctl::Value;

std::vector<std::string> lines(std::string_view text) {
  std::vector<std::string> result;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    result.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return result;
}

void registerLine(GB::GBCommandLineParser &parser, const std::string &line) {
  if (line.front() == '+') {
    // A group that is there already is reported on standard error, which is not what is looked at here.
    if (!parser.isOptionGroupName(line.substr(1))) parser.beginRegisterOptionGroup(line.substr(1));
  } else if (line.front() == '-') {
    parser.endRegisterOptionGroup();
  } else {
    const auto requirement = static_cast<GB::GBOptionRequirement>(line.size() > 1 ? line[1] & 3 : 0);
    parser.registerOption(line.substr(line.size() > 2 ? 2 : line.size()), line[0], requirement);
  }
}

// What the block saw.
struct Seen {
  bool bad = false;
  std::vector<std::string> arguments;
  Value::Dictionary options;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::vector<std::string> all = lines({reinterpret_cast<const char *>(data), size});
  GB::GBCommandLineParser parser;
  std::size_t line = 0;
  for (; line < all.size() && !all[line].empty(); ++line) registerLine(parser, all[line]);
  const std::size_t start = line < all.size() ? line + 1 : line;
  const std::vector<std::string> arguments(all.begin() + static_cast<std::ptrdiff_t>(start), all.end());

  Seen seen;
  const bool result = parser.parseOptionsWithArguments(
      arguments, "fuzz", [&](GB::GBParseEvent event, const auto &option, const Value &value, bool *) {
        FOUNDATION_ASSERT(option.has_value() == (event != GB::GBParseEventArgument));
        if (event == GB::GBParseEventArgument) return seen.arguments.push_back(value.string());
        if (event == GB::GBParseEventOption) FOUNDATION_ASSERT(!value.isNull());
        if (event == GB::GBParseEventOptionNotInGroup || event == GB::GBParseEventUnknownOption) seen.bad = true;
        if (event == GB::GBParseEventOption && parser.isOptionGroupName(*option) &&
            !parser.registeredOptionsByLongNames().contains(*option))
          return;  // a group is not stored
        if (!value.isNull()) seen.options.insert_or_assign(*option, value);
      });
  FOUNDATION_ASSERT(result == !seen.bad);
  FOUNDATION_ASSERT(parser.arguments() == seen.arguments);
  FOUNDATION_ASSERT(seen.arguments.size() <= arguments.size());
  // Positional arguments are the end of the list, as it stands.
  FOUNDATION_ASSERT(std::equal(seen.arguments.rbegin(), seen.arguments.rend(), arguments.rbegin()));
  for (const auto &[option, value] : parser.parsedOptions()) FOUNDATION_ASSERT(seen.options.contains(option));

  // The same again gives the same; stopped at the first event, it gives nothing more.
  const Value::Dictionary options = parser.parsedOptions();
  const auto ignore = [](GB::GBParseEvent, const auto &, const Value &, bool *) {};
  FOUNDATION_ASSERT(parser.parseOptionsWithArguments(arguments, "fuzz", ignore) == result);
  FOUNDATION_ASSERT(parser.parsedOptions() == options && parser.parsedArguments() == seen.arguments);
  return 0;
}
