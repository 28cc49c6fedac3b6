#include "foundation/ProcessMemory.h"

#include <sys/types.h>
// Needs types of the one before.
#include <sys/ptrace.h>
#include <sys/resource.h>

namespace vpnctl {

// Memory cannot be locked here, and what goes to swap is encrypted by the system.
void protectProcessMemory() {
  constexpr rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  ptrace(PT_DENY_ATTACH, 0, nullptr, 0);
}

}  // namespace vpnctl
