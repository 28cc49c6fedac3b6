#include "helper/common/PPPLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Result;

namespace {

constexpr mode_t kMode = 0644;
constexpr std::size_t kMaximumLine = 1000;

std::string timestamp() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  std::array<char, 26> text = {};
  if (::localtime_r(&now, &parts) == nullptr || ::asctime_r(&parts, text.data()) == nullptr) return {};
  return {text.data(), 24};  // without the newline
}

Result<FileDescriptor> openFile(const std::string &path, int flags) {
  // Non-blocking for the case that the path is a FIFO; a regular file takes no notice.
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, kMode));
  if (!file) return errnoError(errno, "open " + path);
  struct stat attributes = {};
  if (::fstat(file.get(), &attributes) < 0) return errnoError(errno, "stat " + path);
  // Another's file, or one that has a second name somewhere, is not the log that root made.
  if (!S_ISREG(attributes.st_mode) || attributes.st_uid != ::geteuid() || attributes.st_nlink != 1)
    return errnoError(EPERM, "open " + path);
  // A log that is just being made must be readable by the tool whatever the umask is; an older one keeps the mode its
  // administrator gave it.
  if ((flags & O_CREAT) != 0 && attributes.st_size == 0 && ::fchmod(file.get(), kMode) < 0)
    return errnoError(errno, "chmod " + path);
  return file;
}

}  // namespace

Result<PPPLog> PPPLog::open(const std::string &path) {
  auto file = openFile(path, O_CREAT);
  if (!file) return file.error();
  return PPPLog(std::make_shared<Files>(Files{path, std::move(*file), {}}));
}

PPPLog PPPLog::labelled(std::function<std::string()> label) const {
  PPPLog log(files_);
  log.label_ = std::move(label);
  return log;
}

void PPPLog::write(std::string_view sentence) {
  lastWrite_ = std::chrono::steady_clock::now();
  append(timestamp() + " : ", sentence);
}

void PPPLog::copy(std::string_view line) { append({}, line); }

void PPPLog::append(const std::string &before, std::string_view text) {
  if (!files_->hasRoom()) return;
  files_->append(before + (label_ ? label_() : std::string()) + std::string(text));
}

// What is not written counts as little as possible: it may be the work of somebody who wants to fill the disk.
bool PPPLog::Files::hasRoom() {
  const auto now =
      std::chrono::duration_cast<vpnctl::RateLimit::Instant>(std::chrono::steady_clock::now().time_since_epoch());
  if (lines && !lines->allows(now)) {
    ++leftOut;
    return false;
  }
  if (const std::size_t count = std::exchange(leftOut, 0); count > 0)
    append(timestamp() + " : " + std::to_string(count) + " lines were left out here: there were too many at a time.");
  return true;
}

void PPPLog::Files::append(std::string line) {
  line.resize(std::min(line.size(), kMaximumLine - 1));
  for (char &character : line)
    if (character < ' ' || character > '~') character = '?';
  line += '\n';
  lookForNewFile();
  for (const FileDescriptor *open : {&file, &newFile})
    while (*open && ::write(open->get(), line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

// Never makes it: between the two steps of a rotation there is none, and whoever rotates would find ours in its place.
void PPPLog::Files::lookForNewFile() {
  struct stat open = {};
  struct stat named = {};
  if (::fstat(newFile ? newFile.get() : file.get(), &open) < 0 || ::lstat(path.c_str(), &named) < 0) return;
  if (open.st_dev == named.st_dev && open.st_ino == named.st_ino) return;
  if (auto latest = openFile(path, 0)) newFile = std::move(*latest);
}

}  // namespace helper
