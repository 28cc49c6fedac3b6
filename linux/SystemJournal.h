// The system's journal, for what administrators look for there: who asked for what. Where no journal runs nothing is
// told; users find what concerns them in the PPP log.
//
// Thread rule: any. Nothing blocks for long.

#pragma once

#include <string>
#include <utility>
#include <vector>

namespace linux {

// Names in capitals, and what they say.
using JournalFields = std::vector<std::pair<std::string, std::string>>;

// SENTENCE with FIELDS of our own, as notice among what concerns rights.
void tellJournal(const std::string &sentence, const JournalFields &fields);

}  // namespace linux
