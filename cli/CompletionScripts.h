// What the scripts for the shells have in common. Private to Completion.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cli/Command.h"

namespace GB {

using CommandPath = std::vector<const Command *>;

std::string bashCompletion(const Command &program);
std::string zshCompletion(const Command &program);
std::string fishCompletion(const Command &program);

// Calls FUNCTION with the path of each command, outer ones first.
template <class Function>
void forEachCommand(CommandPath *path, Function function) {
  function(*path);
  for (const Command &command : path->back()->commands) {
    path->push_back(&command);
    forEachCommand(path, function);
    path->pop_back();
  }
}

// The options that completion offers behind PATH, --help and --version too where the program has none of its own.
std::vector<Option> completedOptions(const CommandPath &path);

// NAME as the name of a shell function.
std::string functionName(std::string_view name);

// TEXT in the single quotation marks of bash and zsh.
std::string shellQuoted(std::string_view text);

}  // namespace GB
