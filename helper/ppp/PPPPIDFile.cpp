#include "helper/ppp/PPPPIDFile.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "linux/FolderPaths.h"

namespace helper {

void removePIDFileOfPPPD(pid_t pid, const std::string &folder) {
  std::error_code ignored;
  for (const std::string &path : linux::pathsIn(folder, ignored)) {
    const std::string name = std::filesystem::path(path).filename();
    pid_t written = -1;
    if (name.starts_with("ppp") && name.ends_with(".pid") && std::ifstream(path) >> written && written == pid)
      ::unlink(path.c_str());
  }
}

}  // namespace helper
