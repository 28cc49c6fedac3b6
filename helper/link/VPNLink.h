// A VPN link from its plan: puts name resolution, tunnel, pppd, routes and name servers in order, and decides what is
// told. Each of them knows only its own job, and is handed in.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/link/ExtendedStatus.h"
#include "helper/link/Link.h"
#include "helper/link/LinkParts.h"
#include "helper/link/LinkPhases.h"
#include "helper/link/LinkPlan.h"

namespace helper {

class VPNLink : public Link {
 public:
  VPNLink(LinkPlan plan, std::unique_ptr<LinkParts> parts, StatusHandler handler);
  VPNLink(const VPNLink &) = delete;
  VPNLink &operator=(const VPNLink &) = delete;
  ~VPNLink() override;

  void start() override;
  void stop() override;
  const LinkStatus &status() const override { return status_; }
  bool isDown() const override { return state_ == State::down; }

 private:
  enum class State { idle, connecting, up, ending, down };
  // How pppd is to go, which depends on why.
  enum class Farewell { orderly, hungUp, cutOff };

  // Coming up, in this order; pppd starts while the tunnel is still being made.
  void begin();
  void giveTime();
  void serversFound(const vpnctl::Result<std::vector<in_addr>> &servers);
  void callServer();
  void tunnelIsUp(TunnelChannel channel);
  void pppReached(int phase);
  void pppIsUp(const PluginIPUp &up);
  std::optional<std::string> objectionTo(const PluginIPUp &up);
  void becomeUp(const PluginIPUp &up);
  std::optional<vpnctl::Secret> password(const Peer &peer);
  bool isAlive() const { return state_ == State::connecting || state_ == State::up; }

  // What others do to the network meanwhile.
  void addressGone(in_addr address);
  void routingChanged();
  void loggedOut();
  void slept(std::chrono::milliseconds time);

  // Going down: one reason, then pppd, then the tunnel, then everything else.
  void fail(int cause, int deviceCause, const std::string &sentence);
  void tunnelFailed(const Tunnel::Failure &failure);
  void tunnelStopped();
  void tunnelLost(const Tunnel::Loss &loss);
  void pppEnded(const PPPEnd &end);
  void end(Farewell farewell);
  void endTunnel();
  void cleanUp();
  void tellDisconnected();

  void tell(int phase);

  LinkPlan plan_;
  std::unique_ptr<LinkParts> parts_;
  StatusHandler handler_;

  State state_ = State::idle;
  bool stopRequested_ = false;
  bool channelGiven_ = false;
  bool outOfTime_ = false;
  bool lost_ = false;  // the tunnel, after it was up
  Farewell farewell_ = Farewell::orderly;
  std::optional<int> cause_;  // decided; what pppd's exit says no longer matters
  LinkPhases phases_;
  LinkFacts facts_;
  LinkStatus status_;

  std::vector<in_addr> servers_;  // that may be called, the one that is being called first
  std::unique_ptr<PPPSession> ppp_;
  std::unique_ptr<Tunnel> tunnel_;
  std::unique_ptr<Tunnel> formerTunnel_;  // has stopped
  std::shared_ptr<void> resolution_;
  std::shared_ptr<void> network_;
  std::shared_ptr<void> session_;
  std::vector<std::chrono::steady_clock::time_point> putBacks_;  // not long ago
  linux::Clock::Timer sleep_;
  linux::Clock::Timer next_;
  linux::Clock::Timer deadline_;
};

}  // namespace helper
