// Whether the configuration's server is reached, answers, and takes what vpnctl offers. The only check that sends
// packets.
//
// Thread rule: no state. look() blocks as ServerAnswers::ask() does.

#pragma once

#include "companions/doctor/Finding.h"
#include "companions/doctor/ServerAnswers.h"
#include "companions/doctor/Situation.h"

namespace companions {

class ServerCheck {
 public:
  // Nothing where no configuration names a server.
  static Findings look(const Situation &situation);
  static Findings findingsOf(const Situation &situation, const ServerAnswers &answers);
};

}  // namespace companions
