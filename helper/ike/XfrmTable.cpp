#include "helper/ike/XfrmTable.h"

#include <arpa/inet.h>
#include <linux/xfrm.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include <algorithm>
#include <array>
#include <functional>
#include <utility>
#include <vector>

namespace helper {

using foundation::Status;

namespace {

struct Release {
  void operator()(nl_msg *message) const { nlmsg_free(message); }
};
using Message = std::unique_ptr<nl_msg, Release>;

foundation::Error netlinkError(int code, const std::string &context) {
  return {"Netlink", -code, context + ": " + nl_geterror(code)};
}

// A request of TYPE with BODY as its fixed part.
template <class Body>
Message request(int type, const Body &body, int flags = 0) {
  Message message(nlmsg_alloc_simple(type, NLM_F_REQUEST | flags));
  nlmsg_append(message.get(), const_cast<Body *>(&body), sizeof body, NLMSG_ALIGNTO);
  return message;
}

int perform(nl_sock *socket, Message message) { return nl_send_sync(socket, message.release()); }

// Everything that a dump of TYPE gives.
using Taker = std::function<void(nlmsghdr *)>;

int take(nl_msg *message, void *context) {
  (*static_cast<Taker *>(context))(nlmsg_hdr(message));
  return NL_OK;
}

int dump(nl_sock *socket, int type, Taker taker) {
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, take, &taker);
  Message message(nlmsg_alloc_simple(type, NLM_F_REQUEST | NLM_F_DUMP));
  int code = nl_send_auto(socket, message.get());
  if (code >= 0) code = nl_recvmsgs_default(socket);
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
  return code;
}

std::vector<xfrm_usersa_info> statesThat(nl_sock *socket, int &code,
                                         const std::function<bool(const xfrm_usersa_info &, nlmsghdr *)> &are) {
  std::vector<xfrm_usersa_info> states;
  code = dump(socket, XFRM_MSG_GETSA, [&](nlmsghdr *header) {
    if (nlmsg_datalen(header) < static_cast<int>(sizeof(xfrm_usersa_info))) return;
    const auto *state = static_cast<const xfrm_usersa_info *>(nlmsg_data(header));
    if (are(*state, header)) states.push_back(*state);
  });
  return states;
}

std::vector<xfrm_usersa_info> statesOf(nl_sock *socket, std::uint32_t reqid, int &code) {
  return statesThat(
      socket, code, [reqid](const xfrm_usersa_info &state, nlmsghdr *) { return state.reqid == reqid; });
}

// An SPI that a daemon has taken for an association to come: nothing but its two ends says whose it is.
bool isTakenSPI(const xfrm_usersa_info &state, nlmsghdr *header) {
  const auto has = [header](int attribute) {
    return nlmsg_find_attr(header, sizeof(xfrm_usersa_info), attribute) != nullptr;
  };
  return state.reqid == 0 && state.id.spi != 0 && state.id.proto == IPPROTO_ESP && !has(XFRMA_ALG_CRYPT) &&
         !has(XFRMA_ALG_AEAD) && !has(XFRMA_ALG_AUTH) && !has(XFRMA_ALG_AUTH_TRUNC);
}

bool haveSameEnds(const xfrm_usersa_info &one, const xfrm_usersa_info &other) {
  return one.family == AF_INET && other.family == AF_INET && one.saddr.a4 == other.saddr.a4 &&
         one.id.daddr.a4 == other.id.daddr.a4;
}

std::vector<xfrm_userpolicy_info> policiesOf(nl_sock *socket, std::uint32_t reqid, int &code) {
  std::vector<xfrm_userpolicy_info> policies;
  code = dump(socket, XFRM_MSG_GETPOLICY, [&](nlmsghdr *header) {
    if (nlmsg_datalen(header) < static_cast<int>(sizeof(xfrm_userpolicy_info))) return;
    const auto *policy = static_cast<const xfrm_userpolicy_info *>(nlmsg_data(header));
    // A policy of a socket belongs to the socket and goes with it.
    if (policy->dir > XFRM_POLICY_FWD) return;
    const nlattr *ways = nlmsg_find_attr(header, sizeof(xfrm_userpolicy_info), XFRMA_TMPL);
    if (ways == nullptr || nla_len(ways) < static_cast<int>(sizeof(xfrm_user_tmpl))) return;
    if (static_cast<const xfrm_user_tmpl *>(nla_data(ways))->reqid == reqid) policies.push_back(*policy);
  });
  return policies;
}

bool is(const xfrm_address_t &address, in_addr wanted) { return address.a4 == wanted.s_addr; }

// One end of a policy's selector: exactly this address and port.
bool selects(const xfrm_address_t &address, std::uint8_t prefix, std::uint16_t port, std::uint16_t mask, in_addr wanted,
             std::uint16_t wantedPort) {
  return is(address, wanted) && prefix == 32 && port == htons(wantedPort) && mask == 0xffff;
}

bool isFor(const xfrm_userpolicy_info &policy, const UDPFlow &flow) {
  const xfrm_selector &selector = policy.sel;
  const bool out = policy.dir == XFRM_POLICY_OUT;
  const in_addr from = out ? flow.local : flow.remote;
  const in_addr to = out ? flow.remote : flow.local;
  return selector.family == AF_INET && selector.proto == IPPROTO_UDP &&
         selects(selector.saddr, selector.prefixlen_s, selector.sport, selector.sport_mask, from,
                 out ? flow.localPort : flow.remotePort) &&
         selects(selector.daddr, selector.prefixlen_d, selector.dport, selector.dport_mask, to,
                 out ? flow.remotePort : flow.localPort);
}

xfrm_usersa_id idOf(const xfrm_usersa_info &state) {
  xfrm_usersa_id id{};
  id.daddr = state.id.daddr;
  id.spi = state.id.spi;
  id.family = state.family;
  id.proto = state.id.proto;
  return id;
}

// A state that waits for its association has no SPI, and without one it cannot be named: it gets one first.
int nameState(nl_sock *socket, const xfrm_usersa_info &state) {
  xfrm_userspi_info wanted{};
  wanted.info = state;
  wanted.min = 0x100;
  wanted.max = 0x0fffffff;
  Message message = request(XFRM_MSG_ALLOCSPI, wanted);
  // It answers with the state, and acknowledges it.
  int code = nl_send_auto(socket, message.get());
  if (code >= 0) code = nl_recvmsgs_default(socket);
  if (code >= 0) code = nl_wait_for_ack(socket);
  return code;
}

}  // namespace

