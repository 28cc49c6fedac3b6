// A UDP socket towards one port of an IKE server, from a port of ours that the kernel chooses: it needs no rights and
// disturbs no IKE daemon of this machine.
//
// Usual sequence: open(), send() and receive() in turn. Thread rule: one thread.

#pragma once

#include <netinet/in.h>

#include <variant>

#include "companions/probe/Deadline.h"
#include "companions/probe/ICMPReport.h"
#include "foundation/FileDescriptor.h"
#include "helper/isakmp/Bytes.h"
#include "helper/isakmp/Outputs.h"

namespace companions {

struct IKEEnd {
  sockaddr_in address{};
  bool marked = false;  // four zero bytes stand before each message, as on port 4500 (RFC 3948, section 2.2)

  static IKEEnd of(in_addr server, helper::isakmp::ServerPort port);
};

class IKESocket {
 public:
  struct Nothing {};
  // A message without its marker, a report, or nothing until the deadline.
  using Received = std::variant<Nothing, helper::isakmp::Bytes, ICMPReport>;

  // WHOLE: no router may take packets apart, and what does not fit the interface is refused.
  static vpnctl::Result<IKESocket> open(const IKEEnd &end, bool whole);

  // The error: POSIX; EMSGSIZE for what does not fit the interface.
  vpnctl::Status send(helper::isakmp::View message);
  // Blocks until something has come or the deadline has passed.
  Received receive(const Deadline &deadline);

 private:
  IKESocket(vpnctl::FileDescriptor socket, bool marked) : socket_(std::move(socket)), marked_(marked) {}

  vpnctl::FileDescriptor socket_;
  bool marked_;
};

}  // namespace companions
