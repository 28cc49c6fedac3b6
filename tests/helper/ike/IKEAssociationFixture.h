// An association whose child, kernel, keychain and journal do what a test says, and write down what they were told.

#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "helper/ike/IKEAssociation.h"
#include "tests/helper/ike/RecordingJournal.h"
#include "tests/helper/ike/RecordingStates.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

namespace helper::testing {

using isakmp::Direction;
using isakmp::Reason;
using isakmp::Refused;
using isakmp::Stage;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vpnctl::Error;
using vpnctl::Secret;
using vpnctl::Status;

inline constexpr char kSharedSecret[] = "Blue+Heron";
inline constexpr std::uint32_t kTheirs = 0xaabbccdd;

// What the child was told, and a way to make it say things.
struct Script {
  IKESpeaker::Handlers handlers;
  std::vector<IKEStart> starts;
  std::vector<IKEOrder> orders;  // all but Start
  int made = 0;
  int there = 0;
  bool cannotStart = false;
};

class FakeSpeaker : public IKESpeaker {
 public:
  explicit FakeSpeaker(Script &script) : script_(script) {
    ++script_.made;
    ++script_.there;
  }
  ~FakeSpeaker() override { --script_.there; }
  pid_t pid() const override { return ::getpid(); }
  vpnctl::Result<Peer> peer() const override {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const vpnctl::FileDescriptor one(ends[0]);
    const vpnctl::FileDescriptor other(ends[1]);
    return Peer::ofSocket(one.get());
  }
  Status order(const IKEOrder &order, int socket) override {
    if (const auto *start = std::get_if<IKEStart>(&order)) {
      EXPECT_GE(socket, 0) << "it cannot make a socket itself";
      script_.starts.push_back(*start);
    } else {
      EXPECT_EQ(socket, -1);
      script_.orders.push_back(order);
    }
    return {};
  }

 private:
  Script &script_;
};

struct FakeKernel {
  int removed = 0;
  Status removes;
  bool esp = true;
  bool others = false;
};

class FakeTable : public XfrmTable {
 public:
  explicit FakeTable(FakeKernel &kernel) : kernel_(kernel) {}
  Status remove(std::uint32_t) override {
    ++kernel_.removed;
    return kernel_.removes;
  }
  bool hasOthers(in_addr, in_addr, std::uint32_t) override { return kernel_.others; }
  bool knowsESP() override { return kernel_.esp; }

 private:
  FakeKernel &kernel_;
};

class FakeSecrets : public SecretSource {
 public:
  vpnctl::Result<Secret> secretForService(const std::string &service, const SecretUse &use, const Peer &) override {
    asked.push_back(service);
    uses.push_back(use);
    if (missing) return Error{"Test", 0, "the keychain has no item for " + service};
    return secret;
  }
  bool missing = false;
  Secret secret{std::string_view(kSharedSecret)};
  std::vector<std::string> asked;
  std::vector<SecretUse> uses;
};

class IKEAssociationTest : public support::LoopFixture {
 protected:
  IKEAssociationTest() : log_(std::move(*PPPLog::open(folder_.path("ppp.log")))), socket_(udp()), server_(udp()) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockname(server_.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
    serverPort_ = ntohs(address.sin_port);
  }

  static vpnctl::FileDescriptor udp() {
    vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return socket;
  }

