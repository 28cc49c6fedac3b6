#include "linux/Process.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

namespace linux {

using vpnctl::FileDescriptor;
using vpnctl::Result;

namespace {

FileDescriptor openProcess(pid_t pid) { return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))); }

}  // namespace

std::optional<std::uint64_t> startTimeOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return std::nullopt;
  // The second field is the program's name in parentheses, with whatever characters it likes.
  const auto close = text.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(text.substr(close + 1));
  std::string skipped;
  for (int field = 3; field < 22; ++field) fields >> skipped;
  std::uint64_t startTime = 0;
  if (!(fields >> startTime)) return std::nullopt;
  return startTime;
}

Result<Process> Process::find(pid_t pid, std::uint64_t startTime) {
  const std::string what = "look at process " + std::to_string(pid);
  Process process(openProcess(pid));
  if (!process) {
    // EINVAL, of newer kernels ENOENT: the number has become that of some process's thread.
    if (errno == ESRCH || errno == EINVAL || errno == ENOENT) return process;
    return vpnctl::errnoError(errno, what);
  }
  // Compared after the descriptor is there.
  const auto started = startTimeOf(pid);
  if (started == startTime) return process;
  if (!started && !process.waitFor({})) return vpnctl::Error{"Process", 0, what + ": its start cannot be read"};
  return Process();
}

Result<Process> Process::ofChild(pid_t pid) {
  Process process(openProcess(pid));
  if (!process) return vpnctl::errnoError(errno, "follow process " + std::to_string(pid));
  return process;
}

void Process::signal(int number) const { ::syscall(SYS_pidfd_send_signal, descriptor(), number, nullptr, 0); }

bool Process::waitFor(std::chrono::milliseconds deadline) const {
  pollfd ended{descriptor(), POLLIN, 0};
  return ::poll(&ended, 1, static_cast<int>(deadline.count())) > 0;
}

bool Process::end(std::chrono::milliseconds grace, std::chrono::milliseconds killGrace) const {
  if (waitFor({})) return true;
  signal(SIGTERM);
  if (waitFor(grace)) return true;
  signal(SIGKILL);
  return waitFor(killGrace);
}

}  // namespace linux
