#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "platform/Dispatch.h"

namespace platform {
namespace {

constexpr std::chrono::seconds kPatience{30};

// Counts up, and waits for a count.
class Counter {
 public:
  void add() {
    const std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return count_ >= count; });
  }
  int count() {
    const std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

dispatch_queue_t globalQueue() { return dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0); }

TEST(DispatchQueue, ACreatedQueueRunsItsBlocksInOrderOnOneOtherThread) {
  const dispatch_queue_t queue = dispatch_queue_create("test");
  std::vector<int> order;
  std::set<std::thread::id> threads;
  std::promise<void> done;
  for (int i = 0; i < 100; ++i) {
    dispatch_async(queue, [&, i] {
      order.push_back(i);
      threads.insert(std::this_thread::get_id());
      if (i == 99) done.set_value();
    });
  }
  ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  EXPECT_EQ(threads.size(), 1u);
  EXPECT_FALSE(threads.contains(std::this_thread::get_id()));
}

TEST(DispatchQueue, BlocksRunThoughTheQueueIsGone) {
  Counter counter;
  dispatch_queue_t queue = dispatch_queue_create("test");
  for (int i = 0; i < 10; ++i) dispatch_async(queue, [&] { counter.add(); });
  queue.reset();
  EXPECT_TRUE(counter.waitFor(10));
}

TEST(DispatchQueue, BlocksOfTheGlobalQueueRunSideBySide) {
  std::promise<void> first, second, done;
  dispatch_async(globalQueue(), [&] {
    first.set_value();
    second.get_future().wait();
    done.set_value();
  });
  dispatch_async(globalQueue(), [&] {
    first.get_future().wait();
    second.set_value();
  });
  EXPECT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
}

TEST(DispatchQueue, ItsThreadsTakeNoSignals) {
  std::promise<bool> blocked;
  dispatch_async(globalQueue(), [&] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    blocked.set_value(sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGUSR1) == 1);
  });
  EXPECT_TRUE(blocked.get_future().get());
}

// Leaves the signal as it found it.
class SignalSourceTest : public testing::Test {
 protected:
  SignalSourceTest() { pthread_sigmask(SIG_SETMASK, nullptr, &before_); }
  ~SignalSourceTest() override { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  dispatch_source_t makeSource(dispatch_block_t handler) {
    dispatch_source_t source = dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGUSR2, 0, globalQueue());
    dispatch_source_set_event_handler(source, std::move(handler));
    return source;
  }

 private:
  sigset_t before_;
};

TEST_F(SignalSourceTest, SeesASignalThatIsIgnored) {
  Counter counter;
  const dispatch_source_t source = makeSource([&] { counter.add(); });
  dispatch_resume(source);
  struct sigaction ignore = {};
  struct sigaction old = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGUSR2, &ignore, &old);
  for (int i = 1; i <= 3; ++i) {
    kill(getpid(), SIGUSR2);
    EXPECT_TRUE(counter.waitFor(i));
  }
  sigaction(SIGUSR2, &old, nullptr);
}

TEST_F(SignalSourceTest, ArrivalsDuringARunBecomeOneFurtherRun) {
  Counter counter;
  std::promise<void> go;
  std::shared_future<void> mayEnd = go.get_future().share();
  const dispatch_source_t source = makeSource([&] {
    counter.add();
    mayEnd.wait();
  });
  dispatch_resume(source);
  dispatch_source_merge_data(source, 1);
  ASSERT_TRUE(counter.waitFor(1));
  for (int i = 0; i < 5; ++i) dispatch_source_merge_data(source, 1);
  EXPECT_EQ(counter.count(), 1) << "one run at a time";
  go.set_value();
  EXPECT_TRUE(counter.waitFor(2));
}

TEST_F(SignalSourceTest, MergedDataCountsAsAnArrivalAlsoBeforeTheStart) {
  Counter counter;
  const dispatch_source_t source = makeSource([&] { counter.add(); });
  dispatch_source_merge_data(source, 1);
  EXPECT_EQ(counter.count(), 0);
  dispatch_resume(source);
  EXPECT_TRUE(counter.waitFor(1));
}

TEST_F(SignalSourceTest, ASourceThatGoesLetsItsHandlerGo) {
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> weak = held;
  dispatch_source_t source = makeSource([held] {});
  held.reset();
  dispatch_resume(source);
  EXPECT_FALSE(weak.expired());
  source.reset();
  EXPECT_TRUE(weak.expired());
}

TEST(SleepForTimeInterval, LastsItsTime) {
  const auto before = std::chrono::steady_clock::now();
  sleepForTimeInterval(0.02);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
}

}  // namespace
}  // namespace platform
