// What is wanted of one link: a plain value, made in one place from the stored service, what its start asked for, and
// the machine's settings. Behind it nobody looks anything up by a string or compares the name of a protocol. It names
// the keychain's items; it holds no secret.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "helper/common/EngineSettings.h"
#include "helper/common/SecretUse.h"
#include "helper/network/RoutePlan.h"
#include "helper/ppp/PPPPlan.h"

namespace helper {

// The kinds of tunnel there are; helper/link/TunnelKinds.cpp has what is special about each.
enum class TunnelKind { pptp, l2tp };

// What is asked for when a link is started.
struct LinkRequest {
  std::string serviceID;
  vpnctl::Value startOptions{};  // {"PPP": {...}, ...}, laid over the service's own entries; or null
  uid_t user = 0;                // who asks
  pid_t process = 0;             // with which program; 0: it is gone
};

struct LinkPlan {
  std::string serviceID;
  TunnelKind kind = TunnelKind::pptp;
  std::string server;            // a name or an IPv4 address, as the service writes it
  std::string sharedSecretItem;  // IPSec's shared secret in the keychain, by its service attribute; empty: none
  SecretUse secretUse;           // what its secrets must have been stored for
  PPPPlan ppp;
  bool carriesEverything = false;      // all IPv4 traffic, and all questions to name servers
  RoutePlan routes{};                  // if it does not, some networks perhaps
  std::vector<std::string> domains{};  // names below these are asked of the server's name servers in any case
  EngineSettings::PPTP pptp;
  EngineSettings::L2TP l2tp;
  EngineSettings::IKE ike;
  std::chrono::milliseconds pppDeadline{60000};  // for PPP to stand once the tunnel does
  pid_t endsWithSessionOf = 0;  // when whoever started this process logs out; 0: logging out changes nothing

  // ROOT is the preferences' dictionary. SETTINGS stand above the service and what REQUEST lays over it. An error (with
  // a sentence part) when the service is missing, is no PPP service, or goes through a tunnel of a kind that there is
  // not; EINVAL when the request would change what a start may not.
  static vpnctl::Result<LinkPlan> make(const vpnctl::Value &root, const LinkRequest &request,
                                       const EngineSettings &settings);

  // The server of a service, as it writes it; empty when there is no such service.
  static std::string serverOf(const vpnctl::Value &root, const std::string &serviceID) {
    return root["NetworkServices"][serviceID.c_str()]["PPP"]["CommRemoteAddress"].string();
  }

  // True when the settings take the encryption away that the tunnel would have.
  bool isInClear() const;
  // One line for people who look for a mistake.
  std::string description() const;
};

}  // namespace helper
