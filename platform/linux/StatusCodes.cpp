// The codes of the wire are given on as they are: their numbers are the platform API's.

#include "wire/StatusCodes.h"

#include "platform/Security.h"
#include "platform/SystemConfiguration.h"

namespace platform {

static_assert(int{kSCStatusOK} == int{wire::kSCStatusOK});
static_assert(int{kSCStatusFailed} == int{wire::kSCStatusFailed});
static_assert(int{kSCStatusInvalidArgument} == int{wire::kSCStatusInvalidArgument});
static_assert(int{kSCStatusAccessError} == int{wire::kSCStatusAccessError});
static_assert(int{kSCStatusPrefsBusy} == int{wire::kSCStatusPrefsBusy});
static_assert(int{kSCStatusStale} == int{wire::kSCStatusStale});
static_assert(int{kSCStatusConnectionNoService} == int{wire::kSCStatusConnectionNoService});

static_assert(int{errSecSuccess} == int{wire::errSecSuccess});
static_assert(int{errSecParam} == int{wire::errSecParam});
static_assert(int{errSecWrPerm} == int{wire::errSecWrPerm});
static_assert(int{errSecNotAvailable} == int{wire::errSecNotAvailable});
static_assert(int{errSecAuthFailed} == int{wire::errSecAuthFailed});
static_assert(int{errSecInvalidKeychain} == int{wire::errSecInvalidKeychain});
static_assert(int{errSecDuplicateItem} == int{wire::errSecDuplicateItem});
static_assert(int{errSecItemNotFound} == int{wire::errSecItemNotFound});

}  // namespace platform
