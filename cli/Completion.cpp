#include "cli/Completion.h"

#include <algorithm>

#include "cli/CompletionScripts.h"

namespace GB {

std::optional<Shell> shellNamed(std::string_view name) {
  if (name == "bash") return Shell::bash;
  if (name == "zsh") return Shell::zsh;
  if (name == "fish") return Shell::fish;
  return std::nullopt;
}

std::string completionScript(const Command &program, Shell shell) {
  switch (shell) {
    case Shell::bash:
      return bashCompletion(program);
    case Shell::zsh:
      return zshCompletion(program);
    case Shell::fish:
      return fishCompletion(program);
  }
  return {};
}

std::vector<Option> completedOptions(const CommandPath &path) {
  std::vector<Option> options;
  const auto has = [&options](auto matches) { return std::any_of(options.begin(), options.end(), matches); };
  for (std::size_t level = path.size(); level-- > 0;)
    for (const Option &option : path[level]->options)
      if (!option.isHeading() && !option.hidden && !has([&](const Option &other) { return other.name == option.name; }))
        options.push_back(option);
  if (!has([](const Option &option) { return option.name == "help"; })) {
    const bool isTaken = has([](const Option &option) { return option.letter == 'h'; });
    options.push_back({.name = "help", .letter = isTaken ? '\0' : 'h', .description = "Print help and end"});
  }
  if (!path.front()->version.empty() && !has([](const Option &option) { return option.name == "version"; }))
    options.push_back({.name = "version", .description = "Print the version and end"});
  return options;
}

std::string functionName(std::string_view name) {
  std::string result = "_";
  for (const char character : name) {
    const bool isPlain = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
                         (character >= '0' && character <= '9');
    result += isPlain ? character : '_';
  }
  return result;
}

std::string shellQuoted(std::string_view text) {
  std::string result = "'";
  for (const char character : text)
    if (character == '\'')
      result += "'\\''";
    else
      result += character;
  return result + "'";
}

}  // namespace GB
