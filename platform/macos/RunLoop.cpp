#include "platform/macos/RunLoop.h"

#include <utility>

namespace platform {

CFRunLoopRef CFRunLoopGetCurrent() {
  thread_local const CFRunLoopRef loop = std::make_shared<CFRunLoop>();
  return loop;
}

void CFRunLoopRun() {
  const CFRunLoopRef loop = CFRunLoopGetCurrent();
  {
    const std::lock_guard lock(loop->mutex);
    if (std::exchange(loop->stopped, false)) return;
    loop->running = true;
  }
  ::CFRunLoopRun();
  const std::lock_guard lock(loop->mutex);
  loop->running = false;
}

// The system forgets a stop of a loop that does not run. Callbacks, which are who stops it here, come while it runs.
void CFRunLoopStop(const CFRunLoopRef &runLoop) {
  {
    const std::lock_guard lock(runLoop->mutex);
    if (!runLoop->running) runLoop->stopped = true;
  }
  ::CFRunLoopStop(runLoop->object.get());
}

}  // namespace platform
