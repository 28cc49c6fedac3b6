// Whether vpnctl's own programs lie where they look for each other.
//
// Thread rule: no state. Blocks on the disk.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"

namespace companions {

class PartsCheck {
 public:
  static Findings look(const Situation &situation);
};

}  // namespace companions
