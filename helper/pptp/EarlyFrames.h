// What a PPTP server says in PPP before our end of the call can hear it. The kernel's socket hears nothing until it
// knows the server's call id, which comes with the answer to the call. A server whose packets its kernel carries, too,
// sends its first request in that very moment, and the next one only after its restart timer, three seconds in RFC
// 1661.
//
// Thread rule: one thread. Nothing blocks.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <span>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace helper {

class EarlyFrames {
 public:
  // Begins to hear the packets of call CALL_ID of ours. An error for who may not hear raw packets.
  static vpnctl::Result<EarlyFrames> listen(std::uint16_t callID);

  // The last request for LCP that came from SERVER since, from address and control on; empty: none. What came is heard
  // once.
  std::vector<std::uint8_t> takeLinkRequest(in_addr server);

 private:
  EarlyFrames(vpnctl::FileDescriptor socket, std::uint16_t callID) : socket_(std::move(socket)), callID_(callID) {}

  vpnctl::FileDescriptor socket_;
  std::uint16_t callID_;
};

// The same of one IPv4 PACKET; empty when it is anything else.
std::vector<std::uint8_t> linkRequestIn(std::span<const std::uint8_t> packet, in_addr server, std::uint16_t callID);

}  // namespace helper
