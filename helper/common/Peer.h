// The program at the other end of a connected Unix socket, as the kernel knows it. A pidfd is held, so that the process
// id cannot come to mean another process while the executable is compared.

#pragma once

#include <sys/types.h>

#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace helper {

class Peer {
 public:
  // Who made the other end of a connected socket. Also when that process has ended meanwhile.
  static vpnctl::Result<uid_t> userOf(int socket);
  // From SO_PEERCRED of a connected socket. An error when the process is gone already.
  static vpnctl::Result<Peer> ofSocket(int socket);

  // A child of this process that has not been waited for.
  static vpnctl::Result<Peer> ofChild(pid_t child);

  pid_t pid() const { return pid_; }
  uid_t uid() const { return uid_; }
  // True when the process still lives and runs the very file at PATH (device and inode of /proc/PID/exe).
  bool runs(const std::string &path) const;

 private:
  Peer(pid_t pid, uid_t uid, vpnctl::FileDescriptor process);

  pid_t pid_;
  uid_t uid_;
  vpnctl::FileDescriptor process_;  // pidfd
};

}  // namespace helper
