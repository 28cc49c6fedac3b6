#include "foundation/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vpnctl {

void openMissingStandardStreams() {
  // The lowest free number is the one that is given, so that each goes where it belongs.
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (fcntl(fd, F_GETFD) < 0 && errno == EBADF && open("/dev/null", O_RDWR) != fd) _exit(1);
}

}  // namespace vpnctl
