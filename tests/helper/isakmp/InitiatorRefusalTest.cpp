// What a server, or whoever plays it, may do wrong while an association comes up.

#include <gtest/gtest.h>

#include "tests/helper/isakmp/Conversation.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using enum CipherAlgorithm;
using enum HashAlgorithm;
using enum Group;
using enum PayloadType;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kLong{60};

// The first answers but for those in NOTPASSED, which counts messages of the server's.
void swallow(Conversation &conversation, std::size_t notPassed) {
  conversation.passes = [notPassed](bool toServer, std::size_t number) { return toServer || number < notPassed; };
}

// In clear, as a server that has no keys, or anybody, says it.
Bytes clearNotification(const Conversation &conversation, std::uint16_t type, bool withResponder = true) {
  Cookies cookies = conversation.server.cookies();
  if (!withResponder) cookies.responder = {};
  PayloadWriter writer;
  writer.add(notification, encode(Notification{kProtocolISAKMP, type, {}, {}}));
  return plainMessage({cookies, none, ExchangeType::informational, 0, 0x1234}, writer);
}

struct SilentRow {
  const char *name;
  std::size_t answers;  // that arrive
  Stage stage;
};

class SilenceAfter : public testing::TestWithParam<SilentRow> {};

TEST_P(SilenceAfter, EndsTheAttempt) {
  Conversation conversation;
  swallow(conversation, GetParam().answers);
  conversation.start();
  conversation.pass(milliseconds(22999));
  EXPECT_EQ(conversation.count<Refused>(), 0U);
  conversation.pass(milliseconds(1));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().stage, GetParam().stage);
  // Once our proof was heard and the same answer came again, another secret is more likely than a dead server.
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::silence);
  EXPECT_TRUE(std::holds_alternative<Refused>(conversation.told.back()));
  EXPECT_FALSE(conversation.initiator.nextDue());
  // Nothing revives it.
  const std::size_t told = conversation.told.size();
  const auto messages = conversation.fromServer;
  for (const Bytes &message : messages) conversation.deliver(Send{ServerPort::ike, message});
  conversation.pass(kLong);
  conversation.stop();
  EXPECT_EQ(conversation.told.size(), told);
}

INSTANTIATE_TEST_SUITE_P(Each, SilenceAfter,
                         testing::Values(SilentRow{"nothing", 0, Stage::firstAnswer},
                                         SilentRow{"the_choice", 1, Stage::keyExchange},
                                         SilentRow{"its_half", 2, Stage::authentication},
                                         SilentRow{"its_proof", 3, Stage::association}),
                         [](const auto &row) { return std::string(row.param.name); });

// Notifications without a key: a hint, after which a better answer has two seconds.
struct HintRow {
  std::size_t answers;
  std::uint16_t type;
  Reason reason;
};

class HintAfter : public testing::TestWithParam<HintRow> {};

TEST_P(HintAfter, ShortensTheWaiting) {
  const HintRow &row = GetParam();
  for (const bool withResponder : {false, true}) {
    Conversation conversation;
    swallow(conversation, row.answers);
    conversation.start();
    conversation.deliver(clearNotification(conversation, row.type, withResponder && row.answers > 0));
    conversation.pass(milliseconds(1999));
    EXPECT_EQ(conversation.count<Refused>(), 0U);
    conversation.pass(milliseconds(1));
    ASSERT_EQ(conversation.count<Refused>(), 1U);
    EXPECT_EQ(conversation.last<Refused>().reason, row.reason);
    EXPECT_EQ(conversation.last<Refused>().notification, row.type);
    EXPECT_EQ(conversation.last<Refused>().detail, "it says " + notificationName(row.type));
  }
}

TEST_P(HintAfter, IsForgottenWhenTheServerGoesOn) {
  Conversation conversation;
  swallow(conversation, GetParam().answers);
  conversation.start();
  conversation.deliver(clearNotification(conversation, GetParam().type, GetParam().answers > 0));
  // One answer, and then nothing for longer than a refusal is waited for.
  const std::size_t next = conversation.fromServer.size();
  conversation.passes = [next](bool toServer, std::size_t number) { return toServer || number <= next; };
  conversation.pass(seconds(6));
  EXPECT_EQ(conversation.count<Refused>(), 0U);
  conversation.passes = [](bool, std::size_t) { return true; };
  conversation.pass(kLong);
  EXPECT_TRUE(conversation.isUp()) << conversation.drops();
}

INSTANTIATE_TEST_SUITE_P(Each, HintAfter,
                         testing::Values(HintRow{0, 14, Reason::noProposal}, HintRow{0, 24, Reason::wrongSecret},
                                         HintRow{0, 18, Reason::identity}, HintRow{0, 7, Reason::otherwise},
                                         HintRow{1, 17, Reason::keyExchange}, HintRow{1, 16, Reason::otherwise},
                                         HintRow{2, 16, Reason::wrongSecret}, HintRow{2, 23, Reason::wrongSecret},
                                         HintRow{2, 24, Reason::wrongSecret}, HintRow{2, 18, Reason::identity},
                                         HintRow{2, 4, Reason::forgotten}, HintRow{2, 9, Reason::forgotten}));

