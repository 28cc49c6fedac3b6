// The parse itself.

#include <algorithm>
#include <bit>
#include <functional>
#include <optional>

#include "cli/CommandLine.h"
#include "cli/CommandLineErrors.h"
#include "cli/Suggestion.h"

namespace GB {

using vpnctl::Result;
using vpnctl::Status;

namespace {

// An option as it was typed.
struct Typed {
  std::string_view dashes;
  std::string_view name;

  std::string text() const { return std::string(dashes) + std::string(name); }
};

bool isDigit(char character) { return character >= '0' && character <= '9'; }

// Behind digits, if there are any.
std::string_view withoutDigits(std::string_view text) {
  while (!text.empty() && isDigit(text.front())) text.remove_prefix(1);
  return text;
}

// TEXT without its sign: digits with a point among or before them, and an exponent.
bool isNumber(std::string_view text) {
  std::string_view rest = withoutDigits(text);
  std::size_t digits = text.size() - rest.size();
  if (rest.starts_with('.')) {
    const std::string_view fraction = withoutDigits(rest.substr(1));
    digits += rest.size() - 1 - fraction.size();
    rest = fraction;
  }
  if (digits == 0) return false;
  if (rest.empty()) return true;
  if (rest.front() != 'e' && rest.front() != 'E') return false;
  rest.remove_prefix(1);
  if (rest.starts_with('-') || rest.starts_with('+')) rest.remove_prefix(1);
  return !rest.empty() && withoutDigits(rest).empty();
}

// The options of one command by name and letter. A short command line is read through the table as it is; making an
// index would take longer.
class OptionIndex {
 public:
  explicit OptionIndex(const Command &command) : options_(command.options) {}

  const Option *find(std::string_view name) {
    if (!isIndexed()) return scan([name](const Option &option) { return option.name == name && !name.empty(); });
    for (std::size_t place = std::hash<std::string_view>()(name);; ++place) {
      const std::uint32_t row = names_[place & (names_.size() - 1)];
      if (row == 0) return nullptr;
      if (const Option &option = options_.begin()[row - 1]; option.name == name) return &option;
    }
  }

  const Option *find(char letter) {
    if (!isIndexed()) return scan([letter](const Option &option) { return option.letter == letter && letter != 0; });
    const std::uint32_t row = letters_[static_cast<unsigned char>(letter)];
    return row == 0 ? nullptr : options_.begin() + (row - 1);
  }

 private:
  static constexpr int kLookupsWithoutIndex = 8;

  template <class Predicate>
  const Option *scan(Predicate predicate) const {
    const Option *found = std::find_if(options_.begin(), options_.end(), predicate);
    return found != options_.end() ? found : nullptr;
  }

  bool isIndexed() {
    if (!names_.empty()) return true;
    if (++lookups_ <= kLookupsWithoutIndex) return false;
    names_.resize(std::bit_ceil(options_.size() * 2 + 1));
    letters_.resize(256);
    // From the last row to the first: of two of one name the first counts, as in a scan.
    for (std::size_t row = options_.size(); row > 0; --row) addRow(static_cast<std::uint32_t>(row));
    return true;
  }

  void addRow(std::uint32_t row) {
    const Option &option = options_.begin()[row - 1];
    if (option.isHeading()) return;
    if (option.letter != 0) letters_[static_cast<unsigned char>(option.letter)] = row;
    std::size_t place = std::hash<std::string_view>()(option.name) & (names_.size() - 1);
    while (names_[place] != 0 && options_.begin()[names_[place] - 1].name != option.name)
      place = (place + 1) & (names_.size() - 1);
    names_[place] = row;
  }

  Table<Option> options_;
  int lookups_ = 0;
  std::vector<std::uint32_t> names_;    // open addressing; one more than the row, 0 is free
  std::vector<std::uint32_t> letters_;  // by character
};

}  // namespace

class CommandLineReader {
 public:
  CommandLineReader(const Command &program, std::vector<std::string_view> arguments)
      : arguments_(std::move(arguments)) {
    line_.occurrences_.reserve(arguments_.size());
    enter(program);
  }

