// Why pppd ended, as a sentence for people with what to do about it.

#pragma once

#include <optional>
#include <string>

#include "helper/ppp/PPPSession.h"

namespace helper {

// pppd's exit statuses that the link itself needs (pppd(8), EXIT STATUS).
inline constexpr int kCauseFatal = 1;
inline constexpr int kCauseUserRequest = 5;
inline constexpr int kCauseConnectFailed = 8;
inline constexpr int kCauseNegotiationFailed = 10;
inline constexpr int kCauseHungUp = 16;
inline constexpr int kCauseNotAuthenticated = 19;

// What LastCause says of an end that nobody asked for.
int lastCause(const PPPEnd &end);

// NOTHING_ARRIVED says why no packet came although the call stood. MPPE_WANTED_BUT_MISSING: the link needs MPPE, and
// this kernel has no module for it.
std::string endingSentence(const PPPEnd &end, const std::string &nothingArrived, bool mppeWantedButMissing);

// True when the kernel has the module ppp_mppe, loaded or built in. pppd makes the kernel load it when it negotiates.
bool kernelHasMPPE();

}  // namespace helper
