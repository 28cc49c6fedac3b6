#include "linux/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace linux {

namespace {

constexpr timeval kExecDeadline{10, 0};  // of a prepared child that somebody has stopped
constexpr int kPIDFD = 3;                // P_PIDFD, which this C library spells only for idtype_t of newer ones

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> result;
  result.reserve(texts.size() + 1);
  for (const auto &text : texts) result.push_back(const_cast<char *>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

struct Attributes {
  Attributes() {
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
  }
  Attributes(const Attributes &) = delete;
  Attributes &operator=(const Attributes &) = delete;
  ~Attributes() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
};

// In a prepared child. Only system calls: whatever else other threads were at when it was made will never be finished.
[[noreturn]] void waitAndRun(int gate, const ChildProcess::Streams &streams, char *const *arguments,
                             char *const *environment) {
  constexpr int kGate = STDERR_FILENO + 1;
  struct sigaction usual {};
  for (int number = 1; number < NSIG; ++number) sigaction(number, &usual, nullptr);
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  for (const int number : streams.ignoredSignals) sigaction(number, &ignore, nullptr);
  // Should we end before this call, the gate's other end closes.
  if (streams.signalWithoutUs != 0) prctl(PR_SET_PDEATHSIG, streams.signalWithoutUs);
  if (streams.ownSession) setsid();
  const int nothing = open("/dev/null", O_RDWR);
  dup2(streams.input >= 0 ? streams.input : nothing, STDIN_FILENO);
  dup2(streams.output >= 0 ? streams.output : nothing, STDOUT_FILENO);
  dup2(streams.error >= 0 ? streams.error : nothing, STDERR_FILENO);
  if (gate != kGate) dup2(gate, kGate);
  fcntl(kGate, F_SETFD, FD_CLOEXEC);
  // With everything else the other end of the gate: it must be nobody's but our parent's.
  closefrom(kGate + 1);
  char word = 0;
  if (read(kGate, &word, 1) != 1) _exit(EXIT_FAILURE);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execve(arguments[0], arguments, environment);
  const int error = errno;
  static_cast<void>(!write(kGate, &error, sizeof error));
  _exit(EXIT_FAILURE);
}

}  // namespace

vpnctl::Result<ChildProcess> ChildProcess::spawn(const std::vector<std::string> &arguments,
                                                 const std::vector<std::string> &environment, const Streams &streams) {
  Attributes with;
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&with.attributes, &all);
  posix_spawnattr_setsigmask(&with.attributes, &none);
  posix_spawnattr_setflags(&with.attributes, static_cast<short>(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK |
                                                                (streams.ownSession ? short{POSIX_SPAWN_SETSID} : 0)));
  const auto connect = [&with](int stream, int source) {
    if (source >= 0)
      posix_spawn_file_actions_adddup2(&with.actions, source, stream);
    else
      posix_spawn_file_actions_addopen(&with.actions, stream, "/dev/null", O_RDWR, 0);
  };
  connect(STDIN_FILENO, streams.input);
  connect(STDOUT_FILENO, streams.output);
  connect(STDERR_FILENO, streams.error);
  // Ours are close-on-exec; what an ancestor of ours may have leaked ends here.
  posix_spawn_file_actions_addclosefrom_np(&with.actions, STDERR_FILENO + 1);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, arguments.front().c_str(), &with.actions, &with.attributes,
                                pointers(arguments).data(), pointers(environment).data());
  if (error != 0) return vpnctl::errnoError(error, "start " + arguments.front());
  return follow(pid, arguments.front());
}

vpnctl::Result<ChildProcess> ChildProcess::prepare(const std::vector<std::string> &arguments,
                                                   const std::vector<std::string> &environment,
                                                   const Streams &streams) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) < 0)
    return vpnctl::errnoError(errno, "start " + arguments.front());
  vpnctl::FileDescriptor gate(ends[0]);
  setsockopt(gate.get(), SOL_SOCKET, SO_RCVTIMEO, &kExecDeadline, sizeof kExecDeadline);
  const vpnctl::FileDescriptor childs(ends[1]);
  const auto argumentPointers = pointers(arguments);
  const auto environmentPointers = pointers(environment);
  const pid_t pid = fork();
  if (pid < 0) return vpnctl::errnoError(errno, "start " + arguments.front());
  if (pid == 0) waitAndRun(childs.get(), streams, argumentPointers.data(), environmentPointers.data());
  auto child = follow(pid, arguments.front());
  if (child) child->gate_ = std::move(gate);
  return child;
}

vpnctl::Status ChildProcess::release() {
  const vpnctl::FileDescriptor gate = std::move(gate_);
  // What comes back is why the program does not run; when it does, the gate closes.
  int error = 0;
  const char word = 1;
  if (send(gate.get(), &word, 1, MSG_NOSIGNAL) != 1) error = errno;
  while (error == 0 && recv(gate.get(), &error, sizeof error, MSG_WAITALL) < 0)
    if (errno != EINTR) error = errno;
  if (error == 0) return {};
  waitFor(std::chrono::seconds(1));
  return vpnctl::errnoError(error, "start " + program_);
}

vpnctl::Result<ChildProcess> ChildProcess::follow(pid_t pid, const std::string &program) {
  auto process = Process::ofChild(pid);
  if (!process) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return vpnctl::errnoError(process.error().code, "follow " + program);
  }
  ChildProcess child(pid, std::move(*process));
  child.program_ = program;
  return child;
}

ChildProcess::~ChildProcess() {
  if (!process_ || !running_) return;
  signal(SIGKILL);
  waitFor(std::chrono::seconds(1));
}

void ChildProcess::watch(sd_event *event, Handler handler) {
  event_ = event;
  handler_ = std::move(handler);
  watch_ = EventSource::io(event, process_.descriptor(), EPOLLIN, [this](std::uint32_t) {
    if (!reap()) return;
    watch_.reset();
    kill_.reset();
    // It may destroy this object.
    const auto told = std::move(handler_);
    told(End(end_));
  });
}

void ChildProcess::signal(int number) {
  if (running_) process_.signal(number);
}

void ChildProcess::terminate(std::chrono::milliseconds grace) {
  signal(SIGTERM);
  if (running_) killAfter(grace);
}

void ChildProcess::killAfter(std::chrono::milliseconds grace) {
  try {
    kill_ = EventSource::timer(
        event_, grace, [this] { signal(SIGKILL); });
  } catch (const std::system_error &) {
    signal(SIGKILL);
  }
}

void ChildProcess::leaveRunning() {
  watch_.reset();
  kill_.reset();
  process_.reset();
  running_ = false;
}

bool ChildProcess::waitFor(std::chrono::milliseconds deadline) {
  const auto until = std::chrono::steady_clock::now() + deadline;
  while (running_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    if (left.count() < 0) return false;
    if (process_.waitFor(left + std::chrono::milliseconds(1))) reap();
  }
  return true;
}

bool ChildProcess::reap() {
  siginfo_t info{};
  if (waitid(static_cast<idtype_t>(kPIDFD), static_cast<id_t>(process_.descriptor()), &info, WEXITED | WNOHANG) < 0) {
    if (errno != ECHILD) return false;
    // Somebody else has taken its end, or the system keeps none (SIGCHLD ignored): ended, nobody knows how.
    running_ = false;
    end_ = End{false, 0};
    return true;
  }
  if (info.si_pid == 0) return false;
  running_ = false;
  end_ = End{info.si_code == CLD_EXITED, info.si_status};
  return true;
}

}  // namespace linux
