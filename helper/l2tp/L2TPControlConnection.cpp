#include "helper/l2tp/L2TPControlConnection.h"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <random>

#include "helper/common/IPv4Address.h"

namespace helper {

namespace {

// What we say of ourselves. Servers look at none of it but the window.
constexpr std::uint32_t kAnyFraming = 3;
constexpr std::uint32_t kSynchronousFraming = 1;
constexpr std::uint32_t kSpeed = 1000000000;
// Datagrams taken in one turn of the loop: whoever floods us must not keep it from everything else.
constexpr int kMostPerTurn = 16;

// An id that is not 0. Not a secret: it only should not meet the ids of other tunnels of this machine.
std::uint16_t chooseID() {
  std::random_device source;
  return static_cast<std::uint16_t>(std::uniform_int_distribution<int>(1, 0xffff)(source));
}

template <std::size_t N>
const char *phrase(const std::array<const char *, N> &phrases, std::uint16_t number) {
  return number < N ? phrases[number] : "no reason that we know";
}

const char *generalError(std::uint16_t error) {
  static constexpr std::array kPhrases{"no general error",
                                       "there is no control connection yet",
                                       "a length is wrong",
                                       "a value is out of range",
                                       "it has no resources for it now",
                                       "the session id is wrong",
                                       "an error of the vendor's own",
                                       "try another server",
                                       "it was sent something mandatory that it does not know"};
  return phrase(kPhrases, error);
}

const char *stopReason(const l2tp::ResultCode &code) {
  static constexpr std::array kPhrases{"no reason that we know",
                                       "a general request",
                                       "",
                                       "the control connection exists already",
                                       "this client is not authorized",
                                       "the protocol version is not supported",
                                       "it is shutting down",
                                       "a message came out of turn"};
  return code.result == l2tp::kResultGeneralError ? generalError(code.error) : phrase(kPhrases, code.result);
}

const char *disconnectReason(const l2tp::ResultCode &code) {
  static constexpr std::array kPhrases{"no reason that we know",
                                       "the carrier was lost",
                                       "",
                                       "the administrator's doing",
                                       "it has no facilities for it now",
                                       "it has no facilities for it",
                                       "the destination is invalid",
                                       "no carrier",
                                       "busy",
                                       "no dial tone",
                                       "the call timed out",
                                       "no framing that fits"};
  return code.result == l2tp::kResultGeneralError ? generalError(code.error) : phrase(kPhrases, code.result);
}

std::string explained(const char *reason, const l2tp::ResultCode &code) {
  std::string text =
      std::string(reason) + " (result " + std::to_string(code.result) + ", error " + std::to_string(code.error);
  if (!code.message.empty()) text += ", \"" + code.message + "\"";
  return text + ")";
}

}  // namespace

L2TPControlConnection::L2TPControlConnection(sd_event *event, const Deadlines &deadlines, Handlers handlers)
    : event_(event),
      deadlines_(deadlines),
      handlers_(std::move(handlers)),
      transport_(
          event, deadlines.transport,
          L2TPTransport::Handlers{.transmit = [this](std::span<const std::uint8_t> datagram) { transmit(datagram); },
                                  .received = [this](std::uint16_t session,
                                                     std::span<const std::uint8_t> body) { received(session, body); },
                                  .drained =
                                      [this] {
                                        if (state_ == State::stopping) finishSoon();
                                      },
                                  .gaveUp = [this] { unanswered(); }}) {
  call_.tunnelID = chooseID();
  call_.sessionID = chooseID();
}

L2TPControlConnection::~L2TPControlConnection() {
  if (state_ != State::stopping && farewell_ != Farewell::nobody) sayGoodbye(false);
}

void L2TPControlConnection::start(int socket) {
  if (state_ != State::idle) return;
  socket_ = socket;
  sockaddr_in server{};
  socklen_t size = sizeof server;
  getpeername(socket, reinterpret_cast<sockaddr *>(&server), &size);
  name_ = textOf(server.sin_addr);
  port_ = ntohs(server.sin_port);
  state_ = State::starting;
  farewell_ = Farewell::unanswered;
  io_ = linux::EventSource::io(
      event_, socket, EPOLLIN, [this](std::uint32_t) { readDatagrams(); });
  deadline_ = linux::EventSource::timer(event_, deadlines_.call, [this] { unanswered(); });
  l2tp::SCCRQ request;
  request.framingCapabilities = kAnyFraming;
  request.hostName = "vpnctl";
  request.tunnelID = call_.tunnelID;
  request.window = L2TPTransport::kWindow;
  transport_.setFirstRetry(deadlines_.firstRetry);
  transport_.send(0, request);
}

void L2TPControlConnection::transmit(std::span<const std::uint8_t> datagram) {
  if (socket_ < 0) return;
  const auto send = [&] { return ::send(socket_, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL); };
  ssize_t count = send();
  // That an earlier datagram was refused is said in place of sending this one; its own refusal will be read.
  if (count < 0 && errno == ECONNREFUSED) count = send();
  // What gets lost, here or on the way, is sent again; what was wrong matters only if nothing ever gets through.
  sendError_ = count < 0 ? errno : 0;
}

void L2TPControlConnection::readDatagrams() {
  std::array<std::uint8_t, 2048> bytes{};
  for (int i = 0; i < kMostPerTurn && socket_ >= 0; ++i) {
    const ssize_t count = ::recv(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count < 0 && errno == ECONNREFUSED) return refusedPort();
    if (count < 0) return;
    const auto packet = l2tp::decodePacket(std::span(bytes).first(static_cast<std::size_t>(count)));
    // Another version, a call's packet that came before its socket was there, a tunnel that is not ours.
    if (!packet || packet->header.tunnelID != call_.tunnelID) continue;
    if (state_ == State::established) awaitSilence();
    transport_.receive(*packet);
  }
}

void L2TPControlConnection::received(std::uint16_t session, std::span<const std::uint8_t> body) {
  if (session != 0 && session != call_.sessionID) return;
  const auto message = l2tp::decodeBody(body);
  if (!message) {
    return protocolError(l2tp::kResultGeneralError, static_cast<std::uint16_t>(message.error().code),
                         "does not speak L2TP as it should: it sent " + message.error().message);
  }
  std::visit([this](const auto &m) { handle(m); }, *message);
}

void L2TPControlConnection::handle(const l2tp::SCCRP &reply) {
  if (state_ != State::starting) return;
  call_.peerTunnelID = reply.tunnelID;
  farewell_ = Farewell::acknowledged;
  transport_.setPeer(reply.tunnelID, reply.window);
  transport_.setFirstRetry(deadlines_.transport.firstRetry);
  if (reply.version >> 8 != l2tp::kProtocolVersion >> 8)
    return protocolError(l2tp::kResultVersion, l2tp::kProtocolVersion,
                         "speaks version " + std::to_string(reply.version >> 8) + " of L2TP's protocol, not 1");
  if (!reply.challenge.empty())
    return protocolError(l2tp::kResultNotAuthorized, 0,
                         "asks for L2TP's own tunnel authentication, for which there is no secret; switch it off on "
                         "the server, IPSec has authenticated both sides already");
  state_ = State::calling;
  transport_.send(0, l2tp::SCCCN{});
  transport_.send(0, l2tp::ICRQ{call_.sessionID, 1});
}

void L2TPControlConnection::handle(const l2tp::ICRP &reply) {
  if (state_ != State::calling) return;
  call_.peerSessionID = reply.sessionID;
  if (const auto status = handlers_.answered(call_); !status)
    return end(DeviceCause::protocolError, "took the call, but its packets have no way: " + status.error().message);
  state_ = State::established;
  awaitSilence();
  transport_.send(call_.peerSessionID, l2tp::ICCN{kSpeed, kSynchronousFraming});
  handlers_.established();
}

void L2TPControlConnection::handle(const l2tp::StopCCN &notification) {
  farewell_ = Farewell::nobody;
  // One that refuses at once says here where its acknowledgement is to go.
  if (call_.peerTunnelID == 0) transport_.setPeer(notification.tunnelID, l2tp::kDefaultWindow);
  if (state_ == State::stopping) return finishSoon();
  end(DeviceCause::protocolError,
      (state_ == State::established ? "has ended the tunnel: " : "refuses the tunnel: ") +
          explained(stopReason(notification.result), notification.result),
      true);
}

void L2TPControlConnection::handle(const l2tp::CDN &notify) {
  // While we stop, the two goodbyes have crossed, and ours is still to be acknowledged.
  end(DeviceCause::protocolError,
      (state_ == State::established ? "has ended the call: " : "refuses the call: ") +
          explained(disconnectReason(notify.result), notify.result),
      true);
}

void L2TPControlConnection::handle(const l2tp::OtherMessage &message) {
  if (message.known() || !message.mandatory) return;
  protocolError(l2tp::kResultGeneralError, l2tp::kErrorUnknownAVP,
                "sent a message of the unknown type " + std::to_string(message.type) + ", which must be understood");
}

void L2TPControlConnection::awaitSilence() {
  // Asked once: unless the answer comes, the transport asks again and gives up in the end.
  deadline_ = linux::EventSource::timer(event_, deadlines_.hello, [this] { transport_.send(0, l2tp::Hello{}); });
}

void L2TPControlConnection::check() {
  if (state_ != State::established) return;
  transport_.send(0, l2tp::Hello{});
  deadline_ = linux::EventSource::timer(event_, deadlines_.check, [this] { unanswered(); });
}

void L2TPControlConnection::unanswered() {
  const std::string reason = sendError_ == 0 ? "" : std::string(" (") + std::strerror(sendError_) + ")";
  switch (state_) {
    case State::starting:
      return end(DeviceCause::noAnswer, "does not answer on UDP port " + std::to_string(port_) + reason +
                                            ", although IPSec with it stands; check that an L2TP server runs there");
    case State::calling:
      return end(DeviceCause::noAnswer, "does not answer the call request" + reason);
    case State::established:
      farewell_ = Farewell::unanswered;
      return end(DeviceCause::noAnswer, "no longer answers" + reason);
    case State::stopping:
      return finishStopping();
    case State::idle:
    case State::down:
      return;
  }
}

void L2TPControlConnection::refusedPort() {
  switch (state_) {
    case State::starting:
    case State::calling:
      farewell_ = Farewell::nobody;
      return end(DeviceCause::noServer,
                 "refuses UDP port " + std::to_string(port_) + ": no L2TP server runs there, or a firewall rejects it");
    case State::stopping:
      return finishStopping();
    case State::established:  // anybody can say so; the hellos tell whether it is true
    case State::idle:
    case State::down:
      return;
  }
}

void L2TPControlConnection::protocolError(std::uint16_t result, std::uint16_t error, const std::string &sentence) {
  if (state_ == State::down || state_ == State::stopping) return;
  reason_ = l2tp::ResultCode{result, error, ""};
  end(DeviceCause::protocolError, sentence);
}

void L2TPControlConnection::end(DeviceCause cause, std::string sentence, bool byServer) {
  if (state_ == State::down || state_ == State::stopping) return;
  const bool wasUp = state_ == State::established;
  // The socket is still listened to: a server whose goodbye was not acknowledged in time says it again.
  state_ = State::down;
  deadline_.reset();
  sentence = "The L2TP server " + name_ + " " + sentence + ".";
  if (wasUp)
    handlers_.lost(TunnelLoss{byServer, sentence});
  else
    handlers_.failed(TunnelFailure{cause, sentence});
}

void L2TPControlConnection::stop() {
  if (state_ == State::stopping || toldStopped_) return;
  state_ = State::stopping;
  deadline_.reset();
  if (farewell_ == Farewell::acknowledged) {
    sayGoodbye(true);
    deadline_ = linux::EventSource::timer(event_, deadlines_.stop, [this] { finishStopping(); });
    return;
  }
  // Whoever has not answered so far does not acknowledge either, but may be about to answer.
  if (farewell_ == Farewell::unanswered) sayGoodbye(false);
  finishSoon();
}

// Alone: it ends the call as well (section 5.7). A CDN before it would gain nothing, and IPSec on several processors
// turns the two round, upon which many a server throws the StopCCN away as too early.
void L2TPControlConnection::sayGoodbye(bool reliably) {
  const bool reasoned = reason_.result != 0;
  const l2tp::StopCCN goodbye{call_.tunnelID, reasoned ? reason_ : l2tp::ResultCode{l2tp::kResultClear, 0, ""}};
  if (!reliably) return transport_.sendOnce(0, goodbye);
  transport_.setFirstRetry(deadlines_.stop / 4);
  transport_.send(0, goodbye);
}

void L2TPControlConnection::fallSilent() {
  farewell_ = Farewell::nobody;
  if (state_ != State::stopping && !toldStopped_) state_ = State::down;
  if (state_ == State::stopping) finishSoon();
  socket_ = -1;
  io_.reset();
  deadline_.reset();
}

// Not in the middle of what has arrived: its acknowledgement is still to be said.
void L2TPControlConnection::finishSoon() {
  nextTurn_ = linux::EventSource::soon(
      event_, [this] { finishStopping(); });
}

void L2TPControlConnection::finishStopping() {
  state_ = State::down;
  farewell_ = Farewell::nobody;
  socket_ = -1;
  io_.reset();
  deadline_.reset();
  nextTurn_.reset();
  if (toldStopped_) return;
  toldStopped_ = true;
  handlers_.stopped();
}

}  // namespace helper
