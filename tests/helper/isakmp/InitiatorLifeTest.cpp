// A silent server, and the ends of an association that stands.

#include <gtest/gtest.h>

#include "tests/helper/isakmp/Conversation.h"
#include "tests/helper/isakmp/Hex.h"
#include "tests/helper/isakmp/ServersExchanges.h"

namespace helper::isakmp {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A silent server.

TestServerOptions mute() {
  TestServerOptions options = usualServer();
  options.answersQuestions = false;
  return options;
}

TEST(InitiatorLife, AsksASilentServer) {
  Conversation conversation(usualPlan(), mute());
  up(conversation);
  conversation.pass(seconds(30));
  ASSERT_EQ(conversation.server.notifications().size(), 1U);
  const Notification question = conversation.server.notifications()[0];
  EXPECT_EQ(question.type, notify::kAreYouThere);
  EXPECT_EQ(question.protocol, kProtocolISAKMP);
  EXPECT_EQ(question.spi, conversation.server.association()->cookieBytes());
  EXPECT_EQ(question.data.size(), 4U);
  conversation.deliver(
      conversation.server.tell(Notification{kProtocolISAKMP, notify::kHereIAm, question.spi, question.data}));
  conversation.pass(milliseconds(29999));
  EXPECT_EQ(conversation.server.notifications().size(), 1U);
  conversation.pass(milliseconds(1));
  ASSERT_EQ(conversation.server.notifications().size(), 2U);
  EXPECT_EQ(read32(conversation.server.notifications()[1].data), read32(question.data) + 1);
  EXPECT_TRUE(conversation.isUp());
}

TEST(InitiatorLife, EndsWhenTheServerDoesNotAnswer) {
  Conversation conversation(usualPlan(), mute());
  up(conversation);
  conversation.pass(seconds(49));
  EXPECT_TRUE(conversation.isUp());
  EXPECT_EQ(conversation.server.notifications().size(), 4U);
  conversation.pass(seconds(1));
  ASSERT_EQ(conversation.count<Lost>(), 1U);
  EXPECT_EQ(conversation.last<Lost>().reason, Reason::silence);
  EXPECT_FALSE(conversation.last<Lost>().byServer);
  EXPECT_TRUE(conversation.states().empty());
}

TEST(InitiatorLife, AsksOnlyWhoUnderstands) {
  TestServerOptions options = usualServer();
  options.vendorIDs = TestServerOptions::extensions(NATTraversal::rfc3947, false);
  Conversation conversation(usualPlan(), options);
  up(conversation);
  conversation.pass(seconds(300));
  EXPECT_TRUE(conversation.server.notifications().empty());
  EXPECT_TRUE(conversation.isUp());
  Plan plan = usualPlan();
  plan.deadPeerDelay = seconds(0);
  Conversation never(plan);
  up(never);
  never.pass(seconds(300));
  EXPECT_TRUE(never.server.notifications().empty());
}

TEST(InitiatorLife, AnswersTheServersQuestions) {
  Conversation conversation;
  up(conversation);
  const Bytes question = conversation.server.tell(Notification{
      kProtocolISAKMP, notify::kAreYouThere, conversation.server.association()->cookieBytes(), {1, 2, 3, 4}});
  conversation.deliver(question);
  ASSERT_EQ(conversation.server.notifications().size(), 1U);
  EXPECT_EQ(conversation.server.notifications()[0],
            (Notification{
                kProtocolISAKMP, notify::kHereIAm, conversation.server.association()->cookieBytes(), {1, 2, 3, 4}}));
  // Whoever recorded it gets nothing.
  conversation.deliver(question);
  EXPECT_EQ(conversation.server.notifications().size(), 1U);
  EXPECT_TRUE(conversation.dropped("a message id for the second time"));
}

TEST(InitiatorLife, BelievesNothingThatIsForged) {
  Conversation conversation;
  up(conversation);
  const Bytes question = conversation.server.tell(Notification{
      kProtocolISAKMP, notify::kAreYouThere, conversation.server.association()->cookieBytes(), {1, 2, 3, 4}});
  const Bytes deletion = conversation.server.tell(Deletion{kProtocolESP, {{0xc1, 0, 0, 1}}});
  const std::size_t sent = conversation.toServer.size();
  for (const Bytes &message : {question, deletion})
    for (std::size_t i = 0; i < message.size(); ++i) {
      Bytes forged = message;
      forged[i] ^= 1;
      conversation.deliver(forged);
      conversation.now += milliseconds(50);
    }
  // In clear, with everything right but the key.
  PayloadWriter writer;
  writer.add(PayloadType::deletion, encode(conversation.server.association()->farewell()));
  conversation.deliver(
      plainMessage({conversation.server.cookies(), PayloadType::none, ExchangeType::informational, 0, 9}, writer));
  EXPECT_EQ(conversation.toServer.size(), sent);
  EXPECT_EQ(conversation.states().size(), 2U);
  conversation.deliver(question);
  EXPECT_EQ(conversation.toServer.size(), sent + 1);
}

// Ends.

TEST(InitiatorLife, TakesItsLeave) {
  Conversation conversation;
  up(conversation);
  conversation.stop();
  ASSERT_EQ(conversation.server.deletions().size(), 2U);
  EXPECT_EQ(conversation.server.deletions()[0], (Deletion{kProtocolESP, {{0xc1, 0, 0, 1}}}));
  EXPECT_EQ(conversation.server.deletions()[1], conversation.server.association()->farewell());
  EXPECT_TRUE(conversation.states().empty());
  EXPECT_TRUE(std::holds_alternative<Stopped>(conversation.told.back()));
  conversation.stop();
  EXPECT_EQ(conversation.count<Stopped>(), 1U);
}

TEST(InitiatorLife, StopsAtAnyTime) {
  for (std::size_t answers = 0; answers <= 4; ++answers) {
    Conversation conversation;
    conversation.passes = [answers](bool toServer, std::size_t number) { return toServer || number < answers; };
    conversation.start();
    conversation.stop();
    EXPECT_EQ(conversation.count<Stopped>(), 1U);
    EXPECT_TRUE(conversation.states().empty());
    EXPECT_EQ(conversation.server.deletions().size(), answers < 3 ? 0U : answers == 3 ? 1U : 2U);
    EXPECT_FALSE(conversation.initiator.nextDue());
  }
  Conversation never;
  never.stop();
  EXPECT_EQ(never.count<Stopped>(), 1U);
}

TEST(InitiatorLife, EndsWhenTheServerTakesItsLeave) {
  // Some name their own SPI, some the other's.
  for (const Bytes &spi : {Bytes{0xcc, 0, 0, 1}, Bytes{0xc1, 0, 0, 1}}) {
    Conversation conversation;
    up(conversation);
    conversation.passes = [](bool, std::size_t) { return false; };
    conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {spi}}));
    EXPECT_TRUE(conversation.states().empty());
    EXPECT_EQ(conversation.count<Lost>(), 0U);
    conversation.deliver(conversation.server.tell(conversation.server.association()->farewell()));
    ASSERT_EQ(conversation.count<Lost>(), 1U);
    EXPECT_TRUE(conversation.last<Lost>().byServer);
    EXPECT_TRUE(conversation.states().empty());
  }
}

