// ICMP echo to one server (RFC 792): a ping socket where the system lets this user have one, otherwise, as root, a raw
// one. Packets have exactly the size that is asked for, and no router may take them apart.
//
// Usual sequence: open(), send() and receive() in turn. Thread rule: one thread.

#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <variant>

#include "companions/probe/Deadline.h"
#include "companions/probe/ICMPReport.h"
#include "foundation/FileDescriptor.h"

namespace companions {

class EchoSocket {
 public:
  static constexpr int kHeaders = 28;  // bytes: IP's and ICMP's

  struct Nothing {};
  struct Reply {
    std::uint16_t sequence = 0;
    int size = 0;  // of the packet, in bytes
  };
  using Received = std::variant<Nothing, Reply, ICMPReport>;

  // An error (POSIX, EACCES or EPERM where this user may not).
  static vpnctl::Result<EchoSocket> open(in_addr server);

  // A packet of SIZE bytes, at least kHeaders, with the IP header. The error: POSIX; EMSGSIZE for what does not fit the
  // interface.
  vpnctl::Status send(int size, std::uint16_t sequence);
  // Blocks until something has come or the deadline has passed.
  Received receive(const Deadline &deadline);

 private:
  EchoSocket(vpnctl::FileDescriptor socket, bool raw);

  vpnctl::FileDescriptor socket_;
  bool raw_;
  std::uint16_t identifier_ = 0;  // a ping socket's is the kernel's business
};

}  // namespace companions
