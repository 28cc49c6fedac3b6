#include "helper/ike/ESPStates.h"

#include <linux/udp.h>
#include <linux/xfrm.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

namespace helper {

using isakmp::CipherAlgorithm;
using isakmp::HashAlgorithm;
using vpnctl::Status;

namespace {

// As many packets may overtake each other.
constexpr std::uint8_t kReplayWindow = 32;
// What IKE daemons take by default, too.
constexpr std::uint32_t kFirstSPI = 0xc0000000;
constexpr std::uint32_t kLastSPI = 0xcfffffff;

std::string_view kernelName(CipherAlgorithm cipher) {
  return cipher == CipherAlgorithm::tripleDES ? "cbc(des3_ede)" : "cbc(aes)";
}

std::string_view kernelName(HashAlgorithm integrity) {
  switch (integrity) {
    case HashAlgorithm::md5:
      return "hmac(md5)";
    case HashAlgorithm::sha1:
      return "hmac(sha1)";
    case HashAlgorithm::sha256:
      return "hmac(sha256)";
    case HashAlgorithm::sha384:
      return "hmac(sha384)";
    case HashAlgorithm::sha512:
      return "hmac(sha512)";
  }
  return {};
}

vpnctl::Error netlinkError(int code, const char *context) {
  return {"Netlink", -code, std::string(context) + ": " + nl_geterror(code)};
}

// One order to the kernel. Keys lie in memory that is wiped with everything that is freed.
class Order {
 public:
  template <class Body>
  Order(int type, const Body &body) : message_(nlmsg_alloc_simple(type, NLM_F_REQUEST)) {
    Body copy = body;
    nlmsg_append(message_, &copy, sizeof copy, NLMSG_ALIGNTO);
  }
  Order(Order &&other) noexcept : message_(std::exchange(other.message_, nullptr)) {}
  Order(const Order &) = delete;
  Order &operator=(const Order &) = delete;
  ~Order() { nlmsg_free(message_); }

  template <class Attribute>
  void put(int type, const Attribute &attribute) {
    nla_put(message_, type, sizeof attribute, &attribute);
  }
  // An algorithm's fixed part with its key behind it.
  template <class Algorithm>
  void put(int type, Algorithm algorithm, std::string_view name, const vpnctl::Secret &key) {
    std::memcpy(algorithm.alg_name, name.data(), std::min(name.size(), sizeof algorithm.alg_name - 1));
    algorithm.alg_key_len = static_cast<unsigned>(key.size() * 8);
    vpnctl::Secret whole = vpnctl::Secret::ofSize(sizeof algorithm + key.size());
    std::memcpy(whole.mutableBytes().data(), &algorithm, sizeof algorithm);
    std::ranges::copy(key.bytes(), whole.mutableBytes().begin() + sizeof algorithm);
    nla_put(message_, type, static_cast<int>(whole.size()), whole.bytes().data());
  }
  int send(nl_sock *socket) {
    const int code = nl_send_auto(socket, message_);
    return code < 0 ? code : nl_wait_for_ack(socket);
  }
  // As send(), for an order that is answered with a state.
  int sendFor(nl_sock *socket, xfrm_usersa_info &answer) {
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, takeState, &answer);
    int code = nl_send_auto(socket, message_);
    if (code >= 0) code = nl_recvmsgs_default(socket);
    if (code >= 0) code = nl_wait_for_ack(socket);
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_DEFAULT, nullptr, nullptr);
    return code;
  }

 private:
  static int takeState(nl_msg *message, void *answer) {
    nlmsghdr *header = nlmsg_hdr(message);
    if (nlmsg_datalen(header) >= static_cast<int>(sizeof(xfrm_usersa_info)))
      std::memcpy(answer, nlmsg_data(header), sizeof(xfrm_usersa_info));
    return NL_OK;
  }

  nl_msg *message_;
};

// What is the same of a state that is and one that is to come. Its selector stays empty: the guard selects.
xfrm_usersa_info stateBetween(in_addr source, in_addr destination, std::uint32_t reqid) {
  xfrm_usersa_info info{};
  info.family = AF_INET;
  info.saddr.a4 = source.s_addr;
  info.id.daddr.a4 = destination.s_addr;
  info.id.proto = IPPROTO_ESP;
  info.mode = XFRM_MODE_TRANSPORT;
  info.reqid = reqid;
  info.lft.soft_byte_limit = info.lft.hard_byte_limit = XFRM_INF;
  info.lft.soft_packet_limit = info.lft.hard_packet_limit = XFRM_INF;
  return info;
}

