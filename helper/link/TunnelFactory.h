// The kinds of tunnel there are, in one table: everything else takes any Tunnel.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>

#include "helper/link/LinkConfiguration.h"
#include "helper/link/Tunnel.h"

namespace helper {

// True when CONFIGURATION's kind of tunnel is known.
bool knowsTunnel(const std::string &tunnelType);

// A tunnel to SERVER, not started. CONFIGURATION's kind is known.
std::unique_ptr<Tunnel> makeTunnel(sd_event *event, const LinkConfiguration &configuration, in_addr server,
                                   Tunnel::Handlers handlers);

}  // namespace helper
