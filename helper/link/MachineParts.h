// The parts of a link on this machine: the kernel's routes, its resolver, pppd, real tunnels, a journal under
// /run/vpnctl.

#pragma once

#include <systemd/sd-event.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "helper/common/PPPLog.h"
#include "helper/common/SecretSource.h"
#include "helper/journal/Journal.h"
#include "helper/link/LinkParts.h"
#include "helper/link/LinkPlan.h"
#include "helper/link/TunnelKinds.h"
#include "helper/network/ResolverConfiguration.h"
#include "helper/network/Routing.h"
#include "helper/ppp/PPPDaemon.h"

namespace helper {

// What stands before the lines of a link to SERVER in the PPP log while there are several.
std::string labelOf(const std::string &server);

class MachineParts : public LinkParts {
 public:
  // Where things are; tests point elsewhere.
  struct Paths {
    std::string journals = Journal::kBase;
    std::string pppd = PPPDaemon::kProgram;
    ResolverConfiguration::Paths resolver{};
  };

  // EVENT and SECRETS outlive it. What it writes into LOG bears the server's name while there are several links.
  MachineParts(sd_event *event, LinkPlan plan, SecretSource &secrets, const PPPLog &log)
      : MachineParts(event, std::move(plan), secrets, log, Paths()) {}
  MachineParts(sd_event *event, LinkPlan plan, SecretSource &secrets, const PPPLog &log, Paths paths);

  vpnctl::Status open() override;
  vpnctl::Result<std::unique_ptr<PPPSession>> startPPP(PPPSession::Handlers handlers) override;
  std::shared_ptr<void> findServer(AddressHandler handler) override;
  std::unique_ptr<Tunnel> makeTunnel(in_addr server, Tunnel::Handlers handlers) override;
  Routes &routes() override { return *routes_; }
  vpnctl::Result<std::shared_ptr<void>> watchNetwork(in_addr server, NetworkWatch::Handlers handlers) override;
  std::shared_ptr<void> afterLogout(std::function<void()> handler) override;
  NameServers &nameServers() override { return *nameServers_; }
  void describe(in_addr server, const PluginIPUp &up) override;
  vpnctl::Result<vpnctl::Secret> password(const Peer &peer) override;
  bool kernelHasMPPE() const override;
  void takeBack() override;
  linux::Clock &clock() override { return clock_; }
  void log(std::string_view sentence) override { log_.write(sentence); }
  std::chrono::steady_clock::time_point lastLogged() const override { return log_.lastWrite(); }

 private:
  sd_event *event_;
  const LinkPlan plan_;
  SecretSource &secrets_;
  const Paths paths_;
  PPPLog log_;
  linux::EventClock clock_;
  // In the order of their making: what comes later uses what stands before.
  std::unique_ptr<Routing> routing_;
  std::optional<Journal> journal_;
  LinkNote note_;
  std::optional<JournalledRoutes> routes_;
  std::optional<ResolverConfiguration> nameServers_;
  TunnelFactory makeTunnel_;
};

}  // namespace helper
