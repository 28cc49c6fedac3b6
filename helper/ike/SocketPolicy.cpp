#include "helper/ike/SocketPolicy.h"

#include <linux/xfrm.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <limits>

namespace helper {

namespace {

// As the kernel wants them: the policy, and its only template behind it.
struct Policy {
  xfrm_userpolicy_info info{};
  xfrm_user_tmpl ways{};
};

constexpr auto kNever = std::numeric_limits<std::uint64_t>::max();

// The selector is as wide as it can be: the socket itself is what is selected.
xfrm_userpolicy_info everything() {
  xfrm_userpolicy_info info{};
  info.sel.family = AF_INET;
  info.lft.soft_byte_limit = kNever;
  info.lft.hard_byte_limit = kNever;
  info.lft.soft_packet_limit = kNever;
  info.lft.hard_packet_limit = kNever;
  info.action = XFRM_POLICY_ALLOW;
  info.share = XFRM_SHARE_ANY;
  return info;
}

// INFO is the first member of POLICY.
template <class Policy>
vpnctl::Status set(int socket, Policy &policy, xfrm_userpolicy_info &info, const char *context) {
  for (const std::uint8_t direction : {XFRM_POLICY_OUT, XFRM_POLICY_IN}) {
    info.dir = direction;
    if (::setsockopt(socket, IPPROTO_IP, IP_XFRM_POLICY, &policy, sizeof policy) < 0)
      return vpnctl::errnoError(errno, context);
  }
  return {};
}

}  // namespace

vpnctl::Status guardSocket(int socket, std::uint32_t reqid) {
  Policy policy;
  policy.info = everything();
  policy.ways.family = AF_INET;
  policy.ways.id.proto = IPPROTO_ESP;
  policy.ways.reqid = reqid;
  policy.ways.mode = XFRM_MODE_TRANSPORT;
  policy.ways.share = XFRM_SHARE_ANY;
  // Which algorithms is the association's affair.
  policy.ways.aalgos = std::numeric_limits<std::uint32_t>::max();
  policy.ways.ealgos = std::numeric_limits<std::uint32_t>::max();
  policy.ways.calgos = std::numeric_limits<std::uint32_t>::max();
  return set(socket, policy, policy.info, "guard the socket");
}

vpnctl::Status exemptSocket(int socket) {
  xfrm_userpolicy_info policy = everything();
  return set(socket, policy, policy, "exempt the socket from IPSec");
}

}  // namespace helper
