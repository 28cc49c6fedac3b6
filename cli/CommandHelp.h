// What a program says of itself, made from its definition: usage line, help, version, and the answer to a command line
// that cannot be understood.
//
// Usual sequence: CommandLine.h has it. Texts are UTF-8 and end with a newline; help is at most 80 characters wide, as
// far as its words permit. Thread rule: no state; the functions that print block as their stream does, through stdio.

#pragma once

#include <string>
#include <vector>

#include "cli/CommandLine.h"

namespace GB {

// The program, and commands below it, each one of those of the one before.
using CommandPath = std::vector<const Command *>;

// "Usage: copier --config FILE [OPTIONS] FILE...".
std::string usageLine(const CommandPath &path);
// The usage line, the summary, the options of the command and of those above it, and its commands.
std::string helpText(const CommandPath &path);
// "copier 1.0".
std::string versionLine(const Command &program);

// Prints what --help or --version asks for to standard output. False when neither does.
bool printWhatIsAsked(const CommandLine &line);
// Prints "copier: MESSAGE" and where to find help to standard error. Returns the status to end with, 2.
int printUsageError(const Command &program, const vpnctl::Error &error);

}  // namespace GB
