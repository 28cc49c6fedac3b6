// What a program's command line may hold, as plain tables: its options, its operands (what is no option), its commands.
// The parser (CommandLine.h), the help (CommandHelp.h) and the completion of shells (Completion.h) are made from them.
//
// Usual sequence:
//
//   constexpr GB::Option kOptions[] = {
//       {.name = "config", .letter = 'c', .value = "FILE", .description = "Read FILE", .kind = GB::OptionKind::file,
//        .required = true},
//       {.name = "port", .value = "PORT", .kind = GB::OptionKind::integer, .minimum = 1, .maximum = 65535},
//       {.name = "verbose", .letter = 'v', .description = "Say what is done"}};
//   constexpr GB::Command kProgram = {.name = "copier", .summary = "Copies files.", .version = "1.0",
//                                     .options = kOptions, .operands = "FILE...", .minimumOperands = 1,
//                                     .maximumOperands = GB::kAnyNumber};
//
// Everything is a view: texts and tables live as long as the command that names them. Texts are UTF-8; names of options
// and commands are ASCII without blanks and "=". Thread rule: as plain values.

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace GB {

// Rows that live elsewhere.
template <class T>
class Table {
 public:
  constexpr Table() = default;
  constexpr Table(const T *rows, std::size_t size) : rows_(rows), size_(size) {}
  template <std::size_t Size>
  constexpr Table(const T (&rows)[Size]) : rows_(rows), size_(Size) {}

  constexpr const T *begin() const { return rows_; }
  constexpr const T *end() const { return rows_ + size_; }
  constexpr std::size_t size() const { return size_; }
  constexpr bool empty() const { return size_ == 0; }

 private:
  const T *rows_ = nullptr;
  std::size_t size_ = 0;
};

// What a value is. `file` and `folder` are text that shells complete as paths.
enum class OptionKind { text, integer, choice, file, folder };

struct Option {
  std::string_view name = {};         // "--NAME"; a row without one is a heading in help, its text the description
  char letter = 0;                    // "-LETTER", a letter or a digit; 0 is none
  std::string_view value = {};        // the value's name in help; empty: a switch, which takes none
  std::string_view description = {};  // one sentence, for help and completion
  OptionKind kind = OptionKind::text;
  std::int64_t minimum = std::numeric_limits<std::int64_t>::min();  // of an integer
  std::int64_t maximum = std::numeric_limits<std::int64_t>::max();
  std::string_view choices = {};   // of a choice: "fast|slow"
  std::string_view standard = {};  // the value where none is given; empty is none
  bool required = false;
  bool valueOptional = false;  // "--NAME" alone reads as `standard`; a value is joined: "--NAME=VALUE", "-LVALUE"
  bool negatable = false;      // a switch with a "--no-NAME", which takes it back
  bool hidden = false;         // neither in help nor in completion

  constexpr bool isHeading() const { return name.empty(); }
  constexpr bool isSwitch() const { return value.empty(); }
};

inline constexpr std::size_t kAnyNumber = std::numeric_limits<std::size_t>::max();

struct Command {
  std::string_view name = {};
  std::string_view summary = {};  // one sentence; a command's line in the help of the one above
  std::string_view version = {};  // the program's; empty: there is no --version
  // Options of the command and of those above it may stand anywhere behind its name.
  Table<Option> options = {};
  std::string_view operands = {};  // as the usage line has them: "SOURCE TARGET", "[FILE...]"
  std::size_t minimumOperands = 0;
  std::size_t maximumOperands = 0;
  OptionKind operandKind = OptionKind::file;  // for completion; choices are not supported
  // With commands, the first operand is one of them, and there are no others.
  Table<Command> commands = {};
};

// FUNCTION is called with each of "a|b|c".
template <class Function>
constexpr void forEachChoice(std::string_view choices, Function function) {
  while (!choices.empty()) {
    const std::size_t end = choices.find('|');
    function(choices.substr(0, end));
    choices = end == std::string_view::npos ? std::string_view() : choices.substr(end + 1);
  }
}

}  // namespace GB
