#include "linux/Clock.h"
#include "tests/support/LoopFixture.h"

using linux::EventClock;
using std::chrono::milliseconds;

namespace {

class ClockTest : public support::LoopFixture {
 protected:
  EventClock clock_{event_};
  linux::Clock::Timer timer_;
  int calls_ = 0;
};

TEST_F(ClockTest, CallsOnceAfterTheDelay) {
  const auto begin = clock_.now();
  timer_ = clock_.after(milliseconds(20), [this] { ++calls_; });
  EXPECT_EQ(calls_, 0);
  ASSERT_TRUE(runUntil([this] { return calls_ > 0; }));
  EXPECT_GE(clock_.now() - begin, milliseconds(20));
  ASSERT_GE(sd_event_run(event_, 30000), 0);
  EXPECT_EQ(calls_, 1);
}

TEST_F(ClockTest, SoonIsTheNextTurnAndNotAtOnce) {
  timer_ = clock_.soon([this] { ++calls_; });
  EXPECT_EQ(calls_, 0);
  ASSERT_GT(sd_event_run(event_, 0), 0);
  EXPECT_EQ(calls_, 1);
}

TEST_F(ClockTest, AForgottenTimerDoesNothing) {
  timer_ = clock_.after(milliseconds(0), [this] { ++calls_; });
  timer_.reset();
  ASSERT_GE(sd_event_run(event_, 5000), 0);
  EXPECT_EQ(calls_, 0);
}

TEST_F(ClockTest, AHandlerMayReplaceItsOwnTimer) {
  const auto held = std::make_shared<int>(7);
  timer_ = clock_.soon([this, held] {
    timer_ = clock_.soon([this] { ++calls_; });
    calls_ += *held;  // the handler's own things are still there
  });
  ASSERT_TRUE(runUntil([this] { return calls_ == 8; }));
}

}  // namespace
