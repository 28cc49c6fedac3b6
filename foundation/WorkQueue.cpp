#include "foundation/WorkQueue.h"

#include <signal.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "foundation/Assertion.h"
#include "foundation/ThreadName.h"

namespace vpnctl {

namespace {

// Blocks every signal on the calling thread while it lives. A thread started meanwhile inherits the mask, so that no
// signal can slip in before its first instruction.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  AllSignalsBlocked(const AllSignalsBlocked &) = delete;
  AllSignalsBlocked &operator=(const AllSignalsBlocked &) = delete;
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

 private:
  sigset_t previous_;
};

}  // namespace

// Shared by the queue and its thread: whichever lets go last frees it.
struct WorkQueue::State {
  explicit State(std::string name) : label(std::move(name)) {}

  const std::string label;
  std::mutex mutex;  // guards what follows
  std::condition_variable changed;
  std::deque<std::function<void()>> blocks;
  bool started = false;
  bool abandoned = false;

  // The next block; an empty function when the thread is to end.
  std::function<void()> next() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return !blocks.empty() || abandoned; });
    if (blocks.empty()) return nullptr;
    std::function<void()> block = std::move(blocks.front());
    blocks.pop_front();
    return block;
  }
};

WorkQueue::WorkQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {}

WorkQueue::~WorkQueue() {
  const std::lock_guard lock(state_->mutex);
  state_->abandoned = true;
  state_->changed.notify_one();
}

const std::string &WorkQueue::label() const { return state_->label; }

void WorkQueue::async(std::function<void()> block) {
  FOUNDATION_ASSERT(block != nullptr);
  const std::lock_guard lock(state_->mutex);
  state_->blocks.push_back(std::move(block));
  state_->changed.notify_one();
  if (state_->started) return;

  const AllSignalsBlocked blocked;
  std::thread([state = state_] {
    setThreadName(state->label);
    // A block, and whatever it holds, is gone before the next one is taken.
    while (const std::function<void()> next = state->next()) next();
  }).detach();
  state_->started = true;
}

}  // namespace vpnctl
