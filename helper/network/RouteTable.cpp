#include "helper/network/RouteTable.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>

#include <array>
#include <optional>

#include "helper/common/IPv4Address.h"

namespace helper {

namespace {

struct Release {
  void operator()(rtnl_route *route) const { rtnl_route_put(route); }
  void operator()(nl_msg *message) const { nlmsg_free(message); }
  void operator()(nl_addr *address) const { nl_addr_put(address); }
};
using RouteObject = std::unique_ptr<rtnl_route, Release>;
using Message = std::unique_ptr<nl_msg, Release>;
using Address = std::unique_ptr<nl_addr, Release>;

// Who made a route, as `ip route` shows it (proto 118): ours are told from everybody else's, however alike they are.
constexpr std::uint8_t kMaker = 118;

foundation::Error netlinkError(int code, const std::string &context) {
  return {"Netlink", -code, context + ": " + nl_geterror(code)};
}

Address addressOf(in_addr address, int prefixLength) {
  Address result(nl_addr_build(AF_INET, &address, sizeof address));
  nl_addr_set_prefixlen(result.get(), prefixLength);
  return result;
}

in_addr addressFrom(const nl_addr *address) {
  in_addr result{};
  if (address != nullptr && nl_addr_get_len(address) == sizeof result)
    result = *static_cast<const in_addr *>(nl_addr_get_binary_addr(address));
  return result;
}

std::string describe(const Route &route) {
  return textOf(route.destination) + "/" + std::to_string(route.prefixLength);
}

// 0 when there is none (any more). Not if_nametoindex: for a name that is gone its ioctl has the kernel run modprobe,
// which takes half a second.
int indexOf(nl_sock *socket, const std::string &interface) {
  rtnl_link *link = nullptr;
  if (rtnl_link_get_kernel(socket, 0, interface.c_str(), &link) < 0) return 0;
  const int index = rtnl_link_get_ifindex(link);
  rtnl_link_put(link);
  return index;
}

// Empty when the interface is gone, and with it every route through it.
RouteObject objectOf(nl_sock *socket, const Route &route) {
  const int interface = indexOf(socket, route.interface);
  if (interface == 0) return nullptr;
  RouteObject object(rtnl_route_alloc());
  rtnl_route_set_family(object.get(), AF_INET);
  rtnl_route_set_table(object.get(), RT_TABLE_MAIN);
  rtnl_route_set_protocol(object.get(), kMaker);
  rtnl_route_set_priority(object.get(), route.metric);
  rtnl_route_set_type(object.get(), RTN_UNICAST);
  rtnl_route_set_scope(object.get(), route.gateway.s_addr == 0 ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE);
  rtnl_route_set_dst(object.get(), addressOf(route.destination, route.prefixLength).get());
  if (route.source.s_addr != 0) rtnl_route_set_pref_src(object.get(), addressOf(route.source, 32).get());
  rtnl_nexthop *hop = rtnl_route_nh_alloc();
  rtnl_route_nh_set_ifindex(hop, interface);
  if (route.gateway.s_addr != 0) rtnl_route_nh_set_gateway(hop, addressOf(route.gateway, 32).get());
  rtnl_route_add_nexthop(object.get(), hop);
  return object;
}

// What carryEverything() makes, of whichever link.
bool carriesEverything(rtnl_route *route) {
  return rtnl_route_get_protocol(route) == kMaker && nl_addr_get_prefixlen(rtnl_route_get_dst(route)) == 1;
}

struct ReleaseCache {
  void operator()(nl_cache *cache) const { nl_cache_free(cache); }
};

// The best route of the main table to DESTINATION, by the kernel's rules, as if no link carried everything.
RouteObject wayWithoutUs(nl_sock *socket, in_addr destination) {
  nl_cache *all = nullptr;
  if (rtnl_route_alloc_cache(socket, AF_INET, 0, &all) < 0) return nullptr;
  const std::unique_ptr<nl_cache, ReleaseCache> cache(all);
  const Address address = addressOf(destination, 32);
  rtnl_route *best = nullptr;
  unsigned bestLength = 0;
  for (nl_object *object = nl_cache_get_first(all); object != nullptr; object = nl_cache_get_next(object)) {
    auto *route = reinterpret_cast<rtnl_route *>(object);
    nl_addr *to = rtnl_route_get_dst(route);
    if (rtnl_route_get_table(route) != RT_TABLE_MAIN || rtnl_route_get_type(route) != RTN_UNICAST ||
        rtnl_route_get_tos(route) != 0 || rtnl_route_get_nnexthops(route) < 1 || carriesEverything(route) ||
        (rtnl_route_nh_get_flags(rtnl_route_nexthop_n(route, 0)) & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0)
      continue;
    const unsigned length = nl_addr_get_prefixlen(to);
    if (length > 0 && nl_addr_cmp_prefix(to, address.get()) != 0) continue;
    if (best != nullptr && (length < bestLength ||
                            (length == bestLength && rtnl_route_get_priority(route) >= rtnl_route_get_priority(best))))
      continue;
    best = route;
    bestLength = length;
  }
  if (best != nullptr) nl_object_get(reinterpret_cast<nl_object *>(best));
  return RouteObject(best);
}

int takeRoute(nl_msg *message, void *context) {
  rtnl_route *parsed = nullptr;
  if (rtnl_route_parse(nlmsg_hdr(message), &parsed) == 0) static_cast<RouteObject *>(context)->reset(parsed);
  return NL_OK;
}

}  // namespace

foundation::Result<std::unique_ptr<NetlinkRouteTable>> NetlinkRouteTable::open() {
  std::unique_ptr<NetlinkRouteTable> table(new NetlinkRouteTable(nl_socket_alloc()));
  if (const int code = nl_connect(table->socket_, NETLINK_ROUTE); code < 0)
    return netlinkError(code, "talk to the kernel about routes");
  return table;
}

NetlinkRouteTable::~NetlinkRouteTable() { nl_socket_free(socket_); }

foundation::Status NetlinkRouteTable::ask(in_addr destination, unsigned flags, void *found) {
  Message request(nlmsg_alloc_simple(RTM_GETROUTE, NLM_F_REQUEST));
  rtmsg header{};
  header.rtm_family = AF_INET;
  header.rtm_dst_len = 32;
  header.rtm_flags = flags;
  nlmsg_append(request.get(), &header, sizeof header, NLMSG_ALIGNTO);
  nla_put(request.get(), RTA_DST, sizeof destination, &destination);
  auto *object = static_cast<RouteObject *>(found);
  nl_socket_modify_cb(socket_, NL_CB_VALID, NL_CB_CUSTOM, takeRoute, object);
  int code = nl_send_auto(socket_, request.get());
  // The answer, and then the acknowledgement that libnl always asks for.
  if (code >= 0) code = nl_recvmsgs_default(socket_);
  if (code >= 0 && *object) code = nl_wait_for_ack(socket_);
  nl_socket_modify_cb(socket_, NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
  if (code < 0) return netlinkError(code, "look up the route to " + textOf(destination));
  return {};
}

foundation::Result<Route> NetlinkRouteTable::lookUp(in_addr destination) {
  const std::string context = "look up the route to " + textOf(destination);
  RouteObject found;
  if (auto asked = ask(destination, 0, &found); !asked) return asked.error();
  if (found) {
    // The same question for the route itself that the answer comes from.
    RouteObject matched;
    if (ask(destination, RTM_F_FIB_MATCH, &matched) && matched && carriesEverything(matched.get()))
      if (RouteObject beneath = wayWithoutUs(socket_, destination)) found = std::move(beneath);
  }
  rtnl_nexthop *hop = found ? rtnl_route_nexthop_n(found.get(), 0) : nullptr;
  if (hop == nullptr || rtnl_route_get_type(found.get()) != RTN_UNICAST)
    return foundation::Error{"Netlink", 0, context + ": there is none"};
  Route route;
  route.destination = destination;
  route.gateway = addressFrom(rtnl_route_nh_get_gateway(hop));
  route.source = addressFrom(rtnl_route_get_pref_src(found.get()));
  std::array<char, IF_NAMESIZE> name{};
  if (if_indextoname(static_cast<unsigned>(rtnl_route_nh_get_ifindex(hop)), name.data()) == nullptr)
    return foundation::errnoError(errno, context);
  route.interface = name.data();
  return route;
}

foundation::Status NetlinkRouteTable::add(const Route &route) {
  const RouteObject object = objectOf(socket_, route);
  if (!object) return foundation::errnoError(ENODEV, "add a route through " + route.interface);
  const int code = rtnl_route_add(socket_, object.get(), NLM_F_CREATE | NLM_F_EXCL);
  if (code < 0) return netlinkError(code, "add the route to " + describe(route));
  return {};
}

foundation::Status NetlinkRouteTable::remove(const Route &route) { return erase(route, kMaker); }

foundation::Status NetlinkRouteTable::detach(in_addr destination, const std::string &interface) {
  Route route;
  route.destination = destination;
  route.interface = interface;
  return erase(route, RTPROT_UNSPEC);
}

foundation::Status NetlinkRouteTable::erase(const Route &route, std::uint8_t maker) {
  const RouteObject object = objectOf(socket_, route);
  if (!object) return {};
  rtnl_route_set_protocol(object.get(), maker);
  const int code = rtnl_route_delete(socket_, object.get(), 0);
  if (code < 0 && code != -NLE_OBJ_NOTFOUND && code != -NLE_NOADDR && code != -NLE_NODEV)
    return netlinkError(code, "remove the route to " + describe(route));
  return {};
}

}  // namespace helper
