#include "cli/CompletionScripts.h"

namespace GB {

namespace {

// TEXT within a specification of _arguments, where brackets, colons and backslashes mean something.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char character : text) {
    if (std::string_view("[]:\\").find(character) != std::string_view::npos) result += '\\';
    result += character;
  }
  return result;
}

// A choice within parentheses, where blanks and parentheses do, too.
std::string escapedChoice(std::string_view text) {
  std::string result;
  for (const char character : text) {
    if (std::string_view(" ()[]:\\'\"$`").find(character) != std::string_view::npos) result += '\\';
    result += character;
  }
  return result;
}

std::string actionOf(const Option &option) {
  switch (option.kind) {
    case OptionKind::file:
      return "_files";
    case OptionKind::folder:
      return "_files -/";
    case OptionKind::choice: {
      std::string words;
      forEachChoice(option.choices,
                    [&](std::string_view choice) { words += (words.empty() ? "" : " ") + escapedChoice(choice); });
      return "(" + words + ")";
    }
    case OptionKind::text:
    case OptionKind::integer:
      break;
  }
  return " ";
}

// The lines of one option for _arguments: one for each of its forms, which exclude each other.
std::string linesOf(const Option &option) {
  const std::string name(option.name);
  std::string forms = option.letter != 0 ? std::string("-") + option.letter + " --" + name : "--" + name;
  if (option.negatable) forms += " --no-" + name;
  std::string rest = "[" + escaped(option.description) + "]";
  if (!option.isSwitch()) rest += (option.valueOptional ? "::" : ":") + escaped(option.value) + ":" + actionOf(option);
  const auto line = [&](const std::string &form) { return " \\\n    " + shellQuoted("(" + forms + ")" + form + rest); };
  const std::string joined = option.isSwitch() ? "" : option.valueOptional ? "=-" : "=";
  std::string lines = line("--" + name + joined);
  if (option.letter != 0)
    lines += line(std::string("-") + option.letter + (option.isSwitch() ? "" : option.valueOptional ? "-" : "+"));
  if (option.negatable) lines += line("--no-" + name);
  return lines;
}

std::string functionOf(const CommandPath &path) {
  std::string name;
  for (const Command *command : path) name += functionName(command->name);
  return name;
}

std::string choiceOfCommands(const CommandPath &path) {
  std::string described;
  std::string calls;
  CommandPath below = path;
  for (const Command &choice : path.back()->commands) {
    below.push_back(&choice);
    described += "\n        " + shellQuoted(escaped(choice.name) + ":" + std::string(choice.summary));
    calls += "        " + shellQuoted(choice.name) + ") " + functionOf(below) + " ;;\n";
    below.pop_back();
  }
  return "  case $state in\n    command)\n      local -a commands=(" + described +
         "\n      )\n      _describe command commands ;;\n    rest)\n      case $words[1] in\n" + calls +
         "      esac ;;\n  esac\n";
}

std::string functionText(const CommandPath &path) {
  const Command &command = *path.back();
  std::string text = functionOf(path) + "() {\n  local state line\n  typeset -A opt_args\n  _arguments -s -S -C";
  for (const Option &option : completedOptions(path)) text += linesOf(option);
  if (!command.commands.empty())
    text += " \\\n    '1: :->command' \\\n    '*:: :->rest'";
  else if (command.maximumOperands > 0)
    text += " \\\n    " + shellQuoted("*: :" + actionOf({.kind = command.operandKind}));
  text += "\n";
  if (!command.commands.empty()) text += choiceOfCommands(path);
  return text + "}\n\n";
}

}  // namespace

std::string zshCompletion(const Command &program) {
  const std::string name(program.name);
  std::string text = "#compdef " + name + "\n\n";
  CommandPath path = {&program};
  forEachCommand(&path, [&text](const CommandPath &current) { text += functionText(current); });
  const std::string function = functionOf({&program});
  // As a file of $fpath it is the function's body; a file that is read defines it.
  return text + "if [[ $funcstack[1] = " + function + " ]]; then\n  " + function + " \"$@\"\nelse\n  compdef " +
         function + " " + shellQuoted(name) + "\nfi\n";
}

}  // namespace GB
