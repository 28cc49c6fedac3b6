#include "helper/link/VPNLink.h"

#include <algorithm>
#include <utility>

#include "helper/common/IPv4Address.h"
#include "helper/link/TunnelKinds.h"
#include "helper/ppp/PPPEnding.h"

namespace helper {

using vpnctl::Status;

namespace {

constexpr std::chrono::milliseconds kPPPGrace{3000};  // two goodbyes to a server that does not hear, and a bit
constexpr std::chrono::milliseconds kDestructionGrace{1500};
// The refusal of an account may be overtaken on its way by the end of the call.
constexpr std::chrono::milliseconds kOvertaken{300};
// Of the machine; after less no server has given up.
constexpr std::chrono::milliseconds kShortSleep{10000};
// Whoever throws our rules away more often than this will not stop.
constexpr std::size_t kMostPutBacks = 5;
constexpr std::chrono::seconds kPutBackMemory{10};
// A follower of the log that wakes when it grows has read the last sentence by then.
constexpr std::chrono::milliseconds kReadingTime{100};

}  // namespace

VPNLink::VPNLink(LinkPlan plan, std::unique_ptr<LinkParts> parts, StatusHandler handler)
    : plan_(std::move(plan)), parts_(std::move(parts)), handler_(std::move(handler)) {
  facts_.server = plan_.server;
}

VPNLink::~VPNLink() {
  if (ppp_) ppp_->closeNow(kDestructionGrace);
  tunnel_.reset();
  parts_->takeBack();
}

void VPNLink::start() {
  if (state_ != State::idle) return;
  state_ = State::connecting;
  next_ = parts_->clock().soon([this] { begin(); });
}

void VPNLink::begin() {
  tell(kPhaseInitializing);
  if (stopRequested_) {
    cause_ = kCauseUserRequest;
    return end(Farewell::orderly);
  }
  const auto cannotStart = [this](const vpnctl::Error &error) {
    fail(kCauseFatal, 0, "The connection cannot be started: " + error.message + ".");
  };
  if (const Status opened = parts_->open(); !opened) return cannotStart(opened.error());
  auto ppp = parts_->startPPP({.phase = [this](int phase) { pppReached(phase); },
                               .password = [this](const Peer &peer) { return password(peer); },
                               .ipUp = [this](const PluginIPUp &up) { pppIsUp(up); },
                               .ended = [this](const PPPEnd &end) { pppEnded(end); }});
  if (!ppp) return cannotStart(ppp.error());
  ppp_ = std::move(*ppp);
  resolution_ =
      parts_->findServer([this](const vpnctl::Result<std::vector<in_addr>> &servers) { serversFound(servers); });
  session_ = parts_->afterLogout([this] { loggedOut(); });
  giveTime();
  // Last: whoever hears it may stop the link.
  tell(kPhaseConnectingLink);
}

// Every stage has a deadline of its own; this is for what none thought of, and never the first.
void VPNLink::giveTime() {
  deadline_ = parts_->clock().after(
      tunnelKind(plan_.kind).deadline(plan_) + plan_.pppDeadline,
      [this] {
        outOfTime_ = true;
        fail(kCauseNegotiationFailed, 0,
             "The connection did not come up in time; the server is very slow or does not answer.");
      });
}

void VPNLink::serversFound(const vpnctl::Result<std::vector<in_addr>> &servers) {
  if (!servers)
    return fail(kCauseConnectFailed, static_cast<int>(Tunnel::DeviceCause::noServer), servers.error().message);
  servers_ = *servers;
  callServer();
}

void VPNLink::callServer() {
  const in_addr server = servers_.front();
  // Before the first packet. Without any route to the server the tunnel says so in its own words.
  if (const Status kept = parts_->routes().keepWay(server); !kept)
    return fail(kCauseFatal, 0, "The way to the server cannot be kept: " + kept.error().message + ".");
  auto watch = parts_->watchNetwork(server, {.addressGone = [this](in_addr address) { addressGone(address); },
                                             .routingChanged = [this] { routingChanged(); }});
  if (!watch) return fail(kCauseFatal, 0, "The network cannot be watched: " + watch.error().message + ".");
  network_ = std::move(*watch);
  tunnel_ = parts_->makeTunnel(server, {.up = [this](TunnelChannel channel) { tunnelIsUp(std::move(channel)); },
                                        .failed = [this](const Tunnel::Failure &failure) { tunnelFailed(failure); },
                                        .lost = [this](const Tunnel::Loss &loss) { tunnelLost(loss); },
                                        .stopped = [this] { tunnelStopped(); }});
  tunnel_->start();
}

void VPNLink::tunnelFailed(const Tunnel::Failure &failure) {
  using Cause = Tunnel::DeviceCause;
  const bool isThere = failure.cause != Cause::noServer && failure.cause != Cause::noAnswer;
  if (!isAlive() || isThere || servers_.size() < 2)
    return fail(kCauseConnectFailed, static_cast<int>(failure.cause), failure.sentence);
  servers_.erase(servers_.begin());
  parts_->log(failure.sentence);
  parts_->log("Trying the next address of " + plan_.server + ", " + textOf(servers_.front()) + ".");
  giveTime();
  tunnel_->stop();
}

void VPNLink::tunnelStopped() {
  // pppd may still be ending when that was not the last tunnel; endTunnel() goes on.
  if (!isAlive() && (!ppp_ || !ppp_->running())) return cleanUp();
  // Not destroyed here: it is calling us.
  formerTunnel_ = std::move(tunnel_);
  next_ = parts_->clock().soon([this] {
    formerTunnel_.reset();
    if (isAlive()) callServer();
  });
}

void VPNLink::tunnelIsUp(TunnelChannel channel) {
  if (state_ != State::connecting) return;
  channelGiven_ = true;
  ppp_->giveChannel(std::move(channel));
}

void VPNLink::pppReached(int phase) {
  // "Running" is not "connected" yet: routes and name servers come first, see pppIsUp().
  if (phase != kPhaseConnected) tell(phase);
}

std::optional<vpnctl::Secret> VPNLink::password(const Peer &peer) {
  auto secret = parts_->password(peer);
  if (secret) return std::move(*secret);
  parts_->log("There is no password for the connection: " + secret.error().message + ".");
  return std::nullopt;
}

void VPNLink::pppIsUp(const PluginIPUp &up) {
  if (!isAlive() || lost_) return;
  // Before the first packet goes into the tunnel.
  if (const auto objection = objectionTo(up)) return fail(kCauseNegotiationFailed, 0, *objection);
  // Also when the server has negotiated once more: the interface was down meanwhile, and the kernel threw its routes
  // away.
  Routes &routes = parts_->routes();
  Status routed = routes.keepServerOff(up.interface, servers_.front());
  if (routed) routed = routes.carry(up.interface);
  if (!routed) return fail(kCauseFatal, 0, "The routes into the tunnel cannot be set: " + routed.error().message + ".");
  if (state_ == State::up) return;
  parts_->nameServers().apply(up.interface, up.dns, plan_.carriesEverything, [this, up](const std::string &sentence) {
    if (!sentence.empty()) parts_->log(sentence);
    becomeUp(up);
  });
}

// What is wrong with what PPP has negotiated.
std::optional<std::string> VPNLink::objectionTo(const PluginIPUp &up) {
  // pppd has been told to insist; we look all the same.
  if (plan_.ppp.mppe != MPPE::none && !up.encrypted)
    return "The connection is to be encrypted, but the server does not encrypt; allow MPPE on the server.";
  if (facts_.up && up.localAddress.s_addr != facts_.up->localAddress.s_addr)
    return "The server has given this machine another address in the middle of the connection.";
  // Where the tunnel comes before the machine's own networks, all is well.
  const bool isCarried = std::ranges::any_of(
      plan_.routes.networks, [&up](const IPv4Network &network) { return contains(network, up.localAddress); });
  if (isCarried && !plan_.routes.localNetworks) return std::nullopt;
  const auto network = parts_->routes().networkAround(up.localAddress, up.interface);
  if (!network) return std::nullopt;
  return "The server has given this machine the address " + textOf(up.localAddress) +
         ", which belongs to the network " + textOf(*network) +
         " that the machine is already in: what is meant for the server's side would stay here. Have the server give "
         "other addresses, or this network use others; or let the connection win, with ppp.local_networks = false" +
         (isCarried ? "" : " and this network in ppp.routes") + " in engine.conf.";
}

void VPNLink::becomeUp(const PluginIPUp &up) {
  if (state_ != State::connecting || lost_) return;
  state_ = State::up;
  deadline_.reset();
  sleep_ = parts_->clock().afterSleep([this](std::chrono::milliseconds time) { slept(time); });
  parts_->describe(servers_.front(), up);
  const auto sinceStart = parts_->clock().now().time_since_epoch();
  facts_.up = LinkFacts::Up{.interface = up.interface,
                            .localAddress = up.localAddress,
                            .peerAddress = up.peerAddress,
                            .mtu = up.mtu,
                            .mru = up.mru,
                            .connectTime = std::chrono::duration_cast<std::chrono::seconds>(sinceStart).count(),
                            .disconnectTime = 0};
  tell(kPhaseConnected);
}

void VPNLink::stop() {
  stopRequested_ = true;
  // Before begin() it is enough to remember it.
  if (phases_.current() == kPhaseDisconnected || !isAlive()) return;
  cause_ = kCauseUserRequest;
  end(Farewell::orderly);
}

void VPNLink::fail(int cause, int deviceCause, const std::string &sentence) {
  if (!isAlive()) return;
  parts_->log(sentence);
  cause_ = cause;
  facts_.deviceLastCause = deviceCause;
  end(Farewell::orderly);
}

void VPNLink::addressGone(in_addr address) {
  if (!isAlive()) return;
  parts_->log("The network has changed: this machine no longer has the address " + textOf(address) +
              ", from which it spoke to the server; connect again.");
  cause_ = state_ == State::up ? kCauseHungUp : kCauseConnectFailed;
  facts_.deviceLastCause = static_cast<int>(Tunnel::DeviceCause::networkChanged);
  end(Farewell::cutOff);
}

void VPNLink::routingChanged() {
  if (!isAlive()) return;
  const auto changed = parts_->routes().putBack();
  if (!changed)
    return fail(kCauseFatal, 0, "The connection's routing rules cannot be put back: " + changed.error().message + ".");
  if (!*changed) return;
  const auto now = parts_->clock().now();
  std::erase_if(putBacks_, [now](const auto &earlier) { return now - earlier > kPutBackMemory; });
  putBacks_.push_back(now);
  if (putBacks_.size() > kMostPutBacks)
    return fail(
        kCauseFatal, 0,
        "Another program throws away the connection's routing rules again and again; have it leave rules alone that "
        "are not its own (for systemd-networkd: ManageForeignRoutingPolicyRules=no).");
  parts_->log("Another program has thrown away routing rules of the connection; they are back.");
}

void VPNLink::slept(std::chrono::milliseconds time) {
  if (state_ != State::up ||
      time < std::min<std::chrono::milliseconds>(kShortSleep, tunnelKind(plan_.kind).deadPeerDelay(plan_)))
    return;
  parts_->log("This machine has slept for " + std::to_string(std::chrono::round<std::chrono::seconds>(time).count()) +
              " s; the server is asked whether it still has the connection.");
  tunnel_->check();
}

void VPNLink::loggedOut() {
  if (!isAlive()) return;
  parts_->log("The user of the connection has logged out; the connection ends (DisconnectOnLogout).");
  stop();
}

void VPNLink::tunnelLost(const Tunnel::Loss &loss) {
  if (!isAlive() || std::exchange(lost_, true)) return;
  if (phases_.ending()) {
    // pppd is on its way out for a reason of its own, a refused password perhaps, which its exit tells better; the
    // server has only heard of it first.
    deadline_ = parts_->clock().after(kPPPGrace, [this] { ppp_->terminate(kPPPGrace); });
    return;
  }
  parts_->log(loss.sentence);
  if (loss.endedByServer && phases_.current() == kPhaseAuthenticating)
    deadline_ = parts_->clock().after(kOvertaken, [this] { end(Farewell::hungUp); });
  else
    end(Farewell::hungUp);
}

void VPNLink::pppEnded(const PPPEnd &ended) {
  const bool wantsMPPE = plan_.ppp.mppe != MPPE::none;
  const PPPExpectations expected{.mppe = wantsMPPE,
                                 .authProtocols = plan_.ppp.authProtocols,
                                 .kernelHasMPPE = !wantsMPPE || parts_->kernelHasMPPE(),
                                 .nothingArrived = tunnelKind(plan_.kind).nothingArrived};
  if (isAlive())
    parts_->log(endingSentence(ended, expected));
  else if (const auto sentence = hangUpSentence(ended, expected); sentence && (!cause_ || outOfTime_) && !facts_.up)
    parts_->log(*sentence);
  if (!cause_) cause_ = lastCause(ended);
  end(Farewell::orderly);
}

void VPNLink::end(Farewell farewell) {
  if (state_ == State::down) return;
  if (state_ != State::ending) farewell_ = farewell;
  state_ = State::ending;
  network_.reset();
  session_.reset();
  resolution_.reset();
  sleep_.reset();
  deadline_.reset();
  if (!ppp_ || !ppp_->running()) return endTunnel();
  // A pppd that still waits for its channel has nobody to say goodbye to.
  if (!channelGiven_) tell(kPhaseDisconnectingLink);
  if (farewell != Farewell::orderly && channelGiven_)
    ppp_->hangUp(kPPPGrace);
  else
    ppp_->terminate(kPPPGrace);
}

void VPNLink::endTunnel() {
  tell(kPhaseDisconnectingLink);
  // Nobody would hear its goodbye.
  if (farewell_ == Farewell::cutOff) tunnel_.reset();
  if (tunnel_)
    tunnel_->stop();
  else
    next_ = parts_->clock().soon([this] { cleanUp(); });
}

void VPNLink::cleanUp() {
  parts_->takeBack();
  // Also without any waiting from a turn of its own: we may be in the middle of a call from the tunnel, and whoever
  // hears the last word may destroy the link.
  std::chrono::milliseconds wait{0};
  if (parts_->lastLogged() != std::chrono::steady_clock::time_point{})
    wait = kReadingTime -
           std::chrono::duration_cast<std::chrono::milliseconds>(parts_->clock().now() - parts_->lastLogged());
  next_ = parts_->clock().after(std::max(wait, std::chrono::milliseconds(0)), [this] { tellDisconnected(); });
}

void VPNLink::tellDisconnected() {
  if (!phases_.finish()) return;
  state_ = State::down;
  facts_.phase = kPhaseDisconnected;
  facts_.up.reset();
  facts_.lastCause = cause_.value_or(0);
  status_ = LinkStatus{connectionStatus(facts_.phase), 0, extendedStatus(facts_)};
  const StatusHandler handler = handler_;
  const LinkStatus status = status_;
  handler(status);
}

void VPNLink::tell(int phase) {
  if (!phases_.reach(phase)) return;
  facts_.phase = phase;
  if (state_ == State::ending) facts_.lastCause = cause_.value_or(0);
  status_ = LinkStatus{connectionStatus(phase), 0, extendedStatus(facts_)};
  handler_(status_);
}

}  // namespace helper