TEST(InitiatorRefusal, HintsAreForTheAttemptOnly) {
  Conversation conversation;
  swallow(conversation, 1);
  conversation.start();
  Cookies others = conversation.server.cookies();
  others.responder[0] ^= 1;
  PayloadWriter writer;
  writer.add(notification, encode(Notification{kProtocolISAKMP, 14, {}, {}}));
  conversation.deliver(plainMessage({others, none, ExchangeType::informational, 0, 1}, writer));
  EXPECT_TRUE(conversation.dropped("another responder cookie"));
  others = conversation.server.cookies();
  others.initiator[0] ^= 1;
  conversation.deliver(plainMessage({others, none, ExchangeType::informational, 0, 1}, writer));
  EXPECT_TRUE(conversation.dropped("cookies of no exchange"));
  // A delete, and what is no error.
  PayloadWriter deletes;
  deletes.add(deletion, encode(Deletion{kProtocolISAKMP, {sequence(0, 16)}}));
  conversation.deliver(plainMessage({conversation.server.cookies(), none, ExchangeType::informational, 0, 1}, deletes));
  conversation.deliver(clearNotification(conversation, notify::kInitialContact));
  conversation.pass(seconds(3));
  EXPECT_EQ(conversation.count<Refused>(), 0U);
}

TEST(InitiatorRefusal, NoCommonProposal) {
  TestServerOptions options = usualServer();
  options.ike = {aes128, md5, modp4096};
  Conversation conversation(usualPlan(), options);
  conversation.start();
  conversation.pass(seconds(2));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().stage, Stage::firstAnswer);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::noProposal);
}

// A server with another secret cannot read our proof. Some say nothing, some the message before once more, some
// something encrypted that we cannot read.
TEST(InitiatorRefusal, WrongSecret) {
  enum Manner { silent, again, unreadable };
  for (const Manner manner : {silent, again, unreadable}) {
    Conversation conversation(usualPlan(), usualServer(), "another");
    conversation.start();
    const Bytes half = conversation.fromServer.back();
    if (manner == again) conversation.deliver(Send{ServerPort::ike, half});
    if (manner == unreadable) {
      Header header{conversation.server.cookies(), none, ExchangeType::informational, 0, 77};
      PayloadWriter writer;
      writer.add(hash, sequence(1, 20));
      Bytes iv = sequence(0, 16);
      conversation.deliver(sealedMessage(header, writer, aes256, conversation.server.keys().encryption, iv));
      conversation.pass(seconds(2));
    }
    conversation.pass(kLong);
    ASSERT_EQ(conversation.count<Refused>(), 1U) << manner;
    EXPECT_EQ(conversation.last<Refused>().stage, Stage::authentication);
    EXPECT_EQ(conversation.last<Refused>().reason, manner == silent ? Reason::silence : Reason::wrongSecret) << manner;
    EXPECT_EQ(conversation.count<NeedSPI>(), 0U);
  }
}

TEST(InitiatorRefusal, WrongSecretInAggressiveMode) {
  Plan plan = usualPlan();
  plan.aggressive = true;
  Conversation conversation(plan, usualServer(), "another");
  conversation.start();
  conversation.pass(seconds(2));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::wrongSecret);
  for (const Bytes &message : conversation.toServer) EXPECT_EQ(message, conversation.toServer[0]);
}

TEST(InitiatorRefusal, SaysWhoTheServerShouldHaveBeen) {
  Plan plan = usualPlan();
  plan.peerIdentity = Identification::fromText("vpn.example.org");
  Conversation conversation(plan);
  conversation.start();
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::serverIdentity);
  EXPECT_EQ(conversation.last<Refused>().detail, "it calls itself \"10.9.0.1\"");
}

TEST(InitiatorRefusal, TakesAnyServerThatKnowsTheSecret) {
  TestServerOptions options = usualServer();
  options.identity = *Identification::fromText("inside.example.org");
  options.identity.protocol = 17;
  options.identity.port = 500;
  Conversation conversation(usualPlan(), options);
  conversation.start();
  EXPECT_TRUE(conversation.isUp());
}

TEST(InitiatorRefusal, ByTheServersQuickMode) {
  struct Row {
    std::uint16_t type;
    Bytes spi;
    Reason reason;
  };
  for (const Row &row : {Row{14, {0xc1, 0, 0, 1}, Reason::noProposal}, Row{14, {}, Reason::noProposal},
                         Row{18, {0xcc, 0, 0, 9}, Reason::flow}, Row{24, {}, Reason::wrongSecret},
                         Row{29, sequence(0, 16), Reason::otherwise}}) {
    Conversation conversation;
    swallow(conversation, 3);
    conversation.start();
    conversation.deliver(conversation.server.tell(Notification{kProtocolESP, row.type, row.spi, {}}));
    ASSERT_EQ(conversation.count<Refused>(), 1U) << row.type;
    EXPECT_EQ(conversation.last<Refused>().stage, Stage::association);
    EXPECT_EQ(conversation.last<Refused>().reason, row.reason) << row.type;
    EXPECT_EQ(conversation.last<Refused>().notification, row.type);
    EXPECT_TRUE(conversation.states().empty());
    // We take our leave of what stands.
    ASSERT_EQ(conversation.server.deletions().size(), 1U);
    EXPECT_EQ(conversation.server.deletions()[0].protocol, kProtocolISAKMP);
  }
}

