#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/StandardStreams.h"

namespace vpnctl {
namespace {

bool isNull(int fd) {
  struct stat null = {};
  struct stat file = {};
  return stat("/dev/null", &null) == 0 && fstat(fd, &file) == 0 && S_ISCHR(file.st_mode) &&
         file.st_rdev == null.st_rdev && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR && fcntl(fd, F_GETFD) == 0;
}

// Each of the three is a bit of the parameter, set when it is closed.
class ClosedStandardStreams : public testing::TestWithParam<unsigned> {};

TEST_P(ClosedStandardStreams, AreOpenedOnNullAndTheOthersAreLeftAlone) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const auto closed = [](int fd) { return (GetParam() >> fd & 1) != 0; };
    const int other = open("/dev/zero", O_RDONLY);
    for (int fd = 0; fd <= 2; ++fd) closed(fd) ? close(fd) : dup2(other, fd);
    openMissingStandardStreams();
    int wrong = 0;
    for (int fd = 0; fd <= 2; ++fd) wrong += isNull(fd) != closed(fd);
    const int next = open("/dev/zero", O_RDONLY);
    _exit(next > other ? wrong : 4);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}
INSTANTIATE_TEST_SUITE_P(Combinations, ClosedStandardStreams, testing::Range(0U, 8U));

}  // namespace
}  // namespace vpnctl
