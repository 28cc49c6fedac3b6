#include "helper/common/ModuleBlacklist.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace helper {

namespace fs = std::filesystem;

namespace {

// modprobe takes both spellings for the same module.
std::string spelled(std::string module) {
  std::replace(module.begin(), module.end(), '-', '_');
  return module;
}

bool forbids(const fs::path &file, const std::string &module) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string command;
    std::string name;
    words >> command >> name;
    if ((command == "blacklist" || command == "install") && spelled(name) == module) return true;
  }
  return false;
}

}  // namespace

std::optional<std::string> moduleBlacklist(const std::string &module, const std::vector<std::string> &folders) {
  for (const std::string &folder : folders) {
    std::error_code ignored;
    std::vector<fs::path> files;
    for (fs::directory_iterator file(folder, ignored), end; file != end; file.increment(ignored))
      if (file->path().extension() == ".conf") files.push_back(file->path());
    std::sort(files.begin(), files.end());
    for (const fs::path &file : files)
      if (forbids(file, spelled(module))) return file.string();
  }
  return std::nullopt;
}

}  // namespace helper
