#include "linux/FolderLock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace linux {

using foundation::errnoError;
using foundation::Error;
using foundation::FileDescriptor;
using foundation::Result;

namespace {

using Clock = std::chrono::steady_clock;

// Tells of everybody who closes the folder that is open as FOLDER: by its name there may be another by now. None when
// the system has no room for a watch.
FileDescriptor watchFolder(int folder) {
  FileDescriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  const std::string path = "/proc/self/fd/" + std::to_string(folder);
  if (watch && ::inotify_add_watch(watch.get(), path.c_str(), IN_CLOSE_NOWRITE | IN_ONLYDIR) < 0) watch.reset();
  return watch;
}

// The kernel tells that a dying holder's folder is closed before it takes the lock from him: whoever has looked in
// between hears no more of it.
constexpr std::chrono::milliseconds kLook{100};

// Returns when somebody has closed the folder, or after a while, at DEADLINE at the latest.
void wait(int watch, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd closed = {watch, POLLIN, 0};
  if (::poll(&closed, 1, static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), kLook).count())) <= 0) return;
  std::array<char, 4096> events;  // of no interest but that they came
  while (::read(watch, events.data(), events.size()) > 0) {
  }
}

}  // namespace

Result<FolderLock> FolderLock::take(const std::string &folder, std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  FileDescriptor lock(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!lock) return errnoError(errno, "lock " + folder);
  FileDescriptor watch;
  while (::flock(lock.get(), LOCK_EX | LOCK_NB) < 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return errnoError(errno, "lock " + folder);
    // Watched first and tried once more before waiting, so that no end falls in between; and tried once more at last.
    const bool waited = static_cast<bool>(watch);
    if (!watch) watch = watchFolder(lock.get());
    if (!watch) return errnoError(errno, "watch " + folder + ", which another program holds,");
    if (waited && Clock::now() >= deadline) {
      return Error{std::string(foundation::kPOSIXErrorDomain), EWOULDBLOCK,
                   "lock " + folder + ": another program holds it and does not go on"};
    }
    if (waited) wait(watch.get(), deadline);
  }
  FileDescriptor wake(::openat(lock.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!wake) return errnoError(errno, "lock " + folder);
  return FolderLock(std::move(lock), std::move(wake));
}

}  // namespace linux
