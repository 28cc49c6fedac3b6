#include "companions/probe/Pace.h"

namespace companions {

void Pace::wait() {
  if (next_ > std::chrono::steady_clock::now()) waitFor(-1, 0, Deadline(next_));
  took();
}

}  // namespace companions
