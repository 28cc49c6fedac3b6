#include <gtest/gtest.h>

#include "helper/link/TunnelFactory.h"

using namespace helper;
using std::chrono::milliseconds;

namespace {

TEST(TunnelFactory, KnowsItsKinds) {
  EXPECT_TRUE(knowsTunnel("PPTP"));
  EXPECT_TRUE(knowsTunnel("L2TP"));
  for (const char *other : {"", "l2tp", "PPPoE"}) EXPECT_FALSE(knowsTunnel(other)) << other;
}

TEST(TunnelFactory, GivesEachStageItsTime) {
  LinkConfiguration configuration;
  configuration.settings.pptp.deadline = milliseconds(1);
  configuration.settings.l2tp.deadline = milliseconds(20);
  configuration.settings.ike.deadline = milliseconds(300);
  configuration.tunnelType = "PPTP";
  EXPECT_EQ(tunnelDeadline(configuration), milliseconds(1));
  configuration.tunnelType = "L2TP";
  EXPECT_EQ(tunnelDeadline(configuration), milliseconds(320));
}

}  // namespace
