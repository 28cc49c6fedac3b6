// The kernel's guard over one UDP socket: nothing leaves it and nothing comes in through it but inside ESP in transport
// mode, of the association with this reqid. It holds from this moment until the socket is closed, whether the
// association stands or not, and also for what the kernel itself sends through the socket.
//
// Thread rule: any. Nothing blocks, but the kernel may load a module.

#pragma once

#include <cstdint>

#include "foundation/Result.h"

namespace helper {

// SOCKET is IPv4. The error's code is the errno; without IPSec in the kernel ENOPROTOOPT, EOPNOTSUPP or EINVAL.
foundation::Status guardSocket(int socket, std::uint32_t reqid);

}  // namespace helper
