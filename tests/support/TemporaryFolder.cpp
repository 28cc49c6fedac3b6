#include "tests/support/TemporaryFolder.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace support {

namespace {

constexpr char kMemory[] = "/dev/shm";

void put(const std::string &path, const std::string &bytes, std::ios::openmode mode) {
  std::ofstream file(path, std::ios::binary | mode);
  file << bytes;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

TemporaryFolder::TemporaryFolder(Place place) {
  const bool inMemory = place == Place::memory && ::access(kMemory, W_OK) == 0;
  const std::filesystem::path parent = inMemory ? kMemory : std::filesystem::temp_directory_path();
  std::string pattern = (parent / "vpnctl-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp " + pattern);
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(const std::string &name, const std::string &bytes) const {
  writeFile(path(name), bytes);
  return path(name);
}

std::string TemporaryFolder::read(const std::string &name) const { return contentsOf(path(name)).value_or(""); }

std::ptrdiff_t TemporaryFolder::count() const {
  const std::filesystem::directory_iterator files(path_);
  return std::distance(begin(files), end(files));
}

TemporaryPlace::TemporaryPlace(const TemporaryFolder &folder) : before_(std::filesystem::temp_directory_path()) {
  ::setenv("TMPDIR", folder.path().c_str(), 1);
}

TemporaryPlace::~TemporaryPlace() { ::setenv("TMPDIR", before_.c_str(), 1); }

std::optional<std::string> contentsOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {};
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

void writeFile(const std::string &path, const std::string &bytes) { put(path, bytes, std::ios::trunc); }

void appendToFile(const std::string &path, const std::string &bytes) { put(path, bytes, std::ios::app); }

}  // namespace support
