#include "helper/pptp/PPTPTunnel.h"

#include <utility>

namespace helper {

PPTPTunnel::PPTPTunnel(sd_event *event, const sockaddr_in &server, const EngineSettings::PPTP &settings,
                       std::unique_ptr<PPTPDataPath> dataPath, Handlers handlers)
    : event_(event),
      server_(server.sin_addr),
      handlers_(std::move(handlers)),
      dataPath_(std::move(dataPath)),
      control_(
          event, server, PPTPControlConnection::Deadlines::within(settings.deadline, settings.deadPeerDelay),
          PPTPControlConnection::Handlers{.connected = [this](in_addr local) { return dataPath_->bind(local); },
                                          .established = [this](std::uint16_t peerCallID) { callIsUp(peerCallID); },
                                          .failed = [this](const Failure &failure) { handlers_.failed(failure); },
                                          .lost = [this](const Loss &loss) { handlers_.lost(loss); },
                                          .stopped = [this] { handlers_.stopped(); }}) {}

void PPTPTunnel::start() {
  // Without the kernel's help there is no point in asking the server: say so first.
  if (const auto probe = dataPath_->probe(); !probe) {
    std::string sentence = "No PPTP connection is possible: " + probe.error().message + ".";
    nextTurn_ = linux::EventSource::soon(event_, [this, sentence] {
      handlers_.failed(Failure{DeviceCause::protocolError, sentence});
    });
    return;
  }
  control_.start();
}

void PPTPTunnel::stop() {
  nextTurn_.reset();
  control_.stop();
}

void PPTPTunnel::callIsUp(std::uint16_t peerCallID) {
  auto channel = dataPath_->connect(server_, peerCallID);
  if (channel)
    handlers_.up(std::move(*channel));
  else
    handlers_.failed(Failure{DeviceCause::protocolError,
                             "The call is up, but its packets have no way: " + channel.error().message + "."});
}

}  // namespace helper
