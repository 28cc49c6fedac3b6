#include "helper/link/MachineParts.h"

#include <unistd.h>

#include <utility>

#include "helper/network/NameResolution.h"
#include "helper/ppp/PPPEnding.h"
#include "helper/ppp/PPPOptions.h"
#include "helper/ppp/PluginPath.h"
#include "helper/repair/Undo.h"
#include "linux/Process.h"
#include "linux/SessionWatch.h"

namespace helper {

using vpnctl::Error;
using vpnctl::Status;

namespace {

constexpr std::chrono::milliseconds kUnnotedGrace{1500};

}  // namespace

std::string labelOf(const std::string &server) { return "[" + server + "] "; }

MachineParts::MachineParts(sd_event *event, LinkPlan plan, SecretSource &secrets, const PPPLog &log, Paths paths)
    : event_(event),
      plan_(std::move(plan)),
      secrets_(secrets),
      paths_(std::move(paths)),
      log_(log.labelled([this] { return Journal::count(paths_.journals) > 1 ? labelOf(plan_.server) : ""; })),
      clock_(event) {}

Status MachineParts::open() {
  auto routing = NetlinkRouting::open();
  if (!routing) return routing.error();
  routing_ = std::move(*routing);
  auto journal = Journal::create(paths_.journals);
  if (!journal) return journal.error();
  journal_ = std::move(*journal);
  note_ = {.helper = {::getpid(), linux::startTimeOf(::getpid()).value_or(0)},
           .server = plan_.server,
           .protocol = tunnelKind(plan_.kind).name,
           .begun = timeSinceBoot()};
  // Without it the link is as good; who looks at it later sees less.
  static_cast<void>(journal_->describe(note_));
  routes_.emplace(*routing_, *journal_, plan_.routes);
  nameServers_.emplace(event_, *journal_, paths_.resolver, plan_.domains,
                       [this](const std::string &sentence) { log_.write(sentence); });
  makeTunnel_ = tunnelKind(plan_.kind).prepare({event_, secrets_, log_, *journal_}, plan_);
  return {};
}

vpnctl::Result<std::unique_ptr<PPPSession>> MachineParts::startPPP(PPPSession::Handlers handlers) {
  auto daemon = std::make_unique<PPPDaemon>(
      event_, std::move(handlers), [this](std::string_view line) { log_.copy(line); }, paths_.pppd);
  const PPPPaths paths{
      .plugin = pluginPath(), .socket = journal_->folder() + "/plugin", .noScript = journal_->folder() + "/none"};
  if (const Status started = daemon->start(pppOptions(plan_.ppp, paths), paths.socket); !started)
    return Error{started.error().domain, started.error().code,
                 started.error().message + " (is the package ppp installed?)"};
  // Noted with a wrong start time it would be nobody's, and outlive us.
  const auto startTime = linux::startTimeOf(daemon->pid());
  Status noted = startTime ? journal_->note(StartedProcess{daemon->pid(), *startTime})
                           : Error{"Process", 0, "when pppd started cannot be read"};
  if (!noted) {
    daemon->closeNow(kUnnotedGrace);
    return noted.error();
  }
  return std::unique_ptr<PPPSession>(std::move(daemon));
}

std::shared_ptr<void> MachineParts::findServer(AddressHandler handler) {
  return std::make_shared<NameResolution>(event_, plan_.server, std::move(handler));
}

std::unique_ptr<Tunnel> MachineParts::makeTunnel(in_addr server, Tunnel::Handlers handlers) {
  return makeTunnel_(server, std::move(handlers));
}

vpnctl::Result<std::shared_ptr<void>> MachineParts::watchNetwork(in_addr server, NetworkWatch::Handlers handlers) {
  auto watch = NetworkWatch::start(event_, server, std::move(handlers));
  if (!watch) return watch.error();
  return std::shared_ptr<void>(std::move(*watch));
}

void MachineParts::describe(in_addr server, const PluginIPUp &up) {
  note_.up = LinkNote::Up{.interface = up.interface,
                          .server = server,
                          .since = timeSinceBoot(),
                          .nameServers = up.dns,
                          .encryptedByPPP = up.encrypted};
  static_cast<void>(journal_->describe(note_));
}

std::shared_ptr<void> MachineParts::afterLogout(std::function<void()> handler) {
  if (plan_.endsWithSessionOf == 0) return nullptr;
  return std::make_shared<linux::SessionWatch>(event_, plan_.endsWithSessionOf, std::move(handler));
}

vpnctl::Result<vpnctl::Secret> MachineParts::password(const Peer &peer) {
  return secrets_.secretForService(plan_.ppp.passwordItem, plan_.secretUse, peer);
}

bool MachineParts::kernelHasMPPE() const { return helper::kernelHasMPPE(); }

void MachineParts::takeBack() {
  if (!journal_) return;
  makeTunnel_ = nullptr;
  // A resolvconf that still runs must not come after its record has been taken back.
  nameServers_.reset();
  Undo(*routing_, [this](const std::string &sentence) { log_.write(sentence); }).takeBack(*journal_);
  routes_.reset();
  journal_.reset();
}

}  // namespace helper
