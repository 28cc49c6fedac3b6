#include "foundation/ProcessMemory.h"

#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace vpnctl {

void protectProcessMemory() {
  // Both are needed: a core_pattern that pipes into a collector ignores the limit, and the limit is all that is left
  // when a later exec makes the process dumpable again. Neither can fail for a process lowering its own rights.
  constexpr rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  // Only who may lock without limit: for anybody else a later allocation could fail for it. A page is locked when it is
  // first touched, so that what is never used takes no memory.
  if (geteuid() == 0 && prctl(PR_CAPBSET_READ, CAP_IPC_LOCK, 0, 0, 0) == 1)
    mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT);
  // One touched byte of a thread's stack or heap could cost, and lock, 2 MiB.
  prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
}

}  // namespace vpnctl
