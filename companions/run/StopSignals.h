// The signals that ask for the end of the connection: SIGINT, SIGTERM, SIGHUP, SIGUSR1. Blocked from its making on, and
// read from a descriptor. SIGINT and SIGHUP are left alone where whoever started us has them ignored (nohup, a shell's
// job in the background).
//
// Usual sequence: one, first thing in main; watch() once there is a loop. Thread rule: made before there are threads.

#pragma once

#include <systemd/sd-event.h>

#include <functional>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "linux/EventSource.h"

namespace companions {

class StopSignals {
 public:
  static vpnctl::Result<StopSignals> block();

  // Readable when one has come.
  int descriptor() const { return descriptor_.get(); }
  // HANDLER is called for each that comes, also for one that came before.
  void watch(sd_event *event, std::function<void()> handler);

 private:
  explicit StopSignals(vpnctl::FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  vpnctl::FileDescriptor descriptor_;
  linux::EventSource readable_;
};

}  // namespace companions
