#include "companions/links/NetlinkDump.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "foundation/FileDescriptor.h"
#include "foundation/Secret.h"

namespace companions {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Status;

namespace {

// The kernel fills what it is given up to 32 KiB.
constexpr std::size_t kLargestDatagram = std::size_t{64} << 10;
constexpr int kTries = 5;
constexpr timeval kPatience{2, 0};

constexpr std::size_t aligned(std::size_t size) { return (size + 3) & ~std::size_t{3}; }

FileDescriptor openSocket(int family) {
  FileDescriptor descriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, family));
  if (!descriptor) return descriptor;
  ::setsockopt(descriptor.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  // Then the kernel leaves out what the question's fixed part does not ask for; older ones do not know that.
  const int strict = 1;
  ::setsockopt(descriptor.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &strict, sizeof strict);
  return descriptor;
}

// -1 with errno, as recv(). What somebody else than the kernel sends is no answer.
ssize_t receive(int descriptor, std::span<std::uint8_t> buffer) {
  for (;;) {
    sockaddr_nl sender{};
    iovec part{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const ssize_t size = ::recvmsg(descriptor, &message, 0);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return -1;
    if ((message.msg_flags & MSG_TRUNC) != 0) {
      errno = EMSGSIZE;
      return -1;
    }
    if (sender.nl_pid == 0) return size;
  }
}

// What the kernel says at the end of a list, or instead of one: 0, or an errno.
int codeIn(const NetlinkMessage &message) {
  const auto code = message.header<int>();
  return code && *code < 0 ? -*code : 0;
}

}  // namespace

std::span<const std::uint8_t> NetlinkMessage::attribute(std::size_t headerSize, int wanted) const {
  if (body.size() < aligned(headerSize)) return {};
  std::span<const std::uint8_t> rest = body.subspan(aligned(headerSize));
  while (rest.size() >= sizeof(nlattr)) {
    nlattr attribute{};
    std::memcpy(&attribute, rest.data(), sizeof attribute);
    if (attribute.nla_len < sizeof attribute || attribute.nla_len > rest.size()) return {};
    if ((attribute.nla_type & NLA_TYPE_MASK) == wanted)
      return rest.subspan(sizeof attribute, attribute.nla_len - sizeof attribute);
    rest = rest.subspan(std::min(aligned(attribute.nla_len), rest.size()));
  }
  return {};
}

Status eachMessage(std::span<const std::uint8_t> datagram, const std::function<bool(const NetlinkMessage &)> &take) {
  while (!datagram.empty()) {
    nlmsghdr header{};
    if (datagram.size() >= sizeof header) std::memcpy(&header, datagram.data(), sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size())
      return errnoError(EBADMSG, "read the kernel's answer");
    if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) return errnoError(EINTR, "read the kernel's answer");
    if (!take({header.nlmsg_type, datagram.subspan(sizeof header, header.nlmsg_len - sizeof header)})) return {};
    datagram = datagram.subspan(std::min(aligned(header.nlmsg_len), datagram.size()));
  }
  return {};
}

int NetlinkDump::ask(const std::function<void(const NetlinkMessage &)> &take) const {
  const FileDescriptor descriptor = openSocket(family_);
  if (!descriptor) return errno;
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + header_.size());
  header.nlmsg_type = type_;
  header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  std::vector<std::uint8_t> question(header.nlmsg_len);
  std::memcpy(question.data(), &header, sizeof header);
  std::ranges::copy(header_, question.begin() + sizeof header);
  if (::send(descriptor.get(), question.data(), question.size(), 0) < 0) return errno;
  vpnctl::Secret buffer = vpnctl::Secret::ofSize(kLargestDatagram);
  for (;;) {
    const ssize_t size = receive(descriptor.get(), buffer.mutableBytes());
    if (size < 0) return errno == EAGAIN ? ETIMEDOUT : errno;
    std::optional<int> end;
    const auto takeOne = [&](const NetlinkMessage &message) {
      if (message.type == NLMSG_DONE || message.type == NLMSG_ERROR) {
        end = codeIn(message);
        return false;
      }
      take(message);
      return true;
    };
    if (const Status read = eachMessage(buffer.bytes().first(static_cast<std::size_t>(size)), takeOne); !read)
      return read.error().code;
    if (end) return *end;
  }
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
