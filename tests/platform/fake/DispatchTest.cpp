#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

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

// Blocks own what they touch: the last of them may still be on its way out when the test is over.

TEST(DispatchQueue, ACreatedQueueRunsItsBlocksInOrderOnOneOtherThread) {
  struct Seen {
    std::vector<int> order;
    std::set<std::thread::id> threads;
    Counter done;
  };
  const dispatch_queue_t queue = dispatch_queue_create("test");
  const auto seen = std::make_shared<Seen>();
  for (int i = 0; i < 100; ++i) {
    dispatch_async(
        queue,
        [seen, i] {
          seen->order.push_back(i);
          seen->threads.insert(std::this_thread::get_id());
          if (i == 99) seen->done.add();
        });
  }
  ASSERT_TRUE(seen->done.waitFor(1));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(seen->order[static_cast<std::size_t>(i)], i);
  EXPECT_EQ(seen->threads.size(), 1u);
  EXPECT_FALSE(seen->threads.contains(std::this_thread::get_id()));
}

TEST(DispatchQueue, ABlockIsGoneBeforeTheNextRuns) {
  const dispatch_queue_t queue = dispatch_queue_create("test");
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> seen = held;
  const auto gone = std::make_shared<bool>(false);
  const auto done = std::make_shared<Counter>();
  dispatch_async(queue, [held = std::move(held)] {});
  dispatch_async(queue, [=] {
    *gone = seen.expired();
    done->add();
  });
  ASSERT_TRUE(done->waitFor(1));
  EXPECT_TRUE(*gone);
}

TEST(DispatchQueue, BlocksRunThoughTheQueueIsGone) {
  const auto counter = std::make_shared<Counter>();
  dispatch_queue_t queue = dispatch_queue_create("test");
  for (int i = 0; i < 10; ++i) dispatch_async(queue, [counter] { counter->add(); });
  queue.reset();
  EXPECT_TRUE(counter->waitFor(10));
}

TEST(DispatchQueue, BlocksOfTheGlobalQueueRunSideBySide) {
  struct Meeting {
    Counter first, second, done;
  };
  const auto meeting = std::make_shared<Meeting>();
  dispatch_async(
      globalQueue(),
      [meeting] {
        meeting->first.add();
        if (meeting->second.waitFor(1)) meeting->done.add();
      });
  dispatch_async(globalQueue(), [meeting] {
    if (meeting->first.waitFor(1)) meeting->second.add();
  });
  EXPECT_TRUE(meeting->done.waitFor(1));
}

TEST(DispatchQueue, ItsThreadsTakeNoSignals) {
  struct Seen {
    bool blocked = false;
    Counter done;
  };
  const auto seen = std::make_shared<Seen>();
  dispatch_async(globalQueue(), [seen] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    seen->blocked = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGUSR1) == 1;
    seen->done.add();
  });
  ASSERT_TRUE(seen->done.waitFor(1));
  EXPECT_TRUE(seen->blocked);
}

// Leaves the signal as it found it.
class SignalSourceTest : public testing::Test {
 protected:
  SignalSourceTest() {
    pthread_sigmask(SIG_SETMASK, nullptr, &before_);
    sigaction(SIGUSR2, nullptr, &action_);
  }
  ~SignalSourceTest() override {
    std::signal(SIGUSR2, SIG_IGN);  // throws away what has not been read
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    sigaction(SIGUSR2, &action_, nullptr);
  }

  dispatch_source_t makeSource(dispatch_block_t handler) {
    dispatch_source_t source = dispatch_source_create(DISPATCH_SOURCE_TYPE_SIGNAL, SIGUSR2, 0, globalQueue());
    dispatch_source_set_event_handler(source, std::move(handler));
    return source;
  }

 private:
  sigset_t before_;
  struct sigaction action_ = {};
};

TEST_F(SignalSourceTest, SeesASignalThatIsIgnored) {
  const auto counter = std::make_shared<Counter>();
  const dispatch_source_t source = makeSource([counter] { counter->add(); });
  dispatch_resume(source);
  ignoreObservedSignal(source);
  struct sigaction action = {};
  sigaction(SIGUSR2, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
  for (int i = 1; i <= 3; ++i) {
    kill(getpid(), SIGUSR2);
    EXPECT_TRUE(counter->waitFor(i));
  }
}

TEST_F(SignalSourceTest, ArrivalsDuringARunLeadToAnotherRunAndNeverToTwoAtATime) {
  struct Runs {
    Counter begun, mayEnd;
    std::atomic<int> inside = 0;
    std::atomic<bool> overlapped = false;
  };
  const auto runs = std::make_shared<Runs>();
  const dispatch_source_t source = makeSource([runs] {
    if (++runs->inside > 1) runs->overlapped = true;
    runs->begun.add();
    runs->mayEnd.waitFor(1);
    --runs->inside;
  });
  dispatch_resume(source);
  kill(getpid(), SIGUSR2);
  ASSERT_TRUE(runs->begun.waitFor(1));
  for (int i = 0; i < 5; ++i) kill(getpid(), SIGUSR2);
  EXPECT_EQ(runs->begun.count(), 1);
  runs->mayEnd.add();
  EXPECT_TRUE(runs->begun.waitFor(2));
  EXPECT_FALSE(runs->overlapped);
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
