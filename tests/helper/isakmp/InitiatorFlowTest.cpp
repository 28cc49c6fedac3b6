// Which of our ports is protected, where there are two to choose from.

#include <gtest/gtest.h>

#include "tests/helper/isakmp/ServersExchanges.h"

namespace helper::isakmp {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint16_t kUsual = 1701;
constexpr std::uint16_t kOther = 50123;

Plan planOfTwo() {
  Plan plan = usualPlan();
  plan.flowLocalPort = kUsual;
  plan.otherFlowLocalPort = kOther;
  return plan;
}

TestServerOptions serverThatProtects(std::vector<std::uint16_t> ports) {
  TestServerOptions options = usualServer();
  options.protectedPorts = std::move(ports);
  return options;
}

void putBehindNAT(TestServerOptions &options) {
  options.client = {192, 0, 2, 77};
  options.clientPort = 61000;
}

struct FlowRow {
  const char *name;
  bool natAtUs;
  bool natAtServer;
  std::vector<std::uint16_t> protectedPorts;
  std::uint16_t port;  // that stands in the end
  std::uint32_t quickModes;
};

class FlowOf : public testing::TestWithParam<FlowRow> {};

TEST_P(FlowOf, IsSettledInQuickMode) {
  const FlowRow &row = GetParam();
  TestServerOptions options = serverThatProtects(row.protectedPorts);
  if (row.natAtUs) putBehindNAT(options);
  if (row.natAtServer) options.own = {172, 16, 0, 5};
  Conversation conversation(planOfTwo(), options);
  up(conversation);
  EXPECT_EQ(conversation.last<Established>().flowLocalPort, row.port);
  ASSERT_EQ(conversation.server.pairs().size(), 1U);
  EXPECT_EQ(conversation.server.pairs()[0].flow[0].port, row.port);
  EXPECT_EQ(conversation.count<NeedSPI>(), row.quickModes);
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>(2, row.quickModes)));
}

INSTANTIATE_TEST_SUITE_P(Each, FlowOf,
                         testing::Values(FlowRow{"usually", false, false, {}, kUsual, 1},
                                         FlowRow{"behind_our_NAT", true, false, {}, kOther, 1},
                                         FlowRow{"behind_its_NAT", false, true, {}, kUsual, 1},
                                         FlowRow{"the_usual_one_refused", false, false, {kOther}, kOther, 2},
                                         FlowRow{"the_other_one_refused", true, false, {kUsual}, kUsual, 2}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(InitiatorFlow, RefusedTwiceIsRefused) {
  Conversation conversation(planOfTwo(), serverThatProtects({53}));
  conversation.start();
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::flow);
  EXPECT_EQ(conversation.count<NeedSPI>(), 2U);
  EXPECT_TRUE(conversation.states().empty());
}

TEST(InitiatorFlow, RefusedWithoutAnotherIsRefusedAtOnce) {
  Conversation conversation(usualPlan(), serverThatProtects({kOther}));
  conversation.start();
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::flow);
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
}

// What it said to the first is more than what it does not say to the second.
TEST(InitiatorFlow, ARefusalCountsMoreThanTheSilenceAfterIt) {
  Conversation conversation(planOfTwo(), serverThatProtects({kOther}));
  conversation.passes = [](bool toServer, std::size_t number) { return toServer || number < 4; };
  conversation.start();
  EXPECT_EQ(conversation.count<NeedSPI>(), 2U);
  EXPECT_EQ(conversation.count<Refused>(), 0U);
  conversation.pass(seconds(60));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::flow);
  EXPECT_EQ(conversation.last<Refused>().notification, notify::kInvalidID);
}

TEST(InitiatorFlow, ARefusalCountsMoreThanTheEndAfterIt) {
  Conversation conversation(planOfTwo(), serverThatProtects({kOther}));
  conversation.passes = [](bool toServer, std::size_t number) { return toServer || number < 4; };
  conversation.start();
  conversation.deliver(
      conversation.server.tell(Deletion{kProtocolISAKMP, {conversation.server.association()->cookieBytes()}}));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::flow);
}

// A server may bind a client to the port that it heard of first, and then know no other.
TEST(InitiatorFlow, ARefusedProposalCountsMoreThanThePortAfterIt) {
  TestServerOptions options = serverThatProtects({kUsual});
  options.refusesESP = true;
  Conversation conversation(planOfTwo(), options);
  conversation.start();
  EXPECT_EQ(conversation.count<NeedSPI>(), 2U);
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::noProposal);
  EXPECT_EQ(conversation.last<Refused>().notification, notify::kNoProposalChosen);
}

TEST(InitiatorFlow, WhatTheKernelDoesNotTakeIsTold) {
  Conversation conversation(planOfTwo(), serverThatProtects({kOther}));
  conversation.kernelAnswers = false;
  conversation.start();
  for (const PairID pair : {1U, 2U})
    conversation.apply(conversation.initiator.allocated(conversation.now, pair, 0xc1000000 + pair));
  conversation.apply(conversation.initiator.notInstalled(conversation.now, 2));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::notInstalled);
}

// Nobody knows why a server says nothing; the time is for hearing it.
TEST(InitiatorFlow, SilenceIsNoRefusal) {
  Conversation conversation(planOfTwo());
  conversation.passes = [](bool toServer, std::size_t number) { return toServer || number < 3; };
  conversation.start();
  conversation.pass(seconds(60));
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::silence);
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
}

TEST(InitiatorFlow, StaysWhenKeysAreMadeAnew) {
  Plan plan = planOfTwo();
  plan.espLifetime = seconds(400);
  plan.ikeLifetime = seconds(500);
  TestServerOptions options = serverThatProtects({kOther});
  Conversation conversation(plan, options);
  up(conversation);
  // A server that would take the usual one by now.
  conversation.server.options().protectedPorts.clear();
  conversation.pass(seconds(3000));
  EXPECT_TRUE(conversation.isUp()) << conversation.drops();
  ASSERT_GE(conversation.server.pairs().size(), 7U);
  for (const TestServer::Pair &pair : conversation.server.pairs()) EXPECT_EQ(pair.flow[0].port, kOther);
}

TEST(InitiatorFlow, IsTheOneThatTheServerMayReplace) {
  Conversation conversation(planOfTwo(), serverThatProtects({kOther}));
  up(conversation);
  ServersQuickMode usual(conversation);
  conversation.deliver(usual.first);
  EXPECT_EQ(conversation.count<NeedSPI>(), 2U);
  conversation.plan.flowLocalPort = kOther;
  ServersQuickMode chosen(conversation);
  conversation.deliver(chosen.first);
  EXPECT_EQ(conversation.count<NeedSPI>(), 3U);
  EXPECT_TRUE(chosen.receive(conversation));
}

}  // namespace
}  // namespace helper::isakmp
