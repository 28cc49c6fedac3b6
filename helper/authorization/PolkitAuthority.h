// polkit, over the system bus: the action org.vpnctl.system-preferences, for the process at the socket's other end. It
// is named by its number, its start time and its user, so that nobody can take its place.
//
// Sequence and thread rule: Authority's.

#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <string>

#include "foundation/Result.h"
#include "helper/authorization/Authority.h"
#include "linux/EventSource.h"
#include "linux/SystemdOwners.h"

namespace helper {

class PolkitAuthority : public Authority {
 public:
  static constexpr char kAction[] = "org.vpnctl.system-preferences";

  using BusOpener = std::function<vpnctl::Result<linux::Bus>()>;

  // EVENT outlives it. OPEN_BUS is for tests.
  explicit PolkitAuthority(sd_event *event) : PolkitAuthority(event, openSystemBus) {}
  PolkitAuthority(sd_event *event, BusOpener openBus) : event_(event), openBus_(std::move(openBus)) {}
  PolkitAuthority(const PolkitAuthority &) = delete;
  PolkitAuthority &operator=(const PolkitAuthority &) = delete;
  ~PolkitAuthority() override { withdraw(); }

  void ask(const Peer &peer, bool mayInteract, Handler handler) override;

 private:
  static vpnctl::Result<linux::Bus> openSystemBus();
  vpnctl::Status send(const Peer &peer, bool mayInteract);
  int answered(sd_bus_message *reply);
  void tell(Answer answer);
  void withdraw();

  sd_event *event_;
  BusOpener openBus_;
  linux::Bus bus_;
  linux::BusSlot question_;
  linux::EventSource soon_;
  Handler handler_;
  std::string user_;  // for sentences
  bool mayInteract_ = false;
};

}  // namespace helper
