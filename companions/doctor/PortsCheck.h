// Whether somebody else has the UDP ports that vpnctl goes out from when it can.
//
// Thread rule: no state. Blocks for a walk over /proc.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"

namespace companions {

class PortsCheck {
 public:
  static Findings look(const Situation &situation);
};

}  // namespace companions
