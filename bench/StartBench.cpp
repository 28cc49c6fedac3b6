// How long the tool takes to say that there is no configuration: start_bench [PROGRAM]. Prints the median; the status
// is 0 if it keeps the goal.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

extern char **environ;

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int kRuns = 101;
constexpr Milliseconds kGoal{10};

// From before the start to the end of one run; negative when it did not end with status 1.
Milliseconds timeOneRun(const char *program) {
  std::string name = program, option = "-c", path = "/nonexistent/vpnctl.conf";
  std::array<char *, 4> arguments{name.data(), option.data(), path.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int fd : {1, 2}) posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_WRONLY, 0);

  const auto before = std::chrono::steady_clock::now();
  pid_t pid = -1;
  const int result = posix_spawn(&pid, program, &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (result != 0) return Milliseconds(-1);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  const Milliseconds taken = std::chrono::steady_clock::now() - before;
  return WIFEXITED(status) && WEXITSTATUS(status) == 1 ? taken : Milliseconds(-1);
}

}  // namespace

int main(int argc, char *argv[]) {
  const char *const program = argc > 1 ? argv[1] : VPNCTL_PROGRAM;
  std::vector<Milliseconds> times;
  for (int run = 0; run < kRuns; ++run) {
    times.push_back(timeOneRun(program));
    if (times.back() < Milliseconds(0)) {
      std::fprintf(stderr, "%s -c missing did not end with status 1\n", program);
      return 2;
    }
  }
  std::sort(times.begin(), times.end());
  const Milliseconds median = times[kRuns / 2];
  std::printf("vpnctl -c missing: median %.2f ms of %d runs (%.2f to %.2f), goal at most %.0f ms\n", median.count(),
              kRuns, times.front().count(), times.back().count(), kGoal.count());
  return median <= kGoal ? 0 : 1;
}
