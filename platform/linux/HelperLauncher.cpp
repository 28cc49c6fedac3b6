#include "platform/linux/HelperLauncher.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace platform {

using foundation::FileDescriptor;

foundation::Result<LaunchedHelper> launchHelper(const std::string &path) {
  int pair[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0)
    return foundation::errnoError(errno, "make a socket pair");
  LaunchedHelper helper;
  helper.path = path;
  helper.socket.reset(pair[0]);
  const FileDescriptor itsEnd(pair[1]);
  auto process = linux::ChildProcess::spawn({path}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}, {.input = itsEnd.get()});
  if (!process) return process.error();
  helper.process.emplace(std::move(*process));
  return helper;
}

}  // namespace platform
