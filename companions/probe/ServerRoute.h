// The way that the kernel sends packets to a server: asked from this process's point of view, changing nothing.
//
// Usual sequence: to(). Thread rule: any thread. The kernel answers at once. No rights are needed.

#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

namespace companions {

struct ServerRoute {
  enum class Kind {
    way,          // packets go out
    ownAddress,   // it is one of this machine's
    none,         // no route leads there
    unreachable,  // a route says so, as do the next two
    blackhole,
    prohibited,
    unknown  // the kernel did not say; REASON
  };
  // What the way goes over.
  enum class Link {
    ordinary,
    tunnel,
    ppp  // somebody's tunnel, or the line to a provider: they look alike
  };

  Kind kind = Kind::unknown;
  // Of a way:
  std::string interface;
  std::string interfaceKind;  // as `ip -d link` has it ("wireguard"); empty for hardware and the like
  Link link = Link::ordinary;
  std::optional<in_addr> source;
  std::optional<in_addr> gateway;  // none: the server is a neighbour, or nothing on that link has one
  int interfaceMTU = 0;            // bytes; 0: not said
  std::optional<int> routeMTU;     // where the route has one of its own, or a router has told one
  std::string reason;

  // What a packet may have at most: the route's, or the interface's; 0 where neither is known.
  int mtu() const { return routeMTU.value_or(interfaceMTU); }

  static ServerRoute to(in_addr server);
};

// KIND and ARPTYPE (ARPHRD_...) as the kernel says them of an interface.
ServerRoute::Link linkOf(const std::string &kind, unsigned arpType);

}  // namespace companions
