// Keys made anew, from our side.

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

TEST(InitiatorRekey, ReplacesAPairBeforeItEnds) {
  Plan plan = usualPlan();
  plan.espLifetime = seconds(1000);
  plan.ikeLifetime = seconds(86400);
  plan.deadPeerDelay = seconds(0);
  Conversation conversation(plan);
  up(conversation);
  EXPECT_EQ(conversation.states()[0].lifetime, seconds(1000));
  conversation.pass(seconds(849));
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
  conversation.pass(seconds(51));
  EXPECT_EQ(conversation.count<NeedSPI>(), 2U);
  ASSERT_EQ(conversation.count<Replaced>(), 1U);
  EXPECT_EQ(conversation.last<Replaced>().pair, 2U);
  // Both are received on, until nothing can be under way by the old one.
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{1, 1, 2, 2}));
  EXPECT_TRUE(conversation.server.deletions().empty());
  conversation.pass(seconds(30));
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{2, 2}));
  ASSERT_EQ(conversation.server.deletions().size(), 1U);
  EXPECT_EQ(conversation.server.deletions()[0], (Deletion{kProtocolESP, {{0xc1, 0, 0, 1}}}));
  EXPECT_TRUE(conversation.isUp());
  // And so on.
  conversation.pass(seconds(5000));
  EXPECT_EQ(conversation.count<Replaced>(), 6U);
  EXPECT_EQ(conversation.states().size(), 2U);
}

Plan planOfShortPairs() {
  Plan plan = usualPlan();
  plan.espLifetime = seconds(1000);
  plan.ikeLifetime = seconds(86400);
  plan.deadPeerDelay = seconds(0);
  return plan;
}

// The outbound state of a new pair, once it is in the kernel, is what packets go out by.
void passUntilItIsBeingReplaced(Conversation &conversation) {
  while (conversation.count<NeedSPI>() < 2 && conversation.isUp()) conversation.pass(milliseconds(50));
  ASSERT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{1, 1, 2}));
  ASSERT_EQ(conversation.states().back().direction, Direction::inbound);
}

TEST(InitiatorRekey, SendsUnderNewKeysOnceTheServerHasHadTimeToKnowThem) {
  Conversation conversation(planOfShortPairs());
  up(conversation);
  passUntilItIsBeingReplaced(conversation);
  conversation.pass(milliseconds(400));
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{1, 1, 2}));
  EXPECT_EQ(conversation.count<Replaced>(), 0U);
  conversation.pass(milliseconds(100));
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{1, 1, 2, 2}));
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
}

TEST(InitiatorRekey, SendsUnderNewKeysAtOnceWhenTheServerDeletesTheOld) {
  Conversation conversation(planOfShortPairs());
  up(conversation);
  passUntilItIsBeingReplaced(conversation);
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xc1, 0, 0, 1}}}));
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{2, 2}));
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
  EXPECT_EQ(conversation.count<NeedSPI>(), 2U);
}

TEST(InitiatorRekey, ReplacesAnewWhatTheServerDeletes) {
  Conversation conversation(planOfShortPairs());
  up(conversation);
  passUntilItIsBeingReplaced(conversation);
  conversation.pass(seconds(1));
  ASSERT_EQ(conversation.count<Replaced>(), 1U);
  // The old pair is still there, and nobody was going to replace it any more.
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xc1, 0, 0, 2}}}));
  EXPECT_EQ(conversation.count<NeedSPI>(), 3U);
  conversation.pass(seconds(1));
  EXPECT_EQ(conversation.count<Replaced>(), 2U);
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{1, 1, 3, 3}));
}

// Servers end what was agreed on under the old association together with it.
TEST(InitiatorRekey, ReplacesNoPairUnderAnAssociationThatIsBeingReplaced) {
  Plan plan = planOfShortPairs();
  plan.ikeLifetime = seconds(900);
  Conversation conversation(plan);
  up(conversation);
  const Cookies first = conversation.server.cookies();
  const std::size_t before = conversation.toServer.size();
  bool reaches = false;
  conversation.passes = [&](bool, std::size_t) { return reaches; };
  // Main mode is repeated from here on.
  while (conversation.toServer.size() == before && conversation.isUp()) conversation.pass(milliseconds(50));
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xc1, 0, 0, 1}}}));
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
  reaches = true;
  conversation.pass(seconds(5));
  EXPECT_NE(conversation.server.cookies(), first);
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
  EXPECT_EQ(pairsOf(conversation.states()), (std::vector<PairID>{2, 2}));
}

