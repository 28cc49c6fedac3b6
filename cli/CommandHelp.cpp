#include "cli/CommandHelp.h"

#include <algorithm>
#include <cstdio>

#include "foundation/Text.h"

namespace GB {

namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kWidestNames = 30;  // names that are wider have their description on the next line

struct Row {
  std::string names;
  std::string description;
};

std::string namesOf(const Option &option) {
  std::string names = option.letter != 0 ? std::string("  -") + option.letter + ", --" : std::string("      --");
  if (option.negatable) names += "[no-]";
  names += option.name;
  if (option.isSwitch()) return names;
  const std::string value(option.value);
  return names + (option.valueOptional ? "[=" + value + "]" : " " + value);
}

void addNote(std::string *notes, const std::string &note) { *notes += (notes->empty() ? "" : "; ") + note; }

std::string limitsOf(const Option &option) {
  const bool hasMinimum = option.minimum != std::numeric_limits<std::int64_t>::min();
  const bool hasMaximum = option.maximum != std::numeric_limits<std::int64_t>::max();
  if (hasMinimum && hasMaximum) return std::to_string(option.minimum) + " to " + std::to_string(option.maximum);
  if (hasMinimum) return "at least " + std::to_string(option.minimum);
  return hasMaximum ? "at most " + std::to_string(option.maximum) : "";
}

std::string choicesOf(const Option &option) {
  std::string names;
  forEachChoice(option.choices,
                [&](std::string_view choice) { names += (names.empty() ? "" : ", ") + std::string(choice); });
  return names;
}

std::string descriptionOf(const Option &option) {
  std::string notes;
  if (const std::string limits = limitsOf(option); option.kind == OptionKind::integer && !limits.empty())
    addNote(&notes, limits);
  if (option.kind == OptionKind::choice) addNote(&notes, choicesOf(option));
  if (option.required) addNote(&notes, "required");
  if (!option.standard.empty()) addNote(&notes, "default: " + std::string(option.standard));
  std::string description(option.description);
  if (notes.empty()) return description;
  return description + (description.empty() ? "(" : " (") + notes + ")";
}

// TEXT in lines of at most WIDTH, all but the first indented.
std::string wrapped(std::string_view text, std::size_t indent, std::size_t width) {
  std::string result;
  std::size_t used = 0;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (word.empty()) continue;
    const std::size_t length = vpnctl::utf16Length(word);
    if (used > 0 && used + 1 + length > width) {
      result += "\n" + std::string(indent, ' ');
      used = 0;
    } else if (used > 0) {
      result += ' ';
      ++used;
    }
    result += word;
    used += length;
  }
  return result;
}

std::string layout(const std::vector<Row> &rows) {
  std::size_t column = 0;
  for (const Row &row : rows)
    if (const std::size_t width = vpnctl::utf16Length(row.names); width <= kWidestNames)
      column = std::max(column, width);
  column += 2;
  std::string text;
  for (const Row &row : rows) {
    text += row.names;
    if (!row.description.empty()) {
      const std::size_t width = vpnctl::utf16Length(row.names);
      text += width + 2 > column ? "\n" + std::string(column, ' ') : std::string(column - width, ' ');
      text += wrapped(row.description, column, kWidth - column);
    }
    text += '\n';
  }
  return text;
}

bool isDefined(const CommandPath &path, std::string_view name) {
  return std::any_of(
      path.begin(), path.end(),
      [name](const Command *command) {
        return std::any_of(
            command->options.begin(), command->options.end(),
            [name](const Option &option) { return option.name == name; });
      });
}

bool hasLetter(const CommandPath &path, char letter) {
  return std::any_of(
      path.begin(), path.end(),
      [letter](const Command *command) {
        return std::any_of(
            command->options.begin(), command->options.end(),
            [letter](const Option &option) { return option.letter == letter; });
      });
}

std::string optionsText(const CommandPath &path) {
  std::vector<Row> rows;
  const auto separate = [&rows](std::string heading) {
    if (!rows.empty()) rows.push_back({});
    rows.push_back({std::move(heading), {}});
  };
  for (std::size_t level = path.size(); level-- > 0;) {
    const Table<Option> options = path[level]->options;
    const bool isHeaded = !options.empty() && options.begin()->isHeading();
    const bool isOuter = level + 1 < path.size();
    if (!options.empty() && !isHeaded)
      separate(isOuter ? "Options of " + std::string(path[level]->name) + ":" : "Options:");
    for (const Option &option : options)
      if (option.isHeading())
        separate(std::string(option.description));
      else if (!option.hidden)
        rows.push_back({namesOf(option), descriptionOf(option)});
  }
  if (rows.empty()) separate("Options:");
  if (!isDefined(path, "help"))
    rows.push_back({hasLetter(path, 'h') ? "      --help" : "  -h, --help", "Print this text and end"});
  if (!path.front()->version.empty() && !isDefined(path, "version"))
    rows.push_back({"      --version", "Print the version and end"});
  return layout(rows);
}

std::string commandsText(const Command &command) {
  std::vector<Row> rows;
  for (const Command &choice : command.commands)
    rows.push_back({"  " + std::string(choice.name), std::string(choice.summary)});
  return rows.empty() ? "" : "\nCommands:\n" + layout(rows);
}

}  // namespace

std::string usageLine(const CommandPath &path) {
  std::string line = "Usage:";
  std::string required;
  for (const Command *command : path) {
    line += " " + std::string(command->name);
    for (const Option &option : command->options)
      if (option.required) required += " --" + std::string(option.name) + " " + std::string(option.value);
  }
  line += required + " [OPTIONS]";
  const Command &command = *path.back();
  if (!command.commands.empty()) return line + " COMMAND\n";
  if (!command.operands.empty()) line += " " + std::string(command.operands);
  return line + "\n";
}

std::string helpText(const CommandPath &path) {
  std::string text = usageLine(path);
  if (const std::string_view summary = path.back()->summary; !summary.empty())
    text += "\n" + wrapped(summary, 0, kWidth) + "\n";
  return text + "\n" + optionsText(path) + commandsText(*path.back());
}

std::string versionLine(const Command &program) {
  return std::string(program.name) + " " + std::string(program.version) + "\n";
}

bool printWhatIsAsked(const CommandLine &line) {
  switch (line.request()) {
    case CommandLine::Request::run:
      return false;
    case CommandLine::Request::help:
      std::fputs(helpText(line.commands()).c_str(), stdout);
      return true;
    case CommandLine::Request::version:
      std::fputs(versionLine(*line.commands().front()).c_str(), stdout);
      return true;
  }
  return false;
}

int printUsageError(const Command &program, const vpnctl::Error &error) {
  const std::string name(program.name);
  std::fputs((name + ": " + error.message + "\nTry \"" + name + " --help\".\n").c_str(), stderr);
  return 2;
}

}  // namespace GB
