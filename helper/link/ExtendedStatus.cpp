#include "helper/link/ExtendedStatus.h"

#include "helper/common/IPv4Address.h"
#include "helper/link/LinkPhases.h"

namespace helper {

using vpnctl::Value;

Value extendedStatus(const LinkFacts &facts) {
  Value status{Value::Dictionary{}};
  Value ppp{Value::Dictionary{}};
  ppp.set("Status", facts.phase);
  if (facts.phase != kPhaseDisconnected) ppp.set("CommRemoteAddress", facts.server);
  if (facts.up && facts.phase == kPhaseConnected) {
    ppp.set("ConnectTime", facts.up->connectTime);
    ppp.set("DisconnectTime", facts.up->disconnectTime);
    ppp.set("LCPMRU", facts.up->mru);
    ppp.set("LCPMTU", facts.up->mtu);
    const std::string peer = textOf(facts.up->peerAddress);
    Value ipv4{Value::Dictionary{}};
    ipv4.set("Addresses", Value::Array{Value(textOf(facts.up->localAddress))});
    ipv4.set("DestAddresses", Value::Array{Value(peer)});
    ipv4.set("InterfaceName", facts.up->interface);
    ipv4.set("Router", peer);
    status.set("IPv4", ipv4);
  } else {
    ppp.set("LastCause", facts.lastCause);
    ppp.set("DeviceLastCause", facts.deviceLastCause);
  }
  status.set("PPP", ppp);
  return status;
}

}  // namespace helper
