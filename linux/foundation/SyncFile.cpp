#include "foundation/SyncFile.h"

#include <unistd.h>

namespace vpnctl {

int syncFile(int file) { return ::fsync(file); }

}  // namespace vpnctl
