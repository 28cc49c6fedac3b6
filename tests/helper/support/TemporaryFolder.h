// A folder of one test's own, removed with everything in it.

#pragma once

#include <optional>
#include <string>

namespace helper::testing {

class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder &) = delete;
  TemporaryFolder &operator=(const TemporaryFolder &) = delete;
  ~TemporaryFolder();

  const std::string &path() const { return path_; }
  std::string path(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// None when there is no such file.
std::optional<std::string> contentsOf(const std::string &path);
void writeFile(const std::string &path, const std::string &bytes);

}  // namespace helper::testing
