// The owner of one file descriptor. Move-only; closes on destruction. Whoever opens one opens it close-on-exec.

#pragma once

#include <string>
#include <string_view>

#include "foundation/Result.h"

namespace vpnctl {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}  // takes over; -1 is "none"
  FileDescriptor(FileDescriptor &&other) noexcept : fd_(other.release()) {}
  FileDescriptor &operator=(FileDescriptor &&other) noexcept;
  ~FileDescriptor() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  // Gives the descriptor away without closing it.
  int release();
  // Closes what is held (errno is kept) and takes over FD.
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Writes all of BYTES to FILE, however often a signal interrupts it. Blocks as write(2) does; the error (POSIX domain)
// names PATH.
Status writeAll(int file, std::string_view bytes, const std::string &path);

}  // namespace vpnctl
