// How often somebody else may make us work: a few times at once, and so many per second.
//
// Thread rule: as a plain value.

#pragma once

#include <algorithm>

#include "helper/isakmp/Plan.h"

namespace helper::isakmp {

class RateLimit {
 public:
  RateLimit(int burst, int perSecond) : burst_(burst), interval_(std::chrono::milliseconds(1000) / perSecond) {}

  // Whether once more, at NOW, is within the limit.
  bool allows(Instant now) {
    // The moment at which everything would be allowed again moves ahead with each time.
    const Instant full = std::max(full_, now) + interval_;
    if (full - now > interval_ * burst_) return false;
    full_ = full;
    return true;
  }

 private:
  int burst_;
  std::chrono::milliseconds interval_;
  Instant full_{};
};

}  // namespace helper::isakmp
