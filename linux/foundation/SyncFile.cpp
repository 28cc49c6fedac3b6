#include "foundation/SyncFile.h"

#include <unistd.h>

namespace foundation {

int syncFile(int file) { return ::fsync(file); }

}  // namespace foundation
