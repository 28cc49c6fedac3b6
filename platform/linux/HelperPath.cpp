#include "platform/linux/HelperPath.h"

namespace platform {

const char *helperPath() { return VPNCTL_HELPER_PATH; }
const char *helperSocket() { return "/run/vpnctl.socket"; }

}  // namespace platform
