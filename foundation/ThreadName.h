// Thread rule: each thread for itself.

#pragma once

#include <string>

namespace vpnctl {

// Gives the calling thread NAME, cut to what the system takes (15 bytes on Linux); debuggers and top show it.
void setThreadName(const std::string &name);

}  // namespace vpnctl