TEST(InitiatorRekey, ReplacesAPairUnderTheOldAssociationWhenNoNewOneComes) {
  Plan plan = planOfShortPairs();
  plan.ikeLifetime = seconds(900);
  Conversation conversation(plan);
  up(conversation);
  const Cookies first = conversation.server.cookies();
  const std::size_t before = conversation.toServer.size();
  bool mainModeReaches = false;
  conversation.passes = [&](bool toServer, std::size_t) {
    return mainModeReaches || !toServer || conversation.toServer.back()[18] != 2;  // the exchange's type
  };
  while (conversation.toServer.size() == before && conversation.isUp()) conversation.pass(milliseconds(50));
  conversation.pass(seconds(1));
  conversation.deliver(conversation.server.tell(Deletion{kProtocolESP, {{0xc1, 0, 0, 1}}}));
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
  while (conversation.count<NeedSPI>() == 1 && conversation.isUp()) conversation.pass(seconds(1));
  EXPECT_EQ(conversation.count<Replaced>(), 1U) << conversation.drops();
  EXPECT_EQ(conversation.server.cookies(), first);
}

TEST(InitiatorRekey, ReplacesPhaseOneBeforeItEnds) {
  Plan plan = usualPlan();
  plan.ikeLifetime = seconds(1000);
  plan.espLifetime = seconds(86400);
  Conversation conversation(plan);
  up(conversation);
  const Cookies first = conversation.server.cookies();
  conversation.pass(seconds(901));
  EXPECT_NE(conversation.server.cookies(), first);
  // Packets do not notice, and the server is not to forget anything.
  EXPECT_EQ(conversation.count<NeedSPI>(), 1U);
  EXPECT_EQ(conversation.server.proofPayloads(),
            (std::vector<PayloadType>{PayloadType::identification, PayloadType::hash}));
  conversation.pass(seconds(9000));
  EXPECT_TRUE(conversation.isUp());
  EXPECT_EQ(conversation.states().size(), 2U);
}

TEST(InitiatorRekey, ReplacesBothInUDP) {
  Plan plan = usualPlan();
  plan.ikeLifetime = seconds(500);
  plan.espLifetime = seconds(400);
  TestServerOptions options = usualServer();
  options.client = {192, 0, 2, 77};
  Conversation conversation(plan, options);
  up(conversation);
  conversation.pass(seconds(3000));
  EXPECT_TRUE(conversation.isUp()) << conversation.drops();
  EXPECT_GE(conversation.count<Replaced>(), 7U);
  EXPECT_EQ(conversation.count<Encapsulate>(), 1U);
  EXPECT_TRUE(conversation.states()[0].encapsulated);
  const auto sent = conversation.all<Send>();
  for (std::size_t i = 2; i < sent.size(); ++i) EXPECT_EQ(sent[i].port, ServerPort::natTraversal);
}

TEST(InitiatorRekey, HasShortLives) {
  Plan plan = usualPlan();
  plan.ikeLifetime = seconds(60);
  plan.espLifetime = seconds(60);
  Conversation conversation(plan);
  up(conversation);
  conversation.pass(seconds(300));
  EXPECT_TRUE(conversation.isUp()) << conversation.drops();
  EXPECT_GE(conversation.count<Replaced>(), 5U);
}

