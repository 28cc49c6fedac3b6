// One process, held by a pidfd: nothing here can hit a later one of the same number.
//
// Usual sequence: find(), end(). Thread rule: any. waitFor() and end() block.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace linux {

// When PID started, in clock ticks since boot (field 22 of /proc/PID/stat); none when there is no such process, or when
// it cannot be read.
std::optional<std::uint64_t> startTimeOf(pid_t pid);

class Process {
 public:
  Process() = default;  // none
  // The process PID that started at START_TIME. None when it has ended; an error when whether it has cannot be seen.
  static vpnctl::Result<Process> find(pid_t pid, std::uint64_t startTime);
  // PID is a child of ours that nobody has waited for: until then the number is nobody else's.
  static vpnctl::Result<Process> ofChild(pid_t pid);

  explicit operator bool() const { return static_cast<bool>(descriptor_); }
  // The pidfd, readable when the process has ended.
  int descriptor() const { return descriptor_.get(); }
  void reset() { descriptor_.reset(); }

  void signal(int number) const;
  // False when it still runs after DEADLINE.
  bool waitFor(std::chrono::milliseconds deadline) const;
  // SIGTERM, and SIGKILL when it still runs after GRACE. False when it still runs KILL_GRACE after that.
  bool end(std::chrono::milliseconds grace, std::chrono::milliseconds killGrace) const;

 private:
  explicit Process(vpnctl::FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}

  vpnctl::FileDescriptor descriptor_;
};

}  // namespace linux
