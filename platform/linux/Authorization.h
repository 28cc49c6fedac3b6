// What stands behind an AuthorizationRef on Linux: the helper that was started with the right, while it is needed.

#pragma once

#include <memory>

#include "platform/Security.h"
#include "platform/linux/HelperConnection.h"

namespace platform {

struct Authorization {
  std::shared_ptr<HelperConnection> helper;  // empty until "system.preferences" has been granted
};

}  // namespace platform
