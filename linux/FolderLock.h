// An exclusive advisory lock on a folder. Others wait for its end, but never for ever.
//
// Thread rule: one thread; two processes are kept apart by the lock, and so are two FolderLocks of one process.

#pragma once

#include <chrono>
#include <string>
#include <utility>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace linux {

class FolderLock {
 public:
  // Waits for the holder's end, whichever it is, not for time. EWOULDBLOCK when another still holds the lock of FOLDER
  // after PATIENCE; ENOENT when there is no such folder. FOLDER may have been removed when this returns: its last user
  // removes it under its lock.
  static vpnctl::Result<FolderLock> take(const std::string &folder, std::chrono::milliseconds patience);

  FolderLock(FolderLock &&other) noexcept = default;
  FolderLock &operator=(FolderLock &&other) = delete;
  ~FolderLock() = default;

  int folder() const { return lock_.get(); }

 private:
  FolderLock(vpnctl::FileDescriptor lock, vpnctl::FileDescriptor wake)
      : wake_(std::move(wake)), lock_(std::move(lock)) {}

  // Its closing wakes those who wait. The kernel tells them of a closing before it gives the lock back, so they are
  // two: the lock's goes first, by the order here when this is destroyed, and by the order of opening when the process
  // dies.
  vpnctl::FileDescriptor wake_;
  vpnctl::FileDescriptor lock_;
};

}  // namespace linux
