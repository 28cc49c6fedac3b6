// How an association ends: by us, by the server, by a child that dies or says what it may not.

#include "tests/helper/ike/IKEAssociationFixture.h"

namespace helper::testing {
namespace {

TEST_F(IKEAssociationTest, StopsTheChildThenCleansTheKernel) {
  comeUp();
  association_->stop();
  association_->stop();
  EXPECT_TRUE(wasToldToStop());
  say(isakmp::RemoveStates{1, 0xc0000001, kTheirs + 1});
  say(isakmp::Stopped{});
  EXPECT_EQ(stopped_, 0);
  EXPECT_EQ(kernel_.removed, 0);
  end();
  EXPECT_EQ(kernel_.removed, 1);
  EXPECT_EQ(stopped_, 1);
  EXPECT_EQ(child_.there, 0);
  EXPECT_TRUE(journal_.flows.empty());
  EXPECT_TRUE(journal_.processes.empty());
}

TEST_F(IKEAssociationTest, AChildThatDoesNotEndIsEnded) {
  farewell_ = milliseconds(20);
  comeUp();
  association_->stop();
  ASSERT_TRUE(runUntil([&] { return stopped_ == 1; }));
  EXPECT_EQ(child_.there, 0);
  EXPECT_EQ(kernel_.removed, 1);
}

TEST_F(IKEAssociationTest, StoppedBeforeItBegan) {
  association_ = std::make_unique<IKEAssociation>(
      IKEContext{event_, secrets_, use_, log_, journal_, settings_}, "ID.SS", parts(),
      IPSecAssociation::Handlers{.up = {}, .failed = {}, .lost = {}, .stopped = [this] { ++stopped_; }});
  association_->start(socket_.get(), -1);
  association_->stop();
  ASSERT_TRUE(runUntil([&] { return stopped_ == 1; }));
  EXPECT_EQ(child_.made, 0);
  EXPECT_EQ(kernel_.removed, 1) << "a packet may have met the guard, and the kernel waits for an association for it";
}

TEST_F(IKEAssociationTest, DestroyedWhileUp) {
  comeUp();
  association_.reset();
  EXPECT_EQ(child_.there, 0);
  EXPECT_EQ(kernel_.removed, 1);
  EXPECT_TRUE(journal_.flows.empty());
  EXPECT_EQ(stopped_, 0);
}

// The next to undo the journal finds it.
TEST_F(IKEAssociationTest, WhatMayBeLeftInTheKernelStaysNoted) {
  kernel_.removes = Error{"Netlink", 5, "remove what IPSec left in the kernel: no room"};
  comeUp();
  association_->stop();
  end();
  EXPECT_EQ(stopped_, 1);
  EXPECT_EQ(journal_.flows.size(), 1U);
}

TEST_F(IKEAssociationTest, ReplacesAPairBeforeItEnds) {
  comeUp();
  install(2);
  say(isakmp::Replaced{2});
  say(isakmp::RemoveStates{1, 0xc0000001, kTheirs + 1});
  EXPECT_EQ(states_.calls.size(), 8U);
  EXPECT_EQ(states_.calls.at(5), "install out");
  EXPECT_TRUE(states_.calls.at(6).starts_with("remove"));
  EXPECT_FALSE(lost_);
}

TEST_F(IKEAssociationTest, TellsEachReason) {
  struct Row {
    Refused refused;
    const char *part;
  };
  const std::vector<Row> rows{
      {{Stage::keyExchange, Reason::silence, 0, {}, false}, "stopped answering during IKE's key exchange"},
      {{Stage::authentication, Reason::silence, 0, {}, false}, "the shared secret is probably wrong"},
      {{Stage::association, Reason::silence, 0, {}, false}, "but stopped answering when packets"},
      {{Stage::keyExchange, Reason::keyExchange, 17, {}, false}, "cannot use this machine's half of IKE's key"},
      {{Stage::authentication, Reason::wrongSecret, 24, {}, false}, "said no when the shared secret"},
      {{Stage::authentication, Reason::wrongSecret, 24, {}, true}, "It asks for certificates, and may expect one."},
      {{Stage::authentication, Reason::identity, 18, {}, false}, "does not know this client as 127.0.0.1"},
      {{Stage::authentication, Reason::serverIdentity, 0, "it calls itself \"10.0.0.9\"", false},
       "is not who it should be: it calls itself \"10.0.0.9\". Who it must be can be set as ike.remote_identity"},
      {{Stage::authentication, Reason::certificate, 0, {}, true}, "wants a certificate"},
      {{Stage::association, Reason::flow, 18, {}, false}, "does not protect these packets"},
      {{Stage::authentication, Reason::forgotten, 4, {}, false}, "has forgotten the negotiation"},
      {{Stage::authentication, Reason::otherwise, 0, "it says notification 4711", false}, "it says notification 4711"},
      {{Stage::keyExchange, Reason::badAnswer, 0, "a nonce of 3 bytes", false}, "answered what it may not"},
      {{Stage::association, Reason::notInstalled, 0, {}, false}, "The kernel does not take the keys of IPSec"}};
  for (const Row &row : rows) {
    failure_.reset();
    child_ = {};
    start();
    refuse(row.refused);
    const bool unanswered = row.refused.reason == Reason::silence && row.refused.stage == Stage::keyExchange;
    expectFailure(unanswered ? DeviceCause::noAnswer : DeviceCause::protocolError, row.part);
  }
}

TEST_F(IKEAssociationTest, TellsAKernelWithoutESP) {
  kernel_.esp = false;
  start();
  refuse({Stage::association, Reason::notInstalled, 0, {}, false});
  expectFailure(DeviceCause::protocolError, "modprobe esp4");
}

TEST_F(IKEAssociationTest, TellsWhatTheKernelRefuses) {
  start();
  states_.refuses = true;
  say(isakmp::NeedSPI{1});
  EXPECT_TRUE(std::holds_alternative<IKENotInstalled>(child_.orders.back()));
  refuse({Stage::association, Reason::notInstalled, 0, {}, false});
  expectFailure(DeviceCause::protocolError, "does not take the keys of IPSec: the kernel has no room");
}

// It speaks with strangers.
TEST_F(IKEAssociationTest, AChildThatAsksForWhatItMayNotIsEnded) {
  start();
  say(keys(1, Direction::inbound, 0xc0000001));
  expectFailure(DeviceCause::protocolError,
                "vpnctl-ike) has ended (it asked for what it may not, keys for a pair without an SPI) while it was");
  EXPECT_TRUE(states_.calls.empty());
}

TEST_F(IKEAssociationTest, UpOnlyWhenTheKernelHasTheKeys) {
  start();
  say(isakmp::Established{isakmp::defaultIKEProposals().front(), isakmp::defaultESPProposals().front(), false, {}, {}});
  expectFailure(DeviceCause::protocolError, "that an association stands that does not");
}

TEST_F(IKEAssociationTest, AChildThatDiesBeforeItIsUp) {
  start();
  end(Error{"vpnctl-ike", 0, "a malformed record of type 2"});
  expectFailure(DeviceCause::protocolError, "has ended (a malformed record of type 2) while it was needed");
}

TEST_F(IKEAssociationTest, AChildThatDiesWhenItIsUp) {
  comeUp();
  end();
  ASSERT_TRUE(lost_);
  EXPECT_NE(lost_->find("(vpnctl-ike) has ended; without it the IPSec association cannot be kept."), std::string::npos);
  EXPECT_EQ(kernel_.removed, 0) << "no packet is lost before the link ends";
  association_->stop();
  ASSERT_TRUE(runUntil([&] { return stopped_ == 1; }));
  EXPECT_EQ(kernel_.removed, 1);
  EXPECT_TRUE(journal_.flows.empty());
}

TEST_F(IKEAssociationTest, TellsTheLoss) {
  struct Row {
    isakmp::Lost lost;
    const char *sentence;
  };
  for (const Row &row : {Row{{true, Reason::otherwise, {}}, "The server has ended the IPSec association."},
                         Row{{false, Reason::silence, {}},
                             "The server 127.0.0.1 no longer answers to IKE: it is gone, or the way to it."},
                         Row{{false, Reason::otherwise, "the association is over"},
                             "The IPSec association with 127.0.0.1 could not be kept: the association is over."}}) {
    up_ = 0;
    child_ = {};
    lost_.reset();
    comeUp();
    say(row.lost);
    EXPECT_FALSE(lost_) << "only when it has ended";
    end();
    EXPECT_EQ(lost_, row.sentence);
  }
}

// Nothing would go through the guard any more.
TEST_F(IKEAssociationTest, ItsStatesAreTakenAwayByAnother) {
  for (const bool all : {false, true}) {
    up_ = 0;
    child_ = {};
    lost_.reset();
    comeUp();
    states_.missing = {states_.installed.back().spi};
    const in_addr loopback{htonl(INADDR_LOOPBACK)};
    statesRemoved_(all ? ESPStateWatch::News{{}, true} : ESPStateWatch::News{{{loopback, kTheirs + 1}}, false});
    statesRemoved_({{}, true});
    EXPECT_TRUE(wasToldToStop()) << "the server is told";
    say(isakmp::Stopped{});
    EXPECT_FALSE(lost_) << "only when the child has ended";
    end();
    ASSERT_TRUE(lost_);
    EXPECT_EQ(lost_->find("Another program has taken the connection's IPSec associations out of the kernel"), 0U);
    states_.missing.clear();
  }
}

TEST_F(IKEAssociationTest, StatesOfOthersAreTheirBusiness) {
  comeUp();
  statesRemoved_({{{in_addr{htonl(INADDR_LOOPBACK)}, 0x1234}, {in_addr{}, kTheirs + 1}}, false});
  statesRemoved_({{}, true});  // perhaps ours, but they are there
  EXPECT_FALSE(wasToldToStop());
  say(isakmp::RemoveStates{1, 0xc0000001, kTheirs + 1});
  statesRemoved_({{{in_addr{htonl(INADDR_LOOPBACK)}, kTheirs + 1}}, false});
  EXPECT_FALSE(wasToldToStop()) << "that was our doing";
  association_->stop();
  const std::size_t told = child_.orders.size();
  statesRemoved_({{}, true});
  EXPECT_EQ(child_.orders.size(), told) << "it ends already";
}

TEST_F(IKEAssociationTest, WithoutAnEarForTheKernelThereIsNone) {
  cannotWatch_ = true;
  start();
  expectFailure(DeviceCause::protocolError, "No IPSec association is possible: listen to the kernel: no room.");
}

TEST_F(IKEAssociationTest, TheNumbersOfTwoDiffer) {
  start();
  const std::uint32_t first = guarded_;
  child_ = {};
  start();
  EXPECT_NE(guarded_, first);
}

}  // namespace
}  // namespace helper::testing
