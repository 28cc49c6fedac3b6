// The plugin itself, loaded into a stand-in for pppd, with a real PluginChannel at the other end.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <thread>

#include "StubPPPD.h"
#include "helper/ppp/PluginChannel.h"
#include "linux/EventSource.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using vpnctl::FileDescriptor;

namespace {

// pppd's phases (pppd.h).
constexpr int kDead = 0;
constexpr int kTerminate = 9;
constexpr int kDisconnect = 10;

// SIGTERM is blocked in these tests: whether it was sent can be asked at any moment.
bool terminated() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGTERM) == 1;
}

// Each test is a process of its own under ctest; run in one process, the plugin keeps its first connection.
class PluginTest : public support::LoopFixture {
 protected:
  PluginTest()
      : channel_(event_, PluginChannel::Handlers{.message = [this](const PluginMessage &message) { answer(message); },
                                                 .closed = [this](const vpnctl::Status &) { closed_ = true; }}) {
    plugin_ = ::dlopen(PLUGIN, RTLD_NOW);
    EXPECT_NE(plugin_, nullptr) << ::dlerror();
    reinterpret_cast<void (*)()>(::dlsym(plugin_, "plugin_init"))();
    stub_set_option("vpnctl-socket", folder_.path("plugin").c_str());
    EXPECT_TRUE(channel_.listen(folder_.path("plugin")));
    channel_.accepts(::getpid(), "/proc/self/exe");
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    EXPECT_EQ(::pthread_sigmask(SIG_BLOCK, &term, nullptr), 0);
  }

  void answer(const PluginMessage &message) {
    messages_.push_back(message);
    if (std::holds_alternative<PluginNeedsChannel>(message)) {
      if (refuse_) return channel_.hangUp();
      EXPECT_TRUE(channel_.giveChannel(
          TunnelChannel(FileDescriptor(::open("/dev/zero", O_RDONLY | O_CLOEXEC)), earlyFrame_, std::move(carrier_))));
    }
    if (std::holds_alternative<PluginNeedsPassword>(message)) EXPECT_TRUE(channel_.givePassword(password_));
  }
  // pppd's side blocks, so it runs on a thread of its own while the loop answers.
  void asPPPD(const std::function<void()> &part) {
    const FileDescriptor done(::eventfd(0, EFD_CLOEXEC));
    bool finished = false;
    const auto waiting = linux::EventSource::io(event_, done.get(), EPOLLIN, [&](std::uint32_t) { finished = true; });
    std::thread thread([&] {
      part();
      EXPECT_EQ(::eventfd_write(done.get(), 1), 0);
    });
    EXPECT_TRUE(runUntil([&] { return finished; }));
    thread.join();
  }
  int connect() {
    int fd = -1;
    asPPPD([&] { fd = stub_channel_connect(); });
    return fd;
  }
  static void receive(const std::vector<unsigned char> &packet) {
    stub_receive_packet(packet.data(), static_cast<int>(packet.size()));
  }
  // What the helper hears when pppd exits with that status, after it went through these phases, each with the status
  // that it had by then.
  struct Reached {
    int status;
    int phase;
  };
  int reportedExit(const std::vector<Reached> &phases, int code) {
    const FileDescriptor fd(connect());
    messages_.clear();
    for (const Reached &reached : phases) {
      stub_set_status(reached.status);
      stub_phase(reached.phase);
    }
    stub_exit(code);
    EXPECT_TRUE(runUntil([&] { return messages_.size() == phases.size() + 1; }));
    const auto *exit = std::get_if<PluginExit>(&messages_.back());
    return exit != nullptr ? exit->status : -1;
  }

  const support::TemporaryFolder folder_;
  void *plugin_ = nullptr;
  bool refuse_ = false;
  std::vector<std::uint8_t> earlyFrame_;
  FileDescriptor carrier_;
  bool closed_ = false;
  std::optional<vpnctl::Secret> password_ = vpnctl::Secret("a \\ \"b");
  std::vector<PluginMessage> messages_;
  PluginChannel channel_;
};

