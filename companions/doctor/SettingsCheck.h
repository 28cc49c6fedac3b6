// What of the engine's settings cannot be used.
//
// Thread rule: no state. Blocks on the disk.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"

namespace companions {

class SettingsCheck {
 public:
  static Findings look(const Situation &situation);
};

}  // namespace companions
