#include "helper/l2tp/L2TPSocket.h"

#include <sys/socket.h>

#include <cerrno>

#include "helper/common/UDPPortHolder.h"

namespace helper {

using vpnctl::Status;
using SourcePort = EngineSettings::SourcePort;

namespace {

// Without SO_REUSEADDR, on purpose: with it, two that both set it share the port, and each loses the other's packets.
Status bindTo(const vpnctl::FileDescriptor &socket, std::uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0) return {};
  return vpnctl::errnoError(errno, "bind UDP port " + std::to_string(port));
}

}  // namespace

vpnctl::Result<L2TPSocket> L2TPSocket::open(const sockaddr_in &server, SourcePort sourcePort, std::uint16_t wellKnown) {
  vpnctl::FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  if (!socket) return vpnctl::errnoError(errno, "open a UDP socket");
  // ESP proves every byte of these packets already; a checksum of UDP's would only cost both sides their time, and
  // behind a NAT, which changes the addresses that it covers, it would be wrong.
  const int on = 1;
  if (setsockopt(socket.get(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof on) < 0)
    return vpnctl::errnoError(errno, "leave out UDP's checksum");
  std::string notice;
  bool hasWellKnownPort = false;
  if (sourcePort != SourcePort::any) {
    const Status bound = bindTo(socket, wellKnown);
    hasWellKnownPort = static_cast<bool>(bound);
    if (!bound) {
      if (bound.error().code != EADDRINUSE) return bound.error();
      const std::string taken = "UDP port " + std::to_string(wellKnown) + " of this machine is held by " +
                                udpPortHolder(wellKnown).value_or("a program that cannot be seen");
      if (sourcePort == SourcePort::wellKnown)
        return vpnctl::Error{
            bound.error().domain, EADDRINUSE,
            taken + ", and the settings allow no other; end that program, or let the settings allow any port"};
      notice = taken + "; L2TP goes out from another port, which a few servers do not accept.";
    }
  }
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server) < 0)
    return vpnctl::errnoError(errno, "connect to the server");
  return L2TPSocket(std::move(socket), hasWellKnownPort, std::move(notice));
}

std::uint16_t L2TPSocket::port() const {
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (::getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&local), &size) < 0) return 0;
  return ntohs(local.sin_port);
}

}  // namespace helper
