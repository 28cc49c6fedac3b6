#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <optional>
#include <thread>

#include "helper/l2tp/L2TPControlConnection.h"
#include "tests/helper/l2tp/L2TPServer.h"
#include "tests/support/LoopFixture.h"

using namespace helper;
using helper::testing::L2TPServer;
using std::chrono::milliseconds;

namespace {

class L2TPControlConnectionTest : public support::LoopFixture {
 protected:
  L2TPControlConnectionTest() {
    deadlines_.call = std::chrono::seconds(20);
    deadlines_.hello = std::chrono::minutes(1);
    deadlines_.stop = std::chrono::seconds(10);
    deadlines_.firstRetry = std::chrono::seconds(10);
    deadlines_.transport = {std::chrono::seconds(10), std::chrono::seconds(10), 2};
  }

  L2TPControlConnection &connect() {
    socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr *>(&server_.address()), sizeof(sockaddr_in)), 0);
    control_.emplace(event_, deadlines_,
                     L2TPControlConnection::Handlers{.answered = [this](const L2TPCall &call) -> vpnctl::Status {
                                                       call_ = call;
                                                       EXPECT_FALSE(established_);
                                                       if (noWay_) return vpnctl::Error{"Test", 0, "no way today"};
                                                       return {};
                                                     },
                                                     .established = [this] { established_ = true; },
                                                     .failed =
                                                         [this](const TunnelFailure &failure) {
                                                           EXPECT_FALSE(failure_);
                                                           failure_ = failure;
                                                           if (stopAtOnce_) control_->stop();
                                                         },
                                                     .lost =
                                                         [this](const TunnelLoss &loss) {
                                                           EXPECT_FALSE(lost_);
                                                           lost_ = loss;
                                                           if (stopAtOnce_) control_->stop();
                                                         },
                                                     .stopped = [this] { ++stopped_; }});
    control_->start(socket_.get());
    return *control_;
  }
  void establish() {
    connect();
    ASSERT_TRUE(runUntil([this] { return established_; }));
  }
  void expectFailure(DeviceCause cause, const std::string &part) {
    ASSERT_TRUE(runUntil([this] { return failure_.has_value(); }));
    EXPECT_EQ(failure_->cause, cause);
    EXPECT_NE(failure_->sentence.find(part), std::string::npos) << failure_->sentence;
    EXPECT_FALSE(established_);
    EXPECT_FALSE(lost_);
  }
  void expectLost(const std::string &part, bool endedByServer = false) {
    ASSERT_TRUE(runUntil([this] { return lost_.has_value(); }));
    EXPECT_NE(lost_->sentence.find(part), std::string::npos) << lost_->sentence;
    EXPECT_EQ(lost_->endedByServer, endedByServer) << lost_->sentence;
    EXPECT_TRUE(established_);
    EXPECT_FALSE(failure_);
  }
  void runUntilScriptEnds() {
    bool ended = false;
    const auto end = linux::EventSource::io(
        event_, server_.finished(), EPOLLIN, [&](std::uint32_t) { ended = true; });
    ASSERT_TRUE(runUntil([&] { return ended; }));
  }
  void expectStopped() {
    ASSERT_TRUE(runUntil([this] { return stopped_ > 0; }));
    EXPECT_EQ(stopped_, 1);
  }

  L2TPControlConnection::Deadlines deadlines_;
  bool noWay_ = false;
  bool stopAtOnce_ = false;
  bool established_ = false;
  std::optional<L2TPCall> call_;
  std::optional<TunnelFailure> failure_;
  std::optional<TunnelLoss> lost_;
  int stopped_ = 0;
  L2TPServer server_;
  vpnctl::FileDescriptor socket_;
  std::optional<L2TPControlConnection> control_;
};

TEST_F(L2TPControlConnectionTest, PlacesACallAndClearsIt) {
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.hearGoodbye();
  });
  establish();
  control_->stop();
  control_->stop();
  EXPECT_EQ(stopped_, 0);
  expectStopped();
  server_.join();
  EXPECT_EQ(call_->tunnelID, server_.clientTunnel());
  EXPECT_EQ(call_->sessionID, server_.clientSession());
  EXPECT_EQ(call_->peerTunnelID, L2TPServer::kTunnel);
  EXPECT_EQ(call_->peerSessionID, L2TPServer::kSession);
  control_->stop();
  control_.reset();
  EXPECT_EQ(stopped_, 1);
  EXPECT_FALSE(lost_);
}

