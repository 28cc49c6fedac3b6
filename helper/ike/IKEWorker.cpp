#include "helper/ike/IKEWorker.h"

#include <linux/udp.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace helper {

using isakmp::Instant;
using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::FileDescriptor;
using vpnctl::Result;

namespace {

constexpr timeval kStartPatience{20, 0};
constexpr std::size_t kLargestDatagram = 65536;
// A flood of datagrams must not keep the helper's words waiting.
constexpr int kMostPerTurn = 16;

Instant now() {
  timespec time{};
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return std::chrono::duration_cast<Instant>(std::chrono::seconds(time.tv_sec) +
                                             std::chrono::nanoseconds(time.tv_nsec));
}

struct Received {
  isakmp::Bytes record;
  FileDescriptor descriptor;
};

// One record, and the descriptor that came with it; an empty record is the end.
Result<Received> receiveRecord(int socket) {
  Received received;
  received.record.resize(kLargestIKERecord + 1);
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  iovec part{received.record.data(), received.record.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t size = -1;
  do size = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  while (size < 0 && errno == EINTR);
  if (size < 0) return errnoError(errno, "hear the helper");
  received.record.resize(static_cast<std::size_t>(size));
  const cmsghdr *rights = CMSG_FIRSTHDR(&message);
  if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS) {
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
    received.descriptor.reset(descriptor);
  }
  return received;
}

}  // namespace

void IKEWorker::SystemRandomness::fill(std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::getrandom(bytes.data(), bytes.size(), 0);
    if (count > 0) bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
}

Result<std::unique_ptr<IKEWorker>> IKEWorker::awaitStart(FileDescriptor helper) {
  if (::setsockopt(helper.get(), SOL_SOCKET, SO_RCVTIMEO, &kStartPatience, sizeof kStartPatience) < 0)
    return errnoError(errno, "wait for the helper");
  auto received = receiveRecord(helper.get());
  if (!received) return received.error();
  auto order = decodeIKEOrder(received->record);
  if (!order) return order.error();
  auto *start = std::get_if<IKEStart>(&*order);
  if (start == nullptr || !received->descriptor)
    return Error{"vpnctl-ike", 0, "the first order is not to start, with a socket"};
  return std::unique_ptr<IKEWorker>(
      new IKEWorker(std::move(helper), std::move(received->descriptor), std::move(*start)));
}

IKEWorker::IKEWorker(FileDescriptor helper, FileDescriptor server, IKEStart start)
    : helper_(std::move(helper)),
      server_(std::move(server)),
      initiator_(start.plan, std::move(start.presharedKey), randomness_) {
  std::memcpy(&address_, start.plan.remote.data(), sizeof address_);
}

void IKEWorker::run() {
  perform(initiator_.start(now()));
  while (!ended_) {
    std::array<pollfd, 2> waits{{{helper_.get(), POLLIN, 0}, {server_.get(), POLLIN, 0}}};
    std::optional<timespec> patience;
    if (const auto due = initiator_.nextDue()) {
      const auto left = std::max(*due - now(), Instant(0));
      patience = timespec{left.count() / 1000, (left.count() % 1000) * 1000000};
    }
    const int ready = ::ppoll(waits.data(), waits.size(), patience ? &*patience : nullptr, nullptr);
    if (ready < 0 && errno != EINTR) return;
    if (ready > 0 && waits[0].revents != 0) hearHelper();
    if (ready > 0 && waits[1].revents != 0) hearServer();
    if (const auto due = initiator_.nextDue(); !ended_ && due && *due <= now()) perform(initiator_.due(now()));
  }
}

void IKEWorker::hearHelper() {
  const auto received = receiveRecord(helper_.get());
  if (!received || received->record.empty()) {
    // Nobody is left who could take the associations back from the server later.
    perform(initiator_.stop(now()));
    ended_ = true;
    return;
  }
  const auto order = decodeIKEOrder(received->record);
  if (!order) {
    ended_ = true;
    return;
  }
  std::visit(
      [this](const auto &said) {
        using Order = std::decay_t<decltype(said)>;
        if constexpr (std::is_same_v<Order, IKEAllocated>) perform(initiator_.allocated(now(), said.pair, said.spi));
        if constexpr (std::is_same_v<Order, IKEInstalled>)
          perform(initiator_.installed(now(), said.pair, said.direction));
        if constexpr (std::is_same_v<Order, IKENotInstalled>) perform(initiator_.notInstalled(now(), said.pair));
        if constexpr (std::is_same_v<Order, IKEStop>) perform(initiator_.stop(now()));
      },
      *order);
}

void IKEWorker::hearServer() {
  static std::array<std::uint8_t, kLargestDatagram> bytes;
  for (int i = 0; i < kMostPerTurn && !ended_; ++i) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t count =
        ::recvfrom(server_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &size);
    // That an earlier datagram was refused is for the resending to find out.
    if (count < 0 && errno == ECONNREFUSED) continue;
    if (count < 0) return;
    const auto port = static_cast<isakmp::ServerPort>(ntohs(from.sin_port));
    const bool isServers = from.sin_addr.s_addr == address_.s_addr &&
                           (port == isakmp::ServerPort::ike || port == isakmp::ServerPort::natTraversal);
    if (isServers) perform(initiator_.received(now(), port, std::span(bytes).first(static_cast<std::size_t>(count))));
  }
}

void IKEWorker::perform(const isakmp::Outputs &outputs) {
  for (const isakmp::Output &output : outputs)
    std::visit(
        [this](const auto &wanted) {
          using Wanted = std::decay_t<decltype(wanted)>;
          if constexpr (std::is_same_v<Wanted, isakmp::Dropped>) {
            // Strangers could say as much as they like.
          } else if constexpr (std::is_same_v<Wanted, isakmp::Send>) {
            send(wanted);
          } else if constexpr (std::is_same_v<Wanted, isakmp::Encapsulate>) {
            const int kind = UDP_ENCAP_ESPINUDP;
            static_cast<void>(::setsockopt(server_.get(), IPPROTO_UDP, UDP_ENCAP, &kind, sizeof kind));
          } else {
            report(IKEReport(wanted));
          }
        },
        output);
}

void IKEWorker::send(const isakmp::Send &datagram) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr = address_;
  to.sin_port = htons(static_cast<std::uint16_t>(datagram.port));
  // What does not even leave this machine is sent again like what gets lost on the way.
  static_cast<void>(::sendto(server_.get(), datagram.datagram.data(), datagram.datagram.size(), MSG_DONTWAIT,
                             reinterpret_cast<const sockaddr *>(&to), sizeof to));
}

void IKEWorker::report(const IKEReport &report) {
  const bool isLast = std::holds_alternative<isakmp::Refused>(report) || std::holds_alternative<isakmp::Lost>(report) ||
                      std::holds_alternative<isakmp::Stopped>(report);
  const auto record = encode(report);
  // Waits: the helper reads, or has ended, which ends this process, too.
  ssize_t sent = -1;
  do sent = ::sendto(helper_.get(), record.data(), record.size(), MSG_NOSIGNAL, nullptr, 0);
  while (sent < 0 && errno == EINTR);
  ended_ = ended_ || isLast || sent < 0;
}

}  // namespace helper