const int NetlinkXfrmTable::kNoIPSec = NLE_PROTO_MISMATCH;

foundation::Result<std::unique_ptr<NetlinkXfrmTable>> NetlinkXfrmTable::open() {
  std::unique_ptr<NetlinkXfrmTable> table(new NetlinkXfrmTable(nl_socket_alloc()));
  if (const int code = nl_connect(table->socket_, NETLINK_XFRM); code < 0)
    return netlinkError(code, "talk to the kernel about IPSec");
  return table;
}

NetlinkXfrmTable::~NetlinkXfrmTable() { nl_socket_free(socket_); }

Status NetlinkXfrmTable::protects(const UDPFlow &flow, std::uint32_t reqid) {
  int code = 0;
  const auto policies = policiesOf(socket_, reqid, code);
  if (code < 0) return netlinkError(code, "read the IPSec policies");
  const auto states = statesOf(socket_, reqid, code);
  if (code < 0) return netlinkError(code, "read the IPSec states");
  if (!std::all_of(policies.begin(), policies.end(), [&](const auto &policy) { return isFor(policy, flow); }))
    return foundation::Error{"IPSec", 0, "it is for other addresses or ports than those of the connection"};
  for (const int direction : {XFRM_POLICY_OUT, XFRM_POLICY_IN})
    if (std::none_of(policies.begin(), policies.end(), [&](const auto &policy) { return policy.dir == direction; }))
      return foundation::Error{"IPSec", 0, "it protects one direction only"};
  const auto leadsTo = [&](in_addr address) {
    return std::any_of(states.begin(), states.end(), [&](const auto &state) {
      return state.id.proto == IPPROTO_ESP && state.id.spi != 0 && is(state.id.daddr, address);
    });
  };
  if (!leadsTo(flow.remote) || !leadsTo(flow.local))
    return foundation::Error{"IPSec", 0, "it has no keys in the kernel for one direction"};
  return {};
}

