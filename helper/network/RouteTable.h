// The kernel's IPv4 routes, as far as a link needs them: a small seam, so that what is done to them can be recorded.
//
// Thread rule: one thread. Calls are answered by the kernel at once.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/Result.h"
#include "helper/journal/Route.h"

struct nl_sock;

namespace helper {

class RouteTable {
 public:
  virtual ~RouteTable() = default;
  // How the kernel would send to DESTINATION now, as a route to that one host. Where that is through another link that
  // carries everything, the way there would be without it: links do not stand on each other.
  virtual foundation::Result<Route> lookUp(in_addr destination) = 0;
  // An error when there is a route of the same destination and metric already, whoever made it.
  virtual foundation::Status add(const Route &route) = 0;
  // Only one that add() made; success also when there is no such route (any more).
  virtual foundation::Status remove(const Route &route) = 0;
  // Whatever route leads to DESTINATION alone over INTERFACE, whoever made it; success also when there is none.
  virtual foundation::Status detach(in_addr destination, const std::string &interface) = 0;
};

// The main table of this network namespace, by netlink.
class NetlinkRouteTable : public RouteTable {
 public:
  static foundation::Result<std::unique_ptr<NetlinkRouteTable>> open();
  ~NetlinkRouteTable() override;

  foundation::Result<Route> lookUp(in_addr destination) override;
  foundation::Status add(const Route &route) override;
  foundation::Status remove(const Route &route) override;
  foundation::Status detach(in_addr destination, const std::string &interface) override;

 private:
  explicit NetlinkRouteTable(nl_sock *socket) : socket_(socket) {}
  foundation::Status ask(in_addr destination, unsigned flags, void *found);
  foundation::Status erase(const Route &route, std::uint8_t maker);

  nl_sock *socket_;
};

}  // namespace helper
