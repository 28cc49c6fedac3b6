#include "linux/LockWaiter.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <string>

namespace linux {

using vpnctl::errnoError;
using vpnctl::Status;

// The kernel tells that a dying holder's file is closed before it takes the lock from him: whoever has looked in
// between hears no more of it.
constexpr std::chrono::milliseconds kLook{100};

Status LockWaiter::wait(int file) {
  // Watched first, and tried once more before waiting, so that no end falls in between. Not before there is a need: the
  // kernel takes milliseconds to end a watch.
  if (!watch_) {
    watch_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    // What is open, not its name: by that there may be another by now.
    const std::uint32_t events = what_ == On::folder ? IN_CLOSE_NOWRITE | IN_ONLYDIR : IN_CLOSE_WRITE | IN_ATTRIB;
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    if (watch_ && ::inotify_add_watch(watch_.get(), path.c_str(), events) >= 0) return {};
    const int reason = errno;
    watch_.reset();
    return errnoError(reason, "watch a lock");
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
  if (left.count() <= 0) return errnoError(EWOULDBLOCK, "wait for a lock");
  pollfd ended = {watch_.get(), POLLIN, 0};
  ::poll(&ended, 1, static_cast<int>(std::min(left, kLook).count()));
  if (what_ == On::file) watch_.reset();  // the next to hold it makes another
  std::array<char, 4096> told;            // of no interest but that it came
  while (watch_ && ::read(watch_.get(), told.data(), told.size()) > 0) continue;
  return {};
}

}  // namespace linux
