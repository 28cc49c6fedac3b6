// Whether packets of a PPTP call arrive: GRE as PPTP has it (RFC 2637, section 4.1), heard beside whoever else hears
// it.
//
// Usual sequence: open() before the call is placed, hears() once the server has taken it. Thread rule: one thread.
// Needs the right to open raw sockets.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <span>

#include "companions/probe/Deadline.h"
#include "foundation/FileDescriptor.h"

namespace companions {

class GREListener {
 public:
  // An error (POSIX, EPERM or EACCES without the right).
  static vpnctl::Result<GREListener> open(in_addr server);

  // Blocks until a packet of the server's for our call CALLID has come; false at the deadline.
  bool hears(std::uint16_t callID, const Deadline &deadline);

  // Whether PACKET, from its IP header on, is one.
  static bool isOfCall(std::span<const std::uint8_t> packet, std::uint16_t callID);

 private:
  explicit GREListener(vpnctl::FileDescriptor socket) : socket_(std::move(socket)) {}

  vpnctl::FileDescriptor socket_;
};

}  // namespace companions
