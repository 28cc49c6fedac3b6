#include "helper/pptp/PPTPControlConnection.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "helper/common/IPv4Address.h"

namespace helper {

namespace {

// What we say of ourselves. Windows and the servers written for it look at none of it but the windows.
constexpr std::uint32_t kAnyFraming = 3;
constexpr std::uint32_t kAnyBearer = 3;
constexpr std::uint32_t kMinimumSpeed = 2400;
constexpr std::uint32_t kMaximumSpeed = 1000000000;
constexpr std::uint16_t kReceiveWindow = 64;
// All messages of a call fit in many times; only answers to a server that asks and never reads pile up.
constexpr std::size_t kMostUnsent = std::size_t{64} * 1024;

const char *startRefusal(std::uint8_t result) {
  switch (result) {
    case 2:
      return "general error";
    case 3:
      return "a control connection exists already";
    case 4:
      return "this client is not authorized";
    case 5:
      return "the protocol version is not supported";
    default:
      return "no reason that we know";
  }
}

const char *callRefusal(std::uint8_t result) {
  switch (result) {
    case 2:
      return "general error";
    case 3:
      return "no carrier";
    case 4:
      return "busy";
    case 5:
      return "no dial tone";
    case 6:
      return "the call timed out";
    case 7:
      return "calls are prohibited by the administrator";
    default:
      return "no reason that we know";
  }
}

std::string codes(std::uint8_t result, std::uint8_t error) {
  return " (result " + std::to_string(result) + ", error " + std::to_string(error) + ")";
}

}  // namespace

PPTPControlConnection::PPTPControlConnection(sd_event *event, const sockaddr_in &server, const Deadlines &deadlines,
                                             Handlers handlers)
    : event_(event), server_(server), deadlines_(deadlines), handlers_(std::move(handlers)) {
  name_ = textOf(server.sin_addr);
}

PPTPControlConnection::~PPTPControlConnection() {
  if (state_ != State::established && state_ != State::calling) return;
  io_.reset();  // nothing is waited for any more, on a loop that may have finished
  if (callPlaced_) send(pptp::CallClearRequest{callID_});
  send(pptp::StopRequest{});
}

void PPTPControlConnection::start() {
  if (state_ != State::idle) return;
  state_ = State::connecting;
  callBy_ = std::chrono::steady_clock::now() + deadlines_.call;
  socket_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP));
  const int on = 1;
  // Every message waits for an answer to the one before: holding it back to fill a segment would only cost time.
  if (!socket_ || setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) < 0 ||
      (::connect(socket_.get(), reinterpret_cast<const sockaddr *>(&server_), sizeof server_) < 0 &&
       errno != EINPROGRESS)) {
    const int cause = errno;
    nextTurn_ = linux::EventSource::soon(event_, [this, cause] { endOfStream(cause); });
    return;
  }
  wait(inTime(deadlines_.connect), "does not answer on TCP port " + std::to_string(ntohs(server_.sin_port)) +
                                       "; check the address, and that a firewall lets PPTP through");
  io_ = linux::EventSource::io(event_, socket_.get(), EPOLLOUT, [this](std::uint32_t events) { ready(events); });
}

void PPTPControlConnection::ready(std::uint32_t events) {
  if (state_ == State::connecting) return finishConnecting();
  if (events & EPOLLOUT) flush();
  if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) readMessages();
}

void PPTPControlConnection::finishConnecting() {
  int cause = 0;
  socklen_t size = sizeof cause;
  getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &cause, &size);
  if (cause != 0) return endOfStream(cause);
  sockaddr_in local{};
  size = sizeof local;
  getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&local), &size);
  const auto callID = handlers_.connected(local.sin_addr);
  if (!callID) return end(Tunnel::DeviceCause::protocolError, "cannot be called: " + callID.error().message);
  callID_ = *callID;
  state_ = State::starting;
  io_.setEvents(EPOLLIN);
  wait(inTime(deadlines_.reply), "accepts TCP connections but does not answer as a PPTP server");
  pptp::StartRequest request;
  request.framingCapabilities = kAnyFraming;
  request.bearerCapabilities = kAnyBearer;
  request.hostName = "vpnctl";
  request.vendor = "vpnctl";
  send(request);
}

