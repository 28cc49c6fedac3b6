// Keys made anew, from the server's side, and from both at once.

#include <gtest/gtest.h>

#include "tests/helper/isakmp/Conversation.h"
#include "tests/helper/isakmp/Hex.h"
#include "tests/helper/isakmp/ServersExchanges.h"

namespace helper::isakmp {
namespace {

using enum CipherAlgorithm;
using enum HashAlgorithm;
using enum Group;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(ServersRekey, TakesPartWhenTheServerReplacesAPair) {
  for (const std::optional<Group> group : {std::optional<Group>(), std::optional(modp1024), std::optional(ecp384)}) {
    Conversation conversation;
    up(conversation);
    conversation.plan.esp[0].group = group;  // the server's wish
    ServersQuickMode servers(conversation);
    conversation.deliver(servers.first);
    // We are ready to receive before the server hears of it.
    ASSERT_EQ(conversation.count<NeedSPI>(), 2U) << conversation.drops();
    EXPECT_EQ(conversation.states().size(), 3U);
    EXPECT_EQ(conversation.last<InstallState>().direction, Direction::inbound);
    ASSERT_TRUE(servers.receive(conversation));
    const InstallState inbound = conversation.last<InstallState>();
    conversation.deliver(servers.quickMode.lastMessage());
    ASSERT_EQ(conversation.count<Replaced>(), 1U) << conversation.drops();
    const InstallState outbound = conversation.last<InstallState>();
    const InstallState there = servers.quickMode.state(Direction::outbound);
    EXPECT_EQ(inbound.spi, there.spi);
    EXPECT_EQ(inbound.cipherKey, there.cipherKey);
    EXPECT_EQ(inbound.integrityKey, there.integrityKey);
    EXPECT_EQ(outbound.spi, 0xcc000077U);
    EXPECT_EQ(outbound.cipherKey, servers.quickMode.state(Direction::inbound).cipherKey);
    EXPECT_EQ(outbound.algorithms.group, group);
    conversation.pass(seconds(30));
    EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{2, 2}));
  }
}

TEST(ServersRekey, RepeatsItsAnswerToTheServer) {
  Conversation conversation;
  up(conversation);
  ServersQuickMode servers(conversation);
  conversation.deliver(servers.first);
  const std::size_t sent = conversation.toServer.size();
  const Bytes answer = conversation.toServer.back();
  conversation.deliver(servers.first);
  EXPECT_EQ(conversation.toServer.size(), sent + 1);
  EXPECT_EQ(conversation.toServer.back(), answer);
  conversation.pass(seconds(3));  // and on its own, twice
  EXPECT_EQ(conversation.toServer.size(), sent + 3);
  EXPECT_EQ(conversation.toServer.back(), answer);
  ASSERT_TRUE(servers.receive(conversation));
  const Bytes last = servers.quickMode.lastMessage();
  Bytes forged = last;
  forged.back() ^= 1;
  conversation.deliver(forged);
  EXPECT_EQ(conversation.count<Replaced>(), 0U);
  conversation.deliver(last);
  conversation.deliver(last);
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
  EXPECT_EQ(conversation.states().size(), 4U);
}

TEST(ServersRekey, ForgetsAServersExchangeThatComesToNothing) {
  Conversation conversation;
  up(conversation);
  ServersQuickMode servers(conversation);
  conversation.deliver(servers.first);
  EXPECT_EQ(conversation.states().size(), 3U);
  conversation.pass(seconds(23));
  EXPECT_EQ(conversation.states().size(), 2U);
  EXPECT_TRUE(conversation.isUp());
  // Its message id is not new any more.
  conversation.deliver(servers.first);
  EXPECT_TRUE(conversation.dropped("a message id for the second time"));
  EXPECT_EQ(conversation.states().size(), 2U);
}

struct OfferRow {
  const char *name;
  void (*change)(Plan &);
  std::uint16_t answer;
};

class ServersOffer : public testing::TestWithParam<OfferRow> {};

