// Waiting for the end of an advisory lock that somebody else holds: for its holder's closing, not for time.
//
// Usual sequence: try; while it is held, wait() and try again, until wait() gives up. Thread rule: one thread.

#pragma once

#include <chrono>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace linux {

class LockWaiter {
 public:
  // What bears the lock: a file that its holder has open for writing and removes, or a folder.
  enum class On { file, folder };
  LockWaiter(On what, std::chrono::milliseconds patience) : what_(what), deadline_(Clock::now() + patience) {}

  // Returns when the lock, which was held when it was tried on the open FILE, is worth another try. EWOULDBLOCK when
  // patience is over; another error when there is no room for a watch.
  vpnctl::Status wait(int file);

 private:
  using Clock = std::chrono::steady_clock;

  On what_;
  Clock::time_point deadline_;
  vpnctl::FileDescriptor watch_;
};

}  // namespace linux
