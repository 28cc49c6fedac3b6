// One VPN link, as its owner sees it. VPNLink is the real one.
//
// Usual sequence: start(), status changes through the handler until one says disconnected. stop() at any time, also
// before start() (then the link ends at once after its start). Destroying a link that is not down takes it down first,
// within five seconds at most.
//
// Thread rule: the thread of the event loop. Nothing but the destructor blocks. The handler may destroy the link only
// when it hears "disconnected".

#pragma once

#include <cstdint>
#include <functional>

#include "foundation/Value.h"

namespace helper {

// The whole state at one moment.
struct LinkStatus {
  std::int32_t status = 0;  // SCNetworkConnectionStatus: 0 disconnected, 1 connecting, 2 connected, 3 disconnecting
  std::int32_t error = 0;   // what SCError() is for the callback
  vpnctl::Value extendedStatus;  // {"PPP": {Status, ...}, "IPv4": {...}}, or null before the first start
};

class Link {
 public:
  using StatusHandler = std::function<void(const LinkStatus &)>;

  virtual ~Link() = default;
  virtual void start() = 0;
  virtual void stop() = 0;
  virtual const LinkStatus &status() const = 0;
  // True once disconnected has been told, when the machine is clean again.
  virtual bool isDown() const = 0;
};

}  // namespace helper
