#include "helper/ppp/PPPEnding.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>

#include "helper/ppp/PPPPhase.h"

namespace helper {

int lastCause(const PPPEnd &end) {
  if (end.exited) return end.code;
  // One that was too slow to end after a hang-up was killed for that.
  return end.hungUp ? kCauseHungUp : kCauseFatal;
}

namespace {

struct WantedProtocol {
  std::uint32_t number;
  AuthProtocol protocol;
  const char *name;
};
constexpr std::array<WantedProtocol, 5> kWanted{{{0xc02300, AuthProtocol::pap, "PAP"},
                                                 {0xc22305, AuthProtocol::chap, "CHAP"},
                                                 {0xc22380, AuthProtocol::mschap1, "MS-CHAP"},
                                                 {0xc22381, AuthProtocol::mschap2, "MS-CHAPv2"},
                                                 {0xc22700, AuthProtocol::eap, "EAP"}}};

// What this machine and the server do not agree on, with the remedy, as a part of a sentence; empty when nobody said.
std::string disagreement(const PPPEnd &end, const PPPExpectations &expected) {
  const auto *wanted = std::ranges::find(kWanted, end.dispute.wantedAuthentication, &WantedProtocol::number);
  if (end.furthestPhase <= kPhaseNegotiatingLink && wanted != kWanted.end() &&
      !expected.authProtocols.contains(wanted->protocol)) {
    const bool makesKeys = wanted->protocol == AuthProtocol::mschap1 || wanted->protocol == AuthProtocol::mschap2;
    return std::string("the server wants the account checked by ") + wanted->name + ", which " +
           (expected.mppe && !makesKeys
                ? "makes no keys for the encryption (MPPE) that is wanted; allow MS-CHAPv2 on the server"
                : "is not allowed here; allow another one on the server, or this one with ppp.authentication in "
                  "engine.conf");
  }
  if (end.dispute.encryption && expected.mppe)
    return "the server takes no encryption (MPPE), which is wanted here; allow MPPE on the server";
  if (end.dispute.address) return "the server gives this machine no address; have it give one to this account";
  return {};
}

}  // namespace

std::optional<std::string> hangUpSentence(const PPPEnd &end, const PPPExpectations &expected) {
  if (end.code == kCauseNotAuthenticated) return endingSentence(end, expected);
  if (end.furthestPhase < kPhaseNegotiatingLink) return std::nullopt;
  const std::string reason = disagreement(end, expected);
  const std::string stage = end.furthestPhase <= kPhaseNegotiatingLink ? "the link's options (LCP) were negotiated"
                            : end.furthestPhase <= kPhaseAuthenticating
                                ? "the account was checked, before the server was heard to accept or to refuse it"
                                : "encryption and addresses (CCP, IPCP) were negotiated";
  return "That was while " + stage + (reason.empty() ? "." : ": " + reason + ".");
}

std::string endingSentence(const PPPEnd &end, const PPPExpectations &expected) {
  const std::string status = " (status " + std::to_string(end.code) + ")";
  if (!end.exited) return "pppd was ended by signal " + std::to_string(end.code) + ".";
  if (end.code == 4)
    return "This kernel has no PPP; load the module ppp_generic (modprobe ppp_generic) or run a kernel that has it.";
  if (end.carried && end.packetsReceived == 0 && end.furthestPhase <= kPhaseNegotiatingLink)
    return expected.nothingArrived;
  if (expected.mppe && !expected.kernelHasMPPE && end.furthestPhase >= kPhaseAuthenticating)
    return "The connection is to be encrypted, but this kernel has no MPPE; load the module ppp_mppe (modprobe "
           "ppp_mppe) "
           "or run a kernel that has it.";
  switch (end.code) {
    case 0:
      return "The server ended the PPP connection.";
    case 5:
      return "Somebody else on this machine ended pppd.";
    case 2:
      return "pppd does not accept its options; its reason stands above, and a plugin that was built for another "
             "version of pppd is the usual one.";
    case kCauseNegotiationFailed: {
      const std::string reason = disagreement(end, expected);
      return "The server and this machine could not agree on how to talk PPP" +
             (!reason.empty() ? ": " + reason + "."
              : expected.mppe ? "; with encryption asked for, a server that offers none is the usual reason."
                              : "; ppp.debug in engine.conf shows what each wanted.");
    }
    case 12:
      return "The connection was idle for too long.";
    case 15:
      return "The server no longer answers.";
    case kCauseHungUp:
      return "The line to the server was lost.";
    case kCauseNotAuthenticated:
      return "The server did not accept the user name or the password.";
    default:
      return "pppd gave up" + status + "; its own lines above say why.";
  }
}

bool kernelHasMPPE() {
  if (::access("/sys/module/ppp_mppe", F_OK) == 0) return true;
  utsname system{};
  if (::uname(&system) < 0) return true;  // do not accuse a kernel that cannot be asked
  std::ifstream builtIn(std::string("/lib/modules/") + system.release + "/modules.builtin");
  for (std::string line; std::getline(builtIn, line);)
    if (line.ends_with("/ppp_mppe.ko")) return true;
  return false;
}

}  // namespace helper
