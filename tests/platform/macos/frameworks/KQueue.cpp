// kqueue(2), as far as it watches a file for growth, by inotify(7).

#include <poll.h>
#include <sys/event.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <string>

#include "tests/platform/macos/frameworks/Objects.h"

extern "C" {

int kqueue() { return inotify_init1(IN_NONBLOCK); }

int kevent(int queue, const struct kevent *changes, int changeCount, struct kevent *events, int eventCount,
           const struct timespec *timeout) {
  if (changeCount > 0) {
    if (changes->filter != EVFILT_VNODE || changes->flags != (EV_ADD | EV_CLEAR) ||
        changes->fflags != (NOTE_WRITE | NOTE_EXTEND))
      frameworks::misuse("something else is watched than a file's growth");
    const std::string path = "/proc/self/fd/" + std::to_string(changes->ident);
    return inotify_add_watch(queue, path.c_str(), IN_MODIFY) < 0 ? -1 : 0;
  }
  if (eventCount != 1 || timeout == nullptr) frameworks::misuse("a wait without an end");
  pollfd changed{queue, POLLIN, 0};
  if (ppoll(&changed, 1, timeout, nullptr) <= 0) return 0;
  // A state that is told is told once.
  alignas(inotify_event) char told[4096];
  while (read(queue, told, sizeof told) > 0) {
  }
  *events = {};
  return 1;
}

}  // extern "C"
