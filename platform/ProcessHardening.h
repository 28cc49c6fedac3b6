// What a process that holds secrets does about itself.

#pragma once

namespace platform {

// No core dump of this process will be written, and no other process of the same user may look into its memory. An
// abort is an abort all the same.
void disableCoreDumps();

}  // namespace platform
