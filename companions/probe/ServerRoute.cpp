#include "companions/probe/ServerRoute.h"

#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>

#include "foundation/Result.h"

namespace companions {

namespace {

using Kind = ServerRoute::Kind;
using Link = ServerRoute::Link;

struct FreeSocket {
  void operator()(nl_sock *socket) const { nl_socket_free(socket); }
};
struct FreeMessage {
  void operator()(nl_msg *message) const { nlmsg_free(message); }
};
using Socket = std::unique_ptr<nl_sock, FreeSocket>;
using Message = std::unique_ptr<nl_msg, FreeMessage>;

// How the kernel ends its answer.
struct Ending {
  bool came = false;
  int refusal = 0;  // an errno
};

int takeError(sockaddr_nl *, nlmsgerr *error, void *context) {
  *static_cast<Ending *>(context) = {true, -error->error};
  return NL_STOP;
}

int takeEnd(nl_msg *, void *context) {
  static_cast<Ending *>(context)->came = true;
  return NL_STOP;
}

struct Answer {
  ServerRoute route;
  std::uint32_t interface = 0;
};

// Hands the answer to TAKE. 0, or the errno with which the kernel, or the way to it, refuses.
int ask(nl_sock *socket, nl_msg *question, nl_recvmsg_msg_cb_t take, Answer &answer) {
  Ending ending;
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, take, &answer);
  nl_socket_modify_cb(socket, NL_CB_ACK, NL_CB_CUSTOM, takeEnd, &ending);
  nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, takeError, &ending);
  int code = nl_send_auto(socket, question);
  // The answer and its end are two messages, and each call reads one.
  while (code >= 0 && !ending.came) code = nl_recvmsgs_default(socket);
  if (ending.came) return ending.refusal;
  return EIO;
}

std::optional<std::uint32_t> numberIn(const nlattr *attribute) {
  if (attribute == nullptr || nla_len(attribute) != sizeof(std::uint32_t)) return std::nullopt;
  return nla_get_u32(attribute);
}

std::optional<in_addr> addressIn(const nlattr *attribute) {
  if (attribute == nullptr || nla_len(attribute) != sizeof(in_addr)) return std::nullopt;
  return *static_cast<const in_addr *>(nla_data(attribute));
}

std::string textIn(const nlattr *attribute) {
  if (attribute == nullptr || nla_len(attribute) <= 0) return {};
  const auto *text = static_cast<const char *>(nla_data(attribute));
  return {text, std::find(text, text + nla_len(attribute), '\0')};
}

const nlattr *within(const nlattr *nest, int type) {
  if (nest == nullptr) return nullptr;
  return nla_find(static_cast<const nlattr *>(nla_data(nest)), nla_len(nest), type);
}

Kind kindOf(unsigned char type) {
  switch (type) {
    case RTN_UNICAST:
      return Kind::way;
    case RTN_LOCAL:
      return Kind::ownAddress;
    case RTN_UNREACHABLE:
      return Kind::unreachable;
    case RTN_BLACKHOLE:
      return Kind::blackhole;
    case RTN_PROHIBIT:
      return Kind::prohibited;
    default:
      return Kind::unknown;
  }
}

// Asked for one address, the kernel answers with the error that a packet would meet.
Kind kindOfRefusal(int error) {
  switch (error) {
    case ENETUNREACH:
      return Kind::none;
    case EHOSTUNREACH:
      return Kind::unreachable;
    case EINVAL:
      return Kind::blackhole;
    case EACCES:
      return Kind::prohibited;
    default:
      return Kind::unknown;
  }
}

int takeRoute(nl_msg *message, void *context) {
  nlmsghdr *header = nlmsg_hdr(message);
  if (header->nlmsg_type != RTM_NEWROUTE || nlmsg_datalen(header) < static_cast<int>(sizeof(rtmsg))) return NL_SKIP;
  auto &answer = *static_cast<Answer *>(context);
  const auto *fixed = static_cast<const rtmsg *>(nlmsg_data(header));
  const auto attribute = [&](int type) { return nlmsg_find_attr(header, sizeof *fixed, type); };
  answer.route.kind = kindOf(fixed->rtm_type);
  answer.route.source = addressIn(attribute(RTA_PREFSRC));
  answer.route.gateway = addressIn(attribute(RTA_GATEWAY));
  if (const auto mtu = numberIn(within(attribute(RTA_METRICS), RTAX_MTU)); mtu && *mtu != 0)
    answer.route.routeMTU = static_cast<int>(*mtu);
  answer.interface = numberIn(attribute(RTA_OIF)).value_or(0);
  return NL_OK;
}

