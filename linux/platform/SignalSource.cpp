// The signal source of Dispatch.h: a thread that reads a signalfd and hands each arrival to the source's queue.

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <mutex>
#include <thread>
#include <utility>

#include "foundation/FileDescriptor.h"
#include "platform/Dispatch.h"

namespace platform {
namespace {

// What the source, its thread and a handler that runs share; it lives as long as the last of them.
struct SourceState : std::enable_shared_from_this<SourceState> {
  int signal = 0;
  dispatch_queue_t queue;
  vpnctl::FileDescriptor signals;
  vpnctl::FileDescriptor wake;  // an eventfd: the source's end

  std::mutex mutex;
  dispatch_block_t handler;
  bool arrived = false;    // since the handler last started
  bool running = false;    // the handler is on the queue
  bool cancelled = false;  // the source is gone

  void arrive() {
    const std::lock_guard lock(mutex);
    arrived = true;
    submit();
  }

  // Arrivals while the handler runs become one further run.
  void submit() {
    if (running || !arrived || cancelled || !handler) return;
    running = true;
    arrived = false;
    dispatch_async(queue, [self = shared_from_this(), block = handler] {
      block();
      const std::lock_guard lock(self->mutex);
      self->running = false;
      self->submit();
    });
  }

  void observe() {
    std::array<pollfd, 2> ready{{{signals.get(), POLLIN, 0}, {wake.get(), POLLIN, 0}}};
    while (true) {
      if (poll(ready.data(), ready.size(), -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (ready[1].revents != 0) return;
      signalfd_siginfo information;
      if (read(signals.get(), &information, sizeof information) == sizeof information) arrive();
    }
  }
};

}  // namespace

struct DispatchSource {
  std::shared_ptr<SourceState> state = std::make_shared<SourceState>();

  DispatchSource() = default;
  DispatchSource(const DispatchSource &) = delete;
  DispatchSource &operator=(const DispatchSource &) = delete;
  ~DispatchSource() {
    dispatch_block_t dropped;  // outside the lock: what it holds may die with it
    {
      const std::lock_guard lock(state->mutex);
      state->cancelled = true;
      dropped.swap(state->handler);
    }
    eventfd_write(state->wake.get(), 1);
  }
};

dispatch_source_t dispatch_source_create(dispatch_source_type_t, int signal, std::uintptr_t,
                                         const dispatch_queue_t &queue) {
  auto source = std::make_shared<DispatchSource>();
  source->state->signal = signal;
  source->state->queue = queue;
  source->state->wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  return source;
}

void dispatch_source_set_event_handler(const dispatch_source_t &source, dispatch_block_t handler) {
  const std::lock_guard lock(source->state->mutex);
  source->state->handler.swap(handler);
}

void dispatch_resume(const dispatch_source_t &source) {
  SourceState &state = *source->state;
  if (state.signals) return;
  sigset_t observed;
  sigemptyset(&observed);
  sigaddset(&observed, state.signal);
  pthread_sigmask(SIG_BLOCK, &observed, nullptr);
  state.signals.reset(signalfd(-1, &observed, SFD_CLOEXEC | SFD_NONBLOCK));

  sigset_t everything, before;
  sigfillset(&everything);
  pthread_sigmask(SIG_SETMASK, &everything, &before);
  std::thread([shared = source->state] { shared->observe(); }).detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Setting the ignore action throws a pending signal away, and one may be pending between the moment the source blocked
// it and its thread reads it: the source is told of that one. That narrows the loss to the moment between the two calls
// here.
void ignoreObservedSignal(const dispatch_source_t &source) {
  const int signal = source->state->signal;
  sigset_t pending;
  sigpending(&pending);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(signal, &ignore, nullptr);
  if (sigismember(&pending, signal) == 1) source->state->arrive();
}

}  // namespace platform
