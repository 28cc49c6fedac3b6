#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "helper/l2tp/L2TPTunnel.h"
#include "tests/helper/l2tp/L2TPServer.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using helper::testing::L2TPServer;

namespace {

// An association that does what a test says, and writes down when it was told what.
class FakeAssociation : public IPSecAssociation {
 public:
  struct Book {
    std::vector<std::string> events;
    IPSecAssociation::Handlers handlers;
    std::function<void()> onStart;
    linux::EventSource soon;
    int socket = -1;
    int other = -1;
  };
  FakeAssociation(sd_event *event, Book &book, Handlers handlers) : event_(event), book_(book) {
    book_.handlers = std::move(handlers);
  }
  ~FakeAssociation() override { book_.events.emplace_back("destroyed"); }
  void start(int socket, int other) override {
    book_.socket = socket;
    book_.other = other;
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    EXPECT_EQ(::getpeername(socket, reinterpret_cast<sockaddr *>(&peer), &size), 0) << "not connected";
    book_.events.emplace_back("start");
    if (book_.onStart) book_.soon = linux::EventSource::soon(event_, book_.onStart);
  }
  void stop() override {
    book_.events.emplace_back("stop");
    book_.soon = linux::EventSource::soon(event_, book_.handlers.stopped);
  }

 private:
  sd_event *event_;
  Book &book_;
};

// One end of a pipe stands for the kernel's channel.
class FakeDataPath : public L2TPDataPath {
 public:
  struct Book {
    bool missing = false;
    bool broken = false;
    std::optional<L2TPCall> call;
    int socket = -1;
  };
  explicit FakeDataPath(Book &book) : book_(book) {}
  vpnctl::Status probe() override {
    if (book_.missing) return vpnctl::Error{"Test", 0, "this kernel has none"};
    return {};
  }
  vpnctl::Result<vpnctl::FileDescriptor> connect(int socket, const L2TPCall &call) override {
    book_.socket = socket;
    book_.call = call;
    if (book_.broken) return vpnctl::Error{"Test", 0, "no tunnel in this kernel"};
    return vpnctl::FileDescriptor(::dup(STDIN_FILENO));
  }

 private:
  Book &book_;
};

class L2TPTunnelTest : public support::LoopFixture {
 protected:
  L2TPTunnelTest() {
    association_.onStart = [this] { association_.handlers.up(association_.socket); };
    settings_.sourcePort = EngineSettings::SourcePort::any;
  }

  L2TPTunnel &make() {
    tunnel_.emplace(
        event_, server_.address(), settings_, log_,
        L2TPTunnel::Parts{.makeAssociation = hasSecret_ ? makeAssociation_ : nullptr,
                          .dataPath = std::make_unique<FakeDataPath>(path_),
                          .port = port_,
                          .patience = patience_},
        Tunnel::Handlers{
            .up = [this](TunnelChannel channel) { up_ = channel.socket && isTunnelSocket(channel.carrier); },
            .failed = [this](const TunnelFailure &failure) { failure_ = failure; },
            .lost = [this](const TunnelLoss &loss) { lost_ = loss; },
            .stopped =
                [this] {
                  ++stopped_;
                  association_.events.emplace_back("stopped");
                }});
    return *tunnel_;
  }
  bool isTunnelSocket(const vpnctl::FileDescriptor &other) const {
    struct stat ours {
    }, theirs{};
    return ::fstat(path_.socket, &ours) == 0 && ::fstat(other.get(), &theirs) == 0 && ours.st_ino == theirs.st_ino &&
           ours.st_dev == theirs.st_dev;
  }
  void comeUp() {
    make().start();
    ASSERT_TRUE(runUntil([this] { return up_.has_value(); }));
    EXPECT_TRUE(*up_);
  }
  void expectFailure(DeviceCause cause, const std::string &part) {
    ASSERT_TRUE(runUntil([this] { return failure_.has_value(); }));
    EXPECT_EQ(failure_->cause, cause);
    EXPECT_NE(failure_->sentence.find(part), std::string::npos) << failure_->sentence;
    EXPECT_FALSE(up_);
  }
  void stop() {
    tunnel_->stop();
    tunnel_->stop();
    EXPECT_EQ(stopped_, 0);
    ASSERT_TRUE(runUntil([this] { return stopped_ > 0; }));
    EXPECT_EQ(stopped_, 1);
  }
  // What was asked of the association, in order; "stopped" is the tunnel's own last word.
  using Events = std::vector<std::string>;

