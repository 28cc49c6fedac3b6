#include "linux/FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "linux/LockWaiter.h"

namespace linux {

using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Status;

Result<FolderLock> FolderLock::take(const std::string &folder, std::chrono::milliseconds patience) {
  LockWaiter waiter(LockWaiter::On::folder, patience);
  FileDescriptor lock(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!lock) return errnoError(errno, "lock " + folder);
  while (::flock(lock.get(), LOCK_EX | LOCK_NB) < 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return errnoError(errno, "lock " + folder);
    const Status waited = waiter.wait(lock.get());
    if (waited) continue;
    if (waited.error().code != EWOULDBLOCK)
      return errnoError(waited.error().code, "watch " + folder + ", which another program holds,");
    return Error{std::string(vpnctl::kPOSIXErrorDomain), EWOULDBLOCK,
                 "lock " + folder + ": another program holds it and does not go on"};
  }
  FileDescriptor wake(::openat(lock.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!wake) return errnoError(errno, "lock " + folder);
  return FolderLock(std::move(lock), std::move(wake));
}

}  // namespace linux
