// Turns a command line into option values and positional arguments: long options ("--name=value", "--name value"),
// one-letter shortcuts ("-n value"), switches with a negated form ("--no-name"), and groups of options, whose names,
// given on the command line, restrict which options may follow.
//
// Usual sequence:
//
//   GBCommandLineParser parser;
//   parser.registerOption("output", 'o', GBOptionRequiresValue);
//   parser.registerSwitch("verbose", 'v');
//   parser.registerSettings(settings);
//   if (!parser.parseOptionsWithArguments(argv, argc)) return 1;
//   ... settings->objectForKey("output"), parser.arguments() ...
//
// or with a block of one's own instead of settings. Registries outlive a parse, and registering may go on after one; so
// does a group: one that the last parse was in is still current, and takes what is registered then.
//
// Errors: bad options are reported to the block and in the result, never by exceptions. A null name, and an argument
// vector with a null element or one that is not UTF-8, end the process by std::invalid_argument, which is not meant to
// be caught. Thread rule: one thread; nothing blocks.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cli/GBOptionRequirement.h"
#include "cli/GBSettings.h"
#include "foundation/Value.h"

namespace GB {

class GBOptionsHelper;

// What a parse reports; `option` and `value` are the arguments of the block that go with it.
enum GBParseEvent : std::uint64_t {
  // A recognised option: its long name ("no-x" for a negated switch) and its value; or a group's name and YES.
  GBParseEventOption = 0,
  // A positional argument: no option; the argument.
  GBParseEventArgument = 1,
  // A registered option that is no member of the active group: as typed; the text behind "=", or null.
  GBParseEventOptionNotInGroup = 2,
  // A required value is missing: the long name; the argument that follows, which is no value and is not consumed, or
  // null.
  GBParseEventMissingValue = 3,
  // What starts with "-" and is not registered: as typed; the text behind "=", or null.
  GBParseEventUnknownOption = 4,
};

// *STOP set to true ends the parse with false. After a group's name nobody looks at it; it is seen after the next
// event.
using GBParseBlock = std::function<void(GBParseEvent event, const std::optional<std::string> &option,
                                        const vpnctl::Value &value, bool *stop)>;

// A registered option: "long", "requirement", and "short" if there is one. The registries share one record, so a key
// added to it is seen through all of them.
using GBOptionRecord = std::shared_ptr<vpnctl::Value::Dictionary>;

// A group's members: long names, and for each switch the record (not the name) of its "no-" form.
using GBOptionGroup = std::set<std::variant<std::string, GBOptionRecord>>;

class GBCommandLineParser {
 public:
  using Text = std::optional<std::string>;
  using Value = vpnctl::Value;
  using OptionsByName = std::map<std::string, GBOptionRecord, std::less<>>;
  using GroupsByName = std::map<std::string, std::shared_ptr<GBOptionGroup>, std::less<>>;

  GBCommandLineParser() = default;
  // The block of simplifiedOptionsParserBlock() points here.
  GBCommandLineParser(const GBCommandLineParser &) = delete;
  GBCommandLineParser &operator=(const GBCommandLineParser &) = delete;
  virtual ~GBCommandLineParser() = default;

  // Registration. Of two options of one name, and of two shortcuts of one letter, the later wins without a word.

  // SHORTCUT 0, or one with the top bit set, is none. A switch (exactly GBOptionNoValue) gets its "no-" form too, which
  // a group that is open takes in such a way that it is always refused there.
  void registerOption(const Text &longName, char shortcut, GBOptionRequirement requirement);
  void registerOption(const Text &longName, GBOptionRequirement requirement);
  void registerSwitch(const Text &longName, char shortcut);
  void registerSwitch(const Text &longName);
  // Every definition of HELPER that is meant for the command line.
  void registerOptions(const GBOptionsHelper &helper);

  // What is registered up to endRegisterOptionGroup() belongs to the group. A name that is registered already is
  // reported on standard error ("Group NAME is already registered!", no newline), and the group goes on filling.
  void beginRegisterOptionGroup(const Text &groupName);
  // Harmless where no group is open.
  void endRegisterOptionGroup();

  // Where the simplified block stores; null for nowhere. Shared.
  void registerSettings(std::shared_ptr<GBSettings> settings) { settings_ = std::move(settings); }

  // Looks at the first characters only: "-5", "-" and "--unknown" are option names.
  bool isShortOrLongOptionName(std::string_view argument) const { return argument.starts_with('-'); }
  bool isOptionGroupName(std::string_view argument) const { return registeredOptionGroupsByNames_.contains(argument); }

  // Parsing with the simplified block: options and arguments go into the registered settings, errors to standard error.
  // True unless an option was unknown or outside the active group; a missing value is reported but does not count.

