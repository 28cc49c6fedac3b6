#include "helper/pptp/PPTPDataPath.h"

#include <sys/socket.h>

#include <cerrno>

// After netinet/in.h: the kernel's header brings the same structures unless it sees that they are there.
#include <linux/if_pppox.h>

namespace helper {

namespace {

// The kernel declares its address packed; as a member it gets the alignment that a socket call's argument needs.
union PPPoXAddress {
  PPPoXAddress(in_addr address, std::uint16_t callID) : pppox{} {
    pppox.sa_family = AF_PPPOX;
    pppox.sa_protocol = PX_PROTO_PPTP;
    pppox.sa_addr.pptp.call_id = callID;  // in the machine's order
    pppox.sa_addr.pptp.sin_addr = address;
  }
  sockaddr any;
  sockaddr_pppox pppox;
};

vpnctl::Result<vpnctl::FileDescriptor> openSocket() {
  vpnctl::FileDescriptor socket(::socket(AF_PPPOX, SOCK_STREAM | SOCK_CLOEXEC, PX_PROTO_PPTP));
  if (socket) return socket;
  const int cause = errno;
  if (cause == EAFNOSUPPORT || cause == EPROTONOSUPPORT || cause == ESOCKTNOSUPPORT)
    return vpnctl::Error{std::string(vpnctl::kPOSIXErrorDomain), cause,
                         "this kernel has no PPTP; load the modules ppp_generic, pppox, gre and pptp "
                         "(modprobe pptp), or run a kernel that has them"};
  return vpnctl::errnoError(cause, "open a PPTP socket");
}

}  // namespace

vpnctl::Status KernelPPTPDataPath::probe() {
  const auto socket = openSocket();
  return socket ? vpnctl::Status() : socket.error();
}

vpnctl::Result<std::uint16_t> KernelPPTPDataPath::bind(in_addr local) {
  auto socket = openSocket();
  if (!socket) return socket.error();
  PPPoXAddress address(local, 0);
  if (::bind(socket->get(), &address.any, sizeof address.pppox) < 0)
    return vpnctl::errnoError(errno, "bind a PPTP socket");
  socklen_t size = sizeof address.pppox;
  if (::getsockname(socket->get(), &address.any, &size) < 0)
    return vpnctl::errnoError(errno, "read the PPTP socket's call id");
  socket_ = std::move(*socket);
  const std::uint16_t callID = address.pppox.sa_addr.pptp.call_id;
  if (auto early = EarlyFrames::listen(callID)) early_ = std::move(*early);
  return callID;
}

vpnctl::Result<TunnelChannel> KernelPPTPDataPath::connect(in_addr peer, std::uint16_t peerCallID) {
  // One that cannot be connected is closed.
  vpnctl::FileDescriptor socket = std::move(socket_);
  const PPPoXAddress address(peer, peerCallID);
  if (::connect(socket.get(), &address.any, sizeof address.pppox) < 0)
    return vpnctl::errnoError(errno, "connect the PPTP socket");
  // Only now, so that there is no gap; what both have heard the plugin tells apart.
  std::vector<std::uint8_t> request = early_ ? early_->takeLinkRequest(peer) : std::vector<std::uint8_t>();
  early_.reset();
  return TunnelChannel(std::move(socket), std::move(request));
}

}  // namespace helper
