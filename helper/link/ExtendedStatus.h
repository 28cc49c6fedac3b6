// The extended status of a link: the dictionary with "PPP" and, when the link is up, "IPv4", from plain facts.

#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

#include "foundation/Value.h"

namespace helper {

struct LinkFacts {
  int phase = 0;
  std::string server;  // as the configuration writes it
  int lastCause = 0;   // pppd's exit status; 0 from each start on
  int deviceLastCause = 0;

  struct Up {
    std::string interface;
    in_addr localAddress{};
    in_addr peerAddress{};
    int mtu = 0;
    int mru = 0;
    std::int64_t connectTime = 0;     // seconds of the monotonic clock
    std::int64_t disconnectTime = 0;  // 0: no limit
  };
  std::optional<Up> up;
};

vpnctl::Value extendedStatus(const LinkFacts &facts);

}  // namespace helper
