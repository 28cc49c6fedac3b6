#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <deque>
#include <memory>
#include <string>

#include "helper/l2tp/L2TPTransport.h"
#include "tests/support/LoopFixture.h"

using namespace helper;
using std::chrono::milliseconds;

namespace {

constexpr std::uint16_t kPeerTunnel = 77;

// What one end sent, taken apart again.
struct Sent {
  l2tp::Header header;
  l2tp::Message message;
  std::chrono::steady_clock::time_point time = std::chrono::steady_clock::now();
};

class L2TPTransportTest : public support::LoopFixture {
 protected:
  L2TPTransportTest() { timing_.firstRetry = milliseconds(60000); }

  L2TPTransport &open() {
    transport_ = std::make_unique<L2TPTransport>(
        event_, timing_,
        L2TPTransport::Handlers{.transmit =
                                    [this](std::span<const std::uint8_t> datagram) {
                                      const auto packet = l2tp::decodePacket(datagram);
                                      ASSERT_TRUE(packet);
                                      sent_.push_back({packet->header, l2tp::decodeBody(packet->body).value()});
                                    },
                                .received =
                                    [this](std::uint16_t session, std::span<const std::uint8_t> body) {
                                      const auto message = l2tp::decodeBody(body);
                                      ASSERT_TRUE(message);
                                      received_.push_back(std::get<l2tp::CDN>(*message).sessionID);
                                      EXPECT_EQ(session, 5);
                                      if (answer_) transport_->send(0, l2tp::Hello{});
                                    },
                                .drained = [this] { ++drained_; },
                                .gaveUp = [this] { ++gaveUp_; }});
    return *transport_;
  }
  // A numbered message arrives.
  void arrives(std::uint16_t ns, std::uint16_t number, std::uint16_t nr = 0) {
    const auto body = l2tp::encodeBody(l2tp::CDN{number, {}});
    transport_->receive(l2tp::Packet{l2tp::Header{1, 5, ns, nr}, body});
  }
  void acknowledges(std::uint16_t nr) { transport_->receive(l2tp::Packet{l2tp::Header{1, 0, 0, nr}, {}}); }
  Sent takeSent() {
    EXPECT_FALSE(sent_.empty());
    if (sent_.empty()) return {};
    Sent first = sent_.front();
    sent_.pop_front();
    return first;
  }
  void expectAcknowledgement(std::uint16_t nr) {
    const Sent sent = takeSent();
    EXPECT_EQ(sent.message, l2tp::Message(l2tp::ZLB{}));
    EXPECT_EQ(sent.header.nr, nr);
    EXPECT_TRUE(sent_.empty());
  }