TEST_F(PluginTest, SaysWhichPPPDItIsFor) {
  EXPECT_STREQ(static_cast<const char *>(::dlsym(plugin_, "pppd_version")), stub_version());
}

TEST_F(PluginTest, TakesBackWhatTheOptionsFileDemandsOfCallers) {
  EXPECT_FALSE(stub_demands_authentication());
  EXPECT_TRUE(stub_negotiates_compression());
  EXPECT_FALSE(stub_wants_encryption());
  EXPECT_TRUE(stub_have_password());
}

TEST_F(PluginTest, TracesThatThereWasAnAuthenticationAndNothingOfIt) {
  const std::array<unsigned char, 8> packet{2, 7, 0, 8, 0xab, 0xcd, 0xef, 0x99};
  const auto trace = [&](int protocol, int size = 8) { return std::string(stub_trace(protocol, packet.data(), size)); };
  EXPECT_EQ(trace(0xc023), "[PAP code=2 id=0x7, not shown]");
  EXPECT_EQ(trace(0xc223), "[CHAP code=2 id=0x7, not shown]");
  EXPECT_EQ(trace(0xc227), "[EAP code=2 id=0x7, not shown]");
  EXPECT_EQ(trace(0xc223, 1), "[CHAP]");
  EXPECT_EQ(trace(0x8021), "[IPCP 02 07 00 08 ab cd ef 99]") << "the rest stays";
}

TEST_F(PluginTest, TracesNoAuthenticationThatComesBackRejectedEither) {
  const auto trace = [](unsigned char code, unsigned char high, unsigned char low) {
    const std::array<unsigned char, 10> packet{code, 3, 0, 10, high, low, 0xab, 0xcd, 0xef, 0x99};
    return std::string(stub_trace(0xc021, packet.data(), static_cast<int>(packet.size())));
  };
  for (const auto &[high, low] : {std::pair{0xc0, 0x23}, {0xc2, 0x23}, {0xc2, 0x27}})
    EXPECT_EQ(trace(8, static_cast<unsigned char>(high), static_cast<unsigned char>(low)).find("ab"),
              std::string::npos);
  EXPECT_EQ(trace(8, 0xc2, 0x23), "[LCP ProtRej id=0x3 proto=0xc223, not shown]");
  EXPECT_EQ(trace(8, 0x80, 0xfd), "[LCP 08 03 00 0a 80 fd ab cd ef 99]");
  EXPECT_EQ(trace(1, 0xc2, 0x23), "[LCP 01 03 00 0a c2 23 ab cd ef 99]");
}

// pppd takes some out of a peer's Nak that nobody has asked for.
TEST_F(PluginTest, ReportsNoNameServersThatItDidNotAskFor) {
  const FileDescriptor fd(connect());
  messages_.clear();
  stub_ip_up();
  ASSERT_TRUE(runUntil([this] { return messages_.size() == 1; }));
  EXPECT_TRUE(std::get<PluginIPUp>(messages_[0]).dns.empty());
}

TEST_F(PluginTest, AsksForNameServersOnlyWhenTold) {
  stub_choose_ip();
  EXPECT_FALSE(stub_asks_for_dns());
  stub_set_option("vpnctl-peer-dns", "");
  stub_choose_ip();
  EXPECT_TRUE(stub_asks_for_dns());
}