TEST_F(L2TPControlConnectionTest, SaysWhatServersWantToHear) {
  l2tp::SCCRQ request;
  server_.play([&](L2TPServer &server) { request = server.expectStart(); });
  connect();
  server_.join();
  EXPECT_EQ(request.version, 0x0100);
  EXPECT_EQ(request.framingCapabilities, 3U);
  EXPECT_EQ(request.hostName, "vpnctl");
  EXPECT_EQ(request.window, 4);
  EXPECT_NE(request.tunnelID, 0);
}

TEST_F(L2TPControlConnectionTest, SaysWhenNobodyListens) {
  server_.stopListening();
  connect();
  expectFailure(DeviceCause::noServer, "refuses UDP port");
  control_->stop();
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, SaysWhenTheServerIsSilent) {
  deadlines_.call = milliseconds(20);
  connect();
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port");
  control_->stop();
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, SaysSoAlsoWhenItsPatienceIsLongerThanTheTransports) {
  deadlines_.firstRetry = milliseconds(1);
  deadlines_.transport = {milliseconds(1), milliseconds(1), 3};
  connect();
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port");
}

TEST_F(L2TPControlConnectionTest, AsksAgain) {
  deadlines_.firstRetry = milliseconds(5);
  deadlines_.transport.tries = 12;  // also when the server's turn comes late
  server_.play([](L2TPServer &server) {
    server.expectStart();
    EXPECT_TRUE(server.awaitRepetition());
  });
  connect();
  runUntilScriptEnds();
  EXPECT_FALSE(failure_);
}

TEST_F(L2TPControlConnectionTest, SaysWhenTheCallIsNotAnswered) {
  deadlines_.call = milliseconds(500);
  server_.play([](L2TPServer &server) {
    server.answerStart();
    server.acknowledge();
  });
  connect();
  expectFailure(DeviceCause::noAnswer, "does not answer the call request");
}

TEST_F(L2TPControlConnectionTest, SaysWhenTheTunnelIsRefused) {
  stopAtOnce_ = true;
  server_.play([](L2TPServer &server) {
    server.expectStart();
    server.send(l2tp::StopCCN{9, {4, 0, "not you"}});
    EXPECT_TRUE(server.awaitAcknowledgement());
    EXPECT_EQ(server.header().tunnelID, 9);
  });
  connect();
  expectFailure(DeviceCause::protocolError,
                "refuses the tunnel: this client is not authorized (result 4, error 0, \"not you\").");
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, SaysWhenTheCallIsRefused) {
  stopAtOnce_ = true;
  server_.play([](L2TPServer &server) {
    server.answerStart();
    server.send(l2tp::CDN{1, {2, 4, ""}}, server.clientSession());
    // There is no call any more, but a tunnel.
    server.expect<l2tp::StopCCN>();
    server.acknowledge();
  });
  connect();
  expectFailure(DeviceCause::protocolError, "refuses the call: it has no resources for it now (result 2, error 4).");
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, SaysWhyInEveryCase) {
  for (std::uint16_t result = 0; result < 14; ++result)
    for (const bool call : {false, true}) {
      L2TPServer server;
      server.play([&](L2TPServer &s) {
        if (!call) {
          s.expectStart();
          s.send(l2tp::StopCCN{9, {result, result, ""}});
        } else {
          s.answerStart();
          s.send(l2tp::CDN{1, {result, result, ""}}, s.clientSession());
        }
      });
      failure_.reset();
      socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      ASSERT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr *>(&server.address()), sizeof(sockaddr_in)),
                0);
      L2TPControlConnection control(event_, deadlines_,
                                    {.answered = [](const L2TPCall &) { return vpnctl::Status(); },
                                     .established = [] {},
                                     .failed = [this](const TunnelFailure &failure) { failure_ = failure; },
                                     .lost = [](const TunnelLoss &) {},
                                     .stopped = [] {}});
      control.start(socket_.get());
      ASSERT_TRUE(runUntil([this] { return failure_.has_value(); }));
      EXPECT_NE(failure_->sentence.find("(result " + std::to_string(result)), std::string::npos);
      EXPECT_EQ(failure_->sentence.find(":  "), std::string::npos) << failure_->sentence;
    }
}

