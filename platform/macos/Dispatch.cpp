#include "platform/Dispatch.h"

#include <signal.h>

#include <utility>

#include "platform/macos/Frameworks.h"

namespace platform {
namespace {

void runAndDelete(void *context) {
  const std::unique_ptr<dispatch_block_t> block(static_cast<dispatch_block_t *>(context));
  (*block)();
}

void runHandler(void *context) { (*static_cast<dispatch_block_t *>(context))(); }

void deleteHandler(void *context) { delete static_cast<dispatch_block_t *>(context); }

}  // namespace

struct DispatchQueue {
  explicit DispatchQueue(::dispatch_queue_t native, bool isOurs) : queue(native), ours(isOurs) {}
  DispatchQueue(const DispatchQueue &) = delete;
  DispatchQueue &operator=(const DispatchQueue &) = delete;
  ~DispatchQueue() {
    if (ours) ::dispatch_release(queue);
  }

  const ::dispatch_queue_t queue;
  const bool ours;
};

struct DispatchSource {
  DispatchSource(::dispatch_source_t native, int number)
      : source(native), signal(number), handler(new dispatch_block_t) {
    ::dispatch_set_context(source, handler);
    ::dispatch_set_finalizer_f(source, deleteHandler);
    ::dispatch_source_set_event_handler_f(source, runHandler);
  }
  DispatchSource(const DispatchSource &) = delete;
  DispatchSource &operator=(const DispatchSource &) = delete;
  ~DispatchSource() {
    ::dispatch_source_cancel(source);
    // To release what is suspended would end the process.
    if (!resumed) ::dispatch_resume(source);
    ::dispatch_release(source);
  }

  const ::dispatch_source_t source;
  const int signal;
  dispatch_block_t *const handler;  // the source's: a run may outlive this
  bool resumed = false;
};

dispatch_queue_t dispatch_get_global_queue(std::intptr_t priority, std::uintptr_t flags) {
  return std::make_shared<DispatchQueue>(::dispatch_get_global_queue(priority, flags), false);
}

dispatch_queue_t dispatch_queue_create(const std::string &label) {
  return std::make_shared<DispatchQueue>(::dispatch_queue_create(label.c_str(), nullptr), true);
}

void dispatch_async(const dispatch_queue_t &queue, dispatch_block_t block) {
  ::dispatch_async_f(queue->queue, new dispatch_block_t(std::move(block)), runAndDelete);
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t, int signal, std::uintptr_t mask,
                                         const dispatch_queue_t &queue) {
  return std::make_shared<DispatchSource>(
      ::dispatch_source_create(macos::kSignalSourceType, static_cast<std::uintptr_t>(signal), mask, queue->queue),
      signal);
}

void dispatch_source_set_event_handler(const dispatch_source_t &source, dispatch_block_t handler) {
  *source->handler = std::move(handler);
}

void dispatch_resume(const dispatch_source_t &source) {
  if (std::exchange(source->resumed, true)) return;
  ::dispatch_resume(source->source);
}

// The source sees signals whatever their action is, ignored ones too.
void ignoreObservedSignal(const dispatch_source_t &source) {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(source->signal, &ignore, nullptr);
}

}  // namespace platform
