// Tells a process from a later one of the same number.
//
// Thread rule: any. Nothing blocks.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"

namespace linux {

// When PID started, in clock ticks since boot (field 22 of /proc/PID/stat); none when there is no such process, or when
// it cannot be read.
std::optional<std::uint64_t> startTimeOf(pid_t pid);

// A pidfd of the process PID that started at START_TIME: from here on the number cannot come to mean another. An empty
// one when it has ended; an error when whether it has cannot be seen.
foundation::Result<foundation::FileDescriptor> openProcess(pid_t pid, std::uint64_t startTime);

}  // namespace linux
