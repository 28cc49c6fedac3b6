// Why pppd ended, as a sentence for people with what to do about it.

#pragma once

#include <optional>
#include <string>

#include "helper/ppp/PPPPlan.h"
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

// What a link wanted of PPP, and what this machine has for it.
struct PPPExpectations {
  bool mppe = false;
  std::set<AuthProtocol> authProtocols{};
  bool kernelHasMPPE = true;
  std::string nothingArrived{};  // why no packet came although the call stood
};

std::string endingSentence(const PPPEnd &end, const PPPExpectations &expected);
// For one that was hung up before it stood: what was being negotiated, and what about. None when nothing was yet.
std::optional<std::string> hangUpSentence(const PPPEnd &end, const PPPExpectations &expected);

// True when the kernel has the module ppp_mppe, loaded or built in. pppd makes the kernel load it when it negotiates.
bool kernelHasMPPE();

}  // namespace helper