TEST_F(PluginTest, ReceivesTheTunnelCloseOnExec) {
  const FileDescriptor fd(connect());
  ASSERT_TRUE(fd);
  struct stat got {};
  struct stat zero {};
  ASSERT_EQ(::fstat(fd.get(), &got), 0);
  ASSERT_EQ(::stat("/dev/zero", &zero), 0);
  EXPECT_EQ(got.st_rdev, zero.st_rdev);
  EXPECT_TRUE(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(PluginTest, GivesUpWhenTheLineIsGoneBeforeTheTunnelIsThere) {
  refuse_ = true;
  EXPECT_EQ(connect(), -1);
  EXPECT_EQ(stub_status(), 8);
}

TEST_F(PluginTest, GivesUpWhenSomebodyAsksForTheEnd) {
  stub_ask_to_end();
  EXPECT_EQ(connect(), -1);
  EXPECT_EQ(stub_status(), 5);
}

TEST_F(PluginTest, GivesUpWithoutAHelper) {
  stub_set_option("vpnctl-socket", "/nowhere/at/all");
  EXPECT_EQ(stub_channel_connect(), -1);
  stub_set_option("vpnctl-socket", std::string(300, 'x').c_str());
  EXPECT_EQ(stub_channel_connect(), -1);
}

TEST_F(PluginTest, ReportsPhasesAddressesAndTheEnd) {
  stub_set_option("vpnctl-peer-dns", "");
  const FileDescriptor fd(connect());
  messages_.clear();
  stub_phase(4);
  for (int i = 0; i < 2; ++i) receive({0xff, 0x03, 0x00, 0x21});
  stub_phase(5);
  stub_ip_up();
  stub_exit(19);
  ASSERT_TRUE(runUntil([this] { return messages_.size() == 4; }));
  EXPECT_EQ(std::get<PluginPhase>(messages_[0]), (PluginPhase{4, 0}));
  EXPECT_EQ(std::get<PluginPhase>(messages_[1]), (PluginPhase{5, 2}));
  const auto &up = std::get<PluginIPUp>(messages_[2]);
  EXPECT_EQ(up.interface, "ppp7");
  EXPECT_EQ(up.localAddress.s_addr, 11U);
  EXPECT_EQ(up.peerAddress.s_addr, 12U);
  ASSERT_EQ(up.dns.size(), 2U);
  EXPECT_EQ(up.dns[0].s_addr, 13U);
  EXPECT_EQ(up.mtu, 1400);
  EXPECT_EQ(up.mru, 1500);
  EXPECT_EQ(std::get<PluginExit>(messages_[3]), (PluginExit{19, 2}));
  EXPECT_FALSE(terminated());
}

// pppd reads once more from a link that is dead, and takes what it gets for a hang-up.
TEST_F(PluginTest, ReportsADeadPeerAlsoWhenPPPDTakesItForAHangUp) {
  EXPECT_EQ(reportedExit({{15, kDisconnect}, {15, kDead}}, 16), 15);
}

// A server that has heard of the end closes the line while pppd is still on its way out.
TEST_F(PluginTest, ReportsWhatPPPDEndsForAlsoWhenTheServerHangsUpMeanwhile) {
  EXPECT_EQ(reportedExit({{19, kTerminate}, {16, kDisconnect}, {16, kDead}}, 16), 19);
}

// One that takes too long is asked to end.
TEST_F(PluginTest, ReportsWhatPPPDEndsForAlsoWhenItIsAskedToMeanwhile) {
  EXPECT_EQ(reportedExit({{19, kTerminate}, {5, kTerminate}}, 5), 19);
}

// The link asks, and lets it hang up, when the tunnel is gone.
TEST_F(PluginTest, ReportsAHangUpAlsoWhenItWasAskedToEndBefore) {
  EXPECT_EQ(reportedExit({{5, kTerminate}, {16, kDisconnect}, {16, kDead}}, 16), 16);
}

TEST_F(PluginTest, ReportsAHangUpThatNothingWentBefore) {
  EXPECT_EQ(reportedExit({{16, kDisconnect}, {16, kDead}}, 16), 16);
}

TEST_F(PluginTest, ReportsEncryptionOnlyInBothDirections) {
  const FileDescriptor fd(connect());
  messages_.clear();
  const std::vector<std::array<int, 3>> states{{0, 1, 1}, {1, 0, 1}, {1, 1, 0}, {1, 1, 1}};
  for (const auto &[opened, received, sent] : states) {
    stub_set_encryption(opened, received, sent);
    stub_ip_up();
  }
  ASSERT_TRUE(runUntil([&] { return messages_.size() == states.size(); }));
  for (std::size_t i = 0; i < states.size(); ++i) EXPECT_EQ(std::get<PluginIPUp>(messages_[i]).encrypted, i == 3) << i;
}

TEST_F(PluginTest, LetsNobodyLookAtThePassword) { EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 0); }

TEST_F(PluginTest, AnswersForThePassword) {
  const FileDescriptor fd(connect());
  EXPECT_EQ(stub_pap_password(nullptr), 1) << "the first call only asks whether there is one";
  std::array<char, 256> buffer{};
  asPPPD([&] { EXPECT_EQ(stub_chap_password(buffer.data()), 0); });
  EXPECT_STREQ(buffer.data(), "a \\ \"b");
  buffer.fill('x');
  asPPPD([&] { EXPECT_EQ(stub_pap_password(buffer.data()), 1); });
  EXPECT_STREQ(buffer.data(), "a \\ \"b");
  EXPECT_FALSE(terminated()) << "an answer is no hang-up";
}

TEST_F(PluginTest, SaysWhenThereIsNoPassword) {
  password_.reset();
  const FileDescriptor fd(connect());
  std::array<char, 256> buffer{};
  asPPPD([&] { EXPECT_LT(stub_chap_password(buffer.data()), 0); });
  EXPECT_STREQ(buffer.data(), "");
  EXPECT_FALSE(terminated()) << "without an answer to CHAP, pppd ends by itself";
}

// pppd itself would go on with an empty one.
TEST_F(PluginTest, WithoutAPasswordPAPEndsIt) {
  password_.reset();
  const FileDescriptor fd(connect());
  std::array<char, 256> buffer{};
  asPPPD([&] { EXPECT_EQ(stub_pap_password(buffer.data()), 0); });
  EXPECT_STREQ(buffer.data(), "");
  EXPECT_TRUE(terminated());
  messages_.clear();
  constexpr int kUserRequest = 5;  // as which pppd takes the signal
  stub_set_status(kUserRequest);
  stub_exit(kUserRequest);
  ASSERT_TRUE(runUntil([&] { return messages_.size() == 1; }));
  EXPECT_EQ(std::get<PluginExit>(messages_.front()).status, 19);
}

TEST_F(PluginTest, IsSignalledWhenTheHelperHangsUp) {
  const FileDescriptor fd(connect());
  ASSERT_FALSE(terminated());
  channel_.hangUp();
  EXPECT_TRUE(runUntil(terminated)) << "by the kernel, not by anything the plugin is called for";
  // pppd then begins to end, and finds an end-of-file on its channel.
  const FileDescriptor ppp(::open("/dev/zero", O_RDWR | O_CLOEXEC));
  stub_set_ppp_fd(ppp.get());
  stub_phase(9);
  char byte = 1;
  EXPECT_EQ(::read(ppp.get(), &byte, 1), 0);
}

// The kernel's signal for an answer may come when the answer has been read long since.
TEST_F(PluginTest, IsNotMisledByALateSignal) {
  const FileDescriptor fd(connect());
  ASSERT_TRUE(fd);
  EXPECT_EQ(::raise(SIGIO), 0);
  EXPECT_FALSE(terminated());
  channel_.hangUp();
  EXPECT_EQ(::raise(SIGIO), 0);
  EXPECT_TRUE(terminated());
}

TEST_F(PluginTest, TakesABrokenConnectionForAHangUp) {
  const FileDescriptor fd(connect());
  stub_phase(4);
  // Destroyed with a word unread, the socket leaves an error behind instead of an end-of-file.
  channel_.~PluginChannel();
  new (&channel_) PluginChannel(event_, {});
  const FileDescriptor ppp(::open("/dev/zero", O_RDWR | O_CLOEXEC));
  stub_set_ppp_fd(ppp.get());
  stub_phase(9);
  char byte = 1;
  EXPECT_EQ(::read(ppp.get(), &byte, 1), 0);
}

TEST_F(PluginTest, KeepsItsChannelWhenTheEndIsOrderly) {
  const FileDescriptor fd(connect());
  const FileDescriptor ppp(::open("/dev/zero", O_RDWR | O_CLOEXEC));
  stub_set_ppp_fd(ppp.get());
  stub_phase(9);
  char byte = 1;
  EXPECT_EQ(::read(ppp.get(), &byte, 1), 1);
}

// The kernel sends the channel's frames in the carrier, protected by its policy, for as long as there is a channel; and
// closes what a killed pppd leaves behind in the order of the numbers.
TEST_F(PluginTest, HoldsWhatTheChannelTravelsInUntilTheChannelIsClosed) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const FileDescriptor reading(pipe[0]);
  carrier_.reset(pipe[1]);
  const auto isHeld = [&] {
    char byte = 0;
    return ::read(reading.get(), &byte, 1) < 0 && errno == EAGAIN;  // not the end of the file
  };
  const int fd = connect();
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(isHeld());
  struct stat pipes {};
  ASSERT_EQ(::fstat(reading.get(), &pipes), 0);
  for (int lower = 0; lower < fd; ++lower) {
    struct stat other {};
    EXPECT_FALSE(lower != reading.get() && ::fstat(lower, &other) == 0 && other.st_ino == pipes.st_ino &&
                 other.st_dev == pipes.st_dev)
        << lower << " is closed before the channel, " << fd;
  }
  ASSERT_GE(stub_channel_establish(fd), 0);
  EXPECT_TRUE(isHeld());
  stub_channel_disestablish(fd);
  EXPECT_LT(::fcntl(fd, F_GETFD), 0);
  EXPECT_FALSE(isHeld());
}

