// Starts vpnctl-helper.

#pragma once

#include <sys/types.h>

#include <string>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace platform {

struct LaunchedHelper {
  foundation::FileDescriptor socket;   // our end
  foundation::FileDescriptor process;  // a pidfd; readable when the helper has ended
};

// Starts the program at PATH with one end of a socket pair as its standard input, nothing on the other two, in a
// session of its own and with nothing else of ours: no descriptors, no signal settings, no environment but PATH. The
// error is POSIX's when it cannot be started. Does not wait for it to answer.
foundation::Result<LaunchedHelper> launchHelper(const std::string &path);

}  // namespace platform
