// Replacing a file whole: whatever goes wrong (a full disk, a killed process), there are the old bytes or the new ones.

#pragma once

#include <string>
#include <string_view>

#include "foundation/Result.h"

namespace GB {

// Writes BYTES beside PATH, onto the disk, and renames. An existing file keeps its mode, and its owner if we may give
// it away; a new one gets the mode that the umask leaves of 0666. Refused, and left as it is, is whatever is no regular
// file: a symbolic link (ELOOP), because renaming would put a file in the link's place, a folder (EISDIR), a device, a
// FIFO (EINVAL). Errors are POSIX's, "save PATH: reason". Blocks on the disk.
vpnctl::Status replaceFile(const std::string &path, std::string_view bytes);

// The same for the file that PATH leads to, when it is a symbolic link; the link stays.
vpnctl::Status replaceFileBehindLinks(const std::string &path, std::string_view bytes);

}  // namespace GB
