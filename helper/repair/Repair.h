// Undoing what helpers that have died left on this machine.

#pragma once

#include <chrono>

#include "helper/common/PPPLog.h"

namespace helper {

// The tool waits for its helper, which repairs first; what is left after this is left to the next one.
inline constexpr std::chrono::milliseconds kRepairDeadline{10000};

// Undoes what links of dead helpers left behind; never touches the folder of a living one. Blocks: nothing is begun
// after the deadline. True if one of them went over L2TP: nobody has told its server that it has ended.
bool repairAbandoned(PPPLog &log);

}  // namespace helper
