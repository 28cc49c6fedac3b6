#include "helper/link/FileReplacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <optional>

namespace helper {

using foundation::errnoError;
using foundation::FileDescriptor;
using foundation::Status;

namespace {

constexpr std::size_t kLargest = std::size_t{1} << 20;  // no resolver file comes near

foundation::Result<std::string> readAll(int file, const std::string &path) {
  std::string bytes;
  std::array<char, 4096> block{};
  while (true) {
    const ssize_t count = ::read(file, block.data(), block.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "read " + path);
    if (count == 0) return bytes;
    bytes.append(block.data(), static_cast<std::size_t>(count));
    if (bytes.size() > kLargest) return errnoError(EFBIG, "read " + path);
  }
}

Status writeAll(int file, const std::string &bytes, const std::string &path) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count = ::write(file, bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "write " + path);
    done += static_cast<std::size_t>(count);
  }
  return {};
}

Status putBytes(const ReplacedFile &file, const std::string &bytes) {
  const std::string fresh = file.path + ".vpnctl-new";
  ::unlink(fresh.c_str());
  FileDescriptor out(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, file.mode));
  if (!out) return errnoError(errno, "make " + fresh);
  Status status = writeAll(out.get(), bytes, fresh);
  if (status &&
      (::fchmod(out.get(), file.mode) < 0 || ::fchown(out.get(), file.owner, file.group) < 0 || ::fsync(out.get()) < 0))
    status = errnoError(errno, "write " + fresh);
  if (status && ::rename(fresh.c_str(), file.path.c_str()) == 0) return {};
  const int cause = errno;
  ::unlink(fresh.c_str());
  if (!status) return status;
  if (cause != EBUSY) return errnoError(cause, "replace " + file.path);
  // Containers mount the file itself: it can be written, not replaced.
  FileDescriptor place(::open(file.path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!place) return errnoError(errno, "write " + file.path);
  return writeAll(place.get(), bytes, file.path);
}

}  // namespace

foundation::Result<ReplacedFile> currentFile(const std::string &path) {
  ReplacedFile file;
  file.path = path;
  struct stat attributes {};
  if (::lstat(path.c_str(), &attributes) < 0) {
    if (errno == ENOENT) return file;
    return errnoError(errno, "look at " + path);
  }
  if (S_ISLNK(attributes.st_mode)) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size = ::readlink(path.c_str(), target.data(), target.size());
    if (size < 0) return errnoError(errno, "read the link " + path);
    file.linkTarget = std::string(target.data(), static_cast<std::size_t>(size));
    return file;
  }
  if (!S_ISREG(attributes.st_mode)) return errnoError(EINVAL, "replace " + path);
  FileDescriptor in(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!in) return errnoError(errno, "open " + path);
  auto bytes = readAll(in.get(), path);
  if (!bytes) return bytes.error();
  file.bytes = std::move(*bytes);
  file.mode = attributes.st_mode & 07777;
  file.owner = attributes.st_uid;
  file.group = attributes.st_gid;
  return file;
}

Status putReplacement(const ReplacedFile &file) { return putBytes(file, file.replacement); }

foundation::Result<bool> putBack(const ReplacedFile &file) {
  const auto now = currentFile(file.path);
  if (!now) return now.error();
  // Noted, but never done: whoever noted it died in between.
  if (now->bytes == file.bytes && now->linkTarget == file.linkTarget) return true;
  if (now->bytes != file.replacement) return false;
  if (file.bytes) {
    if (const Status status = putBytes(file, *file.bytes); !status) return status.error();
    return true;
  }
  if (file.linkTarget) {
    const std::string fresh = file.path + ".vpnctl-new";
    ::unlink(fresh.c_str());
    if (::symlink(file.linkTarget->c_str(), fresh.c_str()) < 0 || ::rename(fresh.c_str(), file.path.c_str()) < 0)
      return errnoError(errno, "put back the link " + file.path);
    return true;
  }
  if (::unlink(file.path.c_str()) < 0) return errnoError(errno, "remove " + file.path);
  return true;
}

}  // namespace helper
