#include "helper/l2tp/L2TPTunnel.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "helper/common/IPv4Address.h"

namespace helper {

using SourcePort = EngineSettings::SourcePort;

L2TPTunnel::L2TPTunnel(sd_event *event, const sockaddr_in &server, const EngineSettings::L2TP &settings, PPPLog &log,
                       Parts parts, Handlers handlers)
    : event_(event),
      server_(server),
      settings_(settings),
      log_(log),
      makeAssociation_(std::move(parts.makeAssociation)),
      handlers_(std::move(handlers)),
      port_(parts.port),
      patience_(parts.patience),
      dataPath_(std::move(parts.dataPath)) {}

void L2TPTunnel::start() {
  if (!makeAssociation_)
    return failSoon(DeviceCause::noSharedSecret,
                    "No L2TP connection is possible: the service names no shared secret for IPSec, and without IPSec "
                    "everything would travel in clear.");
  // Without the kernel's help there is no point in asking the server: say so first.
  if (const auto probe = dataPath_->probe(); !probe)
    return failSoon(DeviceCause::protocolError, "No L2TP connection is possible: " + probe.error().message + ".");
  callFrom(settings_.sourcePort);
}

// The settings may leave it to the server.
void L2TPTunnel::openOtherSocket() {
  otherSocket_.reset();
  if (settings_.sourcePort != SourcePort::automatic || hasChangedPort_ || !socket_->hasWellKnownPort()) return;
  if (auto other = L2TPSocket::open(server_, SourcePort::any)) otherSocket_ = std::move(*other);
}

void L2TPTunnel::callFrom(SourcePort port) {
  auto opened = L2TPSocket::open(server_, port, port_);
  if (!opened)
    return failSoon(DeviceCause::noServer, "The L2TP server " + textOf(server_.sin_addr) +
                                               " cannot be called: " + opened.error().message + ".");
  socket_ = std::move(*opened);
  if (!socket_->notice().empty()) log_.write(socket_->notice());
  openOtherSocket();
  association_ = makeAssociation_(
      IPSecAssociation::Handlers{.up = [this](int socket) { protectedNow(socket); },
                                 .failed = [this](const Failure &failure) { handlers_.failed(failure); },
                                 .lost = [this](const std::string &sentence) { unprotected(sentence); },
                                 .stopped = [this] { associationEnded(); }});
  association_->start(socket_->descriptor(), otherSocket_ ? otherSocket_->descriptor() : -1);
}

void L2TPTunnel::failSoon(DeviceCause cause, std::string sentence) {
  nextTurn_ = linux::EventSource::soon(
      event_, [this, failure = Failure{cause, std::move(sentence)}] { handlers_.failed(failure); });
}

// Only now may anything be sent.
void L2TPTunnel::protectedNow(int socket) {
  if (stopping_) return;
  const bool hasChoice = otherSocket_.has_value();
  if (hasChoice && socket == otherSocket_->descriptor()) socket_ = std::move(otherSocket_);
  otherSocket_.reset();
  // What came before the guard stood came in clear, and the kernel asks no more: nobody had anything to tell us yet.
  char none = 0;
  while (::recv(socket_->descriptor(), &none, sizeof none, MSG_DONTWAIT) >= 0 || errno == ECONNREFUSED ||
         errno == EINTR) {
  }
  L2TPControlConnection::Deadlines deadlines;
  deadlines.hello = settings_.deadPeerDelay;
  deadlines.call = settings_.deadline;
  control_.emplace(
      event_, deadlines,
      L2TPControlConnection::Handlers{.answered = [this](const L2TPCall &call) { return callIsAnswered(call); },
                                      .established =
                                          [this] {
                                            established_ = true;
                                            handlers_.up(std::move(channel_));
                                          },
                                      .failed = [this](const Failure &failure) { handlers_.failed(failure); },
                                      .lost = [this](const Loss &loss) { handlers_.lost(loss); },
                                      .stopped = [this] { endAssociation(); }});
  control_->start(socket_->descriptor());
  if (hasChoice)
    impatience_ =
        linux::EventSource::timer(event_, std::min(patience_, settings_.deadline / 2), [this] { changePort(); });
}

void L2TPTunnel::changePort() {
  if (control_->isAnswered()) return;
  const std::string why = socket_->hasWellKnownPort() ? ", where it may remember an earlier connection" : "";
  log_.write("The L2TP server " + textOf(server_.sin_addr) + " says nothing to UDP port " +
             std::to_string(socket_->port()) + " of this machine" + why + "; trying from another port.");
  control_.reset();
  changingPort_ = hasChangedPort_ = true;
  association_->stop();
}

void L2TPTunnel::unprotected(const std::string &sentence) {
  if (control_) control_->fallSilent();
  if (stopping_ || changingPort_) return;
  if (established_)
    handlers_.lost(Loss{false, sentence});
  else
    handlers_.failed(Failure{DeviceCause::networkChanged, sentence});
}

vpnctl::Status L2TPTunnel::callIsAnswered(const L2TPCall &call) {
  auto channel = dataPath_->connect(socket_->descriptor(), call);
  if (!channel) return channel.error();
  vpnctl::FileDescriptor carrier(::fcntl(socket_->descriptor(), F_DUPFD_CLOEXEC, 0));
  if (!carrier) return vpnctl::errnoError(errno, "hold the tunnel's socket for pppd");
  channel_ = TunnelChannel(std::move(*channel), {}, std::move(carrier));
  return {};
}

void L2TPTunnel::check() {
  if (control_) control_->check();
}

void L2TPTunnel::stop() {
  if (stopping_) return;
  stopping_ = true;
  nextTurn_.reset();
  impatience_.reset();
  if (control_)
    control_->stop();
  else
    endAssociation();
}

void L2TPTunnel::endAssociation() {
  if (association_)
    association_->stop();
  else
    nextTurn_ = linux::EventSource::soon(
        event_, [this] { finish(); });
}

void L2TPTunnel::associationEnded() {
  if (stopping_) return finish();
  // Not destroyed here: it is calling us.
  formerAssociation_ = std::move(association_);
  nextTurn_ = linux::EventSource::soon(event_, [this] {
    formerAssociation_.reset();
    changingPort_ = false;
    callFrom(socket_->hasWellKnownPort() ? SourcePort::any : SourcePort::automatic);
  });
}

void L2TPTunnel::finish() {
  dataPath_.reset();
  socket_.reset();
  otherSocket_.reset();
  handlers_.stopped();
}

}  // namespace helper
