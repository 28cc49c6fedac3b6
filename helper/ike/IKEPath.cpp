#include "helper/ike/IKEPath.h"

namespace helper {

const char *ikePath() { return VPNCTL_IKE_PATH; }

}  // namespace helper
