#include "platform/GrowthWatch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <string>

#include "platform/Dispatch.h"

namespace platform {

GrowthWatch::GrowthWatch(std::FILE *stream) {
  const int fd = fileno(stream);
  if (fd < 0) return;
  vpnctl::FileDescriptor inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!inotify) return;
  // Through the descriptor, not the path: a log that is replaced under its name is not followed.
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (inotify_add_watch(inotify.get(), path.c_str(), IN_MODIFY) < 0) return;
  changes_ = std::move(inotify);
}

void GrowthWatch::sleep(std::chrono::milliseconds limit) {
  if (!changes_) {
    sleepForTimeInterval(std::chrono::duration<double>(limit).count());
    return;
  }
  pollfd changed{changes_.get(), POLLIN, 0};
  poll(&changed, 1, static_cast<int>(limit.count()));
  // Only that something changed matters.
  alignas(inotify_event) char events[4096];
  while (read(changes_.get(), events, sizeof events) > 0) {
  }
}

}  // namespace platform
