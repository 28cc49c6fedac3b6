#include "helper/l2tp/L2TPTunnel.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "helper/common/IPv4Address.h"

namespace helper {

namespace {

L2TPControlConnection::Deadlines deadlinesOf(const EngineSettings::L2TP &settings) {
  L2TPControlConnection::Deadlines deadlines;
  deadlines.call = settings.deadline;
  deadlines.hello = settings.deadPeerDelay;
  return deadlines;
}

}  // namespace

L2TPTunnel::L2TPTunnel(sd_event *event, const sockaddr_in &server, const EngineSettings::L2TP &settings, PPPLog &log,
                       Parts parts, Handlers handlers)
    : event_(event),
      server_(server),
      sourcePort_(settings.sourcePort),
      log_(log),
      makeAssociation_(std::move(parts.makeAssociation)),
      handlers_(std::move(handlers)),
      dataPath_(std::move(parts.dataPath)),
      control_(
          event, deadlinesOf(settings),
          L2TPControlConnection::Handlers{.answered = [this](const L2TPCall &call) { return callIsAnswered(call); },
                                          .established =
                                              [this] {
                                                established_ = true;
                                                handlers_.up(std::move(channel_));
                                              },
                                          .failed = [this](const Failure &failure) { handlers_.failed(failure); },
                                          .lost = [this](const Loss &loss) { handlers_.lost(loss); },
                                          .stopped = [this] { endAssociation(); }}) {}

void L2TPTunnel::start() {
  if (!makeAssociation_)
    return failSoon(DeviceCause::noSharedSecret,
                    "No L2TP connection is possible: the service names no shared secret for IPSec, and without IPSec "
                    "everything would travel in clear.");
  // Without the kernel's help there is no point in asking the server: say so first.
  if (const auto probe = dataPath_->probe(); !probe)
    return failSoon(DeviceCause::protocolError, "No L2TP connection is possible: " + probe.error().message + ".");
  auto socket = L2TPSocket::open(server_, sourcePort_);
  if (!socket)
    return failSoon(DeviceCause::noServer, "The L2TP server " + textOf(server_.sin_addr) +
                                               " cannot be called: " + socket.error().message + ".");
  socket_ = std::move(*socket);
  if (!socket_->notice().empty()) log_.write(socket_->notice());
  association_ = makeAssociation_(
      IPSecAssociation::Handlers{.up = [this] { protectedNow(); },
                                 .failed = [this](const Failure &failure) { handlers_.failed(failure); },
                                 .lost = [this](const std::string &sentence) { unprotected(sentence); },
                                 .stopped = [this] { finish(); }});
  association_->start(socket_->descriptor());
}

void L2TPTunnel::failSoon(DeviceCause cause, std::string sentence) {
  nextTurn_ = linux::EventSource::soon(
      event_, [this, failure = Failure{cause, std::move(sentence)}] { handlers_.failed(failure); });
}

// Only now may anything be sent.
void L2TPTunnel::protectedNow() {
  if (stopping_) return;
  // What came before the guard stood came in clear, and the kernel asks no more: nobody had anything to tell us yet.
  char none = 0;
  while (::recv(socket_->descriptor(), &none, sizeof none, MSG_DONTWAIT) >= 0 || errno == ECONNREFUSED ||
         errno == EINTR) {
  }
  control_.start(socket_->descriptor());
}

void L2TPTunnel::unprotected(const std::string &sentence) {
  control_.fallSilent();
  if (stopping_) return;
  if (established_)
    handlers_.lost(Loss{false, sentence});
  else
    handlers_.failed(Failure{DeviceCause::networkChanged, sentence});
}

foundation::Status L2TPTunnel::callIsAnswered(const L2TPCall &call) {
  auto channel = dataPath_->connect(socket_->descriptor(), call);
  if (!channel) return channel.error();
  channel_ = std::move(*channel);
  return {};
}

void L2TPTunnel::stop() {
  if (stopping_) return;
  stopping_ = true;
  nextTurn_.reset();
  control_.stop();
}

void L2TPTunnel::endAssociation() {
  if (association_)
    association_->stop();
  else
    finish();
}

void L2TPTunnel::finish() {
  dataPath_.reset();
  socket_.reset();
  handlers_.stopped();
}

}  // namespace helper
