#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "linux/Process.h"

namespace linux {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShort{20};
constexpr milliseconds kLong{20000};  // only a failure takes them

// A child that does nothing until a signal ends it.
class ProcessTest : public ::testing::Test {
 protected:
  ~ProcessTest() override {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }

  void start(bool stubborn) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    if (stubborn) ::sigprocmask(SIG_BLOCK, &term, nullptr);  // before the child is there
    pid = ::fork();
    if (pid == 0)
      while (true) ::pause();
    ::sigprocmask(SIG_UNBLOCK, &term, nullptr);
    ASSERT_GT(pid, 0);
    process = std::move(Process::ofChild(pid).value());
  }
  int endingSignal() {
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    pid = -1;
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

  pid_t pid = -1;
  Process process;
};

TEST_F(ProcessTest, EndsWhenItIsAsked) {
  start(false);
  EXPECT_FALSE(process.waitFor(milliseconds(0)));
  EXPECT_TRUE(process.end(kLong, kLong));
  EXPECT_TRUE(process.waitFor(milliseconds(0)));
  EXPECT_EQ(endingSignal(), SIGTERM);
  EXPECT_TRUE(process.end(kLong, kLong));  // and is at its end now
}

TEST_F(ProcessTest, IsKilledWhenItDoesNotEnd) {
  start(true);
  EXPECT_TRUE(process.end(kShort, kLong));
  EXPECT_EQ(endingSignal(), SIGKILL);
}

TEST_F(ProcessTest, IsFoundByItsStart) {
  start(false);
  const auto startTime = startTimeOf(pid);
  ASSERT_TRUE(startTime);
  const auto found = Process::find(pid, *startTime);
  ASSERT_TRUE(found && *found);
  const auto another = Process::find(pid, *startTime + 1);
  ASSERT_TRUE(another);
  EXPECT_FALSE(*another);
  EXPECT_TRUE(found->end(kLong, kLong));
  const pid_t number = pid;
  EXPECT_EQ(endingSignal(), SIGTERM);
  const auto gone = Process::find(number, *startTime);
  ASSERT_TRUE(gone);
  EXPECT_FALSE(*gone);
  EXPECT_EQ(Process::ofChild(number).error().code, ESRCH);
}

}  // namespace
}  // namespace linux
