// What a server says, mangled in every way: it is borne, or it ends the control connection with one sentence. A stream
// that is out of step is never followed any further.

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>

#include "foundation/FileDescriptor.h"
#include "helper/pptp/PPTPControlConnection.h"
#include "tests/support/LoopFixture.h"

using namespace helper;
using Bytes = std::vector<std::uint8_t>;

namespace {

constexpr std::uint16_t kOurCall = 4711;
constexpr std::uint16_t kServerCall = 815;
constexpr std::uint32_t kLastEcho = 99;
// Longer than any message, so that whatever waits for more bytes gets them.
constexpr std::size_t kQuestions = 20;
constexpr std::size_t kQuestionSize = 16;

struct Named {
  const char *name;
  Bytes bytes;
};

// A client does not look into these, not even at their length.
bool isOther(const Named &message) { return message.bytes[9] == 9 || message.bytes[9] == 14; }
Bytes other(std::uint16_t type, std::size_t size) {
  Bytes bytes = pptp::encode(pptp::OtherMessage{type});
  bytes.resize(size);
  bytes[1] = static_cast<std::uint8_t>(size);
  return bytes;
}

Bytes startReply() { return pptp::encode(pptp::StartReply{0x0100, 1, 0, 3, 3, 1, 1, "server", "maker"}); }
Bytes callReply() { return pptp::encode(pptp::OutgoingCallReply{kServerCall, kOurCall, 1, 0, 0, 64000, 64, 0, 0}); }

// What a server may say to a call that is up.
std::vector<Named> wordsToACall() {
  return {{"Echo-Request", pptp::encode(pptp::EchoRequest{7})},
          {"Echo-Reply", pptp::encode(pptp::EchoReply{7})},
          {"Set-Link-Info", pptp::encode(pptp::SetLinkInfo{kOurCall})},
          {"WAN-Error-Notify", other(14, 40)},
          {"Incoming-Call-Request", other(9, 220)},
          {"Call-Disconnect-Notify", pptp::encode(pptp::CallDisconnectNotify{kServerCall, 3})},
          {"Stop-Control-Connection-Request", pptp::encode(pptp::StopRequest{3})},
          {"Stop-Control-Connection-Reply", pptp::encode(pptp::StopReply{})}};
}

Bytes questions() {
  Bytes bytes;
  for (std::size_t i = 0; i < kQuestions; ++i) {
    const Bytes one = pptp::encode(pptp::EchoRequest{static_cast<std::uint32_t>(kLastEcho + 1 - kQuestions + i)});
    bytes.insert(bytes.end(), one.begin(), one.end());
  }
  return bytes;
}

Bytes joined(const std::vector<Bytes> &parts) {
  Bytes bytes;
  for (const Bytes &part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
  return bytes;
}

class PPTPControlConnectionFaultsTest : public support::LoopFixture {
 protected:
  enum class Outcome { failed, lost, waits, up };

  PPTPControlConnectionFaultsTest() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address_), size), 0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    EXPECT_EQ(::getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address_), &size), 0);
    for (auto *deadline : {&deadlines_.call, &deadlines_.connect, &deadlines_.reply, &deadlines_.echoInterval})
      *deadline = std::chrono::minutes(1);
    deadlines_.stop = std::chrono::minutes(1);
  }

  // One connection to a server that says STREAM without waiting for anything, and then, unless it has nothing more to
  // say, asks whether the client still follows. Leaves the sentence, if there is one, in sentence_.
  Outcome hear(const Bytes &stream, bool asks = true) {
    established_ = false;
    answered_ = false;
    calls_ = 0;
    sentence_.reset();
    int ends = 0;
    int stops = 0;
    PPTPControlConnection control(event_, address_, deadlines_,
                                  {.connected = [](in_addr) { return vpnctl::Result<std::uint16_t>(kOurCall); },
                                   .established =
                                       [&](std::uint16_t) {
                                         EXPECT_FALSE(established_);
                                         established_ = true;
                                       },
                                   .failed =
                                       [&](const Tunnel::Failure &failure) {
                                         ++ends;
                                         EXPECT_FALSE(established_);
                                         sentence_ = failure.sentence;
                                       },
                                   .lost =
                                       [&](const Tunnel::Loss &loss) {
                                         ++ends;
                                         EXPECT_TRUE(established_);
                                         sentence_ = loss.sentence;
                                       },
                                   .stopped = [&] { ++stops; }});
    control.start();
    vpnctl::FileDescriptor server(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const Bytes said = joined({stream, asks ? questions() : Bytes{}});
    EXPECT_EQ(::send(server.get(), said.data(), said.size(), MSG_NOSIGNAL), static_cast<ssize_t>(said.size()));
    pptp::MessageReader reader;
    auto listening = linux::EventSource::io(
        event_, server.get(), EPOLLIN, [&](std::uint32_t) { listen(server.get(), reader); });
    EXPECT_TRUE(runUntil([&] { return ends > 0 || answered_; }));
    const Outcome outcome =
        ends > 0 ? (established_ ? Outcome::lost : Outcome::failed) : (established_ ? Outcome::up : Outcome::waits);
    control.stop();
    EXPECT_EQ(stops, 0);
    listening.reset();
    server.reset();  // a client that says goodbye waits no longer than this
    EXPECT_TRUE(runUntil([&] { return stops > 0; }));
    EXPECT_EQ(stops, 1);
    EXPECT_EQ(ends, sentence_.has_value() ? 1 : 0);
    EXPECT_LE(calls_, 1);
    if (sentence_) expectSentence();
    return outcome;
  }

  void listen(int server, pptp::MessageReader &reader) {
    std::array<std::uint8_t, 2048> bytes{};
    const ssize_t count = ::recv(server, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count <= 0) return;
    reader.append(std::span(bytes).first(static_cast<std::size_t>(count)));
    for (auto next = reader.next(); next && next->has_value(); next = reader.next()) {
      if (const auto *reply = std::get_if<pptp::EchoReply>(&**next)) answered_ |= reply->identifier == kLastEcho;
      calls_ += std::holds_alternative<pptp::OutgoingCallRequest>(**next);
    }
  }

  void expectSentence() const {
    EXPECT_TRUE(sentence_->starts_with("The PPTP server 127.0.0.1 ")) << *sentence_;
    EXPECT_TRUE(sentence_->ends_with(".")) << *sentence_;
    EXPECT_LT(sentence_->size(), 1000U);
    EXPECT_TRUE(std::all_of(sentence_->begin(), sentence_->end(), [](char c) { return c >= ' ' && c <= '~'; }));
  }
  bool says(const char *part) const { return sentence_ && sentence_->find(part) != std::string::npos; }

  // Hands each message of a server, with what stands before and after it in the stream, to TRY.
  template <class Try>
  void forEachMessage(Try attempt) {
    attempt(Named{"Start-Control-Connection-Reply", startReply()}, Bytes{}, callReply());
    attempt(Named{"Outgoing-Call-Reply", callReply()}, startReply(), Bytes{});
    for (const Named &message : wordsToACall()) attempt(message, joined({startReply(), callReply()}), Bytes{});
  }

  PPTPControlConnection::Deadlines deadlines_;
  vpnctl::FileDescriptor listener_;
  sockaddr_in address_{};
  bool established_ = false;
  bool answered_ = false;
  int calls_ = 0;  // that the server was asked for
  std::optional<std::string> sentence_;
};

