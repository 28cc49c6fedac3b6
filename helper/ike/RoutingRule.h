// The rule by which charon sends packets through a routing table of its own (table 220, priority 220). One that is
// killed leaves it behind.
//
// Thread rule: any. The kernel answers at once.

#pragma once

namespace helper {

// For IPv4 or IPv6. True also when it cannot be seen: whoever finds it there leaves it there.
bool hasCharonRule();
// For both; none is no error.
void removeCharonRule();

}  // namespace helper
