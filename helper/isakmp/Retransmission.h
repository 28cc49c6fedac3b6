// Sends a message again until it is answered. It neither sends nor has a clock: it says when, and what.
//
// Thread rule: as a plain value.

#pragma once

#include <optional>

#include "helper/isakmp/Plan.h"

namespace helper::isakmp {

class Retransmission {
 public:
  // MESSAGE goes out now.
  void start(Instant now, const Timing &timing, Bytes message) {
    message_ = std::move(message);
    sent_ = now;
    interval_ = timing.firstRetry;
    left_ = timing.tries - 1;
    repeated_ = false;
    due_ = now + interval_;
  }
  void stop() { due_.reset(); }

  std::optional<Instant> due() const { return due_; }
  // When it is due: the message to send again, or none when there were enough.
  const Bytes *again(Instant now) {
    repeated_ = true;
    if (left_ == 0) {
      due_.reset();
      return nullptr;
    }
    --left_;
    // The last wait is as long as the one before.
    if (left_ > 0) interval_ *= 2;
    due_ = now + interval_;
    return &message_;
  }
  // How long the answer to the message took; none when it cannot be told which of several it answers.
  std::optional<std::chrono::milliseconds> roundTrip(Instant now) const {
    if (repeated_) return std::nullopt;
    return now - sent_;
  }

 private:
  Bytes message_;
  Instant sent_{};
  std::chrono::milliseconds interval_{};
  int left_ = 0;
  bool repeated_ = false;
  std::optional<Instant> due_;
};

// The answer to the last message of an exchange, for a peer that did not hear it: the same message gets the same
// answer, a few times. More often would make us a means to flood somebody.
class LastAnswer {
 public:
  void keep(View message, Bytes answer) {
    message_ = Bytes(message.begin(), message.end());
    answer_ = std::move(answer);
    left_ = kMost;
  }
  // None for any other message.
  const Bytes *to(View message) {
    if (left_ == 0 || !sameBytes(message, message_)) return nullptr;
    --left_;
    return &answer_;
  }

 private:
  static constexpr int kMost = 8;
  Bytes message_;
  Bytes answer_;
  int left_ = 0;
};

}  // namespace helper::isakmp
