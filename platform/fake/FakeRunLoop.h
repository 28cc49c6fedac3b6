// The run loop's inside: blocks that wait for the thread that runs it.

#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "platform/RunLoop.h"

namespace platform {

struct CFRunLoop {
  using Block = std::function<void()>;

  // Any thread.
  void post(Block block);
  // Forgets what was posted and has not run, then posts.
  void replace(std::deque<Block> blocks);
  void stop();
  // As if nothing had been posted and nobody had stopped it.
  void clear();
  // Runs what is posted until it is stopped.
  void run();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Block> blocks_;
  bool stopped_ = false;
};

}  // namespace platform
