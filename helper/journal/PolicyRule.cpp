#include "helper/journal/PolicyRule.h"

namespace helper {

bool operator==(const PolicyRule &a, const PolicyRule &b) {
  return a.kind == b.kind && a.ipv6 == b.ipv6 && a.server.s_addr == b.server.s_addr && a.table == b.table;
}

}  // namespace helper
