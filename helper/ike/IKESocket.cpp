#include "helper/ike/IKESocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "helper/ike/SocketPolicy.h"

namespace helper {

using vpnctl::errnoError;

// Without SO_REUSEADDR: of two that set it the last one would get the packets of both.
vpnctl::Result<IKESocket> IKESocket::open(in_addr local, std::uint16_t port) {
  IKESocket socket;
  socket.descriptor.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  if (!socket.descriptor) return errnoError(errno, "open a UDP socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr = local;
  address.sin_port = htons(port);
  socklen_t size = sizeof address;
  if (::bind(socket.descriptor.get(), reinterpret_cast<const sockaddr *>(&address), size) < 0)
    return errnoError(errno, port == 0 ? "bind a UDP socket" : "bind UDP port " + std::to_string(port));
  if (::getsockname(socket.descriptor.get(), reinterpret_cast<sockaddr *>(&address), &size) < 0)
    return errnoError(errno, "ask for the socket's address");
  socket.port = ntohs(address.sin_port);
  if (auto exempted = exemptSocket(socket.descriptor.get()); !exempted) return exempted.error();
  return socket;
}

}  // namespace helper
