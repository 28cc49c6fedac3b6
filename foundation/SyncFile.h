// Thread rule: any thread.

#pragma once

namespace vpnctl {

// As fsync(2), result and errno too, but returns only when the disk itself has the data, where fsync alone does not ask
// for that.
int syncFile(int file);

}  // namespace vpnctl
