#include "companions/run/StopSignals.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace companions {

vpnctl::Result<StopSignals> StopSignals::block() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGUSR1}) sigaddset(&signals, number);
  // A signal that is ignored is read from a descriptor all the same, once it is blocked.
  for (const int number : {SIGINT, SIGHUP}) {
    struct sigaction action {};
    if (::sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) sigaddset(&signals, number);
  }
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  vpnctl::FileDescriptor descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!descriptor) return vpnctl::errnoError(errno, "signalfd");
  return StopSignals(std::move(descriptor));
}

void StopSignals::watch(sd_event *event, std::function<void()> handler) {
  readable_ = linux::EventSource::io(
      event, descriptor_.get(), EPOLLIN,
      [fd = descriptor_.get(), handler = std::move(handler)](std::uint32_t) {
        signalfd_siginfo info{};
        if (::read(fd, &info, sizeof info) == sizeof info) handler();
      });
}

}  // namespace companions
