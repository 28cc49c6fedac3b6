// Hears from the kernel that ESP associations were taken away. Some IKE daemons take all away when they start, and an
// administrator may: the guard of a socket then lets nothing through, and only missed echoes would tell.
//
// Thread rule: the thread of the event loop. Nothing blocks.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "foundation/Result.h"
#include "linux/EventSource.h"

struct nl_sock;

namespace helper {

class ESPStateWatch {
 public:
  struct Removed {
    in_addr destination{};
    std::uint32_t spi = 0;
  };
  struct News {
    std::vector<Removed> removed;  // by whomever, for whomever
    bool all = false;              // or more than the kernel tells of: whoever has one looks for it
  };
  using Handler = std::function<void(const News &)>;

  virtual ~ESPStateWatch() = default;
};

class NetlinkESPStateWatch : public ESPStateWatch {
 public:
  // EVENT outlives it. HANDLER may destroy it.
  static vpnctl::Result<std::unique_ptr<ESPStateWatch>> start(sd_event *event, Handler handler);
  NetlinkESPStateWatch(const NetlinkESPStateWatch &) = delete;
  NetlinkESPStateWatch &operator=(const NetlinkESPStateWatch &) = delete;
  ~NetlinkESPStateWatch() override;

 private:
  explicit NetlinkESPStateWatch(Handler handler);
  void read();

  Handler handler_;
  nl_sock *socket_;
  News news_;  // of the messages that are being read
  linux::EventSource io_;
};

}  // namespace helper
