#include "helper/link/LinkImplementation.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "helper/link/TunnelFactory.h"
#include "helper/ppp/PPPEnding.h"
#include "helper/ppp/PPPOptions.h"
#include "helper/ppp/PluginPath.h"
#include "helper/repair/Undo.h"

namespace helper {

using foundation::Status;

namespace {

constexpr std::chrono::milliseconds kPPPGrace{3000};  // two goodbyes to a server that does not hear, and a bit
constexpr std::chrono::milliseconds kDestructionGrace{1500};
// A follower of the log that wakes when it grows has read the last sentence by then.
constexpr std::chrono::milliseconds kReadingTime{100};

constexpr std::uint32_t kOldestMetric = 1000000;

std::int64_t secondsSinceBoot() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

}  // namespace

Link::Implementation::Implementation(sd_event *event, LinkConfiguration configuration, SecretSource &secrets,
                                     PPPLog &log, StatusHandler handler)
    : event_(event),
      configuration_(std::move(configuration)),
      secrets_(secrets),
      log_(log),
      handler_(std::move(handler)) {
  facts_.server = configuration_.ppp["CommRemoteAddress"].string();
}

Link::Implementation::~Implementation() {
  if (!journal_) return;
  if (daemon_) daemon_->endNow(kDestructionGrace);
  tunnel_.reset();
  Undo(*routes_, [this](const std::string &sentence) { log_.write(sentence); }).finish(*journal_);
}

void Link::Implementation::start() {
  if (state_ != State::idle) return;
  state_ = State::connecting;
  next_ = linux::EventSource::soon(event_, [this] { begin(); });
}

void Link::Implementation::begin() {
  tell(kPhaseInitializing);
  if (stopRequested_) {
    cause_ = kCauseUserRequest;
    return end(Farewell::orderly);
  }
  if (!knowsTunnel(configuration_.tunnelType))
    return fail(kCauseConnectFailed, static_cast<int>(Tunnel::DeviceCause::protocolError),
                "Tunnels of the kind \"" + configuration_.tunnelType + "\" are not supported.");
  if (const Status prepared = prepare(); !prepared)
    return fail(kCauseFatal, 0, "The connection cannot be started: " + prepared.error().message + ".");
  tell(kPhaseConnectingLink);
  resolution_ = std::make_unique<NameResolution>(
      event_, facts_.server, [this](const foundation::Result<in_addr> &server) { resolved(server); });
  // Every stage has a deadline of its own; this is for what none thought of, and never the first.
  const auto comingUp = tunnelDeadline(configuration_) + configuration_.settings.ppp.deadline;
  deadline_ = linux::EventSource::timer(event_, comingUp, [this] {
    fail(kCauseNegotiationFailed, 0,
         "The connection did not come up in time; the server is very slow or does not answer.");
  });
}

Status Link::Implementation::prepare() {
  auto routes = NetlinkRouteTable::open();
  if (!routes) return routes.error();
  routes_ = std::move(*routes);
  auto journal = Journal::create();
  if (!journal) return journal.error();
  journal_ = std::move(*journal);
  resolver_ = std::make_unique<ResolverConfiguration>(event_, *journal_, ResolverConfiguration::Paths{});
  daemon_ = std::make_unique<PPPDaemon>(
      event_, PPPDaemon::Handlers{.phase = [this](int phase) { pppReached(phase); },
                                  .password = [this](const Peer &peer) { return password(peer); },
                                  .ipUp = [this](const PluginIPUp &up) { pppIsUp(up); },
                                  .ended = [this](const PPPEnd &end) { pppEnded(end); }});
  const std::string socketPath = journal_->folder() + "/plugin";
  const PPPSurroundings surroundings{.tunnelType = configuration_.tunnelType,
                                     .pluginPath = pluginPath(),
                                     .socketPath = socketPath,
                                     .logPath = log_.path(),
                                     .noScript = journal_->folder() + "/none"};
  if (const Status started = daemon_->start(pppOptions(configuration_.ppp, surroundings), socketPath, log_.path());
      !started)
    return foundation::Error{started.error().domain, started.error().code,
                             started.error().message + " (is the package ppp installed?)"};
  // Noted with a wrong one it would be nobody's, and outlive us.
  const auto startTime = linux::startTimeOf(daemon_->pid());
  if (!startTime) return foundation::Error{"Process", 0, "when pppd started cannot be read"};
  return journal_->note(StartedProcess{daemon_->pid(), *startTime});
}

// No other link that is there has our number. The kernel prefers the lowest metric: of several links that carry
// everything the newest does, as its name servers are the ones that are asked.
Routes Link::Implementation::ownRoutes() { return Routes(*routes_, *journal_, kOldestMetric - journal_->number()); }

void Link::Implementation::resolved(const foundation::Result<in_addr> &server) {
  if (!server)
    return fail(kCauseConnectFailed, static_cast<int>(Tunnel::DeviceCause::noServer), server.error().message);
  server_ = *server;
  // Before the first packet. Without any route to the server the tunnel says so in its own words.
  if (const Status pinned = ownRoutes().pinServer(server_); !pinned)
    return fail(kCauseFatal, 0, "The way to the server cannot be kept: " + pinned.error().message + ".");
  tunnel_ =
      makeTunnel(TunnelSurroundings{event_, secrets_, log_, *journal_}, configuration_, server_,
                 Tunnel::Handlers{.up = [this](foundation::FileDescriptor channel) { tunnelIsUp(std::move(channel)); },
                                  .failed = [this](const Tunnel::Failure &failure) { tunnelFailed(failure); },
                                  .lost = [this](const Tunnel::Loss &loss) { tunnelLost(loss); },
                                  .stopped = [this] { cleanUp(); }});
  tunnel_->start();
}

void Link::Implementation::tunnelIsUp(foundation::FileDescriptor channel) {
  if (state_ != State::connecting) return;
  channelGiven_ = true;
  daemon_->giveChannel(std::move(channel));
}

void Link::Implementation::pppReached(int phase) {
  // "Running" is not "connected" yet: routes and name servers come first, see pppIsUp().
  if (phase != kPhaseConnected) tell(phase);
}

std::optional<foundation::Secret> Link::Implementation::password(const Peer &peer) {
  auto secret = secrets_.secretForService(configuration_.ppp["AuthPassword"].string(), peer);
  if (secret) return std::move(*secret);
  log_.write("There is no password for the connection: " + secret.error().message + ".");
  return std::nullopt;
}

void Link::Implementation::pppIsUp(const PluginIPUp &up) {
  if (state_ != State::connecting && state_ != State::up) return;
  // pppd has been told to insist; before the first packet goes into the tunnel, we look.
  if (wantsMPPE(configuration_.ppp, configuration_.tunnelType) && !up.encrypted)
    return fail(kCauseNegotiationFailed, 0,
                "The connection is to be encrypted, but the server does not encrypt; allow MPPE on the server.");
  if (state_ == State::up) return pppIsUpAgain(up);
  const bool primary = configuration_.ipv4["OverridePrimary"].boolValue();
  Routes routes = ownRoutes();
  Status routed = routes.keepServerOff(up.interface, server_);
  if (routed && primary) routed = routes.carryEverything(up.interface, up.localAddress);
  if (!routed) return fail(kCauseFatal, 0, "The routes into the tunnel cannot be set: " + routed.error().message + ".");
  resolver_->apply(up.interface, up.dns, primary, [this, up](const std::string &sentence) {
    if (!sentence.empty()) log_.write(sentence);
    isUp(up);
  });
}

// The server has negotiated once more. Meanwhile the interface was down, and the kernel threw its routes away:
// everything would now go past a tunnel that counts as up.
void Link::Implementation::pppIsUpAgain(const PluginIPUp &up) {
  if (up.localAddress.s_addr != facts_.up->localAddress.s_addr)
    return fail(kCauseNegotiationFailed, 0,
                "The server has given this machine another address in the middle of the connection.");
  Routes routes = ownRoutes();
  Status routed = routes.keepServerOff(up.interface, server_);
  if (routed && configuration_.ipv4["OverridePrimary"].boolValue())
    routed = routes.carryEverythingAgain(up.interface, up.localAddress);
  if (!routed) fail(kCauseFatal, 0, "The routes into the tunnel cannot be set again: " + routed.error().message + ".");
}

void Link::Implementation::isUp(const PluginIPUp &up) {
  if (state_ != State::connecting) return;
  state_ = State::up;
  deadline_.reset();
  facts_.up = LinkFacts::Up{.interface = up.interface,
                            .localAddress = up.localAddress,
                            .peerAddress = up.peerAddress,
                            .mtu = up.mtu,
                            .mru = up.mru,
                            .connectTime = secondsSinceBoot(),
                            .disconnectTime = 0};
  tell(kPhaseConnected);
}

void Link::Implementation::stop() {
  stopRequested_ = true;
  // Before begin() it is enough to remember it.
  if (phases_.current() == kPhaseDisconnected || (state_ != State::connecting && state_ != State::up)) return;
  cause_ = kCauseUserRequest;
  end(Farewell::orderly);
}

void Link::Implementation::fail(int cause, int deviceCause, const std::string &sentence) {
  if (state_ != State::connecting && state_ != State::up) return;
  log_.write(sentence);
  cause_ = cause;
  facts_.deviceLastCause = deviceCause;
  end(Farewell::orderly);
}

void Link::Implementation::tunnelFailed(const Tunnel::Failure &failure) {
  fail(kCauseConnectFailed, static_cast<int>(failure.cause), failure.sentence);
}

void Link::Implementation::tunnelLost(const Tunnel::Loss &loss) {
  if (state_ != State::connecting && state_ != State::up) return;
  if (phases_.ending()) {
    // pppd is on its way out for a reason of its own, a refused password perhaps, which its exit tells better; the
    // server has only heard of it first.
    deadline_ = linux::EventSource::timer(event_, kPPPGrace, [this] { daemon_->terminate(kPPPGrace); });
    return;
  }
  log_.write(loss.sentence);
  // The refusal itself may be overtaken on the way by the end of the call, and pppd never hears it.
  if (loss.endedByServer && phases_.current() == kPhaseAuthenticating) {
    log_.write(
        "That was while the account was being checked: the server did not accept the user name or the password.");
    cause_ = kCauseNotAuthenticated;
  }
  end(Farewell::hungUp);
}

void Link::Implementation::pppEnded(const PPPEnd &ended) {
  if (state_ == State::connecting || state_ == State::up)
    log_.write(endingSentence(ended, configuration_.tunnelType,
                              wantsMPPE(configuration_.ppp, configuration_.tunnelType) && !kernelHasMPPE()));
  if (!cause_) cause_ = lastCause(ended);
  if (state_ == State::ending) return endTunnel();
  end(Farewell::orderly);
}

void Link::Implementation::end(Farewell farewell) {
  state_ = State::ending;
  resolution_.reset();
  deadline_.reset();
  if (!daemon_ || !daemon_->running()) return endTunnel();
  // A pppd that still waits for its channel has nobody to say goodbye to.
  if (!channelGiven_) tell(kPhaseDisconnectingLink);
  if (farewell == Farewell::hungUp && channelGiven_)
    daemon_->hangUp(kPPPGrace);
  else
    daemon_->terminate(kPPPGrace);
}

void Link::Implementation::endTunnel() {
  tell(kPhaseDisconnectingLink);
  if (tunnel_)
    tunnel_->stop();
  else
    next_ = linux::EventSource::soon(event_, [this] { cleanUp(); });
}

void Link::Implementation::cleanUp() {
  if (journal_) {
    resolver_.reset();
    Undo(*routes_, [this](const std::string &sentence) { log_.write(sentence); }).finish(*journal_);
    journal_.reset();
  }
  // Also without any waiting from a turn of its own: we may be in the middle of a call from the tunnel, and whoever
  // hears the last word may destroy the link.
  std::chrono::milliseconds wait{0};
  if (log_.lastWrite() != std::chrono::steady_clock::time_point{})
    wait = kReadingTime -
           std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - log_.lastWrite());
  next_ =
      linux::EventSource::timer(event_, std::max(wait, std::chrono::milliseconds(0)), [this] { sayDisconnected(); });
}

void Link::Implementation::sayDisconnected() {
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

void Link::Implementation::tell(int phase) {
  if (!phases_.reach(phase)) return;
  facts_.phase = phase;
  if (state_ == State::ending) facts_.lastCause = cause_.value_or(0);
  status_ = LinkStatus{connectionStatus(phase), 0, extendedStatus(facts_)};
  handler_(status_);
}

}  // namespace helper
