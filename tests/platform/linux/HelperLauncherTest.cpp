#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/HelperLauncher.h"

namespace platform {
namespace {

using vpnctl::FileDescriptor;

// While it lives the process can open COUNT further descriptors.
class FewDescriptors {
 public:
  explicit FewDescriptors(unsigned count) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    // Descriptors are given from the lowest that is free: those below the limit are taken first.
    const int first = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(first);
    const rlimit few = {static_cast<rlim_t>(first) + count, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  }
  FewDescriptors(const FewDescriptors &) = delete;
  FewDescriptors &operator=(const FewDescriptors &) = delete;
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_ = {};
};

// The ids of this process's children, the dead that nobody has waited for among them: tests before may have left some.
std::string children() {
  std::ifstream file("/proc/thread-self/children");
  EXPECT_TRUE(file);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(HelperLauncher, GivesTheProgramASocketAndWatchesIt) {
  auto helper = launchHelper("/bin/cat");
  ASSERT_TRUE(helper) << helper.error().message;
  // Without output of its own; it ends when its input does.
  helper->socket.reset();
  ASSERT_TRUE(helper->process->waitFor(std::chrono::seconds(20)));
  EXPECT_TRUE(helper->process->end().exited);
  EXPECT_EQ(helper->process->end().code, 0);
}

TEST(HelperLauncher, SaysWhatCannotBeStarted) {
  const std::string before = children();
  const auto helper = launchHelper("/nowhere/vpnctl-helper");
  ASSERT_FALSE(helper);
  EXPECT_EQ(helper.error().code, ENOENT);
  EXPECT_EQ(children(), before);
}

// cat would wait for its input for ever.
TEST(HelperLauncher, LeavesNoProcessBehindThatItCannotWatch) {
  const std::string before = children();
  const auto helper = [] {
    const FewDescriptors onlyTheSockets(2);
    return launchHelper("/bin/cat");
  }();
  ASSERT_FALSE(helper);
  EXPECT_EQ(helper.error().code, EMFILE);
  EXPECT_EQ(helper.error().message.substr(0, 15), "follow /bin/cat");
  EXPECT_EQ(children(), before);
}

}  // namespace
}  // namespace platform
