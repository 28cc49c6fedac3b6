// What backends use to set the error that SCError() gives. Programs have no business here.
//
// Thread rule: any thread; the error is the calling thread's own.

#pragma once

#include <cstdint>

namespace platform {

// SCError() of this thread is STATUS from now on; 0 clears it.
void setSCError(std::int32_t status);

// A null argument: kSCStatusInvalidArgument, unless an earlier failure is still unread.
void setSCErrorForNullArgument();

}  // namespace platform
