// One list that describes a tool's options, from which the parser learns them and help, version and a table of values
// are printed. The list also holds separators, and groups as an opening and an end. Nothing in it is checked: what is
// registered is kept and passed on as it stands.
//
// Usual sequence:
//
//   GBOptionsHelper options;
//   options.setApplicationVersion([] { return "1.2"; });
//   options.registerSeparator("Output:");
//   options.registerOption('o', "output", "Where to write", GBOptionRequiresValue);
//   options.registerGroup("build", "Making things", [](GBOptionsHelper &group) { ... });
//   parser.registerOptions(options);
//   ... options.printHelp(), options.printValuesFromSettings(*settings) ...
//
// Errors: a text that is missing where a table needs one (a separator's, a group's name) ends the process by
// std::invalid_argument, which is not meant to be caught. Thread rule: one thread; printing blocks as standard output
// does, through stdio.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/GBCommandLineParser.h"
#include "cli/GBSettings.h"
#include "cli/OptionDefinition.h"

namespace GB {

class OptionsTable;

class GBOptionsHelper {
 public:
  using Text = std::optional<std::string>;
  // Gives a text whenever one is printed; may be called more than once for one print. An empty function is no block.
  // None is "not known" for version and build, and not supported elsewhere.
  using TextBlock = std::function<Text()>;
  using OptionsBlock = std::function<void(GBOptionsHelper &helper)>;
  using EnumerationBlock = std::function<void(const OptionDefinition &definition, bool *stop)>;

  void registerOption(signed char shortOption, Text longOption, Text description, std::uint64_t flags);
  // A table ends with the first row that has neither long name nor description. Flags are taken as they stand: a
  // separator in a table says so itself.
  void registerOptionsFromDefinitions(const GBOptionDefinition *definitions);
  void registerSeparator(Text text);
  // OPTIONS_BLOCK, which is not empty, is called once, here, and registers the members. FLAGS go to the group's opening
  // alone: neither to its members nor to its end.
  void registerGroup(Text name, Text description, const OptionsBlock &optionsBlock);
  void registerGroup(Text name, Text description, std::uint64_t flags, const OptionsBlock &optionsBlock);

  // Hands everything that is for the command line to PARSER, in the list's order.
  void registerOptionsToCommandLineParser(GBCommandLineParser &parser) const;

  // Calls BLOCK for each definition, in order, until it sets *STOP. BLOCK must not register.
  void enumerateOptions(const EnumerationBlock &block) const;

  static std::uint64_t requirements(const OptionDefinition &definition);
  static bool isSeparator(const OptionDefinition &definition);
  static bool isOptionGroup(const OptionDefinition &definition);
  static bool isOptionGroupEnd(const OptionDefinition &definition);
  static bool isCmdLine(const OptionDefinition &definition);
  static bool isPrint(const OptionDefinition &definition);
  static bool isHelp(const OptionDefinition &definition);

  // Printing, to standard output. Widths are counted in UTF-16 code units.

  // "NAME: version VERSION (build BUILD)", as much of it as is known.
  void printVersion() const;
  // Header, one line per option, footer. Lines end in a blank.
  void printHelp() const;
  // Header, the arguments and which layer each is from, and a table of what each layer from SETTINGS down holds for
  // each option; footer.
  void printValuesFromSettings(const GBSettings &settings) const;
  // BLOCK's text, its placeholders replaced, and a newline; without a block the newline alone. "%APPVERSION" and
  // "%APPBUILD" become what is known of them. "%APPNAME" becomes the name only when a build is known.
  void replacePlaceholdersAndPrintStringFromBlock(const TextBlock &block) const;

  // The block's, or the process's name.
  std::string applicationNameFromBlockOrDefault() const;
  Text applicationVersionFromBlockOrNil() const { return applicationVersion_ ? applicationVersion_() : Text(); }
  Text applicationBuildFromBlockOrNil() const { return applicationBuild_ ? applicationBuild_() : Text(); }

  const std::vector<OptionDefinition> &registeredOptions() const { return registeredOptions_; }
  void setRegisteredOptions(std::vector<OptionDefinition> options) { registeredOptions_ = std::move(options); }

  const TextBlock &applicationName() const { return applicationName_; }
  void setApplicationName(TextBlock block) { applicationName_ = std::move(block); }
  const TextBlock &applicationVersion() const { return applicationVersion_; }
  void setApplicationVersion(TextBlock block) { applicationVersion_ = std::move(block); }
  const TextBlock &applicationBuild() const { return applicationBuild_; }
  void setApplicationBuild(TextBlock block) { applicationBuild_ = std::move(block); }
  const TextBlock &printValuesHeader() const { return printValuesHeader_; }
  void setPrintValuesHeader(TextBlock block) { printValuesHeader_ = std::move(block); }
  // Printed only when there are arguments.
  const TextBlock &printValuesArgumentsHeader() const { return printValuesArgumentsHeader_; }
  void setPrintValuesArgumentsHeader(TextBlock block) { printValuesArgumentsHeader_ = std::move(block); }
  const TextBlock &printValuesOptionsHeader() const { return printValuesOptionsHeader_; }
  void setPrintValuesOptionsHeader(TextBlock block) { printValuesOptionsHeader_ = std::move(block); }
  const TextBlock &printValuesFooter() const { return printValuesFooter_; }
  void setPrintValuesFooter(TextBlock block) { printValuesFooter_ = std::move(block); }
  const TextBlock &printHelpHeader() const { return printHelpHeader_; }
  void setPrintHelpHeader(TextBlock block) { printHelpHeader_ = std::move(block); }
  const TextBlock &printHelpFooter() const { return printHelpFooter_; }
  void setPrintHelpFooter(TextBlock block) { printHelpFooter_ = std::move(block); }

 private:
  OptionsTable helpTable() const;
  OptionsTable valuesTable(const GBSettings &settings, std::size_t *levels) const;
  void printArguments(const GBSettings &settings, bool withLevels) const;

  std::vector<OptionDefinition> registeredOptions_;
  TextBlock applicationName_;
  TextBlock applicationVersion_;
  TextBlock applicationBuild_;
  TextBlock printValuesHeader_;
  TextBlock printValuesArgumentsHeader_;
  TextBlock printValuesOptionsHeader_;
  TextBlock printValuesFooter_;
  TextBlock printHelpHeader_;
  TextBlock printHelpFooter_;
};

}  // namespace GB
