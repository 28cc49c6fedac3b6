// What the kernel says of interfaces, addresses, routes and IPSec, as values. Each function makes one of one netlink
// message, or none of a message about something else. Keys are never copied.
//
// Thread rule: none of these keeps state.

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "companions/links/LinkState.h"
#include "companions/links/NetlinkDump.h"
#include "helper/common/IPv4Address.h"

namespace companions {

struct Interface {
  int index = 0;
  std::string name;
  std::uint32_t mtu = 0;
  Traffic traffic{};
};

struct InterfaceAddress {
  int interface = 0;  // its index
  in_addr local{};
  in_addr peer{};
};

// A route of ours: in TABLE, what goes to NETWORK goes through the interface.
struct LedNetwork {
  std::uint32_t table = 0;
  int interface = 0;
  helper::IPv4Network network{};
};

struct ESPAssociation {
  std::uint32_t reqid = 0;
  in_addr source{};
  in_addr destination{};
  std::string algorithms;
  bool insideUDP = false;
  std::chrono::seconds made{0};      // since 1970
  std::chrono::seconds lifetime{0};  // 0: as long as nobody removes it
};

std::optional<Interface> interfaceIn(const NetlinkMessage &message);
std::optional<InterfaceAddress> addressIn(const NetlinkMessage &message);
std::optional<LedNetwork> ledNetworkIn(const NetlinkMessage &message);
// None, too, of one that waits for its keys.
std::optional<ESPAssociation> associationIn(const NetlinkMessage &message);

}  // namespace companions
