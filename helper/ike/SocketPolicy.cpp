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

}  // namespace

foundation::Status guardSocket(int socket, std::uint32_t reqid) {
  Policy policy;
  // The selector is as wide as it can be: the socket itself is what is selected.
  policy.info.sel.family = AF_INET;
  policy.info.lft.soft_byte_limit = kNever;
  policy.info.lft.hard_byte_limit = kNever;
  policy.info.lft.soft_packet_limit = kNever;
  policy.info.lft.hard_packet_limit = kNever;
  policy.info.action = XFRM_POLICY_ALLOW;
  policy.info.share = XFRM_SHARE_ANY;
  policy.ways.family = AF_INET;
  policy.ways.id.proto = IPPROTO_ESP;
  policy.ways.reqid = reqid;
  policy.ways.mode = XFRM_MODE_TRANSPORT;
  policy.ways.share = XFRM_SHARE_ANY;
  // Which algorithms is the association's affair.
  policy.ways.aalgos = std::numeric_limits<std::uint32_t>::max();
  policy.ways.ealgos = std::numeric_limits<std::uint32_t>::max();
  policy.ways.calgos = std::numeric_limits<std::uint32_t>::max();
  for (const std::uint8_t direction : {XFRM_POLICY_OUT, XFRM_POLICY_IN}) {
    policy.info.dir = direction;
    if (::setsockopt(socket, IPPROTO_IP, IP_XFRM_POLICY, &policy, sizeof policy) < 0)
      return foundation::errnoError(errno, "guard the socket");
  }
  return {};
}

}  // namespace helper
