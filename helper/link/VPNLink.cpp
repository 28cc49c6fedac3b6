#include "helper/link/VPNLink.h"

#include <algorithm>
#include <utility>

#include "helper/link/TunnelKinds.h"
#include "helper/ppp/PPPEnding.h"

namespace helper {

using foundation::Status;

namespace {

constexpr std::chrono::milliseconds kPPPGrace{3000};  // two goodbyes to a server that does not hear, and a bit
constexpr std::chrono::milliseconds kDestructionGrace{1500};
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
  const auto cannotStart = [this](const foundation::Error &error) {
    fail(kCauseFatal, 0, "The connection cannot be started: " + error.message + ".");
  };
  if (const Status opened = parts_->open(); !opened) return cannotStart(opened.error());
  auto ppp = parts_->startPPP({.phase = [this](int phase) { pppReached(phase); },
                               .password = [this](const Peer &peer) { return password(peer); },
                               .ipUp = [this](const PluginIPUp &up) { pppIsUp(up); },
                               .ended = [this](const PPPEnd &end) { pppEnded(end); }});
  if (!ppp) return cannotStart(ppp.error());
  ppp_ = std::move(*ppp);
  resolution_ = parts_->findServer([this](const foundation::Result<in_addr> &server) { serverFound(server); });
  // Every stage has a deadline of its own; this is for what none thought of, and never the first.
  deadline_ = parts_->clock().after(tunnelKind(plan_.kind).deadline(plan_) + plan_.pppDeadline, [this] {
    fail(kCauseNegotiationFailed, 0,
         "The connection did not come up in time; the server is very slow or does not answer.");
  });
  // Last: whoever hears it may stop the link.
  tell(kPhaseConnectingLink);
}

void VPNLink::serverFound(const foundation::Result<in_addr> &server) {
  if (!server)
    return fail(kCauseConnectFailed, static_cast<int>(Tunnel::DeviceCause::noServer), server.error().message);
  server_ = *server;
  // Before the first packet. Without any route to the server the tunnel says so in its own words.
  if (const Status pinned = parts_->routes().pinServer(server_); !pinned)
    return fail(kCauseFatal, 0, "The way to the server cannot be kept: " + pinned.error().message + ".");
  tunnel_ =
      parts_->makeTunnel(server_, {.up = [this](foundation::FileDescriptor channel) { tunnelIsUp(std::move(channel)); },
                                   .failed =
                                       [this](const Tunnel::Failure &failure) {
                                         fail(kCauseConnectFailed, static_cast<int>(failure.cause), failure.sentence);
                                       },
                                   .lost = [this](const Tunnel::Loss &loss) { tunnelLost(loss); },
                                   .stopped = [this] { cleanUp(); }});
  tunnel_->start();
}

void VPNLink::tunnelIsUp(foundation::FileDescriptor channel) {
  if (state_ != State::connecting) return;
  channelGiven_ = true;
  ppp_->giveChannel(std::move(channel));
}

void VPNLink::pppReached(int phase) {
  // "Running" is not "connected" yet: routes and name servers come first, see pppIsUp().
  if (phase != kPhaseConnected) tell(phase);
}

std::optional<foundation::Secret> VPNLink::password(const Peer &peer) {
  auto secret = parts_->password(peer);
  if (secret) return std::move(*secret);
  parts_->log("There is no password for the connection: " + secret.error().message + ".");
  return std::nullopt;
}

void VPNLink::pppIsUp(const PluginIPUp &up) {
  if (!isAlive()) return;
  // pppd has been told to insist; before the first packet goes into the tunnel, we look.
  if (plan_.ppp.mppe != MPPE::none && !up.encrypted)
    return fail(kCauseNegotiationFailed, 0,
                "The connection is to be encrypted, but the server does not encrypt; allow MPPE on the server.");
  if (state_ == State::up) return pppIsUpAgain(up);
  Routes &routes = parts_->routes();
  Status routed = routes.keepServerOff(up.interface, server_);
  if (routed && plan_.carriesEverything) routed = routes.carryEverything(up.interface, up.localAddress);
  if (!routed) return fail(kCauseFatal, 0, "The routes into the tunnel cannot be set: " + routed.error().message + ".");
  parts_->nameServers().apply(up.interface, up.dns, plan_.carriesEverything, [this, up](const std::string &sentence) {
    if (!sentence.empty()) parts_->log(sentence);
    becomeUp(up);
  });
}

// The server has negotiated once more. Meanwhile the interface was down, and the kernel threw its routes away:
// everything would now go past a tunnel that counts as up.
void VPNLink::pppIsUpAgain(const PluginIPUp &up) {
  if (up.localAddress.s_addr != facts_.up->localAddress.s_addr)
    return fail(kCauseNegotiationFailed, 0,
                "The server has given this machine another address in the middle of the connection.");
  Routes &routes = parts_->routes();
  Status routed = routes.keepServerOff(up.interface, server_);
  if (routed && plan_.carriesEverything) routed = routes.carryEverythingAgain(up.interface, up.localAddress);
  if (!routed) fail(kCauseFatal, 0, "The routes into the tunnel cannot be set again: " + routed.error().message + ".");
}

void VPNLink::becomeUp(const PluginIPUp &up) {
  if (state_ != State::connecting) return;
  state_ = State::up;
  deadline_.reset();
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

void VPNLink::tunnelLost(const Tunnel::Loss &loss) {
  if (!isAlive()) return;
  if (phases_.ending()) {
    // pppd is on its way out for a reason of its own, a refused password perhaps, which its exit tells better; the
    // server has only heard of it first.
    deadline_ = parts_->clock().after(kPPPGrace, [this] { ppp_->terminate(kPPPGrace); });
    return;
  }
  parts_->log(loss.sentence);
  // The refusal itself may be overtaken on the way by the end of the call, and pppd never hears it.
  if (loss.endedByServer && phases_.current() == kPhaseAuthenticating) {
    parts_->log(
        "That was while the account was being checked: the server did not accept the user name or the password.");
    cause_ = kCauseNotAuthenticated;
  }
  end(Farewell::hungUp);
}

void VPNLink::pppEnded(const PPPEnd &ended) {
  if (isAlive()) {
    const bool lacksMPPE = plan_.ppp.mppe != MPPE::none && !parts_->kernelHasMPPE();
    parts_->log(endingSentence(ended, tunnelKind(plan_.kind).nothingArrived, lacksMPPE));
  }
  if (!cause_) cause_ = lastCause(ended);
  end(Farewell::orderly);
}

void VPNLink::end(Farewell farewell) {
  state_ = State::ending;
  resolution_.reset();
  deadline_.reset();
  if (!ppp_ || !ppp_->running()) return endTunnel();
  // A pppd that still waits for its channel has nobody to say goodbye to.
  if (!channelGiven_) tell(kPhaseDisconnectingLink);
  if (farewell == Farewell::hungUp && channelGiven_)
    ppp_->hangUp(kPPPGrace);
  else
    ppp_->terminate(kPPPGrace);
}

void VPNLink::endTunnel() {
  tell(kPhaseDisconnectingLink);
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
