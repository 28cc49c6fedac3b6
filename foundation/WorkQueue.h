// A serial work queue: blocks run one after the other on one background thread of the queue's own, in the order of
// submission.
//
// Destroying the queue lets go of it: blocks already submitted still run, a block that runs is not waited for, and the
// thread ends after the last one. The thread holds what it needs. Signals are blocked on the thread. Thread rule:
// async() from any thread.

#pragma once

#include <functional>
#include <memory>
#include <string>

namespace vpnctl {

class WorkQueue {
 public:
  // LABEL becomes the thread's name, cut to 15 bytes. The thread starts with the first block.
  explicit WorkQueue(std::string label);
  WorkQueue(const WorkQueue &) = delete;
  WorkQueue &operator=(const WorkQueue &) = delete;
  ~WorkQueue();

  const std::string &label() const;
  // Returns at once.
  void async(std::function<void()> block);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vpnctl
