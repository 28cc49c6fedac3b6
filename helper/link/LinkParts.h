// Everything that a link acts on, as one small factory: MachineParts hands out the real parts, a test hands out parts
// that record what is done to them.
//
// Usual sequence: open(); then the others, in the order in which the link comes up; takeBack() at the end. What open()
// made exists until takeBack(), or the parts' own end.
//
// Thread rule: the thread of the event loop. takeBack() blocks, as Undo says, and startPPP() while it
// ends a pppd that it could not note; the others do not.

#pragma once

#include <netinet/in.h>

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Secret.h"
#include "helper/common/Tunnel.h"
#include "helper/network/NameServers.h"
#include "helper/network/NetworkWatch.h"
#include "helper/network/Routes.h"
#include "helper/ppp/PPPSession.h"
#include "linux/Clock.h"

namespace helper {

class LinkParts {
 public:
  // All addresses of the server, the best first. The error's message is a sentence for the PPP log.
  using AddressHandler = std::function<void(const vpnctl::Result<std::vector<in_addr>> &servers)>;

  virtual ~LinkParts() = default;

  // The journal, into which each change is written before it is made. Nothing else is asked for when this fails.
  virtual vpnctl::Status open() = 0;
  // A pppd that runs, is in the journal, and waits for its channel.
  virtual vpnctl::Result<std::unique_ptr<PPPSession>> startPPP(PPPSession::Handlers handlers) = 0;
  // Begins to look for the server's addresses. HANDLER is called once, later; destroying what comes back forgets it.
  [[nodiscard]] virtual std::shared_ptr<void> findServer(AddressHandler handler) = 0;
  // A tunnel to SERVER, not started.
  virtual std::unique_ptr<Tunnel> makeTunnel(in_addr server, Tunnel::Handlers handlers) = 0;
  virtual Routes &routes() = 0;
  // Listens to what becomes of the network on the way to SERVER, until what comes back is destroyed.
  [[nodiscard]] virtual vpnctl::Result<std::shared_ptr<void>> watchNetwork(in_addr server,
                                                                           NetworkWatch::Handlers handlers) = 0;
  // Calls HANDLER, later, when the user whose link this is logs out, until what comes back is destroyed.
  [[nodiscard]] virtual std::shared_ptr<void> afterLogout(std::function<void()> handler) = 0;
  virtual NameServers &nameServers() = 0;
  // Notes for whoever asks that the link to SERVER is up, as UP says. Nothing depends on it.
  virtual void describe(in_addr server, const PluginIPUp &up) = 0;
  // The password, for PEER, which is pppd.
  virtual vpnctl::Result<vpnctl::Secret> password(const Peer &peer) = 0;
  virtual bool kernelHasMPPE() const = 0;
  // Everything that stands in the journal, and the journal. May be called again, and without open().
  virtual void takeBack() = 0;

  // Time, and what is written for the user.
  virtual linux::Clock &clock() = 0;
  virtual void log(std::string_view sentence) = 0;
  // When the last sentence was written, by whomever; the clock's beginning before the first.
  virtual std::chrono::steady_clock::time_point lastLogged() const = 0;
};

}  // namespace helper