  Result<CommandLine> read() {
    while (next_ < arguments_.size() && line_.request_ == CommandLine::Request::run)
      if (Status status = argument(arguments_[next_++]); !status) return status.error();
    if (Status status = complete(); !status) return status.error();
    return std::move(line_);
  }

 private:
  using Place = CommandLine::Place;

  void enter(const Command &command) {
    starts_.push_back(line_.last_.size());
    indexes_.emplace_back(command);
    line_.addCommand(command);
  }

  // The innermost command's option of that name or letter.
  template <class Key>
  Place find(Key key) {
    for (std::size_t level = indexes_.size(); level-- > 0;) {
      if (const Option *option = indexes_[level].find(key)) {
        const Option *first = line_.commands_[level]->options.begin();
        return {option, starts_[level] + static_cast<std::size_t>(option - first)};
      }
    }
    return {};
  }

  bool isOption(std::string_view argument) {
    if (areEnded_ || argument.size() < 2 || argument.front() != '-') return false;
    if (!isDigit(argument[1]) && argument[1] != '.') return true;
    return !isNumber(argument.substr(1)) || find(argument[1]).option != nullptr;
  }

  Status argument(std::string_view argument) {
    if (!isOption(argument)) return operand(argument);
    if (argument == "--") {
      areEnded_ = true;
      return {};
    }
    return argument[1] == '-' ? longOption(argument.substr(2)) : letters(argument.substr(1));
  }

  Status operand(std::string_view argument) {
    const Table<Command> commands = line_.command().commands;
    if (commands.empty()) {
      line_.operands_.push_back(argument);
      return {};
    }
    for (const Command &command : commands) {
      if (command.name != argument) continue;
      enter(command);
      return {};
    }
    Suggestion suggestion(argument);
    for (const Command &command : commands) suggestion.offer(command.name);
    return commandLineError(CommandLineFault::unknownCommand,
                            "there is no command " + inQuotes(argument) + suggestion.sentence(""));
  }

  Status longOption(std::string_view text) {
    const std::size_t end = text.find('=');
    const std::string_view name = text.substr(0, end);
    std::optional<std::string_view> value;
    if (end != std::string_view::npos) value = text.substr(end + 1);
    if (const Place place = find(name); place.option != nullptr) return found(place, {"--", name}, value);
    if (name.starts_with("no-")) {
      const Place place = find(name.substr(3));
      if (place.option != nullptr && place.option->isSwitch() && place.option->negatable) {
        if (value) return unexpectedValue({"--", name});
        line_.add(place.slot, {.value = {}, .isOn = false});
        return {};
      }
    }
    if (name == "help" && !value) return requested(CommandLine::Request::help);
    if (name == "version" && !value && hasVersion()) return requested(CommandLine::Request::version);
    return unknown(name);
  }

  Status letters(std::string_view letters) {
    for (std::size_t index = 0; index < letters.size(); ++index) {
      const Place place = find(letters[index]);
      if (place.option == nullptr) {
        if (letters[index] == 'h') return requested(CommandLine::Request::help);
        return commandLineError(CommandLineFault::unknownOption,
                                "there is no option -" + unknownLetter(letters.substr(index)));
      }
      const std::string_view rest = letters.substr(index + 1);
      std::optional<std::string_view> value;
      if (rest.starts_with('='))
        value = rest.substr(1);
      else if (!rest.empty() && !place.option->isSwitch())
        value = rest;
      if (Status status = found(place, {"-", letters.substr(index, 1)}, value); !status || value) return status;
    }
    return {};
  }

  // The letter as it may be shown: of a character of several bytes all of them.
  static std::string unknownLetter(std::string_view rest) {
    const bool isPlain = rest.front() > 0x20 && rest.front() < 0x7f;
    return isPlain ? std::string(1, rest.front()) : inQuotes(rest);
  }

  bool hasVersion() const { return !line_.commands_.front()->version.empty(); }

  Status requested(CommandLine::Request request) {
    line_.request_ = request;
    return {};
  }

  Status unknown(std::string_view name) const {
    Suggestion suggestion(name);
    for (const Command *command : line_.commands_)
      for (const Option &option : command->options)
        if (!option.hidden) suggestion.offer(option.name);
    suggestion.offer("help");
    if (hasVersion()) suggestion.offer("version");
    return commandLineError(CommandLineFault::unknownOption,
                            "there is no option " + shown("--", name) + suggestion.sentence("--"));
  }

