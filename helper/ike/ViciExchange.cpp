#include "helper/ike/ViciExchange.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "helper/ike/ViciConnection.h"

namespace helper {

using foundation::errnoError;
using foundation::Result;

Result<ViciExchange> ViciExchange::connect(const std::string &path, std::chrono::milliseconds deadline) {
  auto socket = ViciConnection::connect(path, deadline);
  if (!socket) return socket.error();
  return ViciExchange(std::move(*socket), deadline);
}

foundation::Status ViciExchange::wait(short events) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until_ - std::chrono::steady_clock::now());
  pollfd ready{socket_.get(), events, 0};
  if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) == 0)
    return errnoError(ETIMEDOUT, "wait for the IKE daemon");
  return {};
}

Result<vici::Section> ViciExchange::request(const std::string &command, vici::Section message) {
  const auto bytes = vici::encode({vici::PacketType::request, command, std::move(message)});
  if (!bytes) return bytes.error();
  until_ = std::chrono::steady_clock::now() + deadline_;
  for (auto rest = bytes->bytes(); !rest.empty();) {
    if (auto ready = wait(POLLOUT); !ready) return ready.error();
    const ssize_t count = ::send(socket_.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count < 0) return errnoError(errno, "write to the IKE daemon");
    rest = rest.subspan(static_cast<std::size_t>(count));
  }
  while (true) {
    const auto packet = reader_.next();
    if (!packet) return packet.error();
    if (packet->has_value()) {
      if ((*packet)->type == vici::PacketType::event) continue;
      return viciOutcome(command, **packet);
    }
    if (auto ready = wait(POLLIN); !ready) return ready.error();
    std::array<std::uint8_t, 4096> part;  // filled by recv
    const ssize_t count = ::recv(socket_.get(), part.data(), part.size(), 0);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return errnoError(count == 0 ? ECONNRESET : errno, "read from the IKE daemon");
    reader_.append(std::span(part).first(static_cast<std::size_t>(count)));
  }
}

}  // namespace helper
