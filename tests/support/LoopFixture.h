// An event loop for a test, run until something has happened.

#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>

#include "linux/SystemdOwners.h"

namespace support {

class LoopFixture : public testing::Test {
 protected:
  LoopFixture() {
    EXPECT_GE(sd_event_new(linux::Out(loop_)), 0);
    event_ = loop_.get();
  }

  // Runs the loop until DONE answers yes; a test that waits for ever fails instead.
  testing::AssertionResult runUntil(const std::function<bool()> &done,
                                    std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!done()) {
      const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return testing::AssertionFailure() << "it did not happen in time";
      if (sd_event_run(event_, static_cast<std::uint64_t>(left.count())) < 0)
        return testing::AssertionFailure() << "the loop failed";
    }
    return testing::AssertionSuccess();
  }

  // From here on no event source can be made or changed.
  void finishLoop() {
    ASSERT_GE(sd_event_exit(event_, 0), 0);
    ASSERT_GE(sd_event_loop(event_), 0);
  }

  linux::EventLoop loop_;
  sd_event *event_ = nullptr;  // of loop_
};

}  // namespace support
