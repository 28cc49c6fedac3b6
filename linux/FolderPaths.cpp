#include "linux/FolderPaths.h"

#include <filesystem>

namespace linux {

std::vector<std::string> pathsIn(const std::string &folder, std::error_code &error) {
  std::vector<std::string> paths;
  std::filesystem::directory_iterator entries(folder, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error))
    paths.push_back(entries->path());
  return paths;
}

}  // namespace linux
