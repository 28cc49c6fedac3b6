#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <optional>

#include "linux/SessionWatch.h"
#include "tests/support/LoopFixture.h"

namespace {

class SessionWatchTest : public support::LoopFixture {
 protected:
  SessionWatchTest() {
    watch_.emplace(
        event_,
        [this] {
          ++heard_;
          if (destroys_) watch_.reset();
        },
        [this] { return isOver_; }, vpnctl::FileDescriptor(::dup(changes_.get())));
  }
  // Something becomes of some session; returns when that has been looked at.
  void change() {
    ASSERT_EQ(::eventfd_write(changes_.get(), 1), 0);
    pollfd wait{changes_.get(), POLLIN, 0};
    ASSERT_TRUE(runUntil([&] { return ::poll(&wait, 1, 0) == 0; }));
  }

  const vpnctl::FileDescriptor changes_{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  bool isOver_ = false;
  bool destroys_ = false;
  int heard_ = 0;
  std::optional<linux::SessionWatch> watch_;
};

TEST_F(SessionWatchTest, ThinksNothingOfOtherSessions) {
  change();
  change();
  EXPECT_EQ(heard_, 0);
}

TEST_F(SessionWatchTest, TellsTheEndOnce) {
  change();
  isOver_ = true;
  change();
  EXPECT_EQ(heard_, 1);
  ASSERT_EQ(::eventfd_write(changes_.get(), 1), 0);
  EXPECT_FALSE(runUntil([this] { return heard_ > 1; }, std::chrono::milliseconds(50)));
}

TEST_F(SessionWatchTest, MayBeDestroyedByItsHandler) {
  destroys_ = true;
  isOver_ = true;
  change();
  EXPECT_EQ(heard_, 1);
  EXPECT_FALSE(watch_);
}

// Wherever this runs: nobody logs out meanwhile.
TEST_F(SessionWatchTest, OfThisProcess) {
  const linux::SessionWatch watch(
      event_, ::getpid(), [this] { ++heard_; });
  EXPECT_FALSE(runUntil([this] { return heard_ > 0; }, std::chrono::milliseconds(50)));
}

}  // namespace
