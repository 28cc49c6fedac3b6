// Whether a user who is not root may have a connection: the socket behind which systemd starts helpers, and what polkit
// says, which is asked without anybody being asked for a password.
//
// Thread rule: no state. Blocks until polkit has answered, five seconds at most.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/Situation.h"
#include "helper/authorization/Authority.h"

namespace companions {

class RightsCheck {
 public:
  // Nothing for root, who needs none of it.
  static Findings look(const Situation &situation);
  // What ANSWER, to a question without interaction, means.
  static Finding findingOf(const helper::Authority::Answer &answer);
};

}  // namespace companions
