#include "helper/ppp/PluginChannel.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "helper/ppp/PluginProtocol.h"

namespace helper {

PluginChannel::PluginChannel(sd_event *event, Handlers handlers) : event_(event), handlers_(std::move(handlers)) {}

PluginChannel::~PluginChannel() { stopListening(); }

vpnctl::Status PluginChannel::listen(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return vpnctl::errnoError(ENAMETOOLONG, "listen at " + path);
  std::memcpy(address.sun_path, path.data(), path.size());
  listener_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener_ || ::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) < 0)
    return vpnctl::errnoError(errno, "listen at " + path);
  path_ = path;
  if (::listen(listener_.get(), 1) < 0) return vpnctl::errnoError(errno, "listen at " + path);
  listening_ = linux::EventSource::io(event_, listener_.get(), EPOLLIN, [this](std::uint32_t) { connectionArrived(); });
  return {};
}

void PluginChannel::accepts(pid_t pid, std::string program) {
  expectedPID_ = pid;
  expectedProgram_ = std::move(program);
}

void PluginChannel::connectionArrived() {
  vpnctl::FileDescriptor connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!connection) return;
  auto peer = Peer::ofSocket(connection.get());
  // The folder is root's alone, so a stranger is not expected; if one comes all the same, it is shown the door.
  if (!peer || peer->pid() != expectedPID_ || !peer->runs(expectedProgram_)) return;
  peer_ = std::move(*peer);
  stopListening();
  adopt(std::move(connection));
}

void PluginChannel::adopt(vpnctl::FileDescriptor connection) {
  connection_ = std::move(connection);
  reading_ = linux::EventSource::io(event_, connection_.get(), EPOLLIN, [this](std::uint32_t) { recordArrived(); });
}

bool PluginChannel::recordArrived() {
  std::array<std::uint8_t, 512> record{};
  const ssize_t size = ::recv(connection_.get(), record.data(), record.size(), MSG_DONTWAIT);
  if (size < 0 && errno == EINTR) return true;
  if (size < 0 && errno == EAGAIN) return false;
  if (size <= 0) {
    close(size == 0 ? vpnctl::Status() : vpnctl::Status(vpnctl::errnoError(errno, "hear the plugin")));
    return false;
  }
  const auto message = decodePluginMessage(std::span(record).first(static_cast<std::size_t>(size)));
  if (message)
    handlers_.message(*message);
  else
    close(message.error());
  return static_cast<bool>(connection_);
}

void PluginChannel::drain() {
  while (connection_ && recordArrived()) {
  }
}

vpnctl::Status PluginChannel::giveChannel(TunnelChannel channel) {
  vpnctl_plugin_channel answer{.header = {VPNCTL_PLUGIN_VERSION, VPNCTL_PLUGIN_CHANNEL}, .length = 0, .frame = {}};
  if (channel.earlyFrame.size() <= sizeof answer.frame) {
    answer.length = static_cast<std::uint16_t>(channel.earlyFrame.size());
    std::ranges::copy(channel.earlyFrame, answer.frame);
  }
  const std::array<int, 2> descriptors{channel.socket.get(), channel.carrier.get()};
  const std::size_t size = channel.carrier ? sizeof descriptors : sizeof descriptors[0];
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
  iovec part{&answer, sizeof answer};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = CMSG_SPACE(size);
  cmsghdr *rights = CMSG_FIRSTHDR(&message);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(size);
  std::memcpy(CMSG_DATA(rights), descriptors.data(), size);
  if (::sendmsg(connection_.get(), &message, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof answer))
    return vpnctl::errnoError(errno, "hand the tunnel to pppd");
  return {};
}

vpnctl::Status PluginChannel::givePassword(const std::optional<vpnctl::Secret> &password) {
  vpnctl::Secret record = vpnctl::Secret::ofSize(sizeof(vpnctl_plugin_password));
  // pppd would take a zero byte for the end, and try what stands before it.
  const bool usable = password && password->size() <= VPNCTL_PLUGIN_PASSWORD_SIZE &&
                      std::find(password->bytes().begin(), password->bytes().end(), 0) == password->bytes().end();
  const vpnctl_plugin_header header{VPNCTL_PLUGIN_VERSION, VPNCTL_PLUGIN_PASSWORD};
  const std::int32_t length = usable ? static_cast<std::int32_t>(password->size()) : -1;
  // Written straight into memory that wipes itself; a local structure would leave a copy on the stack.
  std::uint8_t *bytes = record.mutableBytes().data();
  std::memcpy(bytes + offsetof(vpnctl_plugin_password, header), &header, sizeof header);
  std::memcpy(bytes + offsetof(vpnctl_plugin_password, length), &length, sizeof length);
  if (usable && length > 0)
    std::memcpy(bytes + offsetof(vpnctl_plugin_password, bytes), password->bytes().data(), password->size());
  if (::send(connection_.get(), bytes, record.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(record.size()))
    return vpnctl::errnoError(errno, "answer pppd");
  return {};
}

void PluginChannel::hangUp() {
  stopListening();
  if (connection_) ::shutdown(connection_.get(), SHUT_WR);
}

void PluginChannel::close(const vpnctl::Status &reason) {
  reading_.reset();
  connection_.reset();
  handlers_.closed(reason);
}

void PluginChannel::stopListening() {
  listening_.reset();
  if (listener_ && !path_.empty()) ::unlink(path_.c_str());
  listener_.reset();
}

}  // namespace helper
