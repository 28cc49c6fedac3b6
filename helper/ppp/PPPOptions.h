// From a service's PPP dictionary to pppd's options: one table, for every kind of tunnel.

#pragma once

#include <string>
#include <vector>

#include "foundation/Value.h"

namespace helper {

// What pppd needs to know that stands in no dictionary.
struct PPPSurroundings {
  std::string tunnelType;  // "PPTP" or "L2TP"
  std::string pluginPath;  // absolute
  std::string socketPath;  // where the plugin finds the helper
  std::string logPath;
  std::string noScript;  // a path at which nothing is
};

// The words after the program's name. Numbers out of pppd's range give way to the default.
std::vector<std::string> pppOptions(const foundation::Value &ppp, const PPPSurroundings &surroundings);

// True when the link must be encrypted by PPP itself, or not come up.
bool wantsMPPE(const foundation::Value &ppp, const std::string &tunnelType);

}  // namespace helper
