// A folder of a test's own, gone with it.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace TN {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "vpnctl-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp " + name);
    path_ = name;
  }
  TemporaryFolder(const TemporaryFolder &) = delete;
  TemporaryFolder &operator=(const TemporaryFolder &) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  std::string path() const { return path_.string(); }
  std::string path(const std::string &name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// While it stands, a folder is the place for temporary files. For fixtures of death tests: their processes make folders
// too, and die before they remove them.
class TemporaryPlace {
 public:
  explicit TemporaryPlace(const TemporaryFolder &folder) : before_(std::filesystem::temp_directory_path()) {
    setenv("TMPDIR", folder.path().c_str(), 1);
  }
  TemporaryPlace(const TemporaryPlace &) = delete;
  TemporaryPlace &operator=(const TemporaryPlace &) = delete;
  ~TemporaryPlace() { setenv("TMPDIR", before_.c_str(), 1); }

 private:
  std::filesystem::path before_;
};

inline void writeFile(const std::string &path, const std::string &text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

inline void appendToFile(const std::string &path, const std::string &text) {
  std::ofstream file(path, std::ios::binary | std::ios::app);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot append to " + path);
}

inline std::string readFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace TN
