// What stands behind a CFRunLoopRef on Linux.

#pragma once

#include <systemd/sd-event.h>

#include <atomic>

#include "foundation/FileDescriptor.h"
#include "platform/RunLoop.h"

namespace platform {

struct CFRunLoop {
  CFRunLoop();
  CFRunLoop(const CFRunLoop &) = delete;
  CFRunLoop &operator=(const CFRunLoop &) = delete;
  ~CFRunLoop();

  // Blocks until stop(), which may come from any thread, and before this.
  void run();
  void stop();

  sd_event *event = nullptr;  // for the sources of this backend; only the loop's own thread touches it

 private:
  foundation::FileDescriptor wake_;
  std::atomic<bool> stopped_ = false;
};

// An eventfd, non-blocking and close-on-exec; to be written from any thread. Aborts without descriptors.
foundation::FileDescriptor newWakeDescriptor();
void raiseWake(const foundation::FileDescriptor &wake);
// Takes back what was raised; false when nothing was.
bool takeWake(const foundation::FileDescriptor &wake);

}  // namespace platform
