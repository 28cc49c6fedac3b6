// Code under every fault that its system calls can have, one at a time.

#pragma once

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TracedProcess.h"

namespace support {

// The calls that a signal may interrupt.
inline bool isInterruptible(long call) {
  return call == SYS_openat || call == SYS_read || call == SYS_write || call == SYS_fsync || call == SYS_flock ||
         call == SYS_poll;
}

class FaultsFixture : public ::testing::Test {
 protected:
  // Runs WORK once for every system call it makes, each time with the fault of KIND in that call, and CHECK after it.
  // PREPARE stands before each run.
  void forEveryCall(CallFault::Kind kind, int errnum, const std::function<void()> &prepare,
                    const std::function<int()> &work, const std::function<void(const TracedProcess &)> &check) {
    prepare();
    const auto whole = runTraced(work);
    if (!whole) GTEST_SKIP() << "system calls cannot be traced here";
    ASSERT_EQ(whole->exitCode, 0);
    check(*whole);
    for (std::size_t index = 0; index < whole->calls.size(); ++index) {
      const long call = whole->calls[index];
      if (call == SYS_exit_group && kind == CallFault::Kind::fail) continue;  // that it never does
      const bool isOfWrites = kind == CallFault::Kind::shorten || kind == CallFault::Kind::fill;
      if (isOfWrites && call != SYS_write) continue;
      if (errnum == EINTR && !isInterruptible(call)) continue;
      prepare();
      const auto run = runTraced(work, {kind, index, errnum});
      ASSERT_TRUE(run);
      SCOPED_TRACE("call " + std::to_string(index) + ", number " + std::to_string(call) + ", error " +
                   std::to_string(errnum));
      check(*run);
      if (HasFailure()) return;
      // What is only put off must not fail.
      if (errnum == EINTR || kind == CallFault::Kind::shorten) ASSERT_EQ(run->exitCode, 0);
    }
  }

  using Faults = std::vector<std::pair<CallFault::Kind, int>>;
  void withFaults(const Faults &faults, const std::function<void()> &prepare, const std::function<int()> &work,
                  const std::function<void(const TracedProcess &)> &check) {
    for (const auto &[kind, errnum] : faults) {
      forEveryCall(kind, errnum, prepare, work, check);
      if (HasFailure() || IsSkipped()) return;
    }
  }
};

}  // namespace support
