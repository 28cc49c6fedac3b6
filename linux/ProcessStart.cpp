#include "linux/ProcessStart.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

namespace linux {

using foundation::FileDescriptor;

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

foundation::Result<FileDescriptor> openProcess(pid_t pid, std::uint64_t startTime) {
  const std::string what = "look at process " + std::to_string(pid);
  FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!process) {
    // EINVAL, of newer kernels ENOENT: the number has become that of some process's thread.
    if (errno == ESRCH || errno == EINVAL || errno == ENOENT) return FileDescriptor();
    return foundation::errnoError(errno, what);
  }
  // Compared after the descriptor is there.
  const auto started = startTimeOf(pid);
  if (started == startTime) return process;
  pollfd end{process.get(), POLLIN, 0};
  if (!started && ::poll(&end, 1, 0) != 1) return foundation::Error{"Process", 0, what + ": its start cannot be read"};
  return FileDescriptor();
}

}  // namespace linux
