#include "helper/l2tp/L2TPDataPath.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "helper/common/ModuleBlacklist.h"

// After netinet/in.h: the kernel's headers bring the same structures unless they see that they are there.
#include <linux/if_pppox.h>
#include <linux/ppp-ioctl.h>

namespace helper {

namespace {

// The kernel declares its address packed; as a member it gets the alignment that a socket call's argument needs.
union PPPoL2TPAddress {
  // With session ids of 0 it stands for the tunnel itself.
  PPPoL2TPAddress(int socket, const sockaddr_in &server, const L2TPCall &call) : pppol2tp{} {
    pppol2tp.sa_family = AF_PPPOX;
    pppol2tp.sa_protocol = PX_PROTO_OL2TP;
    pppol2tp.pppol2tp.fd = socket;
    pppol2tp.pppol2tp.addr = server;
    pppol2tp.pppol2tp.s_tunnel = call.tunnelID;  // all in the machine's order
    pppol2tp.pppol2tp.d_tunnel = call.peerTunnelID;
    pppol2tp.pppol2tp.s_session = call.sessionID;
    pppol2tp.pppol2tp.d_session = call.peerSessionID;
  }
  sockaddr any;
  sockaddr_pppol2tp pppol2tp;
};

vpnctl::Result<vpnctl::FileDescriptor> openSocket() {
  vpnctl::FileDescriptor socket(::socket(AF_PPPOX, SOCK_DGRAM | SOCK_CLOEXEC, PX_PROTO_OL2TP));
  if (socket) return socket;
  const int cause = errno;
  if (cause != EAFNOSUPPORT && cause != EPROTONOSUPPORT && cause != ESOCKTNOSUPPORT)
    return vpnctl::errnoError(cause, "open an L2TP socket");
  const auto blacklist = moduleBlacklist("l2tp_ppp");
  return vpnctl::Error{std::string(vpnctl::kPOSIXErrorDomain), cause,
                       blacklist ? "this kernel does not load its L2TP because " + *blacklist +
                                       " forbids it; remove that line, then load the module l2tp_ppp (modprobe "
                                       "l2tp_ppp)"
                                 : "this kernel has no L2TP; load the modules ppp_generic, pppox and l2tp_ppp "
                                   "(modprobe l2tp_ppp), or run a kernel that has them"};
}

vpnctl::Result<vpnctl::FileDescriptor> connected(const PPPoL2TPAddress &address, const char *what) {
  auto socket = openSocket();
  if (!socket) return socket;
  if (::connect(socket->get(), &address.any, sizeof address.pppol2tp) < 0) return vpnctl::errnoError(errno, what);
  return socket;
}

}  // namespace

vpnctl::Status KernelL2TPDataPath::probe() {
  const auto socket = openSocket();
  return socket ? vpnctl::Status() : socket.error();
}

vpnctl::Result<vpnctl::FileDescriptor> KernelL2TPDataPath::connect(int socket, const L2TPCall &call) {
  sockaddr_in server{};
  socklen_t size = sizeof server;
  if (::getpeername(socket, reinterpret_cast<sockaddr *>(&server), &size) < 0)
    return vpnctl::errnoError(errno, "read the server's address");
  auto tunnel = connected(PPPoL2TPAddress(socket, server, L2TPCall{call.tunnelID, call.peerTunnelID, 0, 0}),
                          "make the kernel's L2TP tunnel");
  if (!tunnel) return tunnel;
  auto session = connected(PPPoL2TPAddress(socket, server, call), "make the kernel's L2TP session");
  if (!session) return session;
  // The kernel attaches a session to its PPP only when the channel is asked for. What the server sends before pppd does
  // so would be lost, and PPP would wait for its repetition.
  int channel = 0;
  if (::ioctl(session->get(), PPPIOCGCHAN, &channel) < 0)
    return vpnctl::errnoError(errno, "make the kernel's PPP channel");
  tunnel_ = std::move(*tunnel);
  return session;
}

}  // namespace helper
