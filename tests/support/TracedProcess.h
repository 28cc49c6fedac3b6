// Something done in a child process, one system call of which goes wrong: whatever the code under test may do between
// two calls, the world only sees the calls.

#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

namespace support {

struct CallFault {
  enum class Kind {
    none,
    kill,     // the process dies before the call
    fail,     // the call is not made and fails with errnum
    shorten,  // the call, a write, is given half of its bytes
    fill,     // likewise, and all writes after it fail with ENOSPC
  };
  Kind kind = Kind::none;
  std::size_t index = 0;  // of the call, from 0
  int errnum = 0;
};

struct TracedProcess {
  // The numbers of the system calls, in order, without a sanitizer's own; the last one ends the process.
  std::vector<long> calls;
  std::optional<int> exitCode;  // none when a signal ended it
};

// Runs WORK in a child process with FAULT; its result is the exit code. None where this machine cannot do so (another
// processor, no permission to trace).
std::optional<TracedProcess> runTraced(const std::function<int()> &work, const CallFault &fault = {});

}  // namespace support
