#include "helper/ppp/PPPEnding.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>

#include "helper/ppp/PPPPhase.h"

namespace helper {

int lastCause(const PPPEnd &end) {
  if (end.exited) return end.code;
  // One that was too slow to end after a hang-up was killed for that.
  return end.hungUp ? kCauseHungUp : kCauseFatal;
}

std::string endingSentence(const PPPEnd &end, const std::string &nothingArrived, bool mppeWantedButMissing) {
  const std::string status = " (status " + std::to_string(end.code) + ")";
  if (!end.exited) return "pppd was ended by signal " + std::to_string(end.code) + ".";
  if (end.code == 4)
    return "This kernel has no PPP; load the module ppp_generic (modprobe ppp_generic) or run a kernel that has it.";
  if (end.carried && end.packetsReceived == 0 && end.furthestPhase <= kPhaseNegotiatingLink) return nothingArrived;
  if (mppeWantedButMissing && end.furthestPhase >= kPhaseAuthenticating)
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
    case 10:
      return "The server and this machine could not agree on how to talk PPP; with encryption asked for, a server that "
             "offers none is the usual reason.";
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
