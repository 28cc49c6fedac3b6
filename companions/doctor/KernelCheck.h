// Whether the kernel has what the protocols need, or can load it.
//
// Thread rule: no state. Blocks on the disk.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"

namespace companions {

class KernelCheck {
 public:
  static Findings look(const Situation &situation);
};

}  // namespace companions
