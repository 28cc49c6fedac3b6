// A PPTP tunnel to one server: the control connection, and the kernel's socket for the call's packets.

#pragma once

#include <netinet/in.h>

#include <optional>

#include "helper/common/EngineSettings.h"
#include "helper/common/Tunnel.h"
#include "helper/pptp/PPTPControlConnection.h"
#include "helper/pptp/PPTPSocket.h"

namespace helper {

class PPTPTunnel : public Tunnel {
 public:
  static constexpr std::uint16_t kPort = 1723;

  PPTPTunnel(sd_event *event, in_addr server, const EngineSettings::PPTP &settings, Handlers handlers);

  void start() override;
  void stop() override;

 private:
  foundation::Result<std::uint16_t> bindSocket(in_addr local);
  void callIsUp(std::uint16_t peerCallID);

  sd_event *event_;
  in_addr server_;
  Handlers handlers_;
  std::optional<PPTPSocket> socket_;
  linux::EventSource soon_;
  PPTPControlConnection control_;
};

}  // namespace helper