TEST_F(L2TPControlConnectionTest, FailsWithoutAWayForThePackets) {
  noWay_ = true;
  server_.play([](L2TPServer &server) {
    server.answerStart();
    server.send(l2tp::ICRP{L2TPServer::kSession}, server.clientSession());
    server.hearGoodbye();
  });
  connect();
  expectFailure(DeviceCause::protocolError, "no way today");
  control_->stop();
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, EndsWhenTheServerAsksForASecret) {
  l2tp::StopCCN goodbye;
  stopAtOnce_ = true;
  server_.play([&](L2TPServer &server) {
    server.expectStart();
    l2tp::SCCRP reply;
    reply.tunnelID = L2TPServer::kTunnel;
    reply.challenge = {1, 2, 3};
    server.send(reply);
    goodbye = server.expect<l2tp::StopCCN>();
    server.acknowledge();
  });
  connect();
  expectFailure(DeviceCause::protocolError, "tunnel authentication");
  expectStopped();
  EXPECT_EQ(goodbye.result.result, 4);
}

TEST_F(L2TPControlConnectionTest, EndsWhenTheServerSpeaksAnotherVersion) {
  l2tp::StopCCN goodbye;
  stopAtOnce_ = true;
  server_.play([&](L2TPServer &server) {
    server.expectStart();
    l2tp::SCCRP reply;
    reply.version = 0x0200;
    reply.tunnelID = L2TPServer::kTunnel;
    server.send(reply);
    goodbye = server.expect<l2tp::StopCCN>();
    server.acknowledge();
  });
  connect();
  expectFailure(DeviceCause::protocolError, "version 2");
  expectStopped();
  EXPECT_EQ(goodbye.result.result, 5);
}

TEST_F(L2TPControlConnectionTest, EndsWhenItMustUnderstandAndDoesNot) {
  l2tp::StopCCN goodbye;
  stopAtOnce_ = true;
  server_.play([&](L2TPServer &server) {
    server.answerStart();
    auto body = l2tp::encodeBody(l2tp::ICRP{L2TPServer::kSession});
    const std::vector<std::uint8_t> vendors{0x80, 6, 0, 9, 0, 1};
    body.insert(body.end(), vendors.begin(), vendors.end());
    server.sendBody(body, server.clientSession());
    goodbye = server.expect<l2tp::StopCCN>();
    server.acknowledge();
  });
  connect();
  expectFailure(DeviceCause::protocolError, "attribute 1 of vendor 9, which must be understood and is unknown");
  expectStopped();
  EXPECT_EQ(goodbye.result, (l2tp::ResultCode{2, 8, ""}));
}

TEST_F(L2TPControlConnectionTest, EndsAtAMandatoryMessageOfALaterDay) {
  stopAtOnce_ = true;
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.send(l2tp::OtherMessage{99, false});
    server.send(l2tp::OtherMessage{15, true}, server.clientSession());  // call errors: known, and of no use
    server.send(l2tp::OtherMessage{99, true});
    server.hearGoodbye();
  });
  connect();
  expectLost("unknown type 99");
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, IgnoresWhatIsNotForIt) {
  server_.play([](L2TPServer &server) {
    server.answerStart();
    const auto refusal = l2tp::encodeBody(l2tp::StopCCN{9, {4, 0, ""}});
    const auto wrongTunnel = static_cast<std::uint16_t>(server.clientTunnel() + 1);
    server.sendDatagram(l2tp::encode(l2tp::Header{wrongTunnel, 0, 1, 3}, refusal));
    server.sendDatagram({1, 2, 3});
    auto version3 = l2tp::encode(l2tp::Header{server.clientTunnel(), 0, 1, 3}, refusal);
    version3[1] = 3;
    server.sendDatagram(version3);
    auto data = version3;
    data[0] = 0x40;
    data[1] = 2;
    server.sendDatagram(data);
    server.send(l2tp::CDN{1, {3, 0, ""}}, static_cast<std::uint16_t>(server.clientSession() + 1));
    server.send(l2tp::ICRP{1}, static_cast<std::uint16_t>(server.clientSession() + 1));
    server.send(l2tp::ICRP{L2TPServer::kSession}, server.clientSession());
    server.expect<l2tp::ICCN>();
  });
  establish();
  EXPECT_EQ(call_->peerSessionID, L2TPServer::kSession);
  EXPECT_FALSE(failure_);
}

