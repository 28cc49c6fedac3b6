// The IPv4 addresses of a server from the text of its address, as the helper finds them.
//
// Usual sequence: find(). Thread rule: any thread; it blocks, at the longest until its deadline.

#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "helper/network/NameResolution.h"

namespace companions {

struct ServerAddress {
  std::vector<in_addr> addresses;  // the best first
  std::string reason;              // a sentence with the remedy where there is none; empty otherwise

  // TEXT: dotted numbers or a host name. RESOLVER asks the system, on a thread of its own, which may outlive this call.
  static ServerAddress find(const std::string &text,
                            helper::NameResolution::Resolver resolver = helper::NameResolution::systemResolver(),
                            std::chrono::milliseconds deadline = helper::NameResolution::kDeadline);
};

}  // namespace companions
