// Every way in which a link ends, in each of its stages: a stop, pppd's end, a hang-up, destruction; and its last word.

#include <gtest/gtest.h>

#include "helper/link/TunnelKinds.h"
#include "helper/ppp/PPPEnding.h"
#include "tests/helper/link/LinkInStages.h"

namespace helper::testing {
namespace {

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
}  // namespace helper::testing
