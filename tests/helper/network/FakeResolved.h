// systemd-resolved and the system's bus in one, behind a Unix socket: records what it is told and answers as it was
// set.

#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <string>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "linux/EventSource.h"
#include "linux/SystemdOwners.h"

class FakeResolved {
 public:
  enum class Mood {
    willing,
    silent,   // hears everything, says nothing, not even to the greeting
    absent,   // a bus without the daemon
    refusing  // an error for every call
  };

  // Listens at PATH, answers from EVENT's loop.
  FakeResolved(sd_event *event, const std::string &path, Mood mood);
  FakeResolved(const FakeResolved &) = delete;
  FakeResolved &operator=(const FakeResolved &) = delete;

  // The calls so far, as "SetLinkDefaultRoute 7 true".
  std::vector<std::string> calls;

 private:
  void connectionArrived();
  static int called(sd_bus_message *message, void *self, sd_bus_error *error);
  int answer(sd_bus_message *message);
  std::string describe(sd_bus_message *message);

  sd_event *event_;
  Mood mood_;
  vpnctl::FileDescriptor listener_;
  linux::EventSource listening_;
  linux::Bus bus_;
};
