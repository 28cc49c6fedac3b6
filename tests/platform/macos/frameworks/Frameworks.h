// What a test may know and change of the small frameworks beside the scene of the fake platform.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <string>
#include <vector>

namespace frameworks {

// Objects that no function of ours makes; one count is the caller's.
CFStringRef newHalfCharacter();       // half of a character of UTF-16
CFNumberRef newNumberPastTheRange();  // the integer 2^63
CFTypeRef newObjectOfNoPropertyList();

// Names of the dispatch functions that were called, in order.
std::vector<std::string> dispatchCalls();
void forgetDispatchCalls();
// Handlers of sources that are running.
int handlersRunning();

// Authorizations that have not been freed, and sets of rights.
int authorizationsLeft();

// The system's error of this thread, as some call may leave it behind that did not fail.
void setSystemsError(std::int32_t error);
// The status that SCErrorString knows nothing of.
inline constexpr int kStatusWithoutText = 4711;
// Stops fail with ERROR from now on; 0: they do not.
void failStops(std::int32_t error);

}  // namespace frameworks