TEST(InitiatorLife, MakesAnotherPairWhenTheServerEndsOne) {
  Conversation conversation;
  up(conversation);
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xcc, 0, 0, 1}}}));
  EXPECT_TRUE(conversation.isUp());
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{2, 2}));
  // And says so when it gets none.
  conversation.passes = [](bool, std::size_t) { return false; };
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xcc, 0, 0, 2}}}));
  conversation.pass(seconds(23));
  ASSERT_EQ(conversation.count<Lost>(), 1U);
  EXPECT_TRUE(conversation.last<Lost>().byServer);
}

TEST(InitiatorLife, MakesEverythingAnewWhenTheServerEndsPhaseOne) {
  Conversation conversation;
  up(conversation);
  const Bytes farewell = conversation.server.tell(conversation.server.association()->farewell());
  const Cookies first = conversation.server.cookies();
  conversation.deliver(farewell);
  EXPECT_NE(conversation.server.cookies(), first);
  EXPECT_TRUE(conversation.isUp()) << conversation.drops();
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
  conversation.pass(seconds(30));
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{2, 2}));
  // The association of that message is no more.
  conversation.deliver(farewell);
  EXPECT_TRUE(conversation.dropped("cookies of no exchange"));
}

TEST(InitiatorLife, DoesNotMindTheEndOfSomethingElse) {
  Conversation conversation;
  up(conversation);
  conversation.deliver(
      conversation.server.tell(Deletion{kProtocolESP, {{0xcc, 0, 0, 9}, {0, 0, 0, 0}, {0xff, 0, 0, 1}}}));
  conversation.deliver(conversation.server.tell(Deletion{kProtocolISAKMP, {sequence(0, 16)}}));
  conversation.deliver(conversation.server.tell(Deletion{kProtocolISAKMP, {{0xcc, 0, 0, 1}}}));
  conversation.deliver(conversation.server.tell(Deletion{2, {{0xcc, 0, 0, 1}}}));
  conversation.deliver(conversation.server.tell(Notification{kProtocolESP, 14, {}, {}}));
  conversation.deliver(conversation.server.tell(Notification{kProtocolISAKMP, 24, {}, {}}));
  EXPECT_TRUE(conversation.isUp());
  EXPECT_EQ(conversation.states().size(), 2U);
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
}

// A delete, and after it in the same message what no longer has anything to speak of.
TEST(InitiatorLife, StopsReadingWhereTheAssociationEnds) {
  Conversation conversation;
  up(conversation);
  conversation.passes = [](bool, std::size_t) { return false; };
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xcc, 0, 0, 1}}}));
  const auto association = conversation.server.association();
  const std::uint32_t id = association->chooseMessageID(conversation.server.random());
  PayloadWriter rest;
  rest.add(PayloadType::deletion, encode(association->farewell()));
  rest.add(PayloadType::notification,
           encode(Notification{kProtocolISAKMP, notify::kAreYouThere, association->cookieBytes(), {0, 0, 0, 1}}));
  PayloadWriter payloads;
  payloads.add(PayloadType::hash, hash1(association->hash(), association->keys(), id, rest.bytes()).bytes());
  payloads.add(rest);
  Bytes iv = association->ivFor(id);
  conversation.deliver(sealedMessage(association->header(ExchangeType::informational, id), payloads,
                                     association->cipher(), association->keys().encryption, iv));
  ASSERT_EQ(conversation.count<Lost>(), 1U);
  EXPECT_TRUE(std::holds_alternative<Lost>(conversation.told.back()));
}

}  // namespace
}  // namespace helper::isakmp
