// Tells systemd-resolved, over the system's bus, which name servers an interface has. What it is told goes with the
// interface, so nothing needs to be taken back.
//
// Usual sequence: construct, tell(), once. Destroying it before the answer keeps it from coming. Thread rule: the
// thread of the event loop. Nothing blocks.

#pragma once

#include <netinet/in.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "linux/EventSource.h"
#include "linux/SystemdOwners.h"

namespace helper {

class ResolvedClient {
 public:
  // An answer takes milliseconds; who has not answered by then will not.
  static constexpr std::chrono::milliseconds kDeadline{2000};
  // The error's message is part of a sentence, with systemd-resolved or the bus as its subject.
  using Handler = std::function<void(const vpnctl::Status &)>;

  // BUS is a D-Bus address.
  ResolvedClient(sd_event *event, std::string bus, std::chrono::milliseconds deadline = kDeadline);
  ResolvedClient(const ResolvedClient &) = delete;
  ResolvedClient &operator=(const ResolvedClient &) = delete;

  // SERVERS are the interface's of number INDEX; names below DOMAINS are asked for there, every name if PRIMARY.
  // HANDLER is called once, from the loop; it may destroy this.
  void tell(int index, const std::vector<in_addr> &servers, const std::vector<std::string> &domains, bool primary,
            Handler handler);

 private:
  int connect();
  int send(sd_bus_message *message);
  static int answered(sd_bus_message *answer, void *client, sd_bus_error *error);
  void finish(const vpnctl::Status &status);

  sd_event *event_;
  const std::string address_;
  const std::chrono::milliseconds deadlineAfter_;
  Handler handler_;
  linux::Bus bus_;
  int unanswered_ = 0;
  linux::EventSource next_;
};

}  // namespace helper
