// Against scripted servers on loopback.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>

#include "companions/probe/IKEProbe.h"
#include "tests/companions/probe/IKEServer.h"

using namespace companions;
using namespace helper::isakmp;
using std::chrono::milliseconds;
using support::IKEServer;
using Kind = IKEFinding::Kind;
using Found = ProposalFinding::Kind;

namespace {

const IKEProposal kStrong{CipherAlgorithm::aes256, HashAlgorithm::sha256, Group::modp2048};
const IKEProposal kMiddle{CipherAlgorithm::aes128, HashAlgorithm::sha1, Group::modp2048};
const IKEProposal kOld{CipherAlgorithm::tripleDES, HashAlgorithm::sha1, Group::modp1024};

IKEProbe::Limits patient() { return {.patience = milliseconds(20000), .deadline = milliseconds(60000)}; }
IKEProbe::Limits hasty() { return {.patience = milliseconds(30), .deadline = milliseconds(60000)}; }

class IKEProbeTest : public ::testing::Test {
 protected:
  IKEFinding ask(const IKEServer &server, const IKEProbe::Limits &limits) {
    return IKEProbe(pace_, limits).ask(server.end(), {kStrong, kOld});
  }
  ProposalFindings taken(const IKEServer &server, const std::vector<IKEProposal> &proposals,
                         const IKEProbe::Limits &limits) {
    return IKEProbe(pace_, limits).taken(server.end(), proposals);
  }
  static std::vector<Found> kindsOf(const ProposalFindings &findings) {
    std::vector<Found> kinds;
    for (const ProposalFinding &finding : findings.proposals) kinds.push_back(finding.kind);
    return kinds;
  }
  Pace pace_{milliseconds(1)};
};

TEST_F(IKEProbeTest, HearsAnAnswerOnBothPorts) {
  for (const bool marked : {false, true}) {
    const IKEServer server([](View message) { return IKEServer::choose(message, {kOld}, ownVendorIDs()); }, marked);
    const IKEFinding finding = ask(server, patient());
    EXPECT_EQ(finding.kind, Kind::accepted) << finding.answer.detail << finding.reason;
    EXPECT_EQ(finding.answer.chosen, kOld);
    EXPECT_EQ(finding.answer.vendors.size(), 3U);
    EXPECT_EQ(server.received(), 1);
  }
}

TEST_F(IKEProbeTest, KnowsThePorts) {
  const in_addr server{htonl(INADDR_LOOPBACK)};
  EXPECT_EQ(ntohs(IKEEnd::of(server, ServerPort::ike).address.sin_port), 500);
  EXPECT_FALSE(IKEEnd::of(server, ServerPort::ike).marked);
  EXPECT_EQ(ntohs(IKEEnd::of(server, ServerPort::natTraversal).address.sin_port), 4500);
  EXPECT_TRUE(IKEEnd::of(server, ServerPort::natTraversal).marked);
}

TEST_F(IKEProbeTest, HearsARefusal) {
  const IKEServer server([](View message) { return IKEServer::refuse(message); });
  const IKEFinding finding = ask(server, patient());
  EXPECT_EQ(finding.kind, Kind::refused);
  EXPECT_EQ(finding.answer.notification, "NO-PROPOSAL-CHOSEN");
}

TEST_F(IKEProbeTest, AsksASecondTime) {
  std::atomic<int> count{0};
  const IKEServer server(
      [&](View message) { return ++count == 2 ? IKEServer::choose(message, {kStrong}) : std::vector<Bytes>{}; });
  EXPECT_EQ(ask(server, {.patience = milliseconds(300), .deadline = milliseconds(60000)}).kind, Kind::accepted);
  EXPECT_EQ(count, 2);
}

TEST_F(IKEProbeTest, TellsSilence) {
  const IKEServer server([](View) { return std::vector<Bytes>{}; });
  EXPECT_EQ(ask(server, hasty()).kind, Kind::nothing);
  EXPECT_EQ(server.received(), 2);
}

TEST_F(IKEProbeTest, TellsAClosedPort) {
  IKEEnd end;
  {
    const IKEServer server([](View) { return std::vector<Bytes>{}; });
    end = server.end();
  }
  const IKEFinding finding = IKEProbe(pace_, patient()).ask(end, {kStrong});
  EXPECT_EQ(finding.kind, Kind::unreachable);
  ASSERT_TRUE(finding.icmp);
  EXPECT_TRUE(finding.icmp->isPortUnreachable());
  EXPECT_EQ(finding.icmp->text(), "port unreachable");
  EXPECT_EQ(finding.icmp->from.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(IKEProbeTest, WaitsForTheRightAnswerAmongOthers) {
  const IKEServer server([](View message) {
    const IKEQuestion other({kStrong});
    std::vector<Bytes> replies{Bytes{}, Bytes(3, 0xff), IKEServer::refuse(other.message()).at(0)};
    replies.push_back(IKEServer::choose(message, {kStrong}).at(0));
    return replies;
  });
  EXPECT_EQ(ask(server, patient()).kind, Kind::accepted);
}

TEST_F(IKEProbeTest, TellsAStrangeAnswer) {
  const IKEServer server([](View message) {
    Bytes reply = IKEServer::refuse(message).at(0);
    reply[17] = 0x20;
    return std::vector<Bytes>{reply};
  });
  const IKEFinding finding = ask(server, patient());
  EXPECT_EQ(finding.kind, Kind::strange);
  EXPECT_EQ(finding.answer.detail, "another version");
}

TEST_F(IKEProbeTest, TellsWhichProposalsAreTaken) {
  const IKEServer server([](View message) {
    const auto chosen = IKEServer::choose(message, {kMiddle});
    return chosen.empty() ? IKEServer::refuse(message) : chosen;
  });
  const ProposalFindings findings = taken(server, {kStrong, kMiddle, kOld}, patient());
  EXPECT_EQ(kindsOf(findings), (std::vector{Found::refused, Found::taken, Found::refused}));
  EXPECT_EQ(findings.proposals[0].proposal, kStrong);
  EXPECT_EQ(findings.proposals[0].detail, "NO-PROPOSAL-CHOSEN");
  EXPECT_TRUE(findings.serverAnswers());
  EXPECT_EQ(server.received(), 3) << "each in a message of its own, and once";
}

TEST_F(IKEProbeTest, TellsDislikeFromDeath) {
  const IKEServer picky([](View message) { return IKEServer::choose(message, {kMiddle}); });
  const ProposalFindings some = taken(picky, {kStrong, kMiddle}, {.patience = milliseconds(300)});
  EXPECT_EQ(kindsOf(some), (std::vector{Found::noAnswer, Found::taken}));
  EXPECT_TRUE(some.serverAnswers());
  const IKEServer dead([](View) { return std::vector<Bytes>{}; });
  const ProposalFindings none = taken(dead, {kStrong, kMiddle}, hasty());
  EXPECT_EQ(kindsOf(none), (std::vector{Found::noAnswer, Found::noAnswer}));
  EXPECT_FALSE(none.serverAnswers());
  EXPECT_EQ(dead.received(), 4) << "each twice";
}

TEST_F(IKEProbeTest, LeavesAServerInPeaceThatTakesThem) {
  std::set<Bytes> cookies;
  const auto all = defaultIKEProposals();
  std::vector<Found> kinds;
  {
    const IKEServer server([&](View message) {
      cookies.insert(copyOf(message.first(8)));
      return IKEServer::choose(message, defaultIKEProposals());
    });
    kinds = kindsOf(taken(server, all, patient()));
  }
  EXPECT_EQ(std::ranges::count(kinds, Found::taken), 4);
  EXPECT_EQ(std::ranges::count(kinds, Found::notAsked), static_cast<std::ptrdiff_t>(all.size() - 4));
  EXPECT_EQ(cookies.size(), 4U);
}

TEST_F(IKEProbeTest, CountsWhatTheServerKeepsOfAllQuestions) {
  const IKEServer server([](View message) { return IKEServer::choose(message, defaultIKEProposals()); });
  IKEProbe probe(pace_, patient());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(probe.ask(server.end(), {kStrong}).kind, Kind::accepted);
  for (const int taken : {2, 0})
    EXPECT_EQ(std::ranges::count(kindsOf(probe.taken(server.end(), defaultIKEProposals())), Found::taken), taken);
  EXPECT_EQ(server.received(), 4);
}

TEST_F(IKEProbeTest, NeverAsksMoreThanItMay) {
  const IKEServer server([](View message) { return IKEServer::refuse(message); });
  const auto kinds = kindsOf(taken(server, std::vector<IKEProposal>(20, kStrong), patient()));
  EXPECT_EQ(std::ranges::count(kinds, Found::refused), 12);
  EXPECT_EQ(std::ranges::count(kinds, Found::notAsked), 8);
  EXPECT_EQ(server.received(), 12);
}

TEST_F(IKEProbeTest, KeepsItsPaceAndItsDeadline) {
  const IKEServer server([](View message) { return IKEServer::refuse(message); });
  Pace slow(milliseconds(50));
  const auto begun = std::chrono::steady_clock::now();
  IKEProbe(slow, patient()).taken(server.end(), std::vector<IKEProposal>(5, kStrong));
  EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(200));
  const IKEServer dead([](View) { return std::vector<Bytes>{}; });
  IKEProbe::Limits limits = patient();
  limits.deadline = milliseconds(30);
  EXPECT_EQ(kindsOf(taken(dead, {kStrong}, limits)), std::vector{Found::noAnswer});
  EXPECT_LE(dead.received(), 1);
}

TEST_F(IKEProbeTest, ToldThatThePortIsClosedItSaysSo) {
  IKEEnd end;
  {
    const IKEServer server([](View) { return std::vector<Bytes>{}; });
    end = server.end();
  }
  const ProposalFindings findings = IKEProbe(pace_, patient()).taken(end, std::vector<IKEProposal>(9, kStrong));
  const auto kinds = kindsOf(findings);
  EXPECT_EQ(kinds.front(), Found::noAnswer);
  EXPECT_EQ(kinds.back(), Found::notAsked) << "it does not go on and on";
  EXPECT_FALSE(findings.serverAnswers());
  ASSERT_TRUE(findings.icmp);
  EXPECT_TRUE(findings.icmp->isPortUnreachable());
}

}  // namespace
