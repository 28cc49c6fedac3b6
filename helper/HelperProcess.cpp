#include "helper/HelperProcess.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "foundation/ProcessMemory.h"
#include "foundation/Secret.h"
#include "foundation/StandardStreams.h"
#include "helper/OwnLimits.h"
#include "linux/EventSource.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Status;

namespace {

constexpr int kFirstFree = 3;

bool isUnixSocket(int descriptor) {
  int domain = 0;
  socklen_t size = sizeof(domain);
  return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
}

Status replaceStandardDescriptors() {
  const FileDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null) return errnoError(errno, "open /dev/null");
  for (int descriptor = 0; descriptor < kFirstFree; ++descriptor)
    if (::dup2(null.get(), descriptor) < 0) return errnoError(errno, "replace a standard descriptor");
  return {};
}

// What the starter ignored or blocked stays so through exec: an ignored SIGCHLD hides how pppd ended.
void resetSignals() {
  for (int number = 1; number <= SIGRTMAX; ++number) std::signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

Status leaveSurroundings() {
  ::setsid();  // fails where the starter has done it already
  ::umask(077);
  if (::chdir("/") < 0) return errnoError(errno, "change to /");
  if (::clearenv() != 0 || ::setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1) != 0 || ::setenv("LC_ALL", "C", 1) != 0)
    return errnoError(ENOMEM, "clean the environment");
  return {};
}

}  // namespace

Status prepareRepairProcess() {
  resetSignals();
  takeOwnLimits();
  vpnctl::openMissingStandardStreams();
  // Nobody may end it in the middle by not reading what it says.
  std::signal(SIGPIPE, SIG_IGN);
  if (::close_range(kFirstFree, ~0U, 0) < 0) return errnoError(errno, "close inherited descriptors");
  return leaveSurroundings();
}

Result<FileDescriptor> prepareHelperProcess() {
  resetSignals();
  takeOwnLimits();
  vpnctl::openMissingStandardStreams();
  if (!isUnixSocket(0))
    return Error{std::string(vpnctl::kPOSIXErrorDomain), ENOTSOCK, "standard input is not the tool's socket"};
  vpnctl::protectProcessMemory();
  if (::close_range(kFirstFree, ~0U, 0) < 0) return errnoError(errno, "close inherited descriptors");
  FileDescriptor socket(::fcntl(0, F_DUPFD_CLOEXEC, kFirstFree));
  if (!socket) return errnoError(errno, "keep the tool's socket");
  if (auto status = replaceStandardDescriptors(); !status) return status.error();
  if (auto status = leaveSurroundings(); !status) return status.error();
  return socket;
}

Status endOnSignals(sd_event *event, std::function<void()> &end) {
  std::signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, number);
    if (::sigprocmask(SIG_BLOCK, &one, nullptr) < 0) return errnoError(errno, "block a signal");
    const int result = sd_event_add_signal(
        event, nullptr, number,
        [](sd_event_source *source, const signalfd_siginfo *, void *handler) {
          linux::endLoopOnException(sd_event_source_get_event(source), *static_cast<std::function<void()> *>(handler));
          return 0;
        },
        &end);
    if (result < 0) return errnoError(-result, "watch a signal");
  }
  return {};
}

int runLoop(sd_event *event, PPPLog &log) {
  int result = 0;
  while (result >= 0 && sd_event_get_state(event) != SD_EVENT_FINISHED) {
    result = sd_event_run(event, UINT64_MAX);
    vpnctl::wipeDeadStack();  // a secret may have come by
  }
  if (result >= 0) sd_event_get_exit_code(event, &result);
  if (result == 0) return 0;
  log.write(errnoError(std::abs(result), "The helper cannot go on and takes the connection down").message + ".");
  return 1;
}

}  // namespace helper
