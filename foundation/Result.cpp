#include "foundation/Result.h"

#include <system_error>

namespace vpnctl {

Error errnoError(int errnum, std::string_view context) {
  return {.domain = std::string(kPOSIXErrorDomain),
          .code = errnum,
          .message = std::string(context) + ": " + std::generic_category().message(errnum)};
}

}  // namespace vpnctl
