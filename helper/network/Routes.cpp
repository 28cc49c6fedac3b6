#include "helper/network/Routes.h"

#include <arpa/inet.h>

#include <array>

namespace helper {

using foundation::Status;

namespace {

std::array<Route, 2> everything(const std::string &interface, in_addr source) {
  std::array<Route, 2> halves;
  halves[1].destination.s_addr = htonl(0x80000000U);
  for (Route &route : halves) {
    route.prefixLength = 1;
    route.source = source;
    route.interface = interface;
  }
  return halves;
}

}  // namespace

Status JournalledRoutes::pinServer(in_addr server) {
  const auto route = table_.lookUp(server);
  if (!route) return {};
  // A server on this very machine (or behind the loopback of a test) is reached whatever the other routes say.
  if (route->interface == "lo") return {};
  return add(*route);
}

Status JournalledRoutes::keepServerOff(const std::string &interface, in_addr server) {
  return table_.detach(server, interface);
}

Status JournalledRoutes::carryEverything(const std::string &interface, in_addr source) {
  for (const Route &route : everything(interface, source))
    if (Status added = add(route); !added) return added;
  return {};
}

Status JournalledRoutes::carryEverythingAgain(const std::string &interface, in_addr source) {
  for (Route route : everything(interface, source)) {
    route.metric = metric_;
    if (Status added = table_.add(route); !added) return added;
  }
  return {};
}

Status JournalledRoutes::add(Route route) {
  route.metric = metric_;
  if (Status noted = journal_.note(AddedRoute{route}); !noted) return noted;
  Status added = table_.add(route);
  if (!added) static_cast<void>(journal_.forgetLast());
  return added;
}

}  // namespace helper
