#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/GrowthWatch.h"
#include "tests/support/TemporaryFolder.h"

namespace platform {
namespace {

// What stands for kqueue is an inotify descriptor.
TEST(MacGrowthWatch, ItsQueueIsClosedOnExec) {
  const support::TemporaryFolder folder;
  support::writeFile(folder.path("log"), "");
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> stream(std::fopen(folder.path("log").c_str(), "r"),
                                                                std::fclose);
  const GrowthWatch watch(stream.get());
  int found = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone).string().find("inotify") == std::string::npos) continue;
    ++found;
    EXPECT_EQ(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }
  EXPECT_EQ(found, 1);
}

}  // namespace
}  // namespace platform
