#include "companions/links/Sources.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>

#include <cerrno>

#include "helper/network/Routing.h"

namespace companions {

using vpnctl::Result;

namespace {

Result<std::vector<helper::PolicyRule>> rulesNow() {
  const auto routing = helper::NetlinkRouting::open();
  if (!routing) return routing.error();
  return (*routing)->rules();
}

Result<std::vector<LedNetwork>> ledNetworksNow() {
  // A router may have a million of routes: only ours are asked for, by kernels that can be asked so.
  rtmsg ours{};
  ours.rtm_family = AF_INET;
  ours.rtm_protocol = helper::Routing::kMaker;
  return NetlinkDump(NETLINK_ROUTE, RTM_GETROUTE, ours).take(ledNetworkIn, "read the routes");
}

Result<std::vector<Interface>> interfacesNow() {
  return NetlinkDump(NETLINK_ROUTE, RTM_GETLINK, ifinfomsg{}).take(interfaceIn, "read the interfaces");
}

Result<std::vector<InterfaceAddress>> addressesNow() {
  ifaddrmsg ofIPv4{};
  ofIPv4.ifa_family = AF_INET;
  return NetlinkDump(NETLINK_ROUTE, RTM_GETADDR, ofIPv4).take(addressIn, "read the addresses");
}

Result<std::vector<ESPAssociation>> associationsNow() {
  auto found = NetlinkDump(NETLINK_XFRM, XFRM_MSG_GETSA).take(associationIn, "read the IPSec associations");
  // A kernel without IPSec has none.
  if (!found && found.error().code == EPROTONOSUPPORT) return std::vector<ESPAssociation>();
  return found;
}

}  // namespace

Sources Sources::ofThisMachine(const Paths &paths) {
  // The journals first: what a link has noted as done can be seen by then, or is gone already.
  Sources sources;
  sources.journals = helper::Journal::look(paths.journals);
  sources.rules = rulesNow();
  sources.ledNetworks = ledNetworksNow();
  sources.interfaces = interfacesNow();
  sources.addresses = addressesNow();
  sources.associations = associationsNow();
  sources.processes = runningProcesses(paths.processes, paths.journals, paths.processNumbers);
  sources.now = std::chrono::system_clock::now();
  sources.sinceBoot = helper::timeSinceBoot();
  return sources;
}

}  // namespace companions
