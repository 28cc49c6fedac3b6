// What a reference to an authorization stands for.

#pragma once

#include "platform/Security.h"
#include "platform/macos/Frameworks.h"

namespace platform {

struct Authorization {
  explicit Authorization(::AuthorizationRef native) : reference(native) {}
  Authorization(const Authorization &) = delete;
  Authorization &operator=(const Authorization &) = delete;
  ~Authorization() { ::AuthorizationFree(reference, ::kAuthorizationFlagDefaults); }

  const ::AuthorizationRef reference;
};

}  // namespace platform
