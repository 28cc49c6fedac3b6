// Starts vpnctl-helper, or has it started.

#pragma once

#include <optional>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "linux/ChildProcess.h"

namespace platform {

struct LaunchedHelper {
  std::string path;                            // of the program, or of the socket
  vpnctl::FileDescriptor socket;               // our end
  std::optional<linux::ChildProcess> process;  // none: somebody else's
};

// Starts the program at PATH with one end of a socket pair as its standard input, nothing on the other two, in a
// session of its own and with nothing else of ours: no descriptors, no signal settings, no environment but PATH. The
// error is POSIX's when it cannot be started. Does not wait for it to answer.
vpnctl::Result<LaunchedHelper> launchHelper(const std::string &path);

// Connects to the socket at PATH, for which the system starts a helper; for whoever is not root. The error is POSIX's
// when nobody listens there. Blocks only while too many others do the same.
vpnctl::Result<LaunchedHelper> callHelper(const std::string &path);

}  // namespace platform
