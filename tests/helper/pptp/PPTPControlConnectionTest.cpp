#include <functional>
#include <optional>

#include "helper/pptp/PPTPControlConnection.h"
#include "tests/helper/pptp/PPTPServer.h"
#include "tests/support/LoopFixture.h"

using namespace helper;
using std::chrono::milliseconds;

namespace {

using helper::testing::kOurCall;
using helper::testing::kServerCall;
using Server = helper::testing::PPTPServer;

class PPTPControlConnectionTest : public support::LoopFixture {
 protected:
  PPTPControlConnectionTest() {
    deadlines_.echoInterval = std::chrono::minutes(1);
    deadlines_.stop = std::chrono::seconds(10);
  }

  PPTPControlConnection &connect() {
    control_.emplace(
        event_, server_.address(), deadlines_,
        PPTPControlConnection::Handlers{.connected = [this](in_addr local) -> vpnctl::Result<std::uint16_t> {
                                          EXPECT_EQ(local.s_addr, htonl(INADDR_LOOPBACK));
                                          if (noSocket_) return vpnctl::Error{"Test", 0, "no socket today"};
                                          return kOurCall;
                                        },
                                        .established = [this](std::uint16_t call) { established_ = call; },
                                        .failed = [this](const Tunnel::Failure &failure) { failure_ = failure; },
                                        .lost = [this](const Tunnel::Loss &loss) { lost_ = loss; },
                                        .stopped = [this] { ++stopped_; }});
    control_->start();
    return *control_;
  }
  void expectFailure(Tunnel::DeviceCause cause, const std::string &part) {
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

  PPTPControlConnection::Deadlines deadlines_;
  bool noSocket_ = false;
  std::optional<std::uint16_t> established_;
  std::optional<Tunnel::Failure> failure_;
  std::optional<Tunnel::Loss> lost_;
  int stopped_ = 0;
  Server server_;
  std::optional<PPTPControlConnection> control_;
};

TEST_F(PPTPControlConnectionTest, PlacesACallAndClearsIt) {
  std::vector<std::size_t> goodbye;
  server_.play([&](Server &server) {
    server.answerCall();
    goodbye.push_back(server.receive()->index());
    server.send(pptp::CallDisconnectNotify{kServerCall, 4});
    goodbye.push_back(server.receive()->index());
    server.send(pptp::StopReply{});
    server.untilClosed();
  });
  auto &control = connect();
  ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
  EXPECT_EQ(*established_, kServerCall);
  control.stop();
  control.stop();
  EXPECT_EQ(stopped_, 0);
  ASSERT_TRUE(runUntil([this] { return stopped_ > 0; }));
  control_.reset();
  EXPECT_EQ(stopped_, 1);
  EXPECT_FALSE(lost_);
}

TEST_F(PPTPControlConnectionTest, UnderstandsAnswersThatComeByteByByte) {
  server_.play([](Server &server) {
    server.expect<pptp::StartRequest>();
    for (const std::uint8_t byte : pptp::encode(pptp::StartReply{})) server.sendBytes({byte});
    server.expect<pptp::OutgoingCallRequest>();
    for (const std::uint8_t byte : pptp::encode(pptp::OutgoingCallReply{kServerCall, kOurCall}))
      server.sendBytes({byte});
    server.untilClosed();
  });
  connect();
  ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
  control_.reset();
}

TEST_F(PPTPControlConnectionTest, SaysWhenNobodyListens) {
  server_.stopListening();
  connect();
  expectFailure(Tunnel::DeviceCause::noServer, "refuses TCP port");
}

TEST_F(PPTPControlConnectionTest, SaysWhenTheServerIsSilent) {
  deadlines_.reply = milliseconds(20);
  server_.play([](Server &server) { server.untilClosed(); });
  connect();
  expectFailure(Tunnel::DeviceCause::noAnswer, "does not answer as a PPTP server");
}

TEST_F(PPTPControlConnectionTest, SaysWhenTheCallIsNotAnswered) {
  deadlines_.reply = milliseconds(200);
  server_.play([](Server &server) {
    server.answerStart();
    server.untilClosed();
  });
  connect();
  expectFailure(Tunnel::DeviceCause::noAnswer, "does not answer the call request");
}

TEST_F(PPTPControlConnectionTest, DoesNotGiveEachStageTheTimeOfAll) {
  deadlines_ = PPTPControlConnection::Deadlines::within(milliseconds(200), milliseconds(60000));
  EXPECT_EQ(deadlines_.connect, milliseconds(120));
  EXPECT_EQ(deadlines_.reply, milliseconds(80));
  deadlines_.reply = std::chrono::seconds(100);
  server_.play([](Server &server) {
    server.answerStart();
    server.untilClosed();
  });
  connect();
  expectFailure(Tunnel::DeviceCause::noAnswer, "does not answer the call request");
}

TEST_F(PPTPControlConnectionTest, SaysWhenTheControlConnectionIsRefused) {
  server_.play([](Server &server) {
    server.expect<pptp::StartRequest>();
    pptp::StartReply refusal;
    refusal.result = 4;
    server.send(refusal);
    server.untilClosed();
  });
  connect();
  expectFailure(Tunnel::DeviceCause::protocolError, "refuses the control connection: this client is not authorized");
}

TEST_F(PPTPControlConnectionTest, SaysWhenTheCallIsRefused) {
  server_.play([](Server &server) {
    server.answerStart();
    server.expect<pptp::OutgoingCallRequest>();
    server.send(pptp::OutgoingCallReply{0, kOurCall, 4, 0, 17});
    server.untilClosed();
  });
  connect();
  expectFailure(Tunnel::DeviceCause::protocolError, "refuses the call: busy (result 4, error 0), cause 17");
}

TEST_F(PPTPControlConnectionTest, IgnoresTheAnswerToAnotherCall) {
  server_.play([](Server &server) {
    server.answerStart();
    server.expect<pptp::OutgoingCallRequest>();
    server.send(pptp::OutgoingCallReply{1, kOurCall + 1, 4});
    server.send(pptp::OutgoingCallReply{kServerCall, kOurCall});
    server.untilClosed();
  });
  connect();
  ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
  EXPECT_EQ(*established_, kServerCall);
  control_.reset();
}

TEST_F(PPTPControlConnectionTest, SaysWhenTheServerHangsUpBeforeItAnswers) {
  server_.play([](Server &server) { server.expect<pptp::StartRequest>(); });
  connect();
  expectFailure(Tunnel::DeviceCause::protocolError, "closed the control connection without an answer");
}

TEST_F(PPTPControlConnectionTest, SaysWhenItIsNotPPTP) {
  server_.play([](Server &server) {
    const std::string text = "HTTP/1.1 400 Bad Request\r\n\r\n";
    server.sendBytes({text.begin(), text.end()});
    server.untilClosed();
  });
  connect();
  expectFailure(Tunnel::DeviceCause::protocolError, "does not speak PPTP");
}

TEST_F(PPTPControlConnectionTest, FailsWithoutASocketOfItsOwn) {
  noSocket_ = true;
  server_.play([](Server &server) { server.untilClosed(); });
  connect();
  expectFailure(Tunnel::DeviceCause::protocolError, "no socket today");
}

TEST_F(PPTPControlConnectionTest, AnswersEchoes) {
  std::uint32_t answer = 0;
  server_.play([&](Server &server) {
    server.answerCall();
    server.send(pptp::EchoRequest{99});
    answer = server.expect<pptp::EchoReply>().identifier;
  });
  connect();
  expectLost("closed the control connection", true);  // the script is at its end
  server_.join();
  EXPECT_EQ(answer, 99U);
}

TEST_F(PPTPControlConnectionTest, AsksForEchoesAndMissesThem) {
  deadlines_.echoInterval = milliseconds(10);
  deadlines_.echoReply = milliseconds(150);
  server_.play([](Server &server) {
    server.answerCall();
    server.send(pptp::EchoReply{server.expect<pptp::EchoRequest>().identifier});
    server.expect<pptp::EchoRequest>();
    server.untilClosed();
  });
  connect();
  expectLost("no longer answers");
}

TEST_F(PPTPControlConnectionTest, ChecksAtOnce) {
  server_.play([](Server &server) {
    server.answerCall();
    server.send(pptp::EchoReply{server.expect<pptp::EchoRequest>().identifier});
    server.send(pptp::CallDisconnectNotify{kServerCall, 3, 0, 0});
    server.untilClosed();
  });
  connect();
  ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
  control_->check();
  expectLost("has ended the call (result 3, error 0)", true);
}

TEST_F(PPTPControlConnectionTest, DoesNotWaitLongForWhatIsChecked) {
  deadlines_.check = milliseconds(20);
  server_.play([](Server &server) {
    server.answerCall();
    server.expect<pptp::EchoRequest>();
    server.untilClosed();
  });
  connect();
  ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
  control_->check();
  expectLost("no longer answers");
}

TEST_F(PPTPControlConnectionTest, IsLostWhenTheServerEndsTheCall) {
  server_.play([](Server &server) {
    server.answerCall();
    server.send(pptp::CallDisconnectNotify{kServerCall, 3, 0, 0});
    server.untilClosed();
  });
  connect();
  expectLost("has ended the call (result 3, error 0)", true);
}

TEST_F(PPTPControlConnectionTest, IsLostWhenTheServerStops) {
  server_.play([](Server &server) {
    server.answerCall();
    server.send(pptp::StopRequest{});
    server.expect<pptp::StopReply>();
    server.untilClosed();
  });
  connect();
  expectLost("has ended the control connection", true);
}

TEST_F(PPTPControlConnectionTest, IsLostWhenTheServerDies) {
  server_.play([](Server &server) { server.answerCall(); });
  connect();
  expectLost("closed the control connection", true);
}

TEST_F(PPTPControlConnectionTest, IsLostWhenTheServerDoesNotRead) {
  server_.play([](Server &server) {
    server.answerCall();
    server.askWithoutReading();
  });
  connect();
  expectLost("does not read");
}

TEST_F(PPTPControlConnectionTest, TellsItsStopOnce) {
  server_.play([](Server &server) {
    server.answerCall();
    server.untilClosed();
  });
  deadlines_.stop = milliseconds(1);
  connect();
  ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
  control_->stop();
  ASSERT_TRUE(runUntil([this] { return stopped_ == 1; }));
  control_->stop();
  ASSERT_GE(sd_event_run(event_, 0), 0);
  ASSERT_GE(sd_event_run(event_, 0), 0);
  EXPECT_EQ(stopped_, 1);
}

TEST_F(PPTPControlConnectionTest, StopsBeforeTCPIsConnected) {
  connect().stop();
  EXPECT_EQ(stopped_, 0);
  ASSERT_TRUE(runUntil([this] { return stopped_ == 1; }));
  EXPECT_FALSE(failure_);
}

TEST_F(PPTPControlConnectionTest, StopDoesNotWaitForAServerThatDoesNotAnswer) {
  deadlines_.stop = milliseconds(20);
  server_.play([](Server &server) {
    server.answerCall();
    server.untilClosed();
  });
  auto &control = connect();
  ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
  control.stop();
  ASSERT_TRUE(runUntil([this] { return stopped_ == 1; }));
  EXPECT_FALSE(lost_);
}

TEST_F(PPTPControlConnectionTest, SaysGoodbyeWhenItIsDestroyed) {
  bool cleared = false;
  bool stopped = false;
  {
    server_.play([&](Server &server) {
      server.answerCall();
      server.expect<pptp::CallClearRequest>();
      cleared = true;
      server.expect<pptp::StopRequest>();
      stopped = true;
      server.untilClosed();
    });
    connect();
    ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
    control_.reset();
  }
  server_.join();
  EXPECT_TRUE(cleared);
  EXPECT_TRUE(stopped);
}

TEST_F(PPTPControlConnectionTest, SaysGoodbyeOnAFinishedLoop) {
  bool cleared = false;
  bool stopped = false;
  {
    server_.play([&](Server &server) {
      server.answerCall();
      server.expect<pptp::CallClearRequest>();
      cleared = true;
      server.expect<pptp::StopRequest>();
      stopped = true;
      server.untilClosed();
    });
    connect();
    ASSERT_TRUE(runUntil([this] { return established_.has_value(); }));
    finishLoop();
    control_.reset();
  }
  server_.join();
  EXPECT_TRUE(cleared);
  EXPECT_TRUE(stopped);
}

}  // namespace
