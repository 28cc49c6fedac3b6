#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>

#include "helper/ppp/PluginChannel.h"
#include "helper/ppp/PluginProtocol.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using namespace helper;
using vpnctl::FileDescriptor;

namespace {

class PluginChannelTest : public support::LoopFixture {
 protected:
  PluginChannelTest()
      : channel_(event_, PluginChannel::Handlers{
                             .message = [this](const PluginMessage &message) { messages_.push_back(message); },
                             .closed = [this](const vpnctl::Status &reason) { closed_ = reason; }}) {}

  void connectPair() {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    plugin_.reset(ends[0]);
    channel_.adopt(FileDescriptor(ends[1]));
  }
  void connectByName(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    plugin_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(plugin_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  }
  template <class Record>
  void say(const Record &record) {
    ASSERT_EQ(::send(plugin_.get(), &record, sizeof record, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof record));
  }
  static vpnctl_plugin_header header(std::uint16_t type) { return {VPNCTL_PLUGIN_VERSION, type}; }

  const support::TemporaryFolder folder_;
  std::vector<PluginMessage> messages_;
  std::optional<vpnctl::Status> closed_;
  FileDescriptor plugin_;
  PluginChannel channel_;
};

TEST_F(PluginChannelTest, HearsThePlugin) {
  connectPair();
  say(header(VPNCTL_PLUGIN_NEED_CHANNEL));
  say(vpnctl_plugin_phase{header(VPNCTL_PLUGIN_PHASE), 4, 1});
  ASSERT_TRUE(runUntil([this] { return messages_.size() == 2; }));
  EXPECT_TRUE(std::holds_alternative<PluginNeedsChannel>(messages_[0]));
  EXPECT_EQ(std::get<PluginPhase>(messages_[1]).phase, 4);
  plugin_.reset();
  ASSERT_TRUE(runUntil([this] { return closed_.has_value(); }));
  EXPECT_TRUE(*closed_);
}

TEST_F(PluginChannelTest, HangsUpOnNonsense) {
  connectPair();
  say(std::array<char, 5>{});
  ASSERT_TRUE(runUntil([this] { return closed_.has_value(); }));
  EXPECT_FALSE(*closed_);
  EXPECT_TRUE(messages_.empty());
}

TEST_F(PluginChannelTest, HandsTheDescriptorsOver) {
  connectPair();
  const auto open = [](const char *path) { return FileDescriptor(::open(path, O_RDONLY | O_CLOEXEC)); };
  const auto device = [](int file) {
    struct stat status {};
    EXPECT_EQ(::fstat(file, &status), 0);
    return status.st_rdev;
  };
  ASSERT_TRUE(channel_.giveChannel(TunnelChannel(open("/dev/zero"), {0xff, 0x03, 0xc0}, open("/dev/null"))));

  vpnctl_plugin_channel answer{};
  std::array<int, 2> fds{-1, -1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof fds)> control{};
  iovec part{&answer, sizeof answer};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ASSERT_EQ(::recvmsg(plugin_.get(), &message, MSG_CMSG_CLOEXEC), static_cast<ssize_t>(sizeof answer));
  EXPECT_EQ(answer.header.type, VPNCTL_PLUGIN_CHANNEL);
  EXPECT_EQ(answer.length, 3);
  EXPECT_EQ(answer.frame[2], 0xc0);
  const cmsghdr *rights = CMSG_FIRSTHDR(&message);
  ASSERT_NE(rights, nullptr);
  ASSERT_EQ(rights->cmsg_len, CMSG_LEN(sizeof fds));
  std::memcpy(fds.data(), CMSG_DATA(rights), sizeof fds);
  const FileDescriptor channel(fds[0]);
  const FileDescriptor carrier(fds[1]);
  EXPECT_EQ(device(channel.get()), device(open("/dev/zero").get()));
  EXPECT_EQ(device(carrier.get()), device(open("/dev/null").get()));
}

TEST_F(PluginChannelTest, GivesThePasswordAsItIs) {
  connectPair();
  const std::string awkward("a \\ \"\xff\n#", 8);
  ASSERT_TRUE(channel_.givePassword(vpnctl::Secret(awkward)));
  vpnctl_plugin_password answer{};
  ASSERT_EQ(::recv(plugin_.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
  EXPECT_EQ(answer.header.type, VPNCTL_PLUGIN_PASSWORD);
  ASSERT_EQ(answer.length, static_cast<int>(awkward.size()));
  EXPECT_EQ(std::memcmp(answer.bytes, awkward.data(), awkward.size()), 0);
}

TEST_F(PluginChannelTest, SaysWhenThereIsNoUsablePassword) {
  connectPair();
  vpnctl_plugin_password answer{};
  ASSERT_TRUE(channel_.givePassword(std::nullopt));
  ASSERT_EQ(::recv(plugin_.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
  EXPECT_EQ(answer.length, -1);
  ASSERT_TRUE(channel_.givePassword(vpnctl::Secret(std::string(256, 'x'))));
  ASSERT_EQ(::recv(plugin_.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
  EXPECT_EQ(answer.length, -1);
  ASSERT_TRUE(channel_.givePassword(vpnctl::Secret(std::string("a\0b", 3))));
  ASSERT_EQ(::recv(plugin_.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
  EXPECT_EQ(answer.length, -1);
  ASSERT_TRUE(channel_.givePassword(vpnctl::Secret(std::string(255, 'x'))));
  ASSERT_EQ(::recv(plugin_.get(), &answer, sizeof answer, 0), static_cast<ssize_t>(sizeof answer));
  EXPECT_EQ(answer.length, 255);
}

TEST_F(PluginChannelTest, HangingUpStillHears) {
  connectPair();
  channel_.hangUp();
  char byte = 0;
  EXPECT_EQ(::recv(plugin_.get(), &byte, 1, 0), 0) << "the plugin sees the end";
  say(vpnctl_plugin_exit{header(VPNCTL_PLUGIN_EXIT), 16, 3, 0, 0});
  ASSERT_TRUE(runUntil([this] { return messages_.size() == 1; }));
  EXPECT_EQ(std::get<PluginExit>(messages_[0]).status, 16);
}

TEST_F(PluginChannelTest, DrainsWhatIsLeft) {
  connectPair();
  for (int phase = 1; phase <= 5; ++phase) say(vpnctl_plugin_phase{header(VPNCTL_PLUGIN_PHASE), phase, 0});
  plugin_.reset();
  channel_.drain();
  EXPECT_EQ(messages_.size(), 5U);
  EXPECT_TRUE(closed_);
}

TEST_F(PluginChannelTest, LetsOnlyTheExpectedProcessIn) {
  const std::string path = folder_.path("plugin");
  ASSERT_TRUE(channel_.listen(path));
  channel_.accepts(::getpid(), "/proc/self/exe");
  connectByName(path);
  say(header(VPNCTL_PLUGIN_NEED_CHANNEL));
  ASSERT_TRUE(runUntil([this] { return messages_.size() == 1; }));
  ASSERT_NE(channel_.peer(), nullptr);
  EXPECT_EQ(channel_.peer()->pid(), ::getpid());
  EXPECT_FALSE(std::filesystem::exists(path)) << "one connection is enough";
}

TEST_F(PluginChannelTest, ShowsStrangersTheDoor) {
  const std::string path = folder_.path("plugin");
  ASSERT_TRUE(channel_.listen(path));
  for (const auto &[pid, program] :
       {std::pair<pid_t, std::string>{::getpid() + 1, "/proc/self/exe"}, {::getpid(), "/bin/true"}}) {
    channel_.accepts(pid, program);
    connectByName(path);
    char byte = 0;
    ASSERT_TRUE(runUntil([&] { return ::recv(plugin_.get(), &byte, 1, MSG_DONTWAIT) == 0; }));
    EXPECT_EQ(channel_.peer(), nullptr);
  }
}

TEST_F(PluginChannelTest, RefusesAPathThatIsTooLong) { EXPECT_FALSE(channel_.listen("/" + std::string(200, 'x'))); }

}  // namespace
