#include "foundation/Result.h"

#include <cstring>

namespace foundation {

Error errnoError(int errnum, std::string_view context) {
  // The untranslated text, and safe on every thread, unlike strerror().
  const char *reason = strerrordesc_np(errnum);
  return {.domain = std::string(kPOSIXErrorDomain),
          .code = errnum,
          .message = std::string(context) + ": " +
                     (reason != nullptr ? std::string(reason) : "Unknown error " + std::to_string(errnum))};
}

}  // namespace foundation
