#include "helper/network/NetworkWatch.h"

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "foundation/FileDescriptor.h"
#include "helper/network/Routing.h"

namespace helper {

namespace {

// Some who configure a network take an address away and put it back at once.
constexpr std::chrono::milliseconds kAddressGrace{300};

vpnctl::FileDescriptor datagramSocket() {
  return vpnctl::FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

// 0.0.0.0 when there is no way.
in_addr sourceTo(in_addr server) {
  const vpnctl::FileDescriptor socket = datagramSocket();
  sockaddr_in end{};
  end.sin_family = AF_INET;
  end.sin_addr = server;
  end.sin_port = htons(9);  // nothing is sent
  socklen_t size = sizeof end;
  auto *const address = reinterpret_cast<sockaddr *>(&end);
  if (::connect(socket.get(), address, size) < 0 || ::getsockname(socket.get(), address, &size) < 0) return {};
  return end.sin_addr;
}

bool isOurs(in_addr address) {
  const vpnctl::FileDescriptor socket = datagramSocket();
  sockaddr_in end{};
  end.sin_family = AF_INET;
  end.sin_addr = address;
  return ::bind(socket.get(), reinterpret_cast<sockaddr *>(&end), sizeof end) == 0 || errno != EADDRNOTAVAIL;
}

bool isRuleOfALink(nlmsghdr *message) {
  const nlattr *maker = nlmsg_find_attr(message, sizeof(fib_rule_hdr), FRA_PROTOCOL);
  return maker != nullptr && nla_get_u8(maker) == Routing::kMaker;
}

bool isRouteOfALink(nlmsghdr *message) {
  return static_cast<const rtmsg *>(nlmsg_data(message))->rtm_protocol == Routing::kMaker;
}

}  // namespace

NetworkWatch::NetworkWatch(sd_event *event, Handlers handlers)
    : event_(event), handlers_(std::move(handlers)), socket_(nl_socket_alloc()) {}

NetworkWatch::~NetworkWatch() {
  io_.reset();
  nl_socket_free(socket_);
}

vpnctl::Result<std::unique_ptr<NetworkWatch>> NetworkWatch::start(sd_event *event, in_addr server, Handlers handlers) {
  std::unique_ptr<NetworkWatch> watch(new NetworkWatch(event, std::move(handlers)));
  nl_sock *socket = watch->socket_;
  nl_socket_disable_seq_check(socket);
  int code = nl_connect(socket, NETLINK_ROUTE);
  if (code >= 0)
    code = nl_socket_add_memberships(socket, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE,
                                     RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE, 0);
  if (code >= 0) code = nl_socket_set_nonblocking(socket);
  if (code < 0) return vpnctl::Error{"Netlink", -code, std::string("listen to the kernel: ") + nl_geterror(code)};
  const auto take = [](nl_msg *message, void *context) -> int {
    News &news = *static_cast<News *>(context);
    nlmsghdr *header = nlmsg_hdr(message);
    news.address |= header->nlmsg_type == RTM_DELADDR;
    news.routing |= (header->nlmsg_type == RTM_DELRULE && isRuleOfALink(header)) ||
                    (header->nlmsg_type == RTM_DELROUTE && isRouteOfALink(header));
    return NL_OK;
  };
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, take, &watch->news_);
  watch->address_ = sourceTo(server);
  watch->io_ = linux::EventSource::io(event, nl_socket_get_fd(socket), EPOLLIN,
                                      [raw = watch.get()](std::uint32_t) { raw->read(); });
  return watch;
}

void NetworkWatch::read() {
  news_ = {};
  int code = 0;
  while (code >= 0) code = nl_recvmsgs_default(socket_);
  // More has happened than the kernel keeps for us.
  if (code == -NLE_NOMEM) news_ = {.address = true, .routing = true};
  // Asked only then: the kernel says it before it has done it.
  if (news_.address && address_.s_addr != 0 && !check_)
    check_ = linux::EventSource::timer(event_, kAddressGrace, [this] { checkAddress(); });
  if (news_.routing) {
    const auto handler = handlers_.routingChanged;
    handler();
  }
}

void NetworkWatch::checkAddress() {
  check_.reset();
  if (isOurs(address_)) return;
  const auto handler = handlers_.addressGone;
  handler(std::exchange(address_, {}));
}

}  // namespace helper
