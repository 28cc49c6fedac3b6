// One VPN link: a LinkConfiguration goes in, status changes come out, and every change to the machine is undone at the
// end.
//
// Usual sequence: construct, start(), status changes through the handler until one says disconnected. stop() at any
// time, also before start() (then the link ends at once after its start). Destroying a link that is not down takes it
// down first, within five seconds at most.
//
// Thread rule: the thread of the event loop. Nothing but the destructor blocks. The handler may destroy the link only
// when it hears "disconnected".

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "foundation/Value.h"
#include "helper/common/PPPLog.h"
#include "helper/common/SecretSource.h"
#include "helper/link/LinkConfiguration.h"

struct sd_event;

namespace helper {

// The whole state at one moment.
struct LinkStatus {
  std::int32_t status = 0;  // SCNetworkConnectionStatus: 0 disconnected, 1 connecting, 2 connected, 3 disconnecting
  std::int32_t error = 0;   // what SCError() is for the callback
  foundation::Value extendedStatus;  // {"PPP": {Status, ...}, "IPv4": {...}}, or null before the first start
};

class Link {
 public:
  using StatusHandler = std::function<void(const LinkStatus &)>;

  Link(sd_event *event, LinkConfiguration configuration, SecretSource &secrets, PPPLog &log, StatusHandler handler);
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;
  ~Link();

  void start();
  void stop();
  const LinkStatus &status() const;
  // True once disconnected has been told, when the machine is clean again.
  bool isDown() const;

  // The tool waits for its helper, which repairs first; what is left after this is left to the next one.
  static constexpr std::chrono::milliseconds kRepairDeadline{10000};
  // Undoes what links of helpers that have died left behind; never touches the folder of a living one. Blocks: nothing
  // is begun after the deadline. True if one of them went over L2TP: nobody has told its server that it has ended.
  static bool repair(PPPLog &log);

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace helper
