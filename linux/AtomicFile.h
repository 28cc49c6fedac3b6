// One file that is only ever read whole and replaced whole: a torn write, a full disk or a killed process leave the old
// bytes or the new ones.
//
// Usual sequence: lock(), read(), replace(), and the lock goes with its owner. Thread rule: one thread; two processes
// are kept apart by the lock.

#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/FileDescriptor.h"
#include "foundation/FileSystem.h"
#include "foundation/Result.h"

namespace linux {

class AtomicFile {
 public:
  struct Contents {
    std::string bytes;
    struct stat attributes = {};
  };

  // Held while it lives. The lock's file bears the holder's process id and goes with the lock.
  class Lock {
   public:
    Lock(Lock &&other) noexcept = default;
    Lock &operator=(Lock &&other) = delete;
    ~Lock();

   private:
    friend class AtomicFile;
    Lock(std::string path, vpnctl::FileDescriptor file) : path_(std::move(path)), file_(std::move(file)) {}

    std::string path_;
    vpnctl::FileDescriptor file_;     // bears the lock; opened first, so closed first when the process is killed
    vpnctl::FileDescriptor writing_;  // its closing wakes those who wait
  };

  // PATH is absolute. FILE_SYSTEM outlives this.
  AtomicFile(std::string path, vpnctl::FileSystem &fileSystem) : path_(std::move(path)), fileSystem_(fileSystem) {}

  const std::string &path() const { return path_; }

  // The whole file, of at most MAXIMUM bytes (EFBIG); none when there is none. EPERM for what nobody but an attacker or
  // a mistake would put here: a symbolic link, no regular file, a foreign owner, writable by others than its owner. The
  // message of every error ends with what to do about it, where a person can do something.
  vpnctl::Result<std::optional<Contents>> read(std::size_t maximum) const;

  // Creates the file's folder, with MODE, if it is missing (its parent exists). One that is there must be ours, and not
  // writable by others (EPERM).
  vpnctl::Status createFolder(mode_t mode) const;

  // The lock of PATH-lock. EWOULDBLOCK when another still holds it after PATIENCE; waits for the holder's end, not for
  // time.
  vpnctl::Result<Lock> lock(std::chrono::milliseconds patience) const;

  // Replaces the file by BYTES, on the disk when it returns. An existing file's owner and mode are kept; a new one gets
  // MODE. On failure the old bytes stay, unless it was the folder that could not be synchronised at the very end. The
  // caller holds the lock.
  vpnctl::Status replace(std::string_view bytes, mode_t mode) const;

 private:
  vpnctl::Status check(const struct stat &attributes) const;
  // Gives the new FILE the owner and mode of the one that is there, or MODE.
  vpnctl::Status prepare(int file, mode_t mode) const;

  std::string path_;
  vpnctl::FileSystem &fileSystem_;
};

}  // namespace linux
