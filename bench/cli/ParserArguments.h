// The command lines that all parsers are measured with: 200 options, of which every fourth is a switch; values come
// joined and apart by turns; the last tenth are operands.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

inline constexpr int kOptionCount = 200;

inline std::string optionName(int number) { return "option-" + std::to_string(number % kOptionCount); }

inline bool isSwitch(int number) { return number % 4 == 3; }

inline std::vector<std::string> argumentList(std::int64_t count) {
  const auto size = static_cast<std::size_t>(count);
  std::vector<std::string> arguments;
  for (int i = 0; arguments.size() + 1 < size - size / 10; ++i) {
    const int option = i * 7 % kOptionCount;
    if (isSwitch(option)) {
      arguments.push_back("--" + optionName(option));
    } else if (i % 2 == 0) {
      arguments.push_back("--" + optionName(option) + "=value-" + std::to_string(i));
    } else {
      arguments.push_back("--" + optionName(option));
      arguments.push_back("value-" + std::to_string(i));
    }
  }
  while (arguments.size() < size) arguments.push_back("file-" + std::to_string(arguments.size()));
  return arguments;
}

// As main() gets it. TEXTS is the list behind the program's name.
inline std::vector<char *> argumentVector(std::vector<std::string> *texts) {
  static char program[] = "bench";
  std::vector<char *> arguments = {program};
  for (std::string &text : *texts) arguments.push_back(text.data());
  arguments.push_back(nullptr);
  return arguments;
}
