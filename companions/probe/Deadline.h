// When to stop waiting, and how to wait until then.
//
// Thread rule: as a plain value.

#pragma once

#include <chrono>

namespace companions {

class Deadline {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit Deadline(std::chrono::milliseconds fromNow) : at_(std::chrono::steady_clock::now() + fromNow) {}
  explicit Deadline(Time at) : at_(at) {}

  bool passed() const { return std::chrono::steady_clock::now() >= at_; }
  // At least 0.
  std::chrono::milliseconds left() const;
  // The earlier one of this and what lies so far ahead.
  Deadline orAfter(std::chrono::milliseconds fromNow) const;
  Deadline orAt(Time at) const { return Deadline(at < at_ ? at : at_); }

 private:
  Time at_;
};

// Blocks until FD has one of poll(2)'s EVENTS, or an error or a hang-up; false when the deadline has passed before. FD
// may be -1, which waits for the time alone.
bool waitFor(int fd, short events, const Deadline &deadline);

}  // namespace companions
