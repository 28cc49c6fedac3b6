#include "helper/network/Routing.h"

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>

#include <cerrno>
#include <optional>

#include "helper/common/IPv4Address.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::Status;

namespace {

constexpr std::uint8_t kMaker = Routing::kMaker;
// Behind the kernel's own rule for this machine's addresses and before everything else. A rule that somebody adds later
// without a preference gets this one too, and a place behind ours.
constexpr std::uint32_t kPreference = 0;
constexpr std::uint32_t kEndPreference = 1;
// Whoever wants to be a default route without replacing one takes the world in pieces: halves, or 2000::/3 and the
// like. Routes as wide as this are of that kind. (With 0, what wg-quick removes in the end would be our rule.)
constexpr std::uint32_t kWideIPv4 = 1;
constexpr std::uint32_t kWideIPv6 = 4;
// Any other route in the table is preferred.
constexpr std::uint32_t kLastMetric = 4000000;

// One question or order to the kernel.
class Request {
 public:
  template <class Header>
  Request(int type, int flags, const Header &header) : message_(nlmsg_alloc_simple(type, flags)) {
    Header copy = header;
    nlmsg_append(message_, &copy, sizeof copy, NLMSG_ALIGNTO);
  }
  Request(const Request &) = delete;
  Request &operator=(const Request &) = delete;
  ~Request() { nlmsg_free(message_); }

  Request &put(int attribute, std::uint32_t value) {
    nla_put_u32(message_, attribute, value);
    return *this;
  }
  Request &put(int attribute, in_addr value) {
    nla_put(message_, attribute, sizeof value, &value);
    return *this;
  }
  Request &putByte(int attribute, std::uint8_t value) {
    nla_put_u8(message_, attribute, value);
    return *this;
  }

  // 0, or the errno with which the kernel, or the way to it, refuses.
  int send(nl_sock *socket) {
    int refusal = 0;
    nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, takeError, &refusal);
    int code = nl_send_auto(socket, message_);
    if (code >= 0) code = nl_wait_for_ack(socket);
    nl_socket_modify_err_cb(socket, NL_CB_DEFAULT, nullptr, nullptr);
    if (refusal != 0) return refusal;
    return code < 0 ? EIO : 0;
  }

 private:
  static int takeError(sockaddr_nl *, nlmsgerr *error, void *context) {
    *static_cast<int *>(context) = -error->error;
    return NL_STOP;
  }

  nl_msg *message_;
};

Status refusedWith(int code, const std::string &context) {
  if (code == 0) return {};
  return errnoError(code, context);
}

bool isLackOfIPv6(int code) { return code == EAFNOSUPPORT || code == EOPNOTSUPP; }

// 0 when there is none (any more). Not if_nametoindex: for a name that is gone its ioctl has the kernel run modprobe,
// which takes half a second.
int indexOf(nl_sock *socket, const std::string &interface) {
  rtnl_link *link = nullptr;
  if (rtnl_link_get_kernel(socket, 0, interface.c_str(), &link) < 0) return 0;
  const int index = rtnl_link_get_ifindex(link);
  rtnl_link_put(link);
  return index;
}

// Hands everything of one kind to TAKE, with CONTEXT.
template <class Header>
Status dump(nl_sock *socket, int type, Header filter, nl_recvmsg_msg_cb_t take, void *context, const char *what) {
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, take, context);
  int code = nl_send_simple(socket, type, NLM_F_DUMP, &filter, sizeof filter);
  if (code >= 0) code = nl_recvmsgs_default(socket);
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
  if (code < 0) return vpnctl::Error{"Netlink", -code, std::string(what) + ": " + nl_geterror(code)};
  return {};
}

std::uint8_t familyOf(bool ipv6) { return ipv6 ? AF_INET6 : AF_INET; }

int sendRule(nl_sock *socket, int type, int flags, const PolicyRule &rule) {
  using Kind = PolicyRule::Kind;
  fib_rule_hdr header{};
  header.family = familyOf(rule.ipv6);
  header.action = FR_ACT_TO_TBL;
  if (rule.kind == Kind::wayToServer) header.action = FR_ACT_GOTO;
  if (rule.kind == Kind::end) header.action = FR_ACT_NOP;
  if (rule.kind == Kind::wayToServer) header.dst_len = 32;
  Request request(type, flags, header);
  request.putByte(FRA_PROTOCOL, kMaker);
  request.put(FRA_PRIORITY, rule.kind == Kind::end ? kEndPreference : kPreference);
  request.put(FRA_TABLE, rule.kind == Kind::localNetworks ? std::uint32_t{RT_TABLE_MAIN} : rule.table);
  if (rule.kind == Kind::wayToServer) request.put(FRA_DST, rule.server).put(FRA_GOTO, kEndPreference);
  // What somebody has marked, he has plans for: the packets of another tunnel, mostly.
  if (rule.kind == Kind::localNetworks || rule.kind == Kind::ownTable)
    request.put(FRA_FWMARK, 0U).put(FRA_FWMASK, UINT32_MAX);
  if (rule.kind == Kind::localNetworks) request.put(FRA_SUPPRESS_PREFIXLEN, rule.ipv6 ? kWideIPv6 : kWideIPv4);
  const int code = request.send(socket);
  return rule.ipv6 && isLackOfIPv6(code) ? 0 : code;
}

