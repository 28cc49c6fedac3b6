// The helper's own limits and place among the machine's processes, whatever its starter had: a limit that strikes in
// the middle of a commit, or a timer that somebody else has set, must not decide what becomes of the machine.

#pragma once

namespace helper {

// Resource limits, timers, priorities, processors and what else comes through exec are set to what a process of the
// system has; what root may not change here (in a container) stays as far as it must. A file that grows too large is an
// error of write(), no signal. Programs that are started later inherit all of it but the signal. Call it first, after
// the signals' actions have been reset.
void takeOwnLimits();

}  // namespace helper
