// Completion for shells, made from a program's definition: what a distribution's package installs for bash, zsh and
// fish. Completed are commands, options, choices, files and folders; hidden options are not.
//
// Usual sequence: a build step that prints completionScript(kProgram, GB::Shell::zsh) into a file. Thread rule: no
// state.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cli/Command.h"

namespace GB {

enum class Shell { bash, zsh, fish };

// "bash", "zsh" or "fish"; none for another.
std::optional<Shell> shellNamed(std::string_view name);

// The whole file, to be installed under the program's name (bash), the name behind an underscore (zsh), the name with
// ".fish" (fish).
std::string completionScript(const Command &program, Shell shell);

}  // namespace GB
