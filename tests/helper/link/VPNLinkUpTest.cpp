// What happens to a link that is up, or nearly: negotiation once more, sleep, what others do to the network.

#include <gtest/gtest.h>

#include "helper/ppp/PPPEnding.h"
#include "tests/helper/link/LinkInStages.h"

namespace helper::testing {
namespace {

// ---- An address of a network that the machine is in

TEST_F(VPNLinkTest, AnAddressOfTheMachinesOwnNetworkEndsIt) {
  machine.around = networkFrom("10.0.0.0/24");
  reach(Stage::network);
  machine.ppp.ipUp(ipUp());
  finish();
  EXPECT_FALSE(machine.did("carry ppp0"));
  ASSERT_EQ(machine.sentences.size(), 1U);
  EXPECT_TRUE(machine.sentences.front().starts_with(
      "The server has given this machine the address 10.0.0.2, which belongs to the network 10.0.0.0/24 "))
      << machine.sentences.front();
  expectDown(kCauseNegotiationFailed);
}

TEST_F(VPNLinkTest, AnAddressOfTheMachinesOwnNetworkIsFineWhereTheTunnelWins) {
  machine.around = networkFrom("10.0.0.0/24");
  LinkPlan before = plan();
  before.routes.networks = {*machine.around};
  before.routes.localNetworks = false;
  make(before);
  reach(Stage::up);
  EXPECT_EQ(phases().back(), kPhaseConnected);
}

TEST_F(VPNLinkTest, ALinkThatDoesNotCarryTheNetworkDoesNotWin) {
  machine.around = networkFrom("10.0.0.0/24");
  LinkPlan some = plan();
  some.carriesEverything = false;
  some.routes.networks = {networkFrom("10.1.0.0/16").value()};
  some.routes.localNetworks = false;
  make(some);
  reach(Stage::network);
  machine.ppp.ipUp(ipUp());
  finish();
  EXPECT_NE(machine.sentences.front().find(" and this network in ppp.routes in engine.conf."), std::string::npos);
  expectDown(kCauseNegotiationFailed);
}

// ---- The machine sleeps

TEST_F(VPNLinkTest, AfterASleepTheServerIsAskedAtOnce) {
  reach(Stage::up);
  machine.clock.sleep(seconds(9));
  EXPECT_FALSE(machine.did("tunnel check"));
  machine.clock.sleep(seconds(3600));
  EXPECT_EQ(machine.deeds.back(), "tunnel check");
  EXPECT_EQ(machine.sentences,
            std::vector<std::string>{
                "This machine has slept for 3600 s; the server is asked whether it still has the connection."});
}

TEST_F(VPNLinkTest, AServerThatIsAskedOftenIsAskedAfterAShortSleepToo) {
  LinkPlan often = plan();
  often.pptp.deadPeerDelay = seconds(3);
  make(often);
  reach(Stage::up);
  machine.clock.sleep(seconds(4));
  EXPECT_EQ(machine.deeds.back(), "tunnel check");
}

class SleptElsewhere : public VPNLinkTest, public ::testing::WithParamInterface<Stage> {};

TEST_P(SleptElsewhere, NobodyIsAsked) {
  reach(GetParam());
  machine.clock.sleep(seconds(3600));
  EXPECT_FALSE(machine.did("tunnel check"));
}

INSTANTIATE_TEST_SUITE_P(VPNLink, SleptElsewhere,
                         ::testing::Values(Stage::findingServer, Stage::makingTunnel, Stage::nameServers,
                                           Stage::endingPPP, Stage::down),
                         [](const auto &test) { return nameOf(test.param); });

// ---- The user logs out

class LoggedOut : public VPNLinkTest, public ::testing::WithParamInterface<Stage> {};

TEST_P(LoggedOut, TheLinkEndsAndSaysWhy) {
  reach(GetParam());
  ASSERT_TRUE(machine.logout);
  machine.logout();
  EXPECT_FALSE(machine.logout) << "nobody listens any more";
  finish();
  EXPECT_EQ(machine.sentences,
            std::vector<std::string>{"The user of the connection has logged out; the connection ends "
                                     "(DisconnectOnLogout)."});
  expectDown(kCauseUserRequest);
}

INSTANTIATE_TEST_SUITE_P(VPNLink, LoggedOut, ::testing::ValuesIn(stages(Stage::findingServer, Stage::up)),
                         [](const auto &test) { return nameOf(test.param); });

TEST_F(VPNLinkTest, WhileItEndsNobodyListensForALogout) {
  reach(Stage::endingPPP);
  EXPECT_FALSE(machine.logout);
}

// ---- PPP negotiates once more

TEST_F(VPNLinkTest, NegotiationOnceMoreSetsTheRoutesAgain) {
  reach(Stage::up);
  machine.ppp.phase(kPhaseNegotiatingNetwork);
  machine.ppp.ipUp(ipUp());
  EXPECT_EQ(std::ranges::count(machine.deeds, "carry ppp0"), 2);
  EXPECT_EQ(std::ranges::count(machine.deeds, "keep off ppp0"), 2);
  EXPECT_EQ(phases(), (Phases{1, 2, 4, 5, 7, 8})) << "nothing of it is told";
}

TEST_F(VPNLinkTest, AnotherAddressInTheMiddleEndsIt) {
  reach(Stage::up);
  machine.ppp.ipUp(ipUp("10.0.0.3"));
  finish();
  EXPECT_EQ(
      machine.sentences,
      std::vector<std::string>{"The server has given this machine another address in the middle of the connection."});
  expectDown(kCauseNegotiationFailed);
}

TEST_F(VPNLinkTest, NegotiationOnceMoreKeepsTheServerOff) {
  reach(Stage::up);
  machine.keptOff = {};
  machine.ppp.ipUp(ipUp());
  EXPECT_EQ(machine.keptOff.s_addr, address("192.0.2.1").s_addr);
}

// ---- What others do to the network meanwhile

TEST_F(VPNLinkTest, EndsAtOnceWhenItsAddressIsGone) {
  machine.answersStop = false;
  reach(Stage::up);
  machine.network.addressGone(address("198.51.100.2"));
  EXPECT_TRUE(machine.did("ppp hangUp"));
  finish();
  EXPECT_FALSE(machine.did("tunnel stop")) << "nobody would answer";
  EXPECT_TRUE(machine.did("tunnel gone"));
  EXPECT_EQ(machine.sentences, std::vector<std::string>{
                                   "The network has changed: this machine no longer has the address 198.51.100.2, from "
                                   "which it spoke to the server; connect again."});
  expectDown(kCauseHungUp, static_cast<int>(DeviceCause::networkChanged));
}

TEST_F(VPNLinkTest, SaysWithWhichCauseItsAddressWentWhileItCameUp) {
  reach(Stage::makingTunnel);
  machine.network.addressGone(address("198.51.100.2"));
  finish();
  expectDown(kCauseConnectFailed, static_cast<int>(DeviceCause::networkChanged));
}

TEST_F(VPNLinkTest, HearsNothingOfTheNetworkWhenItEnds) {
  reach(Stage::up);
  link->stop();
  EXPECT_FALSE(machine.network.addressGone);
}

TEST_F(VPNLinkTest, PutsBackRulesThatOthersThrowAwayAndSaysSo) {
  reach(Stage::up);
  machine.network.routingChanged();
  EXPECT_TRUE(machine.sentences.empty()) << "nothing was missing";
  machine.rulesAreGone = true;
  machine.network.routingChanged();
  EXPECT_EQ(machine.sentences, std::vector<std::string>{
                                   "Another program has thrown away routing rules of the connection; they are back."});
  EXPECT_EQ(phases().back(), kPhaseConnected);
}

TEST_F(VPNLinkTest, EndsWhenItsRulesAreThrownAwayAgainAndAgain) {
  reach(Stage::up);
  machine.rulesAreGone = true;
  for (int i = 0; i < 20; ++i) {
    machine.clock.advance(seconds(11));
    machine.network.routingChanged();
  }
  EXPECT_EQ(phases().back(), kPhaseConnected) << "not often enough";
  for (int i = 0; i < 5; ++i) machine.network.routingChanged();
  finish();
  EXPECT_NE(machine.sentences.back().find("again and again"), std::string::npos);
  expectDown(kCauseFatal);
}

TEST_F(VPNLinkTest, EndsWhenItsRulesCannotBePutBack) {
  reach(Stage::up);
  machine.failing = "put back";
  machine.network.routingChanged();
  finish();
  EXPECT_EQ(machine.sentences,
            std::vector<std::string>{"The connection's routing rules cannot be put back: it is broken."});
  expectDown(kCauseFatal);
}

class RoutesAgain : public VPNLinkTest, public ::testing::WithParamInterface<const char *> {};

TEST_P(RoutesAgain, ThatCannotBeSetEndIt) {
  reach(Stage::up);
  machine.failing = GetParam();
  machine.ppp.ipUp(ipUp());
  finish();
  EXPECT_EQ(machine.sentences, std::vector<std::string>{"The routes into the tunnel cannot be set: it is broken."});
  expectDown(kCauseFatal);
}

INSTANTIATE_TEST_SUITE_P(VPNLink, RoutesAgain, ::testing::Values("keep off", "carry"), [](const auto &test) {
  std::string name = test.param;
  std::erase(name, ' ');
  return name;
});

TEST_F(VPNLinkTest, EncryptionThatIsGoneAfterwardsEndsIt) {
  LinkPlan encrypted = plan();
  encrypted.ppp.mppe = MPPE::any;
  make(encrypted);
  reach(Stage::up);
  PluginIPUp up = ipUp();
  up.encrypted = false;
  machine.ppp.ipUp(up);
  finish();
  expectDown(kCauseNegotiationFailed);
}

}  // namespace
}  // namespace helper::testing
