#include "foundation/FileSystem.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "foundation/SyncFile.h"

namespace vpnctl {

Result<FileDescriptor> PosixFileSystem::open(const std::string &path, int flags, mode_t mode) {
  // Non-blocking, so that a FIFO laid in our way is refused by its type instead of waited for.
  while (true) {
    FileDescriptor file(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, mode));
    if (file) return file;
    if (errno != EINTR) return errnoError(errno, "open " + path);
  }
}

Status PosixFileSystem::write(int file, std::string_view bytes, const std::string &path) {
  return vpnctl::writeAll(file, bytes, path);
}

Status PosixFileSystem::synchronize(int file, const std::string &path) {
  while (syncFile(file) < 0)
    if (errno != EINTR) return errnoError(errno, "fsync " + path);
  return {};
}

Status PosixFileSystem::rename(const std::string &from, const std::string &to) {
  if (std::rename(from.c_str(), to.c_str()) == 0) return {};
  return errnoError(errno, "rename " + from + " to " + to);
}

Status PosixFileSystem::link(const std::string &from, const std::string &to) {
  if (::link(from.c_str(), to.c_str()) == 0) return {};
  return errnoError(errno, "link " + from + " to " + to);
}

Status PosixFileSystem::remove(const std::string &path) {
  if (::unlink(path.c_str()) == 0) return {};
  return errnoError(errno, "remove " + path);
}

Status PosixFileSystem::lock(int file, const std::string &path) {
  int result = 0;
  do {
    result = ::flock(file, LOCK_EX | LOCK_NB);
  } while (result < 0 && errno == EINTR);
  if (result == 0) return {};
  return errnoError(errno, "lock " + path);
}

}  // namespace vpnctl
