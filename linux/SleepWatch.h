// Hears when the system has slept. While it sleeps, the clock that timers go by stands still.
//
// Thread rule: the thread of the event loop. Nothing blocks.

#pragma once

#include <chrono>
#include <functional>

#include "foundation/FileDescriptor.h"
#include "linux/EventSource.h"

namespace linux {

class SleepWatch {
 public:
  using Handler = std::function<void(std::chrono::milliseconds slept)>;
  // How long the system has slept since its start.
  using Source = std::function<std::chrono::milliseconds()>;

  // HANDLER may destroy it. A system that cannot tell is never heard of.
  SleepWatch(sd_event *event, Handler handler);
  // For tests: looks at SOURCE whenever ALARM, an eventfd, says so.
  SleepWatch(sd_event *event, Handler handler, Source source, vpnctl::FileDescriptor alarm);
  SleepWatch(const SleepWatch &) = delete;
  SleepWatch &operator=(const SleepWatch &) = delete;

  static std::chrono::milliseconds sleptSoFar();

 private:
  void arm();
  void look();

  Handler handler_;
  Source source_;
  std::chrono::milliseconds slept_;
  vpnctl::FileDescriptor alarm_;  // readable when the time of day jumps
  EventSource io_;
};

}  // namespace linux
