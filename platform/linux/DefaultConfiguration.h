// What a new service, and a system without a preferences file, start with.

#pragma once

#include <string>

#include "foundation/Value.h"

namespace platform {

// The root of a system without a preferences file: one empty set, named "Automatic", in use.
vpnctl::Value freshPreferences();
// The PPP dictionary of a service over TUNNEL_TYPE ("PPTP" or "L2TP").
vpnctl::Value defaultPPP(const std::string &tunnelType);
// The protocols of a service: type -> configuration.
vpnctl::Value defaultProtocols();

}  // namespace platform