// ---- What the server said before the channel was there
TEST_F(PluginTest, GivesLCPWhatCameBeforeTheChannel) {
  earlyFrame_ = {0xff, 0x03, 0xc0, 0x21, 1, 7, 0, 8, 3, 4, 0xc0, 0x23};
  const FileDescriptor fd(connect());
  std::array<unsigned char, 300> packet{};
  ASSERT_GE(stub_channel_establish(fd.get()), 0);
  EXPECT_EQ(stub_lcp_packet(packet.data()), -1) << "LCP does not listen yet";
  stub_next_turn();
  ASSERT_EQ(stub_lcp_packet(packet.data()), 8);
  EXPECT_TRUE(std::equal(earlyFrame_.begin() + 4, earlyFrame_.end(), packet.begin()));
  messages_.clear();
  stub_exit(10);
  ASSERT_TRUE(runUntil([this] { return messages_.size() == 1; }));
  EXPECT_EQ(std::get<PluginExit>(messages_.front()), (PluginExit{10, 1, PPPDispute{.wantedAuthentication = 0xc02300}}));
}

TEST_F(PluginTest, GivesLCPNoRequestTwice) {
  earlyFrame_ = {0xff, 0x03, 0xc0, 0x21, 1, 7, 0, 8, 3, 4, 0xc0, 0x23};
  const FileDescriptor fd(connect());
  std::array<unsigned char, 300> packet{};
  ASSERT_GE(stub_channel_establish(fd.get()), 0);
  receive({0xff, 0x03, 0xc0, 0x21, 2, 1, 0, 4});  // an answer is no request
  receive(earlyFrame_);
  stub_next_turn();
  EXPECT_EQ(stub_lcp_packet(packet.data()), -1);
}

