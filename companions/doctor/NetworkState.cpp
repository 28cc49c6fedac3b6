#include "companions/doctor/NetworkState.h"

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>

#include <array>
#include <cerrno>

namespace companions {

using vpnctl::Result;

namespace {

Result<std::vector<NetworkState::Rule>> readRules() {
  fib_rule_hdr ofIPv4{};
  ofIPv4.family = AF_INET;
  return NetlinkDump(NETLINK_ROUTE, RTM_GETRULE, ofIPv4).take(ruleIn, "read the routing rules");
}

Result<std::vector<NetworkState::Half>> readHalves() {
  rtmsg ofIPv4{};
  ofIPv4.rtm_family = AF_INET;
  return NetlinkDump(NETLINK_ROUTE, RTM_GETROUTE, ofIPv4).take(halfIn, "read the routes");
}

Result<std::vector<std::uint8_t>> readPolicies() {
  return NetlinkDump(NETLINK_XFRM, XFRM_MSG_GETPOLICY).take(policyIn, "read the IPSec policies");
}

}  // namespace

std::optional<NetworkState::Rule> ruleIn(const NetlinkMessage &message) {
  const auto header = message.header<fib_rule_hdr>();
  if (message.type != RTM_NEWRULE || !header) return std::nullopt;
  NetworkState::Rule rule;
  rule.preference = message.valueOf<std::uint32_t>(sizeof *header, FRA_PRIORITY).value_or(0);
  rule.table = message.valueOf<std::uint32_t>(sizeof *header, FRA_TABLE).value_or(header->table);
  rule.maker = message.valueOf<std::uint8_t>(sizeof *header, FRA_PROTOCOL).value_or(0);
  rule.hasMark = message.valueOf<std::uint32_t>(sizeof *header, FRA_FWMARK).has_value();
  rule.isInverted = (header->flags & FIB_RULE_INVERT) != 0;
  return rule;
}

std::optional<NetworkState::Half> halfIn(const NetlinkMessage &message) {
  const auto header = message.header<rtmsg>();
  if (message.type != RTM_NEWROUTE || !header || header->rtm_dst_len != 1) return std::nullopt;
  const auto table = message.valueOf<std::uint32_t>(sizeof *header, RTA_TABLE).value_or(header->rtm_table);
  if (table != RT_TABLE_MAIN) return std::nullopt;
  const auto destination = message.valueOf<in_addr>(sizeof *header, RTA_DST).value_or(in_addr{});
  std::array<char, INET_ADDRSTRLEN> text{};
  ::inet_ntop(AF_INET, &destination, text.data(), text.size());
  std::array<char, IF_NAMESIZE> name{};
  const auto index = message.valueOf<std::uint32_t>(sizeof *header, RTA_OIF).value_or(0);
  return NetworkState::Half{std::string(text.data()) + "/1",
                            ::if_indextoname(index, name.data()) != nullptr ? name.data() : "nowhere"};
}

// Those of single sockets, vpnctl's among them, have other directions.
std::optional<std::uint8_t> policyIn(const NetlinkMessage &message) {
  const auto info = message.header<xfrm_userpolicy_info>();
  if (message.type != XFRM_MSG_NEWPOLICY || !info) return std::nullopt;
  if (info->dir != XFRM_POLICY_OUT || (info->index & 7) >= XFRM_POLICY_MAX) return std::nullopt;
  return info->dir;
}

Result<NetworkState> NetworkState::read() {
  auto rules = readRules();
  if (!rules) return rules.error();
  auto halves = readHalves();
  if (!halves) return halves.error();
  NetworkState state{std::move(*rules), std::move(*halves), std::nullopt};
  const auto policies = readPolicies();
  if (policies) state.policies = policies->size();
  // A kernel without IPSec has none; that it has none is another check's.
  if (!policies && policies.error().code == EPROTONOSUPPORT) state.policies = 0;
  return state;
}

}  // namespace companions
