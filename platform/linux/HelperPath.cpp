#include "platform/linux/HelperPath.h"

namespace platform {

const char *helperPath() { return VPNCTL_HELPER_PATH; }

}  // namespace platform
