#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "linux/FolderLock.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/TemporaryFolder.h"

namespace linux {
namespace {

using vpnctl::Result;

constexpr std::chrono::milliseconds kShort{30};
constexpr std::chrono::milliseconds kLong{20000};  // only a failure takes them

class FolderLockTest : public ::testing::Test {
 protected:
  support::TemporaryFolder folder;
};

TEST_F(FolderLockTest, IsGivenUpAfterItsPatience) {
  const auto holder = FolderLock::take(folder.path(), kShort);
  ASSERT_TRUE(holder);
  const auto begin = std::chrono::steady_clock::now();
  const auto lock = FolderLock::take(folder.path(), kShort);
  ASSERT_FALSE(lock);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, kShort);
  EXPECT_EQ(lock.error().code, EWOULDBLOCK);
  EXPECT_NE(lock.error().message.find(folder.path()), std::string::npos);
}

TEST_F(FolderLockTest, ComesWithTheHoldersEnd) {
  auto holder = std::make_optional(std::move(FolderLock::take(folder.path(), kShort).value()));
  bool taken = false;
  std::thread waiter([&] { taken = static_cast<bool>(FolderLock::take(folder.path(), kLong)); });
  const auto begin = std::chrono::steady_clock::now();
  holder.reset();
  waiter.join();
  EXPECT_TRUE(taken);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kLong);
}

TEST_F(FolderLockTest, ComesWhenTheHolderIsKilled) {
  int ready[2] = {-1, -1};
  ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    const auto lock = FolderLock::take(folder.path(), kShort);
    if (lock && ::write(ready[1], "x", 1) == 1) ::pause();
    ::_exit(1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_FALSE(FolderLock::take(folder.path(), kShort));
  std::thread killer([&] { ::kill(holder, SIGKILL); });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(FolderLock::take(folder.path(), kLong));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kLong);
  killer.join();
  EXPECT_EQ(::waitpid(holder, nullptr, 0), holder);
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(FolderLockTest, NoTwoHaveItAtATimeAndNobodyStarves) {
  std::atomic<int> inside = 0;
  std::atomic<int> count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int turn = 0; turn < 250; ++turn) {
        const auto lock = FolderLock::take(folder.path(), kLong);
        if (!lock || ++inside != 1) return;
        ++count;
        --inside;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(count, 1000);
}

TEST_F(FolderLockTest, WhatIsNoFolderIsRefused) {
  EXPECT_EQ(FolderLock::take(folder.path("none"), kShort).error().code, ENOENT);
  support::writeFile(folder.path("file"), "");
  EXPECT_EQ(FolderLock::take(folder.path("file"), kShort).error().code, ENOTDIR);
  std::filesystem::create_symlink(folder.path(), folder.path("link"));
  EXPECT_FALSE(FolderLock::take(folder.path("link"), kShort));
}

TEST_F(FolderLockTest, WithoutDescriptorsItFailsAndHoldsNothing) {
  for (unsigned left = 0; left < 2; ++left) {
    const support::FewDescriptors few(left);
    EXPECT_EQ(FolderLock::take(folder.path(), kShort).error().code, EMFILE);
  }
  EXPECT_TRUE(FolderLock::take(folder.path(), kShort));
}

}  // namespace
}  // namespace linux
