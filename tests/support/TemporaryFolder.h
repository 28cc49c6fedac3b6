// A folder of one test's own, removed with everything in it.

#pragma once

#include <cstddef>
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

  // The file's path.
  std::string write(const std::string &name, const std::string &bytes) const;
  // Empty when there is no such file, too.
  std::string read(const std::string &name) const;
  // How many files and folders there are, not counting what is in the latter.
  std::ptrdiff_t count() const;

 private:
  std::string path_;
};

// While it stands, a folder is the place for temporary files. For fixtures of death tests: their processes make folders
// too, and die before they remove them.
class TemporaryPlace {
 public:
  explicit TemporaryPlace(const TemporaryFolder &folder);
  TemporaryPlace(const TemporaryPlace &) = delete;
  TemporaryPlace &operator=(const TemporaryPlace &) = delete;
  ~TemporaryPlace();

 private:
  std::string before_;
};

// None when there is no such file.
std::optional<std::string> contentsOf(const std::string &path);
// These throw when they cannot.
void writeFile(const std::string &path, const std::string &bytes);
void appendToFile(const std::string &path, const std::string &bytes);

}  // namespace support
