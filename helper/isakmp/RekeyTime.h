// When an association is replaced, counted from its start: before its end, and not at the same moment as the peer
// would do it.
//
// Thread rule: none of these keeps state.

#pragma once

#include <algorithm>
#include <chrono>

namespace helper::isakmp {

// How much earlier than at the latest it may happen, as chance wants.
constexpr std::chrono::milliseconds rekeyJitter(std::chrono::seconds lifetime) {
  return std::chrono::milliseconds(lifetime) / 20;
}

// JITTER earlier than it might, of an association of LIFETIME.
constexpr std::chrono::milliseconds replacementTime(std::chrono::seconds lifetime, std::chrono::milliseconds jitter) {
  using std::chrono::milliseconds;
  const milliseconds whole = lifetime;
  return std::min<milliseconds>(whole * 9 / 10 - jitter,
                                std::max<milliseconds>(whole - std::chrono::seconds(60), whole * 3 / 4));
}

}  // namespace helper::isakmp
