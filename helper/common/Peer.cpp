#include "helper/common/Peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Result;

namespace {

Result<ucred> credentialsOf(int socket) {
  ucred credentials = {};
  socklen_t size = sizeof(credentials);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) < 0)
    return errnoError(errno, "ask for a peer");
  return credentials;
}

bool isReadable(int descriptor, short events) {
  pollfd waiting = {descriptor, events, 0};
  return ::poll(&waiting, 1, 0) > 0;
}

}  // namespace

Peer::Peer(pid_t pid, uid_t uid, FileDescriptor process) : pid_(pid), uid_(uid), process_(std::move(process)) {}

Result<uid_t> Peer::userOf(int socket) {
  const auto credentials = credentialsOf(socket);
  if (!credentials) return credentials.error();
  return credentials->uid;
}

Result<Peer> Peer::ofSocket(int socket) {
  const auto asked = credentialsOf(socket);
  if (!asked) return asked.error();
  const ucred &credentials = *asked;
  // A peer outside our process namespace has the id 0, one that is gone and reaped has none to open.
  if (credentials.pid <= 0) return errnoError(ESRCH, "ask for a peer");
  FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, credentials.pid, 0U)));
  if (!process) return errnoError(errno, "open process " + std::to_string(credentials.pid));
  // The id may have been given anew between the connection and the line above; but then the process that connected is
  // gone, and its end of the socket with it.
  if (isReadable(process.get(), POLLIN) || isReadable(socket, POLLRDHUP))
    return errnoError(ESRCH, "open process " + std::to_string(credentials.pid));
  return Peer(credentials.pid, credentials.uid, std::move(process));
}

Result<Peer> Peer::ofChild(pid_t child) {
  FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U)));
  if (!process) return errnoError(errno, "open process " + std::to_string(child));
  return Peer(child, ::getuid(), std::move(process));
}

bool Peer::runs(const std::string &path) const {
  struct stat wanted = {};
  struct stat running = {};
  const std::string executable = "/proc/" + std::to_string(pid_) + "/exe";
  if (::stat(path.c_str(), &wanted) < 0 || ::stat(executable.c_str(), &running) < 0) return false;
  if (wanted.st_dev != running.st_dev || wanted.st_ino != running.st_ino) return false;
  // Asked last: while the process lives, its id cannot have come to mean another.
  return !isReadable(process_.get(), POLLIN);
}

}  // namespace helper
