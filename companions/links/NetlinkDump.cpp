#include "companions/links/NetlinkDump.h"

#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <memory>

namespace companions {

using vpnctl::errnoError;
using vpnctl::Status;

namespace {

// The kernel fills what it is given up to 32 KiB.
constexpr std::size_t kLargestDatagram = std::size_t{64} << 10;
constexpr int kTries = 5;
constexpr timeval kPatience{2, 0};

struct Release {
  void operator()(nl_sock *socket) const { nl_socket_free(socket); }
  void operator()(nl_cb *callbacks) const { nl_cb_put(callbacks); }
};
using Socket = std::unique_ptr<nl_sock, Release>;
using Callbacks = std::unique_ptr<nl_cb, Release>;

struct Answer {
  const std::function<void(const NetlinkMessage &)> &take;
  int refusal = 0;  // an errno, from the kernel
  bool isWhole = false;
};

// Nothing may leave these three through libnl, which would keep the answer.
int takeMessage(nl_msg *message, void *context) noexcept {
  const nlmsghdr *header = nlmsg_hdr(message);
  const auto *body = static_cast<const std::uint8_t *>(nlmsg_data(header));
  static_cast<Answer *>(context)->take({header->nlmsg_type, {body, static_cast<std::size_t>(nlmsg_datalen(header))}});
  return NL_OK;
}

// The end of a list tells what kept the kernel from going on.
int takeEnd(nl_msg *message, void *context) noexcept {
  const nlmsghdr *header = nlmsg_hdr(message);
  int code = 0;
  if (nlmsg_datalen(header) >= static_cast<int>(sizeof code)) std::memcpy(&code, nlmsg_data(header), sizeof code);
  auto &answer = *static_cast<Answer *>(context);
  answer.isWhole = true;
  if (code < 0) answer.refusal = -code;
  return NL_STOP;
}

int takeRefusal(sockaddr_nl *, nlmsgerr *refusal, void *context) noexcept {
  static_cast<Answer *>(context)->refusal = -refusal->error;
  return NL_STOP;
}

}  // namespace

int errnoOf(int libnlCode) {
  switch (-libnlCode) {
    case NLE_DUMP_INTR:
      return EINTR;
    case NLE_AGAIN:
      return ETIMEDOUT;
    case NLE_NOMEM:
      return ENOMEM;
    case NLE_MSG_TRUNC:
      return EMSGSIZE;
    case NLE_PROTO_MISMATCH:
      return EPROTONOSUPPORT;
    case NLE_AF_NOSUPPORT:
      return EAFNOSUPPORT;
    case NLE_PERM:
      return EPERM;
    case NLE_NOACCESS:
      return EACCES;
    default:
      return EIO;
  }
}

std::span<const std::uint8_t> NetlinkMessage::attribute(std::size_t headerSize, int wanted) const {
  const std::size_t begin = NLMSG_ALIGN(headerSize);
  if (body.size() < begin) return {};
  const auto rest = body.subspan(begin);
  const nlattr *found = nla_find(reinterpret_cast<const nlattr *>(rest.data()), static_cast<int>(rest.size()), wanted);
  if (found == nullptr) return {};
  return {static_cast<const std::uint8_t *>(nla_data(found)), static_cast<std::size_t>(nla_len(found))};
}

int NetlinkDump::ask(const std::function<void(const NetlinkMessage &)> &take) const {
  // libnl's usual callbacks print what comes, keys too, when the environment says so.
  const Callbacks callbacks(nl_cb_alloc(NL_CB_DEFAULT));
  const Socket owned(callbacks ? nl_socket_alloc_cb(callbacks.get()) : nullptr);
  nl_sock *socket = owned.get();
  if (socket == nullptr) return ENOMEM;
  Answer answer{take};
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, takeMessage, &answer);
  nl_socket_modify_cb(socket, NL_CB_FINISH, NL_CB_CUSTOM, takeEnd, &answer);
  nl_socket_modify_err_cb(socket, NL_CB_CUSTOM, takeRefusal, &answer);
  nl_socket_set_msg_buf_size(socket, kLargestDatagram);
  int code = nl_connect(socket, family_);
  if (code < 0) return errnoOf(code);
  ::setsockopt(nl_socket_get_fd(socket), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  // Then the kernel leaves out what the question's fixed part does not ask for; older ones do not know that.
  const int strict = 1;
  ::setsockopt(nl_socket_get_fd(socket), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &strict, sizeof strict);
  std::vector<std::uint8_t> header = header_;
  code = nl_send_simple(socket, type_, NLM_F_DUMP, header.data(), header.size());
  if (code >= 0) code = nl_recvmsgs_default(socket);
  if (answer.refusal != 0) return answer.refusal;
  if (code < 0) return errnoOf(code);
  return answer.isWhole ? 0 : EIO;
}

Status NetlinkDump::run(const std::function<void()> &begin, const std::function<void(const NetlinkMessage &)> &take,
                        const char *what) const {
  int code = EINTR;
  for (int attempt = 0; attempt < kTries && code == EINTR; ++attempt) {
    begin();
    code = ask(take);
  }
  if (code != 0) return errnoError(code, what);
  return {};
}

}  // namespace companions
