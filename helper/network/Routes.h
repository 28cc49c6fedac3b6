// What a link does to the routes: packets to the server follow the machine's own routes of the moment, others go into
// the tunnel or nowhere. Each change is noted in the journal before it is made.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "helper/journal/Journal.h"
#include "helper/network/RoutePlan.h"
#include "helper/network/Routing.h"

namespace helper {

class Routes {
 public:
  virtual ~Routes() = default;
  // Packets to the server go past the tunnels, this one and those of other links: no link depends on another's life.
  // Called again, for another server, those to the one before no longer do.
  virtual vpnctl::Status keepWay(in_addr server) = 0;
  // Takes the server's address off INTERFACE: PPP peers that call themselves by it would pull the tunnel into itself.
  virtual vpnctl::Status keepServerOff(const std::string &interface, in_addr server) = 0;
  // The network that the machine is in by another interface than INTERFACE, and that ADDRESS belongs to.
  virtual std::optional<IPv4Network> networkAround(in_addr address, const std::string &interface) = 0;
  // Sends what the tunnel is for through INTERFACE; without one, it is refused from now on. May be called again: the
  // kernel throws routes away when their interface goes down, even for a moment.
  virtual vpnctl::Status carry(const std::string &interface) = 0;
  // Puts back what others have thrown away of all this. True when there was anything.
  virtual vpnctl::Result<bool> putBack() = 0;
};

// In the kernel, by rules and a table of the link's own. The machine's routes and rules stay as they are.
class JournalledRoutes : public Routes {
 public:
  // ROUTING and JOURNAL outlive it.
  JournalledRoutes(Routing &routing, Journal &journal, RoutePlan plan);

  vpnctl::Status keepWay(in_addr server) override;
  vpnctl::Status keepServerOff(const std::string &interface, in_addr server) override;
  std::optional<IPv4Network> networkAround(in_addr address, const std::string &interface) override;
  vpnctl::Status carry(const std::string &interface) override;
  vpnctl::Result<bool> putBack() override;

 private:
  vpnctl::Status add(const std::vector<PolicyRule> &rules);
  vpnctl::Status fillTable();
  vpnctl::Status refuse();
  vpnctl::Status lead();
  vpnctl::Status tablesBehind(bool ours);

  Routing &routing_;
  Journal &journal_;
  const RoutePlan plan_;
  const std::uint32_t table_;
  std::vector<PolicyRule> rules_;  // ours, that must be there
  bool filled_ = false;
  std::string interface_;
};

}  // namespace helper
