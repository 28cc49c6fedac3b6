// Tells a process from a later one of the same number.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace helper {

// When PID started, in clock ticks since boot (field 22 of /proc/PID/stat); none when there is no such process.
std::optional<std::uint64_t> startTimeOf(pid_t pid);

}  // namespace helper
