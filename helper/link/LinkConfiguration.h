// What is wanted of one link: a plain value made from the stored network service. It names the keychain's items; it
// holds no secret.

#pragma once

#include <string>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "helper/common/EngineSettings.h"

namespace helper {

struct LinkConfiguration {
  std::string serviceID;
  std::string tunnelType;  // the interface's SubType: "PPTP" or "L2TP"
  // The PPP dictionary: AuthName, AuthPassword (a keychain service), CommRemoteAddress, LCPEcho..., CCP...
  foundation::Value ppp;
  foundation::Value ipv4;   // the IPv4 dictionary: OverridePrimary
  foundation::Value ipsec;  // the IPSec dictionary, or null
  EngineSettings settings;  // what no dictionary has a key for

  // From the preferences' root dictionary. An error (with a sentence part) when the service is missing or is no PPP
  // service.
  static foundation::Result<LinkConfiguration> fromPreferences(const foundation::Value &root,
                                                               const std::string &serviceID);

  // Takes the machine's settings over: what the dictionaries have keys for goes into them, above what the service says;
  // everything stays in settings for the rest.
  void applySettings(EngineSettings machine);
  // True when those settings take the encryption away that the tunnel would have.
  bool isInClear() const;
};

}  // namespace helper
