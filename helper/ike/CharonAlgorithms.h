// Which of the algorithms that proposals are made of a charon has, from its own list.
//
// Thread rule: as a plain value.

#pragma once

#include <optional>
#include <set>
#include <string>

#include "helper/ike/ViciMessage.h"

namespace helper {

class CharonAlgorithms {
 public:
  CharonAlgorithms() = default;  // it did not say: has them all
  // ANSWER is its to get-algorithms.
  explicit CharonAlgorithms(const vici::Section &answer);

  // WRITTEN as in proposals. One that we know nothing of is the daemon's to judge.
  bool has(const std::string &written) const;

 private:
  std::optional<std::set<std::string>> names_;  // "CATEGORY NAME"
};

}  // namespace helper
