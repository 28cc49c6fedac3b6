// Asks a silent server whether it still lives (RFC 3706). It neither sends nor has a clock.
//
// Thread rule: as a plain value.

#pragma once

#include <optional>

#include "helper/isakmp/Plan.h"

namespace helper::isakmp {

class DeadPeerDetection {
 public:
  // Without a DELAY nothing is ever due.
  DeadPeerDetection(std::chrono::milliseconds delay, const Timing &timing)
      : delay_(delay), retry_(timing.deadPeerRetry), tries_(timing.deadPeerTries) {}

  // FIRST: the number of the first question.
  void start(Instant now, std::uint32_t first) {
    number_ = first;
    heard(now);
  }
  void stop() { due_.reset(); }
  // Something came that only the server can have sent.
  void heard(Instant now) {
    asked_ = 0;
    if (delay_.count() > 0) due_ = now + delay_;
  }
  std::optional<Instant> due() const { return due_; }
  // When it is due: the number of the next question, or none when there were enough.
  std::optional<std::uint32_t> ask(Instant now) {
    if (asked_ == tries_) {
      due_.reset();
      return std::nullopt;
    }
    ++asked_;
    due_ = now + retry_;
    return ++number_;
  }

 private:
  std::chrono::milliseconds delay_;
  std::chrono::milliseconds retry_;
  int tries_;
  int asked_ = 0;  // since anything was heard
  std::uint32_t number_ = 0;
  std::optional<Instant> due_;
};

}  // namespace helper::isakmp
