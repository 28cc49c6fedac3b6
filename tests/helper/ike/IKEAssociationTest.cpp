#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "helper/ike/IKEAssociation.h"
#include "tests/helper/ike/RecordingJournal.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using foundation::Error;
using foundation::Secret;
using foundation::Status;
using helper::testing::RecordingJournal;
using std::chrono::milliseconds;

namespace {

constexpr char kSharedSecret[] = "Blue+Heron";

// What the daemon was told, and a way to make it say things.
struct ScriptedDaemon {
  IKEDaemon::Handlers handlers;
  std::vector<std::string> calls;
  std::vector<IKEPlan> plans;
  Secret secret;
  std::vector<std::string> unknown;  // algorithms
  Status takenBack;                  // when it is closed in a hurry
  bool destroyed = false;
};

class FakeDaemon : public IKEDaemon {
 public:
  explicit FakeDaemon(ScriptedDaemon &script) : script_(script) {}
  ~FakeDaemon() override { script_.destroyed = true; }
  void open() override { script_.calls.emplace_back("open"); }
  std::string description() const override { return "charon 5.9.8"; }
  bool knows(const std::string &algorithm) const override {
    return std::find(script_.unknown.begin(), script_.unknown.end(), algorithm) == script_.unknown.end();
  }
  foundation::Result<Peer> peer() const override {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const foundation::FileDescriptor one(ends[0]);
    const foundation::FileDescriptor other(ends[1]);
    return Peer::ofSocket(one.get());
  }
  std::string controlSocket() const override { return "/run/charon.vici"; }
  void negotiate(const IKEPlan &plan, const Secret &secret) override {
    script_.calls.emplace_back("negotiate");
    script_.plans.push_back(plan);
    script_.secret = secret;
  }
  void close() override { script_.calls.emplace_back("close"); }
  Status closeNow() override { return script_.takenBack; }

 private:
  ScriptedDaemon &script_;
};

struct FakeKernel {
  std::vector<std::string> calls;
  Status protects;
  Status removes;
  bool esp = true;
  UDPFlow asked;
};

class FakeTable : public XfrmTable {
 public:
  explicit FakeTable(FakeKernel &kernel) : kernel_(kernel) {}
  Status protects(const UDPFlow &flow, std::uint32_t) override {
    kernel_.calls.emplace_back("protects");
    kernel_.asked = flow;
    return kernel_.protects;
  }
  Status remove(std::uint32_t) override {
    kernel_.calls.emplace_back("remove");
    return kernel_.removes;
  }
  bool knowsESP() override { return kernel_.esp; }

 private:
  FakeKernel &kernel_;
};

class FakeSecrets : public SecretSource {
 public:
  foundation::Result<Secret> secretForService(const std::string &service, const SecretUse &use, const Peer &) override {
    asked.push_back(service);
    uses.push_back(use);
    if (missing) return Error{"Test", 0, "the keychain has no item for " + service};
    return Secret(std::string_view(kSharedSecret));
  }
  bool missing = false;
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

  static foundation::FileDescriptor udp() {
    foundation::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return socket;
  }

  IKEAssociation &start() {
    association_ = std::make_unique<IKEAssociation>(
        IKEContext{event_, secrets_, use_, log_, journal_, settings_}, "ID.SS",
        IKEAssociation::Parts{[this](IKEDaemon::Handlers handlers) {
                                daemon_.handlers = std::move(handlers);
                                return std::make_unique<FakeDaemon>(daemon_);
                              },
                              [this]() -> foundation::Result<std::unique_ptr<XfrmTable>> {
                                if (noKernel_) return Error{"Netlink", 0, "no such protocol"};
                                return std::unique_ptr<XfrmTable>(std::make_unique<FakeTable>(kernel_));
                              },
                              [this](int socket, std::uint32_t reqid) {
                                EXPECT_EQ(socket, socket_.get());
                                EXPECT_TRUE(daemon_.calls.empty()) << "the guard comes before everything";
                                guarded_ = reqid;
                                return guard_;
                              }},
        IPSecAssociation::Handlers{.up = [this] { ++up_; },
                                   .failed = [this](const TunnelFailure &failure) { failure_ = failure; },
                                   .lost = [this](const std::string &sentence) { lost_ = sentence; },
                                   .stopped = [this] { ++stopped_; }});
    association_->start(socket_.get());
    return *association_;
  }
  void comeUp() {
    start();
    daemon_.handlers.ready();
    daemon_.handlers.established();
    ASSERT_EQ(up_, 1);
  }
  void expectFailure(DeviceCause cause, const std::string &part) {
    ASSERT_TRUE(failure_);
    EXPECT_EQ(failure_->cause, cause);
    EXPECT_NE(failure_->sentence.find(part), std::string::npos) << failure_->sentence;
    EXPECT_LT(failure_->sentence.size(), 1000U);
    EXPECT_EQ(failure_->sentence.find(kSharedSecret), std::string::npos);
    EXPECT_EQ(up_, 0);
  }