  [[nodiscard]] bool parseOptionsUsingDefaultArguments();
  // argv and argc as main() gets them. A count of 0 is true at once and leaves the results of the last parse.
  [[nodiscard]] bool parseOptionsWithArguments(const char *const *arguments, int count);
  // COMMAND_LINE is the program's name, and not used.
  [[nodiscard]] bool parseOptionsWithArguments(const std::vector<std::string> &arguments,
                                               const std::string &commandLine);

  // Parsing with BLOCK, which is not null. False also when it stopped the parse.

  // The process's own arguments, as bytes, behind the program's path.
  [[nodiscard]] bool parseOptionsUsingDefaultArgumentsWithBlock(const GBParseBlock &block);
  [[nodiscard]] bool parseOptionsWithArguments(const char *const *arguments, int count, const GBParseBlock &block);
  // BLOCK may append to ARGUMENTS meanwhile; what it appends is parsed too.
  [[nodiscard]] bool parseOptionsWithArguments(const std::vector<std::string> &arguments,
                                               const std::string &commandLine, const GBParseBlock &block);

  // A new block as the simplified parses use it. It holds a pointer to this parser, which must outlive it.
  GBParseBlock simplifiedOptionsParserBlock();

  // What ARGUMENT names: an option's record; one of the two sentinels (groupSentinel() makes the group active); null
  // for an option that is not registered. *VALUE, if given, receives the text behind an option's last "="; it is left
  // alone otherwise.
  GBOptionRecord optionDataForOption(std::string_view argument, Value *value);
  // Told from every record by identity; their contents say nothing.
  static const GBOptionRecord &groupSentinel();
  static const GBOptionRecord &notAnOptionSentinel();

  // The last parse's value of an option, by the name that the block was given; null when there was none. Every event
  // with a value counts: an unknown "--x=1" is found as "--x=1".
  Value valueForOption(std::string_view longName) const;
  // The last parse's positional arguments, a copy.
  std::vector<std::string> arguments() const { return parsedArguments_; }

  // The state itself.

  const OptionsByName &registeredOptionsByLongNames() const { return registeredOptionsByLongNames_; }
  void setRegisteredOptionsByLongNames(OptionsByName options) { registeredOptionsByLongNames_ = std::move(options); }
  const OptionsByName &registeredOptionsByShortNames() const { return registeredOptionsByShortNames_; }
  void setRegisteredOptionsByShortNames(OptionsByName options) { registeredOptionsByShortNames_ = std::move(options); }
  const GroupsByName &registeredOptionGroupsByNames() const { return registeredOptionGroupsByNames_; }
  void setRegisteredOptionGroupsByNames(GroupsByName groups) { registeredOptionGroupsByNames_ = std::move(groups); }
  // The group being filled, or being enforced; null when there is none. Shared with the registry.
  const std::shared_ptr<GBOptionGroup> &currentOptionsGroupOptions() const { return currentOptionsGroupOptions_; }
  void setCurrentOptionsGroupOptions(std::shared_ptr<GBOptionGroup> group) {
    currentOptionsGroupOptions_ = std::move(group);
  }
  // The group that parsing met last; registration only clears it.
  const Text &currentOptionsGroupName() const { return currentOptionsGroupName_; }
  void setCurrentOptionsGroupName(Text name) { currentOptionsGroupName_ = std::move(name); }
  const std::shared_ptr<GBSettings> &settings() const { return settings_; }
  void setSettings(std::shared_ptr<GBSettings> settings) { settings_ = std::move(settings); }
  const Value::Dictionary &parsedOptions() const { return parsedOptions_; }
  void setParsedOptions(Value::Dictionary options) { parsedOptions_ = std::move(options); }
  const std::vector<std::string> &parsedArguments() const { return parsedArguments_; }
  void setParsedArguments(std::vector<std::string> arguments) { parsedArguments_ = std::move(arguments); }

  // Called by each simplified parse with its own selector ("parseOptionsWithArguments:count:") before anything else.
  // Does nothing; a subclass may check what has been registered.
  virtual void validateSimplifiedOptionsWithSelector(std::string_view selector);

 private:
  struct Finding;

  GBOptionRecord addRecord(const std::string &longName, GBOptionRequirement requirement);
  Finding findingFor(const GBOptionRecord &record, const std::string &argument, Value given,
                     const std::vector<std::string> &arguments, std::size_t index) const;
  bool isOptionOrGroupName(std::string_view argument) const;
  bool parsePositionalArguments(const std::vector<std::string> &arguments, std::size_t index, const GBParseBlock &block,
                                bool *stop);

  OptionsByName registeredOptionsByLongNames_;
  OptionsByName registeredOptionsByShortNames_;
  GroupsByName registeredOptionGroupsByNames_;
  std::shared_ptr<GBOptionGroup> currentOptionsGroupOptions_;
  Text currentOptionsGroupName_;
  std::shared_ptr<GBSettings> settings_;
  Value::Dictionary parsedOptions_;
  std::vector<std::string> parsedArguments_;
};

}  // namespace GB