  const support::TemporaryFolder folder_;
  PPPLog log_ = std::move(*PPPLog::open(folder_.path("log")));
  bool hasSecret_ = true;
  const L2TPTunnel::AssociationFactory makeAssociation_ = [this](IPSecAssociation::Handlers handlers) {
    return std::make_unique<FakeAssociation>(event_, association_, std::move(handlers));
  };
  EngineSettings::L2TP settings_;
  std::uint16_t port_ = L2TPSocket::kPort;
  std::chrono::milliseconds patience_{3000};
  FakeAssociation::Book association_;
  FakeDataPath::Book path_;
  std::optional<bool> up_;
  std::optional<TunnelFailure> failure_;
  std::optional<TunnelLoss> lost_;
  int stopped_ = 0;
  L2TPServer server_;
  std::optional<L2TPTunnel> tunnel_;
};

TEST_F(L2TPTunnelTest, ComesUpAndGoesDownInOrder) {
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.hearGoodbye();
  });
  comeUp();
  EXPECT_EQ(path_.call->peerSessionID, L2TPServer::kSession);
  stop();
  EXPECT_EQ(association_.events, (Events{"start", "stop", "stopped"}));
  tunnel_.reset();
  EXPECT_EQ(stopped_, 1);
}

TEST_F(L2TPTunnelTest, SendsNothingBeforeTheAssociationStands) {
  association_.onStart = nullptr;
  make().start();
  ASSERT_GE(sd_event_run(event_, 50000), 0);
  EXPECT_FALSE(server_.heardAnything());
  EXPECT_EQ(association_.events, (Events{"start"}));
  stop();
  tunnel_.reset();
  EXPECT_FALSE(server_.heardAnything());
}

TEST_F(L2TPTunnelTest, IsNeverMadeWithoutASecret) {
  hasSecret_ = false;
  make().start();
  expectFailure(DeviceCause::noSharedSecret, "names no shared secret");
  stop();
  EXPECT_EQ(association_.events, (Events{"stopped"}));
  EXPECT_FALSE(server_.heardAnything());
}

TEST_F(L2TPTunnelTest, SaysWhatTheKernelLacks) {
  path_.missing = true;
  make().start();
  expectFailure(DeviceCause::protocolError, "No L2TP connection is possible: this kernel has none.");
  stop();
  EXPECT_EQ(association_.events, (Events{"stopped"}));
}

TEST_F(L2TPTunnelTest, FailsWithItsAssociation) {
  association_.onStart = [this] { association_.handlers.failed(TunnelFailure{DeviceCause::noAnswer, "No IKE."}); };
  make().start();
  expectFailure(DeviceCause::noAnswer, "No IKE.");
  stop();
  EXPECT_EQ(association_.events, (Events{"start", "stop", "stopped"}));
  EXPECT_FALSE(server_.heardAnything());
}

TEST_F(L2TPTunnelTest, EndsTheAssociationAlsoWhenL2TPFails) {
  settings_.deadline = std::chrono::milliseconds(20);
  make().start();
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port");
  stop();
  EXPECT_EQ(association_.events, (Events{"start", "stop", "stopped"}));
}

TEST_F(L2TPTunnelTest, FailsWithoutTheKernelsSockets) {
  path_.broken = true;
  server_.play([](L2TPServer &server) {
    server.answerStart();
    server.send(l2tp::ICRP{L2TPServer::kSession}, server.clientSession());
    server.hearGoodbye();
  });
  make().start();
  expectFailure(DeviceCause::protocolError, "no tunnel in this kernel");
  stop();
  EXPECT_EQ(association_.events, (Events{"start", "stop", "stopped"}));
}