TEST_F(L2TPControlConnectionTest, AcknowledgesHellos) {
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.send(l2tp::Hello{});
    EXPECT_TRUE(server.awaitAcknowledgement());
    server.send(l2tp::StopCCN{L2TPServer::kTunnel, {6, 0, ""}});
    EXPECT_TRUE(server.awaitAcknowledgement());
  });
  connect();
  expectLost("has ended the tunnel: it is shutting down", true);
}

TEST_F(L2TPControlConnectionTest, AsksWhenItIsQuietAndMissesTheAnswer) {
  deadlines_.hello = milliseconds(10);
  deadlines_.transport = {milliseconds(150), milliseconds(150), 3};
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.expect<l2tp::Hello>();
    server.acknowledge();
    server.expect<l2tp::Hello>();
  });
  connect();
  expectLost("no longer answers");
  control_->stop();
  expectStopped();
}

// A call that stands, with nothing of it still on its way.
void answerCallQuietly(L2TPServer &server) {
  server.answerStart();
  server.send(l2tp::ICRP{L2TPServer::kSession}, server.clientSession());
  server.expect<l2tp::ICCN>();
}

TEST_F(L2TPControlConnectionTest, DoesNotWaitLongForWhatIsChecked) {
  deadlines_.check = milliseconds(50);
  server_.play([](L2TPServer &server) {
    answerCallQuietly(server);
    server.expect<l2tp::Hello>();
  });
  connect();
  ASSERT_TRUE(runUntil([this] { return established_; }));
  control_->check();
  expectLost("no longer answers");
  control_->stop();
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, IsThereWhenItAnswersWhatIsChecked) {
  deadlines_.check = milliseconds(1000);
  server_.play([](L2TPServer &server) {
    answerCallQuietly(server);
    server.expect<l2tp::Hello>();
    server.acknowledge();
    std::this_thread::sleep_for(milliseconds(1500));
    server.send(l2tp::CDN{L2TPServer::kSession, {3, 0, ""}}, server.clientSession());
  });
  connect();
  ASSERT_TRUE(runUntil([this] { return established_; }));
  control_->check();
  expectLost("has ended the call: the administrator's doing (result 3, error 0)", true);
}

TEST_F(L2TPControlConnectionTest, IsAnsweredByABareAcknowledgementToo) {
  server_.play([](L2TPServer &server) {
    server.expectStart();
    server.acknowledge();
  });
  connect();
  EXPECT_FALSE(control_->isAnswered());
  EXPECT_TRUE(runUntil([this] { return control_->isAnswered(); }));
}

TEST(L2TPControlConnectionDeadlines, GiveASlowServerTimeBeforeItHearsTheFirstMessageAgain) {
  EXPECT_GE(L2TPControlConnection::Deadlines().firstRetry, milliseconds(300));
}

TEST_F(L2TPControlConnectionTest, IsLostWhenTheServerEndsTheCall) {
  stopAtOnce_ = true;
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.send(l2tp::CDN{L2TPServer::kSession, {3, 0, ""}}, server.clientSession());
    server.expect<l2tp::StopCCN>();
    server.acknowledge();
  });
  connect();
  expectLost("has ended the call: the administrator's doing (result 3, error 0)", true);
  expectStopped();
}

// Its acknowledgement may get lost; the server asks for it while we take PPP down.
TEST_F(L2TPControlConnectionTest, AcknowledgesTheEndAsOftenAsItIsTold) {
  int acknowledgements = 0;
  server_.play([&](L2TPServer &server) {
    server.answerCall();
    server.send(l2tp::StopCCN{L2TPServer::kTunnel, {1, 0, ""}});
    acknowledgements += server.awaitAcknowledgement();
    server.repeat();
    acknowledgements += server.awaitAcknowledgement();
  });
  connect();
  expectLost("has ended the tunnel", true);
  runUntilScriptEnds();
  server_.join();
  EXPECT_EQ(acknowledgements, 2);
}

TEST_F(L2TPControlConnectionTest, IsNotLostToWhoeverRefusesThePort) {
  server_.play([](L2TPServer &server) { server.answerCall(); });
  establish();
  server_.join();
  server_.stopListening();
  control_->stop();
  expectStopped();  // the refusal says that nobody is left to wait for
  EXPECT_FALSE(lost_);
}

TEST_F(L2TPControlConnectionTest, TellsItsStopOnce) {
  deadlines_.stop = milliseconds(1);
  server_.play([](L2TPServer &server) { server.answerCall(); });
  establish();
  control_->stop();
  expectStopped();
  control_->stop();
  ASSERT_GE(sd_event_run(event_, 0), 0);
  ASSERT_GE(sd_event_run(event_, 0), 0);
  EXPECT_EQ(stopped_, 1);
}

