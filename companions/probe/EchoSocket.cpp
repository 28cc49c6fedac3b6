#include "companions/probe/EchoSocket.h"

#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

namespace companions {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;

namespace {

constexpr std::size_t kIPHeader = 20;
constexpr std::size_t kICMPHeader = 8;

// RFC 1071.
std::uint16_t checksum(std::span<const std::uint8_t> bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) sum += i % 2 == 0 ? bytes[i] * 0x100U : bytes[i];
  while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

void put16(std::vector<std::uint8_t> &bytes, std::size_t at, std::uint16_t value) {
  bytes[at] = static_cast<std::uint8_t>(value >> 8);
  bytes[at + 1] = static_cast<std::uint8_t>(value);
}

std::uint16_t get16(std::span<const std::uint8_t> bytes) {
  return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

}  // namespace

EchoSocket::EchoSocket(FileDescriptor socket, bool raw) : socket_(std::move(socket)), raw_(raw) {
  if (::getrandom(&identifier_, sizeof identifier_, 0) != sizeof identifier_) identifier_ = 1;
}

vpnctl::Result<EchoSocket> EchoSocket::open(in_addr server) {
  constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;
  FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | kFlags, IPPROTO_ICMP));
  const bool raw = !socket;
  if (raw) socket.reset(::socket(AF_INET, SOCK_RAW | kFlags, IPPROTO_ICMP));
  if (!socket) return errnoError(errno, "make a socket for ICMP echo");
  const int discovery = IP_PMTUDISC_PROBE;
  if (::setsockopt(socket.get(), IPPROTO_IP, IP_MTU_DISCOVER, &discovery, sizeof discovery) < 0)
    return errnoError(errno, "keep packets whole");
  if (const auto kept = keepICMPReports(socket.get()); !kept) return kept.error();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr = server;
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
    return errnoError(errno, "send to the server");
  return EchoSocket(std::move(socket), raw);
}

vpnctl::Status EchoSocket::send(int size, std::uint16_t sequence) {
  std::vector<std::uint8_t> packet(static_cast<std::size_t>(size) - kIPHeader, 0);
  packet[0] = ICMP_ECHO;
  put16(packet, 4, identifier_);
  put16(packet, 6, sequence);
  put16(packet, 2, checksum(packet));
  for (const bool again : {true, false}) {
    if (::send(socket_.get(), packet.data(), packet.size(), 0) >= 0) return {};
    // What an earlier packet met is told instead of sending; receive() has the report.
    const bool older = errno == EHOSTUNREACH || errno == ECONNREFUSED || errno == EINTR;
    if (!again || !older) break;
  }
  return errnoError(errno, "send to the server");
}

EchoSocket::Received EchoSocket::receive(const Deadline &deadline) {
  std::vector<std::uint8_t> buffer(65536);
  // What is there already counts also after the deadline, for this process may have stood still.
  for (bool last = false; !last;) {
    if (const auto report = takeICMPReport(socket_.get())) return *report;
    last = deadline.passed();
    if (!waitFor(socket_.get(), POLLIN, deadline)) break;
    const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (count <= 0) continue;
    std::span<const std::uint8_t> icmp = std::span(buffer).first(static_cast<std::size_t>(count));
    if (raw_) {
      const std::size_t header = std::size_t{4} * (icmp[0] & 0xfU);
      if (header < kIPHeader || icmp.size() < header) continue;
      icmp = icmp.subspan(header);
    }
    if (icmp.size() < kICMPHeader || icmp[0] != ICMP_ECHOREPLY) continue;
    if (raw_ && get16(icmp.subspan(4)) != identifier_) continue;
    return Reply{get16(icmp.subspan(6)), static_cast<int>(kIPHeader + icmp.size())};
  }
  return Nothing{};
}

}  // namespace companions
