// From what is wanted of PPP to pppd's options, for every kind of tunnel.

#pragma once

#include <string>
#include <vector>

#include "helper/ppp/PPPPlan.h"

namespace helper {

// Where things are that pppd has to find.
struct PPPPaths {
  std::string plugin;    // absolute
  std::string socket;    // where the plugin finds the helper
  std::string noScript;  // nothing is there
};

// The words after the program's name.
std::vector<std::string> pppOptions(const PPPPlan &plan, const PPPPaths &paths);

}  // namespace helper
