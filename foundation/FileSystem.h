// The calls by which files are replaced, as a seam: PosixFileSystem makes them, a test's wrapper makes one of
// them fail.
//
// Errors are in the POSIX domain, their code is the errno. Thread rule: as the system's calls.

#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace vpnctl {

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // FLAGS as open(2); close-on-exec is added, and a symbolic link at PATH is ELOOP.
  virtual Result<FileDescriptor> open(const std::string &path, int flags, mode_t mode) = 0;
  // Writes all of BYTES.
  virtual Status write(int file, std::string_view bytes, const std::string &path) = 0;
  // Returns when what was written, or what a folder holds, is on the disk.
  virtual Status synchronize(int file, const std::string &path) = 0;
  virtual Status rename(const std::string &from, const std::string &to) = 0;
  // A second name for a file; EEXIST when TO exists.
  virtual Status link(const std::string &from, const std::string &to) = 0;
  virtual Status remove(const std::string &path) = 0;
  // An exclusive advisory lock on an open file; EWOULDBLOCK when another holds it. Does not wait.
  virtual Status lock(int file, const std::string &path) = 0;
};

class PosixFileSystem : public FileSystem {
 public:
  Result<FileDescriptor> open(const std::string &path, int flags, mode_t mode) override;
  Status write(int file, std::string_view bytes, const std::string &path) override;
  Status synchronize(int file, const std::string &path) override;
  Status rename(const std::string &from, const std::string &to) override;
  Status link(const std::string &from, const std::string &to) override;
  Status remove(const std::string &path) override;
  Status lock(int file, const std::string &path) override;
};

}  // namespace vpnctl