TEST_F(PluginTest, GivesLCPNothingWhereNothingCame) {
  const FileDescriptor fd(connect());
  std::array<unsigned char, 300> packet{};
  ASSERT_GE(stub_channel_establish(fd.get()), 0);
  stub_next_turn();
  EXPECT_EQ(stub_lcp_packet(packet.data()), -1);
}

TEST_F(PluginTest, GivesLCPNothingOfOtherProtocols) {
  earlyFrame_ = {0xff, 0x03, 0xc0, 0x23, 1, 7, 0, 4};
  const FileDescriptor fd(connect());
  std::array<unsigned char, 300> packet{};
  ASSERT_GE(stub_channel_establish(fd.get()), 0);
  stub_next_turn();
  EXPECT_EQ(stub_lcp_packet(packet.data()), -1);
}

// ---- What the server wants and refuses

struct Said {
  const char *name;
  std::vector<std::vector<unsigned char>> packets;  // from the protocol on
  PPPDispute dispute;
};

class PluginDispute : public PluginTest, public ::testing::WithParamInterface<Said> {};

TEST_P(PluginDispute, IsToldAtTheEnd) {
  const FileDescriptor fd(connect());
  messages_.clear();
  for (std::vector<unsigned char> packet : GetParam().packets) {
    packet.insert(packet.begin(), {0xff, 0x03});
    receive(packet);
  }
  stub_exit(10);
  ASSERT_TRUE(runUntil([this] { return messages_.size() == 1; }));
  EXPECT_EQ(std::get<PluginExit>(messages_.front()).dispute, GetParam().dispute);
}

