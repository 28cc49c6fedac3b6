// What a link is to carry: a plain value, part of the plan of the link.

#pragma once

#include <vector>

#include "helper/common/IPv4Address.h"

namespace helper {

struct RoutePlan {
  std::vector<IPv4Network> networks;  // what goes into the tunnel, besides its own network
  bool refuseIPv6 = false;            // outside the machine's own networks
  bool localNetworks = true;          // what the machine has routes for besides its default one stays as it is
};

}  // namespace helper
