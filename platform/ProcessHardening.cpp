#include "platform/ProcessHardening.h"

#include <sys/prctl.h>
#include <sys/resource.h>

namespace platform {

// Both are needed: a core_pattern that pipes into a collector ignores the limit, and the limit is all that is left when
// a later exec makes the process dumpable again. Neither can fail for a process lowering its own rights.
void disableCoreDumps() {
  constexpr rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace platform
