#include "helper/ike/XfrmTable.h"

#include <linux/xfrm.h>
#include <netinet/in.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include <algorithm>
#include <array>
#include <functional>
#include <utility>
#include <vector>

namespace helper {

using vpnctl::Status;

namespace {

struct Release {
  void operator()(nl_msg *message) const { nlmsg_free(message); }
};
using Message = std::unique_ptr<nl_msg, Release>;

vpnctl::Error netlinkError(int code, const std::string &context) {
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

template <class Condition>
std::vector<xfrm_usersa_info> statesThat(nl_sock *socket, int &code, Condition isMeant) {
  std::vector<xfrm_usersa_info> states;
  code = dump(socket, XFRM_MSG_GETSA, [&](nlmsghdr *header) {
    if (nlmsg_datalen(header) < static_cast<int>(sizeof(xfrm_usersa_info))) return;
    const auto *state = static_cast<const xfrm_usersa_info *>(nlmsg_data(header));
    if (isMeant(*state)) states.push_back(*state);
  });
  return states;
}

std::vector<xfrm_usersa_info> statesOf(nl_sock *socket, std::uint32_t reqid, int &code) {
  return statesThat(
      socket, code, [&](const xfrm_usersa_info &state) { return state.reqid == reqid; });
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

vpnctl::Result<std::unique_ptr<NetlinkXfrmTable>> NetlinkXfrmTable::open() {
  std::unique_ptr<NetlinkXfrmTable> table(new NetlinkXfrmTable(nl_socket_alloc()));
  if (const int code = nl_connect(table->socket_, NETLINK_XFRM); code < 0)
    return netlinkError(code, "talk to the kernel about IPSec");
  return table;
}

NetlinkXfrmTable::~NetlinkXfrmTable() { nl_socket_free(socket_); }

Status NetlinkXfrmTable::remove(std::uint32_t reqid) {
  int failure = 0;
  int code = 0;
  auto states = statesOf(socket_, reqid, code);
  if (code < 0) failure = code;
  const bool waiting = std::any_of(states.begin(), states.end(), [](const auto &state) { return state.id.spi == 0; });
  for (const auto &state : states)
    if (state.id.spi == 0) static_cast<void>(nameState(socket_, state));
  if (waiting) states = statesOf(socket_, reqid, code);
  if (code < 0) failure = code;
  for (const auto &state : states) {
    const int removed = perform(socket_, request(XFRM_MSG_DELSA, idOf(state)));
    if (removed < 0 && removed != -NLE_OBJ_NOTFOUND) failure = removed;
  }
  if (failure < 0) return netlinkError(failure, "remove what IPSec left in the kernel");
  return {};
}

bool NetlinkXfrmTable::hasOthers(in_addr local, in_addr remote, std::uint32_t reqid) {
  int code = 0;
  const auto others = statesThat(socket_, code, [&](const xfrm_usersa_info &state) {
    if (state.family != AF_INET || state.reqid == reqid) return false;
    const bool goesOut = state.saddr.a4 == local.s_addr && state.id.daddr.a4 == remote.s_addr;
    return goesOut || (state.saddr.a4 == remote.s_addr && state.id.daddr.a4 == local.s_addr);
  });
  return !others.empty();
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

Status removeIPSecStates(std::uint32_t reqid) {
  const auto table = NetlinkXfrmTable::open();
  if (table) return (*table)->remove(reqid);
  return table.error().code == NetlinkXfrmTable::kNoIPSec ? Status() : table.error();
}

}  // namespace helper
