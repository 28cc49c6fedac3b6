// How a link comes up, with parts that record: its order, each stage failing, several servers, the deadline.

#include <gtest/gtest.h>

#include "helper/common/Peer.h"
#include "helper/link/TunnelKinds.h"
#include "helper/ppp/PPPEnding.h"
#include "tests/helper/link/LinkInStages.h"

namespace helper::testing {
namespace {

// ---- Coming up

TEST_F(VPNLinkTest, ComesUpInItsOrder) {
  reach(Stage::up);
  EXPECT_EQ(machine.deeds,
            (std::vector<std::string>{"open", "ppp start", "find server", "keep way 192.0.2.1", "watch 192.0.2.1",
                                      "tunnel make 192.0.2.1", "tunnel start", "ppp channel", "keep off ppp0",
                                      "carry ppp0", "name servers ppp0 for everything", "describe ppp0 to 192.0.2.1"}));
  EXPECT_EQ(phases(), (Phases{1, 2, 4, 5, 7, 8}));
  EXPECT_TRUE(machine.sentences.empty());
}

TEST_F(VPNLinkTest, SaysWhatItIsWhenItIsUp) {
  reach(Stage::up);
  const LinkStatus &status = link->status();
  EXPECT_EQ(status.status, 2);
  EXPECT_EQ(status.extendedStatus["PPP"]["CommRemoteAddress"].string(), "vpn.example.org");
  EXPECT_EQ(status.extendedStatus["PPP"]["ConnectTime"].integerValue(), 1000);
  EXPECT_EQ(status.extendedStatus["PPP"]["LCPMTU"].integerValue(), 1400);
  EXPECT_EQ(status.extendedStatus["PPP"]["LCPMRU"].integerValue(), 1500);
  EXPECT_EQ(status.extendedStatus["IPv4"]["InterfaceName"].string(), "ppp0");
  EXPECT_EQ(status.extendedStatus["IPv4"]["Router"].string(), "10.0.0.1");
}

TEST_F(VPNLinkTest, IsNotUpBeforeItsNameServersAre) {
  reach(Stage::nameServers);
  EXPECT_EQ(phases(), (Phases{1, 2, 4, 5, 7}));
  machine.nameServersDone("The name servers are not used.");
  EXPECT_EQ(phases().back(), kPhaseConnected);
  EXPECT_EQ(machine.sentences, std::vector<std::string>{"The name servers are not used."});
}

TEST_F(VPNLinkTest, IsNotAskedForAllNamesWhereItDoesNotCarryEverything) {
  LinkPlan some = plan();
  some.carriesEverything = false;
  make(some);
  reach(Stage::up);
  EXPECT_TRUE(machine.did("name servers ppp0"));
}

TEST_F(VPNLinkTest, TellsNoPhaseTwiceAndNoneBackwards) {
  reach(Stage::network);
  machine.ppp.phase(kPhaseAuthenticating);
  machine.ppp.phase(kPhaseNegotiatingNetwork);
  EXPECT_EQ(phases(), (Phases{1, 2, 4, 5, 7}));
}

TEST_F(VPNLinkTest, StartsOnce) {
  reach(Stage::findingServer);
  link->start();
  machine.clock.run();
  EXPECT_EQ(std::ranges::count(machine.deeds, "open"), 1);
}

TEST_F(VPNLinkTest, AStopBeforeTheStartEndsItAtOnce) {
  make(plan());
  link->stop();
  EXPECT_TRUE(told.empty());
  link->start();
  machine.clock.run();
  finish();
  EXPECT_EQ(phases(), (Phases{1, 10, 0}));
  EXPECT_FALSE(machine.did("open"));
  expectDown(kCauseUserRequest);
}

// ---- Each stage failing

struct Failing {
  const char *deed;
  Stage from;  // the stage after which it fails
  int cause;
  const char *sentence;
  Phases phases;
};

class FailingStage : public VPNLinkTest, public ::testing::WithParamInterface<Failing> {};

TEST_P(FailingStage, EndsWithItsCauseAndSentence) {
  const Failing &failing = GetParam();
  machine.failing = failing.deed;
  make(plan());
  reach(failing.from);
  finish(0);
  EXPECT_EQ(machine.sentences, std::vector<std::string>{failing.sentence});
  EXPECT_EQ(phases(), failing.phases);
  expectDown(failing.cause);
}

INSTANTIATE_TEST_SUITE_P(
    VPNLink, FailingStage,
    ::testing::Values(
        Failing{
            "open", Stage::findingServer, kCauseFatal, "The connection cannot be started: it is broken.", {1, 10, 0}},
        Failing{"ppp start",
                Stage::findingServer,
                kCauseFatal,
                "The connection cannot be started: it is broken.",
                {1, 10, 0}},
        Failing{"keep way",
                Stage::makingTunnel,
                kCauseFatal,
                "The way to the server cannot be kept: it is broken.",
                {1, 2, 10, 0}},
        Failing{
            "watch", Stage::makingTunnel, kCauseFatal, "The network cannot be watched: it is broken.", {1, 2, 10, 0}},
        Failing{"keep off",
                Stage::nameServers,
                kCauseFatal,
                "The routes into the tunnel cannot be set: it is broken.",
                {1, 2, 4, 5, 7, 10, 0}},
        Failing{"carry",
                Stage::nameServers,
                kCauseFatal,
                "The routes into the tunnel cannot be set: it is broken.",
                {1, 2, 4, 5, 7, 10, 0}}),
    [](const auto &test) {
      std::string name = test.param.deed;
      std::erase(name, ' ');
      return name;
    });

TEST_F(VPNLinkTest, AServerThatIsNotFoundEndsIt) {
  reach(Stage::findingServer);
  machine.address(vpnctl::Error{"Test", 1, "There is no such server."});
  finish(0);
  EXPECT_EQ(machine.sentences, std::vector<std::string>{"There is no such server."});
  EXPECT_EQ(phases(), (Phases{1, 2, 10, 0}));
  expectDown(kCauseConnectFailed, static_cast<int>(DeviceCause::noServer));
}

class FailingTunnel : public VPNLinkTest, public ::testing::WithParamInterface<DeviceCause> {};

TEST_P(FailingTunnel, EndsWithItsDeviceCause) {
  reach(Stage::makingTunnel);
  machine.tunnel.failed({GetParam(), "The tunnel does not come up."});
  finish(0);
  EXPECT_EQ(machine.sentences, std::vector<std::string>{"The tunnel does not come up."});
  EXPECT_EQ(phases(), (Phases{1, 2, 10, 0}));
  expectDown(kCauseConnectFailed, static_cast<int>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(VPNLink, FailingTunnel,
                         ::testing::Values(DeviceCause::noServer, DeviceCause::noAnswer, DeviceCause::protocolError,
                                           DeviceCause::networkChanged, DeviceCause::noSharedSecret),
                         [](const auto &test) { return "cause" + std::to_string(static_cast<int>(test.param)); });

// ---- A name with several addresses

class SeveralServers : public VPNLinkTest {
 protected:
  SeveralServers() {
    reach(Stage::findingServer);
    machine.address(std::vector{address("192.0.2.1"), address("192.0.2.2"), address("192.0.2.3")});
  }
  void fail(DeviceCause cause) {
    // Its handlers may go while they run.
    const auto failed = machine.tunnel.failed;
    failed({cause, "It does not answer."});
  }
};

TEST_F(SeveralServers, AreCalledOneAfterAnother) {
  fail(DeviceCause::noAnswer);
  EXPECT_EQ(machine.deeds.back(), "tunnel stop");
  machine.clock.run();
  fail(DeviceCause::noServer);
  machine.clock.run();
  machine.tunnel.up({});
  machine.ppp.ipUp(ipUp());
  machine.nameServersDone("");
  EXPECT_EQ(phases(), (Phases{1, 2, 8}));
  EXPECT_EQ(machine.sentences, (std::vector<std::string>{
                                   "It does not answer.", "Trying the next address of vpn.example.org, 192.0.2.2.",
                                   "It does not answer.", "Trying the next address of vpn.example.org, 192.0.2.3."}));
  for (const char *each : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
    for (const char *deed : {"keep way ", "watch ", "tunnel make "}) EXPECT_TRUE(machine.did(deed + std::string(each)));
  EXPECT_EQ(std::ranges::count(machine.deeds, "tunnel gone"), 2);
  EXPECT_EQ(machine.keptOff.s_addr, address("192.0.2.3").s_addr);
}

TEST_F(SeveralServers, AllSilentEndItWithTheLastOnesCause) {
  fail(DeviceCause::noAnswer);
  machine.clock.run();
  fail(DeviceCause::noAnswer);
  machine.clock.run();
  fail(DeviceCause::noServer);
  finish(0);
  expectDown(kCauseConnectFailed, static_cast<int>(DeviceCause::noServer));
}

TEST_F(SeveralServers, OneThatAnswersAndRefusesIsTheLast) {
  fail(DeviceCause::protocolError);
  finish(0);
  EXPECT_FALSE(machine.did("tunnel make 192.0.2.2"));
  expectDown(kCauseConnectFailed, static_cast<int>(DeviceCause::protocolError));
}

TEST_F(SeveralServers, EachHasItsTime) {
  machine.clock.advance(seconds(60));
  fail(DeviceCause::noAnswer);
  machine.clock.advance(seconds(60));
  fail(DeviceCause::noAnswer);
  machine.clock.advance(seconds(60));
  EXPECT_TRUE(machine.tunnelThere);
  EXPECT_FALSE(link->isDown());
}

TEST_F(SeveralServers, AStopBetweenTwoEndsIt) {
  fail(DeviceCause::noAnswer);
  link->stop();
  finish();
  EXPECT_FALSE(machine.did("tunnel make 192.0.2.2"));
  expectDown(kCauseUserRequest);
}

TEST_F(SeveralServers, ATunnelThatStopsBeforePPPDoesNotCleanUp) {
  fail(DeviceCause::noAnswer);
  link->stop();
  machine.clock.run();
  EXPECT_FALSE(machine.did("take back")) << "pppd still runs";
  finish();
  EXPECT_FALSE(machine.did("tunnel make 192.0.2.2"));
  expectDown(kCauseUserRequest);
}

TEST_F(SeveralServers, AStopInTheTurnBetweenTwoEndsIt) {
  machine.answersStop = false;
  fail(DeviceCause::noAnswer);
  machine.tunnel.stopped();
  link->stop();
  machine.clock.run();
  EXPECT_FALSE(machine.did("take back")) << "pppd still runs";
  finish();
  EXPECT_FALSE(machine.did("tunnel make 192.0.2.2"));
  expectDown(kCauseUserRequest);
}

TEST_F(SeveralServers, ThatCannotBeReachedPastTheTunnelsEndIt) {
  fail(DeviceCause::noAnswer);
  machine.failing = "keep way";
  machine.clock.run();
  finish(0);
  expectDown(kCauseFatal);
}

TEST_F(VPNLinkTest, WithoutAPasswordPPPIsToldSo) {
  machine.failing = "password";
  reach(Stage::authenticating);
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const vpnctl::FileDescriptor ours(ends[0]);
  const vpnctl::FileDescriptor other(ends[1]);
  const auto peer = Peer::ofSocket(ours.get());
  ASSERT_TRUE(peer);
  EXPECT_FALSE(machine.ppp.password(*peer));
  EXPECT_EQ(machine.sentences, std::vector<std::string>{"There is no password for the connection: it is broken."});
}

TEST_F(VPNLinkTest, ThePasswordIsHandedOn) {
  reach(Stage::authenticating);
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const vpnctl::FileDescriptor ours(ends[0]);
  const vpnctl::FileDescriptor other(ends[1]);
  const auto peer = Peer::ofSocket(ours.get());
  ASSERT_TRUE(peer);
  const auto secret = machine.ppp.password(*peer);
  ASSERT_TRUE(secret);
  EXPECT_EQ(secret->text(), "a password");
}

// ---- The deadline for everything

class Deadline : public VPNLinkTest, public ::testing::WithParamInterface<Stage> {};

TEST_P(Deadline, EndsWhatDoesNotComeUp) {
  reach(GetParam());
  const milliseconds all = tunnelKind(TunnelKind::pptp).deadline(plan()) + plan().pppDeadline;
  machine.clock.advance(all - milliseconds(1));
  EXPECT_TRUE(machine.sentences.empty());
  machine.clock.advance(milliseconds(1));
  finish();
  EXPECT_EQ(
      machine.sentences,
      std::vector<std::string>{"The connection did not come up in time; the server is very slow or does not answer."});
  expectDown(kCauseNegotiationFailed);
}

INSTANTIATE_TEST_SUITE_P(VPNLink, Deadline, ::testing::ValuesIn(stages(Stage::findingServer, Stage::nameServers)),
                         [](const auto &test) { return nameOf(test.param); });

TEST_F(VPNLinkTest, AtTheDeadlineItIsSaidWhatWasNegotiated) {
  reach(Stage::negotiating);
  machine.clock.advance(seconds(600));
  PPPEnd end{.code = 5, .reported = true, .carried = true, .packetsReceived = 20, .furthestPhase = 4};
  end.dispute.wantedAuthentication = 0xc02300;
  endPPP(end);
  finish();
  ASSERT_EQ(machine.sentences.size(), 2U);
  EXPECT_NE(machine.sentences[1].find("the server wants the account checked by PAP"), std::string::npos);
  expectDown(kCauseNegotiationFailed);
}

TEST_F(VPNLinkTest, ALinkThatIsUpHasNoDeadline) {
  reach(Stage::up);
  machine.clock.advance(std::chrono::hours(24));
  EXPECT_EQ(link->status().status, 2);
  EXPECT_FALSE(machine.did("ppp terminate"));
}

}  // namespace
}  // namespace helper::testing
