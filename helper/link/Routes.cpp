#include "helper/link/Routes.h"

#include <arpa/inet.h>

namespace helper {

using foundation::Status;

Status Routes::pinServer(in_addr server) {
  const auto route = table_.lookUp(server);
  if (!route) return route.error();
  // A server on this very machine (or behind the loopback of a test) is reached whatever the other routes say.
  if (route->interface == "lo") return {};
  return add(*route);
}

Status Routes::keepServerOff(const std::string &interface, in_addr server) {
  Route route;
  route.destination = server;
  route.interface = interface;
  return table_.remove(route);
}

Status Routes::carryEverything(const std::string &interface, in_addr source) {
  for (const std::uint32_t half : {0x00000000U, 0x80000000U}) {
    Route route;
    route.destination.s_addr = htonl(half);
    route.prefixLength = 1;
    route.source = source;
    route.interface = interface;
    if (Status added = add(route); !added) return added;
  }
  return {};
}

Status Routes::add(const Route &route) {
  if (Status noted = journal_.note(AddedRoute{route}); !noted) return noted;
  const auto added = table_.add(route);
  if (added && *added) return {};
  const Status forgotten = journal_.forgetLast();
  return added ? forgotten : Status(added.error());
}

}  // namespace helper
