// The whole life of a link, with parts that record: each stage failing, each way to end, a stop, a hang-up and a
// destruction in each state, negotiation once more. Nothing waits.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>

#include "helper/common/Peer.h"
#include "helper/link/TunnelKinds.h"
#include "helper/link/VPNLink.h"
#include "helper/ppp/PPPEnding.h"
#include "tests/helper/link/RecordingParts.h"

using namespace helper;
using std::chrono::milliseconds;
using std::chrono::seconds;
using support::LinkMachine;
using support::RecordingParts;

namespace {

using Phases = std::vector<int>;

// How far a link has come. Each is reached from the one before.
enum class Stage {
  made,            // nothing asked for
  started,         // the loop has not turned yet
  findingServer,   // pppd runs
  makingTunnel,    // the server's address is known
  channelGiven,    // pppd has the tunnel's socket
  negotiating,     // PPP's phase 4
  authenticating,  // 5
  network,         // 7
  nameServers,     // PPP stands, the name servers are being set
  up,
  endingPPP,     // stop() was called: pppd says goodbye
  endingTunnel,  // pppd has ended
  readingTime,   // the machine is clean
  down
};

constexpr std::array kStageNames{"made",        "started",        "findingServer", "makingTunnel", "channelGiven",
                                 "negotiating", "authenticating", "network",       "nameServers",  "up",
                                 "endingPPP",   "endingTunnel",   "readingTime",   "down"};

std::string nameOf(Stage stage) { return kStageNames.at(static_cast<std::size_t>(stage)); }

std::vector<Stage> stages(Stage first, Stage last) {
  std::vector<Stage> all;
  for (int stage = static_cast<int>(first); stage <= static_cast<int>(last); ++stage)
    all.push_back(static_cast<Stage>(stage));
  return all;
}

in_addr address(const char *text) {
  in_addr result{};
  EXPECT_EQ(inet_pton(AF_INET, text, &result), 1);
  return result;
}

PluginIPUp ipUp(const char *local = "10.0.0.2") {
  PluginIPUp up;
  up.interface = "ppp0";
  up.localAddress = address(local);
  up.peerAddress = address("10.0.0.1");
  up.dns = {address("10.0.0.53")};
  up.mtu = 1400;
  up.mru = 1500;
  up.encrypted = true;
  return up;
}

LinkPlan plan(TunnelKind kind = TunnelKind::pptp) {
  LinkPlan plan;
  plan.kind = kind;
  plan.server = "vpn.example.org";
  plan.carriesEverything = true;
  return plan;
}

class VPNLinkTest : public ::testing::Test {
 protected:
  void make(LinkPlan plan) {
    link = std::make_unique<VPNLink>(
        std::move(plan), std::make_unique<RecordingParts>(machine),
        [this](const LinkStatus &status) { told.push_back(status); });
  }

  // Brings a fresh link to STAGE.
  void reach(Stage stage) {
    if (!link) make(plan());
    const auto takeStep = [this](Stage next) {
      switch (next) {
        case Stage::made:
          return;
        case Stage::started:
          return link->start();
        case Stage::findingServer:
          return machine.clock.run();
        case Stage::makingTunnel:
          return machine.address(std::vector{address("192.0.2.1")});
        case Stage::channelGiven:
          return machine.tunnel.up({});
        case Stage::negotiating:
          return machine.ppp.phase(kPhaseNegotiatingLink);
        case Stage::authenticating:
          return machine.ppp.phase(kPhaseAuthenticating);
        case Stage::network:
          return machine.ppp.phase(kPhaseNegotiatingNetwork);
        case Stage::nameServers:
          machine.ppp.phase(kPhaseConnected);
          return machine.ppp.ipUp(ipUp());
        case Stage::up:
          return machine.nameServersDone("");
        case Stage::endingPPP:
          return link->stop();
        case Stage::endingTunnel:
          return endPPP({.code = 5});
        case Stage::readingTime:
          // The last word comes from a turn of its own.
          machine.say("A last sentence.");
          return machine.clock.run();
        case Stage::down:
          return machine.clock.advance(milliseconds(100));
      }
    };
    for (const Stage next : stages(Stage::made, stage)) takeStep(next);
  }

