#include "foundation/SyncFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vpnctl {

// fsync leaves the data in the disk's own cache. Not every file system can do more.
int syncFile(int file) {
  if (::fcntl(file, F_FULLFSYNC) == 0) return 0;
  return errno == EINTR ? -1 : ::fsync(file);
}

}  // namespace vpnctl
