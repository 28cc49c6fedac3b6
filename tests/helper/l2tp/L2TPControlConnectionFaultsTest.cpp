// What a server says, mangled in every way: what damages a datagram is made good by the next that says the same, what
// damages a message ends the tunnel with one sentence.

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <optional>

#include "foundation/FileDescriptor.h"
#include "helper/l2tp/L2TPControlConnection.h"
#include "tests/support/LoopFixture.h"

using namespace helper;
using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;
using Wire = std::vector<Bytes>;  // datagrams in their order

namespace {

constexpr std::uint16_t kServerTunnel = 815;
constexpr std::uint16_t kServerSession = 42;
constexpr std::size_t kHeaderSize = 12;

enum class Said { sccrp, icrp, zlb, hello, wanErrorNotify, setLinkInfo, cdn, stopCCN };
constexpr std::array kAll{Said::sccrp,          Said::icrp,        Said::zlb, Said::hello,
                          Said::wanErrorNotify, Said::setLinkInfo, Said::cdn, Said::stopCCN};
constexpr std::array kNames{"SCCRP", "ICRP", "ZLB", "HELLO", "WAN-Error-Notify", "Set-Link-Info", "CDN", "StopCCN"};
const char *nameOf(Said said) { return kNames.at(static_cast<std::size_t>(said)); }

// A message that a client has no use for, with its one attribute of so many zero bytes.
Bytes otherBody(std::uint16_t type, std::uint8_t attribute, std::uint8_t size) {
  Bytes body = l2tp::encodeBody(l2tp::OtherMessage{type, true});
  body.insert(body.end(), {0x80, static_cast<std::uint8_t>(6 + size), 0, 0, 0, attribute});
  body.resize(body.size() + size);
  return body;
}

Bytes bodyOf(Said said) {
  switch (said) {
    case Said::sccrp:
      return l2tp::encodeBody(l2tp::SCCRP{0x0100, 3, "server", kServerTunnel, 8, {}});
    case Said::icrp:
      return l2tp::encodeBody(l2tp::ICRP{kServerSession});
    case Said::zlb:
      return {};
    case Said::hello:
      return l2tp::encodeBody(l2tp::Hello{});
    case Said::wanErrorNotify:
      return otherBody(15, 34, 26);  // six counts of errors
    case Said::setLinkInfo:
      return otherBody(16, 35, 10);  // the two maps of asynchronous control characters
    case Said::cdn:
      return l2tp::encodeBody(l2tp::CDN{kServerSession, {3, 0, ""}});
    case Said::stopCCN:
      return l2tp::encodeBody(l2tp::StopCCN{kServerTunnel, {6, 0, ""}});
  }
  return {};
}

Bytes withLength(Bytes datagram, std::size_t length) {
  datagram[2] = static_cast<std::uint8_t>(length >> 8);
  datagram[3] = static_cast<std::uint8_t>(length);
  return datagram;
}

// A HELLO that comes MORE numbers after a datagram, for the same tunnel.
Bytes helloAfter(const Bytes &datagram, int more) {
  const Bytes body = bodyOf(Said::hello);
  Bytes hello(datagram.begin(), datagram.begin() + kHeaderSize);
  hello[6] = hello[7] = 0;
  hello[9] = static_cast<std::uint8_t>(hello[9] + more);
  hello.insert(hello.end(), body.begin(), body.end());
  return withLength(hello, hello.size());
}

class L2TPControlConnectionFaultsTest : public support::LoopFixture {
 protected:
  enum class Outcome { failed, lost, up };
  // What goes over the wire, in this order, for a datagram of the server's.
  using Way = std::function<Wire(const Bytes &datagram)>;

