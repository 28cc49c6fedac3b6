#include <gtest/gtest.h>

#include "helper/link/TunnelKinds.h"

using namespace helper;
using std::chrono::milliseconds;

namespace {

TEST(TunnelKinds, AreFoundByNameAndByKind) {
  for (const TunnelKind kind : {TunnelKind::pptp, TunnelKind::l2tp}) {
    const TunnelKindRow &row = tunnelKind(kind);
    EXPECT_EQ(row.kind, kind);
    EXPECT_EQ(tunnelKindCalled(row.name), &row);
  }
  for (const char *other : {"", "l2tp", "PPPoE", "PPTP "}) EXPECT_EQ(tunnelKindCalled(other), nullptr) << other;
}

TEST(TunnelKinds, GiveEachStageItsTime) {
  LinkPlan plan;
  plan.pptp.deadline = milliseconds(1);
  plan.l2tp.deadline = milliseconds(20);
  plan.ike.deadline = milliseconds(300);
  EXPECT_EQ(tunnelKind(TunnelKind::pptp).deadline(plan), milliseconds(1));
  EXPECT_EQ(tunnelKind(TunnelKind::l2tp).deadline(plan), milliseconds(640)) << "from two ports";
}

}  // namespace
