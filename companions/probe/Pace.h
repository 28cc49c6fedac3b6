// No more than so many packets a second to one server, whatever asks it. One Pace goes from question to question.
//
// Usual sequence: wait(), send; or, for whoever has something else to do meanwhile, when next() has come, took() and
// send. Thread rule: one thread.

#pragma once

#include <chrono>

#include "companions/probe/Deadline.h"

namespace companions {

class Pace {
 public:
  static constexpr std::chrono::milliseconds kUsual{200};  // five packets a second

  explicit Pace(std::chrono::milliseconds gap = kUsual) : gap_(gap) {}

  // When the next packet may go.
  Deadline::Time next() const { return next_; }
  // One goes now.
  void took() { next_ = std::chrono::steady_clock::now() + gap_; }
  // Blocks until one may go, and counts it; never longer than the gap.
  void wait();

 private:
  std::chrono::milliseconds gap_;
  Deadline::Time next_ = Deadline::Time::min();
};

}  // namespace companions
