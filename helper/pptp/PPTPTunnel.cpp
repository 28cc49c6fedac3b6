#include "helper/pptp/PPTPTunnel.h"

#include <arpa/inet.h>

namespace helper {

namespace {

sockaddr_in controlAddress(in_addr server) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(PPTPTunnel::kPort);
  address.sin_addr = server;
  return address;
}

}  // namespace

PPTPTunnel::PPTPTunnel(sd_event *event, in_addr server, const EngineSettings::PPTP &settings, Handlers handlers)
    : event_(event),
      server_(server),
      handlers_(std::move(handlers)),
      control_(
          event, controlAddress(server),
          PPTPControlConnection::Deadlines::within(settings.deadline, settings.deadPeerDelay),
          PPTPControlConnection::Handlers{.connected = [this](in_addr local) { return bindSocket(local); },
                                          .established = [this](std::uint16_t peerCallID) { callIsUp(peerCallID); },
                                          .failed = [this](const Failure &failure) { handlers_.failed(failure); },
                                          .lost = [this](const Loss &loss) { handlers_.lost(loss); },
                                          .stopped = [this] { handlers_.stopped(); }}) {}

void PPTPTunnel::start() {
  // Without the kernel's help there is no point in asking the server: say so first.
  if (const auto probe = PPTPSocket::probe(); !probe) {
    std::string sentence = "No PPTP connection is possible: " + probe.error().message + ".";
    soon_ = linux::EventSource::soon(event_, [this, sentence] {
      handlers_.failed(Failure{DeviceCause::protocolError, sentence});
    });
    return;
  }
  control_.start();
}

void PPTPTunnel::stop() {
  soon_.reset();
  control_.stop();
}

foundation::Result<std::uint16_t> PPTPTunnel::bindSocket(in_addr local) {
  auto socket = PPTPSocket::bind(local);
  if (!socket) return socket.error();
  socket_ = std::move(*socket);
  return socket_->callID();
}

void PPTPTunnel::callIsUp(std::uint16_t peerCallID) {
  auto channel = socket_->connect(server_, peerCallID);
  socket_.reset();
  if (channel)
    handlers_.up(std::move(*channel));
  else
    handlers_.failed(Failure{DeviceCause::protocolError,
                             "The call is up, but its packets have no way: " + channel.error().message + "."});
}

}  // namespace helper
