#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <optional>
#include <vector>

#include "linux/SleepWatch.h"
#include "tests/support/LoopFixture.h"

namespace {

using std::chrono::milliseconds;
using Times = std::vector<milliseconds>;

class SleepWatchTest : public support::LoopFixture {
 protected:
  SleepWatchTest() {
    watch_.emplace(
        event_,
        [this](milliseconds slept) {
          heard_.push_back(slept);
          if (destroys_) watch_.reset();
        },
        [this] { return slept_; }, vpnctl::FileDescriptor(::dup(alarm_.get())));
  }
  // The time of day jumps; returns when that has been looked at.
  void jump() {
    ASSERT_EQ(::eventfd_write(alarm_.get(), 1), 0);
    pollfd wait{alarm_.get(), POLLIN, 0};
    ASSERT_TRUE(runUntil([&] { return ::poll(&wait, 1, 0) == 0; }));
  }

  const vpnctl::FileDescriptor alarm_{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  milliseconds slept_{5000};
  Times heard_;
  bool destroys_ = false;
  std::optional<linux::SleepWatch> watch_;
};

TEST_F(SleepWatchTest, TellsHowLongTheSystemHasSlept) {
  slept_ += milliseconds(3000);
  jump();
  jump();
  slept_ += milliseconds(40);
  jump();
  EXPECT_EQ(heard_, (Times{milliseconds(3000), milliseconds(40)}));
}

TEST_F(SleepWatchTest, ThinksNothingOfASetClock) {
  jump();
  EXPECT_EQ(heard_, Times());
}

TEST_F(SleepWatchTest, MayBeDestroyedByItsHandler) {
  destroys_ = true;
  slept_ += milliseconds(3000);
  jump();
  EXPECT_FALSE(watch_);
  EXPECT_EQ(heard_, Times{milliseconds(3000)});
}

TEST_F(SleepWatchTest, ReadsTheSystemsClocks) {
  EXPECT_GE(linux::SleepWatch::sleptSoFar(), milliseconds(-1));
  const linux::SleepWatch watch(event_, [](milliseconds) {});
}

}  // namespace
