// The phases of a PPP link. The numbers are those of pppd and of SCNetworkConnectionPPPStatus alike.

#pragma once

namespace helper {

enum Phase : int {
  kPhaseDisconnected = 0,
  kPhaseInitializing = 1,
  kPhaseConnectingLink = 2,
  kPhaseDialOnTraffic = 3,
  kPhaseNegotiatingLink = 4,
  kPhaseAuthenticating = 5,
  kPhaseWaitingForCallBack = 6,
  kPhaseNegotiatingNetwork = 7,
  kPhaseConnected = 8,
  kPhaseTerminating = 9,
  kPhaseDisconnectingLink = 10,
  kPhaseHoldingLinkOff = 11,
  kPhaseSuspended = 12,
  kPhaseWaitingForRedial = 13,
};

}  // namespace helper
