// The kernel's policy rules and the tables of the links, as far as a link needs them: a small seam, so that what is
// done to them can be recorded.
//
// Thread rule: one thread. Calls are answered by the kernel at once.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "helper/journal/Journal.h"
#include "helper/journal/PolicyRule.h"

struct nl_sock;

namespace helper {

class Routing {
 public:
  // Who made a rule or a route, as `ip rule` shows it (proto 118): ours are told from everybody else's.
  static constexpr std::uint8_t kMaker = 118;
  // The links' tables stand in a row behind this one, each by its journal's number.
  static constexpr std::uint32_t kFirstTable = 7000;

  virtual ~Routing() = default;
  // Behind all others of ours, before those that stand later in the kernel's list; whoever adds one without saying
  // where comes after it. A kernel without IPv6 has no rules for it, which is success.
  virtual vpnctl::Status add(const PolicyRule &rule) = 0;
  // The first that is so; success also when there is none (any more).
  virtual vpnctl::Status remove(const PolicyRule &rule) = 0;
  // Those of all links, in the kernel's order.
  virtual vpnctl::Result<std::vector<PolicyRule>> rules() = 0;
  // In TABLE, what goes to NETWORK goes through INTERFACE; ENETDOWN when that is down, ENODEV when it is gone. Nothing
  // happens when it is so already.
  virtual vpnctl::Status lead(std::uint32_t table, const IPv4Network &network, const std::string &interface) = 0;
  // In TABLE, what goes to NETWORK, or to anywhere by IPv6, is refused where it is not led.
  virtual vpnctl::Status refuse(std::uint32_t table, const IPv4Network &network) = 0;
  virtual vpnctl::Status refuseIPv6(std::uint32_t table) = 0;
  // Everything that the three above did; success also when there is none of it.
  virtual vpnctl::Status clear(const FilledTable &table) = 0;
  // Those that the machine is in, by its addresses, over any interface but BESIDES that has a carrier. An address
  // without neighbours makes none.
  virtual vpnctl::Result<std::vector<IPv4Network>> networks(const std::string &besides) = 0;
  // Whatever route of the main table leads to DESTINATION alone over INTERFACE, whoever made it; success also when
  // there is none.
  virtual vpnctl::Status detach(in_addr destination, const std::string &interface) = 0;
};

// Of this network namespace, by netlink.
class NetlinkRouting : public Routing {
 public:
  static vpnctl::Result<std::unique_ptr<NetlinkRouting>> open();
  ~NetlinkRouting() override;

  vpnctl::Status add(const PolicyRule &rule) override;
  vpnctl::Status remove(const PolicyRule &rule) override;
  vpnctl::Result<std::vector<PolicyRule>> rules() override;
  vpnctl::Status lead(std::uint32_t table, const IPv4Network &network, const std::string &interface) override;
  vpnctl::Status refuse(std::uint32_t table, const IPv4Network &network) override;
  vpnctl::Status refuseIPv6(std::uint32_t table) override;
  vpnctl::Status clear(const FilledTable &table) override;
  vpnctl::Result<std::vector<IPv4Network>> networks(const std::string &besides) override;
  vpnctl::Status detach(in_addr destination, const std::string &interface) override;

 private:
  explicit NetlinkRouting(nl_sock *socket) : socket_(socket) {}

  nl_sock *socket_;
};

}  // namespace helper
