// What is left of a path's packets for a link through it: the value for `mtu` of the group `ppp` in engine.conf.
//
// Thread rule: none of these keeps state.

#pragma once

#include <optional>
#include <vector>

#include "helper/isakmp/Proposals.h"

namespace companions {

struct TunnelForm {
  enum class Protocol { pptp, l2tp };
  Protocol protocol = Protocol::pptp;
  // Of L2TP. How its packets may be protected; empty: not at all.
  std::vector<helper::isakmp::ESPProposal> esp = helper::isakmp::defaultESPProposals();
  bool natted = true;  // ESP goes in UDP
};

// The most that fits, in bytes, with the longest headers that the tunnel can have. PATHMTU: of an IP packet to the
// server, in bytes. Can be negative for a PATHMTU that is smaller than the headers.
int pppMTUFor(const TunnelForm &form, int pathMTU);

// The same, if it is less than what a link has where nothing is set; none: nothing need be set.
std::optional<int> smallerPPPMTU(const TunnelForm &form, int pathMTU);

}  // namespace companions
