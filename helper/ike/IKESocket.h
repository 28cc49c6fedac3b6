// The UDP socket that speaks IKE with one server, and that takes the kernel's ESP out of UDP where there is a NAT: from
// any free port, so that no daemon of this machine misses 500 or 4500.
//
// Thread rule: any. Nothing blocks, but the kernel may load a module.

#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace helper {

struct IKESocket {
  vpnctl::FileDescriptor descriptor;
  std::uint16_t port = 0;  // its own

  // From LOCAL and PORT; 0: any. No policy of the machine's keeps its packets in, or wants them inside IPSec.
  // EADDRINUSE when somebody else has the port.
  static vpnctl::Result<IKESocket> open(in_addr local, std::uint16_t port);
};

}  // namespace helper
