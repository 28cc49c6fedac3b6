// The run loop's inside.

#pragma once

#include <mutex>

#include "platform/RunLoop.h"
#include "platform/macos/CFObject.h"

namespace platform {

struct CFRunLoop {
  // Retained: whoever holds this may outlive the thread.
  const macos::CFObject<::CFRunLoopRef> object = macos::CFObject<::CFRunLoopRef>::retained(::CFRunLoopGetCurrent());

  std::mutex mutex;  // guards the two below
  bool running = false;
  bool stopped = false;  // before it ran
};

}  // namespace platform
