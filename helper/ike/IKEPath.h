// Where vpnctl-ike is: compiled in, in an object of its own, so that a helper for the build folder and one for the
// installation differ in nothing else.

#pragma once

namespace helper {

const char *ikePath();

}  // namespace helper
