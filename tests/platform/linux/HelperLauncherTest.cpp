#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/HelperLauncher.h"

namespace platform {
namespace {

using foundation::FileDescriptor;

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
  pollfd ended = {helper->process.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&ended, 1, 20000), 1);
  siginfo_t child = {};
  ASSERT_EQ(::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(helper->process.get()), &child, WEXITED), 0);
  EXPECT_EQ(child.si_code, CLD_EXITED);
  EXPECT_EQ(child.si_status, 0);
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
  EXPECT_EQ(helper.error().message.substr(0, 14), "watch /bin/cat");
  EXPECT_EQ(children(), before);
}

}  // namespace
}  // namespace platform
