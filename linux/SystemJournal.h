// The system's journal, for what administrators look for there: who asked for what. Where no journal runs nothing is
// told; users find what concerns them in the PPP log.
//
// Thread rule: any. Nothing blocks for long.

#pragma once

#include <initializer_list>
#include <string>
#include <utility>

namespace linux {

// SENTENCE with fields of our own, in capitals, as notice among what concerns rights.
void tellJournal(const std::string &sentence, std::initializer_list<std::pair<const char *, std::string>> fields);

}  // namespace linux
