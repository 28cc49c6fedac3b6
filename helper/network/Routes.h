// What a link does to the routes: the way to the server stays outside the tunnel, everything else may go in. Each
// change is noted in the journal before it is made.

#pragma once

#include <string>

#include "foundation/Result.h"
#include "helper/journal/Journal.h"
#include "helper/network/RouteTable.h"

namespace helper {

class Routes {
 public:
  virtual ~Routes() = default;
  // Writes down as a route of its own how SERVER is reached now, so that a default route into the tunnel does not send
  // the tunnel's own packets through itself. A host route that is there already stays beside it. Success also
  // when the server cannot be reached at all: who tries will say so.
  virtual foundation::Status pinServer(in_addr server) = 0;
  // Takes the server's address off INTERFACE: PPP peers that call themselves by it would pull the tunnel into itself.
  virtual foundation::Status keepServerOff(const std::string &interface, in_addr server) = 0;
  // Sends whatever has no better route through INTERFACE. The default route itself is not touched: two routes of half
  // the world each are better than it, and go with the interface.
  virtual foundation::Status carryEverything(const std::string &interface, in_addr source) = 0;
  // The same once more, after the interface was down for a moment and the kernel threw the routes away. The journal
  // knows them already.
  virtual foundation::Status carryEverythingAgain(const std::string &interface, in_addr source) = 0;
};

// In the kernel's main table.
class JournalledRoutes : public Routes {
 public:
  // TABLE and JOURNAL outlive it. METRIC is of this link alone: two links, to one server perhaps, have routes of their
  // own, and the end of one takes nothing from the other.
  JournalledRoutes(RouteTable &table, Journal &journal, std::uint32_t metric)
      : table_(table), journal_(journal), metric_(metric) {}

  foundation::Status pinServer(in_addr server) override;
  foundation::Status keepServerOff(const std::string &interface, in_addr server) override;
  foundation::Status carryEverything(const std::string &interface, in_addr source) override;
  foundation::Status carryEverythingAgain(const std::string &interface, in_addr source) override;

 private:
  foundation::Status add(Route route);

  RouteTable &table_;
  Journal &journal_;
  std::uint32_t metric_;
};

}  // namespace helper
