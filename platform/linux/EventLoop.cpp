#include "platform/linux/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "foundation/Assertion.h"

namespace platform {

vpnctl::FileDescriptor newWakeDescriptor() {
  vpnctl::FileDescriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  FOUNDATION_ASSERT(wake);
  return wake;
}

void raiseWake(const vpnctl::FileDescriptor &wake) {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then it is raised already.
  [[maybe_unused]] const ssize_t written = ::write(wake.get(), &one, sizeof(one));
}

bool takeWake(const vpnctl::FileDescriptor &wake) {
  std::uint64_t count = 0;
  return ::read(wake.get(), &count, sizeof(count)) == sizeof(count);
}

CFRunLoop::CFRunLoop() : wake_(newWakeDescriptor()) {
  FOUNDATION_ASSERT(sd_event_new(linux::Out(event_)) >= 0);
  woken_ = linux::EventSource::io(event(), wake_.get(), EPOLLIN, [this](std::uint32_t) { takeWake(wake_); });
}

void CFRunLoop::run() {
  // Not sd_event_exit: that ends a loop for good, and this one may be run again.
  while (!stopped_.exchange(false))
    if (sd_event_run(event(), UINT64_MAX) < 0) return;
}

void CFRunLoop::stop() {
  stopped_ = true;
  raiseWake(wake_);
}

CFRunLoopRef CFRunLoopGetCurrent() {
  thread_local const CFRunLoopRef loop = std::make_shared<CFRunLoop>();
  return loop;
}

void CFRunLoopRun() { CFRunLoopGetCurrent()->run(); }

void CFRunLoopStop(const CFRunLoopRef &runLoop) {
  if (runLoop) runLoop->stop();
}

}  // namespace platform
