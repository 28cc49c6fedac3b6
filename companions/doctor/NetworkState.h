// Of the machine's network what other VPNs put there: routing rules, routes for half the world, IPSec policies.
//
// Thread rule: as a plain value. read() blocks as NetlinkDump does, for each of the three.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "companions/links/NetlinkDump.h"
#include "foundation/Result.h"

namespace companions {

struct NetworkState {
  struct Rule {
    std::uint32_t preference = 0;
    std::uint32_t table = 0;
    std::uint8_t maker = 0;  // RTPROT_...; vpnctl's are 118
    bool hasMark = false;    // it looks at a packet's mark
    bool isInverted = false;
  };
  struct Half {
    std::string destination;  // "0.0.0.0/1"
    std::string interface;
  };

  std::vector<Rule> rules;   // IPv4's, in the kernel's order
  std::vector<Half> halves;  // IPv4 routes of the main table
  // Outgoing, other than those of single sockets; none: only root may see them.
  std::optional<std::size_t> policies;

  static vpnctl::Result<NetworkState> read();
};

// What one message of the kernel's says; none when it is about something else.
std::optional<NetworkState::Rule> ruleIn(const NetlinkMessage &message);
std::optional<NetworkState::Half> halfIn(const NetlinkMessage &message);
// The direction of a policy that is counted.
std::optional<std::uint8_t> policyIn(const NetlinkMessage &message);

}  // namespace companions
