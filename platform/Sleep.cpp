#include <cerrno>
#include <cmath>
#include <ctime>

#include "platform/Dispatch.h"

namespace platform {

void sleepForTimeInterval(double seconds) {
  double whole = 0;
  const double fraction = std::modf(seconds, &whole);
  timespec left{static_cast<std::time_t>(whole), static_cast<long>(fraction * 1e9)};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace platform
