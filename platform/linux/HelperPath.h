// Where vpnctl-helper lies. A program is linked with one of two definitions: the build folder's, for programs that run
// from there, or the installed one.

#pragma once

namespace platform {

const char *helperPath();

}  // namespace platform