  support::TemporaryFolder folder_;
  PPPLog log_;
  EngineSettings::IKE settings_;
  FakeSecrets secrets_;
  const SecretUse use_ = SecretUse::of(
      foundation::Value::Dictionary{{"PPP", foundation::Value::Dictionary{{"CommRemoteAddress", "vpn.example.org"}}}},
      1000);
  RecordingJournal journal_;
  FakeKernel kernel_;
  ScriptedDaemon daemon_;
  Status guard_;
  bool noKernel_ = false;
  foundation::FileDescriptor socket_;
  foundation::FileDescriptor server_;
  std::uint16_t serverPort_ = 0;
  std::uint32_t guarded_ = 0;
  int up_ = 0;
  int stopped_ = 0;
  std::optional<TunnelFailure> failure_;
  std::optional<std::string> lost_;
  std::unique_ptr<IKEAssociation> association_;
};

TEST_F(IKEAssociationTest, NegotiatesForTheVerySocket) {
  start();
  EXPECT_NE(guarded_, 0U);
  EXPECT_EQ(daemon_.calls, (std::vector<std::string>{"open"}));
  daemon_.handlers.ready();
  ASSERT_EQ(daemon_.plans.size(), 1U);
  const IKEPlan &plan = daemon_.plans[0];
  EXPECT_EQ(plan.local.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(plan.remotePort, serverPort_);
  EXPECT_NE(plan.localPort, 0);
  EXPECT_EQ(plan.reqid, guarded_);
  EXPECT_EQ(plan.remoteIdentity, "%any");
  EXPECT_EQ(plan.proposals, IKEProposals::broad().ike);
  EXPECT_EQ(plan.espProposals, IKEProposals::broad().esp);
  EXPECT_TRUE(plan.name.starts_with("vpnctl-"));
  EXPECT_LE(plan.deadline, settings_.deadline);
  EXPECT_EQ(daemon_.secret, Secret(std::string_view(kSharedSecret)));
  EXPECT_EQ(secrets_.asked, (std::vector<std::string>{"ID.SS"}));
  EXPECT_EQ(secrets_.uses.at(0).owner, use_.owner);
  EXPECT_EQ(secrets_.uses.at(0).differenceTo(use_), std::nullopt);
  EXPECT_EQ(journal_.connections, (std::vector<LoadedConnection>{{"/run/charon.vici", plan.name, plan.reqid}}));
  daemon_.handlers.established();
  EXPECT_EQ(up_, 1);
  EXPECT_EQ(kernel_.asked.localPort, plan.localPort);
  EXPECT_EQ(kernel_.asked.remotePort, serverPort_);
}

TEST_F(IKEAssociationTest, StopsTheDaemonThenCleansTheKernel) {
  comeUp();
  association_->stop();
  association_->stop();
  EXPECT_EQ(daemon_.calls.back(), "close");
  EXPECT_EQ(stopped_, 0);
  EXPECT_EQ(kernel_.calls.back(), "protects");
  daemon_.handlers.closed({});
  EXPECT_EQ(kernel_.calls.back(), "remove");
  EXPECT_EQ(stopped_, 1);
  EXPECT_TRUE(journal_.connections.empty());
}

TEST_F(IKEAssociationTest, StoppedBeforeItBegan) {
  start();
  association_->stop();
  daemon_.handlers.closed({});
  EXPECT_EQ(stopped_, 1);
  // A packet may have met the guard, and the kernel waits for an association for it.
  EXPECT_EQ(kernel_.calls, (std::vector<std::string>{"remove"}));
}

TEST_F(IKEAssociationTest, DestroyedWhileUp) {
  comeUp();
  association_.reset();
  EXPECT_TRUE(daemon_.destroyed);
  EXPECT_EQ(kernel_.calls.back(), "remove");
  EXPECT_TRUE(journal_.connections.empty());
  EXPECT_EQ(stopped_, 0);
}

// The next to undo the journal finds it.
TEST_F(IKEAssociationTest, WhatMayBeLeftInTheDaemonStaysNoted) {
  comeUp();
  association_->stop();
  daemon_.handlers.closed(Error{"POSIX", ETIMEDOUT, "wait for the IKE daemon: Connection timed out"});
  EXPECT_EQ(stopped_, 1);
  EXPECT_EQ(kernel_.calls.back(), "remove");
  EXPECT_EQ(journal_.connections.size(), 1U);
}

TEST_F(IKEAssociationTest, AlsoWhenItIsDestroyed) {
  daemon_.takenBack = Error{"POSIX", EMFILE, "connect: Too many open files"};
  comeUp();
  association_.reset();
  EXPECT_EQ(kernel_.calls.back(), "remove");
  EXPECT_EQ(journal_.connections.size(), 1U);
}

TEST_F(IKEAssociationTest, WhatMayBeLeftInTheKernelStaysNoted) {
  kernel_.removes = Error{"Netlink", 5, "remove what IPSec left in the kernel: no room"};
  comeUp();
  association_->stop();
  daemon_.handlers.closed({});
  EXPECT_EQ(stopped_, 1);
  EXPECT_EQ(journal_.connections.size(), 1U);
}

TEST_F(IKEAssociationTest, UsesTheMachinesSettings) {
  settings_.proposals = {"aes256-sha512-modp4096"};
  settings_.espProposals = {"aes128-sha256"};
  settings_.remoteIdentity = "10.1.1.1";
  start();
  daemon_.handlers.ready();
  EXPECT_EQ(daemon_.plans.at(0).proposals, settings_.proposals);
  EXPECT_EQ(daemon_.plans.at(0).espProposals, settings_.espProposals);
  EXPECT_EQ(daemon_.plans.at(0).remoteIdentity, "10.1.1.1");
}

TEST_F(IKEAssociationTest, DropsWhatTheDaemonLacksAndSaysSo) {
  daemon_.unknown = {"3des", "ecp384"};
  start();
  daemon_.handlers.ready();
  for (const std::string &proposal : daemon_.plans.at(0).proposals) {
    EXPECT_EQ(proposal.find("3des"), std::string::npos);
    EXPECT_EQ(proposal.find("ecp384"), std::string::npos);
  }
  EXPECT_EQ(daemon_.plans.at(0).proposals.size(), IKEProposals::broad().ike.size() - 3);
  const std::string log = *support::contentsOf(folder_.path("ppp.log"));
  EXPECT_NE(log.find("The IKE daemon (charon 5.9.8) lacks ecp384, 3des;"), std::string::npos) << log;
}

TEST_F(IKEAssociationTest, NothingLeftToOffer) {
  daemon_.unknown = {"sha1", "sha256"};
  start();
  daemon_.handlers.ready();
  expectFailure(DeviceCause::protocolError, "has the algorithms for none of the IKE proposals");
  EXPECT_TRUE(secrets_.asked.empty());
}

TEST_F(IKEAssociationTest, NoIPSecInTheKernel) {
  noKernel_ = true;
  start();
  EXPECT_FALSE(failure_);  // not from within start()
  ASSERT_TRUE(runUntil([&] { return failure_.has_value(); }));
  expectFailure(DeviceCause::protocolError, "modprobe -a esp4 xfrm_user");
  association_->stop();
  ASSERT_TRUE(runUntil([&] { return stopped_ == 1; }));
}

TEST_F(IKEAssociationTest, NoGuardNoAssociation) {
  guard_ = Error{"POSIX", ENOPROTOOPT, "guard the socket: Protocol not available"};
  start();
  ASSERT_TRUE(runUntil([&] { return failure_.has_value(); }));
  expectFailure(DeviceCause::protocolError, "guard the socket");
  EXPECT_TRUE(daemon_.calls.empty());
}

TEST_F(IKEAssociationTest, NoSharedSecret) {
  secrets_.missing = true;
  start();
  daemon_.handlers.ready();
  expectFailure(DeviceCause::noSharedSecret,
                "There is no shared secret for the connection: the keychain has no item for ID.SS.");
  EXPECT_EQ(daemon_.calls, (std::vector<std::string>{"open"}));
}

TEST_F(IKEAssociationTest, WhatCannotBeWrittenDownIsNotDone) {
  journal_.broken = true;
  start();
  daemon_.handlers.ready();
  expectFailure(DeviceCause::protocolError, "no room");
  EXPECT_EQ(daemon_.calls, (std::vector<std::string>{"open"}));
}

TEST_F(IKEAssociationTest, PassesOnWhatTheDaemonSays) {
  start();
  daemon_.handlers.unusable("There is no IKE daemon.");
  expectFailure(DeviceCause::protocolError, "There is no IKE daemon.");
}

TEST_F(IKEAssociationTest, AnAssociationForOthersIsOfNoUse) {
  kernel_.protects = Error{"IPSec", 0, "it is for other addresses or ports than those of the connection"};
  start();
  daemon_.handlers.ready();
  daemon_.handlers.established();
  expectFailure(DeviceCause::protocolError, "is of no use: it is for other addresses or ports");
}

TEST_F(IKEAssociationTest, TriesOnceMoreWithFew) {
  start();
  daemon_.handlers.ready();
  daemon_.handlers.refused({IKEStage::proposals, false});
  ASSERT_EQ(daemon_.plans.size(), 2U);
  EXPECT_EQ(daemon_.plans[1].proposals, IKEProposals::few().ike);
  EXPECT_EQ(daemon_.plans[1].name, daemon_.plans[0].name);
  EXPECT_FALSE(failure_);
  daemon_.handlers.refused({IKEStage::proposals, false});
  expectFailure(DeviceCause::protocolError, "refuses how IKE is to be protected; offered were aes256-sha256-modp2048");
  EXPECT_EQ(journal_.connections.size(), 1U);
}

TEST_F(IKEAssociationTest, WhatTheUserSetIsNotChangedForASecondTry) {
  settings_.proposals = {"aes256-sha512-modp4096"};
  start();
  daemon_.handlers.ready();
  daemon_.handlers.refused({IKEStage::proposals, false});
  EXPECT_EQ(daemon_.plans.size(), 1U);
  expectFailure(DeviceCause::protocolError, "offered were aes256-sha512-modp4096. ");
}

TEST_F(IKEAssociationTest, TellsOfTheTryThatCameFurther) {
  start();
  daemon_.handlers.ready();
  daemon_.handlers.refused({IKEStage::association, false});
  ASSERT_EQ(daemon_.plans.size(), 2U);
  EXPECT_EQ(daemon_.plans[1].espProposals, IKEProposals::few().esp);
  daemon_.handlers.refused({IKEStage::proposals, false});
  expectFailure(DeviceCause::protocolError, "accepts the shared secret but refuses");
}

TEST_F(IKEAssociationTest, TellsEachStage) {
  struct Row {
    IKERefusal refusal;
    DeviceCause cause;
    const char *part;
  };
  for (const Row &row : {
           Row{{IKEStage::begin, false}, DeviceCause::protocolError, "could not begin to talk to 127.0.0.1"},
           Row{{IKEStage::firstAnswer, true}, DeviceCause::noAnswer, "does not answer on UDP port 500 (IKE)"},
           Row{{IKEStage::keyExchange, true}, DeviceCause::noAnswer, "stopped answering during IKE's key exchange"},
           Row{{IKEStage::keyExchange, false}, DeviceCause::protocolError, "gave up during IKE's key exchange"},
           Row{{IKEStage::authentication, true}, DeviceCause::protocolError, "the shared secret is probably wrong"},
           Row{{IKEStage::authentication, false}, DeviceCause::protocolError, "said no when the shared secret"},
           Row{{IKEStage::association, false},
               DeviceCause::protocolError,
               "accepts the shared secret but refuses when packets are to be protected; offered were aes256-sha256"},
           Row{{IKEStage::association, true}, DeviceCause::protocolError, "but stopped answering when packets"},
       }) {
    failure_.reset();
    daemon_ = {};
    start();
    daemon_.handlers.ready();
    daemon_.handlers.refused(row.refusal);
    if (!failure_) daemon_.handlers.refused(row.refusal);
    expectFailure(row.cause, row.part);
  }
}

TEST_F(IKEAssociationTest, TellsAKernelWithoutESP) {
  kernel_.esp = false;
  start();
  daemon_.handlers.ready();
  daemon_.handlers.refused({IKEStage::association, true});
  expectFailure(DeviceCause::protocolError, "modprobe esp4");
}

TEST_F(IKEAssociationTest, NoSecondTryWithoutTime) {
  settings_.deadline = milliseconds(0);
  start();
  daemon_.handlers.ready();
  expectFailure(DeviceCause::noAnswer, "did not come up in time");
  EXPECT_TRUE(daemon_.plans.empty());
}

TEST_F(IKEAssociationTest, TellsTheLoss) {
  comeUp();
  daemon_.handlers.lost("The server has ended the IPSec association.");
  EXPECT_EQ(*lost_, "The server has ended the IPSec association.");
  association_->stop();
  EXPECT_EQ(daemon_.calls.back(), "close");
}

TEST_F(IKEAssociationTest, TheNamesOfTwoDiffer) {
  start();
  daemon_.handlers.ready();
  const IKEPlan first = daemon_.plans.at(0);
  daemon_ = {};
  start();
  daemon_.handlers.ready();
  EXPECT_NE(daemon_.plans.at(0).name, first.name);
  EXPECT_NE(daemon_.plans.at(0).reqid, first.reqid);
}

}  // namespace
