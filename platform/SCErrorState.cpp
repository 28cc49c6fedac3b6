#include "platform/SCErrorState.h"

#include "platform/SystemConfiguration.h"

namespace platform {
namespace {

thread_local std::int32_t lastError = kSCStatusOK;

}  // namespace

std::int32_t SCError() { return lastError; }

void setSCError(std::int32_t status) { lastError = status; }

void setSCErrorForNullArgument() {
  if (lastError == kSCStatusOK) lastError = kSCStatusInvalidArgument;
}

}  // namespace platform
