// The PPP phase of a connection and its text for people.

#pragma once

#include <cstdint>

#include "platform/SystemConfiguration.h"

namespace TN {

// The PPP phase from the connection's extended status; -1 when it says none.
std::int32_t GetMinorStatus(const platform::SCNetworkConnectionRef &connection);

// One fixed text per phase 0 to 13, "Unknown status" for everything else. The text is a constant.
const char *NSStringFromPPPStatus(platform::SCNetworkConnectionPPPStatus status);

}  // namespace TN
