#include "helper/link/LinkFactory.h"

#include <utility>

#include "helper/common/IPv4Address.h"
#include "helper/journal/Journal.h"
#include "helper/link/MachineParts.h"
#include "helper/link/VPNLink.h"

namespace helper {

using vpnctl::Value;

namespace {

bool mayRemember(const std::set<std::string> &servers, const std::string &server) {
  return !servers.empty() && (servers.contains(server) || !addressFrom(server));
}

}  // namespace

LinkFactory plannedLinks(PPPLog &log, const std::set<std::string> &serversNotTold, LinkMaker make,
                         const std::string &folder) {
  return [&log, &serversNotTold, make = std::move(make), folder](
             const Value &preferences, const LinkRequest &request,
             Link::StatusHandler handler) -> vpnctl::Result<std::unique_ptr<Link>> {
    const auto [settings, complaints] =
        EngineSettings::readFor(LinkPlan::serverOf(preferences, request.serviceID), folder);
    auto plan = LinkPlan::make(preferences, request, settings);
    if (!plan) return plan.error();
    PPPLog linkLog = log.labelled([&server = plan->server] { return Journal::count() > 0 ? labelOf(server) : ""; });
    for (const std::string &complaint : complaints) linkLog.write(complaint);
    using SourcePort = EngineSettings::SourcePort;
    if (mayRemember(serversNotTold, plan->server) && plan->kind == TunnelKind::l2tp &&
        plan->l2tp.sourcePort == SourcePort::automatic) {
      plan->l2tp.sourcePort = SourcePort::any;
      linkLog.write(
          "The server was not told that the earlier connection has ended: L2TP goes out from another port than 1701, "
          "which a few servers do not accept.");
    }
    if (plan->isInClear())
      linkLog.write("Nothing in this connection is encrypted, because pptp.mppe is \"none\" in the settings in " +
                    folder + ".");
    if (plan->ppp.verbose) linkLog.write("The connection that is asked for: " + plan->description() + ".");
    return make(std::move(*plan), std::move(handler));
  };
}

LinkMaker vpnLinks(sd_event *event, SecretSource &secrets, PPPLog &log) {
  return [event, &secrets, &log](LinkPlan plan, Link::StatusHandler handler) -> std::unique_ptr<Link> {
    auto parts = std::make_unique<MachineParts>(event, plan, secrets, log);
    return std::make_unique<VPNLink>(std::move(plan), std::move(parts), std::move(handler));
  };
}

}  // namespace helper
