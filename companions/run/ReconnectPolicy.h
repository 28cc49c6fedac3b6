// Whether to connect again after a connection has ended, and when: after pauses that double up to a limit, each made
// shorter or longer by chance, so that many clients do not come back to a server at the same moment. At once where the
// network has changed under a connection that stood. Never after what another attempt cannot mend.
//
// Thread rule: as a plain value.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "companions/run/Outcome.h"

namespace companions {

class ReconnectPolicy {
 public:
  struct Limits {
    std::chrono::milliseconds first{2000};
    std::chrono::milliseconds longest{std::chrono::minutes(5)};
    std::optional<std::int64_t> attempts = {};  // in a row without a connection; none: any number
  };

  // CHANCE: from 0 to 1.
  ReconnectPolicy(Limits limits, std::function<double()> chance);

  // How long to wait before another attempt; none: there is to be none.
  std::optional<std::chrono::milliseconds> pauseAfter(const Outcome &outcome);

 private:
  Limits limits_;
  std::function<double()> chance_;
  std::int64_t attempts_ = 0;
  std::chrono::milliseconds next_;
};

}  // namespace companions