  L2TPControlConnectionFaultsTest() : server_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(server_.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(::getsockname(server_.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    address_ = address;
    deadlines_.call = deadlines_.hello = std::chrono::minutes(1);
    deadlines_.stop = milliseconds(20);
    deadlines_.firstRetry = std::chrono::minutes(1);
    deadlines_.transport = {std::chrono::minutes(1), std::chrono::minutes(1), 2};
  }

  // One connection to a server that says MANGLED in that WAY and everything else as it should; what no call needs only
  // if it is the mangled one. Up is a client that has acknowledged all of it. Leaves the sentence, if there is one, in
  // sentence_.
  Outcome hear(Said mangled, const Way &way) {
    mangled_ = mangled;
    way_ = way;
    ns_ = nr_ = acknowledged_ = 0;
    saidAll_ = false;
    sentence_.reset();
    bool established = false;
    int ends = 0;
    int stops = 0;
    const vpnctl::FileDescriptor client(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr *>(&address_), sizeof address_), 0);
    L2TPControlConnection control(event_, deadlines_,
                                  {.answered = [](const L2TPCall &) { return vpnctl::Status(); },
                                   .established =
                                       [&] {
                                         EXPECT_FALSE(established);
                                         established = true;
                                       },
                                   .failed =
                                       [&](const TunnelFailure &failure) {
                                         ++ends;
                                         EXPECT_FALSE(established);
                                         sentence_ = failure.sentence;
                                       },
                                   .lost =
                                       [&](const TunnelLoss &loss) {
                                         ++ends;
                                         EXPECT_TRUE(established);
                                         sentence_ = loss.sentence;
                                       },
                                   .stopped = [&] { ++stops; }});
    control.start(client.get());
    const auto listening = linux::EventSource::io(
        event_, server_.get(), EPOLLIN, [this](std::uint32_t) { listen(); });
    EXPECT_TRUE(runUntil(
        [&] { return ends > 0 || (established && saidAll_ && static_cast<std::int16_t>(acknowledged_ - ns_) >= 0); }));
    const Outcome outcome = ends == 0 ? Outcome::up : established ? Outcome::lost : Outcome::failed;
    control.stop();
    EXPECT_EQ(stops, 0);
    EXPECT_TRUE(runUntil([&] { return stops > 0; }));
    EXPECT_EQ(stops, 1);
    EXPECT_EQ(ends, sentence_.has_value() ? 1 : 0);
    if (sentence_) expectSentence();
    while (take()) {
    }
    return outcome;
  }
  Outcome hearWhole(Said said) {
    return hear(
        said, [](const Bytes &datagram) { return Wire{datagram}; });
  }

  void expectSentence() const {
    EXPECT_TRUE(sentence_->starts_with("The L2TP server 127.0.0.1 ")) << *sentence_;
    EXPECT_TRUE(sentence_->ends_with(".")) << *sentence_;
    EXPECT_LT(sentence_->size(), 1000U);
    EXPECT_TRUE(std::all_of(sentence_->begin(), sentence_->end(), [](char c) { return c >= ' ' && c <= '~'; }));
  }
  bool says(const char *part) const { return sentence_ && sentence_->find(part) != std::string::npos; }

  L2TPControlConnection::Deadlines deadlines_;
  std::optional<std::string> sentence_;
  std::uint16_t ns_ = 0;  // of the server's next message

 private:
  std::optional<Bytes> take() {
    Bytes bytes(2048);
    socklen_t size = sizeof client_;
    const ssize_t count =
        ::recvfrom(server_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&client_), &size);
    if (count < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(count));
    return bytes;
  }
  void listen() {
    const auto datagram = take();
    if (!datagram) return;
    const auto packet = l2tp::decodePacket(*datagram);
    ASSERT_TRUE(packet);
    acknowledged_ = packet->header.nr;
    if (packet->body.empty() || packet->header.ns != nr_) return;
    const auto message = l2tp::decodeBody(packet->body);
    ASSERT_TRUE(message);
    ++nr_;
    if (const auto *request = std::get_if<l2tp::SCCRQ>(&*message)) {
      tunnel_ = request->tunnelID;
      say(Said::sccrp, 0);
    } else if (const auto *call = std::get_if<l2tp::ICRQ>(&*message)) {
      session_ = call->sessionID;
      say(Said::icrp, session_);
    } else {
      say(Said::zlb, 0);
    }
    if (!std::holds_alternative<l2tp::ICCN>(*message)) return;
    for (const Said said : {Said::wanErrorNotify, Said::setLinkInfo, Said::cdn})
      if (mangled_ == said) say(said, session_);
    if (mangled_ == Said::stopCCN) say(Said::stopCCN, 0);
    say(Said::hello, 0);
    saidAll_ = true;
  }
  void say(Said said, std::uint16_t session) {
    const Bytes body = bodyOf(said);
    const Bytes whole = l2tp::encode(l2tp::Header{tunnel_, session, ns_, nr_}, body);
    if (!body.empty()) ++ns_;
    for (const Bytes &datagram : said == mangled_ ? way_(whole) : Wire{whole})
      EXPECT_EQ(::sendto(server_.get(), datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr *>(&client_), sizeof client_),
                static_cast<ssize_t>(datagram.size()));
  }

