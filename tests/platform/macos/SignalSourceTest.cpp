// The order in which libdispatch is asked, which the tests of what comes of it cannot see.

#include <gtest/gtest.h>
#include <signal.h>

#include "platform/Dispatch.h"
#include "tests/platform/macos/frameworks/Frameworks.h"

namespace platform {
namespace {

using Calls = std::vector<std::string>;

class MacSignalSourceTest : public testing::Test {
 protected:
  MacSignalSourceTest() {
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
    sigaction(SIGUSR2, nullptr, &action_);
    frameworks::forgetDispatchCalls();
  }
  ~MacSignalSourceTest() override {
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
    sigaction(SIGUSR2, &action_, nullptr);
  }

  static dispatch_source_t create() {
    return dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGUSR2, 0,
                                  dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
  }
  const Calls made_{"get_global_queue 0 0", "source_create " + std::to_string(SIGUSR2), "source_set_event_handler"};

  static Calls after(Calls calls, const Calls &more) {
    calls.insert(calls.end(), more.begin(), more.end());
    return calls;
  }

 private:
  sigset_t mask_;
  struct sigaction action_ = {};
};

TEST_F(MacSignalSourceTest, IsMadeThenResumedOnceThenCancelledAndReleased) {
  dispatch_source_t source = create();
  dispatch_source_set_event_handler(source, [] {});
  EXPECT_EQ(frameworks::dispatchCalls(), made_);
  dispatch_resume(source);
  dispatch_resume(source);
  EXPECT_EQ(frameworks::dispatchCalls(), after(made_, {"resume"}));
  source.reset();
  EXPECT_EQ(frameworks::dispatchCalls(), after(made_, {"resume", "source_cancel", "release"}));
}

// A suspended source must not be released.
TEST_F(MacSignalSourceTest, OneThatWasNeverResumedIsBeforeItGoes) {
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> seen = held;
  dispatch_source_t source = create();
  dispatch_source_set_event_handler(source, [held] {});
  held.reset();
  source.reset();
  EXPECT_EQ(frameworks::dispatchCalls(), after(made_, {"source_cancel", "resume", "release"}));
  EXPECT_TRUE(seen.expired());
}

TEST_F(MacSignalSourceTest, IgnoringTheSignalIsNoCallOfLibdispatchs) {
  const dispatch_source_t source = create();
  dispatch_resume(source);
  ignoreObservedSignal(source);
  struct sigaction action = {};
  sigaction(SIGUSR2, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
  EXPECT_EQ(frameworks::dispatchCalls(), after(made_, {"resume"}));
}

TEST_F(MacSignalSourceTest, AQueueOfOursIsReleasedAndTheSystemsIsNot) {
  dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
  EXPECT_EQ(frameworks::dispatchCalls(), Calls{"get_global_queue 0 0"});
  frameworks::forgetDispatchCalls();
  dispatch_queue_create("label");
  EXPECT_EQ(frameworks::dispatchCalls(), (Calls{"queue_create label", "release"}));
}

}  // namespace
}  // namespace platform