  IKEAssociation::Parts parts() {
    return {.speaker = [this](IKESpeaker::Handlers handlers) -> vpnctl::Result<std::unique_ptr<IKESpeaker>> {
              if (child_.cannotStart) return Error{"POSIX", ENOENT, "start vpnctl-ike: No such file or directory"};
              child_.handlers = std::move(handlers);
              return std::unique_ptr<IKESpeaker>(std::make_unique<FakeSpeaker>(child_));
            },
            .socket = [this](in_addr, std::uint16_t port) -> vpnctl::Result<IKESocket> {
              ports_.push_back(port);
              if (port != 0 && portIsTaken_) return Error{"POSIX", EADDRINUSE, "bind UDP port 500"};
              return IKESocket{udp(), static_cast<std::uint16_t>(port == 0 ? 40000 : port)};
            },
            .states = [this](std::uint32_t reqid) -> vpnctl::Result<std::unique_ptr<ESPStates>> {
              EXPECT_EQ(reqid, guarded_);
              return std::unique_ptr<ESPStates>(std::make_unique<RecordingStates>(states_));
            },
            .watch = [this](ESPStateWatch::Handler handler) -> vpnctl::Result<std::unique_ptr<ESPStateWatch>> {
              if (cannotWatch_) return Error{"Netlink", 0, "listen to the kernel: no room"};
              statesRemoved_ = std::move(handler);
              return std::make_unique<ESPStateWatch>();
            },
            .table = [this]() -> vpnctl::Result<std::unique_ptr<XfrmTable>> {
              if (noKernel_) return Error{"Netlink", 0, "no such protocol"};
              return std::unique_ptr<XfrmTable>(std::make_unique<FakeTable>(kernel_));
            },
            .guard =
                [this](int socket, std::uint32_t reqid) {
                  EXPECT_EQ(child_.made, 0) << "the guard comes before everything";
                  guardedSockets_.push_back(socket);
                  guarded_ = reqid;
                  return guard_;
                },
            .silence = silence_,
            .farewell = farewell_};
  }
  // Until vpnctl-ike has been told what to do, or something is in the way.
  void start() {
    association_ = std::make_unique<IKEAssociation>(
        IKEContext{event_, secrets_, use_, log_, journal_, settings_}, "ID.SS", parts(),
        IPSecAssociation::Handlers{.up =
                                       [this](int socket) {
                                         ++up_;
                                         protected_ = socket;
                                       },
                                   .failed = [this](const TunnelFailure &failure) { failure_ = failure; },
                                   .lost = [this](const std::string &sentence) { lost_ = sentence; },
                                   .stopped = [this] { ++stopped_; }});
    association_->start(socket_.get(), other_.get());
    EXPECT_FALSE(failure_) << "not from within start()";
    ASSERT_TRUE(runUntil([&] { return failure_ || !child_.starts.empty(); }));
  }
  void say(const IKEReport &report) {
    const auto handler = child_.handlers.report;
    handler(report);
  }
  void end(const Status &how = {}) {
    const auto handler = child_.handlers.ended;
    handler(how);
  }
  void refuse(const Refused &refused) {
    say(refused);
    end();
  }
  void silent(Stage stage) { refuse(Refused{stage, Reason::silence, 0, {}, false}); }
  isakmp::InstallState keys(isakmp::PairID pair, Direction direction, std::uint32_t spi) const {
    const auto algorithms = child_.starts.back().plan.esp.front();
    return {pair,
            direction,
            spi,
            algorithms,
            Secret::ofSize(isakmp::keySize(algorithms.cipher)),
            Secret::ofSize(isakmp::hashSize(algorithms.integrity)),
            child_.starts.back().plan.forceEncapsulation,
            seconds(3600)};
  }
  void install(isakmp::PairID pair) {
    say(isakmp::NeedSPI{pair});
    const std::uint32_t spi = std::get<IKEAllocated>(child_.orders.back()).spi;
    say(keys(pair, Direction::inbound, spi));
    say(keys(pair, Direction::outbound, kTheirs + pair));
  }
  // PORT: of ours, that the server takes.
  void establish(std::optional<std::uint16_t> port = {}) {
    const isakmp::Plan &plan = child_.starts.back().plan;
    say(isakmp::StageReached{Stage::association});
    install(1);
    say(isakmp::Established{plan.ike.front(), plan.esp.front(), false, port.value_or(plan.flowLocalPort),
                            milliseconds(20)});
  }
  void comeUp() {
    start();
    establish();
    ASSERT_EQ(up_, 1);
  }
  bool wasToldToStop() const { return !child_.orders.empty() && std::holds_alternative<IKEStop>(child_.orders.back()); }
  void expectFailure(DeviceCause cause, const std::string &part) {
    ASSERT_TRUE(failure_);
    EXPECT_EQ(failure_->cause, cause);
    EXPECT_NE(failure_->sentence.find(part), std::string::npos) << failure_->sentence;
    EXPECT_LT(failure_->sentence.size(), 1000U);
    EXPECT_EQ(failure_->sentence.find(kSharedSecret), std::string::npos);
    EXPECT_EQ(up_, 0);
    EXPECT_EQ(child_.there, 0);
  }

  support::TemporaryFolder folder_;
  PPPLog log_;
  EngineSettings::IKE settings_;
  FakeSecrets secrets_;
  const SecretUse use_ = SecretUse::of(
      vpnctl::Value::Dictionary{{"PPP", vpnctl::Value::Dictionary{{"CommRemoteAddress", "vpn.example.org"}}}}, 1000);
  RecordingJournal journal_;
  FakeKernel kernel_;
  ESPStateWatch::Handler statesRemoved_;
  bool cannotWatch_ = false;
  KernelRecord states_;
  Script child_;
  Status guard_;
  bool noKernel_ = false;
  bool portIsTaken_ = false;
  milliseconds silence_{60000};
  milliseconds farewell_{60000};
  std::vector<std::uint16_t> ports_;
  vpnctl::FileDescriptor socket_;
  vpnctl::FileDescriptor server_;
  vpnctl::FileDescriptor other_;
  std::vector<int> guardedSockets_;
  int protected_ = -1;
  std::uint16_t serverPort_ = 0;
  std::uint32_t guarded_ = 0;
  int up_ = 0;
  int stopped_ = 0;
  std::optional<TunnelFailure> failure_;
  std::optional<std::string> lost_;
  std::unique_ptr<IKEAssociation> association_;
};

}  // namespace helper::testing
