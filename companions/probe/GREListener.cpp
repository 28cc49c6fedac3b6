#include "companions/probe/GREListener.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace companions {

using vpnctl::FileDescriptor;

vpnctl::Result<GREListener> GREListener::open(in_addr server) {
  FileDescriptor socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_GRE));
  if (!socket) return vpnctl::errnoError(errno, "listen for GRE");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr = server;
  // Only what comes from there.
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
    return vpnctl::errnoError(errno, "listen for GRE");
  return GREListener(std::move(socket));
}

bool GREListener::hears(std::uint16_t callID, const Deadline &deadline) {
  std::array<std::uint8_t, 2048> packet{};
  while (waitFor(socket_.get(), POLLIN, deadline)) {
    const ssize_t count = ::recv(socket_.get(), packet.data(), packet.size(), 0);
    if (count < 0 && errno != EAGAIN && errno != EINTR && errno != ECONNREFUSED) return false;
    if (count > 0 && isOfCall(std::span(packet).first(static_cast<std::size_t>(count)), callID)) return true;
    if (deadline.passed()) return false;
  }
  return false;
}

bool GREListener::isOfCall(std::span<const std::uint8_t> packet, std::uint16_t callID) {
  constexpr std::size_t kGREHeader = 8;
  if (packet.empty()) return false;
  const std::size_t ipHeader = std::size_t{4} * (packet[0] & 0xfU);
  if (ipHeader < 20 || packet.size() < ipHeader + kGREHeader) return false;
  const auto gre = packet.subspan(ipHeader);
  // A key, and version 1; the protocol is PPP.
  if ((gre[0] & 0x20) == 0 || (gre[1] & 0x07) != 1 || gre[2] != 0x88 || gre[3] != 0x0b) return false;
  return (gre[6] << 8 | gre[7]) == callID;
}

}  // namespace companions
