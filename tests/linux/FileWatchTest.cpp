#include <filesystem>

#include "linux/FileWatch.h"
#include "tests/support/LoopFixture.h"
#include "tests/support/TemporaryFolder.h"

using linux::EventSource;
using linux::FileWatch;
namespace fs = std::filesystem;

namespace {

constexpr std::chrono::milliseconds kQuiet{20};

class FileWatchTest : public support::LoopFixture {
 protected:
  void watch() {
    auto watch = FileWatch::watch(
        event_, path_, [this] { ++told_; }, kQuiet);
    ASSERT_TRUE(watch) << watch.error().message;
    watch_ = std::move(*watch);
  }
  testing::AssertionResult isTold() {
    const int before = told_;
    return runUntil([&] { return told_ > before; });
  }
  // As long as a change would take to be told.
  void letTimePass() {
    bool passed = false;
    const auto timer = EventSource::timer(
        event_, 10 * kQuiet, [&] { passed = true; });
    ASSERT_TRUE(runUntil([&] { return passed; }));
  }

  const support::TemporaryFolder folder_;
  const std::string path_ = folder_.path("resolv.conf");
  int told_ = 0;
  std::unique_ptr<FileWatch> watch_;
};

TEST_F(FileWatchTest, TellsWhateverIsDoneToTheFile) {
  watch();
  support::writeFile(path_, "made\n");
  EXPECT_TRUE(isTold());
  support::appendToFile(path_, "more\n");
  EXPECT_TRUE(isTold());
  support::writeFile(folder_.path("new"), "other\n");
  fs::rename(folder_.path("new"), path_);
  EXPECT_TRUE(isTold());
  fs::remove(path_);
  EXPECT_TRUE(isTold());
  fs::create_symlink("nowhere", path_);
  EXPECT_TRUE(isTold());
  fs::rename(path_, folder_.path("away"));
  EXPECT_TRUE(isTold());
}

TEST_F(FileWatchTest, SaysNothingOfOthersAndOfReaders) {
  support::writeFile(path_, "there\n");
  watch();
  support::writeFile(folder_.path("hosts"), "other\n");
  fs::remove(folder_.path("hosts"));
  EXPECT_EQ(support::contentsOf(path_), "there\n");
  letTimePass();
  EXPECT_EQ(told_, 0);
}

TEST_F(FileWatchTest, TellsOnceOfManySteps) {
  watch();
  for (int step = 0; step < 10; ++step) support::writeFile(path_, std::to_string(step));
  EXPECT_TRUE(isTold());
  letTimePass();
  EXPECT_EQ(told_, 1);
}

TEST_F(FileWatchTest, TellsOnceMoreWhenAsked) {
  watch();
  watch_->again();
  EXPECT_TRUE(isTold());
}

TEST_F(FileWatchTest, MayBeDestroyedByItsHandler) {
  bool told = false;
  auto watch = FileWatch::watch(
      event_, path_,
      [&] {
        watch_.reset();
        told = true;
      },
      kQuiet);
  ASSERT_TRUE(watch);
  watch_ = std::move(*watch);
  support::writeFile(path_, "made\n");
  EXPECT_TRUE(runUntil([&] { return told; }));
}

TEST_F(FileWatchTest, NeedsTheFolder) {
  const auto watch = FileWatch::watch(event_, folder_.path("missing/file"), [] {});
  ASSERT_FALSE(watch);
  EXPECT_EQ(watch.error().code, ENOENT);
}

}  // namespace
