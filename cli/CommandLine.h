// Parsing by the rules that users of other programs expect, beside GBCommandLineParser, which keeps its own:
//
//   --name=value --name value -n value -nvalue -n=value    the first "=" splits
//   -abc                                                   switches combine; the last may take a value
//   --no-name                                              takes a negatable switch back
//   --                                                     ends the options
//   -5, -1.5                                               values and operands, unless the digit is an option
//   -h, --help, --version                                  where the program has none of its own
//
// Options may stand behind operands. A value that is missing, not expected or not what the definition says, an option
// that is not defined ("did you mean --name?"), one that is required and not given: each is an error that names it. Of
// an option that is given twice the last value counts; all() has each.
//
// Usual sequence:
//
//   const auto line = GB::CommandLine::parse(kProgram, argc, argv);
//   if (!line) return GB::printUsageError(kProgram, line.error());
//   if (GB::printWhatIsAsked(*line)) return 0;  // --help, --version
//   const auto port = line->integer("port");
//   if (!port) return GB::printUsageError(kProgram, port.error());
//   ... line->isOn("verbose"), line->operands() ...
//
// Arguments are bytes, and stay so: bytes() and operands() give them as they are, text() says which is no UTF-8. A
// command line views the arguments it was made of, as well as its definition: both outlive it. Errors are of the domain
// kCommandLineErrorDomain, their code a CommandLineFault. Thread rule: as plain values; nothing blocks.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/Command.h"
#include "foundation/Result.h"

namespace GB {

inline constexpr std::string_view kCommandLineErrorDomain = "CommandLine";

enum class CommandLineFault {
  unknownOption = 1,
  missingValue,
  unexpectedValue,
  badValue,
  missingOption,
  unknownCommand,
  missingCommand,
  tooFewOperands,
  tooManyOperands,
  notText,
  notGiven,    // a read of what is neither given nor has a standard value
  notDefined,  // a read of what the definition does not name
};

class CommandLine {
 public:
  enum class Request { run, help, version };

  // argv and argc as main() gets them.
  static vpnctl::Result<CommandLine> parse(const Command &program, int count, const char *const *arguments);
  // Without the program's name.
  static vpnctl::Result<CommandLine> parse(const Command &program, const std::vector<std::string> &arguments);

  // What the user asks for. What follows --help or --version has not been looked at, and nothing is missing.
  Request request() const { return request_; }

  // The program, and the commands that were chosen below it.
  const std::vector<const Command *> &commands() const { return commands_; }
  const Command &command() const { return *commands_.back(); }

  // Options, by name. One of the innermost command that has it counts.

  bool isGiven(std::string_view name) const { return count(name) > 0; }
  std::size_t count(std::string_view name) const;
  // Of a switch: whether its last form, if any, was the plain one.
  bool isOn(std::string_view name) const;
  // The last value, or the standard one.
  vpnctl::Result<std::string_view> bytes(std::string_view name) const;
  // The same, if it is UTF-8.
  vpnctl::Result<std::string> text(std::string_view name) const;
  // A whole number within the definition's limits.
  vpnctl::Result<std::int64_t> integer(std::string_view name) const;
  // And within these.
  vpnctl::Result<std::int64_t> integer(std::string_view name, std::int64_t minimum, std::int64_t maximum) const;
  // Where among the definition's choices the value is, from 0.
  vpnctl::Result<std::size_t> choice(std::string_view name) const;
  // Each value that was given, in order.
  std::vector<std::string_view> all(std::string_view name) const;

  // What is no option, as bytes; as many as the definition permits.
  const std::vector<std::string_view> &operands() const { return operands_; }
  // One of them, if it is UTF-8. An error too when there are not so many.
  vpnctl::Result<std::string> operandText(std::size_t index) const;

 private:
  friend class CommandLineReader;

  struct Occurrence {
    std::string_view value;
    std::uint32_t previous = 0;  // of the same option; 0 is none, otherwise one more than its index
    bool isOn = true;
  };
  // Where an option stands among all options of all chosen commands.
  struct Place {
    const Option *option = nullptr;
    std::size_t slot = 0;
  };

  Place find(std::string_view name) const;
  void addCommand(const Command &command);
  void add(std::size_t slot, Occurrence occurrence);

  std::vector<const Command *> commands_;
  std::vector<Occurrence> occurrences_;
  std::vector<std::uint32_t> last_;  // by slot, as Occurrence::previous
  std::vector<std::string_view> operands_;
  Request request_ = Request::run;
};

}  // namespace GB
