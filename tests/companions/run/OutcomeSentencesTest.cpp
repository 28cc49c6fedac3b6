// The helper's own code makes the sentences here: whoever changes one sees whether it is still understood.

#include <gtest/gtest.h>
#include <netdb.h>

#include <array>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "companions/run/Outcome.h"
#include "helper/common/ServerAddress.h"
#include "helper/ike/IKESentences.h"
#include "helper/l2tp/L2TPControlConnection.h"
#include "helper/network/NameResolution.h"
#include "helper/ppp/PPPEnding.h"
#include "helper/pptp/PPTPControlConnection.h"
#include "tests/helper/l2tp/L2TPServer.h"
#include "tests/helper/pptp/PPTPServer.h"
#include "tests/support/LoopFixture.h"

using namespace companions;
using helper::isakmp::Reason;
using helper::isakmp::Refused;
using helper::isakmp::Stage;
using helper::testing::L2TPServer;
using helper::testing::PPTPServer;
using Kind = Outcome::Kind;

namespace {

Kind kindOf(const std::string &sentence, int cause = helper::kCauseConnectFailed) {
  Outcome outcome;
  outcome.hear("Connecting PPP link");
  outcome.hear("Mon Nov 23 14:16:18 2026 : " + sentence);
  outcome.hear("Error: Exec format error, cause: " + std::to_string(cause));
  outcome.ended(true, 0);
  return outcome.kind();
}

constexpr std::array kStages{Stage::firstAnswer, Stage::keyExchange, Stage::authentication, Stage::association,
                             Stage::established};

TEST(OutcomeSentences, IKEForEveryReasonAndStage) {
  helper::EngineSettings::IKE settings;
  std::vector<std::string> unusable;
  const auto offered = helper::IKEProposals::from(settings, false, unusable);
  ASSERT_TRUE(offered);
  for (int number = 0; number <= static_cast<int>(Reason::notInstalled); ++number)
    for (const Stage stage : kStages)
      for (const bool certificateRequested : {false, true})
        for (const std::uint16_t notification : {std::uint16_t{0}, std::uint16_t{14}})
          for (const bool kernelKnowsESP : {false, true}) {
            const auto reason = static_cast<Reason>(number);
            const Refused refused{.stage = stage,
                                  .reason = reason,
                                  .notification = notification,
                                  .detail = "something",
                                  .certificateRequested = certificateRequested};
            const helper::IKESituation situation{.server = "192.0.2.1",
                                                 .settings = settings,
                                                 .offered = *offered,
                                                 .identity = "192.0.2.9",
                                                 .flowLocalPort = 1701,
                                                 .otherFlowLocalPort = 5000,
                                                 .flowRemotePort = 1701,
                                                 .kernelRefusal = "no such cipher",
                                                 .kernelKnowsESP = kernelKnowsESP};
            const std::string sentence = helper::sentenceFor(refused, situation);
            // This machine's own kernel is neither a server that is not there nor one that refuses.
            const Kind expected = reason == Reason::notInstalled                             ? Kind::unknown
                                  : reason == Reason::silence && stage == Stage::firstAnswer ? Kind::notReached
                                                                                             : Kind::ipsecRefused;
            EXPECT_EQ(kindOf(sentence), expected) << sentence;
          }
}

TEST(OutcomeSentences, IPSecThatIsLostBeforeTheCallStands) {
  EXPECT_EQ(kindOf(helper::sentenceFor({.byServer = true, .reason = Reason::silence, .detail = ""}, "192.0.2.1")),
            Kind::ipsecRefused);
  EXPECT_EQ(kindOf(helper::sentenceFor({.byServer = false, .reason = Reason::silence, .detail = ""}, "192.0.2.1")),
            Kind::notReached);
  EXPECT_EQ(
      kindOf(helper::sentenceFor({.byServer = false, .reason = Reason::otherwise, .detail = "something"}, "192.0.2.1")),
      Kind::ipsecRefused);
}

TEST(OutcomeSentences, ServersThatNobodyCanCall) {
  for (const char *text : {"", "0.0.0.1", "224.0.0.1", "2001:db8::1", "no host", "1.2"}) {
    const auto parsed = helper::serverAddressFrom(text);
    ASSERT_FALSE(parsed) << text;
    EXPECT_EQ(kindOf(parsed.error().message), Kind::configuration) << parsed.error().message;
  }
}

TEST(OutcomeSentences, EveryCauseOfPPPD) {
  const std::map<int, Kind> expected{{helper::kCauseUserRequest, Kind::byRequest},
                                     {helper::kCauseNegotiationFailed, Kind::notNegotiated},
                                     {helper::kCauseHungUp, Kind::notNegotiated},
                                     {helper::kCauseNotAuthenticated, Kind::accountRefused},
                                     {helper::kCauseFatal, Kind::unknown},
                                     {15, Kind::notNegotiated},
                                     {0, Kind::notNegotiated}};
  for (int code = 0; code < 22; ++code) {
    if (code == helper::kCauseConnectFailed) continue;  // the sentence tells
    const std::string sentence = helper::endingSentence({.code = code}, {});
    const auto row = expected.find(code);
    EXPECT_EQ(kindOf(sentence, code), row == expected.end() ? Kind::unknown : row->second) << code << ": " << sentence;
  }
}

class NameSentences : public support::LoopFixture {
 protected:
  std::string sentenceFor(const helper::NameResolution::Resolver &resolver,
                          std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    std::string sentence;
    const helper::NameResolution resolution(
        event_, "vpn.example.org", [&](const auto &addresses) { sentence = addresses.error().message; }, resolver,
        deadline);
    EXPECT_TRUE(runUntil([&] { return !sentence.empty(); }));
    return sentence;
  }
};

TEST_F(NameSentences, TheServerIsNotReached) {
  const auto unknown = sentenceFor([](const std::string &, auto &) { return EAI_NONAME; });
  EXPECT_EQ(kindOf(unknown), Kind::notReached) << unknown;
  const auto useless = sentenceFor([](const std::string &, auto &) { return 0; });
  EXPECT_EQ(kindOf(useless), Kind::notReached) << useless;
  const auto release = std::make_shared<std::promise<void>>();
  const auto late = sentenceFor(
      [release](const std::string &, auto &) {
        release->get_future().wait();
        return 0;
      },
      std::chrono::milliseconds(1));
  release->set_value();
  EXPECT_EQ(kindOf(late), Kind::notReached) << late;
}

class L2TPSentences : public support::LoopFixture {
 protected:
  // What is said of a call that the server answers as SCRIPT does.
  std::string sentenceFor(const std::function<void(L2TPServer &)> &script, bool listens = true,
                          std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    L2TPServer server;
    if (!listens) server.stopListening();
    if (listens && script) server.play(script);
    const vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr *>(&server.address()), sizeof(sockaddr_in)), 0);
    helper::L2TPControlConnection::Deadlines deadlines;
    deadlines.call = deadline;
    std::string sentence;
    helper::L2TPControlConnection control(event_, deadlines,
                                          {.answered = [](const helper::L2TPCall &) { return vpnctl::Status(); },
                                           .established = [] {},
                                           .failed = [&](const auto &failure) { sentence = failure.sentence; },
                                           .lost = [](const auto &) {},
                                           .stopped = [] {}});
    control.start(socket.get());
    EXPECT_TRUE(runUntil([&] { return !sentence.empty(); }));
    return sentence;
  }
};

