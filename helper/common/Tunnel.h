// A tunnel: what stands between the network and PPP. It sets itself up and yields a connected PPPoX socket, which
// becomes pppd's channel; everything above does not know which protocol it is.
//
// Usual sequence: start(), then exactly one of up or failed; after up perhaps lost, once. stop() at any time, also
// twice or before start(), ends with stopped, once. No handler is called from within start() or stop(), nor after
// destruction. Destroying a tunnel that is up ends it without waiting for the server's answers.
//
// Thread rule: the thread of the event loop. Nothing blocks.

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/common/TunnelFailure.h"

namespace helper {

// A tunnel's way for PPP's frames.
struct TunnelChannel {
  TunnelChannel(vpnctl::FileDescriptor connected = {}, std::vector<std::uint8_t> early = {},
                vpnctl::FileDescriptor below = {})
      : socket(std::move(connected)), carrier(std::move(below)), earlyFrame(std::move(early)) {}

  vpnctl::FileDescriptor socket;  // connected
  // Of a tunnel whose frames travel in a socket of ours, that one: whoever has the channel holds it for as long. The
  // kernel takes a closed socket's IPSec policy away at once and its tunnel only later; what PPP says in between would
  // travel in clear.
  vpnctl::FileDescriptor carrier;
  // What the server has said before the socket could hear it, or just after: an LCP request from address and control
  // on; empty: nothing.
  std::vector<std::uint8_t> earlyFrame;
};

class Tunnel {
 public:
  using DeviceCause = helper::DeviceCause;
  using Failure = TunnelFailure;
  using Loss = TunnelLoss;

  struct Handlers {
    // The channel, for pppd. What the server is called is of no interest any more.
    std::function<void(TunnelChannel channel)> up;
    std::function<void(const Failure &)> failed;
    // The server ended the call, or is gone.
    std::function<void(const Loss &)> lost;
    std::function<void()> stopped;
  };

  virtual ~Tunnel() = default;
  virtual void start() = 0;
  // Asks a server that should be there whether it still is, at once; unless it answers soon, lost follows.
  virtual void check() = 0;
  // Tells the server, waits for its answers within a deadline of its own.
  virtual void stop() = 0;
};

}  // namespace helper
