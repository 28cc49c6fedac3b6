// How an association begins: what is asked for, which ways are tried, what is in the way.

#include "tests/helper/ike/IKEAssociationFixture.h"

namespace helper::testing {
namespace {

TEST_F(IKEAssociationTest, NegotiatesForTheVerySocket) {
  start();
  EXPECT_NE(guarded_, 0U);
  const isakmp::Plan &plan = child_.starts.at(0).plan;
  const isakmp::IPv4Bytes loopback{127, 0, 0, 1};
  EXPECT_EQ(plan.local, loopback);
  EXPECT_EQ(plan.localPort, 40000);
  EXPECT_EQ(plan.remote, loopback);
  EXPECT_EQ(plan.flowRemotePort, serverPort_);
  EXPECT_NE(plan.flowLocalPort, 0);
  EXPECT_EQ(plan.identity, isakmp::Identification::of(loopback));
  EXPECT_FALSE(plan.peerIdentity);
  EXPECT_EQ(plan.ike, isakmp::defaultIKEProposals());
  EXPECT_EQ(plan.esp, isakmp::defaultESPProposals());
  EXPECT_FALSE(plan.startOn4500);
  EXPECT_FALSE(plan.aggressive);
  EXPECT_EQ(child_.starts[0].presharedKey, Secret(std::string_view(kSharedSecret)));
  EXPECT_EQ(secrets_.asked, (std::vector<std::string>{"ID.SS"}));
  EXPECT_EQ(secrets_.uses.at(0).owner, use_.owner);
  EXPECT_EQ(secrets_.uses.at(0).differenceTo(use_), std::nullopt);
  EXPECT_EQ(journal_.flows, (std::vector<ProtectedFlow>{{guarded_}}));
  ASSERT_EQ(journal_.processes.size(), 1U);
  EXPECT_EQ(journal_.processes[0].pid, ::getpid());
  establish();
  EXPECT_EQ(up_, 1);
  EXPECT_EQ(states_.installed.size(), 2U);
}

TEST_F(IKEAssociationTest, HasTheServerForgetWhatNobodyUses) {
  start();
  EXPECT_TRUE(child_.starts.at(0).plan.initialContact);
}

TEST_F(IKEAssociationTest, LeavesOthersTheirAssociationsWithTheServer) {
  kernel_.others = true;
  start();
  EXPECT_FALSE(child_.starts.at(0).plan.initialContact);
}

TEST_F(IKEAssociationTest, GuardsBothSocketsAndTellsWhichIsProtected) {
  other_ = udp();
  start();
  EXPECT_EQ(guardedSockets_, (std::vector<int>{socket_.get(), other_.get()}));
  const isakmp::Plan &plan = child_.starts.at(0).plan;
  ASSERT_TRUE(plan.otherFlowLocalPort);
  EXPECT_NE(plan.flowLocalPort, *plan.otherFlowLocalPort);
  establish(plan.otherFlowLocalPort);
  EXPECT_EQ(up_, 1);
  EXPECT_EQ(protected_, other_.get());
}

TEST_F(IKEAssociationTest, ProtectsTheOnlySocket) {
  comeUp();
  EXPECT_EQ(guardedSockets_, std::vector<int>{socket_.get()});
  EXPECT_FALSE(child_.starts.at(0).plan.otherFlowLocalPort);
  EXPECT_EQ(protected_, socket_.get());
}

TEST_F(IKEAssociationTest, BelievesNoOtherPort) {
  other_ = udp();
  start();
  establish(std::uint16_t{9});
  EXPECT_EQ(up_, 0);
  expectFailure(DeviceCause::protocolError, "other packets than it was to protect");
}

TEST_F(IKEAssociationTest, NamesBothPortsThatWereRefused) {
  other_ = udp();
  start();
  const isakmp::Plan plan = child_.starts.at(0).plan;
  refuse({Stage::association, Reason::flow, 18, {}, false});
  expectFailure(DeviceCause::protocolError, "UDP from port " + std::to_string(plan.flowLocalPort) + " or " +
                                                std::to_string(*plan.otherFlowLocalPort) + " of this machine");
}

TEST_F(IKEAssociationTest, UsesTheMachinesSettings) {
  settings_.proposals = {"aes256-sha512-modp4096"};
  settings_.espProposals = {"aes128-sha256"};
  settings_.remoteIdentity = "10.1.1.1";
  settings_.lifetime = seconds(600);
  settings_.espLifetime = seconds(300);
  settings_.deadPeerDelay = seconds(0);
  start();
  const isakmp::Plan &plan = child_.starts.at(0).plan;
  EXPECT_EQ(plan.ike, isakmp::parseIKEProposals(settings_.proposals).value());
  EXPECT_EQ(plan.esp, isakmp::parseESPProposals(settings_.espProposals).value());
  EXPECT_EQ(plan.peerIdentity, isakmp::Identification::fromText("10.1.1.1"));
  EXPECT_EQ(plan.ikeLifetime, seconds(600));
  EXPECT_EQ(plan.espLifetime, seconds(300));
  EXPECT_EQ(plan.deadPeerDelay, seconds(0));
}

TEST_F(IKEAssociationTest, CallsItselfAsItIsTold) {
  settings_.localIdentity = "@branch";
  start();
  EXPECT_EQ(child_.starts.at(0).plan.identity, isakmp::Identification::fromText("@branch"));
  refuse({Stage::authentication, Reason::identity, 18, {}, false});
  expectFailure(DeviceCause::protocolError, "does not know this client as @branch");
}

TEST_F(IKEAssociationTest, WarnsOfTheAggressiveMode) {
  settings_.mode = EngineSettings::IKEMode::aggressive;
  start();
  EXPECT_TRUE(child_.starts.at(0).plan.aggressive);
  const std::string log = *support::contentsOf(folder_.path("ppp.log"));
  EXPECT_NE(log.find("only a long random one withstands that."), std::string::npos) << log;
}

TEST_F(IKEAssociationTest, SaysWhatOfTheSettingsIsNotOffered) {
  settings_.proposals = {"camellia256-sha1-modp2048", "aes256-sha1-modp2048"};
  start();
  EXPECT_EQ(child_.starts.at(0).plan.ike.size(), 1U);
  const std::string log = *support::contentsOf(folder_.path("ppp.log"));
  EXPECT_NE(log.find("cannot use \"camellia256\"; it is not offered to the server."), std::string::npos) << log;
}

TEST_F(IKEAssociationTest, NothingLeftToOffer) {
  settings_.proposals = {"camellia256-sha1-modp2048"};
  start();
  expectFailure(DeviceCause::protocolError, "/etc/vpnctl/engine.conf leaves nothing to offer");
  EXPECT_TRUE(secrets_.asked.empty());
}

TEST_F(IKEAssociationTest, NoIPSecInTheKernel) {
  noKernel_ = true;
  start();
  expectFailure(DeviceCause::protocolError, "modprobe -a esp4 xfrm_user");
  association_->stop();
  ASSERT_TRUE(runUntil([&] { return stopped_ == 1; }));
}

TEST_F(IKEAssociationTest, NoGuardNoAssociation) {
  guard_ = Error{"POSIX", ENOPROTOOPT, "guard the socket: Protocol not available"};
  start();
  expectFailure(DeviceCause::protocolError, "guard the socket");
  EXPECT_EQ(child_.made, 0);
}

TEST_F(IKEAssociationTest, NoSharedSecret) {
  secrets_.missing = true;
  start();
  expectFailure(DeviceCause::noSharedSecret,
                "There is no shared secret for the connection: the keychain has no item for ID.SS.");
  EXPECT_TRUE(child_.starts.empty());
  EXPECT_TRUE(journal_.processes.empty());
}

TEST_F(IKEAssociationTest, ASecretThatIsTooLong) {
  secrets_.secret = Secret::ofSize(513);
  start();
  expectFailure(DeviceCause::noSharedSecret, "it is longer than 512 bytes");
}

TEST_F(IKEAssociationTest, WhatCannotBeWrittenDownIsNotDone) {
  journal_.broken = true;
  start();
  expectFailure(DeviceCause::protocolError, "no room");
  EXPECT_EQ(child_.made, 0);
}

TEST_F(IKEAssociationTest, NoChild) {
  child_.cannotStart = true;
  start();
  expectFailure(DeviceCause::protocolError, "start vpnctl-ike: No such file");
}

TEST_F(IKEAssociationTest, TriesOnceMoreWithFew) {
  start();
  const Refused refused{Stage::firstAnswer, Reason::noProposal, 14, "it says NO-PROPOSAL-CHOSEN", false};
  refuse(refused);
  ASSERT_EQ(child_.starts.size(), 2U);
  EXPECT_EQ(child_.there, 1) << "each attempt is another process";
  EXPECT_EQ(child_.made, 2);
  EXPECT_EQ(child_.starts[1].plan.ike, isakmp::fewIKEProposals());
  EXPECT_FALSE(child_.starts[1].plan.startOn4500);
  EXPECT_FALSE(failure_);
  refuse(refused);
  expectFailure(DeviceCause::protocolError, "refuses how IKE is to be protected; offered were aes256-sha256-modp2048");
  EXPECT_NE(failure_->sentence.find(". It says NO-PROPOSAL-CHOSEN. "), std::string::npos);
}

TEST_F(IKEAssociationTest, WhatTheUserSetIsNotChangedForASecondTry) {
  settings_.proposals = {"aes256-sha512-modp4096"};
  start();
  refuse({Stage::firstAnswer, Reason::noProposal, 14, {}, false});
  EXPECT_EQ(child_.starts.size(), 1U);
  expectFailure(DeviceCause::protocolError, "offered were aes256-sha512-modp4096. ");
}

TEST_F(IKEAssociationTest, TellsOfTheTryThatCameFurther) {
  start();
  refuse({Stage::association, Reason::noProposal, 14, {}, false});
  ASSERT_EQ(child_.starts.size(), 2U);
  EXPECT_EQ(child_.starts[1].plan.esp, isakmp::fewESPProposals());
  refuse({Stage::firstAnswer, Reason::noProposal, 14, {}, false});
  expectFailure(DeviceCause::protocolError, "accepts the shared secret but refuses");
}

TEST_F(IKEAssociationTest, ASilentServerIsTriedOnEveryWay) {
  start();
  silent(Stage::firstAnswer);
  ASSERT_EQ(child_.starts.size(), 2U);
  EXPECT_TRUE(child_.starts[1].plan.startOn4500);
  EXPECT_TRUE(child_.starts[1].plan.forceEncapsulation);
  silent(Stage::firstAnswer);
  ASSERT_EQ(child_.starts.size(), 3U);
  EXPECT_FALSE(child_.starts[2].plan.startOn4500);
  EXPECT_EQ(child_.starts[2].plan.localPort, 500);
  EXPECT_EQ(ports_, (std::vector<std::uint16_t>{0, 0, 500}));
  EXPECT_FALSE(failure_);
  silent(Stage::firstAnswer);
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port 500 (IKE), nor on port 4500");
}

TEST_F(IKEAssociationTest, AnotherWayMayBeTheRightOne) {
  start();
  silent(Stage::firstAnswer);
  establish();
  EXPECT_EQ(up_, 1);
  EXPECT_TRUE(states_.installed.at(0).encapsulation);
}

TEST_F(IKEAssociationTest, DoesWithoutThePortOfAnotherDaemon) {
  portIsTaken_ = true;
  start();
  silent(Stage::firstAnswer);
  silent(Stage::firstAnswer);
  EXPECT_EQ(child_.starts.size(), 2U);
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port 500");
}

TEST_F(IKEAssociationTest, WhoeverSaysNothingAtAllIsGivenUpEarly) {
  silence_ = milliseconds(20);
  farewell_ = milliseconds(20);
  start();
  ASSERT_TRUE(runUntil([&] { return failure_.has_value(); }));
  EXPECT_EQ(child_.starts.size(), 3U);
  EXPECT_TRUE(wasToldToStop());
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port 500");
}

TEST_F(IKEAssociationTest, WhoeverHasAnsweredGetsHisTime) {
  silence_ = milliseconds(20);
  start();
  say(isakmp::StageReached{Stage::keyExchange});
  EXPECT_FALSE(runUntil([&] { return wasToldToStop(); }, milliseconds(100)));
}

TEST_F(IKEAssociationTest, KeepsTheDeadline) {
  settings_.deadline = milliseconds(50);
  start();
  say(isakmp::StageReached{Stage::keyExchange});
  ASSERT_TRUE(runUntil([&] { return wasToldToStop(); }));
  EXPECT_FALSE(failure_);
  end();
  expectFailure(DeviceCause::noAnswer, "stopped answering during IKE's key exchange");
}

}  // namespace
}  // namespace helper::testing
