// A folder of one test's own, removed with everything in it.

#pragma once

#include <optional>
#include <string>

namespace support {

class TemporaryFolder {
 public:
  enum class Place {
    disk,
    memory,  // where the machine has such a file system; for tests that synchronise thousands of times
  };
  explicit TemporaryFolder(Place place = Place::disk);
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

}  // namespace support
