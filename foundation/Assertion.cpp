#include "foundation/Assertion.h"

#include <cstdlib>
#include <string>

#include "foundation/StandardError.h"

namespace vpnctl {

void assertionFailed(const char *expression, const char *function, const char *file, int line) {
  writeToStandardError(std::string("Assertion failed: (") + expression + "), function " + function + ", file " + file +
                       ", line " + std::to_string(line) + ".\n");
  std::abort();
}

}  // namespace vpnctl
