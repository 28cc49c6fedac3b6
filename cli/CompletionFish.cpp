#include "cli/CompletionScripts.h"

namespace GB {

namespace {

// In fish's single quotation marks.
std::string quotedForFish(std::string_view text) {
  std::string result = "'";
  for (const char character : text) {
    if (character == '\'' || character == '\\') result += '\\';
    result += character;
  }
  return result + "'";
}

// What must be true for a completion behind PATH.
std::string conditionOf(const CommandPath &path) {
  std::string condition;
  for (std::size_t level = 1; level < path.size(); ++level)
    condition +=
        (condition.empty() ? "" : "; and ") + ("__fish_seen_subcommand_from " + std::string(path[level]->name));
  return condition;
}

std::string startOf(const Command &program, const std::string &condition) {
  std::string line = "complete -c " + quotedForFish(program.name);
  if (!condition.empty()) line += " -n " + quotedForFish(condition);
  return line;
}

std::string valueOf(const Option &option) {
  const std::string needed = option.valueOptional ? "" : " -r";
  switch (option.kind) {
    case OptionKind::file:
      return needed + " -F";
    case OptionKind::folder:
      return needed + " -f -a '(__fish_complete_directories (commandline -ct))'";
    case OptionKind::choice: {
      // Each choice is a word of a text that fish reads once more.
      std::string words;
      forEachChoice(option.choices,
                    [&](std::string_view choice) { words += (words.empty() ? "" : " ") + quotedForFish(choice); });
      return needed + " -f -a " + quotedForFish(words);
    }
    case OptionKind::text:
    case OptionKind::integer:
      break;
  }
  return needed + " -f";
}

std::string linesOf(const std::string &start, const Option &option) {
  const std::string described = option.description.empty() ? "" : " -d " + quotedForFish(option.description);
  std::string line = start + " -l " + quotedForFish(option.name);
  if (option.letter != 0) line += std::string(" -s ") + option.letter;
  line += (option.isSwitch() ? "" : valueOf(option)) + described + "\n";
  if (option.negatable) line += start + " -l " + quotedForFish("no-" + std::string(option.name)) + described + "\n";
  return line;
}

std::string commandLines(const Command &program, const CommandPath &path) {
  std::string names;
  for (const Command &choice : path.back()->commands) names += " " + std::string(choice.name);
  const std::string condition = conditionOf(path);
  const std::string start =
      startOf(program, condition + (condition.empty() ? "" : "; and ") + "not __fish_seen_subcommand_from" + names);
  std::string lines;
  for (const Command &choice : path.back()->commands)
    lines += start + " -a " + quotedForFish(choice.name) + " -d " + quotedForFish(choice.summary) + "\n";
  return lines;
}

}  // namespace

std::string fishCompletion(const Command &program) {
  std::string text = "# fish completion for " + std::string(program.name) + "\n\n" + startOf(program, "") + " -f\n";
  CommandPath path = {&program};
  forEachCommand(&path, [&](const CommandPath &current) {
    const std::string start = startOf(program, conditionOf(current));
    if (current.size() == 1)
      for (const Option &option : completedOptions(current)) text += linesOf(start, option);
    else  // what a command takes from those above it is said there
      for (const Option &option : current.back()->options)
        if (!option.isHeading() && !option.hidden) text += linesOf(start, option);
    if (!current.back()->commands.empty())
      text += commandLines(program, current);
    else if (current.back()->maximumOperands > 0)
      text += start + valueOf({.kind = current.back()->operandKind, .valueOptional = true}) + "\n";
  });
  return text;
}

}  // namespace GB
