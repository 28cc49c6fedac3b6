#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <optional>

#include "helper/ike/Charon.h"
#include "tests/helper/ike/CrowdedListener.h"
#include "tests/helper/ike/RecordingJournal.h"
#include "tests/helper/ike/ViciServer.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using foundation::Secret;
using helper::testing::RecordingJournal;
using helper::testing::ViciServer;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vici::Packet;
using vici::PacketType;
using vici::Section;

namespace {

constexpr char kName[] = "vpnctl-1";

IKEPlan plan() {
  IKEPlan result;
  result.name = kName;
  inet_pton(AF_INET, "10.0.0.1", &result.local);
  result.localPort = 40000;
  inet_pton(AF_INET, "10.0.0.2", &result.remote);
  result.remotePort = 1701;
  result.remoteIdentity = "%any";
  result.proposals = {"aes256-sha256-modp2048", "aes128-sha1-modp1024"};
  result.espProposals = {"aes256-sha1"};
  result.reqid = 4711;
  result.deadline = seconds(20);
  return result;
}

// An association as charon 5.9.8 shows it, in one stage or another.
Section shown(const std::string &state, const std::string &localID, const std::string &theirSPI, bool keys,
              Section children = {}) {
  Section association;
  association.add("uniqueid", "1")
      .add("state", state)
      .add("local-id", localID)
      .add("initiator-spi", "2090e47bdab164df")
      .add("responder-spi", theirSPI);
  if (keys) association.add("encr-alg", "AES_CBC");
  association.add("tasks-active", Section::List{"ISAKMP_VENDOR", "MAIN_MODE"}).add("child-sas", std::move(children));
  return Section().add(kName, std::move(association));
}

Section silent() { return shown("CONNECTING", "%any", "0000000000000000", false); }
Section answered() { return shown("CONNECTING", "%any", "f80501154d3062dd", false); }
Section exchanging() { return shown("CONNECTING", "%any", "f80501154d3062dd", true); }
Section proving() { return shown("CONNECTING", "10.0.0.1", "f80501154d3062dd", true); }
Section standing(Section children = {}) {
  return shown("ESTABLISHED", "10.0.0.1", "f80501154d3062dd", true, std::move(children));
}
Section child(const std::string &state) { return Section().add("vpnctl-1-1", Section().add("state", state)); }

// A secret that stands nowhere in this program.
constexpr std::string_view kMasked = "Tgq;7nRw-Zk2_pLs+vYb=cXd";
constexpr char kMask = 0x15;

// Whether it stands in the writable memory of this process.
bool memoryHoldsUnmasked() {
  const foundation::FileDescriptor memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(memory);
  static std::array<char, 65536> part;  // wiped: it lies in what is searched
  std::ifstream maps("/proc/self/maps");
  bool found = false;
  for (std::string line; std::getline(maps, line);) {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::array<char, 5> mode{};
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s", &start, &end, mode.data()) != 3) continue;
    if (mode[1] != 'w' || end - start > (std::uint64_t{256} << 20)) continue;  // a sanitizer's shadow
    for (; start < end; start += part.size() - kMasked.size()) {
      const ssize_t size = ::pread(memory.get(), part.data(), std::min<std::uint64_t>(part.size(), end - start),
                                   static_cast<off_t>(start));
      if (size <= 0) break;
      const char *const first = part.data();
      const char *const last = first + size;
      found = found || std::search(first, last, kMasked.begin(), kMasked.end(), [](char byte, char masked) {
                         return byte == static_cast<char>(masked ^ kMask);
                       }) != last;
      foundation::wipeMemory(part.data(), part.size());
    }
  }
  return found;
}

class CharonTest : public support::LoopFixture {
 protected:
  CharonTest() {
    places_.controlSockets = {folder_.path("vici")};
    places_.useFile = folder_.path("charon");
    places_.programs.clear();
    deadlines_.look = milliseconds(5);
    heard_ = linux::EventSource::io(event_, server_.heard(), EPOLLIN, [this](std::uint32_t) {
      eventfd_t count = 0;
      ::eventfd_read(server_.heard(), &count);
    });
    server_.answer("version", Section().add("daemon", "charon").add("version", "5.9.8"));
    server_.answer("get-algorithms", Section()
                                         .add("encryption", Section().add("AES_CBC", "aes"))
                                         .add("integrity", Section().add("HMAC_SHA1_96", "sha1"))
                                         .add("dh", Section().add("MODP_2048", "gmp")));
    const Section yes = Section().add("success", "yes");
    for (const char *command : {"load-shared", "load-conn", "terminate", "unload-conn", "unload-shared"})
      server_.answer(command, yes);
    server_.answer("initiate", yes);
    show({});
  }