  L2TPTransport::Timing timing_;
  std::unique_ptr<L2TPTransport> transport_;
  std::deque<Sent> sent_;
  std::vector<std::uint16_t> received_;
  bool answer_ = false;
  int drained_ = 0;
  int gaveUp_ = 0;
};

TEST_F(L2TPTransportTest, NumbersWhatItSends) {
  auto &transport = open();
  transport.send(0, l2tp::Hello{});
  EXPECT_EQ(takeSent().header, (l2tp::Header{0, 0, 0, 0}));
  transport.setPeer(kPeerTunnel, 4);
  transport.send(9, l2tp::Hello{});
  EXPECT_EQ(takeSent().header, (l2tp::Header{kPeerTunnel, 9, 1, 0}));
}

TEST_F(L2TPTransportTest, KeepsToThePeersWindow) {
  auto &transport = open();
  transport.setPeer(kPeerTunnel, 2);
  for (int i = 0; i < 4; ++i) transport.send(0, l2tp::Hello{});
  EXPECT_EQ(sent_.size(), 2U);
  acknowledges(1);
  EXPECT_EQ(sent_.size(), 3U);
  acknowledges(3);
  EXPECT_EQ(sent_.size(), 4U);
  EXPECT_EQ(sent_.back().header.ns, 3);
  EXPECT_EQ(drained_, 0);
  EXPECT_FALSE(transport.drained());
  acknowledges(4);
  EXPECT_EQ(drained_, 1);
  EXPECT_TRUE(transport.drained());
}

TEST_F(L2TPTransportTest, TakesAWindowOfNothingForOne) {
  auto &transport = open();
  transport.setPeer(kPeerTunnel, 0);
  transport.send(0, l2tp::Hello{});
  transport.send(0, l2tp::Hello{});
  EXPECT_EQ(sent_.size(), 1U);
  acknowledges(1);
  EXPECT_EQ(sent_.size(), 2U);
}

TEST_F(L2TPTransportTest, IgnoresAcknowledgementsOfWhatWasNeverSent) {
  auto &transport = open();
  transport.send(0, l2tp::Hello{});
  acknowledges(2);
  acknowledges(0xffff);
  acknowledges(0);
  EXPECT_FALSE(transport.drained());
  acknowledges(1);
  EXPECT_TRUE(transport.drained());
}

TEST_F(L2TPTransportTest, AcknowledgesWhatArrives) {
  open().setPeer(kPeerTunnel, 4);
  arrives(0, 100);
  expectAcknowledgement(1);
  arrives(1, 101);
  expectAcknowledgement(2);
  EXPECT_EQ(received_, (std::vector<std::uint16_t>{100, 101}));
}

TEST_F(L2TPTransportTest, AnswersInsteadOfAcknowledging) {
  open();
  answer_ = true;
  arrives(0, 100);
  const Sent answer = takeSent();
  EXPECT_EQ(answer.message, l2tp::Message(l2tp::Hello{}));
  EXPECT_EQ(answer.header.nr, 1);
  EXPECT_TRUE(sent_.empty());
}

TEST_F(L2TPTransportTest, AcknowledgesAloneWhenTheAnswerMustWait) {
  auto &transport = open();
  transport.setPeer(kPeerTunnel, 1);
  transport.send(0, l2tp::Hello{});
  sent_.clear();
  answer_ = true;
  arrives(0, 100);
  expectAcknowledgement(1);
}

TEST_F(L2TPTransportTest, AcknowledgesDuplicatesAgainAndDropsThem) {
  open();
  arrives(0, 100);
  expectAcknowledgement(1);
  arrives(0, 100);
  expectAcknowledgement(1);
  EXPECT_EQ(received_.size(), 1U);
}

TEST_F(L2TPTransportTest, PutsInOrderWhatComesEarly) {
  open();
  arrives(2, 102);
  arrives(1, 101);
  arrives(2, 102);
  EXPECT_TRUE(received_.empty());
  EXPECT_TRUE(sent_.empty());
  arrives(0, 100);
  EXPECT_EQ(received_, (std::vector<std::uint16_t>{100, 101, 102}));
  expectAcknowledgement(3);
}

TEST_F(L2TPTransportTest, DropsWhatIsBeyondItsWindow) {
  open();
  arrives(4, 104);
  for (std::uint16_t ns = 0; ns < 4; ++ns) arrives(ns, static_cast<std::uint16_t>(100 + ns));
  EXPECT_EQ(received_, (std::vector<std::uint16_t>{100, 101, 102, 103}));
}

// A ZLB bears the next number without using it, also a lost message's.
TEST_F(L2TPTransportTest, IsNotMisledByTheNumberOfAnAcknowledgement) {
  open();
  transport_->receive(l2tp::Packet{l2tp::Header{1, 0, 0, 0}, {}});
  transport_->receive(l2tp::Packet{l2tp::Header{1, 0, 3, 0}, {}});
  EXPECT_TRUE(sent_.empty());
  arrives(0, 100);
  EXPECT_EQ(received_.size(), 1U);
}

TEST_F(L2TPTransportTest, CountsPastTheLastNumber) {
  auto &transport = open();
  for (std::uint32_t i = 0; i < 0x10010; ++i) {
    const auto ns = static_cast<std::uint16_t>(i);
    transport.send(0, l2tp::Hello{});
    ASSERT_EQ(takeSent().header.ns, ns);
    acknowledges(static_cast<std::uint16_t>(ns + 1));
    ASSERT_TRUE(transport.drained());
    arrives(ns, ns);
    ASSERT_EQ(takeSent().header.nr, static_cast<std::uint16_t>(ns + 1));
  }
  EXPECT_EQ(received_.size(), 0x10010U);
}

TEST_F(L2TPTransportTest, RepeatsWhatIsNotAcknowledgedAndThenGivesUp) {
  timing_ = {milliseconds(1), milliseconds(2), 5};
  auto &transport = open();
  transport.send(0, l2tp::Hello{});
  transport.send(3, l2tp::Hello{});
  ASSERT_TRUE(runUntil([this] { return gaveUp_ > 0; }));
  ASSERT_EQ(sent_.size(), 10U);
  for (std::size_t i = 0; i < sent_.size(); ++i) {
    EXPECT_EQ(sent_[i].header.ns, i % 2);
    EXPECT_EQ(sent_[i].header.sessionID, i % 2 == 0 ? 0 : 3);
  }
  EXPECT_EQ(gaveUp_, 1);
  EXPECT_TRUE(transport.drained());
  EXPECT_EQ(drained_, 0);
}

TEST_F(L2TPTransportTest, RepeatsWithTheNewestAcknowledgement) {
  timing_.firstRetry = milliseconds(5);
  auto &transport = open();
  transport.send(0, l2tp::Hello{});
  arrives(0, 100);
  sent_.clear();
  ASSERT_TRUE(runUntil([this] { return !sent_.empty(); }));
  EXPECT_EQ(sent_.front().header, (l2tp::Header{0, 0, 0, 1}));
}

// 1, 2, 4, 4, ... times the first interval; fresh for each new message.
TEST_F(L2TPTransportTest, WaitsLongerEachTime) {
  timing_ = {milliseconds(10), milliseconds(160), 6};
  auto &transport = open();
  transport.send(0, l2tp::Hello{});
  ASSERT_TRUE(runUntil([this] { return gaveUp_ > 0; }));
  const auto end = std::chrono::steady_clock::now();
  const std::array waits = {10, 20, 40, 80, 160, 160};
  ASSERT_EQ(sent_.size(), waits.size());
  for (std::size_t i = 0; i < waits.size(); ++i) {
    const auto next = i + 1 < sent_.size() ? sent_[i + 1].time : end;
    // The loop counts from where it woke up, a little earlier.
    EXPECT_GE(next - sent_[i].time, milliseconds(waits[i] - 5)) << i;
  }
  EXPECT_LT(sent_[1].time - sent_[0].time, milliseconds(waits.back()));  // not the longest at once
}

TEST_F(L2TPTransportTest, IsPatientAgainAfterProgress) {
  timing_ = {milliseconds(1), milliseconds(1), 3};
  auto &transport = open();
  transport.send(0, l2tp::Hello{});
  ASSERT_TRUE(runUntil([this] { return sent_.size() == 3; }));
  acknowledges(1);
  sent_.clear();
  transport.send(0, l2tp::Hello{});
  ASSERT_TRUE(runUntil([this] { return sent_.size() == 3 || gaveUp_ > 0; }));
  EXPECT_EQ(gaveUp_, 0);
}

TEST_F(L2TPTransportTest, SaysLastWordsOnAFinishedLoop) {
  auto &transport = open();
  transport.setPeer(kPeerTunnel, 4);
  finishLoop();
  transport.sendOnce(3, l2tp::CDN{1, {}});
  transport.sendOnce(0, l2tp::Hello{});
  EXPECT_EQ(takeSent().header, (l2tp::Header{kPeerTunnel, 3, 0, 0}));
  EXPECT_EQ(takeSent().header, (l2tp::Header{kPeerTunnel, 0, 1, 0}));
}

// Two ends over a network that loses, doubles and delays, by a fixed pattern: all arrives, once and in order.
TEST_F(L2TPTransportTest, SurvivesABadNetwork) {
  timing_ = {milliseconds(1), milliseconds(2), 50};
  std::deque<std::pair<int, std::vector<std::uint8_t>>> wire;  // receiver, datagram
  std::array<std::unique_ptr<L2TPTransport>, 2> ends;
  std::vector<std::uint16_t> arrived;
  unsigned pattern = 1;
  const auto put = [&](int receiver, std::span<const std::uint8_t> datagram) {
    pattern = pattern * 1103515245U + 12345U;
    const std::vector<std::uint8_t> bytes(datagram.begin(), datagram.end());
    switch (pattern >> 16 & 7) {
      case 0:
      case 1:
        return;  // lost
      case 2:
        wire.emplace_back(receiver, bytes);  // twice
        [[fallthrough]];
      case 3:
        wire.emplace_front(receiver, bytes);  // overtakes
        return;
      default:
        wire.emplace_back(receiver, bytes);
    }
  };
  int failures = 0;
  for (int i = 0; i < 2; ++i)
    ends.at(i) = std::make_unique<L2TPTransport>(
        event_, timing_,
        L2TPTransport::Handlers{.transmit = [&, i](std::span<const std::uint8_t> datagram) { put(1 - i, datagram); },
                                .received =
                                    [&, i](std::uint16_t, std::span<const std::uint8_t> body) {
                                      if (i == 1)
                                        arrived.push_back(
                                            std::get<l2tp::CDN>(l2tp::decodeBody(body).value()).sessionID);
                                    },
                                .drained = [] {},
                                .gaveUp = [&] { ++failures; }});
  constexpr std::uint16_t kCount = 200;
  for (std::uint16_t i = 0; i < kCount; ++i) {
    ends[0]->send(0, l2tp::CDN{i, {}});
    if (i % 3 == 0) ends[1]->send(0, l2tp::Hello{});
  }
  ASSERT_TRUE(runUntil([&] {
    while (!wire.empty()) {
      const auto [receiver, datagram] = wire.front();
      wire.pop_front();
      ends.at(receiver)->receive(l2tp::decodePacket(datagram).value());
    }
    return failures > 0 || (ends[0]->drained() && ends[1]->drained());
  }));
  EXPECT_EQ(failures, 0);
  ASSERT_EQ(arrived.size(), kCount);
  for (std::uint16_t i = 0; i < kCount; ++i) EXPECT_EQ(arrived[i], i);
}

}  // namespace
