// A folder of a test's own, gone with it.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "cli-test.XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  TemporaryFolder(const TemporaryFolder &) = delete;
  TemporaryFolder &operator=(const TemporaryFolder &) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  std::string path(const std::string &name) const { return path_ + "/" + name; }
  const std::string &path() const { return path_; }

  std::string write(const std::string &name, const std::string &bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }
  std::string read(const std::string &name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // How many files there are: a failed saving leaves none of its own.
  std::ptrdiff_t count() const {
    const std::filesystem::directory_iterator files(path_);
    return std::distance(begin(files), end(files));
  }

 private:
  std::string path_;
};
