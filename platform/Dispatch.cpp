#include "platform/Dispatch.h"

#include <signal.h>

#include <thread>
#include <utility>

#include "foundation/WorkQueue.h"

namespace platform {

// A global queue has no serial queue: each of its blocks gets a thread.
struct DispatchQueue {
  std::unique_ptr<vpnctl::WorkQueue> serial;
};

dispatch_queue_t dispatch_get_global_queue(std::intptr_t, std::uintptr_t) {
  // Never destroyed: a block may still be submitted while the process is on its way out.
  static const auto *const queue = new dispatch_queue_t(std::make_shared<DispatchQueue>());
  return *queue;
}

dispatch_queue_t dispatch_queue_create(const std::string &label) {
  auto queue = std::make_shared<DispatchQueue>();
  queue->serial = std::make_unique<vpnctl::WorkQueue>(label);
  return queue;
}

void dispatch_async(const dispatch_queue_t &queue, dispatch_block_t block) {
  if (queue->serial) {
    queue->serial->async(std::move(block));
    return;
  }
  // A new thread inherits the mask. Signals belong to the thread that has always had them.
  sigset_t everything, before;
  sigfillset(&everything);
  pthread_sigmask(SIG_SETMASK, &everything, &before);
  std::thread(std::move(block)).detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace platform