// What follows a cut message is taken for its rest. Unless that happens to end where a message does, it is noticed.
TEST_F(PPTPControlConnectionFaultsTest, EndsAtAMessageThatIsCutAnywhere) {
  forEachMessage([&](const Named &message, const Bytes &before, const Bytes &after) {
    for (std::size_t size = 1; size < message.bytes.size(); ++size) {
      SCOPED_TRACE(std::string(message.name) + " cut to " + std::to_string(size));
      const Bytes cut(message.bytes.begin(), message.bytes.begin() + static_cast<std::ptrdiff_t>(size));
      const Outcome outcome = hear(joined({before, cut, after}));
      const bool inStepAgain = after.size() <= message.bytes.size() - size &&
                               (message.bytes.size() - size - after.size()) % kQuestionSize == 0;
      if (!inStepAgain) EXPECT_TRUE(outcome == Outcome::failed || outcome == Outcome::lost);
    }
  });
}

TEST_F(PPTPControlConnectionFaultsTest, SurvivesOrEndsWhicheverByteIsWrong) {
  forEachMessage([&](const Named &message, const Bytes &before, const Bytes &after) {
    for (std::size_t at = 0; at < message.bytes.size(); ++at)
      for (const int change : {0x01, 0x40, 0xff}) {
        SCOPED_TRACE(std::string(message.name) + ", byte " + std::to_string(at) + " by " + std::to_string(change));
        Bytes wrong = message.bytes;
        wrong[at] = static_cast<std::uint8_t>(wrong[at] ^ change);
        const Outcome outcome = hear(joined({before, wrong, after}));
        if ((at < 2 && !isOther(message)) || (at >= 2 && at < 8))
          EXPECT_TRUE(says("does not speak PPTP")) << sentence_.value_or("nothing");
        if (at == 10 || at == 11) {  // reserved
          const Bytes whole = joined({before, message.bytes, after});
          EXPECT_EQ(outcome, hear(whole));
        }
      }
  });
}

