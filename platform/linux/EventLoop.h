// What stands behind a CFRunLoopRef on Linux.

#pragma once

#include <atomic>

#include "foundation/FileDescriptor.h"
#include "linux/EventSource.h"
#include "linux/SystemdOwners.h"
#include "platform/RunLoop.h"

namespace platform {

struct CFRunLoop {
  CFRunLoop();
  CFRunLoop(const CFRunLoop &) = delete;
  CFRunLoop &operator=(const CFRunLoop &) = delete;

  // Blocks until stop(), which may come from any thread, and before this.
  void run();
  void stop();

  // For the sources of this backend; only the loop's own thread touches it.
  sd_event *event() const { return event_.get(); }

 private:
  vpnctl::FileDescriptor wake_;
  linux::EventLoop event_;
  linux::EventSource woken_;
  std::atomic<bool> stopped_ = false;
};

// An eventfd, non-blocking and close-on-exec; to be written from any thread. Aborts without descriptors.
vpnctl::FileDescriptor newWakeDescriptor();
void raiseWake(const vpnctl::FileDescriptor &wake);
// Takes back what was raised; false when nothing was.
bool takeWake(const vpnctl::FileDescriptor &wake);

}  // namespace platform
