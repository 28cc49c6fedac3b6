// What is special about each kind of tunnel, one row each. HACKING.md says what else a third kind needs.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string_view>

#include "helper/common/PPPLog.h"
#include "helper/common/SecretSource.h"
#include "helper/common/Tunnel.h"
#include "helper/journal/IPSecJournal.h"
#include "helper/link/LinkPlan.h"

namespace helper {

// What tunnels need of the helper. All of it outlives the tunnel.
struct TunnelContext {
  sd_event *event;
  SecretSource &secrets;
  PPPLog &log;
  IPSecJournal &journal;
};

// Makes a tunnel to that server, not started.
using TunnelFactory = std::function<std::unique_ptr<Tunnel>(in_addr server, Tunnel::Handlers handlers)>;

struct TunnelKindRow {
  TunnelKind kind;
  const char *name;  // the service interface's SubType
  int mtu;           // bytes that fit through it, where nothing else is said
  bool needsIPSec;   // otherwise PPP encrypts by itself, with MPPE
  // Why not one packet of PPP came although the call stands, and the remedy.
  const char *nothingArrived;
  // How long the tunnel may take until it is up, all its own deadlines together.
  std::chrono::milliseconds (*deadline)(const LinkPlan &plan);
  // Of silence before the server is asked whether it lives.
  std::chrono::seconds (*deadPeerDelay)(const LinkPlan &plan);
  // Begins what takes time and needs no server yet; ends it again with the factory. PLAN outlives it and its tunnels.
  TunnelFactory (*prepare)(const TunnelContext &context, const LinkPlan &plan);
};

const TunnelKindRow &tunnelKind(TunnelKind kind);
// Null when there is no such kind.
const TunnelKindRow *tunnelKindCalled(std::string_view name);

}  // namespace helper