// None when it is not one of ours.
std::optional<PolicyRule> ruleFrom(nlmsghdr *message) {
  const auto *header = static_cast<const fib_rule_hdr *>(nlmsg_data(message));
  const auto attribute = [&](int type) { return nlmsg_find_attr(message, sizeof *header, type); };
  const nlattr *maker = attribute(FRA_PROTOCOL);
  const nlattr *table = attribute(FRA_TABLE);
  if (maker == nullptr || nla_get_u8(maker) != kMaker || table == nullptr) return std::nullopt;
  PolicyRule rule;
  rule.ipv6 = header->family == AF_INET6;
  rule.table = nla_get_u32(table);
  const nlattr *destination = attribute(FRA_DST);
  if (header->action == FR_ACT_GOTO && destination != nullptr && nla_len(destination) == sizeof rule.server) {
    rule.kind = PolicyRule::Kind::wayToServer;
    rule.server = *static_cast<const in_addr *>(nla_data(destination));
  } else if (header->action == FR_ACT_TO_TBL && rule.table == RT_TABLE_MAIN) {
    rule.kind = PolicyRule::Kind::localNetworks;
    rule.table = 0;
  } else if (header->action == FR_ACT_TO_TBL) {
    rule.kind = PolicyRule::Kind::ownTable;
  } else if (header->action != FR_ACT_NOP) {
    return std::nullopt;
  }
  return rule;
}

int takeRule(nl_msg *message, void *context) {
  if (const auto rule = ruleFrom(nlmsg_hdr(message))) static_cast<std::vector<PolicyRule> *>(context)->push_back(*rule);
  return NL_OK;
}

// A route of ours in TABLE, which the kernel completes.
rtmsg routeHeader(std::uint8_t family, int prefixLength, std::uint8_t type) {
  rtmsg header{};
  header.rtm_family = family;
  header.rtm_dst_len = static_cast<unsigned char>(prefixLength);
  header.rtm_table = RT_TABLE_UNSPEC;
  header.rtm_protocol = kMaker;
  header.rtm_scope = type == RTN_UNICAST ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
  header.rtm_type = type;
  return header;
}

struct NetworkSearch {
  std::uint32_t besides;  // an interface
  std::vector<IPv4Network> found;
};

int takeNetwork(nl_msg *message, void *context) {
  auto &search = *static_cast<NetworkSearch *>(context);
  const auto *header = static_cast<const rtmsg *>(nlmsg_data(nlmsg_hdr(message)));
  const nlattr *interface = nlmsg_find_attr(nlmsg_hdr(message), sizeof *header, RTA_OIF);
  const nlattr *destination = nlmsg_find_attr(nlmsg_hdr(message), sizeof *header, RTA_DST);
  // The kernel makes such a route for each address that has neighbours.
  if (header->rtm_table != RT_TABLE_MAIN || header->rtm_type != RTN_UNICAST || header->rtm_protocol != RTPROT_KERNEL ||
      header->rtm_dst_len == 32 || (header->rtm_flags & (RTNH_F_LINKDOWN | RTNH_F_DEAD)) != 0)
    return NL_OK;
  if (interface == nullptr || nla_get_u32(interface) == search.besides || destination == nullptr ||
      nla_len(destination) != sizeof(in_addr))
    return NL_OK;
  search.found.push_back({*static_cast<const in_addr *>(nla_data(destination)), header->rtm_dst_len});
  return NL_OK;
}

constexpr int kReplace = NLM_F_CREATE | NLM_F_REPLACE;

// All routes of ours to NETWORK in TABLE.
int clearNetwork(nl_sock *socket, std::uint32_t table, std::uint8_t family, const IPv4Network &network) {
  for (int code = 0;;) {
    rtmsg header = routeHeader(family, network.prefixLength, RTN_UNSPEC);
    header.rtm_scope = RT_SCOPE_NOWHERE;  // of any
    Request request(RTM_DELROUTE, 0, header);
    request.put(RTA_TABLE, table);
    if (network.prefixLength > 0) request.put(RTA_DST, network.address);
    code = request.send(socket);
    if (code == ESRCH || code == ENOENT || (family == AF_INET6 && isLackOfIPv6(code))) return 0;
    if (code != 0) return code;
  }
}

}  // namespace

