// Queues and the signal source.
//
// Usual sequence for a signal: dispatch_source_create, dispatch_source_set_event_handler, dispatch_resume,
// ignoreObservedSignal. Resuming blocks the signal in the calling thread, so it must come before
// other threads are made.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace platform {

using dispatch_block_t = std::function<void()>;
using dispatch_queue_t = std::shared_ptr<struct DispatchQueue>;
using dispatch_source_t = std::shared_ptr<struct DispatchSource>;

inline constexpr std::intptr_t DISPATCH_QUEUE_PRIORITY_DEFAULT = 0;

// Blocks on a global queue may run side by side; blocks on a created queue run one after the other.
dispatch_queue_t dispatch_get_global_queue(std::intptr_t priority, std::uintptr_t flags);
dispatch_queue_t dispatch_queue_create(const std::string &label);
// Returns at once. The queue's own reference may go while blocks are still waiting: they run all the same.
void dispatch_async(const dispatch_queue_t &queue, dispatch_block_t block);

enum dispatch_source_type_t { DISPATCH_SOURCE_TYPE_SIGNAL };

// A source that observes SIGNAL without handling it: its handler runs on QUEUE, one run at a time. Suspended at first.
// MASK is unused.
dispatch_source_t dispatch_source_create(dispatch_source_type_t type, int signal, std::uintptr_t mask,
                                         const dispatch_queue_t &queue);
void dispatch_source_set_event_handler(const dispatch_source_t &source, dispatch_block_t handler);
// Starts observing: the signal is blocked in this thread and in those it makes, and read on a thread of the source's
// own.
void dispatch_resume(const dispatch_source_t &source);
// Sets the ignore action for the signal that SOURCE observes, which has been resumed. Where that throws a signal away
// that has arrived already, the source is told of it.
void ignoreObservedSignal(const dispatch_source_t &source);

// Sleeps this thread for SECONDS.
void sleepForTimeInterval(double seconds);

}  // namespace platform