int takeLink(nl_msg *message, void *context) {
  nlmsghdr *header = nlmsg_hdr(message);
  if (header->nlmsg_type != RTM_NEWLINK || nlmsg_datalen(header) < static_cast<int>(sizeof(ifinfomsg))) return NL_SKIP;
  auto &route = static_cast<Answer *>(context)->route;
  const auto *fixed = static_cast<const ifinfomsg *>(nlmsg_data(header));
  const auto attribute = [&](int type) { return nlmsg_find_attr(header, sizeof *fixed, type); };
  route.interface = textIn(attribute(IFLA_IFNAME));
  route.interfaceKind = textIn(within(attribute(IFLA_LINKINFO), IFLA_INFO_KIND));
  route.interfaceMTU = static_cast<int>(numberIn(attribute(IFLA_MTU)).value_or(0));
  route.link = linkOf(route.interfaceKind, fixed->ifi_type);
  return NL_OK;
}

Message routeQuestion(in_addr server) {
  Message question(nlmsg_alloc_simple(RTM_GETROUTE, 0));
  rtmsg header{};
  header.rtm_family = AF_INET;
  header.rtm_dst_len = 32;
  nlmsg_append(question.get(), &header, sizeof header, NLMSG_ALIGNTO);
  nla_put(question.get(), RTA_DST, sizeof server, &server);
  return question;
}

Message linkQuestion(std::uint32_t index) {
  Message question(nlmsg_alloc_simple(RTM_GETLINK, 0));
  ifinfomsg header{};
  header.ifi_family = AF_UNSPEC;
  header.ifi_index = static_cast<int>(index);
  nlmsg_append(question.get(), &header, sizeof header, NLMSG_ALIGNTO);
  return question;
}

// The kernel has answered within the call that asks; this is for one that does not.
constexpr timeval kPatience{5, 0};

ServerRoute unknown(int error, const char *what) {
  ServerRoute route;
  route.reason = vpnctl::errnoError(error, what).message;
  return route;
}

}  // namespace

ServerRoute::Link linkOf(const std::string &kind, unsigned arpType) {
  if (kind == "ppp" || arpType == ARPHRD_PPP) return Link::ppp;
  for (const char *tunnel : {"tun", "wireguard", "xfrm", "vti", "ipip", "gre", "gretap", "sit", "ip6tnl", "l2tpeth"})
    if (kind == tunnel) return Link::tunnel;
  if (arpType == ARPHRD_TUNNEL || arpType == ARPHRD_TUNNEL6 || arpType == ARPHRD_SIT || arpType == ARPHRD_IPGRE)
    return Link::tunnel;
  return Link::ordinary;
}

ServerRoute ServerRoute::to(in_addr server) {
  const Socket socket(nl_socket_alloc());
  if (!socket || nl_connect(socket.get(), NETLINK_ROUTE) < 0) return unknown(EIO, "talk to the kernel about routes");
  ::setsockopt(nl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  Answer answer;
  if (const int error = ask(socket.get(), routeQuestion(server).get(), takeRoute, answer); error != 0) {
    ServerRoute route = unknown(error, "ask the kernel for the way");
    route.kind = kindOfRefusal(error);
    return route;
  }
  if (answer.route.kind == Kind::unknown) answer.route.reason = "the kernel knows no way of a usual kind";
  if (answer.interface == 0) return answer.route;
  if (const int error = ask(socket.get(), linkQuestion(answer.interface).get(), takeLink, answer); error != 0)
    answer.route.reason = vpnctl::errnoError(error, "ask the kernel for the interface").message;
  return answer.route;
}

}  // namespace companions
