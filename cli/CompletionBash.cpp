#include "cli/CompletionScripts.h"

namespace GB {

namespace {

// "'' start" for the command start of the program: what the script keeps in $command.
std::string keyOf(const CommandPath &path) {
  std::string key;
  for (std::size_t level = 1; level < path.size(); ++level) key += " " + std::string(path[level]->name);
  return key;
}

// "' start --config'|' start -c'", a pattern for $command and the word behind it, which ends in ENDING.
std::string patternOf(const CommandPath &path, const Option &option, const std::string &ending) {
  const std::string key = keyOf(path);
  std::string pattern = shellQuoted(key + " --" + std::string(option.name) + ending);
  if (option.letter != 0) pattern += "|" + shellQuoted(key + " -" + option.letter + ending);
  return pattern;
}

std::string valuesOf(const Option &option) {
  switch (option.kind) {
    case OptionKind::file:
      return "_cli_paths -f";
    case OptionKind::folder:
      return "_cli_paths -d";
    case OptionKind::choice: {
      std::string words = "_cli_offer";
      forEachChoice(option.choices, [&](std::string_view choice) { words += " " + shellQuoted(choice); });
      return words;
    }
    case OptionKind::text:
    case OptionKind::integer:
      break;
  }
  return ":";
}

std::string wordsOf(const CommandPath &path) {
  std::string words;
  for (const Option &option : completedOptions(path)) {
    words += " --" + std::string(option.name);
    if (option.letter != 0) words += std::string(" -") + option.letter;
    if (option.negatable) words += " --no-" + std::string(option.name);
  }
  return words;
}

std::string operandsOf(const Command &command) {
  if (command.commands.empty()) return command.maximumOperands > 0 ? valuesOf({.kind = command.operandKind}) : ":";
  std::string words = "_cli_offer";
  for (const Command &choice : command.commands) words += " " + shellQuoted(choice.name);
  return words;
}

// What depends on the definition: the lines of the script's three decisions.
struct Cases {
  std::string walk;      // which words are commands, which are values
  std::string values;    // what may stand behind an option
  std::string operands;  // what may stand elsewhere
};

Cases casesOf(const Command &program) {
  Cases cases;
  CommandPath path = {&program};
  forEachCommand(&path, [&cases](const CommandPath &current) {
    const std::string key = keyOf(current);
    if (current.size() > 1) cases.walk += "      " + shellQuoted(key) + ") command=" + shellQuoted(key) + " ;;\n";
    for (const Option &option : completedOptions(current)) {
      if (option.isSwitch()) continue;
      std::string joined = patternOf(current, option, "=");
      if (!option.valueOptional) {
        const std::string apart = patternOf(current, option, "");
        cases.walk += "      " + apart + ") skip=1 ;;\n";
        joined += "|" + apart;
      }
      cases.values += "    " + joined + ") " + valuesOf(option) + "; return ;;\n";
    }
    cases.operands += "    " + shellQuoted(key) + ")\n      if [[ $current == -* ]]; then _cli_offer" +
                      wordsOf(current) + "; else " + operandsOf(*current.back()) + "; fi ;;\n";
  });
  return cases;
}

// bash splits "--mode=fast" into three words, of which "=" is one. The helpers are functions of the whole shell, the
// same in every program's script.
constexpr std::string_view kBeginning = R"bash(
  _cli_offer() {
    local word
    for word in "$@"; do
      [[ $word == "$current"* ]] && COMPREPLY+=("$(printf %q "$word")")
    done
  }
  _cli_paths() {
    compopt -o filenames 2>/dev/null
    local path
    while IFS= read -r path; do COMPREPLY+=("$path"); done < <(compgen "$1" -- "$current")
  }
  local current=${COMP_WORDS[COMP_CWORD]} previous= command= skip= i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    if [[ -n $skip ]]; then
      [[ ${COMP_WORDS[i]} == = ]] || skip=
      continue
    fi
    case "$command ${COMP_WORDS[i]}" in
)bash";

}  // namespace

std::string bashCompletion(const Command &program) {
  const std::string name(program.name);
  const std::string function = functionName(name);
  const Cases cases = casesOf(program);
  std::string text =
      "# bash completion for " + name + "\n\n" + function + "() {" + std::string(kBeginning) + cases.walk;
  text +=
      "    esac\n"
      "  done\n"
      "  [[ $COMP_CWORD -gt 0 ]] && previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
      "  if [[ $current == = ]]; then\n"
      "    current= previous+==\n"
      "  elif [[ $previous == = ]]; then\n"
      "    previous=${COMP_WORDS[COMP_CWORD - 2]}=\n"
      "  fi\n"
      "  case \"$command $previous\" in\n" +
      cases.values +
      "  esac\n"
      "  case $command in\n" +
      cases.operands +
      "  esac\n"
      "}\n\n"
      "complete -F " +
      function + " " + shellQuoted(name) + "\n";
  return text;
}

}  // namespace GB