  void endPPP(const PPPEnd &end) {
    machine.pppRuns = false;
    // Its handler may be replaced while it runs.
    const auto ended = machine.ppp.ended;
    ended(end);
  }

  // Lets go what was asked to end: pppd ends with CODE when it is told to, the tunnel at once.
  void finish(int code = 5) {
    if (machine.pppRuns && (machine.did("ppp terminate") || machine.did("ppp hangUp"))) endPPP({.code = code});
    machine.clock.advance(milliseconds(200));
  }

  Phases phases() const {
    Phases phases;
    for (const LinkStatus &status : told)
      phases.push_back(static_cast<int>(status.extendedStatus["PPP"]["Status"].integerValue()));
    return phases;
  }
  std::int64_t lastCause() const { return link->status().extendedStatus["PPP"]["LastCause"].integerValue(); }
  std::int64_t deviceLastCause() const {
    return link->status().extendedStatus["PPP"]["DeviceLastCause"].integerValue();
  }

  // The machine is as it was, and the last that was done made it so.
  void expectClean() {
    EXPECT_FALSE(machine.pppRuns);
    const auto takenBack = std::ranges::find(machine.deeds, "take back");
    ASSERT_NE(takenBack, machine.deeds.end());
    for (auto deed = takenBack; deed != machine.deeds.end(); ++deed)
      EXPECT_TRUE(*deed == "take back" || *deed == "tunnel gone") << *deed;
  }

  void expectDown(int cause, int deviceCause = 0) {
    EXPECT_TRUE(link->isDown());
    ASSERT_FALSE(told.empty());
    EXPECT_EQ(told.back().status, 0);
    EXPECT_EQ(std::ranges::count(phases(), 0), 1) << "disconnected is told once";
    EXPECT_EQ(lastCause(), cause);
    EXPECT_EQ(deviceLastCause(), deviceCause);
    expectClean();
  }

