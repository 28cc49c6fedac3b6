#include "companions/probe/Deadline.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace companions {

using std::chrono::milliseconds;

milliseconds Deadline::left() const {
  return std::max(std::chrono::ceil<milliseconds>(at_ - std::chrono::steady_clock::now()), milliseconds(0));
}

Deadline Deadline::orAfter(milliseconds fromNow) const { return orAt(std::chrono::steady_clock::now() + fromNow); }

bool waitFor(int fd, short events, const Deadline &deadline) {
  pollfd wanted{fd, events, 0};
  for (;;) {
    const auto left = std::min<milliseconds::rep>(deadline.left().count(), std::numeric_limits<int>::max());
    const int count = ::poll(&wanted, 1, static_cast<int>(left));
    if (count > 0) return true;
    if (count == 0 || errno != EINTR) return false;
  }
}

}  // namespace companions