void PPTPControlConnection::readMessages() {
  std::array<std::uint8_t, 2048> bytes{};
  const ssize_t count = ::recv(socket_.get(), bytes.data(), bytes.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return endOfStream(count == 0 ? 0 : errno);
  reader_.append(std::span(bytes).first(static_cast<std::size_t>(count)));
  // A handler may have closed us, and even asked for the stop after that: then what is left has nobody to answer to.
  while (socket_) {
    const auto message = reader_.next();
    if (!message)
      return end(Tunnel::DeviceCause::protocolError, "does not speak PPTP: it sent " + message.error().message);
    if (!message->has_value()) return;
    handle(**message);
  }
}

void PPTPControlConnection::handle(const pptp::Message &message) {
  std::visit([this](const auto &m) { handle(m); }, message);
}

void PPTPControlConnection::handle(const pptp::StartReply &reply) {
  if (state_ != State::starting) return;
  // Some servers answer 0 for "fine".
  if (reply.result > pptp::kResultOK || reply.error != 0)
    return end(Tunnel::DeviceCause::protocolError, std::string("refuses the control connection: ") +
                                                       startRefusal(reply.result) + codes(reply.result, reply.error));
  state_ = State::calling;
  callPlaced_ = true;
  wait(inTime(deadlines_.reply), "does not answer the call request");
  pptp::OutgoingCallRequest request;
  request.callID = callID_;
  request.serialNumber = callID_;
  request.minimumSpeed = kMinimumSpeed;
  request.maximumSpeed = kMaximumSpeed;
  request.bearerType = kAnyBearer;
  request.framingType = kAnyFraming;
  request.receiveWindow = kReceiveWindow;
  send(request);
}

void PPTPControlConnection::handle(const pptp::OutgoingCallReply &reply) {
  if (state_ != State::calling || reply.peerCallID != callID_) return;
  if (reply.result != pptp::kResultOK) {
    callPlaced_ = false;
    return end(Tunnel::DeviceCause::protocolError, std::string("refuses the call: ") + callRefusal(reply.result) +
                                                       codes(reply.result, reply.error) + ", cause " +
                                                       std::to_string(reply.cause));
  }
  state_ = State::established;
  scheduleEcho();
  send(pptp::SetLinkInfo{reply.callID});
  if (state_ == State::established) handlers_.established(reply.callID);
}

void PPTPControlConnection::handle(const pptp::EchoRequest &request) {
  send(pptp::EchoReply{request.identifier});
  if (state_ != State::stopping && unsent_.size() > kMostUnsent)
    end(Tunnel::DeviceCause::noAnswer, "asks, but does not read the answers");
}

void PPTPControlConnection::handle(const pptp::EchoReply &) {
  if (state_ == State::established) scheduleEcho();
}

void PPTPControlConnection::handle(const pptp::StopRequest &) {
  send(pptp::StopReply{});
  if (state_ == State::stopping) return finishStopping();
  end(Tunnel::DeviceCause::protocolError, "has ended the control connection", true);
}

void PPTPControlConnection::handle(const pptp::StopReply &) {
  if (state_ == State::stopping) finishStopping();
}

void PPTPControlConnection::handle(const pptp::CallDisconnectNotify &notify) {
  callPlaced_ = false;
  // While we stop, this answers our Call-Clear-Request, and the answer to the Stop request is still to come.
  if (state_ == State::stopping) return;
  end(Tunnel::DeviceCause::protocolError, "has ended the call" + codes(notify.result, notify.error), true);
}

void PPTPControlConnection::send(const pptp::Message &message) {
  const auto bytes = pptp::encode(message);
  unsent_.insert(unsent_.end(), bytes.begin(), bytes.end());
  flush();
}

void PPTPControlConnection::flush() {
  while (!unsent_.empty()) {
    const ssize_t count = ::send(socket_.get(), unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) break;  // full: later; broken: reading says so, with the reason
    unsent_.erase(unsent_.begin(), unsent_.begin() + count);
  }
  io_.setEvents(unsent_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

void PPTPControlConnection::wait(std::chrono::milliseconds deadline, std::string sentence) {
  deadline_ = linux::EventSource::timer(
      event_, deadline, [this, sentence = std::move(sentence)] { end(Tunnel::DeviceCause::noAnswer, sentence); });
}

std::chrono::milliseconds PPTPControlConnection::inTime(std::chrono::milliseconds deadline) const {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(callBy_ - std::chrono::steady_clock::now());
  return std::clamp(left, std::chrono::milliseconds(0), deadline);
}

void PPTPControlConnection::scheduleEcho() {
  deadline_ = linux::EventSource::timer(
      event_, deadlines_.echoInterval,
      [this] {
        wait(deadlines_.echoReply, "no longer answers");
        send(pptp::EchoRequest{++echoIdentifier_});
      });
}

void PPTPControlConnection::check() {
  if (state_ != State::established) return;
  wait(deadlines_.check, "no longer answers");
  send(pptp::EchoRequest{++echoIdentifier_});
}

void PPTPControlConnection::end(Tunnel::DeviceCause cause, std::string sentence, bool byServer) {
  if (state_ == State::down) return;
  if (state_ == State::stopping) return finishStopping();
  const bool wasUp = state_ == State::established;
  close();
  sentence = "The PPTP server " + name_ + " " + sentence + ".";
  if (wasUp)
    handlers_.lost(Tunnel::Loss{byServer, sentence});
  else
    handlers_.failed(Tunnel::Failure{cause, sentence});
}

void PPTPControlConnection::endOfStream(int error) {
  switch (state_) {
    case State::connecting:
      if (error == ECONNREFUSED)
        return end(Tunnel::DeviceCause::noServer, "refuses TCP port " + std::to_string(ntohs(server_.sin_port)) +
                                                      ": no PPTP server runs there, or a firewall rejects it");
      return end(Tunnel::DeviceCause::noAnswer, std::string("cannot be reached (") + std::strerror(error) +
                                                    "); check the address and this machine's network");
    case State::starting:
      return end(Tunnel::DeviceCause::protocolError,
                 "closed the control connection without an answer; it may be full or not let this client in");
    case State::calling:
      return end(Tunnel::DeviceCause::protocolError, "closed the control connection while it was being called");
    case State::established:
      return end(Tunnel::DeviceCause::networkChanged,
                 error == 0 ? "has closed the control connection"
                            : std::string("is gone: the control connection broke (") + std::strerror(error) + ")",
                 error == 0);
    case State::idle:
    case State::stopping:
    case State::down:
      return end(Tunnel::DeviceCause::protocolError, "");
  }
}

void PPTPControlConnection::stop() {
  if (state_ == State::stopping || toldStopped_) return;
  const State before = state_;
  state_ = State::stopping;
  if (before != State::established && before != State::calling && before != State::starting) {
    close();
    state_ = State::stopping;
    nextTurn_ = linux::EventSource::soon(event_, [this] { finishStopping(); });
    return;
  }
  if (callPlaced_) send(pptp::CallClearRequest{callID_});
  send(pptp::StopRequest{});
  deadline_ = linux::EventSource::timer(event_, deadlines_.stop, [this] { finishStopping(); });
}

void PPTPControlConnection::finishStopping() {
  close();
  if (toldStopped_) return;
  toldStopped_ = true;
  handlers_.stopped();
}

void PPTPControlConnection::close() {
  state_ = State::down;
  io_.reset();
  deadline_.reset();
  nextTurn_.reset();
  socket_.reset();
  unsent_.clear();
}

}  // namespace helper