// After phase 1 only what is said under its key counts.
TEST(InitiatorRefusal, NothingInClearCountsLater) {
  Conversation conversation;
  swallow(conversation, 3);
  conversation.start();
  conversation.deliver(clearNotification(conversation, 14));
  EXPECT_TRUE(conversation.dropped("in clear where nothing may be"));
  conversation.pass(seconds(3));
  EXPECT_EQ(conversation.count<Refused>(), 0U);
}

TEST(InitiatorRefusal, TheServerTakesBackWhatItAgreedTo) {
  Conversation conversation;
  conversation.kernelAnswers = false;
  conversation.start();
  const PairID pair = conversation.last<NeedSPI>().pair;
  conversation.apply(conversation.initiator.allocated(conversation.now, pair, 0xc1000001));
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xc1, 0, 0, 1}}}));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().detail, "the server deleted what it had agreed to");
  EXPECT_TRUE(conversation.states().empty());
}

TEST(InitiatorRefusal, TheServerEndsPhaseOneBeforeThereIsAPair) {
  Conversation conversation;
  swallow(conversation, 3);
  conversation.start();
  conversation.deliver(conversation.server.tell(conversation.server.association()->farewell()));
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().stage, Stage::association);
}

TEST(InitiatorRefusal, TheKernelTakesNothing) {
  for (const Direction direction : {Direction::inbound, Direction::outbound}) {
    Conversation conversation;
    conversation.kernelAnswers = false;
    conversation.start();
    const PairID pair = conversation.last<NeedSPI>().pair;
    conversation.apply(conversation.initiator.allocated(conversation.now, pair, 0xc1000001));
    if (direction == Direction::outbound)
      conversation.apply(conversation.initiator.installed(conversation.now, pair, Direction::inbound));
    conversation.apply(conversation.initiator.notInstalled(conversation.now, pair));
    ASSERT_EQ(conversation.count<Refused>(), 1U);
    EXPECT_EQ(conversation.last<Refused>().reason, Reason::notInstalled);
    EXPECT_TRUE(conversation.states().empty());
    // The server hears of both ends, of the pair's only if it has been used.
    EXPECT_EQ(conversation.server.deletions().size(), direction == Direction::outbound ? 2U : 1U);
  }
}

TEST(InitiatorRefusal, TheKernelSaysNothing) {
  for (const bool hasSPI : {false, true}) {
    Conversation conversation;
    conversation.kernelAnswers = false;
    conversation.start();
    if (hasSPI)
      conversation.apply(
          conversation.initiator.allocated(conversation.now, conversation.last<NeedSPI>().pair, 0xc1000001));
    conversation.pass(milliseconds(59999));
    EXPECT_EQ(conversation.count<Refused>(), 0U);
    conversation.pass(milliseconds(1));
    ASSERT_EQ(conversation.count<Refused>(), 1U);
    EXPECT_EQ(conversation.last<Refused>().reason, Reason::notInstalled);
    EXPECT_TRUE(conversation.states().empty());
  }
}

TEST(InitiatorRefusal, TheServerDiesWhileTheKernelSaysNothing) {
  TestServerOptions options = usualServer();
  options.answersQuestions = false;
  Conversation conversation(usualPlan(), options);
  conversation.kernelAnswers = false;
  conversation.start();
  conversation.pass(seconds(50));
  EXPECT_EQ(conversation.count<Lost>(), 0U);
  ASSERT_EQ(conversation.count<Refused>(), 1U);
  EXPECT_EQ(conversation.last<Refused>().stage, Stage::association);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::silence);
}

TEST(InitiatorRefusal, FromTheOtherPort) {
  Conversation conversation;
  swallow(conversation, 0);
  conversation.start();
  Bytes marked(4, 0);
  append(marked, conversation.fromServer[0]);
  conversation.deliver(Send{ServerPort::natTraversal, marked});
  EXPECT_TRUE(conversation.dropped("from the other port"));
  conversation.deliver(Send{ServerPort::natTraversal, conversation.fromServer[0]});
  EXPECT_TRUE(conversation.dropped("a packet of ESP"));
  conversation.deliver(Send{ServerPort::ike, marked});
  EXPECT_EQ(conversation.toServer.size(), 1U);
}

TEST(InitiatorRefusal, ACertificateWasAskedFor) {
  TestServerOptions options = usualServer();
  options.edit = [](Message message, PayloadList &list) {
    if (message == Message::half) list.emplace_back(certificateRequest, Bytes{4});
  };
  Conversation conversation(usualPlan(), options, "another");
  conversation.start();
  conversation.pass(kLong);
  EXPECT_TRUE(conversation.last<Refused>().certificateRequested);
}

}  // namespace
}  // namespace helper::isakmp
