#include <gtest/gtest.h>

#include <thread>

#include "platform/RunLoop.h"

namespace platform {
namespace {

TEST(RunLoop, IsTheThreadsOwn) {
  const auto mine = CFRunLoopGetCurrent();
  EXPECT_EQ(CFRunLoopGetCurrent(), mine);
  CFRunLoopRef other;
  std::thread([&] { other = CFRunLoopGetCurrent(); }).join();
  EXPECT_NE(other, mine);
}

TEST(RunLoop, AStopThatCameFirstEndsTheRunAtOnce) {
  CFRunLoopStop(CFRunLoopGetCurrent());
  CFRunLoopRun();
}

TEST(RunLoop, IsStoppedFromAnotherThreadAndRunsAgain) {
  const auto loop = CFRunLoopGetCurrent();
  for (int i = 0; i < 20; ++i) {
    std::thread stopper([&] { CFRunLoopStop(loop); });
    CFRunLoopRun();
    stopper.join();
  }
}

TEST(RunLoop, StoppingNoneDoesNothing) { CFRunLoopStop({}); }

}  // namespace
}  // namespace platform
