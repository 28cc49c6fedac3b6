// Assertions that are always on: a false expression is a programming error and ends the process. They print one line on
// standard error, "Assertion failed: (EXPRESSION), function FUNCTION, file FILE, line LINE.", and abort.

#pragma once

namespace vpnctl {

[[noreturn]] void assertionFailed(const char *expression, const char *function, const char *file, int line);

// The usual form, for our own code.
#define FOUNDATION_ASSERT(expression) \
  ((expression) ? void(0) : ::vpnctl::assertionFailed(#expression, __func__, __FILE__, __LINE__))

}  // namespace vpnctl
