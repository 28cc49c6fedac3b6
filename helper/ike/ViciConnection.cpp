#include "helper/ike/ViciConnection.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace helper {

using foundation::Result;
using vici::Packet;
using vici::PacketType;
using vici::Section;

Result<foundation::FileDescriptor> ViciConnection::connect(const std::string &path,
                                                           std::chrono::milliseconds patience) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return foundation::errnoError(ENAMETOOLONG, "connect to " + path);
  path.copy(address.sun_path, path.size());
  const bool waits = patience.count() > 0;
  foundation::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (waits ? 0 : SOCK_NONBLOCK), 0));
  const timeval limit{patience.count() / 1000, patience.count() % 1000 * 1000};
  if (!socket || (waits && ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) < 0) ||
      ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0 ||
      (waits && ::fcntl(socket.get(), F_SETFL, O_NONBLOCK) < 0))
    return foundation::errnoError(errno, "connect to " + path);
  return socket;
}

namespace {

constexpr char kRefused[] = "VICI refusal";

}  // namespace

Result<Section> viciOutcome(const std::string &command, const Packet &response) {
  if (response.type == PacketType::unknownCommand || response.type == PacketType::unknownEvent)
    return foundation::Error{"VICI", ViciConnection::kUnknownCommand, "the IKE daemon does not know " + command};
  if (response.message.value("success") != "no") return response.message;
  const std::string &reason = response.message.value("errmsg");
  return foundation::Error{kRefused, 0, reason.empty() ? command + " did not succeed" : reason};
}

bool viciRefused(const foundation::Error &error) { return error.domain == kRefused; }

ViciConnection::ViciConnection(sd_event *event, foundation::FileDescriptor socket, Handlers handlers)
    : event_(event), socket_(std::move(socket)), handlers_(std::move(handlers)) {
  io_ = linux::EventSource::io(
      event_, socket_.get(), EPOLLIN,
      [this](std::uint32_t events) {
        const std::weak_ptr<bool> alive = alive_;
        if (events & EPOLLOUT) flush();
        if (!alive.expired() && socket_ && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) readPackets();
      });
}

void ViciConnection::listen(const std::string &name, std::chrono::milliseconds deadline, Reply reply) {
  enqueue({PacketType::registerEvent, name, {}}, deadline, std::move(reply));
}

void ViciConnection::request(const std::string &command, Section message, std::chrono::milliseconds deadline,
                             Reply reply) {
  enqueue({PacketType::request, command, std::move(message)}, deadline, std::move(reply));
}

void ViciConnection::enqueue(const Packet &packet, std::chrono::milliseconds deadline, Reply reply) {
  if (!socket_) return;
  auto bytes = encode(packet);
  // An answer out of turn does no harm: nothing has been asked yet.
  if (!bytes) {
    nextTurn_ = linux::EventSource::soon(event_, [reply = std::move(reply), error = bytes.error()] { reply(error); });
    return;
  }
  queue_.push_back({std::move(*bytes), packet.name, deadline, std::move(reply)});
  if (!underWay_) sendNext();
}

void ViciConnection::sendNext() {
  if (queue_.empty()) return;
  underWay_ = true;
  sent_ = 0;
  deadline_ = linux::EventSource::timer(event_, queue_.front().deadline,
                                        [this] { end("does not answer (" + queue_.front().name + ")"); });
  flush();
}

void ViciConnection::flush() {
  while (underWay_ && sent_ < queue_.front().bytes.size()) {
    const auto rest = queue_.front().bytes.bytes().subspan(sent_);
    const ssize_t count = ::send(socket_.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return io_.setEvents(EPOLLIN | EPOLLOUT);
    // What the daemon said last is still to be read; the end of the stream comes behind it.
    if (count < 0) break;
    sent_ += static_cast<std::size_t>(count);
  }
  io_.setEvents(EPOLLIN);
}

void ViciConnection::readPackets() {
  std::array<std::uint8_t, 16384> bytes;  // filled by recv
  const ssize_t count = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return end(count == 0 ? "has closed its control socket" : std::strerror(errno));
  reader_.append(std::span(bytes).first(static_cast<std::size_t>(count)));
  const std::weak_ptr<bool> alive = alive_;
  while (!alive.expired() && socket_) {
    const auto packet = reader_.next();
    if (!packet) return end("sends what makes no sense: " + packet.error().message);
    if (!packet->has_value()) return;
    handle(**packet);
  }
}

void ViciConnection::handle(const Packet &packet) {
  switch (packet.type) {
    case PacketType::event:
      return handlers_.event(packet.name, packet.message);
    case PacketType::response:
    case PacketType::confirmation:
    case PacketType::unknownCommand:
    case PacketType::unknownEvent: {
      if (!underWay_) return end("answers what nobody asked");
      const Pending answered = std::move(queue_.front());
      queue_.pop_front();
      underWay_ = false;
      deadline_.reset();
      const std::weak_ptr<bool> alive = alive_;
      answered.reply(viciOutcome(answered.name, packet));
      if (!alive.expired() && !underWay_ && socket_) sendNext();
      return;
    }
    case PacketType::request:
    case PacketType::registerEvent:
    case PacketType::unregisterEvent:
      return end("asks instead of answering");
  }
}

void ViciConnection::end(std::string reason) {
  io_.reset();
  deadline_.reset();
  nextTurn_.reset();
  socket_.reset();
  // The replies may hold whatever they like: nothing of it is called, and it goes only when we do. Secrets go now.
  for (Pending &pending : queue_) pending.bytes = foundation::Secret();
  underWay_ = false;
  handlers_.ended(reason);
}

}  // namespace helper
