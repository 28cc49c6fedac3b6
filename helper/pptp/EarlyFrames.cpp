#include "helper/pptp/EarlyFrames.h"

#include <linux/filter.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;

namespace {

// Enhanced GRE (RFC 2637, section 4.1), after the IPv4 header.
constexpr std::size_t kPayloadSize = 4;  // where it stands
constexpr std::size_t kCallID = 6;
constexpr std::size_t kHeader = 8;
constexpr std::uint16_t kProtocol = 0x880b;
constexpr std::uint16_t kHasSequence = 0x1000;
constexpr std::uint16_t kHasAcknowledgement = 0x0080;

constexpr std::size_t kSource = 12;  // in the IPv4 header
constexpr std::uint16_t kAddressAndControl = 0xff03;
constexpr std::uint16_t kLCP = 0xc021;
constexpr std::uint8_t kConfigureRequest = 1;
constexpr std::size_t kLongest = 254;  // of a request for LCP; it has a dozen short options
constexpr int kMostPackets = 100;      // of one call before it stands

std::uint16_t numberAt(std::span<const std::uint8_t> bytes, std::size_t at) {
  return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

}  // namespace

vpnctl::Result<EarlyFrames> EarlyFrames::listen(std::uint16_t callID) {
  FileDescriptor socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_GRE));
  if (!socket) return errnoError(errno, "hear GRE");
  // Other calls may be busy, and would fill the socket.
  std::array<sock_filter, 5> program{{BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
                                      BPF_STMT(BPF_LD | BPF_H | BPF_IND, kCallID),
                                      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, callID, 0, 1),
                                      BPF_STMT(BPF_RET | BPF_K, UINT16_MAX), BPF_STMT(BPF_RET | BPF_K, 0)}};
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) < 0)
    return errnoError(errno, "hear one call's GRE");
  return EarlyFrames(std::move(socket), callID);
}

std::vector<std::uint8_t> EarlyFrames::takeLinkRequest(in_addr server) {
  std::vector<std::uint8_t> last;
  std::array<std::uint8_t, 2048> bytes{};
  for (int i = 0; i < kMostPackets; ++i) {
    const ssize_t count = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
    if (count < 0) break;
    auto request = linkRequestIn(std::span(bytes).first(static_cast<std::size_t>(count)), server, callID_);
    if (!request.empty()) last = std::move(request);
  }
  return last;
}

std::vector<std::uint8_t> linkRequestIn(std::span<const std::uint8_t> packet, in_addr server, std::uint16_t callID) {
  const std::size_t ip = packet.empty() ? 0 : (packet[0] & 15U) * 4U;
  if (ip < sizeof(std::uint32_t) * 5 || packet.size() < ip + kHeader ||
      std::memcmp(&packet[kSource], &server, sizeof server) != 0)
    return {};
  packet = packet.subspan(ip);
  const std::uint16_t flags = numberAt(packet, 0);
  const std::size_t size = numberAt(packet, kPayloadSize);
  std::size_t start = kHeader;
  if ((flags & kHasSequence) != 0) start += 4;
  if ((flags & kHasAcknowledgement) != 0) start += 4;
  if (numberAt(packet, 2) != kProtocol || numberAt(packet, kCallID) != callID || packet.size() < start + size)
    return {};
  auto frame = packet.subspan(start, size);
  // Not everybody sends them.
  if (frame.size() >= 2 && numberAt(frame, 0) == kAddressAndControl) frame = frame.subspan(2);
  if (frame.size() < 3 || frame.size() > kLongest || numberAt(frame, 0) != kLCP || frame[2] != kConfigureRequest)
    return {};
  std::vector<std::uint8_t> request{kAddressAndControl >> 8, kAddressAndControl & 0xff};
  request.insert(request.end(), frame.begin(), frame.end());
  return request;
}

}  // namespace helper
