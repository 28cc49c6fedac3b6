// What an authorization of the small frameworks is.

#pragma once

#include <Security/Security.h>

#include "tests/platform/macos/frameworks/Behind.h"

namespace frameworks {

// None for a null reference.
behind::AuthorizationRef authorizationAt(AuthorizationRef reference);

}  // namespace frameworks
