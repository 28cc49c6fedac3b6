// Where vpnctl-helper lies, and where one can be reached by whoever may not start it. A program is linked with one of
// two definitions: the build folder's, for programs that run from there, or the installed one.

#pragma once

namespace platform {

const char *helperPath();
// The systemd socket that starts one.
const char *helperSocket();

}  // namespace platform