TEST_P(ServersOffer, IsRefused) {
  Plan plan = usualPlan();
  plan.esp = {{aes256, sha1, ecp256}};
  TestServerOptions options = usualServer();
  options.esp = plan.esp[0];
  Conversation conversation(plan, options);
  up(conversation);
  GetParam().change(conversation.plan);
  ServersQuickMode servers(conversation);
  conversation.deliver(servers.first);
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
  ASSERT_EQ(conversation.server.notifications().size(), 1U) << conversation.drops();
  EXPECT_EQ(conversation.server.notifications()[0].type, GetParam().answer);
  conversation.deliver(servers.first);
  EXPECT_EQ(conversation.server.notifications().size(), 1U);
  EXPECT_TRUE(conversation.isUp());
}

INSTANTIATE_TEST_SUITE_P(Each, ServersOffer,
                         testing::Values(OfferRow{"algorithms",
                                                  [](Plan &p) {
                                                    p.esp = {{aes128, md5, ecp256}};
                                                  },
                                                  14},
                                         OfferRow{"no_secrecy",
                                                  [](Plan &p) {
                                                    p.esp = {{aes256, sha1, {}}};
                                                  },
                                                  14},
                                         OfferRow{"another_group",
                                                  [](Plan &p) {
                                                    p.esp = {{aes256, sha1, ecp384}};
                                                  },
                                                  14},
                                         OfferRow{"our_port", [](Plan &p) { p.flowLocalPort = 1702; }, 18},
                                         OfferRow{"any_port", [](Plan &p) { p.flowLocalPort = 0; }, 18},
                                         OfferRow{"its_port", [](Plan &p) { p.flowRemotePort = 53; }, 18},
                                         OfferRow{"our_address",
                                                  [](Plan &p) {
                                                    p.local = {10, 9, 0, 3};
                                                  },
                                                  18},
                                         OfferRow{"its_address",
                                                  [](Plan &p) {
                                                    p.remote = {10, 9, 0, 3};
                                                  },
                                                  18}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST(ServersRekey, DoesNotTakePartBeforeItIsUp) {
  Conversation conversation;
  conversation.kernelAnswers = false;
  conversation.start();
  ServersQuickMode servers(conversation);
  conversation.deliver(servers.first);
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
  EXPECT_TRUE(conversation.dropped("an exchange of the server's before there is anything"));
}

// Both at once: both pairs are kept, whichever the server prefers.
TEST(ServersRekey, TakesPartWhileItReplacesAPairItself) {
  Plan plan = usualPlan();
  plan.deadPeerDelay = seconds(0);
  plan.espLifetime = seconds(1000);
  plan.ikeLifetime = seconds(86400);
  Conversation conversation(plan);
  up(conversation);
  ServersQuickMode servers(conversation);
  conversation.passes = [&](bool toServer, std::size_t) { return toServer; };
  while (conversation.count<NeedSPI>() < 2 && conversation.isUp()) conversation.pass(milliseconds(100));
  const Bytes answer = conversation.fromServer.back();
  conversation.deliver(servers.first);
  ASSERT_TRUE(servers.receive(conversation)) << conversation.drops();
  conversation.deliver(answer);
  EXPECT_EQ(conversation.count<Replaced>(), 0U);  // the server is given time
  conversation.deliver(servers.quickMode.lastMessage());
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
  conversation.passes = [](bool, std::size_t) { return true; };
  conversation.pass(seconds(30));
  EXPECT_EQ(conversation.count<Replaced>(), 2U);
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{3, 2, 3, 2}));
  // The server takes one of them back.
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xcc, 0, 0, 0x77}}}));
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{2, 2}));
  EXPECT_TRUE(conversation.isUp());
}

Plan planFromPort500() {
  Plan plan = usualPlan();
  plan.localPort = 500;
  return plan;
}
TestServerOptions serverSeeingPort500() {
  TestServerOptions options = usualServer();
  options.clientPort = 500;
  return options;
}

