// A PPTP tunnel to one server: the control connection, and the kernel's socket for the call's packets.

#pragma once

#include <netinet/in.h>

#include <memory>

#include "helper/common/EngineSettings.h"
#include "helper/common/Tunnel.h"
#include "helper/pptp/PPTPControlConnection.h"
#include "helper/pptp/PPTPDataPath.h"

namespace helper {

class PPTPTunnel : public Tunnel {
 public:
  static constexpr std::uint16_t kPort = 1723;  // of servers

  PPTPTunnel(sd_event *event, const sockaddr_in &server, const EngineSettings::PPTP &settings,
             std::unique_ptr<PPTPDataPath> dataPath, Handlers handlers);

  void start() override;
  void check() override { control_.check(); }
  void stop() override;

 private:
  void callIsUp(std::uint16_t peerCallID);

  sd_event *event_;
  in_addr server_;
  Handlers handlers_;
  std::unique_ptr<PPTPDataPath> dataPath_;
  linux::EventSource nextTurn_;
  PPTPControlConnection control_;
};

}  // namespace helper
