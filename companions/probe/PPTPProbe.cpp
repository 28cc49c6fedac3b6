#include "companions/probe/PPTPProbe.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>
#include <variant>

#include "companions/probe/Deadline.h"
#include "companions/probe/GREListener.h"
#include "foundation/FileDescriptor.h"

namespace companions {

using std::chrono::milliseconds;
using vpnctl::FileDescriptor;
namespace pptp = helper::pptp;
using Contact = PPTPFinding::Contact;
using Packets = PPTPFinding::Packets;

namespace {

constexpr std::uint32_t kAnyFraming = 3;
constexpr std::uint32_t kAnyBearer = 3;
constexpr std::uint32_t kMinimumSpeed = 2400;
constexpr std::uint32_t kMaximumSpeed = 1000000000;
constexpr std::uint16_t kReceiveWindow = 64;
// Nobody has so much to say to these questions.
constexpr int kMostMessages = 32;

// A server's text could have anything in it, also what a terminal obeys.
std::string printable(std::string text) {
  for (char &c : text)
    if (c < ' ' || c > '~') c = '?';
  return text;
}

std::uint16_t someCallID() {
  std::uint16_t id = 0;
  if (::getrandom(&id, sizeof id, 0) != sizeof id || id == 0) id = 1;
  return id;
}

FileDescriptor connectedTo(const sockaddr_in &server, const Deadline &deadline, PPTPFinding &finding) {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto fail = [&](Contact contact, int error) {
    finding.contact = contact;
    finding.reason = vpnctl::errnoError(error, "connect").message;
    return FileDescriptor();
  };
  if (!socket) return fail(Contact::failed, errno);
  // Without it the reason is still known, only not who said so.
  static_cast<void>(keepICMPReports(socket.get()));
  int error = 0;
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) < 0) error = errno;
  if (error == EINPROGRESS) {
    if (!waitFor(socket.get(), POLLOUT, deadline)) return fail(Contact::nothing, ETIMEDOUT);
    socklen_t size = sizeof error;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  }
  if (error == 0) {
    finding.contact = Contact::connected;
    return socket;
  }
  finding.icmp = takeICMPReport(socket.get());
  if (finding.icmp) return fail(Contact::unreachable, error);
  if (error == ECONNREFUSED) return fail(Contact::refused, error);
  if (error == ETIMEDOUT) return fail(Contact::nothing, error);
  if (error == EHOSTUNREACH || error == ENETUNREACH || error == EHOSTDOWN || error == ENONET)
    return fail(Contact::unreachable, error);
  return fail(Contact::failed, error);
}

// The control connection, as far as these questions need it.
class Conversation {
 public:
  explicit Conversation(int socket) : socket_(socket) {}

  void send(const pptp::Message &message) {
    const auto bytes = pptp::encode(message);
    // So little goes into the socket's buffer at once, or the connection is gone, which the next answer shows.
    static_cast<void>(::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  // The next message of that kind for which FITS; others are answered or passed over. An error says why none came.
  template <class M, class Fits>
  vpnctl::Result<M> await(const Deadline &deadline, Fits fits) {
    for (; messages_ < kMostMessages; ++messages_) {
      auto message = next(deadline);
      if (!message) return message.error();
      if (const auto *echo = std::get_if<pptp::EchoRequest>(&*message)) send(pptp::EchoReply{echo->identifier});
      if (std::holds_alternative<pptp::StopRequest>(*message)) return fault("ended the connection");
      if (auto *wanted = std::get_if<M>(&*message); wanted != nullptr && fits(*wanted)) return std::move(*wanted);
    }
    return fault("says too much that was not asked for");
  }

 private:
  static vpnctl::Error fault(std::string text) { return {"PPTPProbe", 0, std::move(text)}; }

  vpnctl::Result<pptp::Message> next(const Deadline &deadline) {
    for (;;) {
      auto message = reader_.next();
      if (!message) return message.error();
      if (*message) return std::move(**message);
      if (deadline.passed() || !waitFor(socket_, POLLIN, deadline)) return fault("says nothing");
      std::array<std::uint8_t, 2048> bytes{};
      const ssize_t count = ::recv(socket_, bytes.data(), bytes.size(), 0);
      if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (count == 0) return fault("closed the connection");
      if (count < 0) return vpnctl::errnoError(errno, "read what the server says");
      reader_.append(std::span(bytes).first(static_cast<std::size_t>(count)));
    }
  }

  int socket_;
  int messages_ = 0;
  pptp::MessageReader reader_;
};

void start(Conversation &conversation, const PPTPProbe::Options &options, PPTPFinding &finding) {
  pptp::StartRequest request;
  request.framingCapabilities = kAnyFraming;
  request.bearerCapabilities = kAnyBearer;
  request.hostName = "vpnctl";
  request.vendor = "vpnctl";
  conversation.send(request);
  auto reply = conversation.await<pptp::StartReply>(Deadline(options.answering), [](const auto &) { return true; });
  if (!reply) {
    finding.fault = reply.error().message;
    return;
  }
  reply->hostName = printable(reply->hostName);
  reply->vendor = printable(reply->vendor);
  finding.start = std::move(*reply);
}

void call(Conversation &conversation, in_addr server, const PPTPProbe::Options &options, PPTPFinding &finding) {
  auto listener = GREListener::open(server);
  pptp::OutgoingCallRequest request;
  request.callID = someCallID();
  request.serialNumber = request.callID;
  request.minimumSpeed = kMinimumSpeed;
  request.maximumSpeed = kMaximumSpeed;
  request.bearerType = kAnyBearer;
  request.framingType = kAnyFraming;
  request.receiveWindow = kReceiveWindow;
  conversation.send(request);
  const auto reply = conversation.await<pptp::OutgoingCallReply>(
      Deadline(options.answering), [&](const auto &said) { return said.peerCallID == request.callID; });
  if (!reply) {
    finding.fault = reply.error().message;
    return;
  }
  finding.call = *reply;
  if (!finding.tookCall()) return;
  if (!listener) {
    finding.packets = Packets::notAllowed;
  } else {
    const bool heard = listener->hears(request.callID, Deadline(options.listening));
    finding.packets = heard ? Packets::arrived : Packets::none;
  }
  conversation.send(pptp::CallClearRequest{request.callID});
  static_cast<void>(
      conversation.await<pptp::CallDisconnectNotify>(Deadline(options.goodbye), [](const auto &) { return true; }));
}

}  // namespace

PPTPFinding PPTPProbe::ask(const sockaddr_in &server, const Options &options) {
  PPTPFinding finding;
  const FileDescriptor socket = connectedTo(server, Deadline(options.connecting), finding);
  if (!socket) return finding;
  Conversation conversation(socket.get());
  start(conversation, options, finding);
  if (!finding.started()) return finding;
  if (options.withCall) call(conversation, server.sin_addr, options, finding);
  conversation.send(pptp::StopRequest{});
  const auto goodbye =
      conversation.await<pptp::StopReply>(Deadline(options.goodbye), [](const auto &) { return true; });
  finding.saidGoodbye = static_cast<bool>(goodbye);
  return finding;
}

}  // namespace companions
