// The run loop of a thread: where callbacks arrive while the thread waits.
//
// Thread rule: CFRunLoopGetCurrent and CFRunLoopRun act on the calling thread's loop; CFRunLoopStop may be called from
// any thread.

#pragma once

#include <memory>
#include <string>

namespace platform {

using CFRunLoopRef = std::shared_ptr<struct CFRunLoop>;

inline const std::string kCFRunLoopDefaultMode = "kCFRunLoopDefaultMode";

// This thread's loop, made on first use.
CFRunLoopRef CFRunLoopGetCurrent();
// Runs this thread's loop until somebody stops it. Blocks. A stop that came before the run ends the run at once.
void CFRunLoopRun();
// The run ends as soon as the callback that is running (if any) has returned.
void CFRunLoopStop(const CFRunLoopRef &runLoop);

}  // namespace platform
