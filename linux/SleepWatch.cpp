#include "linux/SleepWatch.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <ctime>
#include <limits>
#include <utility>

namespace linux {

using std::chrono::milliseconds;

namespace {

milliseconds readClock(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return std::chrono::duration_cast<milliseconds>(std::chrono::seconds(now.tv_sec) +
                                                  std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace

milliseconds SleepWatch::sleptSoFar() { return readClock(CLOCK_BOOTTIME) - readClock(CLOCK_MONOTONIC); }

SleepWatch::SleepWatch(sd_event *event, Handler handler)
    : SleepWatch(event, std::move(handler), sleptSoFar,
                 vpnctl::FileDescriptor(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK))) {}

SleepWatch::SleepWatch(sd_event *event, Handler handler, Source source, vpnctl::FileDescriptor alarm)
    : handler_(std::move(handler)), source_(std::move(source)), slept_(source_()), alarm_(std::move(alarm)) {
  if (!alarm_) return;
  arm();
  io_ = EventSource::io(event, alarm_.get(), EPOLLIN, [this](std::uint32_t) { look(); });
}

// Never due, but cancelled whenever the time of day jumps; the kernel counts the end of a sleep among that.
void SleepWatch::arm() {
  itimerspec never{};
  never.it_value.tv_sec = std::numeric_limits<std::time_t>::max();
  ::timerfd_settime(alarm_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
}

void SleepWatch::look() {
  std::uint64_t count = 0;
  static_cast<void>(!::read(alarm_.get(), &count, sizeof count));
  arm();
  const milliseconds now = source_();
  const milliseconds slept = now - std::exchange(slept_, now);
  if (slept <= milliseconds(0)) return;  // only the time of day was set
  const Handler handler = handler_;
  handler(slept);
}

}  // namespace linux