TEST_F(L2TPControlConnectionTest, StopsBeforeItsStart) {
  control_.emplace(event_, deadlines_,
                   L2TPControlConnection::Handlers{
                       .answered = {}, .established = {}, .failed = {}, .lost = {}, .stopped = [this] { ++stopped_; }});
  control_->stop();
  EXPECT_EQ(stopped_, 0);
  expectStopped();
}

TEST_F(L2TPControlConnectionTest, SaysGoodbyeAgainWhenItIsNotAcknowledged) {
  deadlines_.stop = milliseconds(400);
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.expect<l2tp::StopCCN>();
    EXPECT_TRUE(server.awaitRepetition());
    server.acknowledge();
  });
  establish();
  control_->stop();
  expectStopped();
  server_.join();
}

// Half a tunnel is also one, on the server's side: it is told, but not waited for.
TEST_F(L2TPControlConnectionTest, StopsBeforeTheFirstAnswer) {
  l2tp::StopCCN goodbye;
  server_.play([&](L2TPServer &server) {
    server.expectStart();
    goodbye = server.expect<l2tp::StopCCN>();
    EXPECT_EQ(server.header().tunnelID, 0);
  });
  connect().stop();
  expectStopped();
  server_.join();
  EXPECT_EQ(goodbye.tunnelID, server_.clientTunnel());
  EXPECT_FALSE(failure_);
}

TEST_F(L2TPControlConnectionTest, StopCrossesTheServersGoodbye) {
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.expect<l2tp::StopCCN>();
    server.sendBefore(l2tp::CDN{L2TPServer::kSession, {3, 0, ""}}, server.clientSession());
    server.sendBefore(l2tp::StopCCN{L2TPServer::kTunnel, {1, 0, ""}});
    // Otherwise it would say it again, and remember us until it has given up.
    EXPECT_TRUE(server.awaitAcknowledgement());
  });
  establish();
  control_->stop();
  expectStopped();
  EXPECT_FALSE(lost_);
}

TEST_F(L2TPControlConnectionTest, AlsoAcknowledgesAGoodbyeThatAcknowledgesIts) {
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.expect<l2tp::StopCCN>();
    server.send(l2tp::StopCCN{L2TPServer::kTunnel, {1, 0, ""}});
    EXPECT_TRUE(server.awaitAcknowledgement());
  });
  establish();
  control_->stop();
  expectStopped();
  EXPECT_FALSE(lost_);
}

TEST_F(L2TPControlConnectionTest, SaysGoodbyeWhenItIsDestroyedAlsoOnAFinishedLoop) {
  for (const bool finished : {false, true}) {
    established_ = false;
    L2TPServer server;
    server.play([](L2TPServer &s) {
      s.answerCall();
      s.hearGoodbye();
    });
    socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr *>(&server.address()), sizeof(sockaddr_in)), 0);
    control_.emplace(event_, deadlines_,
                     L2TPControlConnection::Handlers{.answered = [](const L2TPCall &) { return vpnctl::Status(); },
                                                     .established = [this] { established_ = true; },
                                                     .failed = [](const TunnelFailure &) {},
                                                     .lost = [](const TunnelLoss &) {},
                                                     .stopped = [this] { ++stopped_; }});
    control_->start(socket_.get());
    ASSERT_TRUE(runUntil([this] { return established_; }));
    if (finished) finishLoop();
    control_.reset();
    server.join();
    EXPECT_EQ(stopped_, 0);
  }
}

TEST_F(L2TPControlConnectionTest, FallsSilent) {
  server_.play([](L2TPServer &server) { server.answerCall(); });
  establish();
  server_.join();
  ASSERT_FALSE(server_.heardAnything());
  control_->fallSilent();
  control_->stop();
  expectStopped();
  control_.reset();
  EXPECT_FALSE(server_.heardAnything());
  EXPECT_FALSE(lost_);
}

TEST_F(L2TPControlConnectionTest, FallsSilentWhileItSaysGoodbye) {
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.expect<l2tp::StopCCN>();
  });
  establish();
  control_->stop();
  server_.join();
  control_->fallSilent();
  EXPECT_EQ(stopped_, 0);
  expectStopped();
}

}  // namespace
