// A clock that goes only when it is told to.

#pragma once

#include <list>
#include <stdexcept>
#include <utility>

#include "linux/Clock.h"

namespace support {

class ManualClock : public linux::Clock {
 public:
  std::chrono::steady_clock::time_point now() const override { return now_; }

  Timer after(std::chrono::milliseconds delay, std::function<void()> handler) override {
    // The real one would never come to it.
    if (delay.count() < 0) throw std::invalid_argument("a delay is not negative");
    const auto waiting = std::make_shared<Waiting>(Waiting{now_ + delay, std::move(handler)});
    waiting_.push_back(waiting);
    return waiting;
  }

  Timer soon(std::function<void()> handler) override { return after(std::chrono::milliseconds(0), std::move(handler)); }

  Timer afterSleep(std::function<void(std::chrono::milliseconds slept)> handler) override {
    const auto sleeper = std::make_shared<Sleeper>(std::move(handler));
    sleepers_.push_back(sleeper);
    return sleeper;
  }
  void sleep(std::chrono::milliseconds time) {
    sleepers_.remove_if([](const std::weak_ptr<Sleeper> &sleeper) { return sleeper.expired(); });
    for (const auto &each : std::list(sleepers_))
      if (const auto sleeper = each.lock()) (*sleeper)(time);
  }

  // Does what is due by then, in its order, and what that makes due.
  void advance(std::chrono::milliseconds time) {
    const auto until = now_ + time;
    while (const auto next = firstDue(until)) {
      now_ = std::max(now_, next->due);
      next->handler();
    }
    now_ = until;
  }

  // What is due now.
  void run() { advance(std::chrono::milliseconds(0)); }

 private:
  struct Waiting {
    std::chrono::steady_clock::time_point due;
    std::function<void()> handler;
  };

  std::shared_ptr<Waiting> firstDue(std::chrono::steady_clock::time_point until) {
    waiting_.remove_if([](const std::weak_ptr<Waiting> &waiting) { return waiting.expired(); });
    auto first = waiting_.end();
    for (auto it = waiting_.begin(); it != waiting_.end(); ++it)
      if (it->lock()->due <= until && (first == waiting_.end() || it->lock()->due < first->lock()->due)) first = it;
    if (first == waiting_.end()) return nullptr;
    auto due = first->lock();
    waiting_.erase(first);
    return due;
  }

  std::chrono::steady_clock::time_point now_{std::chrono::seconds(1000)};
  using Sleeper = std::function<void(std::chrono::milliseconds)>;
  std::list<std::weak_ptr<Waiting>> waiting_;
  std::list<std::weak_ptr<Sleeper>> sleepers_;
};

}  // namespace support