  // Everything that has arrived, and what follows from it at once.
  void drain() {
    while (sd_event_run(event_, 0) > 0) {
    }
  }
  long timesAsked(const std::string &command) const {
    const auto all = server_.asked();
    return std::count(all.begin(), all.end(), command);
  }
  void untilAsked(const std::string &command, long times = 1) {
    ASSERT_TRUE(runUntil([&] { return timesAsked(command) >= times; })) << command;
  }
  // What list-sas says.
  void show(const Section &association) {
    server_.answer(
        "list-sas",
        [association](const Section &) {
          std::vector<Packet> packets;
          if (!association.elements().empty()) packets.push_back({PacketType::event, "list-sa", association});
          packets.push_back({PacketType::response, "", {}});
          return packets;
        });
  }
  Charon &open() {
    charon_ = std::make_unique<Charon>(event_, journal_, places_, settings_, deadlines_,
                                       IKEDaemon::Handlers{.ready = [this] { ++ready_; },
                                                           .unusable = [this](const std::string &s) { unusable_ = s; },
                                                           .established = [this] { ++established_; },
                                                           .refused = [this](const IKERefusal &r) { refusal_ = r; },
                                                           .lost = [this](const std::string &s) { lost_ = s; },
                                                           .closed =
                                                               [this](const foundation::Status &takenBack) {
                                                                 ++closed_;
                                                                 takenBack_ = takenBack;
                                                               }});
    charon_->open();
    return *charon_;
  }
  void beReady() {
    open();
    ASSERT_TRUE(runUntil([&] { return ready_ == 1; }));
  }
  void comeUp() {
    deadlines_.look = seconds(10);
    show(standing(child("INSTALLED")));
    beReady();
    charon_->negotiate(plan(), secret_);
    ASSERT_TRUE(runUntil([&] { return established_ == 1; }));
    untilAsked("list-sas");
  }
  void expectRefusal(IKEStage stage, bool silent) {
    ASSERT_TRUE(runUntil([&] { return refusal_.has_value(); }));
    EXPECT_EQ(refusal_->stage, stage);
    EXPECT_EQ(refusal_->silent, silent);
    EXPECT_EQ(established_, 0);
  }
  // The server falls silent at this point.
  void expectSilence(const Section &association, IKEStage stage) {
    deadlines_.firstAnswer = deadlines_.stage = milliseconds(60);
    server_.stayOpen("initiate");
    show(association);
    beReady();
    charon_->negotiate(plan(), secret_);
    expectRefusal(stage, true);
    server_.finish("initiate", Section().add("success", "no"));
    expectTakenBack();
  }
  // The server says no at this point.
  void expectNo(const Section &last, IKEStage stage) {
    server_.stayOpen("initiate");
    beReady();
    charon_->negotiate(plan(), secret_);
    untilAsked("initiate");
    server_.say("ike-updown", last);
    server_.finish("initiate", Section().add("success", "no").add("errmsg", "establishing CHILD_SA failed"));
    expectRefusal(stage, false);
    expectTakenBack();
  }
  // In this order, also what has failed.
  void expectTakenBack() {
    charon_->close();
    ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
    EXPECT_EQ(askedFrom("terminate"),
              (std::vector<std::string>{"terminate", "terminate", "unload-conn", "unload-shared"}));
    EXPECT_TRUE(takenBack_);
  }
  std::vector<std::string> askedFrom(const std::string &first) const {
    const auto all = server_.asked();
    return {std::find(all.begin(), all.end(), first), all.end()};
  }

