#include "tests/support/TemporaryFolder.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace support {

namespace {

constexpr char kMemory[] = "/dev/shm";

}  // namespace

TemporaryFolder::TemporaryFolder(Place place) {
  const bool inMemory = place == Place::memory && ::access(kMemory, W_OK) == 0;
  const std::filesystem::path parent = inMemory ? kMemory : std::filesystem::temp_directory_path();
  std::string pattern = (parent / "vpnctl-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::optional<std::string> contentsOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {};
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

void writeFile(const std::string &path, const std::string &bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes;
}

}  // namespace support
