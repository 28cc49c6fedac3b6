#include "companions/links/RunningProcesses.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string_view>

#include "linux/FolderPaths.h"

namespace companions {

namespace {

template <class Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string contentsOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// None of one that ends just now.
std::optional<RunningProcess> processIn(const std::string &folder) {
  RunningProcess process;
  const auto pid = numberIn<pid_t>(std::filesystem::path(folder).filename().string());
  if (!pid) return std::nullopt;
  process.pid = *pid;
  const std::string stat = contentsOf(folder + "/stat");
  // The name is in parentheses, with whatever characters it likes.
  const auto open = stat.find('(');
  const auto close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return std::nullopt;
  process.name = stat.substr(open + 1, close - open - 1);
  std::istringstream fields(stat.substr(close + 1));
  std::string skipped;
  fields >> skipped >> process.parent;
  for (int field = 5; field < 22; ++field) fields >> skipped;
  if (!(fields >> process.startTime)) return std::nullopt;
  return process;
}

// Whose link it is stands in its arguments, as the path of the plugin's socket.
std::uint32_t linkIn(const std::string &arguments, const std::string &journals) {
  const std::string before = journals + "/link.";
  const auto found = arguments.find(before);
  if (found == std::string::npos) return 0;
  const std::string_view rest = std::string_view(arguments).substr(found + before.size());
  return numberIn<std::uint32_t>(rest.substr(0, rest.find('/'))).value_or(0);
}

// pppd's own file is PROCESS_NUMBERS/INTERFACE.pid.
std::string interfaceOf(pid_t pid, const std::string &processNumbers) {
  std::error_code ignored;
  for (const std::filesystem::path path : linux::pathsIn(processNumbers, ignored)) {
    if (path.extension() != ".pid" || !path.stem().string().starts_with("ppp")) continue;
    std::string text = contentsOf(path);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    if (numberIn<pid_t>(text) == pid) return path.stem();
  }
  return {};
}

}  // namespace

std::vector<RunningProcess> runningProcesses(const std::string &folder, const std::string &journals,
                                             const std::string &processNumbers) {
  std::vector<RunningProcess> found;
  std::error_code ignored;
  for (const std::string &path : linux::pathsIn(folder, ignored)) {
    auto process = processIn(path);
    if (!process) continue;
    if (process->name == "pppd") process->link = linkIn(contentsOf(path + "/cmdline"), journals);
    if (process->link != 0) process->interface = interfaceOf(process->pid, processNumbers);
    found.push_back(std::move(*process));
  }
  return found;
}

}  // namespace companions
