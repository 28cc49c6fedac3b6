// What earlier connections have left on this machine.
//
// Thread rule: no state. Blocks on the disk, and two seconds at most for a helper that tidies up.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"

namespace companions {

class LeftoversCheck {
 public:
  static Findings look(const Situation &situation);
};

}  // namespace companions
