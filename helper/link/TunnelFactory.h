// The kinds of tunnel there are, in one table: everything else takes any Tunnel.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <memory>
#include <string>

#include "helper/common/PPPLog.h"
#include "helper/common/SecretSource.h"
#include "helper/common/Tunnel.h"
#include "helper/journal/IPSecJournal.h"
#include "helper/link/LinkConfiguration.h"

namespace helper {

// What tunnels need of the helper. All of it outlives the tunnel.
struct TunnelSurroundings {
  sd_event *event;
  SecretSource &secrets;
  PPPLog &log;
  IPSecJournal &journal;
};

// True when CONFIGURATION's kind of tunnel is known.
bool knowsTunnel(const std::string &tunnelType);

// How long a tunnel of a kind that is known may take until it is up, all its own deadlines together.
std::chrono::milliseconds tunnelDeadline(const LinkConfiguration &configuration);

// A tunnel to SERVER, not started. CONFIGURATION's kind is known; it outlives the tunnel.
std::unique_ptr<Tunnel> makeTunnel(const TunnelSurroundings &surroundings, const LinkConfiguration &configuration,
                                   in_addr server, Tunnel::Handlers handlers);

}  // namespace helper