TEST_F(L2TPSentences, TheServerIsNotReached) {
  const auto refused = sentenceFor({}, false);
  EXPECT_EQ(kindOf(refused), Kind::notReached) << refused;
  const auto silent = sentenceFor({}, true, std::chrono::milliseconds(100));
  EXPECT_EQ(kindOf(silent), Kind::notReached) << silent;
  // Time enough for the server's script; what it does not answer is then the call.
  const auto mute = sentenceFor(
      [](L2TPServer &server) {
        server.answerStart();
        server.acknowledge();
      },
      true, std::chrono::seconds(2));
  EXPECT_EQ(kindOf(mute), Kind::notReached) << mute;
}

TEST_F(L2TPSentences, TheServerRefusesTheCall) {
  const auto tunnel = sentenceFor([](L2TPServer &server) {
    server.expectStart();
    server.send(helper::l2tp::StopCCN{9, {4, 0, "not you"}});
  });
  EXPECT_EQ(kindOf(tunnel), Kind::callRefused) << tunnel;
  const auto call = sentenceFor([](L2TPServer &server) {
    server.answerStart();
    server.send(helper::l2tp::CDN{1, {2, 4, ""}}, server.clientSession());
  });
  EXPECT_EQ(kindOf(call), Kind::callRefused) << call;
}

class PPTPSentences : public support::LoopFixture {
 protected:
  std::string sentenceFor(const std::function<void(PPTPServer &)> &script, bool answers = true) {
    PPTPServer server;
    if (!script) server.stopListening();
    if (script) server.play(script);
    helper::PPTPControlConnection::Deadlines deadlines;
    deadlines.reply = answers ? std::chrono::seconds(20) : std::chrono::milliseconds(100);
    std::string sentence;
    {
      helper::PPTPControlConnection control(
          event_, server.address(), deadlines,
          {.connected = [](in_addr) { return vpnctl::Result<std::uint16_t>(helper::testing::kOurCall); },
           .established = [](std::uint16_t) {},
           .failed = [&](const auto &failure) { sentence = failure.sentence; },
           .lost = [](const auto &) {},
           .stopped = [] {}});
      control.start();
      EXPECT_TRUE(runUntil([&] { return !sentence.empty(); }));
    }
    return sentence;
  }
};

TEST_F(PPTPSentences, TheServerIsNotReached) {
  const auto refused = sentenceFor({});
  EXPECT_EQ(kindOf(refused), Kind::notReached) << refused;
  const auto silent = sentenceFor([](PPTPServer &server) { server.untilClosed(); }, false);
  EXPECT_EQ(kindOf(silent), Kind::notReached) << silent;
}

TEST_F(PPTPSentences, TheServerRefusesTheCall) {
  const auto closed = sentenceFor([](PPTPServer &server) { server.receive(); });
  EXPECT_EQ(kindOf(closed), Kind::callRefused) << closed;
  const auto connection = sentenceFor([](PPTPServer &server) {
    server.receive();
    helper::pptp::StartReply reply;
    reply.result = 4;
    server.send(reply);
    server.untilClosed();
  });
  EXPECT_EQ(kindOf(connection), Kind::callRefused) << connection;
  const auto ended = sentenceFor([](PPTPServer &server) {
    server.receive();
    server.send(helper::pptp::StopRequest{});
    server.untilClosed();
  });
  EXPECT_EQ(kindOf(ended), Kind::callRefused) << ended;
}

}  // namespace
