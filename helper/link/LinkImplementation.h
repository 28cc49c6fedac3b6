// Link's inside: puts resolver, tunnel, pppd, routes and name servers in order, and decides what is told. Each of them
// knows only its own job.

#pragma once

#include <memory>
#include <optional>
#include <string>

#include "helper/common/Tunnel.h"
#include "helper/journal/Journal.h"
#include "helper/link/ExtendedStatus.h"
#include "helper/link/Link.h"
#include "helper/link/LinkPhases.h"
#include "helper/network/NameResolution.h"
#include "helper/network/ResolverConfiguration.h"
#include "helper/network/RouteTable.h"
#include "helper/network/Routes.h"
#include "helper/ppp/PPPDaemon.h"

namespace helper {

class Link::Implementation {
 public:
  Implementation(sd_event *event, LinkConfiguration configuration, SecretSource &secrets, PPPLog &log,
                 StatusHandler handler);
  Implementation(const Implementation &) = delete;
  Implementation &operator=(const Implementation &) = delete;
  ~Implementation();

  void start();
  void stop();
  const LinkStatus &status() const { return status_; }
  bool isDown() const { return state_ == State::down; }

 private:
  enum class State { idle, connecting, up, ending, down };
  // How pppd is to go, which depends on why.
  enum class Farewell { orderly, hungUp };

  // Coming up, in this order; pppd starts while the tunnel is still being made.
  void begin();
  foundation::Status prepare();
  Routes ownRoutes();
  void resolved(const foundation::Result<in_addr> &server);
  void tunnelIsUp(foundation::FileDescriptor channel);
  void pppReached(int phase);
  void pppIsUp(const PluginIPUp &up);
  void pppIsUpAgain(const PluginIPUp &up);
  void isUp(const PluginIPUp &up);
  std::optional<foundation::Secret> password(const Peer &peer);

  // Going down: one reason, then pppd, then the tunnel, then everything else.
  void fail(int cause, int deviceCause, const std::string &sentence);
  void tunnelFailed(const Tunnel::Failure &failure);
  void tunnelLost(const Tunnel::Loss &loss);
  void pppEnded(const PPPEnd &end);
  void end(Farewell farewell);
  void endTunnel();
  void cleanUp();
  void sayDisconnected();

  void tell(int phase);

  sd_event *event_;
  LinkConfiguration configuration_;
  SecretSource &secrets_;
  PPPLog &log_;
  StatusHandler handler_;

  State state_ = State::idle;
  bool stopRequested_ = false;
  bool channelGiven_ = false;
  std::optional<int> cause_;  // decided; what pppd's exit says no longer matters
  LinkPhases phases_;
  LinkFacts facts_;
  LinkStatus status_;

  in_addr server_{};
  // In the order of their making: what comes later uses what stands before.
  std::unique_ptr<RouteTable> routes_;
  std::optional<Journal> journal_;
  std::unique_ptr<ResolverConfiguration> resolver_;
  std::unique_ptr<PPPDaemon> daemon_;
  std::unique_ptr<Tunnel> tunnel_;
  std::unique_ptr<NameResolution> resolution_;
  linux::EventSource next_;
  linux::EventSource deadline_;
};

}  // namespace helper
