#include "companions/probe/IKESocket.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "helper/isakmp/Header.h"

namespace companions {

using helper::isakmp::Bytes;
using helper::isakmp::View;
using vpnctl::errnoError;
using vpnctl::FileDescriptor;

namespace {

constexpr std::size_t kMarkerSize = 4;

}  // namespace

IKEEnd IKEEnd::of(in_addr server, helper::isakmp::ServerPort port) {
  IKEEnd end;
  end.address.sin_family = AF_INET;
  end.address.sin_addr = server;
  end.address.sin_port = htons(static_cast<std::uint16_t>(port));
  end.marked = port == helper::isakmp::ServerPort::natTraversal;
  return end;
}

vpnctl::Result<IKESocket> IKESocket::open(const IKEEnd &end, bool whole) {
  FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return errnoError(errno, "make a socket");
  const int discovery = whole ? IP_PMTUDISC_PROBE : IP_PMTUDISC_DONT;
  if (::setsockopt(socket.get(), IPPROTO_IP, IP_MTU_DISCOVER, &discovery, sizeof discovery) < 0)
    return errnoError(errno, "keep packets whole");
  if (const auto kept = keepICMPReports(socket.get()); !kept) return kept.error();
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&end.address), sizeof end.address) < 0)
    return errnoError(errno, "send to the server");
  return IKESocket(std::move(socket), end.marked);
}

vpnctl::Status IKESocket::send(View message) {
  Bytes datagram(marked_ ? kMarkerSize : 0, 0);
  helper::isakmp::append(datagram, message);
  for (bool again : {true, false}) {
    if (::send(socket_.get(), datagram.data(), datagram.size(), 0) >= 0) return {};
    // What an earlier packet met is told instead of sending; receive() has the report.
    const bool older = errno == ECONNREFUSED || errno == EHOSTUNREACH || errno == EINTR;
    if (!again || !older) break;
  }
  return errnoError(errno, "send to the server");
}

IKESocket::Received IKESocket::receive(const Deadline &deadline) {
  Bytes datagram(kMarkerSize + helper::isakmp::kLongestMessage);
  // What is there already counts also after the deadline, for this process may have stood still.
  for (bool last = false; !last;) {
    if (const auto report = takeICMPReport(socket_.get())) return *report;
    last = deadline.passed();
    if (!waitFor(socket_.get(), POLLIN, deadline)) break;
    const ssize_t count = ::recv(socket_.get(), datagram.data(), datagram.size(), 0);
    if (count <= 0) continue;
    const View came = View(datagram).first(static_cast<std::size_t>(count));
    if (!marked_) return helper::isakmp::copyOf(came);
    const bool hasMarker =
        came.size() >= kMarkerSize && std::ranges::all_of(came.first(kMarkerSize), [](auto byte) { return byte == 0; });
    if (hasMarker) return helper::isakmp::copyOf(came.subspan(kMarkerSize));
  }
  return Nothing{};
}

}  // namespace companions
