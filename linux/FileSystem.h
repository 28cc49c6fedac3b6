// The calls by which a store changes the disk, as a seam: PosixFileSystem makes them, a test's wrapper makes one of
// them fail.
//
// Errors are in the POSIX domain, their code is the errno. Thread rule: as the system's calls.

#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace linux {

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // FLAGS as open(2); close-on-exec is added, and a symbolic link at PATH is ELOOP.
  virtual foundation::Result<foundation::FileDescriptor> open(const std::string &path, int flags, mode_t mode) = 0;
  // Writes all of BYTES.
  virtual foundation::Status write(int file, std::string_view bytes, const std::string &path) = 0;
  // Returns when what was written, or what a folder holds, is on the disk.
  virtual foundation::Status synchronize(int file, const std::string &path) = 0;
  virtual foundation::Status rename(const std::string &from, const std::string &to) = 0;
  // A second name for a file; EEXIST when TO exists.
  virtual foundation::Status link(const std::string &from, const std::string &to) = 0;
  virtual foundation::Status remove(const std::string &path) = 0;
  // An exclusive advisory lock on an open file; EWOULDBLOCK when another holds it. Does not wait.
  virtual foundation::Status lock(int file, const std::string &path) = 0;
};

class PosixFileSystem : public FileSystem {
 public:
  foundation::Result<foundation::FileDescriptor> open(const std::string &path, int flags, mode_t mode) override;
  foundation::Status write(int file, std::string_view bytes, const std::string &path) override;
  foundation::Status synchronize(int file, const std::string &path) override;
  foundation::Status rename(const std::string &from, const std::string &to) override;
  foundation::Status link(const std::string &from, const std::string &to) override;
  foundation::Status remove(const std::string &path) override;
  foundation::Status lock(int file, const std::string &path) override;
};

}  // namespace linux
