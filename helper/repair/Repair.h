// Undoing what helpers that have died, and power failures, left on this machine.

#pragma once

#include <chrono>
#include <functional>
#include <set>
#include <string>

#include "helper/journal/Journal.h"

namespace helper {

// The tool waits for its helper, which repairs first; what is left after this is left to the next one.
inline constexpr std::chrono::milliseconds kRepairDeadline{10000};

// Where the journals are; tests point elsewhere.
struct JournalBases {
  std::string running = Journal::kBase;
  std::string lasting = Journal::kLastingBase;
};

// Undoes what links of dead helpers left behind; never touches what one of a living helper did. SAY gets the sentences
// for the user. Blocks: nothing is begun after the deadline. What comes back is the addresses of L2TP servers that
// nobody has told of the end of such a link, now or not long ago.
std::set<std::string> repairAbandoned(const std::function<void(const std::string &sentence)> &say,
                                      const JournalBases &bases = {});

}  // namespace helper