Status NetlinkXfrmTable::remove(std::uint32_t reqid) {
  int failure = 0;
  int code = 0;
  for (const auto &policy : policiesOf(socket_, reqid, code)) {
    xfrm_userpolicy_id id{};
    id.sel = policy.sel;
    id.index = policy.index;
    id.dir = policy.dir;
    const int removed = perform(socket_, request(XFRM_MSG_DELPOLICY, id));
    if (removed < 0 && removed != -NLE_OBJ_NOTFOUND) failure = removed;
  }
  if (code < 0) failure = code;
  auto states = statesOf(socket_, reqid, code);
  if (code < 0) failure = code;
  const bool waiting = std::any_of(states.begin(), states.end(), [](const auto &state) { return state.id.spi == 0; });
  for (const auto &state : states)
    if (state.id.spi == 0) static_cast<void>(nameState(socket_, state));
  // A daemon that takes back its own leaves no states: what stands here is a dead one's, with what it had begun.
  const auto begun = statesThat(socket_, code, [&](const xfrm_usersa_info &state, nlmsghdr *header) {
    return isTakenSPI(state, header) &&
           std::any_of(states.begin(), states.end(), [&](const auto &own) { return haveSameEnds(own, state); });
  });
  if (code < 0) failure = code;
  if (waiting) states = statesOf(socket_, reqid, code);
  states.insert(states.end(), begun.begin(), begun.end());
  for (const auto &state : states) {
    const int removed = perform(socket_, request(XFRM_MSG_DELSA, idOf(state)));
    if (removed < 0 && removed != -NLE_OBJ_NOTFOUND) failure = removed;
  }
  if (failure < 0) return netlinkError(failure, "remove what IPSec left in the kernel");
  return {};
}

bool NetlinkXfrmTable::knowsESP() {
  // Between addresses that are nobody's, without keys, for no longer than this function.
  struct Algorithm {
    std::array<char, 64> name;
    unsigned bits;
  };
  xfrm_usersa_info state{};
  state.family = AF_INET;
  state.id.proto = IPPROTO_ESP;
  state.id.spi = htonl(0x0ec0ffee);
  state.id.daddr.a4 = htonl(0xc0000201);  // 192.0.2.1 and 192.0.2.2: RFC 5737
  state.saddr.a4 = htonl(0xc0000202);
  state.mode = XFRM_MODE_TRANSPORT;
  state.lft.soft_byte_limit = state.lft.hard_byte_limit = XFRM_INF;
  state.lft.soft_packet_limit = state.lft.hard_packet_limit = XFRM_INF;
  Message message = request(XFRM_MSG_NEWSA, state);
  const Algorithm none{{"ecb(cipher_null)"}, 0};
  const Algorithm digest{{"digest_null"}, 0};
  nla_put(message.get(), XFRMA_ALG_CRYPT, sizeof none, &none);
  nla_put(message.get(), XFRMA_ALG_AUTH, sizeof digest, &digest);
  if (perform(socket_, std::move(message)) < 0) return false;
  static_cast<void>(perform(socket_, request(XFRM_MSG_DELSA, idOf(state))));
  return true;
}

}  // namespace helper