TEST(ServersRekey, TakesPartWhenTheServerReplacesPhaseOne) {
  for (const auto &ike : {IKEProposal{aes256, sha1, ecp256}, IKEProposal{tripleDES, md5, modp1024},
                          IKEProposal{aes128, sha512, ecp384}}) {
    Plan plan = planFromPort500();
    plan.ike = {{aes256, sha1, ecp256}, {tripleDES, md5, modp1024}, {aes128, sha512, ecp384}};
    Conversation conversation(plan, serverSeeingPort500());
    up(conversation);
    conversation.plan.ike = {ike};
    ServersMainMode servers(conversation);
    ASSERT_TRUE(servers.run(conversation)) << conversation.drops();
    EXPECT_EQ(conversation.count<Encapsulate>(), 0U);
    conversation.server.adopt(servers.mainMode.association(Instant(0)));
    // It serves: a question under it is answered, and the next pair comes by it.
    const std::size_t notified = conversation.server.notifications().size();
    conversation.deliver(conversation.server.tell(Notification{
        kProtocolISAKMP, notify::kAreYouThere, conversation.server.association()->cookieBytes(), {0, 0, 0, 1}}));
    ASSERT_EQ(conversation.server.notifications().size(), notified + 1);
    EXPECT_EQ(conversation.server.notifications().back().type, notify::kHereIAm);
    ServersQuickMode quick(conversation);
    conversation.deliver(quick.first);
    EXPECT_TRUE(quick.receive(conversation));
  }
}

// A server that makes IKE's keys anew again and again, and ends none of them.
TEST(ServersRekey, KeepsAFewAssociationsOnly) {
  Conversation conversation(planFromPort500(), serverSeeingPort500());
  up(conversation);
  const auto first = conversation.server.association();
  const auto question = [&](const std::shared_ptr<Association> &association) {
    return association->tell(conversation.server.random(),
                             Notification{kProtocolISAKMP, notify::kAreYouThere, association->cookieBytes(), {1}});
  };
  for (int i = 0; i < 6; ++i) {
    ServersMainMode servers(conversation);
    ASSERT_TRUE(servers.run(conversation)) << conversation.drops();
    conversation.server.adopt(servers.mainMode.association(Instant(0)));
    const std::size_t sent = conversation.toServer.size();
    conversation.deliver(question(first));
    EXPECT_EQ(conversation.toServer.size(), sent + (i < 3 ? 1 : 0)) << i;
    conversation.pass(seconds(1));
  }
  const std::size_t sent = conversation.toServer.size();
  conversation.deliver(question(conversation.server.association()));
  EXPECT_EQ(conversation.toServer.size(), sent + 1);
  EXPECT_TRUE(conversation.isUp());
  // The pair is ended, and each association that is left.
  conversation.stop();
  EXPECT_EQ(conversation.server.deletions().size(), 5U);
}

TEST(ServersRekey, RepeatsItsAnswersInTheServersMainMode) {
  Conversation conversation(planFromPort500(), serverSeeingPort500());
  up(conversation);
  ServersMainMode servers(conversation);
  Bytes next = servers.first;
  for (int i = 0; i < 3; ++i) {
    conversation.deliver(next);
    const Bytes answer = conversation.toServer.back();
    const std::size_t sent = conversation.toServer.size();
    conversation.deliver(next);
    EXPECT_EQ(conversation.toServer.size(), sent + 1) << i;
    EXPECT_EQ(conversation.toServer.back(), answer) << i;
    const Reaction reaction = servers.receive(answer);
    if (reaction.reply) next = *reaction.reply;
    EXPECT_EQ(reaction.done, i == 2);
  }
}

TEST(ServersRekey, DoesNotLetAnybodyElseReplacePhaseOne) {
  Conversation conversation(planFromPort500(), serverSeeingPort500());
  up(conversation);
  EXPECT_FALSE(ServersMainMode(conversation, "another").run(conversation));
  // One at a time, and it may take its time.
  EXPECT_FALSE(ServersMainMode(conversation).run(conversation));
  EXPECT_TRUE(conversation.dropped("a second exchange of the server's"));
  conversation.pass(seconds(30));
  // The secret, but another name than the server has had.
  ServersMainMode renamed(conversation);
  renamed.plan.identity = Identification::of({10, 9, 0, 9});
  EXPECT_FALSE(renamed.run(conversation));
  EXPECT_TRUE(conversation.dropped("it calls itself \"10.9.0.9\""));
  // Nothing in common.
  conversation.plan.ike = {{aes192, sha384, ecp384}};
  EXPECT_FALSE(ServersMainMode(conversation).run(conversation));
  EXPECT_TRUE(conversation.dropped("no proposal that we have, too"));
  EXPECT_TRUE(conversation.isUp());
  conversation.pass(seconds(40));
  EXPECT_TRUE(conversation.isUp());
}

