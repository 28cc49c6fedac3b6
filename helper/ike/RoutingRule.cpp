#include "helper/ike/RoutingRule.h"

#include <linux/fib_rules.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>

namespace helper {

namespace {

constexpr std::uint32_t kNumber = 220;  // both of the table and of the priority, unless somebody configured another

struct Release {
  void operator()(nl_sock *socket) const { nl_socket_free(socket); }
  void operator()(nl_msg *message) const { nlmsg_free(message); }
};
using Socket = std::unique_ptr<nl_sock, Release>;
using Message = std::unique_ptr<nl_msg, Release>;

Socket connect() {
  Socket socket(nl_socket_alloc());
  if (nl_connect(socket.get(), NETLINK_ROUTE) < 0) socket.reset();
  return socket;
}

int take(nl_msg *message, void *context) {
  nlmsghdr *header = nlmsg_hdr(message);
  const nlattr *table = nlmsg_find_attr(header, sizeof(fib_rule_hdr), FRA_TABLE);
  const nlattr *priority = nlmsg_find_attr(header, sizeof(fib_rule_hdr), FRA_PRIORITY);
  if (table != nullptr && priority != nullptr && nla_get_u32(table) == kNumber && nla_get_u32(priority) == kNumber)
    *static_cast<bool *>(context) = true;
  return NL_OK;
}

}  // namespace

bool hasCharonRule() {
  const Socket socket = connect();
  if (!socket) return true;
  bool found = false;
  nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, take, &found);
  fib_rule_hdr every{};
  return nl_send_simple(socket.get(), RTM_GETRULE, NLM_F_DUMP, &every, sizeof every) < 0 ||
         nl_recvmsgs_default(socket.get()) < 0 || found;
}

void removeCharonRule() {
  const Socket socket = connect();
  if (!socket) return;
  for (const auto family : {std::uint8_t{AF_INET}, std::uint8_t{AF_INET6}}) {
    fib_rule_hdr rule{};
    rule.family = family;
    rule.action = FR_ACT_TO_TBL;
    rule.table = kNumber;
    Message message(nlmsg_alloc_simple(RTM_DELRULE, NLM_F_REQUEST));
    nlmsg_append(message.get(), &rule, sizeof rule, NLMSG_ALIGNTO);
    nla_put_u32(message.get(), FRA_PRIORITY, kNumber);
    nla_put_u32(message.get(), FRA_TABLE, kNumber);
    nl_send_sync(socket.get(), message.release());
  }
}

}  // namespace helper
