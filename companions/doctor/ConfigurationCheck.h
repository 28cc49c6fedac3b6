// Whether vpnctl can use the configuration, and who else can read it.
//
// Thread rule: no state. Blocks on the disk.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"

namespace companions {

class ConfigurationCheck {
 public:
  // Nothing where no configuration was named.
  static Findings look(const Situation &situation);
};

}  // namespace companions
