#include <gtest/gtest.h>

#include <vector>

#include "helper/link/LinkPhases.h"

using namespace helper;

namespace {

// What is told of phases as they come, and of the end.
std::vector<int> told(const std::vector<int> &reached) {
  LinkPhases phases;
  phases.begin();
  std::vector<int> result;
  for (const int phase : reached)
    if (phases.reach(phase)) result.push_back(phases.current());
  if (phases.finish()) result.push_back(phases.current());
  return result;
}

// The sequences that pppd 2.4.9 was seen to go through, with what the link adds around them.
TEST(LinkPhases, GoForwardOnAGoodRun) {
  EXPECT_EQ(told({1, 2, 2, 4, 5, 7, 8, 9, 7, 9, 4, 4, 10, 0}), (std::vector<int>{1, 2, 4, 5, 7, 8, 9, 10, 0}));
}

TEST(LinkPhases, EndAfterARefusedAccount) {
  EXPECT_EQ(told({1, 2, 4, 5, 9, 4, 10, 0}), (std::vector<int>{1, 2, 4, 5, 9, 10, 0}));
}

TEST(LinkPhases, EndWithoutATunnel) { EXPECT_EQ(told({1, 2, 10, 10}), (std::vector<int>{1, 2, 10, 0})); }

TEST(LinkPhases, EndWithoutAServerBehindTheTunnel) {
  EXPECT_EQ(told({1, 2, 4, 10, 0}), (std::vector<int>{1, 2, 4, 10, 0}));
}

TEST(LinkPhases, NeverTellWhatNobodyAskedFor) {
  EXPECT_EQ(told({1, 3, 11, 12, 13, -1, 99, 2}), (std::vector<int>{1, 2, 0}));
}

TEST(LinkPhases, TellTheEndOnceAndOnlyAfterAStart) {
  LinkPhases phases;
  EXPECT_FALSE(phases.finish());
  phases.begin();
  EXPECT_TRUE(phases.reach(kPhaseInitializing));
  EXPECT_TRUE(phases.finish());
  EXPECT_FALSE(phases.finish());
  EXPECT_FALSE(phases.reach(kPhaseDisconnected));
}

TEST(LinkPhases, HaveTheStatusOfTheTable) {
  const std::vector<int> expected{0, 1, 1, 0, 1, 1, 1, 1, 2, 3, 3, 0, 2, 1};
  for (std::size_t phase = 0; phase < expected.size(); ++phase)
    EXPECT_EQ(connectionStatus(static_cast<int>(phase)), expected[phase]) << phase;
}

}  // namespace
