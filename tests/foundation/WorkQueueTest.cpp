#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <cstdlib>
#include <future>
#include <optional>
#include <thread>
#include <vector>

#include "foundation/WorkQueue.h"

namespace vpnctl {
namespace {

// Waits until everything submitted so far has run.
void drain(WorkQueue &queue) {
  std::promise<void> reached;
  queue.async([&] { reached.set_value(); });
  reached.get_future().wait();
}

TEST(WorkQueueTest, RunsBlocksInOrderOnOneOtherThread) {
  WorkQueue queue("order");
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  for (int i = 0; i < 100; ++i) {
    queue.async([&, i] {
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
    });
  }
  drain(queue);
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(threads[static_cast<std::size_t>(i)], threads[0]);
  }
  EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST(WorkQueueTest, ABlockMaySubmitAnother) {
  WorkQueue queue("nested");
  std::promise<void> inner;
  queue.async([&] { queue.async([&] { inner.set_value(); }); });
  inner.get_future().wait();
}

TEST(WorkQueueTest, BlocksMayComeFromManyThreads) {
  WorkQueue queue("many");
  int count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 50; ++j) queue.async([&] { ++count; });
    });
  }
  for (std::thread &thread : threads) thread.join();
  drain(queue);
  EXPECT_EQ(count, 200);
}

TEST(WorkQueueTest, DestroyingWaitsForNothing) {
  std::promise<void> running;
  std::promise<void> mayEnd;
  std::promise<void> ended;
  {
    WorkQueue queue("abandoned");
    queue.async([&] {
      running.set_value();
      mayEnd.get_future().wait();
    });
    queue.async([&] { ended.set_value(); });  // submitted before the end: it still runs
    running.get_future().wait();
  }
  // A destructor that waited for the running block would not have come here.
  mayEnd.set_value();
  ended.get_future().wait();
}

TEST(WorkQueueTest, ABlockMayDestroyItsQueue) {
  auto queue = std::make_shared<WorkQueue>("itself");
  std::promise<void> destroyed;
  std::promise<void> start;
  queue->async([&destroyed, &start, queue]() mutable {
    start.get_future().wait();
    queue.reset();
    destroyed.set_value();
  });
  queue.reset();
  start.set_value();
  destroyed.get_future().wait();
}

TEST(WorkQueueTest, ABlockIsFreedBeforeTheNextRuns) {
  WorkQueue queue("freed");
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  queue.async([held = std::move(held)] {});
  std::promise<bool> expired;
  queue.async([&] { expired.set_value(watched.expired()); });
  EXPECT_TRUE(expired.get_future().get());
}

TEST(WorkQueueTest, SignalsAreBlockedOnItsThreadAndNotOnTheCallers) {
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, nullptr, &before);
  WorkQueue queue("signals");
  std::promise<sigset_t> mask;
  queue.async([&] {
    sigset_t current;
    pthread_sigmask(SIG_BLOCK, nullptr, &current);
    mask.set_value(current);
  });
  const sigset_t current = mask.get_future().get();
  for (const int signal : {SIGUSR1, SIGUSR2, SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGPIPE, SIGALRM})
    EXPECT_EQ(sigismember(&current, signal), 1) << signal;
  sigset_t after;
  pthread_sigmask(SIG_BLOCK, nullptr, &after);
  for (int signal = 1; signal < 32; ++signal)
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
}

TEST(WorkQueueTest, TheLabelNamesTheThread) {
  WorkQueue queue("a label longer than fifteen bytes");
  std::promise<std::string> name;
  queue.async([&] {
    std::array<char, 32> buffer{};
    pthread_getname_np(pthread_self(), buffer.data(), buffer.size());
    name.set_value(buffer.data());
  });
  EXPECT_EQ(name.get_future().get(), "a label longer ");
  EXPECT_EQ(queue.label(), "a label longer than fifteen bytes");
}

TEST(WorkQueueTest, TheProcessMayEndWhileABlockRuns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        static std::promise<void> &never = *new std::promise<void>;
        WorkQueue queue("forever");
        std::promise<void> running;
        queue.async([&running] {
          running.set_value();
          never.get_future().wait();
        });
        running.get_future().wait();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^$");
}

TEST(WorkQueueTest, ANullBlockIsAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(WorkQueue("null").async(nullptr), testing::KilledBySignal(SIGABRT),
              "Assertion failed: \\(block != nullptr\\)");
}

}  // namespace
}  // namespace vpnctl
