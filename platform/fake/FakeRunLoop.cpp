#include "platform/fake/FakeRunLoop.h"

#include <utility>

#include "platform/fake/FakePlatform.h"
#include "platform/fake/FakeText.h"

namespace platform {

void CFRunLoop::post(Block block) {
  const std::lock_guard lock(mutex_);
  blocks_.push_back(std::move(block));
  changed_.notify_all();
}

void CFRunLoop::replace(std::deque<Block> blocks) {
  const std::lock_guard lock(mutex_);
  blocks_.swap(blocks);
  changed_.notify_all();
}

void CFRunLoop::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

void CFRunLoop::clear() {
  replace({});
  const std::lock_guard lock(mutex_);
  stopped_ = false;
}

void CFRunLoop::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return stopped_ || !blocks_.empty(); });
    if (std::exchange(stopped_, false)) return;
    const Block block = std::move(blocks_.front());
    blocks_.pop_front();
    lock.unlock();
    block();
    lock.lock();
  }
}

CFRunLoopRef CFRunLoopGetCurrent() {
  thread_local const CFRunLoopRef loop = std::make_shared<CFRunLoop>();
  return loop;
}

void CFRunLoopRun() {
  fake::FakePlatform::instance().enter("CFRunLoopRun", "");
  CFRunLoopGetCurrent()->run();
}

void CFRunLoopStop(const CFRunLoopRef &runLoop) {
  fake::FakePlatform::instance().enter("CFRunLoopStop", runLoop == CFRunLoopGetCurrent() ? "current" : "other");
  runLoop->stop();
}

}  // namespace platform
