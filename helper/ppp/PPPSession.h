// PPP on one link, as the link sees it: a pppd that has been started, speaks, and ends. PPPDaemon is the real one.
//
// Usual sequence: giveChannel when the tunnel is there; phases, password, ipUp; ended, once, last. Thread rule: the
// thread of the event loop. Nothing blocks but closeNow. No handler is called from within a method.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "foundation/Secret.h"
#include "helper/common/Tunnel.h"
#include "helper/ppp/PluginMessages.h"

namespace helper {

class Peer;

// How pppd ended, with what is needed to say why.
struct PPPEnd {
  bool exited = true;     // false: by a signal
  int code = 0;           // exit status, or the signal's number
  bool reported = false;  // the plugin was heard at all
  bool carried = false;   // the tunnel's channel had been handed over
  bool hungUp = false;    // it was told that the line is gone
  std::uint32_t packetsReceived = 0;
  int furthestPhase = 0;  // of pppd, before it began to end
  PPPDispute dispute{};
};

class PPPSession {
 public:
  struct Handlers {
    std::function<void(int phase)> phase;
    // PEER asks for the password: answer at once.
    std::function<std::optional<vpnctl::Secret>(const Peer &peer)> password;
    std::function<void(const PluginIPUp &)> ipUp;
    std::function<void(const PPPEnd &)> ended;
  };

  virtual ~PPPSession() = default;
  virtual bool running() const = 0;
  // The tunnel's; waits here when pppd has not asked yet.
  virtual void giveChannel(TunnelChannel channel) = 0;
  // Orderly: pppd says goodbye to the server. After GRACE it is killed; at once on a loop that has finished.
  virtual void terminate(std::chrono::milliseconds grace) = 0;
  // The line is gone: pppd ends as after a hang-up. After GRACE it is killed; at once on a loop that has finished.
  virtual void hangUp(std::chrono::milliseconds grace) = 0;
  // Ends pppd without the loop, which may have finished, and without telling anybody: as after a hang-up when it has
  // its channel. Blocks up to DEADLINE, then kills.
  virtual void closeNow(std::chrono::milliseconds deadline) = 0;
};

}  // namespace helper