  LinkMachine machine;
  std::vector<LinkStatus> told;
  std::unique_ptr<VPNLink> link;
};

// ---- Coming up

TEST_F(VPNLinkTest, ComesUpInItsOrder) {
  reach(Stage::up);
  EXPECT_EQ(machine.deeds,
            (std::vector<std::string>{"open", "ppp start", "find server", "keep way 192.0.2.1", "watch 192.0.2.1",
                                      "tunnel make 192.0.2.1", "tunnel start", "ppp channel", "keep off ppp0",
                                      "carry ppp0", "name servers ppp0 for everything"}));
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
  machine.address(foundation::Error{"Test", 1, "There is no such server."});
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
  const foundation::FileDescriptor ours(ends[0]);
  const foundation::FileDescriptor other(ends[1]);
  const auto peer = Peer::ofSocket(ours.get());
  ASSERT_TRUE(peer);
  EXPECT_FALSE(machine.ppp.password(*peer));
  EXPECT_EQ(machine.sentences, std::vector<std::string>{"There is no password for the connection: it is broken."});
}

TEST_F(VPNLinkTest, ThePasswordIsHandedOn) {
  reach(Stage::authenticating);
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const foundation::FileDescriptor ours(ends[0]);
  const foundation::FileDescriptor other(ends[1]);
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

// ---- A stop in each state

class Stopped : public VPNLinkTest, public ::testing::WithParamInterface<Stage> {};

TEST_P(Stopped, EndsOrderlyWithTheUsersCause) {
  reach(GetParam());
  link->stop();
  link->stop();
  if (GetParam() == Stage::started) machine.clock.run();
  finish();
  if (GetParam() >= Stage::findingServer && GetParam() <= Stage::up) {
    EXPECT_EQ(std::ranges::count(machine.deeds, "ppp terminate"), 1);
    EXPECT_TRUE(machine.sentences.empty());
  }
  expectDown(kCauseUserRequest);
}

INSTANTIATE_TEST_SUITE_P(VPNLink, Stopped, ::testing::ValuesIn(stages(Stage::started, Stage::down)),
                         [](const auto &test) { return nameOf(test.param); });

TEST_F(VPNLinkTest, AStopBeforeTheFirstTurnWaitsForIt) {
  reach(Stage::started);
  link->stop();
  machine.clock.run();
  finish();
  EXPECT_EQ(phases(), (Phases{1, 10, 0}));
  EXPECT_FALSE(machine.did("open"));
}

// Whoever hears of a phase may stop the link at once, from within the handler.
class StoppedOnHearing : public VPNLinkTest, public ::testing::WithParamInterface<int> {};

TEST_P(StoppedOnHearing, EndsAndStartsNothingMore) {
  link = std::make_unique<VPNLink>(plan(), std::make_unique<RecordingParts>(machine), [this](const LinkStatus &status) {
    told.push_back(status);
    if (phases().back() == GetParam()) link->stop();
  });
  reach(Stage::findingServer);
  if (GetParam() <= kPhaseConnectingLink) {
    EXPECT_FALSE(machine.address) << "nobody looks for the server any more";
  } else {
    machine.address(std::vector{address("192.0.2.1")});
    machine.tunnel.up({});
    for (const int phase : {4, 5, 7, 8}) machine.ppp.phase(phase);
    machine.ppp.ipUp(ipUp());
    if (machine.nameServersDone) machine.nameServersDone("");
  }
  finish();
  machine.clock.advance(std::chrono::hours(1));
  EXPECT_TRUE(machine.sentences.empty());
  expectDown(kCauseUserRequest);
}

INSTANTIATE_TEST_SUITE_P(VPNLink, StoppedOnHearing, ::testing::Values(1, 2, 4, 5, 7, 8),
                         [](const auto &test) { return "phase" + std::to_string(test.param); });

TEST_F(VPNLinkTest, AStopBeforeTheChannelIsToldAtOnce) {
  reach(Stage::makingTunnel);
  link->stop();
  EXPECT_EQ(phases().back(), kPhaseDisconnectingLink);
}

TEST_F(VPNLinkTest, TheCauseIsToldFromTheBeginningOfTheEnd) {
  reach(Stage::makingTunnel);
  EXPECT_EQ(lastCause(), 0);
  link->stop();
  EXPECT_EQ(lastCause(), kCauseUserRequest);
}

TEST_F(VPNLinkTest, PPPHasTimeToSayGoodbye) {
  reach(Stage::endingPPP);
  EXPECT_EQ(machine.grace, seconds(3));
}

TEST_F(VPNLinkTest, ALinkWithoutTunnelIsTakenBackInATurnOfItsOwn) {
  reach(Stage::findingServer);
  link->stop();
  endPPP({.code = 5});
  EXPECT_FALSE(machine.did("take back"));
  finish();
  expectDown(kCauseUserRequest);
}

TEST_F(VPNLinkTest, ALinkThatIsDownHasNoAddresses) {
  reach(Stage::down);
  EXPECT_EQ(link->status().extendedStatus["IPv4"]["Router"].string(), "");
  EXPECT_EQ(link->status().extendedStatus["PPP"]["ConnectTime"].integerValue(), 0);
}

TEST_F(VPNLinkTest, AStopTellsPPPsPhasesOnTheWayDown) {
  reach(Stage::up);
  link->stop();
  // As pppd does it: 9, 7, 9, 4, 4, 10.
  for (const int phase : {9, 7, 9, 4, 4, 10}) machine.ppp.phase(phase);
  finish();
  EXPECT_EQ(phases(), (Phases{1, 2, 4, 5, 7, 8, 9, 10, 0}));
}

TEST_F(VPNLinkTest, AStopKeepsItsCauseWhateverPPPSays) {
  reach(Stage::up);
  link->stop();
  finish(16);
  expectDown(kCauseUserRequest);
}

TEST_F(VPNLinkTest, AnAnswerAfterAStopStartsNothing) {
  reach(Stage::makingTunnel);
  link->stop();
  machine.tunnel.up({});
  machine.ppp.ipUp(ipUp());
  finish();
  EXPECT_FALSE(machine.did("ppp channel"));
  EXPECT_FALSE(machine.did("carry ppp0"));
  expectDown(kCauseUserRequest);
}

TEST_F(VPNLinkTest, AFailureAfterAStopIsNotTold) {
  reach(Stage::makingTunnel);
  link->stop();
  machine.tunnel.failed({DeviceCause::noAnswer, "The tunnel does not come up."});
  finish();
  EXPECT_TRUE(machine.sentences.empty());
  expectDown(kCauseUserRequest);
}

TEST_F(VPNLinkTest, NameServersThatComeAfterAStopDoNotBringItUp) {
  reach(Stage::nameServers);
  link->stop();
  machine.nameServersDone("");
  finish();
  EXPECT_EQ(std::ranges::count(phases(), kPhaseConnected), 0);
  expectDown(kCauseUserRequest);
}

// ---- pppd's ends

struct PPPsEnd {
  const char *name;
  Stage stage;
  PPPEnd end;
  int cause;
  const char *sentence;  // how it begins
};

class PPPEnds : public VPNLinkTest, public ::testing::WithParamInterface<PPPsEnd> {};

TEST_P(PPPEnds, AreTold) {
  reach(GetParam().stage);
  endPPP(GetParam().end);
  finish();
  ASSERT_EQ(machine.sentences.size(), 1U);
  EXPECT_TRUE(machine.sentences.front().starts_with(GetParam().sentence)) << machine.sentences.front();
  expectDown(GetParam().cause);
}

PPPEnd after(int code, int furthest) {
  return {.code = code, .reported = true, .carried = true, .packetsReceived = 20, .furthestPhase = furthest};
}

INSTANTIATE_TEST_SUITE_P(
    VPNLink, PPPEnds,
    ::testing::Values(
        PPPsEnd{"options", Stage::findingServer, {.code = 2}, 2, "pppd does not accept its options"},
        PPPsEnd{"noPPPInTheKernel", Stage::findingServer, {.code = 4}, 4, "This kernel has no PPP"},
        PPPsEnd{"killed", Stage::makingTunnel, {.exited = false, .code = 9}, 1, "pppd was ended by signal 9."},
        PPPsEnd{"nothingArrived",
                Stage::negotiating,
                {.code = 10, .reported = true, .carried = true, .furthestPhase = 4},
                10,
                "The server took the call, but not one of its packets arrived"},
        PPPsEnd{"noAgreement", Stage::negotiating, after(10, 4), 10, "The server and this machine could not agree"},
        PPPsEnd{"refusedAccount", Stage::authenticating, after(19, 5), 19, "The server did not accept the user name"},
        PPPsEnd{"endedByServer", Stage::network, after(0, 7), 0, "The server ended the PPP connection."},
        PPPsEnd{"endedBySomebody", Stage::up, after(5, 8), 5, "Somebody else on this machine ended pppd."},
        PPPsEnd{"idle", Stage::up, after(12, 8), 12, "The connection was idle for too long."},
        PPPsEnd{"deadServer", Stage::up, after(15, 8), 15, "The server no longer answers."},
        PPPsEnd{"lostLine", Stage::up, after(16, 8), 16, "The line to the server was lost."}),
    [](const auto &test) { return test.param.name; });

TEST_F(VPNLinkTest, AnEndOfPPPEndsTheTunnelToo) {
  reach(Stage::up);
  endPPP(after(15, 8));
  EXPECT_TRUE(machine.did("tunnel stop"));
  EXPECT_FALSE(machine.did("take back")) << "first the tunnel says goodbye";
  finish();
  EXPECT_EQ(phases(), (Phases{1, 2, 4, 5, 7, 8, 10, 0}));
}

TEST_F(VPNLinkTest, TheSentenceIsTheTunnelKinds) {
  make(plan(TunnelKind::l2tp));
  reach(Stage::negotiating);
  endPPP({.code = 10, .reported = true, .carried = true, .furthestPhase = 4});
  finish();
  EXPECT_EQ(machine.sentences, std::vector<std::string>{tunnelKind(TunnelKind::l2tp).nothingArrived});
}

TEST_F(VPNLinkTest, AKernelWithoutMPPEIsNamed) {
  LinkPlan encrypted = plan();
  encrypted.ppp.mppe = MPPE::any;
  machine.hasMPPE = false;
  make(encrypted);
  reach(Stage::authenticating);
  endPPP(after(10, 5));
  finish();
  ASSERT_EQ(machine.sentences.size(), 1U);
  EXPECT_NE(machine.sentences.front().find("this kernel has no MPPE"), std::string::npos);
}

TEST_F(VPNLinkTest, AKernelIsAccusedOnlyOfWhatIsWantedAndMissing) {
  for (const MPPE wanted : {MPPE::none, MPPE::any}) {
    LinkPlan some = plan();
    some.ppp.mppe = wanted;
    machine.hasMPPE = wanted != MPPE::none;
    make(some);
    reach(Stage::authenticating);
    endPPP(after(10, 5));
    finish();
    EXPECT_TRUE(machine.sentences.back().starts_with("The server and this machine could not agree"))
        << machine.sentences.back();
  }
}

TEST_F(VPNLinkTest, WithoutMPPENothingNeedsToEncrypt) {
  reach(Stage::network);
  PluginIPUp up = ipUp();
  up.encrypted = false;
  machine.ppp.ipUp(up);
  machine.nameServersDone("");
  EXPECT_EQ(phases().back(), kPhaseConnected);
}

TEST_F(VPNLinkTest, AServerThatDoesNotEncryptIsNotBelieved) {
  LinkPlan encrypted = plan();
  encrypted.ppp.mppe = MPPE::only128;
  make(encrypted);
  reach(Stage::network);
  PluginIPUp up = ipUp();
  up.encrypted = false;
  machine.ppp.ipUp(up);
  finish();
  EXPECT_FALSE(machine.did("carry ppp0"));
  ASSERT_EQ(machine.sentences.size(), 1U);
  EXPECT_NE(machine.sentences.front().find("the server does not encrypt"), std::string::npos);
  expectDown(kCauseNegotiationFailed);
}

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

// ---- The server's hang-up, or the loss of what protects the tunnel

struct HangUp {
  Stage stage;
  bool byServer;
  const char *meanwhile;  // a part of the second sentence; null: there is none
};

class HungUp : public VPNLinkTest, public ::testing::WithParamInterface<HangUp> {
 protected:
  // As pppd ends after it.
  void endAfterHangUp(int code) {
    constexpr std::array kFurthest{std::pair{Stage::negotiating, 4}, std::pair{Stage::authenticating, 5},
                                   std::pair{Stage::network, 7}, std::pair{Stage::nameServers, 8}};
    const auto *furthest = std::ranges::find(kFurthest, GetParam().stage, [](const auto &pair) { return pair.first; });
    endPPP(after(code, furthest == kFurthest.end() ? 0 : furthest->second));
  }
};

TEST_P(HungUp, EndsIt) {
  reach(GetParam().stage);
  machine.tunnel.lost({.endedByServer = GetParam().byServer, .sentence = "The call has ended."});
  machine.clock.advance(milliseconds(300));
  EXPECT_TRUE(machine.did("ppp hangUp"));
  endAfterHangUp(16);
  finish();
  ASSERT_EQ(machine.sentences.size(), GetParam().meanwhile == nullptr ? 1U : 2U);
  EXPECT_EQ(machine.sentences.front(), "The call has ended.");
  if (GetParam().meanwhile != nullptr) EXPECT_NE(machine.sentences[1].find(GetParam().meanwhile), std::string::npos);
  expectDown(kCauseHungUp);
}

INSTANTIATE_TEST_SUITE_P(
    VPNLink, HungUp,
    ::testing::Values(HangUp{Stage::channelGiven, true, nullptr}, HangUp{Stage::negotiating, true, "(LCP)"},
                      HangUp{Stage::authenticating, true, "account was checked, before"},
                      HangUp{Stage::authenticating, false, "account was checked, before"},
                      HangUp{Stage::network, true, "(CCP, IPCP)"}, HangUp{Stage::nameServers, true, "(CCP, IPCP)"},
                      HangUp{Stage::up, true, nullptr}, HangUp{Stage::up, false, nullptr}),
    [](const auto &test) { return nameOf(test.param.stage) + (test.param.byServer ? "ByServer" : "Lost"); });

TEST_F(VPNLinkTest, ARefusalThatTheHangUpHasOvertakenIsWaitedFor) {
  reach(Stage::authenticating);
  machine.tunnel.lost({.endedByServer = true, .sentence = "The call has ended."});
  machine.clock.advance(milliseconds(299));
  EXPECT_FALSE(machine.did("ppp hangUp"));
  endPPP(after(19, 5));
  finish();
  EXPECT_TRUE(machine.sentences.back().starts_with("The server did not accept the user name"));
  expectDown(kCauseNotAuthenticated);
}

TEST_F(VPNLinkTest, WhatIsLostOnceIsNotLostAgain) {
  reach(Stage::authenticating);
  machine.tunnel.lost({.endedByServer = true, .sentence = "The call has ended."});
  machine.tunnel.lost({.endedByServer = false, .sentence = "IPSec is gone."});
  EXPECT_FALSE(machine.did("ppp hangUp")) << "a refusal is still waited for";
  machine.ppp.phase(kPhaseNegotiatingNetwork);
  machine.ppp.ipUp(ipUp());
  EXPECT_FALSE(machine.did("carry ppp0")) << "what pppd says later changes nothing";
  machine.clock.advance(milliseconds(300));
  finish(16);
  EXPECT_EQ(std::ranges::count(machine.sentences, "IPSec is gone."), 0);
  expectDown(kCauseHungUp);
}

TEST_F(VPNLinkTest, ALineThatIsLostWhileTheAccountIsCheckedIsNotWaitedFor) {
  reach(Stage::authenticating);
  machine.tunnel.lost({.endedByServer = false, .sentence = "The call has ended."});
  EXPECT_TRUE(machine.did("ppp hangUp"));
}

TEST_F(VPNLinkTest, APPPWithoutItsChannelIsNotHungUp) {
  reach(Stage::makingTunnel);
  machine.tunnel.lost({.endedByServer = false, .sentence = "The call has ended."});
  EXPECT_TRUE(machine.did("ppp terminate"));
  EXPECT_FALSE(machine.did("ppp hangUp"));
}

class HungUpLate : public VPNLinkTest, public ::testing::WithParamInterface<Stage> {};

TEST_P(HungUpLate, ChangesNothing) {
  reach(GetParam());
  machine.tunnel.lost({.endedByServer = true, .sentence = "The call has ended."});
  finish();
  EXPECT_EQ(std::ranges::count(machine.sentences, "The call has ended."), 0);
  expectDown(kCauseUserRequest);
}

INSTANTIATE_TEST_SUITE_P(VPNLink, HungUpLate, ::testing::ValuesIn(stages(Stage::endingPPP, Stage::endingTunnel)),
                         [](const auto &test) { return nameOf(test.param); });

TEST_F(VPNLinkTest, AHangUpWhilePPPEndsByItselfLeavesTheReasonToPPP) {
  reach(Stage::authenticating);
  machine.ppp.phase(kPhaseTerminating);
  machine.tunnel.lost({.endedByServer = true, .sentence = "The call has ended."});
  EXPECT_FALSE(machine.did("ppp hangUp"));
  endPPP(after(19, 5));
  finish();
  machine.clock.advance(seconds(10));
  EXPECT_FALSE(machine.did("ppp terminate")) << "it has ended by itself";
  expectDown(kCauseNotAuthenticated);
}

TEST_F(VPNLinkTest, APPPThatDoesNotFinishItsOwnEndAfterAHangUpIsEnded) {
  reach(Stage::authenticating);
  machine.ppp.phase(kPhaseTerminating);
  machine.tunnel.lost({.endedByServer = true, .sentence = "The call has ended."});
  machine.clock.advance(milliseconds(2999));
  EXPECT_FALSE(machine.did("ppp terminate"));
  machine.clock.advance(milliseconds(1));
  EXPECT_TRUE(machine.did("ppp terminate"));
  finish(19);
  expectDown(kCauseNotAuthenticated);
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

// ---- The last word

TEST_F(VPNLinkTest, TheLastWordWaitsForTheReaderOfTheLastSentence) {
  reach(Stage::up);
  endPPP(after(15, 8));
  machine.clock.advance(milliseconds(99));
  EXPECT_TRUE(machine.did("take back"));
  EXPECT_FALSE(link->isDown());
  machine.clock.advance(milliseconds(1));
  EXPECT_TRUE(link->isDown());
}

TEST_F(VPNLinkTest, WithoutASentenceTheLastWordComesAtOnce) {
  reach(Stage::endingTunnel);
  machine.clock.run();
  EXPECT_TRUE(link->isDown());
}

TEST_F(VPNLinkTest, ASentenceOfLongAgoHasBeenRead) {
  machine.say("A sentence of an earlier connection.");
  machine.clock.advance(seconds(10));
  reach(Stage::endingTunnel);
  machine.clock.run();
  EXPECT_TRUE(link->isDown());
}

TEST_F(VPNLinkTest, ATunnelThatIsSlowToStopIsWaitedFor) {
  machine.answersStop = false;
  reach(Stage::endingTunnel);
  machine.clock.advance(seconds(5));
  EXPECT_FALSE(machine.did("take back"));
  EXPECT_FALSE(link->isDown());
  machine.tunnel.stopped();
  finish();
  expectDown(kCauseUserRequest);
}

TEST_F(VPNLinkTest, ItsOwnerMayDestroyItWhenItHearsTheLastWord) {
  link = std::make_unique<VPNLink>(plan(), std::make_unique<RecordingParts>(machine), [this](const LinkStatus &status) {
    told.push_back(status);
    if (status.status == 0) link.reset();
  });
  reach(Stage::endingTunnel);
  machine.clock.advance(milliseconds(200));
  EXPECT_FALSE(link);
  expectClean();
}

// ---- Destruction in each state

class Destroyed : public VPNLinkTest, public ::testing::WithParamInterface<Stage> {};

TEST_P(Destroyed, LeavesACleanMachineAndTellsNobody) {
  reach(GetParam());
  const std::size_t before = told.size();
  link.reset();
  EXPECT_EQ(told.size(), before);
  EXPECT_FALSE(machine.tunnelThere);
  expectClean();
  // A tunnel that still says something may need what stands in the journal.
  if (GetParam() >= Stage::makingTunnel && GetParam() < Stage::readingTime)
    EXPECT_LT(std::ranges::find(machine.deeds, "tunnel gone"), std::ranges::find(machine.deeds, "take back"));
  if (machine.did("ppp closeNow"))
    EXPECT_EQ(machine.grace, milliseconds(1500)) << "the whole end takes five seconds at most";
  machine.clock.advance(seconds(100));
  EXPECT_EQ(told.size(), before) << "nothing of it is left in the loop";
}

INSTANTIATE_TEST_SUITE_P(VPNLink, Destroyed, ::testing::ValuesIn(stages(Stage::made, Stage::down)),
                         [](const auto &test) { return nameOf(test.param); });

}  // namespace
