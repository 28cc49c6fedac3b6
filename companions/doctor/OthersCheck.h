// Other VPNs on this machine, as far as they can get into the way of a connection.
//
// Thread rule: no state. Blocks for a walk over /proc and NetworkState::read().

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/NetworkState.h"
#include "companions/doctor/Situation.h"
#include "foundation/Result.h"

namespace companions {

class OthersCheck {
 public:
  static Findings look(const Situation &situation);
  // Of a network that is as STATE says.
  static Findings look(const Situation &situation, const vpnctl::Result<NetworkState> &state);
};

}  // namespace companions
