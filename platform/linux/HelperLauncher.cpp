#include "platform/linux/HelperLauncher.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <utility>

namespace platform {

using vpnctl::FileDescriptor;

vpnctl::Result<LaunchedHelper> launchHelper(const std::string &path) {
  int pair[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0)
    return vpnctl::errnoError(errno, "make a socket pair");
  LaunchedHelper helper;
  helper.path = path;
  helper.socket.reset(pair[0]);
  const FileDescriptor itsEnd(pair[1]);
  auto process = linux::ChildProcess::spawn({path}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}, {.input = itsEnd.get()});
  if (!process) return process.error();
  helper.process.emplace(std::move(*process));
  return helper;
}

vpnctl::Result<LaunchedHelper> callHelper(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return vpnctl::errnoError(ENAMETOOLONG, "connect to " + path);
  path.copy(address.sun_path, path.size());
  LaunchedHelper helper;
  helper.path = path;
  helper.socket.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!helper.socket) return vpnctl::errnoError(errno, "make a socket");
  if (::connect(helper.socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
    return vpnctl::errnoError(errno, "connect to " + path);
  return helper;
}

}  // namespace platform
