// What somebody on the way, or the server itself, reports of a packet of ours: that it did not arrive, and why
// (RFC 792).
//
// Usual sequence: keepICMPReports() once, takeICMPReport() when the socket has an error. Thread rule: none of these
// keeps state. They do not block.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/Result.h"

namespace companions {

struct ICMPReport {
  std::uint8_t type = 0;
  std::uint8_t code = 0;
  in_addr from{};  // who reports
  int mtu = 0;     // of a packet that was too large: what would fit, in bytes; 0 where that was not said

  bool isPortUnreachable() const;
  bool isTooLarge() const;
  // "port unreachable", "forbidden by a filter"; what has no name is "ICMP type 3, code 99".
  std::string text() const;
};

// For every kind of IPv4 socket.
vpnctl::Status keepICMPReports(int socket);
// The oldest that nobody has taken; none when there is none.
std::optional<ICMPReport> takeICMPReport(int socket);

}  // namespace companions
