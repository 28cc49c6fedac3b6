#include "helper/journal/Route.h"

namespace helper {

bool operator==(const Route &a, const Route &b) {
  return a.destination.s_addr == b.destination.s_addr && a.prefixLength == b.prefixLength &&
         a.gateway.s_addr == b.gateway.s_addr && a.source.s_addr == b.source.s_addr && a.interface == b.interface &&
         a.metric == b.metric;
}

}  // namespace helper
