// How the service gets its link: the real one, or a fake in tests.
//
// Thread rule: the thread of the event loop.

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "helper/link/Link.h"

namespace helper {

// What the service asks of a link; see Link.h for what each means.
class RunningLink {
 public:
  virtual ~RunningLink() = default;
  virtual void start() = 0;
  virtual void stop() = 0;
  virtual const LinkStatus &status() const = 0;
  virtual bool isDown() const = 0;
};

// A link for the service SERVICE_ID of the preferences whose root is PREFERENCES, not started yet. An error (with a
// sentence part) when there is no such service. The handler outlives the link.
using LinkFactory = std::function<foundation::Result<std::unique_ptr<RunningLink>>(
    const foundation::Value &preferences, const std::string &serviceID, Link::StatusHandler handler)>;

// Makes real links. EVENT, SECRETS and LOG outlive them. While SERVER_REMEMBERS, a server may still have a tunnel of a
// client that has died; L2TP then does not come from its port, if the settings leave the choice: two tunnels between
// the same two ports are not told apart by every server, and what is said in the new one gets lost in the old.
LinkFactory realLinks(sd_event *event, SecretSource &secrets, PPPLog &log, const bool &serverRemembers);

}  // namespace helper