INSTANTIATE_TEST_SUITE_P(
    PluginTest, PluginDispute,
    ::testing::Values(
        Said{"PAP", {{0xc0, 0x21, 1, 1, 0, 12, 1, 4, 5, 220, 3, 4, 0xc0, 0x23}}, {.wantedAuthentication = 0xc02300}},
        Said{"CHAP", {{0xc0, 0x21, 1, 1, 0, 9, 3, 5, 0xc2, 0x23, 5}}, {.wantedAuthentication = 0xc22305}},
        Said{"theLatestWish",
             {{0xc0, 0x21, 1, 1, 0, 9, 3, 5, 0xc2, 0x23, 5}, {0xc0, 0x21, 1, 2, 0, 8, 3, 4, 0xc0, 0x23}},
             {.wantedAuthentication = 0xc02300}},
        Said{"noWish", {{0xc0, 0x21, 1, 1, 0, 8, 1, 4, 5, 220}}, {}},
        Said{"aWishOfOurs", {{0xc0, 0x21, 3, 1, 0, 8, 3, 4, 0xc0, 0x23}}, {}},
        Said{"behindThePacketsEnd", {{0xc0, 0x21, 1, 1, 0, 4, 3, 4, 0xc0, 0x23}}, {}},
        Said{"longerThanThePacket", {{0xc0, 0x21, 1, 1, 0, 9, 3, 4, 0xc0, 0x23}}, {}},
        Said{"anOptionThatIsCut", {{0xc0, 0x21, 1, 1, 0, 7, 3, 4, 0xc0}}, {}},
        Said{"anOptionWithoutLength", {{0xc0, 0x21, 1, 1, 0, 8, 3, 0, 0xc0, 0x23}}, {}},
        Said{"noCCP", {{0xc0, 0x21, 8, 1, 0, 6, 0x80, 0xfd}}, {.encryption = true}},
        Said{"noIPCP", {{0xc0, 0x21, 8, 1, 0, 6, 0x80, 0x21}}, {.address = true}},
        Said{"noIPv6CP", {{0xc0, 0x21, 8, 1, 0, 6, 0x80, 0x57}}, {}},
        Said{"noMPPE", {{0x80, 0xfd, 4, 1, 0, 10, 18, 6, 1, 0, 0, 0x40}}, {.encryption = true}},
        Said{"otherMPPE", {{0x80, 0xfd, 3, 1, 0, 10, 18, 6, 1, 0, 0, 0x40}}, {}},
        Said{"noAddress", {{0x80, 0x21, 4, 1, 0, 10, 3, 6, 0, 0, 0, 0}}, {.address = true}},
        Said{"noNameServers", {{0x80, 0x21, 4, 1, 0, 10, 129, 6, 0, 0, 0, 0}}, {}},
        Said{"anAddressThatIsNone", {{0x80, 0x21, 3, 1, 0, 10, 3, 6, 0, 0, 0, 0}}, {.address = true}},
        Said{"anAddressAfterAll",
             {{0x80, 0x21, 3, 1, 0, 10, 3, 6, 0, 0, 0, 0}, {0x80, 0x21, 3, 2, 0, 10, 3, 6, 10, 0, 0, 2}},
             {}}),
    [](const auto &test) { return test.param.name; });

}  // namespace