TEST(InitiatorRekey, IsAsShortAsTheServerSays) {
  struct Row {
    seconds server;
    seconds used;
  };
  for (const Row &row :
       {Row{seconds(600), seconds(600)}, Row{seconds(7200), seconds(3600)}, Row{seconds(1), seconds(120)}}) {
    TestServerOptions options = usualServer();
    options.espLifetime = row.server;
    options.ikeLifetime = row.server;
    Conversation conversation(usualPlan(), options);
    up(conversation);
    EXPECT_EQ(conversation.states()[0].lifetime, row.used);
    const Cookies first = conversation.server.cookies();
    conversation.pass(row.used * 84 / 100 - seconds(20));
    EXPECT_EQ(conversation.count<Replaced>(), 0U);
    EXPECT_EQ(conversation.server.cookies(), first);
    conversation.pass(row.used * 6 / 100 + seconds(20));
    EXPECT_EQ(conversation.count<Replaced>(), 1U) << row.server.count();
    EXPECT_NE(conversation.server.cookies(), first);
  }
}

TEST(InitiatorRekey, IsAsShortAsTheServerNotifies) {
  TestServerOptions options = usualServer();
  options.edit = [](Message message, PayloadList &list) {
    if (message != Message::quickAnswer) return;
    list.emplace_back(
        PayloadType::notification,
        encode(Notification{
            kProtocolESP, notify::kResponderLifetime, {1, 2, 3, 4}, fromHex("80010001 00020004 00000258")}));
  };
  Conversation conversation(usualPlan(), options);
  up(conversation);
  EXPECT_EQ(conversation.states()[0].lifetime, seconds(600));
}

TEST(InitiatorRekey, TriesAgainWhenAReplacementFails) {
  Plan plan = usualPlan();
  plan.espLifetime = seconds(1000);
  plan.deadPeerDelay = seconds(0);
  Conversation conversation(plan);
  up(conversation);
  conversation.passes = [](bool, std::size_t) { return false; };
  conversation.pass(seconds(930));
  EXPECT_EQ(conversation.count<Replaced>(), 0U);
  EXPECT_GE(conversation.count<NeedSPI>(), 2U);
  EXPECT_EQ(conversation.states().size(), 2U);
  conversation.passes = [](bool, std::size_t) { return true; };
  conversation.pass(seconds(40));
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
  EXPECT_TRUE(conversation.isUp());
}

TEST(InitiatorRekey, TriesAgainWhenAReplacementIsRefused) {
  Plan plan = usualPlan();
  plan.deadPeerDelay = seconds(0);
  plan.espLifetime = seconds(1000);
  Conversation conversation(plan);
  up(conversation);
  conversation.passes = [&](bool toServer, std::size_t) { return toServer; };
  while (conversation.count<NeedSPI>() < 2 && conversation.isUp()) conversation.pass(seconds(1));
  conversation.deliver(conversation.server.tell(Notification{kProtocolESP, 14, {}, {}}));
  EXPECT_TRUE(conversation.isUp());
  conversation.passes = [](bool, std::size_t) { return true; };
  conversation.pass(seconds(31));
  EXPECT_EQ(conversation.count<Replaced>(), 1U);
}

TEST(InitiatorRekey, EndsWhenNoReplacementComes) {
  Plan plan = usualPlan();
  plan.espLifetime = seconds(1000);
  plan.ikeLifetime = seconds(86400);
  plan.deadPeerDelay = seconds(0);
  Conversation conversation(plan);
  up(conversation);
  conversation.passes = [](bool, std::size_t) { return false; };
  conversation.pass(seconds(1030));
  ASSERT_EQ(conversation.count<Lost>(), 1U);
  EXPECT_FALSE(conversation.last<Lost>().byServer);
  EXPECT_EQ(conversation.last<Lost>().reason, Reason::silence);
  EXPECT_TRUE(conversation.states().empty());
}

TEST(InitiatorRekey, EndsWhenPhaseOneCannotBeReplaced) {
  Plan plan = usualPlan();
  plan.espLifetime = seconds(86400);
  plan.ikeLifetime = seconds(1000);
  plan.deadPeerDelay = seconds(0);
  Conversation conversation(plan);
  up(conversation);
  conversation.passes = [](bool, std::size_t) { return false; };
  conversation.pass(seconds(999));
  EXPECT_TRUE(conversation.isUp());
  conversation.pass(seconds(60));
  EXPECT_EQ(conversation.count<Lost>(), 1U);
  EXPECT_TRUE(conversation.states().empty());
}

}  // namespace
}  // namespace helper::isakmp
