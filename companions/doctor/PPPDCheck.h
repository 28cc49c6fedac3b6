// Whether pppd is there, and takes the plugin of this vpnctl.
//
// Thread rule: no state. Blocks for as long as pppd takes to say its version, five seconds at most.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"

namespace companions {

class PPPDCheck {
 public:
  static Findings look(const Situation &situation);
};

}  // namespace companions
