#include <optional>

#include "helper/pptp/PPTPTunnel.h"
#include "tests/helper/pptp/PPTPServer.h"
#include "tests/support/LoopFixture.h"

using namespace helper;
using helper::testing::kOurCall;
using helper::testing::kServerCall;
using helper::testing::PPTPServer;

namespace {

// A way for packets that leads nowhere, and writes down what it is asked.
class RecordingDataPath : public PPTPDataPath {
 public:
  struct Book {
    std::vector<std::string> calls;
    std::string failing;
    in_addr local{};
    in_addr peer{};
    std::uint16_t peerCallID = 0;
    vpnctl::Status note(const std::string &call) {
      calls.push_back(call);
      if (call == failing) return vpnctl::Error{"Test", 0, "not in this kernel"};
      return {};
    }
  };

  explicit RecordingDataPath(Book &book) : book_(book) {}
  vpnctl::Status probe() override { return book_.note("probe"); }
  vpnctl::Result<std::uint16_t> bind(in_addr local) override {
    book_.local = local;
    if (const vpnctl::Status status = book_.note("bind"); !status) return status.error();
    return kOurCall;
  }
  vpnctl::Result<TunnelChannel> connect(in_addr peer, std::uint16_t peerCallID) override {
    book_.peer = peer;
    book_.peerCallID = peerCallID;
    if (const vpnctl::Status status = book_.note("connect"); !status) return status.error();
    return TunnelChannel(vpnctl::FileDescriptor(::dup(STDIN_FILENO)));
  }

 private:
  Book &book_;
};

class PPTPTunnelTest : public support::LoopFixture {
 protected:
  using Calls = std::vector<std::string>;

  PPTPTunnel &start() {
    tunnel_.emplace(event_, server_.address(), EngineSettings::PPTP{}, std::make_unique<RecordingDataPath>(path_),
                    Tunnel::Handlers{.up = [this](TunnelChannel channel) { up_ = bool(channel.socket); },
                                     .failed = [this](const TunnelFailure &failure) { failure_ = failure; },
                                     .lost = [this](const TunnelLoss &loss) { lost_ = loss; },
                                     .stopped = [this] { ++stopped_; }});
    tunnel_->start();
    return *tunnel_;
  }
  void expectFailure(const std::string &part) {
    ASSERT_TRUE(runUntil([this] { return failure_.has_value(); }));
    EXPECT_EQ(failure_->cause, DeviceCause::protocolError);
    EXPECT_NE(failure_->sentence.find(part), std::string::npos) << failure_->sentence;
    EXPECT_FALSE(up_);
  }

  RecordingDataPath::Book path_;
  std::optional<bool> up_;
  std::optional<TunnelFailure> failure_;
  std::optional<TunnelLoss> lost_;
  int stopped_ = 0;
  PPTPServer server_;
  std::optional<PPTPTunnel> tunnel_;
};

TEST_F(PPTPTunnelTest, ComesUpAndGoesDownInOrder) {
  server_.play([](PPTPServer &server) {
    server.answerCall();
    server.untilClosed();
  });
  start();
  ASSERT_TRUE(runUntil([this] { return up_.has_value(); }));
  EXPECT_TRUE(*up_);
  EXPECT_EQ(path_.calls, (Calls{"probe", "bind", "connect"}));
  EXPECT_EQ(path_.local.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(path_.peer.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(path_.peerCallID, kServerCall);
  tunnel_->stop();
  EXPECT_EQ(stopped_, 0) << "nothing is told from within a call";
  ASSERT_TRUE(runUntil([this] { return stopped_ > 0; }));
  EXPECT_EQ(stopped_, 1);
}

TEST_F(PPTPTunnelTest, AsksNobodyWithoutTheKernelsHelp) {
  path_.failing = "probe";
  start();
  EXPECT_FALSE(failure_) << "nothing is told from within a call";
  expectFailure("No PPTP connection is possible: not in this kernel.");
  EXPECT_EQ(path_.calls, (Calls{"probe"}));
  server_.play([](PPTPServer &) {});
  // So that the server's script ends.
  const vpnctl::FileDescriptor visitor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::connect(visitor.get(), reinterpret_cast<const sockaddr *>(&server_.address()), sizeof(sockaddr_in)), 0);
}

TEST_F(PPTPTunnelTest, AStopTakesAFailureBackThatWasNotToldYet) {
  path_.failing = "probe";
  start().stop();
  ASSERT_TRUE(runUntil([this] { return stopped_ > 0; }));
  EXPECT_FALSE(failure_);
}

TEST_F(PPTPTunnelTest, FailsWithoutACallID) {
  path_.failing = "bind";
  server_.play([](PPTPServer &server) { server.untilClosed(); });
  start();
  ASSERT_TRUE(runUntil([this] { return failure_.has_value(); }));
  EXPECT_NE(failure_->sentence.find("not in this kernel"), std::string::npos) << failure_->sentence;
  EXPECT_FALSE(up_);
  tunnel_.reset();
}

TEST_F(PPTPTunnelTest, FailsWhenTheCallsPacketsHaveNoWay) {
  path_.failing = "connect";
  server_.play([](PPTPServer &server) {
    server.answerCall();
    server.untilClosed();
  });
  start();
  expectFailure("The call is up, but its packets have no way: not in this kernel.");
  tunnel_.reset();
}

TEST_F(PPTPTunnelTest, TellsWhenTheServerEndsTheCall) {
  server_.play([](PPTPServer &server) {
    server.answerCall();
    server.send(pptp::CallDisconnectNotify{});
    server.untilClosed();
  });
  start();
  ASSERT_TRUE(runUntil([this] { return lost_.has_value(); }));
  EXPECT_TRUE(lost_->endedByServer);
  tunnel_.reset();
}

}  // namespace
