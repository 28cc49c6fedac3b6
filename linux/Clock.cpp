#include "linux/Clock.h"

#include <utility>

#include "linux/EventSource.h"
#include "linux/SleepWatch.h"

namespace linux {

std::chrono::steady_clock::time_point EventClock::now() const { return std::chrono::steady_clock::now(); }

Clock::Timer EventClock::after(std::chrono::milliseconds delay, std::function<void()> handler) {
  return std::make_shared<EventSource>(EventSource::timer(event_, delay, std::move(handler)));
}

Clock::Timer EventClock::soon(std::function<void()> handler) {
  return std::make_shared<EventSource>(EventSource::soon(event_, std::move(handler)));
}

Clock::Timer EventClock::afterSleep(std::function<void(std::chrono::milliseconds slept)> handler) {
  return std::make_shared<SleepWatch>(event_, std::move(handler));
}

}  // namespace linux
