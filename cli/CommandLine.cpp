#include "cli/CommandLine.h"

#include "cli/CommandLineErrors.h"
#include "foundation/Text.h"

namespace GB {

using vpnctl::Result;

namespace {

const Option *findIn(const Command &command, std::string_view name) {
  for (const Option &option : command.options)
    if (option.name == name && !option.isHeading()) return &option;
  return nullptr;
}

vpnctl::Error notDefined(std::string_view name) {
  return commandLineError(CommandLineFault::notDefined, "option --" + std::string(name) + " is not defined");
}

Result<std::string> utf8(std::string_view what, std::string_view bytes) {
  if (vpnctl::isValidUTF8(bytes)) return std::string(bytes);
  return commandLineError(CommandLineFault::notText, std::string(what) + ": " + inQuotes(bytes) + " is not UTF-8");
}

}  // namespace

CommandLine::Place CommandLine::find(std::string_view name) const {
  std::size_t end = last_.size();
  for (std::size_t level = commands_.size(); level-- > 0;) {
    const Command &command = *commands_[level];
    end -= command.options.size();
    if (const Option *option = findIn(command, name))
      return {option, end + static_cast<std::size_t>(option - command.options.begin())};
  }
  return {};
}

void CommandLine::addCommand(const Command &command) {
  commands_.push_back(&command);
  last_.resize(last_.size() + command.options.size());
}

void CommandLine::add(std::size_t slot, Occurrence occurrence) {
  occurrence.previous = last_[slot];
  occurrences_.push_back(occurrence);
  last_[slot] = static_cast<std::uint32_t>(occurrences_.size());
}

std::size_t CommandLine::count(std::string_view name) const {
  const Place place = find(name);
  if (place.option == nullptr) return 0;
  std::size_t count = 0;
  for (std::uint32_t next = last_[place.slot]; next != 0; next = occurrences_[next - 1].previous) ++count;
  return count;
}

bool CommandLine::isOn(std::string_view name) const {
  const Place place = find(name);
  if (place.option == nullptr || last_[place.slot] == 0) return false;
  return occurrences_[last_[place.slot] - 1].isOn;
}

Result<std::string_view> CommandLine::bytes(std::string_view name) const {
  const Place place = find(name);
  if (place.option == nullptr) return notDefined(name);
  if (const std::uint32_t last = last_[place.slot]; last != 0) return occurrences_[last - 1].value;
  if (!place.option->standard.empty()) return place.option->standard;
  return commandLineError(CommandLineFault::notGiven, "option --" + std::string(name) + " is not given");
}

Result<std::string> CommandLine::text(std::string_view name) const {
  const Result<std::string_view> value = bytes(name);
  if (!value) return value.error();
  return utf8("option --" + std::string(name), *value);
}

Result<std::int64_t> CommandLine::integer(std::string_view name) const {
  return integer(name, std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max());
}

Result<std::int64_t> CommandLine::integer(std::string_view name, std::int64_t minimum, std::int64_t maximum) const {
  const Result<std::string_view> value = bytes(name);
  if (!value) return value.error();
  const Option &option = *find(name).option;
  return wholeNumber(option, *value, std::max(minimum, option.minimum), std::min(maximum, option.maximum));
}

Result<std::size_t> CommandLine::choice(std::string_view name) const {
  const Result<std::string_view> value = bytes(name);
  if (!value) return value.error();
  return chosen(*find(name).option, *value);
}

std::vector<std::string_view> CommandLine::all(std::string_view name) const {
  std::vector<std::string_view> values(count(name));
  if (values.empty()) return values;
  std::uint32_t next = last_[find(name).slot];
  for (std::size_t index = values.size(); index-- > 0; next = occurrences_[next - 1].previous)
    values[index] = occurrences_[next - 1].value;
  return values;
}

Result<std::string> CommandLine::operandText(std::size_t index) const {
  if (index < operands_.size()) return utf8("argument " + std::to_string(index + 1), operands_[index]);
  return commandLineError(CommandLineFault::notGiven, "argument " + std::to_string(index + 1) + " is not given");
}

}  // namespace GB
