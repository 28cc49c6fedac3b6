// What a charon leaves behind that was killed: its rule for routes, control sockets that nobody listens on, its number.
//
// Thread rule: any. Blocks only for the file system (memory), and for a walk over /proc when somebody has charon's
// ports.

#pragma once

#include "helper/ike/CharonProcess.h"

namespace helper {

// DAEMON has ended. Removes nothing when another charon may have come up since.
void removeLeftovers(const CharonProcess::Places &places, const StartedDaemon &daemon);

}  // namespace helper
