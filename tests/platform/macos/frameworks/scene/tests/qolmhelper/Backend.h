// The macOS backend, to the tests of the tool.

#pragma once

#include <string>

namespace TN {

inline const std::string kProtocol = "l2tp";
inline const std::string kLayer = "L2TP";
inline constexpr bool kHasPPTP = false;

// It does not trouble the system with them.
inline constexpr bool kRecordsCallsOnNothing = false;
inline constexpr int kMostStops = 2;
inline constexpr bool kIgnoringLosesSignals = false;

}  // namespace TN
