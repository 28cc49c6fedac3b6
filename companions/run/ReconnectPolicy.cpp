#include "companions/run/ReconnectPolicy.h"

#include <algorithm>
#include <utility>

namespace companions {

using std::chrono::milliseconds;

ReconnectPolicy::ReconnectPolicy(Limits limits, std::function<double()> chance)
    : limits_(limits), chance_(std::move(chance)), next_(limits.first) {}

std::optional<milliseconds> ReconnectPolicy::pauseAfter(const Outcome &outcome) {
  if (!mayComeRight(outcome.kind())) return std::nullopt;
  if (outcome.wasConnected()) {
    attempts_ = 0;
    next_ = limits_.first;
  }
  if (limits_.attempts && attempts_ >= *limits_.attempts) return std::nullopt;
  ++attempts_;
  if (outcome.wasConnected() && outcome.networkChanged()) return milliseconds(0);
  const milliseconds base = std::exchange(next_, std::min(2 * next_, limits_.longest));
  return std::chrono::duration_cast<milliseconds>(base * (0.5 + chance_()));
}

}  // namespace companions
