#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>

#include "platform/GrowthWatch.h"
#include "tests/support/TemporaryFolder.h"

namespace platform {
namespace {

using std::chrono_literals::operator""h;
using std::chrono_literals::operator""ms;
using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

// None of these may take the hour; the test's own time limit says so.

TEST(GrowthWatch, AChangeEndsTheSleepAlsoOneBeforeIt) {
  const support::TemporaryFolder folder;
  support::writeFile(folder.path("log"), "");
  const Stream stream(std::fopen(folder.path("log").c_str(), "r"), std::fclose);
  GrowthWatch watch(stream.get());
  support::appendToFile(folder.path("log"), "x");
  watch.sleep(1h);
  support::appendToFile(folder.path("log"), "y");
  watch.sleep(1h);
}

TEST(GrowthWatch, FollowsTheOpenFileNotItsName) {
  const support::TemporaryFolder folder;
  support::writeFile(folder.path("log"), "");
  const Stream stream(std::fopen(folder.path("log").c_str(), "r"), std::fclose);
  std::filesystem::rename(folder.path("log"), folder.path("old"));
  support::writeFile(folder.path("log"), "");
  GrowthWatch watch(stream.get());
  support::appendToFile(folder.path("old"), "x");
  watch.sleep(1h);
}

TEST(GrowthWatch, WithoutAChangeTheSleepLastsItsTime) {
  const support::TemporaryFolder folder;
  support::writeFile(folder.path("log"), "");
  const Stream stream(std::fopen(folder.path("log").c_str(), "r"), std::fclose);
  const auto before = std::chrono::steady_clock::now();
  GrowthWatch(stream.get()).sleep(20ms);
  EXPECT_GE(std::chrono::steady_clock::now() - before, 20ms);
}

TEST(GrowthWatch, AStreamWithoutAFileIsSleptOver) {
  char text[] = "text";
  const Stream stream(fmemopen(text, sizeof text, "r"), std::fclose);
  const auto before = std::chrono::steady_clock::now();
  GrowthWatch(stream.get()).sleep(20ms);
  EXPECT_GE(std::chrono::steady_clock::now() - before, 20ms);
}

}  // namespace
}  // namespace platform
