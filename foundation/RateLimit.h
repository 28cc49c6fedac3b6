// How often somebody else may make us work: a few times at once, and so many per second.
//
// Thread rule: as a plain value.

#pragma once

#include <algorithm>
#include <chrono>

namespace vpnctl {

class RateLimit {
 public:
  // Its caller says how late it is, counted from wherever, never backwards.
  using Instant = std::chrono::milliseconds;

  RateLimit(int burst, int perSecond) : burst_(burst), interval_(std::chrono::milliseconds(1000) / perSecond) {}

  // Whether once more, at NOW, is within the limit; if it is, it counts.
  bool allows(Instant now) {
    if (!hasRoom(now)) return false;
    count(now);
    return true;
  }
  // The same in two steps: for what counts only when it has proved to be genuine.
  bool hasRoom(Instant now) const { return next(now) - now <= interval_ * burst_; }
  void count(Instant now) { full_ = next(now); }

 private:
  // The moment at which everything would be allowed again moves ahead with each time.
  Instant next(Instant now) const { return std::max(full_, now) + interval_; }

  int burst_;
  std::chrono::milliseconds interval_;
  Instant full_{};
};

}  // namespace vpnctl
