// What a link adds to the kernel's routing: rules before everybody else's, and a table of its own that they lead into.

#pragma once

#include <netinet/in.h>

#include <cstdint>

namespace helper {

struct PolicyRule {
  enum class Kind {
    wayToServer,    // packets to the server jump over all the others, and go on as without us
    localNetworks,  // others ask the machine's own routes first, but not its default one
    ownTable,       // then the link's table
    end             // where wayToServer jumps to
  };
  Kind kind = Kind::end;
  bool ipv6 = false;
  in_addr server{};  // of wayToServer
  // The link's own, also where the rule does not lead into it: it tells the link's rules from those of others. Not for
  // localNetworks, which are all alike.
  std::uint32_t table = 0;
};
bool operator==(const PolicyRule &a, const PolicyRule &b);

}  // namespace helper