// About one that is.
Order orderAbout(int type, in_addr source, in_addr destination, std::uint32_t spi) {
  xfrm_usersa_id id{};
  id.daddr.a4 = destination.s_addr;
  id.spi = htonl(spi);
  id.family = AF_INET;
  id.proto = IPPROTO_ESP;
  Order order(type, id);
  order.put(XFRMA_SRCADDR, xfrm_address_t{.a4 = source.s_addr});
  return order;
}

}  // namespace

vpnctl::Result<std::unique_ptr<NetlinkESPStates>> NetlinkESPStates::open(std::uint32_t reqid) {
  std::unique_ptr<NetlinkESPStates> states(new NetlinkESPStates(nl_socket_alloc(), reqid));
  if (const int code = nl_connect(states->socket_, NETLINK_XFRM); code < 0)
    return netlinkError(code, "talk to the kernel about IPSec");
  return states;
}

NetlinkESPStates::~NetlinkESPStates() { nl_socket_free(socket_); }

vpnctl::Result<std::uint32_t> NetlinkESPStates::allocate(in_addr source, in_addr destination) {
  xfrm_userspi_info wanted{};
  wanted.info = stateBetween(source, destination, reqid_);
  wanted.min = kFirstSPI;
  wanted.max = kLastSPI;
  xfrm_usersa_info answer{};
  if (const int code = Order(XFRM_MSG_ALLOCSPI, wanted).sendFor(socket_, answer); code < 0)
    return netlinkError(code, "take an SPI");
  return ntohl(answer.id.spi);
}

Status NetlinkESPStates::install(const ESPState &state, bool inbound) {
  int code = give(state, inbound ? XFRM_MSG_UPDSA : XFRM_MSG_NEWSA);
  // Of a slow server's association the kernel has forgotten the SPI meanwhile.
  if (inbound && code == -NLE_OBJ_NOTFOUND) code = give(state, XFRM_MSG_NEWSA);
  if (code < 0) return netlinkError(code, "give the kernel the keys of IPSec");
  return {};
}

int NetlinkESPStates::give(const ESPState &state, int type) {
  xfrm_usersa_info info = stateBetween(state.source, state.destination, reqid_);
  info.id.spi = htonl(state.spi);
  info.replay_window = kReplayWindow;
  info.lft.hard_add_expires_seconds = static_cast<std::uint64_t>(state.lifetime.count());
  Order order(type, info);
  order.put(XFRMA_ALG_CRYPT, xfrm_algo{}, kernelName(state.algorithms.cipher), state.cipherKey);
  // With the length: of SHA-256 the kernel would take 96 bits, as an old draft had it.
  xfrm_algo_auth integrity{};
  integrity.alg_trunc_len = static_cast<unsigned>(isakmp::checkSize(state.algorithms.integrity));
  order.put(XFRMA_ALG_AUTH_TRUNC, integrity, kernelName(state.algorithms.integrity), state.integrityKey);
  if (state.encapsulation) {
    xfrm_encap_tmpl encapsulation{};
    encapsulation.encap_type = UDP_ENCAP_ESPINUDP;
    encapsulation.encap_sport = htons(state.encapsulation->source);
    encapsulation.encap_dport = htons(state.encapsulation->destination);
    order.put(XFRMA_ENCAP, encapsulation);
  }
  return order.send(socket_);
}

Status NetlinkESPStates::remove(in_addr source, in_addr destination, std::uint32_t spi) {
  Order order = orderAbout(XFRM_MSG_DELSA, source, destination, spi);
  const int code = order.send(socket_);
  if (code < 0 && code != -NLE_OBJ_NOTFOUND) return netlinkError(code, "take the keys of IPSec from the kernel");
  return {};
}

bool NetlinkESPStates::has(in_addr source, in_addr destination, std::uint32_t spi) {
  xfrm_usersa_info unused{};
  return orderAbout(XFRM_MSG_GETSA, source, destination, spi).sendFor(socket_, unused) != -NLE_OBJ_NOTFOUND;
}

}  // namespace helper
