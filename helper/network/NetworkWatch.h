// Hears from the kernel what becomes of the network under a tunnel, and of the rules and routes that a link has added.
//
// Thread rule: the thread of the event loop. Nothing blocks.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>

#include "foundation/Result.h"
#include "linux/EventSource.h"

struct nl_sock;

namespace helper {

class NetworkWatch {
 public:
  struct Handlers {
    // The machine no longer has ADDRESS, from which its packets went to the server. Once.
    std::function<void(in_addr address)> addressGone;
    // Somebody has taken away a rule or a route of ours; perhaps a link that has ended its own.
    std::function<void()> routingChanged;
  };

  // Begins with the address from which packets go to SERVER now; where there is no way to it, with none. EVENT outlives
  // it. A handler may destroy it.
  static vpnctl::Result<std::unique_ptr<NetworkWatch>> start(sd_event *event, in_addr server, Handlers handlers);
  NetworkWatch(const NetworkWatch &) = delete;
  NetworkWatch &operator=(const NetworkWatch &) = delete;
  ~NetworkWatch();

 private:
  struct News {
    bool address = false;
    bool routing = false;
  };

  NetworkWatch(sd_event *event, Handlers handlers);
  void read();
  void checkAddress();

  sd_event *event_;
  Handlers handlers_;
  nl_sock *socket_;
  in_addr address_{};
  News news_;  // of the messages that are being read
  linux::EventSource io_;
  linux::EventSource check_;
};

}  // namespace helper
