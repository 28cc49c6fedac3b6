// What IPSec means for one UDP socket, whatever the machine's policies say. It holds from this moment until the socket
// is closed.
//
// Thread rule: any. Nothing blocks, but the kernel may load a module.

#pragma once

#include <cstdint>

#include "foundation/Result.h"

namespace helper {

// Nothing leaves SOCKET and nothing comes in through it but inside ESP in transport mode, of the association with this
// reqid; whether the association stands or not, and also for what the kernel itself sends through the socket. SOCKET is
// IPv4. The error's code is the errno; without IPSec in the kernel ENOPROTOOPT, EOPNOTSUPP or EINVAL.
vpnctl::Status guardSocket(int socket, std::uint32_t reqid);

// Whatever leaves SOCKET, or comes in through it, is neither to be inside IPSec nor refused. Errors as above.
vpnctl::Status exemptSocket(int socket);

}  // namespace helper
