#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/RunLoop.h"
#include "platform/SystemConfiguration.h"
#include "platform/fake/FakePlatform.h"

namespace platform {
namespace {

using fake::FakePlatform;

class RunLoopTest : public testing::Test {
 protected:
  RunLoopTest() { platform_.reset(); }

  std::size_t runs() { return platform_.calls("CFRunLoopRun").size(); }

  FakePlatform &platform_ = FakePlatform::instance();
};

TEST_F(RunLoopTest, IsOnePerThread) {
  EXPECT_EQ(CFRunLoopGetCurrent(), CFRunLoopGetCurrent());
  std::thread([mine = CFRunLoopGetCurrent()] { EXPECT_NE(CFRunLoopGetCurrent(), mine); }).join();
}

// The system would forget it, and the run would never end.
TEST_F(RunLoopTest, AStopBeforeTheRunEndsTheNextOneAtOnceAndOnlyThat) {
  CFRunLoopStop(CFRunLoopGetCurrent());
  CFRunLoopRun();
  EXPECT_EQ(runs(), 0u);
  CFRunLoopStop(CFRunLoopGetCurrent());
  CFRunLoopStop(CFRunLoopGetCurrent());
  CFRunLoopRun();
  EXPECT_EQ(runs(), 0u);

  std::thread stopper([this, loop = CFRunLoopGetCurrent()] {
    while (runs() == 0) std::this_thread::yield();
    CFRunLoopStop(loop);
  });
  CFRunLoopRun();
  stopper.join();
  EXPECT_EQ(runs(), 1u);
}

// A stop of a run is not kept for the next one.
TEST_F(RunLoopTest, AStopInsideOfTheRunEndsThatRun) {
  SCNetworkConnectionContext context;
  context.info = this;
  int told = 0;
  context.info = &told;
  const auto stop = [](SCNetworkConnectionRef, SCNetworkConnectionStatus, void *count) {
    ++*static_cast<int *>(count);
    CFRunLoopStop(CFRunLoopGetCurrent());
  };
  const auto connection = SCNetworkConnectionCreateWithServiceID("id", stop, context);
  platform_.up = {fake::StatusChange{1, {}, 0, {}}, fake::StatusChange{2, {}, 0, {}}};
  ASSERT_TRUE(SCNetworkConnectionScheduleWithRunLoop(connection, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode));
  ASSERT_TRUE(SCNetworkConnectionStart(connection, {}, false));
  CFRunLoopRun();
  EXPECT_EQ(told, 1);
  CFRunLoopRun();
  EXPECT_EQ(told, 2);
  EXPECT_EQ(runs(), 2u);
}

TEST_F(RunLoopTest, MayOutliveItsThread) {
  CFRunLoopRef loop;
  std::thread([&] { loop = CFRunLoopGetCurrent(); }).join();
  CFRunLoopStop(loop);
  EXPECT_EQ(platform_.calls(), std::vector<std::string>{"CFRunLoopStop(other)"});
}

}  // namespace
}  // namespace platform
