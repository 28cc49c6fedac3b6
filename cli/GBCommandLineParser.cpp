#include "cli/GBCommandLineParser.h"

#include <cstdio>
#include <utility>

#include "foundation/ProcessInfo.h"
#include "foundation/Text.h"

namespace GB {

namespace {

// An entry of a record; null when somebody took it away.
const vpnctl::Value &entry(const GBOptionRecord &record, std::string_view key) {
  static const vpnctl::Value &none = *new vpnctl::Value;
  const auto found = record->find(key);
  return found != record->end() ? found->second : none;
}

}  // namespace

// What one argument turned out to be, ready for the block.
struct GBCommandLineParser::Finding {
  GBParseEvent event = GBParseEventOption;
  std::string option;
  Value value;
  bool takesNext = false;  // VALUE is the argument that follows
};

GBOptionRecord GBCommandLineParser::addRecord(const std::string &longName, GBOptionRequirement requirement) {
  auto record = std::make_shared<Value::Dictionary>();
  record->emplace("long", longName);
  record->emplace("requirement", static_cast<std::uint64_t>(requirement));
  registeredOptionsByLongNames_.insert_or_assign(longName, record);
  return record;
}

void GBCommandLineParser::registerOption(const Text &longName, char shortcut, GBOptionRequirement requirement) {
  const std::string &name = vpnctl::element(longName);
  const GBOptionRecord record = addRecord(name, requirement);
  if (currentOptionsGroupOptions_) currentOptionsGroupOptions_->insert(name);
  if (const auto code = static_cast<signed char>(shortcut); code > 0) {
    record->emplace("short", code);
    registeredOptionsByShortNames_.insert_or_assign(std::string(1, shortcut), record);
  }
  if (requirement == GBOptionNoValue) {
    const GBOptionRecord negated = addRecord("no-" + name, GBOptionNoValue);
    // The record, not its name: the group's check while parsing looks for names, so that within a group a switch can be
    // set but not be taken back.
    if (currentOptionsGroupOptions_) currentOptionsGroupOptions_->insert(negated);
  }
}

void GBCommandLineParser::registerOption(const Text &longName, GBOptionRequirement requirement) {
  registerOption(longName, 0, requirement);
}

void GBCommandLineParser::registerSwitch(const Text &longName, char shortcut) {
  registerOption(longName, shortcut, GBOptionNoValue);
}

void GBCommandLineParser::registerSwitch(const Text &longName) { registerSwitch(longName, 0); }

void GBCommandLineParser::beginRegisterOptionGroup(const Text &groupName) {
  const std::string &name = vpnctl::element(groupName);
  std::shared_ptr<GBOptionGroup> &group = registeredOptionGroupsByNames_[name];
  if (group)
    std::fprintf(stderr, "Group %s is already registered!", name.c_str());
  else
    group = std::make_shared<GBOptionGroup>();
  currentOptionsGroupOptions_ = group;
}

void GBCommandLineParser::endRegisterOptionGroup() {
  currentOptionsGroupName_.reset();
  currentOptionsGroupOptions_.reset();
}

const GBOptionRecord &GBCommandLineParser::groupSentinel() {
  static const GBOptionRecord &sentinel = *new GBOptionRecord(std::make_shared<Value::Dictionary>());
  return sentinel;
}

const GBOptionRecord &GBCommandLineParser::notAnOptionSentinel() {
  static const GBOptionRecord &sentinel = *new GBOptionRecord(std::make_shared<Value::Dictionary>());
  return sentinel;
}

GBOptionRecord GBCommandLineParser::optionDataForOption(std::string_view argument, Value *value) {
  if (!isShortOrLongOptionName(argument)) {
    const auto group = registeredOptionGroupsByNames_.find(argument);
    if (group == registeredOptionGroupsByNames_.end()) return notAnOptionSentinel();
    currentOptionsGroupName_ = argument;
    currentOptionsGroupOptions_ = group->second;
    return groupSentinel();
  }
  const bool isLong = argument.starts_with("--");
  std::string_view name = argument.substr(isLong ? 2 : 1);
  if (const std::size_t separator = name.rfind('='); separator != std::string_view::npos) {
    if (value != nullptr) *value = name.substr(separator + 1);
    name = name.substr(0, separator);
  }
  const OptionsByName &registry = isLong ? registeredOptionsByLongNames_ : registeredOptionsByShortNames_;
  const auto record = registry.find(name);
  return record != registry.end() ? record->second : nullptr;
}

bool GBCommandLineParser::isOptionOrGroupName(std::string_view argument) const {
  return isShortOrLongOptionName(argument) || isOptionGroupName(argument);
}

// RECORD is null for an option that is not registered; GIVEN is the text behind "=", or null.
GBCommandLineParser::Finding GBCommandLineParser::findingFor(const GBOptionRecord &record, const std::string &argument,
                                                             Value given, const std::vector<std::string> &arguments,
                                                             std::size_t index) const {
  if (!record) return {.event = GBParseEventUnknownOption, .option = argument, .value = std::move(given)};
  const std::string &longName = entry(record, "long").string();
  if (currentOptionsGroupOptions_ && !currentOptionsGroupOptions_->contains(longName))
    return {.event = GBParseEventOptionNotInGroup, .option = argument, .value = std::move(given)};

  Finding finding = {.option = longName, .value = std::move(given)};
  const bool isGiven = !finding.value.isNull();
  const std::uint64_t requirement = entry(record, "requirement").unsignedIntegerValue();
  if (requirement != GBOptionRequiresValue && requirement != GBOptionValueOptional) {
    const bool isNegated = argument.starts_with("--no-");
    if (!isGiven)
      finding.value = !isNegated;
    else if (isNegated)
      finding.value = int{!finding.value.boolValue()};
    else
      finding.value = finding.value.boolValue();
    return finding;
  }
  if (isGiven) return finding;
  const bool isLast = index + 1 >= arguments.size();
  finding.takesNext = !isLast && !isOptionOrGroupName(arguments[index + 1]);
  if (finding.takesNext) {
    finding.value = arguments[index + 1];
  } else if (requirement == GBOptionValueOptional) {
    finding.value = true;
  } else {
    finding.event = GBParseEventMissingValue;
    if (!isLast) finding.value = arguments[index + 1];
  }
  return finding;
}

bool GBCommandLineParser::parseOptionsWithArguments(const std::vector<std::string> &arguments, const std::string &,
                                                    const GBParseBlock &block) {
  currentOptionsGroupOptions_.reset();
  parsedOptions_.clear();
  parsedArguments_.clear();
  bool result = true;
  bool stop = false;
  std::size_t index = 0;
  for (; index < arguments.size(); ++index) {
    // A copy: the block may append to ARGUMENTS.
    const std::string argument = arguments[index];
    Value given;
    const GBOptionRecord record = optionDataForOption(argument, &given);
    if (record == notAnOptionSentinel()) break;
    if (record == groupSentinel()) {
      block(GBParseEventOption, argument, true, &stop);
      continue;
    }
    const Finding finding = findingFor(record, argument, std::move(given), arguments, index);
    if (finding.event == GBParseEventUnknownOption || finding.event == GBParseEventOptionNotInGroup) result = false;
    if (finding.takesNext) ++index;
    block(finding.event, finding.option, finding.value, &stop);
    if (stop) return false;
    if (!finding.value.isNull()) parsedOptions_.insert_or_assign(finding.option, finding.value);
  }
  return parsePositionalArguments(arguments, index, block, &stop) && result;
}

// Everything from INDEX on, whatever it looks like. False when BLOCK stopped it.
bool GBCommandLineParser::parsePositionalArguments(const std::vector<std::string> &arguments, std::size_t index,
                                                   const GBParseBlock &block, bool *stop) {
  for (; index < arguments.size(); ++index) {
    const std::string argument = arguments[index];
    parsedArguments_.push_back(argument);
    block(GBParseEventArgument, std::nullopt, argument, stop);
    if (*stop) return false;
  }
  return true;
}

bool GBCommandLineParser::parseOptionsWithArguments(const char *const *arguments, int count,
                                                    const GBParseBlock &block) {
  if (count == 0) return true;
  const Text commandLine = vpnctl::stringWithUTF8String(arguments[0]);
  std::vector<std::string> list;
  for (int i = 1; i < count; ++i) list.push_back(vpnctl::element(vpnctl::stringWithUTF8String(arguments[i])));
  return parseOptionsWithArguments(list, commandLine.value_or(""), block);
}

bool GBCommandLineParser::parseOptionsUsingDefaultArgumentsWithBlock(const GBParseBlock &block) {
  std::vector<std::string> arguments = vpnctl::ProcessInfo::arguments();
  if (!arguments.empty()) arguments.erase(arguments.begin());
  return parseOptionsWithArguments(arguments, vpnctl::ProcessInfo::processName(), block);
}

vpnctl::Value GBCommandLineParser::valueForOption(std::string_view longName) const {
  const auto found = parsedOptions_.find(longName);
  return found != parsedOptions_.end() ? found->second : Value();
}

}  // namespace GB
