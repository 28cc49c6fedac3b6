#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "companions/run/ReconnectPolicy.h"

using namespace companions;
using std::chrono::milliseconds;

namespace {

Outcome outcomeOf(const std::vector<std::string> &lines) {
  Outcome outcome;
  for (const std::string &line : lines) outcome.hear(line);
  outcome.ended(true, 0);
  return outcome;
}

const std::string kNetworkChanged = "Mon Nov 23 14:16:18 2026 : The network has changed: this machine no longer has";
const std::vector<std::string> kNotNegotiated{"Error: Some text, cause: 10"};
const std::vector<std::string> kLost{"PPP Connected", "Error: Some text, cause: 16"};

class ReconnectPolicyTest : public testing::Test {
 protected:
  std::optional<milliseconds> pauseAfter(const std::vector<std::string> &lines) {
    return policy_.pauseAfter(outcomeOf(lines));
  }
  double chance_ = 0.5;
  ReconnectPolicy policy_{{.first = milliseconds(100), .longest = milliseconds(1000), .attempts = 6},
                          [this] { return chance_; }};
};

TEST_F(ReconnectPolicyTest, PausesGrowUpToALimit) {
  for (const int expected : {100, 200, 400, 800, 1000, 1000})
    EXPECT_EQ(pauseAfter(kNotNegotiated), milliseconds(expected));
}

TEST_F(ReconnectPolicyTest, GivesUpAfterTheLastAttempt) {
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(pauseAfter(kNotNegotiated));
  EXPECT_FALSE(pauseAfter(kNotNegotiated));
}

TEST_F(ReconnectPolicyTest, WithoutALimitItGoesOn) {
  ReconnectPolicy patient({.first = milliseconds(1)}, [] { return 0.5; });
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(patient.pauseAfter(outcomeOf(kNotNegotiated)));
}

TEST_F(ReconnectPolicyTest, AConnectionThatStoodBeginsAnew) {
  for (int i = 0; i < 6; ++i) pauseAfter(kNotNegotiated);
  EXPECT_EQ(pauseAfter(kLost), milliseconds(100));
  EXPECT_EQ(pauseAfter(kNotNegotiated), milliseconds(200));
}

TEST_F(ReconnectPolicyTest, ChanceMakesThemShorterOrLonger) {
  chance_ = 0;
  EXPECT_EQ(pauseAfter(kNotNegotiated), milliseconds(50));
  chance_ = 1;
  EXPECT_EQ(pauseAfter(kNotNegotiated), milliseconds(300));
}

TEST_F(ReconnectPolicyTest, AtOnceWhenTheNetworkHasChanged) {
  EXPECT_EQ(pauseAfter({"PPP Connected", kNetworkChanged, "Error: Some text, cause: 16"}), milliseconds(0));
  // Not while connecting, where it might change again and again.
  EXPECT_EQ(pauseAfter({kNetworkChanged, "Error: Some text, cause: 8"}), milliseconds(100));
}

TEST_F(ReconnectPolicyTest, NeverAfterWhatCannotComeRight) {
  EXPECT_FALSE(pauseAfter({"PPP Authenticating", "Error: Some text, cause: 19"}));
  EXPECT_FALSE(pauseAfter({"PPP Connected", "Error: Some text, cause: 5"}));
  EXPECT_FALSE(pauseAfter({"Cannot get authorization!"}));
  EXPECT_FALSE(pauseAfter({"Invalid config! Missing password!"}));
}

}  // namespace