  support::TemporaryFolder folder_;
  ViciServer server_{folder_.path("vici")};
  RecordingJournal journal_;
  CharonProcess::Places places_;
  Charon::Settings settings_;
  Charon::Deadlines deadlines_;
  Secret secret_{std::string_view("p\0s'k\xff", 6)};
  linux::EventSource heard_;
  std::atomic<bool> finishLater_ = false;
  int ready_ = 0;
  int established_ = 0;
  int closed_ = 0;
  foundation::Status takenBack_;
  std::optional<std::string> unusable_;
  std::optional<IKERefusal> refusal_;
  std::optional<std::string> lost_;
  std::unique_ptr<Charon> charon_;
};

TEST_F(CharonTest, KnowsWhatItTalksTo) {
  server_.stayOpen("version");
  open();
  untilAsked("version");
  drain();
  EXPECT_EQ(ready_, 0);
  server_.finish("version", Section().add("daemon", "charon").add("version", "5.9.8"));
  ASSERT_TRUE(runUntil([&] { return ready_ == 1; }));
  EXPECT_EQ(charon_->description(), "charon 5.9.8");
  EXPECT_TRUE(charon_->knows("aes256"));
  EXPECT_TRUE(charon_->knows("modp2048"));
  EXPECT_FALSE(charon_->knows("modp1024"));
  EXPECT_FALSE(charon_->knows("3des"));
  EXPECT_TRUE(charon_->knows("something-newer"));
  EXPECT_EQ(charon_->controlSocket(), folder_.path("vici"));
  EXPECT_EQ(charon_->peer()->pid(), ::getpid());
}

TEST_F(CharonTest, ADaemonThatDoesNotTellItsAlgorithmsIsBelieved) {
  server_.answer("get-algorithms", [](const Section &) {
    return std::vector<Packet>{{PacketType::unknownCommand, "", {}}};
  });
  beReady();
  EXPECT_TRUE(charon_->knows("modp1024"));
}

TEST_F(CharonTest, LoadsAndInitiates) {
  comeUp();
  const Section shared = server_.request("load-shared");
  EXPECT_EQ(shared.value("id"), kName);
  EXPECT_EQ(shared.value("type"), "IKE");
  EXPECT_EQ(shared.value("data"), std::string("p\0s'k\xff", 6));
  EXPECT_EQ(shared.list("owners"), (Section::List{"10.0.0.1", "10.0.0.2"}));
  const Section connection = server_.request("load-conn").section(kName);
  EXPECT_EQ(connection.value("version"), "1");
  EXPECT_EQ(connection.list("local_addrs"), Section::List{"10.0.0.1"});
  EXPECT_EQ(connection.list("remote_addrs"), Section::List{"10.0.0.2"});
  EXPECT_EQ(connection.list("proposals"), plan().proposals);
  EXPECT_EQ(connection.section("local").value("auth"), "psk");
  EXPECT_EQ(connection.section("remote").value("auth"), "psk");
  EXPECT_EQ(connection.section("remote").value("id"), "%any");
  const Section association = connection.section("children").section(kName);
  EXPECT_EQ(association.value("mode"), "transport");
  EXPECT_EQ(association.list("local_ts"), Section::List{"dynamic[udp/40000]"});
  EXPECT_EQ(association.list("remote_ts"), Section::List{"dynamic[udp/1701]"});
  EXPECT_EQ(association.value("reqid"), "4711");
  EXPECT_EQ(association.list("esp_proposals"), plan().espProposals);
  EXPECT_EQ(association.value("rekey_time"), "3240s");
  EXPECT_EQ(association.value("life_time"), "3600s");
  EXPECT_EQ(association.value("start_action"), "");
  const Section initiation = server_.request("initiate");
  EXPECT_EQ(initiation.value("child"), kName);
  EXPECT_EQ(initiation.value("ike"), kName);
  EXPECT_EQ(initiation.value("timeout"), "20000");
}

TEST_F(CharonTest, AFixedIdentityOwnsTheSecretToo) {
  beReady();
  IKEPlan fixed = plan();
  fixed.remoteIdentity = "192.168.1.1";
  charon_->negotiate(fixed, secret_);
  ASSERT_TRUE(runUntil([&] { return established_ == 1; }));
  EXPECT_EQ(server_.request("load-shared").list("owners"), (Section::List{"10.0.0.1", "10.0.0.2", "192.168.1.1"}));
}

TEST_F(CharonTest, TwoConnectionsToOneServerAreNotAlike) {
  comeUp();
  const Section first = server_.request("load-conn").section(kName);
  established_ = ready_ = 0;
  beReady();
  IKEPlan other = plan();
  other.reqid += 0x00a0001;
  charon_->negotiate(other, secret_);
  ASSERT_TRUE(runUntil([&] { return established_ == 1; }));
  const Section second = server_.request("load-conn").section(kName);
  EXPECT_NE(first.value("rand_time"), second.value("rand_time"));
  EXPECT_NE(first.value("over_time"), second.value("over_time"));
}

TEST_F(CharonTest, EndsInOrder) {
  comeUp();
  charon_->close();
  EXPECT_EQ(closed_, 0);
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_EQ(askedFrom("terminate"),
            (std::vector<std::string>{"terminate", "terminate", "unload-conn", "unload-shared"}));
  EXPECT_EQ(server_.request("terminate").value("ike"), kName);
  EXPECT_EQ(server_.request("terminate").value("force"), "yes");
  EXPECT_EQ(server_.request("unload-conn").value("name"), kName);
  EXPECT_EQ(server_.request("unload-shared").value("id"), kName);
}

TEST_F(CharonTest, EndsWithoutHavingBegun) {
  beReady();
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_TRUE(askedFrom("terminate").empty());
}

TEST_F(CharonTest, EndsBeforeTheDaemonWasReached) {
  open().close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_EQ(ready_, 0);
}

TEST_F(CharonTest, EndsInTheMiddleOfANegotiation) {
  server_.stayOpen("initiate");
  show(exchanging());
  beReady();
  charon_->negotiate(plan(), secret_);
  untilAsked("initiate");
  server_.answer("terminate", [this, first = true](const Section &) mutable {
    // What was being negotiated ends with it.
    if (first) finishLater_ = true;
    first = false;
    return std::vector<Packet>{{PacketType::response, "", {}}};
  });
  charon_->close();
  ASSERT_TRUE(runUntil([&] {
    if (finishLater_.exchange(false)) server_.finish("initiate", Section().add("success", "no"));
    return closed_ == 1;
  }));
  EXPECT_EQ(askedFrom("unload-conn"), (std::vector<std::string>{"unload-conn", "unload-shared"}));
  EXPECT_FALSE(refusal_);
}

// Loaded after its unloading it would stay for ever.
TEST_F(CharonTest, EndsAfterWhatIsBeingLoaded) {
  server_.stayOpen("load-shared");
  beReady();
  charon_->negotiate(plan(), secret_);
  untilAsked("load-shared");
  charon_->close();
  untilAsked("terminate");
  drain();  // its answer
  server_.finish("load-shared", Section().add("success", "yes"));
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_EQ(askedFrom("terminate"),
            (std::vector<std::string>{"terminate", "load-conn", "terminate", "unload-conn", "unload-shared"}));
  EXPECT_TRUE(takenBack_);
  EXPECT_FALSE(unusable_);
}

TEST_F(CharonTest, EndsWithOneMoreTryWhenALoadIsNeverAnswered) {
  deadlines_.terminate = milliseconds(30);
  server_.stayOpen("load-conn");
  beReady();
  charon_->negotiate(plan(), secret_);
  untilAsked("load-conn");
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_EQ(timesAsked("unload-conn"), 2);
  EXPECT_EQ(timesAsked("unload-shared"), 2);
  // It may still come.
  EXPECT_FALSE(takenBack_);
}

TEST_F(CharonTest, DestroyedItWaitsForWhatIsBeingLoaded) {
  deadlines_.destruction = milliseconds(50);
  server_.stayOpen("load-shared");
  beReady();
  charon_->negotiate(plan(), secret_);
  untilAsked("load-shared");
  const auto before = std::chrono::steady_clock::now();
  // It may still come.
  EXPECT_FALSE(charon_->closeNow());
  EXPECT_GE(std::chrono::steady_clock::now() - before, deadlines_.destruction);
  EXPECT_EQ(askedFrom("terminate"), (std::vector<std::string>{"terminate", "unload-conn", "unload-shared"}));
  EXPECT_EQ(timesAsked("load-conn"), 0);
}

TEST_F(CharonTest, EndsEvenWhenTheDaemonDoesNotAnswer) {
  deadlines_.terminate = milliseconds(30);
  deadlines_.destruction = milliseconds(30);
  comeUp();
  server_.stayOpen("terminate");
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  ASSERT_FALSE(takenBack_);
  EXPECT_EQ(takenBack_.error().code, ETIMEDOUT);
  // The last try was for everything.
  EXPECT_EQ(server_.asked().back(), "unload-shared");
}

TEST_F(CharonTest, DestroyedItTakesEverythingBack) {
  comeUp();
  EXPECT_TRUE(charon_->closeNow());
  charon_.reset();
  EXPECT_EQ(askedFrom("terminate"), (std::vector<std::string>{"terminate", "unload-conn", "unload-shared"}));
  EXPECT_EQ(closed_, 0);
}

TEST_F(CharonTest, DestroyedItSaysWhatMayBeLeft) {
  deadlines_.destruction = milliseconds(30);
  comeUp();
  server_.stayOpen("unload-conn");
  EXPECT_FALSE(charon_->closeNow());
}

TEST_F(CharonTest, TakesBackWhatADeadHelperLoaded) {
  EXPECT_TRUE(Charon::takeBack(folder_.path("vici"), "vpnctl-9", seconds(5)));
  EXPECT_EQ(server_.asked(), (std::vector<std::string>{"terminate", "unload-conn", "unload-shared"}));
  EXPECT_EQ(server_.request("unload-shared").value("id"), "vpnctl-9");
  EXPECT_TRUE(Charon::takeBack(folder_.path("nobody"), "vpnctl-9", seconds(5)));
}

TEST_F(CharonTest, WhatItDoesNotKnowNeedNotBeTakenBack) {
  const Section no = Section().add("success", "no").add("errmsg", "not found");
  for (const char *command : {"terminate", "unload-conn", "unload-shared"}) server_.answer(command, no);
  EXPECT_TRUE(Charon::takeBack(folder_.path("vici"), "vpnctl-9", seconds(5)));
}

TEST_F(CharonTest, OneCommandThatTakesItsTimeLeavesTheOthersTheirs) {
  server_.stayOpen("terminate");
  const auto taken = Charon::takeBack(folder_.path("vici"), "vpnctl-9", milliseconds(50));
  ASSERT_FALSE(taken);
  EXPECT_EQ(taken.error().code, ETIMEDOUT);
  EXPECT_EQ(server_.asked(), (std::vector<std::string>{"terminate", "unload-conn", "unload-shared"}));
}

TEST_F(CharonTest, ADaemonThatCannotBeReachedMayStillHoldIt) {
  const support::FewDescriptors none(0);
  const auto taken = Charon::takeBack(folder_.path("vici"), "vpnctl-9", seconds(5));
  ASSERT_FALSE(taken);
  EXPECT_EQ(taken.error().code, EMFILE);
}

TEST_F(CharonTest, ADaemonThatLetsNobodyInMayStillHoldIt) {
  const helper::testing::CrowdedListener crowded(folder_.path("crowded"));
  const auto taken = Charon::takeBack(folder_.path("crowded"), "vpnctl-9", milliseconds(20));
  ASSERT_FALSE(taken);
  EXPECT_EQ(taken.error().code, EAGAIN);
}

TEST_F(CharonTest, NobodyAnswers) { expectSilence(silent(), IKEStage::firstAnswer); }
TEST_F(CharonTest, SilentAfterTheFirstAnswer) { expectSilence(answered(), IKEStage::proposals); }
TEST_F(CharonTest, SilentInTheKeyExchange) { expectSilence(exchanging(), IKEStage::keyExchange); }
TEST_F(CharonTest, SilentAfterTheProof) { expectSilence(proving(), IKEStage::authentication); }
TEST_F(CharonTest, ProposalsRefused) { expectNo(answered(), IKEStage::proposals); }
TEST_F(CharonTest, ProofRefused) { expectNo(proving(), IKEStage::authentication); }
TEST_F(CharonTest, AssociationRefused) { expectNo(standing(), IKEStage::association); }

TEST_F(CharonTest, TheLastStageHasTheWholeDeadline) {
  deadlines_.stage = milliseconds(10);
  server_.stayOpen("initiate");
  show(standing());
  beReady();
  charon_->negotiate(plan(), secret_);
  // Looked at many times after the time of any other stage.
  untilAsked("list-sas", 10);
  EXPECT_FALSE(refusal_);
  server_.finish("initiate", Section().add("success", "yes"));
  ASSERT_TRUE(runUntil([&] { return established_ == 1; }));
}

TEST_F(CharonTest, ADaemonThatDoesNotBegin) {
  server_.answer("initiate", Section().add("success", "no"));
  beReady();
  charon_->negotiate(plan(), secret_);
  expectRefusal(IKEStage::firstAnswer, false);
}

TEST_F(CharonTest, ASecondTryLoadsAnew) {
  server_.answer("initiate", Section().add("success", "no"));
  beReady();
  charon_->negotiate(plan(), secret_);
  expectRefusal(IKEStage::firstAnswer, false);
  server_.answer("initiate", Section().add("success", "yes"));
  IKEPlan second = plan();
  second.proposals = {"3des-sha1-modp1024"};
  charon_->negotiate(second, secret_);
  ASSERT_TRUE(runUntil([&] { return established_ == 1; }));
  EXPECT_EQ(server_.request("load-conn").section(kName).list("proposals"), second.proposals);
  EXPECT_EQ(askedFrom("terminate").front(), "terminate");
}

// The first try's is with the daemon, which in this test is the same process: so the second one's differs.
TEST_F(CharonTest, ASecretThatIsNotOnItsWayYetGoesWithTheDaemon) {
  server_.answer("initiate", Section().add("success", "no"));
  beReady();
  charon_->negotiate(plan(), secret_);
  expectRefusal(IKEStage::firstAnswer, false);
  server_.stayOpen("terminate");
  {
    Secret second = Secret::ofSize(kMasked.size());
    for (std::size_t i = 0; i < kMasked.size(); ++i)
      second.mutableBytes()[i] = static_cast<std::uint8_t>(kMasked[i] ^ kMask);
    charon_->negotiate(plan(), second);
  }
  untilAsked("terminate");
  EXPECT_TRUE(memoryHoldsUnmasked());
  server_.hangUp();
  ASSERT_TRUE(runUntil([&] { return unusable_.has_value(); }));
  EXPECT_FALSE(memoryHoldsUnmasked());
}

TEST_F(CharonTest, NoVersion1) {
  server_.answer("load-conn", [](const Section &request) {
    const bool one = request.section(kName).value("version") == "1";
    return std::vector<Packet>{{PacketType::response, "", Section().add("success", one ? "no" : "yes")}};
  });
  beReady();
  charon_->negotiate(plan(), secret_);
  ASSERT_TRUE(runUntil([&] { return unusable_.has_value(); }));
  EXPECT_NE(unusable_->find("was built without IKE version 1"), std::string::npos) << *unusable_;
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_EQ(server_.asked().back(), "unload-shared");
}

TEST_F(CharonTest, AConnectionThatIsNotTaken) {
  server_.answer("load-conn", Section().add("success", "no").add("errmsg", "invalid value for: proposals"));
  beReady();
  charon_->negotiate(plan(), secret_);
  ASSERT_TRUE(runUntil([&] { return unusable_.has_value(); }));
  EXPECT_NE(unusable_->find("does not take the connection: invalid value for: proposals"), std::string::npos);
}

TEST_F(CharonTest, ASecretThatIsNotTaken) {
  server_.answer("load-shared", Section().add("success", "no").add("errmsg", "no"));
  server_.stayOpen("load-conn");
  beReady();
  charon_->negotiate(plan(), secret_);
  ASSERT_TRUE(runUntil([&] { return unusable_.has_value(); }));
  EXPECT_NE(unusable_->find("does not take the shared secret"), std::string::npos);
}

TEST_F(CharonTest, TheServerEndsIt) {
  comeUp();
  show({});
  server_.say("child-updown", standing(child("DELETED")));
  ASSERT_TRUE(runUntil([&] { return lost_.has_value(); }));
  EXPECT_EQ(*lost_, "The server has ended the IPSec association.");
}

TEST_F(CharonTest, IKEEndsAndTheChildWithIt) {
  comeUp();
  show({});
  server_.say("ike-updown", standing());
  ASSERT_TRUE(runUntil([&] { return lost_.has_value(); }));
}

TEST_F(CharonTest, NewKeysAreNoLoss) {
  comeUp();
  show(standing(child("INSTALLED")));
  server_.say("child-updown", standing(child("DELETED")));
  server_.say("ike-updown", standing());
  untilAsked("list-sas", 3);
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_FALSE(lost_);
}

TEST_F(CharonTest, AnEndThatIsToldOfBeforeTheBeginning) {
  server_.stayOpen("initiate");
  beReady();
  untilAsked("+child-updown");
  charon_->negotiate(plan(), secret_);
  untilAsked("initiate");
  server_.say("child-updown", standing(child("DELETED")));
  drain();
  server_.finish("initiate", Section().add("success", "yes"));
  ASSERT_TRUE(runUntil([&] { return lost_.has_value(); }));
  EXPECT_EQ(established_, 1);
}

TEST_F(CharonTest, SomebodyElsesAssociationsDoNotMatter) {
  comeUp();
  Section other = Section().add("office", Section().add("state", "ESTABLISHED"));
  server_.say("child-updown", other);
  server_.say("child-updown", Section().add("up", "yes").add(kName, Section().add("state", "ESTABLISHED")));
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_EQ(timesAsked("list-sas"), 1);
  EXPECT_FALSE(lost_);
}

TEST_F(CharonTest, TheDaemonDies) {
  comeUp();
  server_.hangUp();
  ASSERT_TRUE(runUntil([&] { return lost_.has_value(); }));
  EXPECT_NE(lost_->find("The IKE daemon has closed its control socket"), std::string::npos);
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
}

// Nothing is answered any more, and nothing tells so once more.
TEST_F(CharonTest, EndsWhenTheDaemonDiedLongAgo) {
  comeUp();
  server_.hangUp();
  ASSERT_TRUE(runUntil([&] { return lost_.has_value(); }));
  drain();
  charon_->close();
  ASSERT_TRUE(runUntil([&] { return closed_ == 1; }));
  EXPECT_TRUE(takenBack_);
}

TEST_F(CharonTest, TheDaemonDiesInTheMiddle) {
  server_.stayOpen("initiate");
  beReady();
  charon_->negotiate(plan(), secret_);
  untilAsked("initiate");
  server_.hangUp();
  ASSERT_TRUE(runUntil([&] { return unusable_.has_value(); }));
  EXPECT_NE(unusable_->find("while it was needed"), std::string::npos);
}

}  // namespace
