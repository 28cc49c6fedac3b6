#include "helper/authorization/UserQuota.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <thread>
#include <utility>

namespace helper {

using vpnctl::errnoError;
using vpnctl::FileDescriptor;
using vpnctl::Result;

UserQuota::Place::Place(FileDescriptor lock, std::chrono::milliseconds stay)
    : lock_(std::move(lock)), until_(std::chrono::steady_clock::now() + stay) {}

UserQuota::Place::~Place() {
  if (lock_) std::this_thread::sleep_until(until_);
}

Result<UserQuota::Place> UserQuota::take(uid_t user) const {
  if (user == 0) return Place();
  return lockOneOf(user, 0, kPlaces);
}

Result<UserQuota::Place> UserQuota::takeComplaint(uid_t user) const { return lockOneOf(user, kPlaces, 1); }

Result<UserQuota::Place> UserQuota::lockOneOf(uid_t user, int first, int count) const {
  ::mkdir(std::filesystem::path(path_).parent_path().c_str(), 0700);
  FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) return errnoError(errno, "open " + path_);
  for (int place = first; place < first + count; ++place) {
    // Locks of the open file, not of the process: only its end, or ours, gives them back.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(user) * (kPlaces + 1) + place;
    lock.l_len = 1;
    if (::fcntl(file.get(), F_OFD_SETLK, &lock) == 0) return Place(std::move(file), stay_);
    if (errno != EAGAIN && errno != EACCES) return errnoError(errno, "lock " + path_);
  }
  return vpnctl::Error{std::string(vpnctl::kPOSIXErrorDomain), EDQUOT,
                       "have another connection at the same time: " + std::to_string(kPlaces) + " is the most"};
}

}  // namespace helper
