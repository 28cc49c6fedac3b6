#include "platform/GrowthWatch.h"

#include <fcntl.h>
#include <sys/event.h>

#include <utility>

#include "platform/Dispatch.h"

namespace platform {

GrowthWatch::GrowthWatch(std::FILE *stream) {
  const int fd = fileno(stream);
  if (fd < 0) return;
  vpnctl::FileDescriptor queue(kqueue());
  if (!queue) return;
  fcntl(queue.get(), F_SETFD, FD_CLOEXEC);
  struct kevent change = {};
  change.ident = static_cast<std::uintptr_t>(fd);
  change.filter = EVFILT_VNODE;
  change.flags = EV_ADD | EV_CLEAR;
  change.fflags = NOTE_WRITE | NOTE_EXTEND;
  if (kevent(queue.get(), &change, 1, nullptr, 0, nullptr) == 0) changes_ = std::move(queue);
}

void GrowthWatch::sleep(std::chrono::milliseconds limit) {
  if (!changes_) {
    sleepForTimeInterval(std::chrono::duration<double>(limit).count());
    return;
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  const timespec timeout{seconds.count(), std::chrono::nanoseconds(limit - seconds).count()};
  struct kevent changed = {};
  kevent(changes_.get(), nullptr, 0, &changed, 1, &timeout);
}

}  // namespace platform