TEST_F(PPTPControlConnectionFaultsTest, BearsEverythingTwice) {
  forEachMessage([&](const Named &message, const Bytes &before, const Bytes &after) {
    SCOPED_TRACE(message.name);
    const Outcome once = hear(joined({before, message.bytes, after}));
    EXPECT_EQ(hear(joined({before, message.bytes, message.bytes, after})), once);
  });
  EXPECT_EQ(hear(joined({startReply(), callReply(), startReply(), callReply()})), Outcome::up);
}

// Of the messages before a call is up only the two replies have an order.
TEST_F(PPTPControlConnectionFaultsTest, BearsEveryOrderThatMakesSense) {
  const std::vector<Bytes> messages{startReply(), callReply(), pptp::encode(pptp::EchoRequest{7}),
                                    pptp::encode(pptp::SetLinkInfo{kOurCall}), pptp::encode(pptp::EchoReply{7})};
  std::vector<std::size_t> order(messages.size());
  std::iota(order.begin(), order.end(), 0U);
  do {
    Bytes stream;
    std::string trace;
    for (const std::size_t i : order) {
      stream = joined({stream, messages[i]});
      trace += std::to_string(i);
    }
    SCOPED_TRACE(trace);
    const bool sensible = std::find(order.begin(), order.end(), 0U) < std::find(order.begin(), order.end(), 1U);
    EXPECT_EQ(hear(stream), sensible ? Outcome::up : Outcome::waits);
    // And the right one once more after all.
    EXPECT_EQ(hear(joined({stream, callReply()})), Outcome::up);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(PPTPControlConnectionFaultsTest, EndsAtAnEndBeforeTheCallIsUp) {
  for (const Bytes &before : {Bytes{}, startReply()}) {
    EXPECT_EQ(hear(joined({before, pptp::encode(pptp::StopRequest{3})})), Outcome::failed);
    EXPECT_TRUE(says("has ended the control connection"));
    EXPECT_EQ(hear(joined({before, pptp::encode(pptp::CallDisconnectNotify{kServerCall, 3})})), Outcome::failed);
    EXPECT_TRUE(says("has ended the call (result 3, error 0)"));
  }
}

// A wrong length is noticed at once, not when as many bytes have come: a server in trouble may say no more.
TEST_F(PPTPControlConnectionFaultsTest, DoesNotWaitForTheRestOfAnImpossibleMessage) {
  forEachMessage([&](const Named &message, const Bytes &before, const Bytes &) {
    const bool lengthIsFree = isOther(message);
    for (const std::size_t length : {0U, 1U, 11U, 13U, 219U, 221U, 0xffffU}) {
      if (lengthIsFree && length > 12 && length < 221) continue;
      SCOPED_TRACE(std::string(message.name) + " of length " + std::to_string(length));
      Bytes wrong = message.bytes;
      wrong[0] = static_cast<std::uint8_t>(length >> 8);
      wrong[1] = static_cast<std::uint8_t>(length);
      wrong.resize(12);
      hear(joined({before, wrong}), false);
      EXPECT_TRUE(says(length > 12 && length < 221 ? "with the wrong length" : "impossible length"))
          << sentence_.value_or("nothing");
    }
  });
}

}  // namespace
