#include <gtest/gtest.h>

#include "helper/ike/IKEProposals.h"

using namespace helper;

namespace {

class IKEProposalsTest : public ::testing::Test {
 protected:
  EngineSettings::IKE settings;
  std::vector<std::string> unusable;
};

TEST_F(IKEProposalsTest, OffersManyOrFew) {
  const auto many = IKEProposals::from(settings, false, unusable);
  ASSERT_TRUE(many);
  EXPECT_EQ(many->ike, isakmp::defaultIKEProposals());
  EXPECT_EQ(many->esp, isakmp::defaultESPProposals());
  const auto few = IKEProposals::from(settings, true, unusable);
  ASSERT_TRUE(few);
  EXPECT_EQ(few->ikeText(), "aes256-sha1-modp2048, aes128-sha1-modp1024, 3des-sha1-modp1024");
  EXPECT_EQ(few->espText(), "aes256-sha1, aes128-sha1, 3des-sha1");
  EXPECT_TRUE(unusable.empty());
}

TEST_F(IKEProposalsTest, WhatIsSetStaysAlsoWhereFewAreWanted) {
  settings.proposals = {"aes256-sha512-modp4096"};
  settings.espProposals = {"aes128-sha256-modp2048"};
  const auto proposals = IKEProposals::from(settings, true, unusable);
  ASSERT_TRUE(proposals);
  EXPECT_EQ(proposals->ikeText(), "aes256-sha512-modp4096");
  EXPECT_EQ(proposals->espText(), "aes128-sha256-modp2048");
}

TEST_F(IKEProposalsTest, LeavesOutWhatIsUnknown) {
  settings.proposals = {"camellia256-sha1-modp2048", "aes256-sha1-modp2048", "aes256-sha1"};
  const auto proposals = IKEProposals::from(settings, false, unusable);
  ASSERT_TRUE(proposals);
  EXPECT_EQ(proposals->ikeText(), "aes256-sha1-modp2048");
  EXPECT_EQ(unusable, (std::vector<std::string>{"proposal \"camellia256-sha1-modp2048\": cannot use \"camellia256\"",
                                                "proposal \"aes256-sha1\": no group"}));
}

TEST_F(IKEProposalsTest, NothingLeftIsAnError) {
  settings.proposals = {"camellia256-sha1-modp2048"};
  const auto none = IKEProposals::from(settings, false, unusable);
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error().message, "proposal \"camellia256-sha1-modp2048\": cannot use \"camellia256\"");
  settings.proposals.clear();
  settings.espProposals = {"aes256-sha1-modp2048", "aes256-sha1-modp1024"};
  EXPECT_FALSE(IKEProposals::from(settings, false, unusable)) << "two groups before the server has chosen";
}

}  // namespace
