#include "helper/ProcessStart.h"

#include <fstream>
#include <sstream>
#include <string>

namespace helper {

std::optional<std::uint64_t> startTimeOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return std::nullopt;
  // The second field is the program's name in parentheses, with whatever characters it likes.
  const auto close = text.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(text.substr(close + 1));
  std::string skipped;
  for (int field = 3; field < 22; ++field) fields >> skipped;
  std::uint64_t startTime = 0;
  if (!(fields >> startTime)) return std::nullopt;
  return startTime;
}

}  // namespace helper
