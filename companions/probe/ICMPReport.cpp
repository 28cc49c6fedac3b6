#include "companions/probe/ICMPReport.h"

#include <netinet/ip_icmp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

// It wants the time's types first.
#include <linux/errqueue.h>

namespace companions {

namespace {

struct CodeName {
  std::uint8_t code;
  const char *name;
};
constexpr CodeName kUnreachable[] = {
    {ICMP_NET_UNREACH, "network unreachable"},   {ICMP_HOST_UNREACH, "host unreachable"},
    {ICMP_PROT_UNREACH, "protocol unreachable"}, {ICMP_PORT_UNREACH, "port unreachable"},
    {ICMP_FRAG_NEEDED, "too large for the way"}, {ICMP_NET_UNKNOWN, "network unknown"},
    {ICMP_HOST_UNKNOWN, "host unknown"},         {ICMP_NET_ANO, "network forbidden"},
    {ICMP_HOST_ANO, "host forbidden"},           {ICMP_PKT_FILTERED, "forbidden by a filter"}};

// None for what was not reported by ICMP: the kernel's own refusals come the same way.
std::optional<ICMPReport> reportIn(const cmsghdr *control) {
  if (control->cmsg_level != IPPROTO_IP || control->cmsg_type != IP_RECVERR) return std::nullopt;
  struct {
    sock_extended_err error;
    sockaddr_in offender;
  } said{};
  if (control->cmsg_len < CMSG_LEN(sizeof said)) return std::nullopt;
  std::memcpy(&said, CMSG_DATA(control), sizeof said);
  if (said.error.ee_origin != SO_EE_ORIGIN_ICMP) return std::nullopt;
  ICMPReport report{said.error.ee_type, said.error.ee_code, said.offender.sin_addr, 0};
  if (report.isTooLarge()) report.mtu = static_cast<int>(said.error.ee_info & 0xffff);
  return report;
}

}  // namespace

bool ICMPReport::isPortUnreachable() const { return type == ICMP_DEST_UNREACH && code == ICMP_PORT_UNREACH; }

bool ICMPReport::isTooLarge() const { return type == ICMP_DEST_UNREACH && code == ICMP_FRAG_NEEDED; }

std::string ICMPReport::text() const {
  if (type == ICMP_DEST_UNREACH)
    for (const CodeName &row : kUnreachable)
      if (row.code == code) return row.name;
  if (type == ICMP_TIME_EXCEEDED) return "too many routers on the way";
  return "ICMP type " + std::to_string(type) + ", code " + std::to_string(code);
}

vpnctl::Status keepICMPReports(int socket) {
  const int on = 1;
  if (::setsockopt(socket, IPPROTO_IP, IP_RECVERR, &on, sizeof on) < 0)
    return vpnctl::errnoError(errno, "ask for ICMP's reports");
  return {};
}

std::optional<ICMPReport> takeICMPReport(int socket) {
  for (;;) {
    std::array<char, 64> packet{};
    alignas(cmsghdr) std::array<char, 512> control{};
    iovec piece{packet.data(), packet.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = ::recvmsg(socket, &message, MSG_ERRQUEUE | MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    for (const cmsghdr *each = CMSG_FIRSTHDR(&message); each != nullptr;
         each = CMSG_NXTHDR(&message, const_cast<cmsghdr *>(each)))
      if (const auto report = reportIn(each)) return report;
  }
}

}  // namespace companions
