#include "foundation/FileDescriptor.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vpnctl {

FileDescriptor &FileDescriptor::operator=(FileDescriptor &&other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

int FileDescriptor::release() { return std::exchange(fd_, -1); }

void FileDescriptor::reset(int fd) {
  const int old = std::exchange(fd_, fd);
  if (old < 0 || old == fd) return;
  const int saved = errno;
  // Not repeated on EINTR: Linux has closed it by then, and the number may already be somebody else's.
  ::close(old);
  errno = saved;
}

Status writeAll(int file, std::string_view bytes, const std::string &path) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(file, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "write " + path);
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return {};
}

}  // namespace vpnctl
