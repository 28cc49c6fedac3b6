#include <gtest/gtest.h>

#include <ctime>

#include "linux/SystemdOwners.h"

namespace linux {
namespace {

TEST(SystemdOwners, GiveBackWhatTheyHoldWhenTheyDie) {
  bool given = false;
  {
    EventLoop loop;
    ASSERT_GE(sd_event_new(Out(loop)), 0);
    ASSERT_NE(loop, nullptr);
    sd_event_source *source = nullptr;  // the loop's, and gone with it
    ASSERT_GE(sd_event_add_time_relative(loop.get(), &source, CLOCK_MONOTONIC, 0, 0, nullptr, &given), 0);
    ASSERT_GE(sd_event_source_set_floating(source, 1), 0);
    sd_event_source_set_destroy_callback(source, [](void *context) { *static_cast<bool *>(context) = true; });
    sd_event_source_unref(source);
    EXPECT_FALSE(given);
  }
  EXPECT_TRUE(given);
}

TEST(SystemdOwners, AreEmptyWhenTheFunctionFails) {
  Bus bus;
  ASSERT_GE(sd_bus_new(Out(bus)), 0);
  BusMessage message;
  EXPECT_LT(sd_bus_message_new_method_call(bus.get(), Out(message), nullptr, "no path", "a.b", "c"), 0);
  EXPECT_EQ(message, nullptr);
}

}  // namespace
}  // namespace linux
