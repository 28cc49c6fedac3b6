// What an options helper prints.

#include <algorithm>
#include <cstdio>
#include <limits>
#include <string_view>
#include <utility>

#include "cli/GBOptionsHelper.h"
#include "cli/OptionsTable.h"
#include "foundation/Text.h"

namespace GB {

namespace {

using vpnctl::utf16Length;
using vpnctl::Value;

// The whole line, its end too, even where a value holds a zero byte.
void printLine(std::string line) {
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
}

std::string replaced(std::string text, std::string_view placeholder, std::string_view replacement) {
  for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += replacement.size())
    text.replace(at, placeholder.size(), replacement);
  return text;
}

std::string shortCell(const OptionDefinition &definition) {
  if (definition.shortOption() < 1) return "  ";
  return {'-', static_cast<char>(definition.shortOption())};
}

std::string longCell(const OptionDefinition &definition) {
  std::string name = "--" + definition.longOption().value_or("(null)");
  switch (static_cast<GBOptionRequirement>(GBOptionsHelper::requirements(definition))) {
    case GBOptionRequiresValue:
      return name + " <value>";
    case GBOptionValueOptional:
      return name + " [<value>]";
    case GBOptionNoValue:
      break;
  }
  return name;
}

// What LEVEL itself holds for KEY.
std::string valueCell(const GBSettings &level, const std::string &key) {
  if (!level.isKeyPresentAtThisLevel(key)) return {};
  const Value value = level.objectForKey(key);
  if (!level.isKeyArray(key)) return value.description();
  std::string cell;
  bool first = true;
  for (const Value &item : value.array()) {
    if (level.settingsForArrayValue(item, key) != &level) continue;
    if (!first) cell += ", ";
    cell += item.description();
    first = false;
  }
  return cell;
}

}  // namespace

void GBOptionsHelper::replacePlaceholdersAndPrintStringFromBlock(const TextBlock &block) const {
  std::string text;
  if (block) {
    text = vpnctl::element(block());
    // The build is the gate for the name: without one, "%APPNAME" stays as it is.
    if (applicationBuildFromBlockOrNil()) text = replaced(text, "%APPNAME", applicationNameFromBlockOrDefault());
    if (const Text version = applicationVersionFromBlockOrNil()) text = replaced(text, "%APPVERSION", *version);
    if (const Text build = applicationBuildFromBlockOrNil()) text = replaced(text, "%APPBUILD", *build);
  }
  printLine(std::move(text));
}

void GBOptionsHelper::printVersion() const {
  std::string line = applicationNameFromBlockOrDefault();
  if (const Text version = applicationVersionFromBlockOrNil()) line += ": version " + *version;
  if (const Text build = applicationBuildFromBlockOrNil()) line += " (build " + *build + ")";
  printLine(std::move(line));
}

OptionsTable GBOptionsHelper::helpTable() const {
  // The table starts without rows, so 0 would be a number of rows at which there is a separator.
  OptionsTable table(std::numeric_limits<std::int64_t>::max());
  enumerateOptions([&table](const OptionDefinition &definition, bool *) {
    if (!isHelp(definition) || isOptionGroupEnd(definition)) return;
    if (isSeparator(definition)) return table.addSeparator(definition);
    if (isOptionGroup(definition)) return table.addGroupHeading(definition);
    std::string longOption = longCell(definition);
    table.widen(1, utf16Length(longOption));
    table.add({shortCell(definition), std::move(longOption), definition.description().value_or("")});
  });
  table.dropPendingSeparator();
  return table;
}

void GBOptionsHelper::printHelp() const {
  const OptionsTable table = helpTable();
  replacePlaceholdersAndPrintStringFromBlock(printHelpHeader_);
  for (const OptionsTable::Row &row : table.rows()) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      line += row[column] + " ";
      if (column == 1) line.append(table.width(column) - utf16Length(row[column]), ' ');
    }
    printLine(std::move(line));
  }
  replacePlaceholdersAndPrintStringFromBlock(printHelpFooter_);
}

OptionsTable GBOptionsHelper::valuesTable(const GBSettings &settings, std::size_t *levels) const {
  OptionsTable table(0);  // the title is a row, so no separator comes at 0
  OptionsTable::Row title = {"Option"};
  settings.enumerateSettings([&title](const GBSettings &level, bool *) { title.push_back(level.name()); });
  for (std::size_t column = 0; column < title.size(); ++column) table.widen(column, utf16Length(title[column]));
  *levels = title.size() - 1;
  table.add(std::move(title));

  enumerateOptions([&](const OptionDefinition &definition, bool *) {
    if (!isPrint(definition) || isOptionGroupEnd(definition)) return;
    if (isSeparator(definition)) return table.addSeparator(definition);
    if (isOptionGroup(definition)) return table.addGroupHeading(definition);
    OptionsTable::Row row = {vpnctl::element(definition.longOption())};
    settings.enumerateSettings(
        [&row](const GBSettings &level, bool *) { row.push_back(valueCell(level, row.front())); });
    for (std::size_t column = 0; column < row.size(); ++column) table.widen(column, utf16Length(row[column]));
    table.add(std::move(row));
  });
  table.dropPendingSeparator();
  return table;
}

void GBOptionsHelper::printArguments(const GBSettings &settings, bool withLevels) const {
  const Value arguments = settings.arguments();
  if (arguments.array().empty()) return;
  replacePlaceholdersAndPrintStringFromBlock(printValuesArgumentsHeader_);
  for (const Value &argument : arguments.array()) {
    std::string line = "- " + argument.description();
    if (withLevels) {
      const GBSettings *level = settings.settingsForArrayValue(argument, GBSettingsArgumentsKey);
      line += " (" + (level != nullptr ? level->name() : "(null)") + ")";
    }
    printLine(std::move(line));
  }
  printLine("");
}

void GBOptionsHelper::printValuesFromSettings(const GBSettings &settings) const {
  std::size_t levels = 0;
  const OptionsTable table = valuesTable(settings, &levels);
  replacePlaceholdersAndPrintStringFromBlock(printValuesHeader_);
  printArguments(settings, levels >= 2);
  replacePlaceholdersAndPrintStringFromBlock(printValuesOptionsHeader_);
  for (const OptionsTable::Row &row : table.rows()) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column) {
      // The one cell of a separator or a group may be wider than its column; one blank follows all the same.
      const std::size_t length = utf16Length(row[column]);
      line += row[column];
      line.append(std::max(table.width(column), length) - length + 1, ' ');
    }
    printLine(std::move(line));
  }
  replacePlaceholdersAndPrintStringFromBlock(printValuesFooter_);
}

}  // namespace GB
