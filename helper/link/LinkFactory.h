// How the service gets its link.
//
// Thread rule: the thread of the event loop.

#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "helper/common/EngineSettings.h"
#include "helper/common/PPPLog.h"
#include "helper/common/SecretSource.h"
#include "helper/link/Link.h"
#include "helper/link/LinkPlan.h"

struct sd_event;

namespace helper {

// The link that REQUEST asks for, of a service in the preferences whose root is PREFERENCES; not started yet. An error
// (with a sentence part) when LinkPlan::make() has one. The handler outlives the link.
using LinkFactory = std::function<vpnctl::Result<std::unique_ptr<Link>>(
    const vpnctl::Value &preferences, const LinkRequest &request, Link::StatusHandler handler)>;

// From a plan to its link.
using LinkMaker = std::function<std::unique_ptr<Link>(LinkPlan plan, Link::StatusHandler handler)>;

// Makes plans with the engine's settings that the files in FOLDER hold at that moment, and links of them with MAKE. LOG
// outlives it. SERVERS_NOT_TOLD, addresses, may still have a tunnel of a client that has died; L2TP to one of them, or
// to a name, then does not come from its port, if the settings leave the choice: two tunnels between the same two ports
// are not told apart by every server, and what is said in the new one gets lost in the old.
LinkFactory plannedLinks(PPPLog &log, const std::set<std::string> &serversNotTold, LinkMaker make,
                         const std::string &folder = EngineSettings::kFolder);

// Makes VPNLinks on this machine. EVENT, SECRETS and LOG outlive them.
LinkMaker vpnLinks(sd_event *event, SecretSource &secrets, PPPLog &log);

}  // namespace helper
