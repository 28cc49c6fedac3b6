// From pppd's phases to what a user is told. pppd jumps (down by signal it says 9, 7, 9, 4, 4, 10, 0); nobody wants to
// read that. While connecting phases only go forward, while ending only towards 9, 10, 0, and none is told twice.

#pragma once

#include <cstdint>

#include "helper/ppp/PPPPhase.h"

namespace helper {

// SCNetworkConnectionStatus of a phase: 0 disconnected, 1 connecting, 2 connected, 3 disconnecting.
std::int32_t connectionStatus(int phase);

class LinkPhases {
 public:
  int current() const { return current_; }
  bool ending() const { return ending_; }

  // A new start: everything may be told again.
  void begin();
  // True when PHASE, which pppd or the link has reached, is to be told. "Disconnected" never is: see finish().
  bool reach(int phase);
  // The machine is clean again. True unless that was said already.
  bool finish();

 private:
  int current_ = kPhaseDisconnected;
  bool ending_ = false;
};

}  // namespace helper
