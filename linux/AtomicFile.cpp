#include "linux/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "foundation/FileReplacement.h"
#include "linux/LockWaiter.h"

namespace linux {

using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::FileDescriptor;
using vpnctl::folderOf;
using vpnctl::Result;
using vpnctl::Status;

namespace {

Error failure(int errnum, std::string message) {
  return {std::string(vpnctl::kPOSIXErrorDomain), errnum, std::move(message)};
}

Error refusal(const std::string &reason) { return failure(EPERM, reason); }

Status checkOwner(const std::string &path, const struct stat &attributes) {
  if (attributes.st_uid != ::geteuid()) {
    return refusal(path + " belongs to user " + std::to_string(attributes.st_uid) + "; chown it to user " +
                   std::to_string(::geteuid()));
  }
  // A group is others, too: whoever is in it could have root dial, route and resolve as he likes.
  if ((attributes.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return refusal(path + " is writable by others than its owner; chmod go-w it");
  return {};
}

// ERROR with what a person can do about it, where there is something.
Error withRemedy(Error error) {
  switch (error.code) {
    case ENOSPC:
    case EDQUOT:
      error.message += "; make room there";
      break;
    case EROFS:
      error.message += "; make it writable";
      break;
    case EIO:
      error.message += "; look after that disk";
      break;
    case EISDIR:
    case ELOOP:
    case ENXIO:
      error.message += "; it is in the way: move it away";
      break;
    default:
      break;
  }
  return error;
}

// Who holds the lock whose file is open as FILE, as far as he has written it there.
std::string holderOf(int file) {
  char text[16] = {};
  const ssize_t count = ::pread(file, text, sizeof(text), 0);
  std::string holder = "another program";
  if (count <= 1 || text[count - 1] != '\n') return holder;
  const std::string_view digits(text, static_cast<std::size_t>(count) - 1);
  if (digits.find_first_not_of("0123456789") != std::string_view::npos) return holder;
  return "process " + std::string(digits);
}

// True when PATH still names the file that FILE has open: a lock's holder removes the lock's file, so a lock may be
// won on a file that is no longer there.
bool isStillNamed(int file, const std::string &path) {
  struct stat open = {};
  struct stat named = {};
  return ::fstat(file, &open) == 0 && ::lstat(path.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
         open.st_ino == named.st_ino;
}

}  // namespace

AtomicFile::Lock::~Lock() {
  // Removed while it is held: whoever waits sees that its own file is gone and takes a new one.
  if (file_) ::unlink(path_.c_str());
}

Status AtomicFile::check(const struct stat &attributes) const {
  if (!S_ISREG(attributes.st_mode)) return refusal(path_ + " is not a regular file; move it away");
  return checkOwner(path_, attributes);
}

Result<std::optional<AtomicFile::Contents>> AtomicFile::read(std::size_t maximum) const {
  auto file = fileSystem_.open(path_, O_RDONLY, 0);
  if (!file) {
    if (file.error().code == ENOENT) return std::optional<Contents>();
    if (file.error().code == ELOOP) return refusal(path_ + " is a symbolic link; put the file itself there");
    return file.error();
  }
  Contents contents;
  if (::fstat(file->get(), &contents.attributes) < 0) return errnoError(errno, "stat " + path_);
  if (auto status = check(contents.attributes); !status) return status.error();
  if (static_cast<std::uint64_t>(contents.attributes.st_size) > maximum)
    return failure(EFBIG, path_ + " has more than " + std::to_string(maximum) + " bytes; move it away");
  contents.bytes.resize(static_cast<std::size_t>(contents.attributes.st_size));
  std::size_t filled = 0;
  while (filled < contents.bytes.size()) {
    const ssize_t count = ::read(file->get(), contents.bytes.data() + filled, contents.bytes.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "read " + path_);
    if (count == 0) return errnoError(EIO, "read " + path_);  // shorter than it was: somebody writes in place
    filled += static_cast<std::size_t>(count);
  }
  return std::optional<Contents>(std::move(contents));
}

Status AtomicFile::createFolder(mode_t mode) const {
  const std::string folder = folderOf(path_);
  if (::mkdir(folder.c_str(), mode) == 0) {
    // The mode is meant as it stands, whatever the process's umask.
    if (::chmod(folder.c_str(), mode) < 0) return errnoError(errno, "chmod " + folder);
    return {};
  }
  const int reason = errno;
  struct stat attributes = {};
  if (reason != EEXIST || ::stat(folder.c_str(), &attributes) < 0)
    return withRemedy(errnoError(reason, "mkdir " + folder));
  if (!S_ISDIR(attributes.st_mode)) return failure(ENOTDIR, folder + " is not a folder; move it away");
  // Whoever may change the folder may put another file in our file's place.
  return checkOwner(folder, attributes);
}

Result<AtomicFile::Lock> AtomicFile::lock(std::chrono::milliseconds patience) const {
  const std::string path = path_ + "-lock";
  LockWaiter waiter(LockWaiter::On::file, patience);
  while (true) {
    // Open for reading until it is won, so that the tries of two who wait do not look like releases to each other.
    auto file = fileSystem_.open(path, O_RDONLY | O_CREAT, 0600);
    if (!file) return withRemedy(file.error());
    auto status = fileSystem_.lock(file->get(), path);
    if (status && isStillNamed(file->get(), path)) {
      Lock lock(path, std::move(*file));
      auto writing = fileSystem_.open(path, O_WRONLY | O_TRUNC, 0);
      if (!writing) return withRemedy(writing.error());
      lock.writing_ = std::move(*writing);
      const std::string holder = std::to_string(::getpid()) + "\n";
      if (auto written = fileSystem_.write(lock.writing_.get(), holder, path); !written)
        return withRemedy(written.error());
      return lock;
    }
    if (status) continue;  // won, but its holder has removed it: there is a new one, or none
    if (status.error().code != EWOULDBLOCK) return status.error();
    if (!waiter.wait(file->get()))
      return failure(EWOULDBLOCK, path_ + " is locked by " + holderOf(file->get()) + "; wait until that has ended");
  }
}

Status AtomicFile::prepare(int file, mode_t mode) const {
  struct stat old = {};
  if (::lstat(path_.c_str(), &old) == 0) {
    if (auto status = check(old); !status) return status;
    mode = old.st_mode & 07777;
    if (::fchown(file, old.st_uid, old.st_gid) < 0) return errnoError(errno, "chown the new " + path_);
  }
  if (::fchmod(file, mode) < 0) return errnoError(errno, "chmod the new " + path_);
  return {};
}

Status AtomicFile::replace(std::string_view bytes, mode_t mode) const {
  const std::string folderPath = folderOf(path_);
  auto folder = fileSystem_.open(folderPath, O_RDONLY | O_DIRECTORY, 0);
  if (!folder) return withRemedy(folder.error());
  vpnctl::FreshFile fresh{path_ + "-new"};  // the lock is ours, so nobody else writes it
  fresh.prepare = [&](int file) { return prepare(file, mode); };
  auto status = vpnctl::replaceFile(path_, bytes, fresh, fileSystem_);
  if (status) status = fileSystem_.synchronize(folder->get(), folderPath);
  return status ? status : withRemedy(status.error());
}

}  // namespace linux