  // A name that needs no quotation marks goes without them.
  static std::string shown(std::string_view prefix, std::string_view name) {
    const bool isPlain = std::all_of(name.begin(), name.end(), [](char c) { return c > 0x20 && c < 0x7f; });
    const std::string whole = std::string(prefix) + std::string(name);
    return isPlain ? whole : inQuotes(whole);
  }

  static Status unexpectedValue(Typed typed) {
    return commandLineError(CommandLineFault::unexpectedValue, "option " + typed.text() + " takes no value");
  }

  // An option that is defined, TYPED so, with the value that is joined to it.
  Status found(const Place &place, Typed typed, std::optional<std::string_view> value) {
    const Option &option = *place.option;
    if (option.isSwitch()) {
      if (value) return unexpectedValue(typed);
      line_.add(place.slot, {.value = {}});
      return {};
    }
    if (!value && option.valueOptional) {
      line_.add(place.slot, {.value = option.standard});
      return {};
    }
    if (!value) {
      const bool isThere = next_ < arguments_.size();
      if (!isThere || isOption(arguments_[next_])) return missingValue(option, typed);
      value = arguments_[next_++];
    }
    if (Status status = check(option, *value); !status) return status;
    line_.add(place.slot, {.value = *value});
    return {};
  }

  Status missingValue(const Option &option, Typed typed) const {
    std::string message = "option " + typed.text() + " needs a value (" + std::string(option.value) + ")";
    if (next_ < arguments_.size() && arguments_[next_] != "--")
      message +=
          "; one that begins with a dash is written --" + std::string(option.name) + "=" + std::string(option.value);
    return commandLineError(CommandLineFault::missingValue, std::move(message));
  }

  static Status check(const Option &option, std::string_view value) {
    if (option.kind == OptionKind::integer) {
      if (const auto number = wholeNumber(option, value, option.minimum, option.maximum); !number)
        return number.error();
    }
    if (option.kind == OptionKind::choice) {
      if (const auto choice = chosen(option, value); !choice) return choice.error();
    }
    return {};
  }

  // Whether everything is there, and nothing too much.
  Status complete() const {
    if (line_.request_ != CommandLine::Request::run) return {};
    const Command &command = line_.command();
    if (!command.commands.empty()) return missingCommand(command);
    std::size_t slot = 0;
    for (const Command *level : line_.commands_)
      for (const Option &option : level->options)
        if (line_.last_[slot++] == 0 && option.required)
          return commandLineError(CommandLineFault::missingOption,
                                  "option --" + std::string(option.name) + " is required");
    if (line_.operands_.size() > command.maximumOperands)
      return commandLineError(CommandLineFault::tooManyOperands,
                              "unexpected argument " + inQuotes(line_.operands_[command.maximumOperands]));
    if (line_.operands_.size() < command.minimumOperands)
      return commandLineError(CommandLineFault::tooFewOperands,
                              "too few arguments; wanted: " + std::string(command.operands));
    return {};
  }

  static Status missingCommand(const Command &command) {
    std::string names;
    for (const Command &choice : command.commands) names += (names.empty() ? "" : ", ") + std::string(choice.name);
    return commandLineError(CommandLineFault::missingCommand, "a command is missing; there are: " + names);
  }

  std::vector<std::string_view> arguments_;
  std::size_t next_ = 0;
  bool areEnded_ = false;  // the options, by "--"
  CommandLine line_;
  std::vector<std::size_t> starts_;  // by command: its first slot
  std::vector<OptionIndex> indexes_;
};

Result<CommandLine> CommandLine::parse(const Command &program, int count, const char *const *arguments) {
  std::vector<std::string_view> list;
  if (count > 1) list.assign(arguments + 1, arguments + count);
  return CommandLineReader(program, std::move(list)).read();
}

Result<CommandLine> CommandLine::parse(const Command &program, const std::vector<std::string> &arguments) {
  return CommandLineReader(program, {arguments.begin(), arguments.end()}).read();
}

}  // namespace GB
