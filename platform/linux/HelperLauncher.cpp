#include "platform/linux/HelperLauncher.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

namespace platform {

using foundation::errnoError;
using foundation::FileDescriptor;
using foundation::Result;

namespace {

// posix_spawn's two objects; the first call that fails is kept.
class SpawnPlan {
 public:
  explicit SpawnPlan(int socket) {
    keep(::posix_spawn_file_actions_init(&actions_));
    keep(::posix_spawnattr_init(&attributes_));
    keep(::posix_spawn_file_actions_adddup2(&actions_, socket, STDIN_FILENO));
    keep(::posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0));
    keep(::posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO));
    keep(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
    keep(::posix_spawn_file_actions_addchdir_np(&actions_, "/"));
    sigset_t signals;
    sigfillset(&signals);
    keep(::posix_spawnattr_setsigdefault(&attributes_, &signals));
    sigemptyset(&signals);
    keep(::posix_spawnattr_setsigmask(&attributes_, &signals));
    keep(::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
  }
  SpawnPlan(const SpawnPlan &) = delete;
  SpawnPlan &operator=(const SpawnPlan &) = delete;
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }

  // 0 or an errno.
  int spawn(const std::string &path, pid_t *process) {
    if (error_ != 0) return error_;
    std::string program = path;
    std::string variable = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char *arguments[] = {program.data(), nullptr};
    char *environment[] = {variable.data(), nullptr};
    return ::posix_spawn(process, path.c_str(), &actions_, &attributes_, arguments, environment);
  }

 private:
  void keep(int result) {
    if (error_ == 0) error_ = result;
  }

  posix_spawn_file_actions_t actions_ = {};
  posix_spawnattr_t attributes_ = {};
  int error_ = 0;
};

}  // namespace

Result<LaunchedHelper> launchHelper(const std::string &path) {
  int pair[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0) return errnoError(errno, "make a socket pair");
  LaunchedHelper helper;
  helper.socket.reset(pair[0]);
  const FileDescriptor itsEnd(pair[1]);

  SpawnPlan plan(itsEnd.get());
  pid_t process = 0;
  if (const int reason = plan.spawn(path, &process); reason != 0) return errnoError(reason, "start " + path);
  // Nobody has reaped it yet, so the id is its own.
  helper.process.reset(static_cast<int>(::syscall(SYS_pidfd_open, process, 0U)));
  if (helper.process) return helper;
  // One that nobody could wait for would stay as a zombie, and would be root's without a tool. It has only just been
  // started: what it may have begun to repair, the next one finishes.
  const int reason = errno;
  ::kill(process, SIGKILL);
  while (::waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
  }
  return errnoError(reason, "watch " + path);
}

}  // namespace platform
