// What tests of the tool must know of the backend that they run on. The tests of another backend have a header of this
// name of their own.

#pragma once

#include <string>

namespace TN {

// The protocol of tests that do with any.
inline const std::string kProtocol = "pptp";
inline const std::string kLayer = "PPTP";  // its interface
inline constexpr bool kHasPPTP = true;

// Whether a call that is given nothing where it needs something shows in the record.
inline constexpr bool kRecordsCallsOnNothing = true;
// How often the system may be asked to stop: more than once where it forgets what comes before the start.
inline constexpr int kMostStops = 1;
// Whether a signal that is pending is thrown away when it is ignored, so that somebody has to look.
inline constexpr bool kIgnoringLosesSignals = true;

}  // namespace TN