// The server as somebody sees it who is before its NAT.
void putBehindNAT(ServersMainMode &servers) { servers.plan.local = {172, 16, 0, 5}; }

TEST(ServersRekey, FindsANATOnTheWay) {
  Conversation conversation(planFromPort500(), serverSeeingPort500());
  up(conversation);
  ServersMainMode servers(conversation);
  servers.plan.identity = Identification::of({10, 9, 0, 1});
  putBehindNAT(servers);
  conversation.deliver(servers.first);
  conversation.deliver(*servers.receive(conversation.toServer.back()).reply);
  EXPECT_EQ(conversation.all<Send>().back().port, ServerPort::ike);
  Bytes proof(4);
  append(proof, *servers.receive(conversation.toServer.back()).reply);
  conversation.deliver(Send{ServerPort::natTraversal, proof});
  EXPECT_EQ(conversation.count<Encapsulate>(), 1U) << conversation.drops();
  EXPECT_EQ(conversation.all<Send>().back().port, ServerPort::natTraversal);
  const Bytes &answer = conversation.toServer.back();
  EXPECT_TRUE(servers.receive(Bytes(answer.begin() + 4, answer.end())).done);
}

// Whoever reads the answers gets as far as the fifth message.
TEST(ServersRekey, BelievesInANATOnlyWhoKnowsTheSecret) {
  Conversation conversation(planFromPort500(), serverSeeingPort500());
  up(conversation);
  ServersMainMode stranger(conversation, "another");
  putBehindNAT(stranger);
  EXPECT_FALSE(stranger.run(conversation));
  conversation.stop();
  EXPECT_EQ(conversation.count<Encapsulate>(), 0U);
  for (const Send &send : conversation.all<Send>()) EXPECT_EQ(send.port, ServerPort::ike);
  EXPECT_EQ(conversation.server.deletions().size(), 2U);
}

TEST(ServersRekey, IsNotKeptBusyWithBeginnings) {
  Conversation conversation(planFromPort500(), serverSeeingPort500());
  up(conversation);
  const std::size_t sent = conversation.toServer.size();
  for (int i = 0; i < 200; ++i) conversation.deliver(ServersMainMode(conversation).first);
  EXPECT_LE(conversation.toServer.size(), sent + 40);
  EXPECT_TRUE(conversation.dropped("too much at once"));
  conversation.pass(seconds(5));
  ServersMainMode servers(conversation);
  EXPECT_TRUE(servers.run(conversation)) << conversation.drops();
}

TEST(ServersRekey, IsHeardAmongForgeries) {
  Conversation conversation;
  up(conversation);
  const auto association = conversation.server.association();
  const auto ask = [&] {
    return conversation.server.tell(
        Notification{kProtocolISAKMP, notify::kAreYouThere, association->cookieBytes(), {0, 0, 0, 1}});
  };
  for (int i = 0; i < 100; ++i) {
    conversation.deliver(ServersMainMode(conversation, "another").first);
    Bytes forged = ask();
    forged.back() ^= 1;
    conversation.deliver(forged);
    forged = ServersQuickMode(conversation).first;
    forged.back() ^= 1;
    conversation.deliver(forged);
  }
  EXPECT_TRUE(conversation.dropped("too much at once"));  // of what nobody has signed
  const std::size_t notified = conversation.server.notifications().size();
  conversation.deliver(ask());
  EXPECT_EQ(conversation.server.notifications().size(), notified + 1);
  ServersQuickMode servers(conversation);
  conversation.deliver(servers.first);
  EXPECT_TRUE(servers.receive(conversation));
  // There is a limit to what is signed, too.
  for (int i = 0; i < 100; ++i) conversation.deliver(ask());
  EXPECT_LE(conversation.server.notifications().size(), notified + 40);
}

}  // namespace
}  // namespace helper::isakmp
