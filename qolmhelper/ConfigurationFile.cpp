#include "qolmhelper/ConfigurationFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "foundation/FileDescriptor.h"
#include "foundation/Secret.h"

namespace TN {

namespace {

constexpr off_t kLong = off_t{64} << 10;

// The bytes of a long regular file and a zero byte; empty for any other. A pipe can be read but once.
vpnctl::Secret textOfLongFile(const char *path) {
  struct stat status = {};
  if (::stat(path, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < kLong) return {};
  const vpnctl::FileDescriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return {};
  const auto size = static_cast<std::size_t>(status.st_size);
  vpnctl::Secret text = vpnctl::Secret::ofSize(size + 1);
  for (std::size_t done = 0; done < size;) {
    const ssize_t count = ::read(file.get(), text.mutableBytes().data() + done, size - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return {};
    done += static_cast<std::size_t>(count);
  }
  return text;
}

}  // namespace

bool everybodyMayRead(const char *path) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::path place = fs::canonical(path, error);
  const auto allows = [&](fs::perms permission) {
    return (fs::status(place, error).permissions() & permission) != fs::perms::none && !error;
  };
  if (error || !fs::is_regular_file(place, error) || !allows(fs::perms::others_read)) return false;
  while (place.has_relative_path()) {
    place = place.parent_path();
    if (!allows(fs::perms::others_exec)) return false;
  }
  return true;
}

bool readConfiguration(config_t *config, const char *path) {
  // From a file libconfig reads 8 KB at a time and scans a long text from its start each time, 4 MB in ten seconds; not
  // so from memory. What it finds wrong there it is to say of the file.
  const vpnctl::Secret text = textOfLongFile(path);
  const auto *const start = reinterpret_cast<const char *>(text.bytes().data());
  if (!text.empty() && std::memchr(start, 0, text.size() - 1) == nullptr &&
      config_read_string(config, start) == CONFIG_TRUE)
    return true;
  return config_read_file(config, path) == CONFIG_TRUE;
}

}  // namespace TN
