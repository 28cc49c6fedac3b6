// How an association comes up: every algorithm, every kind of network between, and what gets lost on the way.

#include <gtest/gtest.h>

#include "helper/isakmp/Initiator.h"
#include "tests/helper/isakmp/Conversation.h"
#include "tests/helper/isakmp/Hex.h"

namespace helper::isakmp {
namespace {

using enum CipherAlgorithm;
using enum HashAlgorithm;
using enum Group;
using std::chrono::milliseconds;
using std::chrono::seconds;

std::string keysOf(const InstallState &state) { return hex(state.cipherKey) + hex(state.integrityKey); }

// Both sides have the same, each the other way round.
void expectSamePair(const Conversation &conversation) {
  ASSERT_TRUE(conversation.isUp()) << conversation.drops();
  const auto states = conversation.states();
  ASSERT_EQ(states.size(), 2U);
  const TestServer::Pair &pair = conversation.server.pairs().back();
  EXPECT_TRUE(pair.confirmed);
  EXPECT_EQ(states[0].direction, Direction::inbound);
  EXPECT_EQ(states[0].spi, pair.outbound);
  EXPECT_EQ(keysOf(states[0]), hex(pair.outboundKeys));
  EXPECT_EQ(states[1].direction, Direction::outbound);
  EXPECT_EQ(states[1].spi, pair.inbound);
  EXPECT_EQ(keysOf(states[1]), hex(pair.inboundKeys));
}

struct Algorithms {
  IKEProposal ike;
  ESPProposal esp;
};

std::vector<Algorithms> everyAlgorithm() {
  std::vector<Algorithms> rows;
  const IKEProposal usual{aes256, sha1, ecp256};
  for (const auto group : {modp1024, modp1536, modp2048, modp3072, modp4096, ecp256, ecp384}) {
    rows.push_back({{aes128, sha256, group}, {aes128, sha1, {}}});
    rows.push_back({usual, {aes128, sha1, group}});
  }
  for (const auto cipher : {tripleDES, aes128, aes192, aes256})
    for (const auto hash : {md5, sha1, sha256, sha384, sha512}) {
      rows.push_back({{cipher, hash, ecp256}, {aes128, sha1, {}}});
      rows.push_back({usual, {cipher, hash, {}}});
    }
  return rows;
}

class InitiatorWith : public testing::TestWithParam<Algorithms> {};

TEST_P(InitiatorWith, ComesUp) {
  Plan plan = usualPlan();
  plan.ike = {{aes192, md5, modp1024}, GetParam().ike};
  plan.esp = {GetParam().esp, {aes256, sha512, GetParam().esp.group}};
  TestServerOptions options = usualServer();
  options.ike = GetParam().ike;
  options.esp = GetParam().esp;
  Conversation conversation(plan, options);
  conversation.start();
  expectSamePair(conversation);
  const auto established = conversation.last<Established>();
  EXPECT_EQ(established.ike, GetParam().ike);
  EXPECT_EQ(established.esp, GetParam().esp);
  EXPECT_FALSE(established.encapsulated);
  EXPECT_EQ(conversation.states()[0].algorithms, GetParam().esp);
  for (const Bytes &message : conversation.toServer) EXPECT_LT(message.size(), 1200U);
}

INSTANTIATE_TEST_SUITE_P(Each, InitiatorWith, testing::ValuesIn(everyAlgorithm()), [](const auto &row) {
  std::string name = row.param.ike.text() + "_" + row.param.esp.text() + "_" + std::to_string(row.index);
  for (char &c : name)
    if (c == '-') c = '_';
  return name;
});

TEST(Initiator, SaysItsStagesInOrder) {
  Conversation conversation;
  conversation.start();
  std::vector<Stage> stages;
  for (const StageReached &each : conversation.all<StageReached>()) stages.push_back(each.stage);
  EXPECT_EQ(stages, (std::vector<Stage>{Stage::keyExchange, Stage::authentication, Stage::association}));
  // The inbound state is there before the server hears that it may send, the outbound one after.
  std::vector<std::string> order;
  for (const Output &output : conversation.told) {
    if (std::holds_alternative<Send>(output)) order.push_back("send");
    if (const auto *state = std::get_if<InstallState>(&output))
      order.push_back(state->direction == Direction::inbound ? "in" : "out");
    if (std::holds_alternative<Established>(output)) order.push_back("up");
  }
  EXPECT_EQ(order, (std::vector<std::string>{"send", "send", "send", "send", "in", "send", "out", "up"}));
}

TEST(Initiator, OffersItsDefaultsInOneSmallMessage) {
  Plan plan = usualPlan();
  plan.ike = defaultIKEProposals();
  plan.esp = defaultESPProposals();
  TestServerOptions options = usualServer();
  options.ike = {aes128, sha1, ecp256};
  options.esp = {aes128, sha256, {}};
  Conversation conversation(plan, options);
  conversation.start();
  expectSamePair(conversation);
  EXPECT_LT(conversation.toServer[0].size(), 700U);
}

TEST(Initiator, SaysTheSameBytesWithTheSameRandomness) {
  Conversation first;
  Conversation second;
  first.start();
  second.start();
  EXPECT_EQ(first.toServer, second.toServer);
  EXPECT_EQ(first.toServer.size(), 5U);
}

// Payloads of our encrypted messages, as the server found them.
TEST(Initiator, SaysWhatItMustAndNothingElse) {
  using enum PayloadType;
  Conversation conversation;
  conversation.start();
  EXPECT_EQ(conversation.server.proofPayloads(), (std::vector<PayloadType>{identification, hash, notification}));
  const TestServer::Pair &pair = conversation.server.pairs()[0];
  EXPECT_EQ(pair.payloads,
            (std::vector<PayloadType>{hash, securityAssociation, nonce, identification, identification}));
  EXPECT_EQ(pair.flow, (std::vector<Identification>{Identification::of({10, 9, 0, 2}, 17, 1701),
                                                    Identification::of({10, 9, 0, 1}, 17, 1701)}));
  Plan plan = usualPlan();
  plan.initialContact = false;
  plan.identity = *Identification::fromText("@group");
  Conversation silent(plan);
  silent.start();
  EXPECT_EQ(silent.server.proofPayloads(), (std::vector<PayloadType>{identification, hash}));
  EXPECT_EQ(silent.server.clientIdentity().text(), "@group");
}

// What stands between, and how it is noticed.
struct Network {
  const char *name;
  NATTraversal server;
  bool natAtUs;
  bool natAtServer;
  bool forced;
  // What follows.
  bool encapsulated;
  std::uint16_t mode;
  int originalAddresses;  // the payload's type
  bool keepsAwake;
};

class InitiatorOver : public testing::TestWithParam<Network> {};

TEST_P(InitiatorOver, ComesUp) {
  const Network &network = GetParam();
  Plan plan = usualPlan();
  plan.forceEncapsulation = network.forced;
  TestServerOptions options = usualServer();
  options.vendorIDs = TestServerOptions::extensions(network.server);
  if (network.natAtUs) {
    options.client = {192, 0, 2, 77};
    options.clientPort = 61000;
  }
  if (network.natAtServer) options.own = {172, 16, 0, 5};
  Conversation conversation(plan, options);
  conversation.start();
  expectSamePair(conversation);
  EXPECT_EQ(conversation.last<Established>().encapsulated, network.encapsulated);
  EXPECT_EQ(conversation.states()[0].encapsulated, network.encapsulated);
  EXPECT_EQ(conversation.count<Encapsulate>(), network.encapsulated ? 1U : 0U);
  const TestServer::Pair &pair = conversation.server.pairs()[0];
  EXPECT_EQ(pair.mode, network.mode);
  std::vector<int> originals;
  for (const PayloadType type : pair.payloads)
    if (type == PayloadType::natOriginalAddress || type == PayloadType::natOriginalAddressDraft)
      originals.push_back(static_cast<int>(type));
  EXPECT_EQ(originals,
            network.originalAddresses == 0 ? std::vector<int>{} : std::vector<int>(2, network.originalAddresses));
  // The fifth message is the first to port 4500.
  std::vector<int> ports;
  for (const Send &send : conversation.all<Send>()) ports.push_back(static_cast<int>(send.port));
  const int later = network.encapsulated ? 4500 : 500;
  EXPECT_EQ(ports, (std::vector<int>{500, 500, later, later, later}));
  // Where others may have our address, nobody else's associations are to go.
  const auto &proof = conversation.server.proofPayloads();
  EXPECT_EQ(std::count(proof.begin(), proof.end(), PayloadType::notification),
            network.natAtUs && network.server != NATTraversal::none ? 0 : 1);
  EXPECT_EQ(conversation.server.sawNAT(), network.server != NATTraversal::none && (network.natAtUs || network.forced));

  const std::size_t before = conversation.toServer.size();
  conversation.pass(seconds(21));
  std::size_t kept = 0;
  for (std::size_t i = before; i < conversation.toServer.size(); ++i)
    if (conversation.toServer[i] == Bytes{0xff}) ++kept;
  EXPECT_EQ(kept, network.keepsAwake ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Each, InitiatorOver,
    testing::Values(Network{"nothing", NATTraversal::rfc3947, false, false, false, false, 2, 0, false},
                    Network{"our_NAT", NATTraversal::rfc3947, true, false, false, true, 4, 21, true},
                    Network{"its_NAT", NATTraversal::rfc3947, false, true, false, true, 4, 21, false},
                    Network{"two_NATs", NATTraversal::rfc3947, true, true, false, true, 4, 21, true},
                    Network{"a_wall", NATTraversal::rfc3947, false, false, true, true, 4, 21, true},
                    Network{"our_NAT_02", NATTraversal::draft02, true, false, false, true, 61444, 131, true},
                    Network{"our_NAT_03", NATTraversal::draft03, true, false, false, true, 61444, 131, true},
                    Network{"nothing_02", NATTraversal::draft02, false, false, false, false, 2, 0, false},
                    // The server cannot tell, and nor can we.
                    Network{"our_NAT_unknown", NATTraversal::none, true, false, false, false, 2, 0, false},
                    Network{"a_wall_unknown", NATTraversal::none, false, false, true, false, 2, 0, false}),
    [](const auto &row) { return std::string(row.param.name); });

TEST(Initiator, MayStartOnTheOtherPort) {
  Plan plan = usualPlan();
  plan.startOn4500 = true;
  plan.forceEncapsulation = true;
  Conversation conversation(plan);
  conversation.start();
  expectSamePair(conversation);
  EXPECT_TRUE(std::holds_alternative<Encapsulate>(conversation.told[0]));
  EXPECT_EQ(conversation.count<Encapsulate>(), 1U);
  for (const Send &send : conversation.all<Send>()) {
    EXPECT_EQ(send.port, ServerPort::natTraversal);
    EXPECT_EQ(read32(send.datagram), 0U);
  }
  EXPECT_TRUE(conversation.last<Established>().encapsulated);
}

TEST(Initiator, ComesUpAggressively) {
  for (const bool nat : {false, true}) {
    Plan plan = usualPlan();
    plan.aggressive = true;
    plan.identity = *Identification::fromText("@group");
    // Only what has the first one's group can be offered.
    plan.ike = {{aes128, md5, ecp256}, {aes128, md5, modp1024}, {aes256, sha1, ecp256}};
    TestServerOptions options = usualServer();
    if (nat) options.client = {192, 0, 2, 77};
    Conversation conversation(plan, options);
    conversation.start();
    expectSamePair(conversation);
    EXPECT_EQ(conversation.server.clientIdentity().text(), "@group");
    EXPECT_EQ(conversation.last<Established>().encapsulated, nat);
    EXPECT_EQ(conversation.server.sawNAT(), nat);
    EXPECT_EQ(conversation.toServer.size(), 4U);
    options.ike = {aes128, md5, modp1024};
    Conversation other(plan, options);
    other.start();
    EXPECT_FALSE(other.isUp());
  }
}

TEST(Initiator, TakesTheProofAgainThatWasLostInAggressiveMode) {
  Plan plan = usualPlan();
  plan.aggressive = true;
  Conversation conversation(plan);
  conversation.passes = [](bool toServer, std::size_t number) { return !toServer || (number != 1 && number != 2); };
  conversation.start();
  EXPECT_FALSE(conversation.server.association());
  conversation.deliver(Send{ServerPort::ike, conversation.fromServer[0]});
  EXPECT_TRUE(conversation.server.association());
  conversation.pass(seconds(2));
  expectSamePair(conversation);
}

// Each message of either side is lost once, or comes twice.
TEST(Initiator, OvercomesALoss) {
  for (const bool aggressive : {false, true})
    for (const bool lostToServer : {false, true})
      for (std::size_t lost = 0; lost < 5; ++lost) {
        Plan plan = usualPlan();
        plan.aggressive = aggressive;
        Conversation conversation(plan);
        conversation.passes = [&](bool toServer, std::size_t number) {
          return toServer != lostToServer || number != lost;
        };
        conversation.start();
        // In aggressive mode it is the server that repeats itself where our last message was lost.
        if (aggressive && lostToServer && lost == 1)
          conversation.deliver(Send{ServerPort::ike, conversation.fromServer[0]});
        conversation.pass(seconds(3));
        EXPECT_TRUE(conversation.isUp()) << aggressive << lostToServer << lost << conversation.drops();
        EXPECT_EQ(conversation.states().size(), 2U);
      }
}

TEST(Initiator, OvercomesRepetitions) {
  Conversation conversation;
  std::size_t seen = 0;
  conversation.start();
  expectSamePair(conversation);
  // Everything that ever arrived arrives again, in the order of a bad network.
  const auto messages = conversation.fromServer;
  const std::size_t sent = conversation.toServer.size();
  for (int i = 0; i < 3; ++i)
    for (std::size_t j = messages.size(); j-- > 0;) {
      conversation.deliver(Send{ServerPort::ike, messages[j]});
      ++seen;
    }
  EXPECT_EQ(seen, 12U);
  EXPECT_TRUE(conversation.isUp());
  EXPECT_EQ(conversation.states().size(), 2U);
  // Only the quick mode's last message is said again: the server may not have heard it.
  EXPECT_EQ(conversation.toServer.size(), sent + 3);
  EXPECT_EQ(conversation.toServer.back(), conversation.toServer[4]);
}

// Not as often as somebody likes: we would be a means to flood the server.
TEST(Initiator, RepeatsItselfAFewTimesOnly) {
  Conversation conversation;
  conversation.start();
  const Bytes answer = conversation.fromServer.back();
  const std::size_t sent = conversation.toServer.size();
  for (int i = 0; i < 100; ++i) conversation.deliver(Send{ServerPort::ike, answer});
  EXPECT_EQ(conversation.toServer.size(), sent + 8);
  conversation.pass(seconds(61));
  const std::size_t later = conversation.toServer.size();
  conversation.deliver(Send{ServerPort::ike, answer});
  EXPECT_EQ(conversation.toServer.size(), later);
}

TEST(Initiator, RepeatsWhatIsNotAnswered) {
  Conversation conversation;
  conversation.passes = [](bool, std::size_t) { return false; };
  std::vector<long> times;
  conversation.start();
  for (int i = 0; i < 60 && conversation.count<Refused>() == 0; ++i) {
    while (times.size() < conversation.toServer.size()) times.push_back((conversation.now - Instant(1000)).count());
    conversation.pass(milliseconds(500));
  }
  EXPECT_EQ(times, (std::vector<long>{0, 1000, 3000, 7000, 15000}));
  for (const Bytes &message : conversation.toServer) EXPECT_EQ(message, conversation.toServer[0]);
  EXPECT_EQ(conversation.now, Instant(1000 + 23000));
  EXPECT_EQ(conversation.last<Refused>().stage, Stage::firstAnswer);
  EXPECT_EQ(conversation.last<Refused>().reason, Reason::silence);
  EXPECT_FALSE(conversation.initiator.nextDue());
}

TEST(Initiator, MeasuresTheWay) {
  Conversation conversation;
  std::vector<Send> held;
  conversation.passes = [&](bool toServer, std::size_t) { return toServer; };
  conversation.start();
  for (int i = 0; i < 4 && !conversation.isUp(); ++i) {
    conversation.now += milliseconds(i == 0 ? 70 : 40 + i);
    const auto pending = conversation.fromServer.back();
    conversation.deliver(Send{ServerPort::ike, pending});
  }
  ASSERT_TRUE(conversation.isUp());
  EXPECT_EQ(conversation.last<Established>().roundTrip, milliseconds(41));
}

TEST(Initiator, WaitsWhereTheServerWantsItTo) {
  TestServerOptions options = usualServer();
  options.commit = true;
  for (const bool says : {false, true}) {
    Conversation conversation(usualPlan(), options);
    conversation.start();
    EXPECT_EQ(conversation.states().size(), 1U);
    EXPECT_TRUE(conversation.server.pairs()[0].confirmed);
    if (says)
      conversation.deliver(conversation.server.tell(Notification{kProtocolESP, notify::kConnected, {}, {}}));
    else
      conversation.pass(milliseconds(1999));
    EXPECT_EQ(conversation.isUp(), says);
    conversation.pass(milliseconds(1));
    expectSamePair(conversation);
  }
}

TEST(Initiator, WaitsForTheKernel) {
  Conversation conversation;
  conversation.kernelAnswers = false;
  conversation.start();
  ASSERT_EQ(conversation.count<NeedSPI>(), 1U);
  const PairID pair = conversation.last<NeedSPI>().pair;
  EXPECT_EQ(conversation.toServer.size(), 3U);
  conversation.apply(conversation.initiator.allocated(conversation.now, pair, 0xc1000001));
  EXPECT_EQ(conversation.toServer.size(), 4U);
  ASSERT_EQ(conversation.count<InstallState>(), 1U);
  EXPECT_EQ(conversation.last<InstallState>().direction, Direction::inbound);
  // Answers to something else are none.
  conversation.apply(conversation.initiator.allocated(conversation.now, pair, 0xc1000002));
  conversation.apply(conversation.initiator.installed(conversation.now, pair, Direction::outbound));
  conversation.apply(conversation.initiator.installed(conversation.now, pair + 1, Direction::inbound));
  EXPECT_EQ(conversation.toServer.size(), 4U);
  conversation.apply(conversation.initiator.installed(conversation.now, pair, Direction::inbound));
  EXPECT_EQ(conversation.toServer.size(), 5U);
  EXPECT_EQ(conversation.last<InstallState>().direction, Direction::outbound);
  EXPECT_FALSE(conversation.isUp());
  conversation.apply(conversation.initiator.installed(conversation.now, pair, Direction::outbound));
  expectSamePair(conversation);
}

TEST(Initiator, DoesNothingBeforeItsStart) {
  Conversation conversation;
  EXPECT_FALSE(conversation.initiator.nextDue());
  EXPECT_TRUE(conversation.initiator.due(Instant(1)).empty());
  EXPECT_TRUE(conversation.initiator.received(Instant(1), ServerPort::ike, sequence(0, 100)).empty());
  conversation.start();
  EXPECT_TRUE(conversation.initiator.start(Instant(2000)).empty());
}

}  // namespace
}  // namespace helper::isakmp
