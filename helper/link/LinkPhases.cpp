#include "helper/link/LinkPhases.h"

namespace helper {

std::int32_t connectionStatus(int phase) {
  switch (phase) {
    case kPhaseInitializing:
    case kPhaseConnectingLink:
    case kPhaseNegotiatingLink:
    case kPhaseAuthenticating:
    case kPhaseWaitingForCallBack:
    case kPhaseNegotiatingNetwork:
    case kPhaseWaitingForRedial:
      return 1;
    case kPhaseConnected:
    case kPhaseSuspended:
      return 2;
    case kPhaseTerminating:
    case kPhaseDisconnectingLink:
      return 3;
    default:
      return 0;
  }
}

void LinkPhases::begin() { *this = LinkPhases(); }

bool LinkPhases::reach(int phase) {
  const bool endingPhase = phase == kPhaseTerminating || phase == kPhaseDisconnectingLink;
  // Dial-on-traffic, hold-off and multilink are nothing we ask of pppd; its number 12 is not the 12 of this table.
  const bool connectingPhase = phase >= kPhaseInitializing && phase <= kPhaseConnected && phase != kPhaseDialOnTraffic;
  if (!endingPhase && !(connectingPhase && !ending_)) return false;
  if (phase <= current_) return false;
  current_ = phase;
  ending_ = ending_ || endingPhase;
  return true;
}

bool LinkPhases::finish() {
  if (current_ == kPhaseDisconnected) return false;
  current_ = kPhaseDisconnected;
  ending_ = false;
  return true;
}

}  // namespace helper