TEST_F(L2TPTunnelTest, IsLostWhenTheServerEndsIt) {
  server_.play([](L2TPServer &server) {
    server.answerCall();
    server.send(l2tp::StopCCN{L2TPServer::kTunnel, {6, 0, ""}});
  });
  comeUp();
  ASSERT_TRUE(runUntil([this] { return lost_.has_value(); }));
  EXPECT_NE(lost_->sentence.find("has ended the tunnel"), std::string::npos);
  EXPECT_TRUE(lost_->endedByServer);
  stop();
  EXPECT_EQ(association_.events, (Events{"start", "stop", "stopped"}));
}

TEST_F(L2TPTunnelTest, SendsNothingAfterTheAssociationIsLost) {
  server_.play([](L2TPServer &server) { server.answerCall(); });
  comeUp();
  server_.join();
  server_.forget();
  association_.handlers.lost("IPSec is gone.");
  ASSERT_TRUE(lost_);
  EXPECT_EQ(lost_->sentence, "IPSec is gone.");
  EXPECT_FALSE(lost_->endedByServer) << "whatever ended it, it says nothing of the account";
  stop();
  tunnel_.reset();
  EXPECT_FALSE(server_.heardAnything());
}

TEST_F(L2TPTunnelTest, FailsWhenTheAssociationIsLostBeforeTheCall) {
  server_.play([](L2TPServer &server) { server.expectStart(); });
  bool asked = false;
  association_.onStart = [&] {
    association_.handlers.up(association_.socket);
    asked = true;
  };
  make().start();
  ASSERT_TRUE(runUntil([&] { return asked; }));
  server_.join();
  server_.forget();
  association_.handlers.lost("IPSec is gone.");
  expectFailure(DeviceCause::networkChanged, "IPSec is gone.");
  EXPECT_FALSE(lost_);
  stop();
  EXPECT_FALSE(server_.heardAnything());
}

// ---- A server that does not hear what comes from the usual port

class L2TPTunnelFromAPort : public L2TPTunnelTest {
 protected:
  L2TPTunnelFromAPort() {
    settings_.sourcePort = EngineSettings::SourcePort::automatic;
    patience_ = std::chrono::milliseconds(20);
    // One that nobody has.
    const vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    socklen_t size = sizeof local;
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr *>(&local), size), 0);
    EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&local), &size), 0);
    port_ = ntohs(local.sin_port);
  }
};

TEST_F(L2TPTunnelFromAPort, ChangesThePortOfASilentServer) {
  std::uint16_t first = 0;
  std::uint16_t second = 0;
  server_.play([&](L2TPServer &server) {
    server.expectStart();
    first = server.clientPort();
    server.expect<l2tp::StopCCN>();
    server.awaitNextClient();
    server.answerCall();
    second = server.clientPort();
    server.hearGoodbye();
  });
  comeUp();
  stop();
  server_.join();
  EXPECT_EQ(first, port_);
  EXPECT_NE(second, port_);
  EXPECT_EQ(association_.events, (Events{"start", "stop", "destroyed", "start", "stop", "stopped"}));
  const std::string logged = support::contentsOf(folder_.path("log")).value_or("");
  EXPECT_NE(logged.find("says nothing to UDP port " + std::to_string(port_)), std::string::npos) << logged;
}

TEST_F(L2TPTunnelFromAPort, CallsFromTheOtherOneWhenTheServerTakesThat) {
  association_.onStart = [this] { association_.handlers.up(association_.other); };
  std::uint16_t caller = 0;
  server_.play([&](L2TPServer &server) {
    server.answerCall();
    caller = server.clientPort();
    server.hearGoodbye();
  });
  comeUp();
  EXPECT_NE(caller, port_);
  // Nobody is kept from the usual one any longer.
  EXPECT_TRUE(L2TPSocket::open(server_.address(), EngineSettings::SourcePort::wellKnown, port_));
  stop();
  server_.join();
  EXPECT_EQ(association_.events, (Events{"start", "stop", "stopped"}));
}