  vpnctl::FileDescriptor server_;
  sockaddr_in address_{};
  sockaddr_in client_{};
  Said mangled_ = Said::zlb;
  Way way_;
  std::uint16_t tunnel_ = 0;
  std::uint16_t session_ = 0;
  std::uint16_t nr_ = 0;
  std::uint16_t acknowledged_ = 0;
  bool saidAll_ = false;
};

TEST_F(L2TPControlConnectionFaultsTest, HearsAServerAsItShouldBe) {
  for (const Said said : {Said::sccrp, Said::icrp, Said::zlb, Said::hello, Said::wanErrorNotify, Said::setLinkInfo})
    EXPECT_EQ(hearWhole(said), Outcome::up) << nameOf(said);
  EXPECT_EQ(hearWhole(Said::cdn), Outcome::lost);
  EXPECT_TRUE(says("has ended the call"));
  EXPECT_EQ(hearWhole(Said::stopCCN), Outcome::lost);
  EXPECT_TRUE(says("has ended the tunnel"));
}

TEST_F(L2TPControlConnectionFaultsTest, DropsADatagramThatIsCutAnywhere) {
  for (const Said said : kAll) {
    const Outcome whole = hearWhole(said);
    for (std::size_t size = 0; size < kHeaderSize + bodyOf(said).size(); ++size) {
      SCOPED_TRACE(std::string(nameOf(said)) + " cut to " + std::to_string(size));
      EXPECT_EQ(
          hear(said,
               [&](const Bytes &datagram) {
                 return Wire{Bytes(datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(size)), datagram};
               }),
          whole);
    }
  }
}

// A length that fits the cut makes it a message, and that one is wrong, or else means what it says.
TEST_F(L2TPControlConnectionFaultsTest, EndsAtAMessageThatIsCutWithinAnAttribute) {
  for (const Said said : kAll) {
    const Outcome whole = hearWhole(said);
    const Bytes body = bodyOf(said);
    for (std::size_t size = 0; size < body.size(); ++size) {
      SCOPED_TRACE(std::string(nameOf(said)) + " with a body of " + std::to_string(size));
      const Outcome outcome = hear(said, [&](const Bytes &datagram) {
        const std::size_t length = kHeaderSize + size;
        return Wire{withLength(Bytes(datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(length)), length),
                    datagram};
      });
      if (l2tp::decodeBody(std::span(body).first(size))) {
        EXPECT_EQ(outcome, whole);
      } else {
        EXPECT_NE(outcome, Outcome::up);
        EXPECT_TRUE(says("does not speak L2TP as it should")) << sentence_.value_or("nothing");
      }
    }
  }
}

TEST_F(L2TPControlConnectionFaultsTest, IsNotDisturbedByAWrongHeader) {
  for (const Said said : kAll) {
    const Outcome whole = hearWhole(said);
    for (const std::size_t at : {0U, 1U, 2U, 3U, 4U, 5U, 10U, 11U})  // flags, version, length, tunnel, acknowledgement
      for (const int change : {0x01, 0x40, 0xff}) {
        SCOPED_TRACE(std::string(nameOf(said)) + ", byte " + std::to_string(at) + " by " + std::to_string(change));
        EXPECT_EQ(hear(said,
                       [&](Bytes datagram) {
                         Bytes wrong = datagram;
                         wrong[at] = static_cast<std::uint8_t>(wrong[at] ^ change);
                         return Wire{wrong, datagram};
                       }),
                  whole);
      }
  }
}

// Another session, a number that is not its own, anything in the attributes: a message may then mean another, and the
// right one, which bears its number, is a repetition. A client that hears nothing more ends by its deadline.
TEST_F(L2TPControlConnectionFaultsTest, ComesUpOrEndsWhicheverByteIsWrong) {
  deadlines_.call = milliseconds(100);
  for (const Said said : kAll)
    for (std::size_t at = 6; at < kHeaderSize + bodyOf(said).size(); ++at)
      for (const int change : {0x01, 0x40, 0xff}) {
        SCOPED_TRACE(std::string(nameOf(said)) + ", byte " + std::to_string(at) + " by " + std::to_string(change));
        const Outcome outcome = hear(said, [&](Bytes datagram) {
          Bytes wrong = datagram;
          wrong[at] = static_cast<std::uint8_t>(wrong[at] ^ change);
          return Wire{wrong, datagram};
        });
        EXPECT_TRUE(outcome == Outcome::up || sentence_.has_value());
      }
}

TEST_F(L2TPControlConnectionFaultsTest, IsNotEndedByWhatIsForAnother) {
  struct Row {
    Said said;
    std::size_t at;  // of the tunnel's id, the session's
  };
  for (const Row &row :
       {Row{Said::stopCCN, 4}, Row{Said::stopCCN, 5}, Row{Said::cdn, 4}, Row{Said::cdn, 6}, Row{Said::cdn, 7}})
    EXPECT_EQ(hear(row.said,
                   [&](const Bytes &datagram) {
                     Bytes wrong = datagram;
                     wrong[row.at] = static_cast<std::uint8_t>(wrong[row.at] ^ 0x40);
                     return Wire{wrong, helloAfter(datagram, 0)};
                   }),
              Outcome::up)
        << nameOf(row.said) << " " << row.at;
}

TEST_F(L2TPControlConnectionFaultsTest, BearsEverythingTwice) {
  for (const Said said : kAll)
    EXPECT_EQ(hear(
                  said,
                  [](const Bytes &datagram) {
                    return Wire{datagram, datagram};
                  }),
              hearWhole(said))
        << nameOf(said);
}

TEST_F(L2TPControlConnectionFaultsTest, PutsEveryOrderRight) {
  for (const Said said : kAll) {
    if (said == Said::zlb) continue;  // has no number of its own
    const Outcome whole = hearWhole(said);
    std::array order{0, 1, 2};
    do {
      SCOPED_TRACE(std::string(nameOf(said)) + " " + std::to_string(order[0]) + std::to_string(order[1]));
      EXPECT_EQ(hear(said,
                     [&](const Bytes &datagram) {
                       ns_ = static_cast<std::uint16_t>(ns_ + 2);
                       Wire wire;
                       for (const int i : order) wire.push_back(i == 0 ? datagram : helloAfter(datagram, i));
                       return wire;
                     }),
                whole);
    } while (std::next_permutation(order.begin(), order.end()));
  }
}

TEST_F(L2TPControlConnectionFaultsTest, KnowsWhatItMustUnderstand) {
  for (const Said said : kAll) {
    if (said == Said::zlb) continue;  // has no type
    SCOPED_TRACE(nameOf(said));
    const Outcome outcome = hear(said, [](Bytes datagram) {
      datagram[kHeaderSize + 7] = 99;  // the message's type
      return Wire{datagram};
    });
    EXPECT_NE(outcome, Outcome::up);
    EXPECT_TRUE(says("sent a message of the unknown type 99, which must be understood"));
  }
}

// What is said of a line that we do not have need not be right. What must be understood is looked for there too.
TEST_F(L2TPControlConnectionFaultsTest, IgnoresWhatItHasNoUseFor) {
  const auto hearBody = [&](Said said, const Bytes &body) {
    return hear(said, [&](const Bytes &datagram) {
      Bytes other(datagram.begin(), datagram.begin() + kHeaderSize);
      other.insert(other.end(), body.begin(), body.end());
      return Wire{withLength(other, other.size())};
    });
  };
  struct Row {
    Said said;
    std::uint8_t type, attribute;
  };
  for (const Row &row : {Row{Said::wanErrorNotify, 15, 34}, Row{Said::setLinkInfo, 16, 35}}) {
    SCOPED_TRACE(nameOf(row.said));
    for (const std::uint8_t size : std::array<std::uint8_t, 3>{0, 1, 200})
      EXPECT_EQ(hearBody(row.said, otherBody(row.type, row.attribute, size)), Outcome::up) << int{size};
    EXPECT_EQ(hearBody(row.said, l2tp::encodeBody(l2tp::OtherMessage{row.type, true})), Outcome::up);
    EXPECT_EQ(hearBody(row.said, l2tp::encodeBody(l2tp::OtherMessage{row.type, false})), Outcome::up);
    EXPECT_EQ(hearBody(row.said, otherBody(row.type, 77, 4)), Outcome::lost);
    EXPECT_TRUE(says("attribute 77 of vendor 0, which must be understood and is unknown"));
  }
}

}  // namespace
