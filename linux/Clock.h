// Time for what waits: now, and later. A seam, so that tests need not wait.
//
// Thread rule: the thread of the event loop.

#pragma once

#include <chrono>
#include <functional>
#include <memory>

struct sd_event;

namespace linux {

class Clock {
 public:
  // Something to be done later; destroying it forgets it. A handler may destroy or replace its own.
  using Timer = std::shared_ptr<void>;

  virtual ~Clock() = default;
  // Since the system's start; does not count the time that the system sleeps.
  virtual std::chrono::steady_clock::time_point now() const = 0;
  // Calls HANDLER once, from the loop, after DELAY.
  [[nodiscard]] virtual Timer after(std::chrono::milliseconds delay, std::function<void()> handler) = 0;
  // In the loop's next turn.
  [[nodiscard]] virtual Timer soon(std::function<void()> handler) = 0;
  // Calls HANDLER, from the loop, whenever the system has slept, with for how long. Nothing where the system does not
  // tell.
  [[nodiscard]] virtual Timer afterSleep(std::function<void(std::chrono::milliseconds slept)> handler) = 0;
};

// The system's clock, by EVENT, which outlives it.
class EventClock : public Clock {
 public:
  explicit EventClock(sd_event *event) : event_(event) {}
  std::chrono::steady_clock::time_point now() const override;
  Timer after(std::chrono::milliseconds delay, std::function<void()> handler) override;
  Timer soon(std::function<void()> handler) override;
  Timer afterSleep(std::function<void(std::chrono::milliseconds slept)> handler) override;

 private:
  sd_event *event_;
};

}  // namespace linux