TEST_F(L2TPTunnelFromAPort, GoesFromTheOtherOneToTheUsual) {
  association_.onStart = [this] {
    association_.handlers.up(association_.other < 0 ? association_.socket : association_.other);
  };
  std::uint16_t first = 0;
  std::uint16_t second = 0;
  server_.play([&](L2TPServer &server) {
    server.expectStart();
    first = server.clientPort();
    server.expect<l2tp::StopCCN>();
    server.awaitNextClient();
    server.answerCall();
    second = server.clientPort();
    server.hearGoodbye();
  });
  comeUp();
  EXPECT_EQ(association_.other, -1);
  stop();
  server_.join();
  EXPECT_NE(first, port_);
  EXPECT_EQ(second, port_);
  const std::string logged = support::contentsOf(folder_.path("log")).value_or("");
  EXPECT_NE(logged.find("says nothing to UDP port " + std::to_string(first) + " of this machine; trying"),
            std::string::npos)
      << logged;
}

TEST_F(L2TPTunnelFromAPort, LeavesNoChoiceWhereTheSettingsDoNot) {
  for (const auto port : {EngineSettings::SourcePort::wellKnown, EngineSettings::SourcePort::any}) {
    settings_.sourcePort = port;
    association_.onStart = nullptr;
    make().start();
    EXPECT_EQ(association_.other, -1);
  }
}

TEST_F(L2TPTunnelFromAPort, DoesSoOnce) {
  settings_.deadline = std::chrono::milliseconds(100);
  make().start();
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port");
  EXPECT_EQ(association_.events, (Events{"start", "stop", "destroyed", "start"}));
  stop();
}

TEST_F(L2TPTunnelFromAPort, KeepsThePortOfAServerThatAnswers) {
  server_.play([](L2TPServer &server) {
    server.answerStart();
    server.acknowledge();
  });
  patience_ = std::chrono::milliseconds(1000);
  settings_.deadline = std::chrono::milliseconds(2500);
  make().start();
  expectFailure(DeviceCause::noAnswer, "does not answer the call request");
  EXPECT_EQ(association_.events, Events{"start"});
  stop();
}

TEST_F(L2TPTunnelFromAPort, KeepsAPortThatTheSettingsName) {
  settings_.sourcePort = EngineSettings::SourcePort::wellKnown;
  settings_.deadline = std::chrono::milliseconds(200);
  make().start();
  expectFailure(DeviceCause::noAnswer, "does not answer on UDP port");
  EXPECT_EQ(association_.events, Events{"start"});
  stop();
}

TEST_F(L2TPTunnelFromAPort, StopsWhileItChanges) {
  make().start();
  ASSERT_TRUE(runUntil([this] { return association_.events.size() == 2; }));
  stop();
  EXPECT_EQ(association_.events.front(), "start");
  EXPECT_EQ(std::ranges::count(association_.events, "start"), 1);
  EXPECT_EQ(association_.events.back(), "stopped");
}

TEST_F(L2TPTunnelFromAPort, StopsInTheTurnBetweenTheTwo) {
  make().start();
  ASSERT_TRUE(runUntil([this] { return association_.events.size() == 2; }));
  association_.soon.reset();
  association_.handlers.stopped();
  tunnel_->stop();
  EXPECT_EQ(stopped_, 0);
  ASSERT_TRUE(runUntil([this] { return stopped_ > 0; }));
  EXPECT_EQ(std::ranges::count(association_.events, "start"), 1);
}

TEST_F(L2TPTunnelTest, StopsBeforeItsStart) {
  make();
  stop();
  EXPECT_TRUE(association_.events == Events{"stopped"});
}

TEST_F(L2TPTunnelTest, DoesNotStartAfterAStopInTheSameTurn) {
  association_.onStart = nullptr;
  make().start();
  tunnel_->stop();
  association_.handlers.up(association_.socket);  // has been on its way
  ASSERT_TRUE(runUntil([this] { return stopped_ > 0; }));
  EXPECT_FALSE(server_.heardAnything());
}

TEST_F(L2TPTunnelTest, SaysGoodbyeBeforeItsAssociationIsDestroyed) {
  bool goodbye = false;
  server_.play([&](L2TPServer &server) {
    server.answerCall();
    server.hearGoodbye();
    goodbye = true;
  });
  comeUp();
  tunnel_.reset();
  server_.join();
  EXPECT_TRUE(goodbye);
  EXPECT_EQ(association_.events, (Events{"start", "destroyed"}));
}

}  // namespace
