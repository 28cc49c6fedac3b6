#include "helper/authorization/UserQuota.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

namespace helper {

using foundation::errnoError;
using foundation::FileDescriptor;
using foundation::Result;

Result<FileDescriptor> UserQuota::take(uid_t user) const {
  ::mkdir(std::filesystem::path(path_).parent_path().c_str(), 0700);
  FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) return errnoError(errno, "open " + path_);
  for (int place = 0; place < kPlaces; ++place) {
    // Locks of the open file, not of the process: only its end, or ours, gives them back.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(user) * kPlaces + place;
    lock.l_len = 1;
    if (::fcntl(file.get(), F_OFD_SETLK, &lock) == 0) return file;
    if (errno != EAGAIN && errno != EACCES) return errnoError(errno, "lock " + path_);
  }
  return errnoError(EDQUOT, "have another connection at the same time: " + std::to_string(kPlaces) + " is the most");
}

}  // namespace helper
