// Takes everything from a process that it does not need to speak IKE over sockets that it has: rights, files, other
// processes, and all but a table of system calls. What it has loaded and opened before stays.
//
// Thread rule: the process's only thread, once.

#pragma once

#include "foundation/Result.h"

namespace helper {

// The rest of the process runs as nobody, without a capability, in a root folder without files to use, and dies of
// SIGSYS at any system call that is not in the table of Confinement.cpp. An error's message is a sentence part; then
// less may have been taken away, and the process must end.
vpnctl::Status confine();

}  // namespace helper
