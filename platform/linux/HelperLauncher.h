// Starts vpnctl-helper.

#pragma once

#include <optional>
#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "linux/ChildProcess.h"

namespace platform {

struct LaunchedHelper {
  std::string path;
  foundation::FileDescriptor socket;  // our end
  std::optional<linux::ChildProcess> process;
};

// Starts the program at PATH with one end of a socket pair as its standard input, nothing on the other two, in a
// session of its own and with nothing else of ours: no descriptors, no signal settings, no environment but PATH. The
// error is POSIX's when it cannot be started. Does not wait for it to answer.
foundation::Result<LaunchedHelper> launchHelper(const std::string &path);

}  // namespace platform
