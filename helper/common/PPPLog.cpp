#include "helper/common/PPPLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

namespace helper {

using foundation::errnoError;
using foundation::FileDescriptor;
using foundation::Result;

namespace {

constexpr mode_t kMode = 0644;
constexpr std::size_t kMaximumLine = 1000;

// The time as pppd writes it, so that the lines of the two read alike.
std::string timestamp() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  std::array<char, 26> text = {};
  if (::localtime_r(&now, &parts) == nullptr || ::asctime_r(&parts, text.data()) == nullptr) return {};
  return {text.data(), 24};  // without the newline
}

}  // namespace

PPPLog::PPPLog(std::string path, FileDescriptor file) : path_(std::move(path)), file_(std::move(file)) {}

Result<PPPLog> PPPLog::open(const std::string &path) {
  // Non-blocking for the case that the path is a FIFO; a regular file takes no notice.
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode));
  if (!file) return errnoError(errno, "open " + path);
  struct stat attributes = {};
  if (::fstat(file.get(), &attributes) < 0) return errnoError(errno, "stat " + path);
  // Another's file, or one that has a second name somewhere, is not the log that root made.
  if (!S_ISREG(attributes.st_mode) || attributes.st_uid != ::geteuid() || attributes.st_nlink != 1)
    return errnoError(EPERM, "open " + path);
  // A log that is just being made must be readable by the tool whatever the umask is; an older one keeps the mode its
  // administrator gave it.
  if (attributes.st_size == 0 && ::fchmod(file.get(), kMode) < 0) return errnoError(errno, "chmod " + path);
  return PPPLog(path, std::move(file));
}

void PPPLog::write(std::string_view sentence) {
  std::string line = timestamp() + " : ";
  line.append(sentence.substr(0, kMaximumLine - 1 - line.size()));
  for (char &character : line)
    if (character < ' ' || character > '~') character = '?';
  line += '\n';
  lastWrite_ = std::chrono::steady_clock::now();
  while (::write(file_.get(), line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

}  // namespace helper
