#include "helper/ike/IKEProcess.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Status;

namespace {

constexpr std::chrono::milliseconds kFarewell{500};

}  // namespace

vpnctl::Result<std::unique_ptr<IKEProcess>> IKEProcess::start(sd_event *event, const std::string &program,
                                                              Handlers handlers) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) < 0)
    return errnoError(errno, "make sockets for " + program);
  std::unique_ptr<IKEProcess> process(new IKEProcess(std::move(handlers), FileDescriptor(ends[0])));
  const FileDescriptor childs(ends[1]);
  // Whoever asks for the secret next asks /proc what runs.
  auto child = linux::ChildProcess::prepare({program}, {}, {.input = childs.get()});
  if (!child) return child.error();
  if (const Status running = child->release(); !running) return running.error();
  process->process_.emplace(std::move(*child));
  IKEProcess *raw = process.get();
  raw->process_->watch(
      event,
      [raw, alive = std::weak_ptr(raw->alive_)](const linux::ChildProcess::End &) {
        // What it said at last still lies in the socket.
        while (!alive.expired() && raw->recordArrived()) {
        }
        if (!alive.expired()) raw->end({});
      });
  raw->reading_ =
      linux::EventSource::io(event, raw->socket_.get(), EPOLLIN, [raw](std::uint32_t) { raw->recordArrived(); });
  return process;
}

IKEProcess::~IKEProcess() {
  reading_.reset();
  // At which it takes its leave of the server, and ends.
  socket_.reset();
  if (process_ && process_->running()) process_->waitFor(kFarewell);
}

vpnctl::Result<Peer> IKEProcess::peer() const { return Peer::ofChild(process_->pid()); }

Status IKEProcess::order(const IKEOrder &order, int socket) {
  const auto record = encode(order);
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof socket)> control{};
  iovec part{const_cast<std::uint8_t *>(record.data()), record.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (socket >= 0) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof socket);
    std::memcpy(CMSG_DATA(rights), &socket, sizeof socket);
  }
  // One that does not read what it has asked for is not waited for.
  if (::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
    return errnoError(errno, "speak to vpnctl-ike");
  return {};
}

bool IKEProcess::recordArrived() {
  if (!socket_) return false;
  // Not on the stack, which is not wiped: keys come this way.
  isakmp::Bytes bytes(kLargestIKERecord + 1);
  const ssize_t size = ::recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (size < 0 && errno == EINTR) return true;
  if (size < 0 && errno == EAGAIN) return false;
  if (size <= 0) {
    // The process is about to end, which is told when it has.
    reading_.reset();
    return false;
  }
  const auto report = decodeIKEReport(std::span(bytes).first(static_cast<std::size_t>(size)));
  if (!report) {
    end(report.error());
    return false;
  }
  const auto handler = handlers_.report;
  const std::weak_ptr alive = alive_;
  handler(*report);
  return !alive.expired();
}

void IKEProcess::end(const Status &how) {
  reading_.reset();
  socket_.reset();
  if (const auto handler = std::exchange(handlers_.ended, nullptr)) handler(how);
}

}  // namespace helper
