#include "companions/doctor/KernelModules.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "helper/common/ModuleBlacklist.h"
#include "linux/FolderPaths.h"

namespace companions {

namespace fs = std::filesystem;

namespace {

bool exists(const std::string &path) {
  std::error_code ignored;
  return fs::exists(path, ignored);
}

// "kernel/drivers/net/ppp/ppp-generic.ko.xz" is ppp_generic's: both spellings are in use.
std::string moduleOf(std::string_view file) {
  file = file.substr(file.find_last_of('/') + 1);
  std::string name(file.substr(0, file.find('.')));
  std::ranges::replace(name, '-', '_');
  return name;
}

// The first line of the file at PATH that TAKES; empty: none.
template <class Takes>
std::string lineOf(const std::string &path, Takes takes) {
  std::ifstream lines(path);
  for (std::string line; std::getline(lines, line);)
    if (takes(line)) return line;
  return {};
}

bool hasWord(const std::string &path, std::size_t column, std::string_view word) {
  return !lineOf(
              path,
              [&](const std::string &line) {
                std::istringstream words(line);
                std::string found;
                for (std::size_t index = 0; index <= column; ++index) words >> found;
                return words && found == word;
              })
              .empty();
}

// The part of LINE before its colon.
std::string_view key(std::string_view line) { return line.substr(0, line.find(':')); }

bool holds(const std::string &path, const std::string &text) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  return bytes.find(text) != std::string::npos;
}

}  // namespace

KernelModules::KernelModules(const Machine &machine)
    : machine_(machine),
      folder_(machine.modules + "/" + machine.release),
      takesModules_(exists(machine.proc + "/modules")),
      hasFolder_(exists(folder_ + "/modules.dep")) {}

bool KernelModules::isPresent(const Module &module) const {
  const std::string name(module.name);
  if (hasWord(machine_.proc + "/modules", 0, module.name) || exists(machine_.sys + "/module/" + name)) return true;
  if (!module.trace.file.empty() &&
      hasWord(machine_.proc + "/" + std::string(module.trace.file), module.trace.column, module.trace.word))
    return true;
  return !lineOf(folder_ + "/modules.builtin", [&](const std::string &line) { return moduleOf(line) == name; }).empty();
}

// Of FILES, "a.ko: b.ko c.ko", the first that does not lie there: images are made smaller that way.
std::string KernelModules::fileThatIsGone(std::string_view files) const {
  std::string names(files);
  std::ranges::replace(names, ':', ' ');
  std::istringstream words(names);
  for (std::string file; words >> file;) {
    const std::string path = file.starts_with('/') ? file : folder_ + "/" + file;
    if (!exists(path)) return path;
  }
  return {};
}

KernelModules::Answer KernelModules::find(const Module &module) const {
  if (isPresent(module)) return {State::present, {}};
  const std::string name(module.name);
  if (!hasFolder_) {
    // What leaves a trace would have left it, were it a part of the kernel.
    const bool canTell = takesModules_ || !module.trace.file.empty();
    return {canTell ? State::missing : State::unknown, {}};
  }
  const std::string files =
      lineOf(folder_ + "/modules.dep", [&](const std::string &line) { return moduleOf(key(line)) == name; });
  if (files.empty()) return {State::missing, {}};
  if (const std::string gone = fileThatIsGone(files); !gone.empty()) return {State::missing, gone};
  if (const auto forbids = helper::moduleBlacklist(name, machine_.modprobe)) return {State::forbidden, *forbids};
  return {State::loadable, {}};
}

KernelModules::State KernelModules::findAlgorithm(std::string_view name) const {
  const std::string text(name);
  const auto isThere = [&](const std::string &line) {
    std::istringstream words(line);
    std::string field;
    std::string colon;
    std::string value;
    words >> field >> colon >> value;
    return field == "name" && (value == text || value.starts_with(text + "("));
  };
  if (!lineOf(machine_.proc + "/crypto", isThere).empty()) return State::present;
  if (!hasFolder_) return State::unknown;
  if (hasWord(folder_ + "/modules.alias", 1, "crypto-" + text)) return State::loadable;
  const std::string builtIn = folder_ + "/modules.builtin.modinfo";
  if (!exists(builtIn)) return State::unknown;
  return holds(builtIn, "alias=crypto-" + text + std::string(1, '\0')) ? State::present : State::missing;
}

bool KernelModules::isLocked() const { return hasWord(machine_.proc + "/sys/kernel/modules_disabled", 0, "1"); }

bool KernelModules::hasOtherFolders() const {
  std::error_code ignored;
  return std::ranges::any_of(linux::pathsIn(machine_.modules, ignored),
                             [&](const std::string &path) { return path != folder_ && exists(path + "/modules.dep"); });
}

}  // namespace companions