vpnctl::Result<std::unique_ptr<NetlinkRouting>> NetlinkRouting::open() {
  std::unique_ptr<NetlinkRouting> routing(new NetlinkRouting(nl_socket_alloc()));
  if (const int code = nl_connect(routing->socket_, NETLINK_ROUTE); code < 0)
    return vpnctl::Error{"Netlink", -code, std::string("talk to the kernel about routes: ") + nl_geterror(code)};
  return routing;
}

NetlinkRouting::~NetlinkRouting() { nl_socket_free(socket_); }

Status NetlinkRouting::add(const PolicyRule &rule) {
  return refusedWith(sendRule(socket_, RTM_NEWRULE, NLM_F_CREATE, rule), "add a routing rule");
}

Status NetlinkRouting::remove(const PolicyRule &rule) {
  const int code = sendRule(socket_, RTM_DELRULE, 0, rule);
  return refusedWith(code == ENOENT ? 0 : code, "remove a routing rule");
}

vpnctl::Result<std::vector<PolicyRule>> NetlinkRouting::rules() {
  std::vector<PolicyRule> found;
  if (const Status dumped = dump(socket_, RTM_GETRULE, fib_rule_hdr{}, takeRule, &found, "read the routing rules");
      !dumped)
    return dumped.error();
  return found;
}

vpnctl::Result<std::vector<IPv4Network>> NetlinkRouting::networks(const std::string &besides) {
  NetworkSearch search{static_cast<std::uint32_t>(indexOf(socket_, besides)), {}};
  rtmsg ofIPv4{};
  ofIPv4.rtm_family = AF_INET;
  if (const Status dumped = dump(socket_, RTM_GETROUTE, ofIPv4, takeNetwork, &search, "read the routes"); !dumped)
    return dumped.error();
  return search.found;
}

Status NetlinkRouting::lead(std::uint32_t table, const IPv4Network &network, const std::string &interface) {
  const std::string context = "lead " + textOf(network) + " through " + interface;
  const int index = indexOf(socket_, interface);
  if (index == 0) return errnoError(ENODEV, context);
  Request request(RTM_NEWROUTE, kReplace, routeHeader(AF_INET, network.prefixLength, RTN_UNICAST));
  request.put(RTA_TABLE, table).put(RTA_OIF, static_cast<std::uint32_t>(index));
  if (network.prefixLength > 0) request.put(RTA_DST, network.address);
  return refusedWith(request.send(socket_), context);
}

Status NetlinkRouting::refuse(std::uint32_t table, const IPv4Network &network) {
  Request request(RTM_NEWROUTE, kReplace, routeHeader(AF_INET, network.prefixLength, RTN_UNREACHABLE));
  request.put(RTA_TABLE, table).put(RTA_PRIORITY, kLastMetric);
  if (network.prefixLength > 0) request.put(RTA_DST, network.address);
  return refusedWith(request.send(socket_), "keep " + textOf(network) + " from going past the tunnel");
}

Status NetlinkRouting::refuseIPv6(std::uint32_t table) {
  Request request(RTM_NEWROUTE, kReplace, routeHeader(AF_INET6, 0, RTN_UNREACHABLE));
  request.put(RTA_TABLE, table).put(RTA_PRIORITY, kLastMetric);
  const int code = request.send(socket_);
  return refusedWith(isLackOfIPv6(code) ? 0 : code, "keep IPv6 from going past the tunnel");
}

Status NetlinkRouting::clear(const FilledTable &table) {
  int code = 0;
  for (const IPv4Network &network : table.networks)
    if (const int left = clearNetwork(socket_, table.table, AF_INET, network); left != 0) code = left;
  if (const int left = clearNetwork(socket_, table.table, AF_INET6, {}); left != 0) code = left;
  return refusedWith(code, "empty the routing table " + std::to_string(table.table));
}

Status NetlinkRouting::detach(in_addr destination, const std::string &interface) {
  const int index = indexOf(socket_, interface);
  if (index == 0) return {};
  rtmsg header = routeHeader(AF_INET, 32, RTN_UNICAST);
  header.rtm_table = RT_TABLE_MAIN;
  header.rtm_protocol = RTPROT_UNSPEC;  // whoever's
  Request request(RTM_DELROUTE, 0, header);
  request.put(RTA_DST, destination).put(RTA_OIF, static_cast<std::uint32_t>(index));
  const int code = request.send(socket_);
  return refusedWith(code == ESRCH ? 0 : code, "take " + textOf(destination) + " off " + interface);
}

}  // namespace helper
