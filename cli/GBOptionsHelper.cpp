#include "cli/GBOptionsHelper.h"

#include "foundation/ProcessInfo.h"
#include "foundation/Text.h"

namespace GB {

namespace {

std::optional<std::string> textOrNone(const char *text) {
  return text != nullptr ? vpnctl::stringWithUTF8String(text) : std::nullopt;
}

bool has(const OptionDefinition &definition, GBOptionFlags flag) { return (definition.flags() & flag) != 0; }

}  // namespace

void GBOptionsHelper::registerOption(signed char shortOption, Text longOption, Text description, std::uint64_t flags) {
  registeredOptions_.emplace_back(shortOption, std::move(longOption), std::move(description), flags);
}

void GBOptionsHelper::registerOptionsFromDefinitions(const GBOptionDefinition *definitions) {
  for (; definitions->longOption != nullptr || definitions->description != nullptr; ++definitions) {
    registerOption(definitions->shortOption, textOrNone(definitions->longOption), textOrNone(definitions->description),
                   definitions->flags);
  }
}

void GBOptionsHelper::registerSeparator(Text text) {
  registerOption(0, std::nullopt, std::move(text), GBOptionFlagSeparator);
}

void GBOptionsHelper::registerGroup(Text name, Text description, const OptionsBlock &optionsBlock) {
  registerGroup(std::move(name), std::move(description), 0, optionsBlock);
}

void GBOptionsHelper::registerGroup(Text name, Text description, std::uint64_t flags,
                                    const OptionsBlock &optionsBlock) {
  registeredOptions_.emplace_back(0, std::move(name), std::move(description), flags | GBOptionFlagGroup);
  optionsBlock(*this);
  registeredOptions_.emplace_back(0, std::nullopt, std::nullopt, GBOptionFlagGroupEnd);
}

void GBOptionsHelper::registerOptionsToCommandLineParser(GBCommandLineParser &parser) const {
  enumerateOptions([&parser](const OptionDefinition &definition, bool *) {
    if (!isCmdLine(definition) || isSeparator(definition)) return;
    if (isOptionGroup(definition)) {
      parser.beginRegisterOptionGroup(definition.longOption());
    } else if (isOptionGroupEnd(definition)) {
      // Also for a group that is not on the command line: its end does not know.
      parser.endRegisterOptionGroup();
    } else {
      parser.registerOption(definition.longOption(), static_cast<char>(definition.shortOption()),
                            static_cast<GBOptionRequirement>(requirements(definition)));
    }
  });
}

void GBCommandLineParser::registerOptions(const GBOptionsHelper &helper) {
  helper.registerOptionsToCommandLineParser(*this);
}

void GBOptionsHelper::enumerateOptions(const EnumerationBlock &block) const {
  bool stop = false;
  for (std::size_t i = 0; i < registeredOptions_.size() && !stop; ++i) block(registeredOptions_[i], &stop);
}

std::uint64_t GBOptionsHelper::requirements(const OptionDefinition &definition) {
  return definition.flags() & GBOptionFlagRequirementMask;
}

bool GBOptionsHelper::isSeparator(const OptionDefinition &definition) { return has(definition, GBOptionFlagSeparator); }
bool GBOptionsHelper::isOptionGroup(const OptionDefinition &definition) { return has(definition, GBOptionFlagGroup); }
bool GBOptionsHelper::isOptionGroupEnd(const OptionDefinition &definition) {
  return has(definition, GBOptionFlagGroupEnd);
}
bool GBOptionsHelper::isCmdLine(const OptionDefinition &definition) { return !has(definition, GBOptionFlagNoCmdLine); }
bool GBOptionsHelper::isPrint(const OptionDefinition &definition) { return !has(definition, GBOptionFlagNoPrint); }
bool GBOptionsHelper::isHelp(const OptionDefinition &definition) { return !has(definition, GBOptionFlagNoHelp); }

std::string GBOptionsHelper::applicationNameFromBlockOrDefault() const {
  return applicationName_ ? vpnctl::element(applicationName_()) : vpnctl::ProcessInfo::processName();
}

}  // namespace GB
