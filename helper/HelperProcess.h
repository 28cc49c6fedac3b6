// What the helper's process does about itself before it touches anything: it is root's, and was started by somebody
// else's program with somebody else's descriptors, signals and environment.

#pragma once

#include <systemd/sd-event.h>

#include <functional>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "helper/common/PPPLog.h"

namespace helper {

// Leaves the starter's session, descriptors (all but 0 are closed, 0 to 2 become /dev/null), signal settings, limits,
// timers, priorities, environment, umask and folder behind, and protects its memory. Gives descriptor 0, which must be
// a connected Unix socket, under another number, close-on-exec. Call it first, once, before there are threads.
vpnctl::Result<vpnctl::FileDescriptor> prepareHelperProcess();

// The same for a helper that serves nobody: no socket is asked for, and the standard descriptors stay.
vpnctl::Status prepareRepairProcess();

// SIGTERM, SIGINT and SIGHUP call END from the event loop; SIGPIPE is ignored. END outlives EVENT.
vpnctl::Status endOnSignals(sd_event *event, std::function<void()> &end);

// Runs EVENT's loop to its end; the process's exit status. An end by an exception is told in LOG.
int runLoop(sd_event *event, PPPLog &log);

}  // namespace helper
